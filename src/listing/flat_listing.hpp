#pragma once

#include "listing/element_types.hpp"

#include <foundation/storage/provider/folder_entry.hpp>

#include <boost/optional.hpp>

#include <memory>

namespace foundation::storage::vfs::detail {

/// A position in a flat listing over a provider cursor. It stands on its current element
/// (null at the end) and moves on only when incremented (at the end, incrementing does
/// nothing): nothing is read ahead. Two
/// positions are equal when they share the current element object and belong to the same
/// folder, so an end position equals an advanced one exactly once the latter has run out.
template <class T>
class FolderListingIteratorImpl final : public IFolderIteratorImpl<T> {
public:
  /// No folder, no cursor, no element.
  FolderListingIteratorImpl() = default;
  /// The end of a listing of `parent`.
  explicit FolderListingIteratorImpl(Folder parent);
  /// Moves `cursor` onto its first entry.
  FolderListingIteratorImpl(Folder parent, std::unique_ptr<provider::IFolderEntryIterator> cursor);
  /// Clones the cursor and shares the current element.
  FolderListingIteratorImpl(FolderListingIteratorImpl const& other);
  FolderListingIteratorImpl& operator=(FolderListingIteratorImpl const& other);

  void increment() override;
  bool equal(IFolderIteratorImpl<T> const& other) const override;
  T const& dereference() const override;
  std::shared_ptr<IFolderIteratorImpl<T>> cloneImpl() const override;
  std::shared_ptr<IFolderIteratorImpl<T>> buildEndIterator() const override;
  bool exhausted() const override;

private:
  void updateCurrent();

  boost::optional<Folder> parent_;
  std::unique_ptr<provider::IFolderEntryIterator> cursor_;
  std::shared_ptr<T> current_;
};

#define VFS_DECLARE_FLAT_LISTING(T) extern template class FolderListingIteratorImpl<T>;
VFS_FOR_EACH_ELEMENT_TYPE(VFS_DECLARE_FLAT_LISTING)
#undef VFS_DECLARE_FLAT_LISTING

} // namespace foundation::storage::vfs::detail
