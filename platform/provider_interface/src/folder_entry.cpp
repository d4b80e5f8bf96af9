#include <foundation/storage/provider/folder_entry.hpp>

#include <stdexcept>

namespace foundation::storage::provider {

IFolderEntryIterator::~IFolderEntryIterator() = default;

SnapshotFolderEntryIterator::SnapshotFolderEntryIterator(std::vector<FolderEntry> entries)
    : entries_(std::make_shared<std::vector<FolderEntry> const>(std::move(entries))) {}

FolderEntry const& SnapshotFolderEntryIterator::current() const {
  if (position_ == 0) throw std::logic_error("listing cursor is before its first entry");
  return (*entries_)[position_ - 1];
}

bool SnapshotFolderEntryIterator::hasNext() const { return position_ < entries_->size(); }

void SnapshotFolderEntryIterator::next() {
  if (!hasNext()) throw std::logic_error("listing cursor moved past its last entry");
  ++position_;
}

std::unique_ptr<IFolderEntryIterator> SnapshotFolderEntryIterator::clone() const {
  return std::make_unique<SnapshotFolderEntryIterator>(*this);
}

} // namespace foundation::storage::provider
