#include "listing/construct_type.hpp"

namespace foundation::storage::vfs::detail {

namespace {

template <class Entry, class Attributes>
Entry entryOf(Folder const& parent, provider::FolderEntry& entry, boost::optional<Attributes> const& attributes) {
  if (attributes) return Entry(parent, std::move(entry).getName(), *attributes);
  return Entry(parent, std::move(entry).getName());
}

FileEntry fileEntryOf(Folder const& parent, provider::FolderEntry& entry) {
  return entryOf<FileEntry>(parent, entry, entry.getFileAttributes());
}

FolderEntry folderEntryOf(Folder const& parent, provider::FolderEntry& entry) {
  return entryOf<FolderEntry>(parent, entry, entry.getFolderAttributes());
}

} // namespace

template <>
File constructType<File>(Folder const& parent, provider::FolderEntry entry) {
  return File(parent, entry.getName());
}

template <>
Folder constructType<Folder>(Folder const& parent, provider::FolderEntry entry) {
  return Folder(parent, entry.getName());
}

template <>
FileOrFolder constructType<FileOrFolder>(Folder const& parent, provider::FolderEntry entry) {
  if (entry.isFile()) return File(parent, entry.getName());
  return Folder(parent, entry.getName());
}

template <>
FileEntry constructType<FileEntry>(Folder const& parent, provider::FolderEntry entry) {
  return fileEntryOf(parent, entry);
}

template <>
FolderEntry constructType<FolderEntry>(Folder const& parent, provider::FolderEntry entry) {
  return folderEntryOf(parent, entry);
}

template <>
FileOrFolderEntry constructType<FileOrFolderEntry>(Folder const& parent, provider::FolderEntry entry) {
  if (entry.isFile()) return fileEntryOf(parent, entry);
  return folderEntryOf(parent, entry);
}

template <>
ListEntry constructType<ListEntry>(Folder const& parent, provider::FolderEntry entry) {
  return ListEntry(parent, std::move(entry).getName());
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
