#include "session.hpp"

#include <vfs/provider_administration.hpp>

#include <fl/i18n/i18n.hpp>

#include <filesystem>

namespace vfs_tool {

namespace {

std::string withoutTrailingSlashes(std::string text) {
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

} // namespace

std::string Location::iriText() const { return fl::i18n::to_utf8(iri.toString()); }

std::string Location::relative(vfs::AbsoluteIRI const& location) const {
  return fl::i18n::to_utf8(location.makePathRelativeTo(iri));
}

std::string Location::display(vfs::AbsoluteIRI const& location) const {
  if (!localPath) return fl::i18n::to_utf8(location.toString());
  auto const path = relative(location);
  if (path.empty()) return given;
  return given == "/" ? "/" + path : given + "/" + path;
}

Location Session::resolve(std::string const& text) {
  auto const wide = fl::i18n::to_ustring(text);
  if (vfs::hasIRIPrefix(wide)) return {vfs::AbsoluteIRI(wide), withoutTrailingSlashes(text), false};
  auto path = std::filesystem::absolute(text.empty() ? std::filesystem::path(".") : std::filesystem::path(text))
                  .lexically_normal();
  auto native = withoutTrailingSlashes(path.string());
  return {vfs::toAbsoluteIRI(u"file", fl::filesystem::path(native)), withoutTrailingSlashes(text), true};
}

std::shared_ptr<foundation::storage::systems::StandardStorageSystem> const& Session::storage() {
  if (!storage_) storage_ = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  return storage_;
}

vfs::StorageSystemReference Session::system() {
  return vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(storage()));
}

vfs::FileOrFolder Session::existing(Location const& location) { return vfs::makeFileOrFolder(location.iri, system()); }

void Session::changes(vfs::AbsoluteIRI const& location) { changed_.push_back(location); }

void Session::commitChanges() {
  // Only locations inside another file (archives) hold changes back; flushing a plain
  // location would only sync its whole file system.
  std::vector<vfs::AbsoluteIRI> changed;
  for (auto& location : changed_)
    if (location.hasInnerIRI()) changed.push_back(std::move(location));
  changed_.clear();
  try {
    for (auto const& location : changed) vfs::extensions::flushFilesystem(location, system());
  } catch (...) {
    // Reported once, by the caller: what could not be committed is dropped rather than
    // tried again, and logged, as the providers go.
    for (auto const& location : changed) {
      try {
        vfs::invalidateFolder(vfs::Folder(location, system()));
      } catch (...) {
        // nothing more to drop there
      }
    }
    throw;
  }
}

} // namespace vfs_tool
