#pragma once

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/property_tree/ptree.hpp>

#include <cstdint>

namespace foundation::storage::provider {

/// What a provider tells about a folder. Times are UTC.
class FolderAttributes {
public:
  FolderAttributes() = default;
  FolderAttributes(boost::posix_time::ptime lastModified, bool writable, bool hidden, bool symlink)
      : lastModified_(lastModified), writable_(writable), hidden_(hidden), symlink_(symlink) {}

  boost::posix_time::ptime getLastModified() const noexcept { return lastModified_; }
  bool isWritable() const noexcept { return writable_; }
  bool isHidden() const noexcept { return hidden_; }
  bool isSymlink() const noexcept { return symlink_; }

  friend bool operator==(FolderAttributes const&, FolderAttributes const&) = default;

private:
  boost::posix_time::ptime lastModified_;
  bool writable_ = false;
  bool hidden_ = false;
  bool symlink_ = false;
};

/// What a provider tells about a file: the folder attributes plus the size in bytes.
class FileAttributes {
public:
  FileAttributes() = default;
  FileAttributes(std::uint64_t size, boost::posix_time::ptime lastModified, bool writable, bool hidden, bool symlink)
      : size_(size), lastModified_(lastModified), writable_(writable), hidden_(hidden), symlink_(symlink) {}

  std::uint64_t getSize() const noexcept { return size_; }
  boost::posix_time::ptime getLastModified() const noexcept { return lastModified_; }
  bool isWritable() const noexcept { return writable_; }
  bool isHidden() const noexcept { return hidden_; }
  bool isSymlink() const noexcept { return symlink_; }

  friend bool operator==(FileAttributes const&, FileAttributes const&) = default;

private:
  std::uint64_t size_ = 0;
  boost::posix_time::ptime lastModified_;
  bool writable_ = false;
  bool hidden_ = false;
  bool symlink_ = false;
};

/// Provider-specific attributes under provider-specific keys ("posix.mode", "memory.kind").
using ExtendedAttributes = boost::property_tree::ptree;

} // namespace foundation::storage::provider
