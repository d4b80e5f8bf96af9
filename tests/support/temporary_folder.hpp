#pragma once

// A fresh folder under the system's temporary folder (or under `base`), removed with
// everything in it when the last copy goes.

#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>

#include <stdlib.h>

namespace testsupport {

class TemporaryFolder {
public:
  explicit TemporaryFolder(std::string const& prefix = "vfs-test",
                           std::filesystem::path const& base = std::filesystem::temp_directory_path()) {
    std::string folder = (base / (prefix + "-XXXXXX")).string();
    if (!::mkdtemp(folder.data())) throw std::runtime_error("mkdtemp failed for " + folder);
    path_ = std::shared_ptr<std::filesystem::path const>(new std::filesystem::path(folder), [](auto* path) {
      std::error_code ignored;
      std::filesystem::remove_all(*path, ignored);
      delete path;
    });
  }

  std::filesystem::path const& path() const noexcept { return *path_; }

private:
  std::shared_ptr<std::filesystem::path const> path_;
};

} // namespace testsupport
