#include <vfs/entries.hpp>
#include <vfs/folder.hpp>

#include "listing/entry_state.hpp"

namespace foundation::storage::vfs {

class FileEntry::Impl : public detail::EntryState<File, provider::FileAttributes> {
public:
  using EntryState::EntryState;
};

class FolderEntry::Impl : public detail::EntryState<Folder, provider::FolderAttributes> {
public:
  using EntryState::EntryState;
};

FileEntry::FileEntry(Folder parent, std::u16string name, provider::FileAttributes attributes)
    : impl_(std::make_shared<Impl>(std::move(parent), std::move(name), std::move(attributes))) {}
FileEntry::FileEntry(Folder parent, std::u16string name)
    : impl_(std::make_shared<Impl>(std::move(parent), std::move(name))) {}
FileEntry::FileEntry(File file) : impl_(std::make_shared<Impl>(std::move(file))) {}

std::u16string const& FileEntry::getName() const noexcept { return impl_->name; }
File const& FileEntry::getFile() const { return impl_->handle.get(); }
provider::FileAttributes const& FileEntry::getAttributes() const { return impl_->attributes.get(); }
AbsoluteIRI FileEntry::getLocation() const { return getFile().getLocation(); }
AbsoluteIRI FileEntry::getCanonicalLocation() const { return getFile().getCanonicalLocation(); }

FolderEntry::FolderEntry(Folder parent, std::u16string name, provider::FolderAttributes attributes)
    : impl_(std::make_shared<Impl>(std::move(parent), std::move(name), std::move(attributes))) {}
FolderEntry::FolderEntry(Folder parent, std::u16string name)
    : impl_(std::make_shared<Impl>(std::move(parent), std::move(name))) {}
FolderEntry::FolderEntry(Folder folder) : impl_(std::make_shared<Impl>(std::move(folder))) {}

std::u16string const& FolderEntry::getName() const noexcept { return impl_->name; }
Folder const& FolderEntry::getFolder() const { return impl_->handle.get(); }
provider::FolderAttributes const& FolderEntry::getAttributes() const { return impl_->attributes.get(); }
AbsoluteIRI FolderEntry::getLocation() const { return getFolder().getLocation(); }
AbsoluteIRI FolderEntry::getCanonicalLocation() const { return getFolder().getCanonicalLocation(); }

namespace {

/// Applies `accessor` to the entry held, whichever kind it is.
template <class Accessor>
auto onEntry(FileOrFolderEntry const& entry, Accessor accessor) {
  if (auto const* file = boost::get<FileEntry>(&entry)) return accessor(*file);
  return accessor(boost::get<FolderEntry>(entry));
}

} // namespace

std::u16string getName(FileOrFolderEntry const& entry) {
  return onEntry(entry, [](auto const& e) { return e.getName(); });
}
AbsoluteIRI getLocation(FileOrFolderEntry const& entry) {
  return onEntry(entry, [](auto const& e) { return e.getLocation(); });
}
AbsoluteIRI getCanonicalLocation(FileOrFolderEntry const& entry) {
  return onEntry(entry, [](auto const& e) { return e.getCanonicalLocation(); });
}

class ListEntry::Impl {
public:
  Impl(Folder parent, std::u16string name) : parent(std::move(parent)), name(std::move(name)) {}

  Folder const parent;
  std::u16string const name;
};

ListEntry::ListEntry(Folder parent, std::u16string name)
    : impl_(std::make_shared<Impl const>(std::move(parent), std::move(name))) {}

std::u16string const& ListEntry::getName() const noexcept { return impl_->name; }

std::u16string ListEntry::getFilename() const {
  std::u16string const& name = impl_->name;
  if (name == u"/") return name;
  auto slash = name.rfind(u'/');
  return slash == std::u16string::npos ? name : name.substr(slash + 1);
}

AbsoluteIRI ListEntry::getLocation() const { return AbsoluteIRI(impl_->parent.getLocation(), impl_->name); }

boost::variant<File, Folder> ListEntry::getFileOrFolder() const {
  AbsoluteIRI location = getLocation();
  StorageSystemReference system = impl_->parent.getStorageSystem();
  auto const kind = exists(location, system);
  if (kind == provider::ExistsResult::File || kind == provider::ExistsResult::NotFound) return File(location, system);
  return Folder(location, system);
}

bool ListEntry::operator==(ListEntry const& other) const { return getLocation() == other.getLocation(); }
bool ListEntry::operator<(ListEntry const& other) const { return getLocation() < other.getLocation(); }

namespace detail {

Folder getFolderFromEntry(ListEntry const& entry) { return boost::get<Folder>(entry.getFileOrFolder()); }
Folder getFolderFromEntry(FileOrFolderEntry const& entry) { return boost::get<FolderEntry>(entry).getFolder(); }

} // namespace detail

} // namespace foundation::storage::vfs
