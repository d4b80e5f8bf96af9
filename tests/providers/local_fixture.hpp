#pragma once

// A local provider over a fresh temporary folder, for the local provider's tests.

#include "../conformance/provider_conformance.hpp"
#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/local/local_provider.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>
#if defined(__linux__)
#include <linux/fs.h>
#include <sys/ioctl.h>
#endif

namespace localtest {

namespace p = conformance::p;
namespace fs = std::filesystem;

/// A local provider and a fresh folder to work in.
class LocalProviderTest : public ::testing::Test {
protected:
  p::StorageItem item(std::u16string const& relative) const {
    return p::StorageItem(p::StorageItem(provider_, p::toStorageIRI(u"file", fl::filesystem::path(root_))), relative);
  }
  fs::path path(std::string const& relative) const { return root_ / relative; }
  static void writePath(fs::path const& file, std::string const& bytes) {
    std::ofstream(file, std::ios::binary) << bytes;
  }
  static std::string readPath(fs::path const& file) {
    std::ifstream in(file, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
  }
  std::vector<std::string> folderNames() const {
    std::vector<std::string> names;
    for (auto const& e : fs::directory_iterator(root_)) names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }

  testsupport::TemporaryFolder folder_{"vfs-local"};
  fs::path root_ = folder_.path();
  std::shared_ptr<p::IProvider> provider_ = std::make_shared<foundation::storage::providers::local::LocalProvider>();
};

/// Sets the immutable flag, which refuses changes even to the superuser; false where the
/// file system or the user cannot.
inline bool makeImmutable(fs::path const& file, bool immutable) {
#if defined(__linux__) && defined(FS_IOC_SETFLAGS)
  int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  int flags = 0;
  bool ok = ::ioctl(fd, FS_IOC_GETFLAGS, &flags) == 0;
  flags = immutable ? (flags | FS_IMMUTABLE_FL) : (flags & ~FS_IMMUTABLE_FL);
  ok = ok && ::ioctl(fd, FS_IOC_SETFLAGS, &flags) == 0;
  ::close(fd);
  return ok;
#else
  (void)file;
  (void)immutable;
  return false;
#endif
}

/// How many descriptors the process has open.
inline std::size_t openDescriptors() {
  return static_cast<std::size_t>(std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator()));
}

} // namespace localtest
