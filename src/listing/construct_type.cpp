#include "listing/construct_type.hpp"

namespace foundation::storage::vfs::detail {

namespace {

template <class Entry, class Attributes>
Entry entryOf(Folder const& parent, provider::FolderEntry const& entry, boost::optional<Attributes> const& attributes) {
  if (attributes) return Entry(parent, entry.getName(), *attributes);
  return Entry(parent, entry.getName());
}

FileEntry fileEntryOf(Folder const& parent, provider::FolderEntry const& entry) {
  return entryOf<FileEntry>(parent, entry, entry.getFileAttributes());
}

FolderEntry folderEntryOf(Folder const& parent, provider::FolderEntry const& entry) {
  return entryOf<FolderEntry>(parent, entry, entry.getFolderAttributes());
}

} // namespace

template <>
File constructType<File>(Folder const& parent, provider::FolderEntry const& entry) {
  return File(parent, entry.getName());
}

template <>
Folder constructType<Folder>(Folder const& parent, provider::FolderEntry const& entry) {
  return Folder(parent, entry.getName());
}

template <>
FileOrFolder constructType<FileOrFolder>(Folder const& parent, provider::FolderEntry const& entry) {
  if (entry.isFile()) return File(parent, entry.getName());
  return Folder(parent, entry.getName());
}

template <>
FileEntry constructType<FileEntry>(Folder const& parent, provider::FolderEntry const& entry) {
  return fileEntryOf(parent, entry);
}

template <>
FolderEntry constructType<FolderEntry>(Folder const& parent, provider::FolderEntry const& entry) {
  return folderEntryOf(parent, entry);
}

template <>
FileOrFolderEntry constructType<FileOrFolderEntry>(Folder const& parent, provider::FolderEntry const& entry) {
  if (entry.isFile()) return fileEntryOf(parent, entry);
  return folderEntryOf(parent, entry);
}

template <>
ListEntry constructType<ListEntry>(Folder const& parent, provider::FolderEntry const& entry) {
  return ListEntry(parent, entry.getName());
}

template <>
FolderListing<ListEntry> constructType<ListEntry>(Folder const& folder) {
  return folder.listAll(std::u16string());
}

template <>
FolderListing<FileOrFolderEntry> constructType<FileOrFolderEntry>(Folder const& folder) {
  return folder.listAllEntries(std::u16string());
}

void cloneFolderEntryIterator(std::unique_ptr<provider::IFolderEntryIterator> const& from,
                              std::unique_ptr<provider::IFolderEntryIterator>& to) {
  to = from ? from->clone() : nullptr;
}

} // namespace foundation::storage::vfs::detail
