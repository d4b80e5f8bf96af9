#pragma once

#include "listing/element_types.hpp"

#include <memory>
#include <string>

namespace foundation::storage::vfs::detail {

/// Whether an element's name matches a wildcard pattern: `*` any run of code units, `?`
/// exactly one, everything else itself (the provider's one matcher, so that filtering here
/// and by a provider agree). Entries are tested by their handle's name, variants by the
/// last segment of their location, ListEntry by the last segment of its name.
class WildcardMatchingFilter {
public:
  explicit WildcardMatchingFilter(std::u16string pattern) : pattern_(std::move(pattern)) {}

  bool operator()(File const& element) const;
  bool operator()(Folder const& element) const;
  bool operator()(FileOrFolder const& element) const;
  bool operator()(FileEntry const& element) const;
  bool operator()(FolderEntry const& element) const;
  bool operator()(FileOrFolderEntry const& element) const;
  bool operator()(ListEntry const& element) const;

private:
  bool matches(std::u16string const& name) const;

  std::u16string pattern_;
};

/// Yields, in order, the elements of a wrapped listing whose names match a pattern, for
/// listings the provider could not filter itself.
template <class T>
class FolderIteratorWildcardsImpl final : public IFolderIteratorImpl<T> {
public:
  /// The state of a filtered position: its own positions in the wrapped listing.
  class FilterImpl {
  public:
    /// Moves to the first matching element from `begin`.
    FilterImpl(std::u16string const& pattern, FolderListingIterator<T> begin, FolderListingIterator<T> end);
    void increment();
    bool equal(FilterImpl const& other) const;
    T const& retrieve() const;
    bool exhausted() const;
    /// The same positions, independent of these; nothing is skipped.
    std::shared_ptr<FilterImpl> clone() const;

  private:
    FilterImpl(FolderListingIterator<T> current, WildcardMatchingFilter predicate, FolderListingIterator<T> end);
    void skip();

    FolderListingIterator<T> current_;
    WildcardMatchingFilter predicate_;
    FolderListingIterator<T> end_;
  };

  FolderIteratorWildcardsImpl() = default;
  FolderIteratorWildcardsImpl(std::shared_ptr<IFolderIteratorImpl<T>> inner, std::u16string pattern);
  explicit FolderIteratorWildcardsImpl(std::shared_ptr<FilterImpl> filter);

  void increment() override;
  bool equal(IFolderIteratorImpl<T> const& other) const override;
  T const& dereference() const override;
  std::shared_ptr<IFolderIteratorImpl<T>> cloneImpl() const override;
  std::shared_ptr<IFolderIteratorImpl<T>> buildEndIterator() const override;
  bool exhausted() const override;

private:
  FilterImpl& filter() const;

  std::shared_ptr<IFolderIteratorImpl<T>> inner_;
  std::u16string pattern_;
  std::shared_ptr<FilterImpl> filter_;
};

#define VFS_DECLARE_WILDCARD_LISTING(T) extern template class FolderIteratorWildcardsImpl<T>;
VFS_FOR_EACH_ELEMENT_TYPE(VFS_DECLARE_WILDCARD_LISTING)
#undef VFS_DECLARE_WILDCARD_LISTING

} // namespace foundation::storage::vfs::detail
