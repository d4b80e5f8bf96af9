#include <vfs/folder.hpp>

#include "errors/guard.hpp"

#include <ostream>

namespace foundation::storage::vfs {

PathComparator::PathComparator(Function function) : function_(std::move(function)) {}

bool PathComparator::operator()(std::u16string const& a, std::u16string const& b,
                                provider::CaseModifier modifier) const {
  return detail::guarded([&] {
    provider::CaseModifier copy = modifier;
    return function_(a, b, copy);
  });
}

Folder::Folder(AbsoluteIRI const& location, StorageSystemReference system)
    : item_(buildProvider(system, location.toStorageIRI()), location.toStorageIRI()), system_(std::move(system)),
      canonical_(false) {}

Folder::Folder(CanonicalAbsoluteIRI const& location, StorageSystemReference system)
    : Folder(static_cast<AbsoluteIRI const&>(location), std::move(system)) {
  canonical_ = true;
}

Folder::Folder(Folder const& parent, std::u16string const& name)
    : item_(parent.item_, name), system_(parent.system_), canonical_(false) {}

Folder::Folder(provider::StorageItem item, StorageSystemReference system)
    : item_(std::move(item)), system_(std::move(system)), canonical_(false) {}

void Folder::swap(Folder& other) noexcept { std::swap(item_, other.item_); }

AbsoluteIRI Folder::getLocation() const {
  return detail::guarded([&] { return AbsoluteIRI(item_.getLocation(), true); });
}

AbsoluteIRI Folder::getCanonicalLocation() const {
  if (canonical_) return getLocation();
  return detail::guarded([&] { return AbsoluteIRI(item_.getCanonicalLocation(), true); });
}

std::u16string Folder::getName() const { return item_.getName(); }
bool Folder::hasParent() const { return item_.hasParent(); }
Folder Folder::getParent() const { return Folder(item_.getParent(), system_); }
StorageSystemReference Folder::getStorageSystem() const { return system_; }

provider::FolderAttributes Folder::getAttributes() const {
  return detail::guarded([&] { return item_.getFolderAttributes(); });
}

provider::ExtendedAttributes Folder::getExtendedAttributes() const {
  return detail::guarded([&] { return item_.getExtendedAttributes(); });
}

bool Folder::folderExists() const {
  try {
    return item_.folderExists();
  } catch (provider::Exception const& failure) {
    if (failure.getErrorCode() == provider::ErrorCode::ResourceNotFound) return false;
    handleException();
  }
}

provider::FilenameSensitivity Folder::getFilenameSensitivity() const {
  return detail::guarded([&] { return item_.getFilenameSensitivity(); });
}

PathComparator Folder::getPathComparator() const {
  return detail::guarded([&] { return PathComparator(item_.getPathComparator()); });
}

void Folder::createFolder() const {
  detail::guarded([&] { item_.createFolder(); });
}
void Folder::createFolderRecursive() const {
  detail::guarded([&] { item_.createFolderRecursive(); });
}

void Folder::removeFolder(FolderRemovalPolicy const& policy) const {
  detail::guarded([&] {
    if (policy == FolderRemovalPolicy::NonRecursive) {
      item_.removeFolder();
    } else if (item_.hasFeature(provider::ExtendedFeature::NativeRecursiveRemoval)) {
      item_.removeFolderRecursively();
    } else {
      removeNonEmptyFolder(*this);
    }
  });
}

void Folder::setLastModified(boost::posix_time::ptime const& time) const {
  detail::guarded([&] { item_.setLastModified(time); });
}
void Folder::setWritable(bool writable) const {
  detail::guarded([&] { item_.setWritable(writable); });
}
void Folder::flushFilesystem() {
  detail::guarded([&] { item_.flushFilesystem(); });
}

bool operator==(Folder const& a, Folder const& b) { return a.item_.getLocation() == b.item_.getLocation(); }
bool operator!=(Folder const& a, Folder const& b) { return a.item_.getLocation() != b.item_.getLocation(); }
bool operator<(Folder const& a, Folder const& b) { return a.item_.getLocation() < b.item_.getLocation(); }

std::ostream& operator<<(std::ostream& os, Folder const& folder) { return os << folder.getLocation(); }

} // namespace foundation::storage::vfs
