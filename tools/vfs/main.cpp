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

  try {
    app.parse(argc, argv);
  } catch (CLI::ParseError const& e) {
    int const status = app.exit(e);
    return status == 0 ? 0 : vfs_tool::UsageError;
  } catch (...) {
    return vfs_tool::reportCurrentFailure();
  }
  return tool.status;
}
