#include "listing/flat_listing.hpp"

#include "errors/guard.hpp"
#include "listing/construct_type.hpp"

#include <stdexcept>
#include <typeinfo>

namespace foundation::storage::vfs::detail {

template <class T>
FolderListingIteratorImpl<T>::FolderListingIteratorImpl(Folder parent) : parent_(std::move(parent)) {}

template <class T>
FolderListingIteratorImpl<T>::FolderListingIteratorImpl(Folder parent,
                                                        std::unique_ptr<provider::IFolderEntryIterator> cursor)
    : parent_(std::move(parent)), cursor_(std::move(cursor)) {
  updateCurrent();
}

template <class T>
FolderListingIteratorImpl<T>::FolderListingIteratorImpl(FolderListingIteratorImpl const& other)
    : parent_(other.parent_), current_(other.current_) {
  cloneFolderEntryIterator(other.cursor_, cursor_);
}

template <class T>
FolderListingIteratorImpl<T>& FolderListingIteratorImpl<T>::operator=(FolderListingIteratorImpl const& other) {
  if (this != &other) {
    cloneFolderEntryIterator(other.cursor_, cursor_);
    parent_ = other.parent_;
    current_ = other.current_;
  }
  return *this;
}

template <class T>
void FolderListingIteratorImpl<T>::updateCurrent() {
  guarded([&] {
    if (!cursor_->hasNext()) {
      current_.reset();
      return;
    }
    cursor_->next();
    // An element no other position shares is refilled in place: one allocation less per
    // entry, and no position can tell, since equality needs a shared element.
    if (current_ && current_.use_count() == 1)
      *current_ = constructType<T>(*parent_, cursor_->current());
    else
      current_ = std::make_shared<T>(constructType<T>(*parent_, cursor_->current()));
  });
}

template <class T>
void FolderListingIteratorImpl<T>::increment() {
  // At the end it stays there: the cursor has nothing more to give.
  if (current_) updateCurrent();
}

template <class T>
bool FolderListingIteratorImpl<T>::equal(IFolderIteratorImpl<T> const& other) const {
  auto const& that = dynamic_cast<FolderListingIteratorImpl const&>(other);
  if (current_ != that.current_) return false;
  if (parent_ && that.parent_) return *parent_ == *that.parent_;
  return !parent_ && !that.parent_;
}

template <class T>
T const& FolderListingIteratorImpl<T>::dereference() const {
  if (!current_) throw std::logic_error("Cannot dereference a folder listing iterator at its end.");
  return *current_;
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> FolderListingIteratorImpl<T>::cloneImpl() const {
  return std::make_shared<FolderListingIteratorImpl>(*this);
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> FolderListingIteratorImpl<T>::buildEndIterator() const {
  if (!parent_) return std::make_shared<FolderListingIteratorImpl>();
  return std::make_shared<FolderListingIteratorImpl>(*parent_);
}

template <class T>
bool FolderListingIteratorImpl<T>::exhausted() const {
  return !current_;
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> emptyListingPosition() {
  return std::make_shared<FolderListingIteratorImpl<T>>();
}

// Exported explicitly: the element types of Boost's variant would hide it otherwise.
#define VFS_DEFINE_FLAT_LISTING(T)                                                                                     \
  template class FolderListingIteratorImpl<T>;                                                                         \
  template FOUNDATION_API std::shared_ptr<IFolderIteratorImpl<T>> emptyListingPosition<T>();
VFS_FOR_EACH_ELEMENT_TYPE(VFS_DEFINE_FLAT_LISTING)
#undef VFS_DEFINE_FLAT_LISTING

} // namespace foundation::storage::vfs::detail
