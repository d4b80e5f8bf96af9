// find and du: every entry of a tree, serially or with the parallel walk.

#include "commands.hpp"
#include "exit_status.hpp"
#include "output.hpp"
#include "tree_walk.hpp"

#include <foundation/storage/provider/wildcard.hpp>

#include <vfs/entries.hpp>

#include <fl/i18n/i18n.hpp>

#include <atomic>

namespace vfs_tool {

namespace {

struct FindOptions {
  std::string location = ".";
  std::string name;
  std::string type;
  bool parallel = false;
  bool nulTerminated = false;
};

int find(Tool& tool, FindOptions const& o) {
  auto const root = tool.session.resolve(o.location);
  auto const item = tool.session.existing(root);
  auto const pattern = fl::i18n::to_ustring(o.name);
  bool const filesOnly = o.type == "f", foldersOnly = o.type == "d";
  char const terminator = o.nulTerminated ? '\0' : '\n';
  Output out;
  auto const report = [&](vfs::FileOrFolderEntry const& entry) {
    bool const folder = entry.which() == 1;
    if ((filesOnly && folder) || (foldersOnly && !folder)) return;
    if (!pattern.empty() && !foundation::storage::provider::matchesWildcard(pattern, vfs::getName(entry))) return;
    out.record(root.display(vfs::getLocation(entry)), terminator);
  };
  if (auto const* file = boost::get<vfs::File>(&item)) {
    report(vfs::FileEntry(*file));
    return Success;
  }
  return walkTree(boost::get<vfs::Folder>(item), o.parallel, report);
}

int du(Tool& tool, std::string const& text, bool parallel) {
  auto const root = tool.session.resolve(text);
  auto const item = tool.session.existing(root);
  std::atomic<std::uint64_t> bytes{0};
  int status = Success;
  if (auto const* file = boost::get<vfs::File>(&item)) {
    bytes = file->getAttributes().getSize();
  } else {
    status = walkTree(boost::get<vfs::Folder>(item), parallel, [&](vfs::FileOrFolderEntry const& entry) {
      bytes.fetch_add(sizeOf(entry), std::memory_order_relaxed);
    });
  }
  Output out;
  out.record(std::to_string(bytes.load()) + "\t" + root.given);
  return status;
}

} // namespace

void addWalkCommands(CLI::App& app, Tool& tool) {
  auto f = std::make_shared<FindOptions>();
  auto* find = app.add_subcommand("find", "Print every entry of a tree, the folder itself first");
  find->add_option("location", f->location, "Where to start (default: the current folder)");
  find->add_option("--name", f->name, "Only entries whose name matches the wildcard pattern (* and ?)");
  find->add_option("--type", f->type, "Only files (f) or folders (d)")->check(CLI::IsMember({"f", "d"}));
  find->add_flag("--parallel", f->parallel, "Walk sub-folders concurrently (output order is then arbitrary)");
  find->add_flag("-0,--print0", f->nulTerminated, "End each name with a NUL byte instead of a newline");
  find->callback([&tool, f] { tool.status = vfs_tool::find(tool, *f); });

  auto location = std::make_shared<std::string>(".");
  auto parallel = std::make_shared<bool>(false);
  auto* du = app.add_subcommand("du", "Print the total size in bytes of the files of a tree");
  du->add_option("location", *location, "Folder or file (default: the current folder)");
  du->add_flag("--parallel", *parallel, "Walk sub-folders concurrently");
  du->callback([&tool, location, parallel] { tool.status = vfs_tool::du(tool, *location, *parallel); });
}

} // namespace vfs_tool
