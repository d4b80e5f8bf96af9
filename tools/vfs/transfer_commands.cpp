// cp, mv, rm and mkdir: changing trees, across schemes as well as within one.

#include "commands.hpp"
#include "exit_status.hpp"
#include "output.hpp"

#include <map>

namespace vfs_tool {

namespace {

namespace provider = foundation::storage::provider;

struct TransferOptions {
  std::string source, destination;
  bool recursive = false;
  provider::ReplacementPolicy policy = provider::ReplacementPolicy::FailIfExists;
};

/// What a copy or move makes: `destination` itself, or like cp and mv, the source's name
/// inside `destination` when that is an existing folder.
vfs::AbsoluteIRI targetOf(Tool& tool, vfs::FileOrFolder const& source, Location const& destination) {
  if (vfs::Folder(destination.iri, tool.session.system()).folderExists()) {
    return vfs::AbsoluteIRI(destination.iri, vfs::getName(source));
  }
  return destination.iri;
}

vfs::FileOrFolder sameKind(vfs::FileOrFolder const& source, vfs::AbsoluteIRI const& target,
                           vfs::StorageSystemReference system) {
  if (source.which() == 0) return vfs::File(target, system);
  return vfs::Folder(target, system);
}

int copy(Tool& tool, TransferOptions const& o, bool move) {
  auto const from = tool.session.resolve(o.source);
  auto const to = tool.session.resolve(o.destination);
  auto const source = tool.session.existing(from);
  if (!move && source.which() == 1 && !o.recursive) {
    throw ToolFailure{"InvalidLocation", from.iriText() + " is a folder (copy it with -r)", BadLocation};
  }
  auto const target = sameKind(source, targetOf(tool, source, to), tool.session.system());
  tool.session.changes(vfs::getLocation(target));
  if (move) tool.session.changes(from.iri);
  Progress progress(move ? "moving" : "copying");
  if (move) {
    vfs::move(source, target, o.policy);
  } else {
    vfs::copy(source, target, o.policy);
  }
  return Success;
}

int remove(Tool& tool, std::string const& text, bool recursive) {
  auto const item = tool.session.existing(tool.session.resolve(text));
  tool.session.changes(vfs::getLocation(item));
  Progress progress("removing");
  vfs::remove(item, recursive ? vfs::FolderRemovalPolicy::Recursive : vfs::FolderRemovalPolicy::NonRecursive);
  return Success;
}

int makeFolder(Tool& tool, std::string const& text, bool parents) {
  vfs::Folder const folder(tool.session.resolve(text).iri, tool.session.system());
  tool.session.changes(folder.getLocation());
  if (parents) {
    if (!folder.folderExists()) folder.createFolderRecursive();
  } else {
    folder.createFolder();
  }
  return Success;
}

void addPolicy(CLI::App& command, TransferOptions& o) {
  static std::map<std::string, provider::ReplacementPolicy> const policies{
      {"fail", provider::ReplacementPolicy::FailIfExists},
      {"overwrite", provider::ReplacementPolicy::Overwrite},
      {"force", provider::ReplacementPolicy::ForceOverwrite},
      {"keep", provider::ReplacementPolicy::KeepExisting}};
  command
      .add_option("--policy", o.policy,
                  "What happens to what already exists: fail (default); overwrite (files; an empty "
                  "folder is replaced); force (also read-only files); keep (existing files stay)")
      ->transform(CLI::CheckedTransformer(policies));
}

} // namespace

void addTransferCommands(CLI::App& app, Tool& tool) {
  auto c = std::make_shared<TransferOptions>();
  auto* cp = app.add_subcommand("cp", "Copy a file, or a folder tree with -r; into DST when DST is a folder");
  cp->add_flag("-r,--recursive", c->recursive, "Copy folders with everything below them");
  addPolicy(*cp, *c);
  cp->add_option("source", c->source, "File or folder")->required();
  cp->add_option("destination", c->destination, "New location, or an existing folder to copy into")->required();
  cp->callback([&tool, c] { tool.status = copy(tool, *c, false); });

  auto m = std::make_shared<TransferOptions>();
  auto* mv = app.add_subcommand("mv", "Move or rename a file or folder; into DST when DST is a folder. Across "
                                      "schemes it copies and removes the source only after the whole copy");
  addPolicy(*mv, *m);
  mv->add_option("source", m->source, "File or folder")->required();
  mv->add_option("destination", m->destination, "New location, or an existing folder to move into")->required();
  mv->callback([&tool, m] { tool.status = copy(tool, *m, true); });

  auto r = std::make_shared<TransferOptions>();
  auto* rm = app.add_subcommand("rm", "Remove a file, an empty folder, or a whole tree with -r");
  rm->add_flag("-r,--recursive", r->recursive, "Remove a folder and everything below it");
  rm->add_option("location", r->source, "File or folder")->required();
  rm->callback([&tool, r] { tool.status = remove(tool, r->source, r->recursive); });

  auto d = std::make_shared<TransferOptions>();
  auto* mkdir = app.add_subcommand("mkdir", "Create a folder");
  mkdir->add_flag("-p,--parents", d->recursive, "Create missing parents too; an existing folder is no failure");
  mkdir->add_option("location", d->source, "Folder to create")->required();
  mkdir->callback([&tool, d] { tool.status = makeFolder(tool, d->source, d->recursive); });
}

} // namespace vfs_tool
