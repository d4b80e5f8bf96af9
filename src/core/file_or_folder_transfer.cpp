// Moving and copying a file or a folder onto one of the same kind.

#include <vfs/folder.hpp>

#include <stdexcept>

namespace foundation::storage::vfs {

void move(FileOrFolder const& source, FileOrFolder const& destination, provider::ReplacementPolicy const& policy) {
  if (auto const* file = boost::get<File>(&source)) {
    auto const* target = boost::get<File>(&destination);
    if (!target) throw std::logic_error("Can't change a file to a folder.");
    file->moveFile(*target, policy);
    return;
  }
  auto const* target = boost::get<Folder>(&destination);
  if (!target) throw std::logic_error("Can't change a folder to a file.");
  boost::get<Folder>(source).moveFolder(*target, policy);
}

provider::CopyResult copy(FileOrFolder const& source, FileOrFolder const& destination,
                          provider::ReplacementPolicy const& policy) {
  if (auto const* file = boost::get<File>(&source)) {
    auto const* target = boost::get<File>(&destination);
    if (!target) throw std::logic_error("Can't make a folder out of a file.");
    return file->copyFile(*target, policy);
  }
  auto const* target = boost::get<Folder>(&destination);
  if (!target) throw std::logic_error("Can't make a file out of a folder.");
  boost::get<Folder>(source).copyFolder(*target, policy);
  return provider::CopyResult::Copied;
}

} // namespace foundation::storage::vfs
