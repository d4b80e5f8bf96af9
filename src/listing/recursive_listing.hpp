#pragma once

#include "listing/element_types.hpp"

#include <boost/optional.hpp>

#include <deque>
#include <string>

namespace foundation::storage::vfs::detail {

/// The library's own depth-first walk of a tree, for providers that cannot list trees:
/// a folder is yielded before its contents, each level in the order of its flat listing,
/// with only one flat listing per level of the current path open. Sub-folders that cannot
/// be read or vanish meanwhile are skipped silently; a root that cannot be listed fails.
/// A walking position never equals the end of its listing, even once exhausted (two
/// exhausted walks of one root are equal); use `exhausted()` to stop.
template <class T>
class RecursiveFolderListingIteratorImpl final : public IFolderIteratorImpl<T> {
public:
  /// Starts the walk at the first element below `root`.
  RecursiveFolderListingIteratorImpl(Folder root, std::u16string pattern);
  /// The end of a walk.
  explicit RecursiveFolderListingIteratorImpl(std::u16string pattern);

  void increment() override;
  bool equal(IFolderIteratorImpl<T> const& other) const override;
  T const& dereference() const override;
  std::shared_ptr<IFolderIteratorImpl<T>> cloneImpl() const override;
  std::shared_ptr<IFolderIteratorImpl<T>> buildEndIterator() const override;
  bool exhausted() const override;

private:
  /// One level of the walk: the flat listing of a folder and a position in it. Copies
  /// share the listing and have positions of their own.
  class ListingWrapper {
  public:
    ListingWrapper(Folder const& folder, std::u16string pattern);
    FolderListingIterator<T> const& position() const { return position_; }
    bool atEnd() const { return position_ == end_; }
    T const& element() const { return *position_; }
    void increment() { ++position_; }

  private:
    FolderListing<T> listing_;
    FolderListingIterator<T> position_;
    FolderListingIterator<T> end_;
  };

  void setCurrentAndDoIncrement();
  void popBackStack();
  void enterCurrentFolder();
  /// Skips a folder that cannot be read or is gone; rethrows every other failure.
  void handleErrors();

  boost::optional<Folder> root_;
  std::u16string pattern_;
  std::deque<ListingWrapper> stack_;
  boost::optional<T> current_;
};

#define VFS_DECLARE_RECURSIVE_LISTING(T) extern template class RecursiveFolderListingIteratorImpl<T>;
VFS_FOR_EACH_TREE_ELEMENT_TYPE(VFS_DECLARE_RECURSIVE_LISTING)
#undef VFS_DECLARE_RECURSIVE_LISTING

} // namespace foundation::storage::vfs::detail
