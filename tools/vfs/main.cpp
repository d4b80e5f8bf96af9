// vfs: files and folders of every registered storage scheme from the command line.

#include "commands.hpp"
#include "exit_status.hpp"

#include <csignal>

int main(int argc, char** argv) {
  // A closed pipe shows up as EPIPE, which Output turns into a quiet exit.
  std::signal(SIGPIPE, SIG_IGN);

  CLI::App app{"vfs - files and folders of every registered storage scheme (file:///..., mem:///...).\n"
               "Locations are IRIs or local paths; relative paths start from the current folder.",
               "vfs"};
  app.set_version_flag("--version", std::string("vfs ") + VFS_TOOL_VERSION);
  app.require_subcommand(1);
  app.footer(vfs_tool::exitStatusHelp());

  vfs_tool::Tool tool;
  vfs_tool::addListingCommands(app, tool);
  vfs_tool::addWalkCommands(app, tool);
  vfs_tool::addStreamCommands(app, tool);
  vfs_tool::addTransferCommands(app, tool);
  vfs_tool::addWatchCommand(app, tool);
  vfs_tool::addMountCommands(app, tool);

  int status = vfs_tool::Success;
  try {
    app.parse(argc, argv);
    status = tool.status;
  } catch (CLI::ParseError const& e) {
    int const parsed = app.exit(e);
    return parsed == 0 ? 0 : vfs_tool::UsageError;
  } catch (...) {
    status = vfs_tool::reportCurrentFailure();
  }
  // Changes a provider holds back (an archive's change set) are committed here, where a
  // failure still shows in the exit status, rather than when the providers go.
  try {
    tool.session.commitChanges();
  } catch (...) {
    int const failed = vfs_tool::reportCurrentFailure();
    if (status == vfs_tool::Success) status = failed;
  }
  return status;
}
