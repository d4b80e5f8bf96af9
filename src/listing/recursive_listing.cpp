#include "listing/recursive_listing.hpp"

#include "listing/construct_type.hpp"

#include <vfs/exceptions.hpp>

#include <stdexcept>
#include <typeinfo>

namespace foundation::storage::vfs::detail {

namespace {

char const* const walkIsOver =
    "The walk of this tree listing is over; test the iterator with exhausted() before using it.";

/// The folder an element stands for, if it is one. A names-only entry asks the provider
/// (once: asking again could find it gone); an entry with attributes knows its kind.
boost::optional<Folder> folderOf(ListEntry const& element) {
  auto item = element.getFileOrFolder();
  if (auto const* folder = boost::get<Folder>(&item)) return *folder;
  return boost::none;
}

boost::optional<Folder> folderOf(FileOrFolderEntry const& element) {
  if (boost::get<FolderEntry>(&element)) return getFolderFromEntry(element);
  return boost::none;
}

} // namespace

template <class T>
RecursiveFolderListingIteratorImpl<T>::ListingWrapper::ListingWrapper(Folder const& folder, std::u16string)
    : listing_(constructType<T>(folder)), position_(listing_.begin()), end_(listing_.end()) {}

template <class T>
RecursiveFolderListingIteratorImpl<T>::RecursiveFolderListingIteratorImpl(Folder root, std::u16string pattern)
    : root_(std::move(root)), pattern_(std::move(pattern)) {
  stack_.emplace_back(*root_, pattern_); // a root that cannot be listed fails the listing
  setCurrentAndDoIncrement();
  if (!current_) stack_.clear();
}

template <class T>
RecursiveFolderListingIteratorImpl<T>::RecursiveFolderListingIteratorImpl(std::u16string pattern)
    : pattern_(std::move(pattern)) {}

template <class T>
void RecursiveFolderListingIteratorImpl<T>::setCurrentAndDoIncrement() {
  try {
    auto& top = stack_.back();
    if (top.atEnd()) {
      current_.reset();
      return;
    }
    current_ = top.element();
    top.increment();
  } catch (...) {
    handleErrors();
  }
}

template <class T>
void RecursiveFolderListingIteratorImpl<T>::enterCurrentFolder() {
  auto folder = folderOf(*current_);
  if (!folder) return;
  try {
    stack_.emplace_back(*folder, pattern_);
  } catch (...) {
    handleErrors(); // skipped: the walk goes on with the folder's next sibling
  }
}

template <class T>
void RecursiveFolderListingIteratorImpl<T>::popBackStack() {
  while (!current_ && stack_.size() >= 2) {
    stack_.pop_back();
    setCurrentAndDoIncrement();
  }
}

template <class T>
void RecursiveFolderListingIteratorImpl<T>::increment() {
  if (!current_) throw std::logic_error(walkIsOver);
  enterCurrentFolder();
  setCurrentAndDoIncrement();
  popBackStack();
  if (!stack_.empty() && !current_) stack_.pop_back();
}

template <class T>
void RecursiveFolderListingIteratorImpl<T>::handleErrors() {
  try {
    handleException();
  } catch (Exception const& failure) {
    auto const code = failure.getErrorCode();
    if (code != ErrorCode::PermissionDenied && code != ErrorCode::ResourceNotFound) throw;
    current_.reset();
  }
}

template <class T>
bool RecursiveFolderListingIteratorImpl<T>::equal(IFolderIteratorImpl<T> const& other) const {
  auto const& that = dynamic_cast<RecursiveFolderListingIteratorImpl const&>(other);
  if (root_ && that.root_) {
    if (!(*root_ == *that.root_)) return false;
  } else if (root_ || that.root_) {
    return false;
  }
  if (stack_.empty() || that.stack_.empty()) return stack_.empty() && that.stack_.empty();
  return stack_.back().position() == that.stack_.back().position();
}

template <class T>
T const& RecursiveFolderListingIteratorImpl<T>::dereference() const {
  if (!current_) throw std::logic_error(walkIsOver);
  return *current_;
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> RecursiveFolderListingIteratorImpl<T>::cloneImpl() const {
  return std::make_shared<RecursiveFolderListingIteratorImpl>(*this);
}

template <class T>
std::shared_ptr<IFolderIteratorImpl<T>> RecursiveFolderListingIteratorImpl<T>::buildEndIterator() const {
  return std::make_shared<RecursiveFolderListingIteratorImpl>(pattern_);
}

template <class T>
bool RecursiveFolderListingIteratorImpl<T>::exhausted() const {
  return !current_;
}

#define VFS_DEFINE_RECURSIVE_LISTING(T) template class RecursiveFolderListingIteratorImpl<T>;
VFS_FOR_EACH_TREE_ELEMENT_TYPE(VFS_DEFINE_RECURSIVE_LISTING)
#undef VFS_DEFINE_RECURSIVE_LISTING

} // namespace foundation::storage::vfs::detail
