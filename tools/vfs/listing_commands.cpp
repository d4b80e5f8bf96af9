// ls and stat: what a folder holds and what a file or folder is.

#include "commands.hpp"
#include "exit_status.hpp"
#include "output.hpp"
#include "tree_walk.hpp"

#include <foundation/storage/provider/wildcard.hpp>
#include <vfs/entries.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <fl/i18n/i18n.hpp>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <vector>

namespace vfs_tool {

namespace {

namespace provider = foundation::storage::provider;

/// What the long form shows of one entry.
struct Shown {
  std::string name;
  bool folder;
  std::uint64_t size;
  boost::posix_time::ptime modified;
  bool writable, hidden, symlink;
};

template <class Attributes>
Shown shown(std::string name, bool folder, std::uint64_t size, Attributes const& a) {
  return {std::move(name), folder, size, a.getLastModified(), a.isWritable(), a.isHidden(), a.isSymlink()};
}

/// `name` with what the listing delivered with `entry`.
Shown shownEntry(vfs::FileOrFolderEntry const& entry, std::string name) {
  if (auto const* file = boost::get<vfs::FileEntry>(&entry)) {
    auto const& a = file->getAttributes();
    return shown(std::move(name), false, a.getSize(), a);
  }
  return shown(std::move(name), true, 0, boost::get<vfs::FolderEntry>(entry).getAttributes());
}

void print(Output& out, Shown const& s, bool longForm) {
  if (!longForm) {
    out.record(s.name);
    return;
  }
  char line[96];
  std::snprintf(line, sizeof line, "%c %12" PRIu64 " %s %c%c%c ", s.folder ? 'd' : 'f', s.size,
                formatTime(s.modified).c_str(), s.writable ? 'w' : '-', s.hidden ? 'h' : '-', s.symlink ? 'l' : '-');
  out.record(std::string(line) + s.name);
}

struct LsOptions {
  bool longForm = false;
  bool recursive = false;
  std::string pattern;
  std::string location = ".";
};

int listFlat(vfs::Folder const& folder, LsOptions const& o, Output& out) {
  std::vector<Shown> entries;
  auto const listing = folder.listAllEntries(fl::i18n::to_ustring(o.pattern));
  for (auto const& entry : listing) entries.push_back(shownEntry(entry, fl::i18n::to_utf8(vfs::getName(entry))));
  std::sort(entries.begin(), entries.end(), [](Shown const& a, Shown const& b) { return a.name < b.name; });
  for (auto const& s : entries) print(out, s, o.longForm);
  return Success;
}

int listRecursive(Location const& root, vfs::Folder const& folder, LsOptions const& o, Output& out) {
  auto const pattern = fl::i18n::to_ustring(o.pattern);
  return walkTree(folder, false, [&](vfs::FileOrFolderEntry const& entry) {
    auto const location = vfs::getLocation(entry);
    if (location == root.iri) return;
    if (!pattern.empty() && !provider::matchesWildcard(pattern, vfs::getName(entry))) return;
    if (o.longForm) {
      print(out, shownEntry(entry, root.relative(location)), true);
    } else {
      out.record(root.relative(location));
    }
  });
}

int ls(Tool& tool, LsOptions const& o) {
  auto const location = tool.session.resolve(o.location);
  auto const item = tool.session.existing(location);
  Output out;
  if (auto const* file = boost::get<vfs::File>(&item)) {
    print(out, shownEntry(vfs::FileEntry(*file), location.given), o.longForm);
    return Success;
  }
  auto const& folder = boost::get<vfs::Folder>(item);
  return o.recursive ? listRecursive(location, folder, o, out) : listFlat(folder, o, out);
}

int stat(Tool& tool, std::string const& text) {
  auto const location = tool.session.resolve(text);
  auto const item = tool.session.existing(location);
  auto const* file = boost::get<vfs::File>(&item);
  Output out;
  out.record("location: " + location.iriText());
  out.record(std::string("kind:     ") + (file ? "file" : "folder"));
  if (file) out.record("size:     " + std::to_string(file->getAttributes().getSize()));
  out.record("modified: " + formatTime(vfs::getLastModified(item)));
  out.record(std::string("writable: ") + (vfs::isWritable(item) ? "yes" : "no"));
  out.record(std::string("hidden:   ") + (vfs::isHidden(item) ? "yes" : "no"));
  out.record(std::string("symlink:  ") + (vfs::isSymlink(item) ? "yes" : "no"));
  return Success;
}

} // namespace

std::string formatTime(boost::posix_time::ptime const& time) {
  if (time.is_special()) return "-                  ";
  auto text = boost::posix_time::to_iso_extended_string(time);
  text[10] = ' ';
  return text.substr(0, 19);
}

void addListingCommands(CLI::App& app, Tool& tool) {
  auto options = std::make_shared<LsOptions>();
  auto* ls = app.add_subcommand("ls", "List a folder (or show a file)");
  ls->add_flag("-l,--long", options->longForm,
               "Long form: kind (f/d), size, modification time (UTC), flags (w writable, h hidden, l symlink), name");
  ls->add_flag("-R,--recursive", options->recursive, "The whole tree, as paths relative to the folder");
  ls->add_option("--pattern", options->pattern, "Only names matching the wildcard pattern (* and ?)");
  ls->add_option("location", options->location, "Folder or file (default: the current folder)");
  ls->callback([&tool, options] { tool.status = vfs_tool::ls(tool, *options); });

  auto location = std::make_shared<std::string>();
  auto* st = app.add_subcommand("stat", "Show what a file or folder is: kind, size, time, flags");
  st->add_option("location", *location, "File or folder")->required();
  st->callback([&tool, location] { tool.status = stat(tool, *location); });
}

} // namespace vfs_tool
