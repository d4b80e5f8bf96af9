#include <vfs/file.hpp>
#include <vfs/folder.hpp>

#include "errors/guard.hpp"

#include <ostream>

namespace foundation::storage::vfs {

File::File(AbsoluteIRI const& location, StorageSystemReference system)
    : item_(buildProvider(system, location.toStorageIRI()), location.toStorageIRI()), system_(std::move(system)),
      canonical_(false) {}

File::File(CanonicalAbsoluteIRI const& location, StorageSystemReference system)
    : File(static_cast<AbsoluteIRI const&>(location), std::move(system)) {
  canonical_ = true;
}

File::File(Folder const& parent, std::u16string const& name)
    : item_(parent.item_, name), system_(parent.getStorageSystem()), canonical_(false) {}

File::File(provider::StorageItem item, StorageSystemReference system)
    : item_(std::move(item)), system_(std::move(system)), canonical_(false) {}

File::~File() = default;

void File::swap(File& other) noexcept { std::swap(item_, other.item_); }

AbsoluteIRI File::getLocation() const {
  return detail::guarded([&] { return AbsoluteIRI(item_.getLocation(), true); });
}

AbsoluteIRI File::getCanonicalLocation() const {
  if (canonical_) return getLocation();
  return detail::guarded([&] { return AbsoluteIRI(item_.getCanonicalLocation(), true); });
}

Folder File::getParent() const { return Folder(item_.getParent(), system_); }

std::u16string File::getName() const { return item_.getName(); }

std::u16string File::getExtension() const {
  std::u16string const name = item_.getName();
  auto const dot = name.rfind(u'.');
  return dot == std::u16string::npos ? std::u16string() : name.substr(dot);
}

StorageSystemReference File::getStorageSystem() const { return system_; }

provider::FileAttributes File::getAttributes() const {
  return detail::guarded([&] { return item_.getFileAttributes(); });
}

provider::ExtendedAttributes File::getExtendedAttributes() const {
  return detail::guarded([&] { return item_.getExtendedAttributes(); });
}

bool File::fileExists() const {
  try {
    return item_.fileExists();
  } catch (provider::Exception const& failure) {
    if (failure.getErrorCode() == provider::ErrorCode::ResourceNotFound) return false;
    handleException();
  }
}

void File::createFile() const {
  detail::guarded([&] { item_.createFile(); });
}
void File::removeFile() const {
  detail::guarded([&] { item_.removeFile(); });
}
void File::setLastModified(boost::posix_time::ptime const& time) const {
  detail::guarded([&] { item_.setLastModified(time); });
}
void File::setWritable(bool writable) const {
  detail::guarded([&] { item_.setWritable(writable); });
}
void File::truncateToSize(unsigned long long size) const {
  detail::guarded([&] { item_.truncateToSize(size); });
}

void File::moveFile(File const& destination, provider::ReplacementPolicy const& policy) const {
  detail::guarded([&] { doMoveFile(destination, policy); });
}

provider::CopyResult File::copyFile(File const& destination, provider::ReplacementPolicy const& policy) const {
  provider::CopyFileOptions options;
  options.policy = policy;
  return detail::guarded([&] { return doCopyFile(destination, options); });
}

provider::CopyResult File::copyFile(File const& destination, provider::CopyFileOptions const& options) const {
  return detail::guarded([&] { return doCopyFile(destination, options); });
}

provider::GenericByteStreamDevice<provider::ByteStream>
File::open(provider::ByteStreamOpenOptions const& options) const {
  return detail::guarded(
      [&] { return provider::GenericByteStreamDevice<provider::ByteStream>(item_.openStream(options)); });
}

provider::GenericByteStreamDevice<provider::ByteStream> File::openReadOnly() const {
  return detail::guarded(
      [&] { return provider::GenericByteStreamDevice<provider::ByteStream>(item_.openReadOnlyStream()); });
}

provider::GenericByteStreamDevice<provider::TransactionalStream>
File::openTransactionalStream(provider::ByteStreamOpenOptions const& options) const {
  return detail::guarded([&] {
    return provider::GenericByteStreamDevice<provider::TransactionalStream>(item_.openTransactionalStream(options));
  });
}

bool operator==(File const& a, File const& b) { return a.item_.getLocation() == b.item_.getLocation(); }
bool operator!=(File const& a, File const& b) { return a.item_.getLocation() != b.item_.getLocation(); }
bool operator<(File const& a, File const& b) { return a.item_.getLocation() < b.item_.getLocation(); }

std::ostream& operator<<(std::ostream& os, File const& file) { return os << file.getLocation(); }

} // namespace foundation::storage::vfs
