#include "tree_walk.hpp"

#include "exit_status.hpp"
#include "output.hpp"

#include <vfs/entries.hpp>

#include <atomic>
#include <exception>

namespace vfs_tool {

namespace {

class ReportingVisitor final : public vfs::FolderVisitor {
public:
  explicit ReportingVisitor(std::function<void(vfs::FileOrFolderEntry const&)> const& onEntry) : onEntry_(onEntry) {}

  vfs::FolderVisitResult visitEntryBefore(vfs::FolderEntry const& entry) override {
    onEntry_(vfs::FileOrFolderEntry(entry));
    progress_.add();
    return vfs::FolderVisitResult::Continue;
  }
  vfs::FolderVisitResult visitEntry(vfs::FileEntry const& entry) override {
    onEntry_(vfs::FileOrFolderEntry(entry));
    progress_.add();
    return vfs::FolderVisitResult::Continue;
  }
  vfs::FolderVisitResult visitEntryAfter(vfs::FolderEntry const&) override { return vfs::FolderVisitResult::Continue; }
  vfs::FolderVisitResult visitFolderEntryFailed(vfs::FolderEntry const&, vfs::Exception const& failure) override {
    // Like find: say what could not be read and carry on with the rest.
    int status = Success;
    try {
      throw failure;
    } catch (...) {
      status = reportCurrentFailure();
    }
    int expected = Success;
    status_.compare_exchange_strong(expected, status);
    return vfs::FolderVisitResult::Skip;
  }

  int status() const { return status_; }

private:
  std::function<void(vfs::FileOrFolderEntry const&)> const& onEntry_;
  Progress progress_{"walking"};
  std::atomic<int> status_{Success};
};

} // namespace

std::uint64_t sizeOf(vfs::FileOrFolderEntry const& entry) {
  auto const* file = boost::get<vfs::FileEntry>(&entry);
  return file ? file->getAttributes().getSize() : 0;
}

int walkTree(vfs::Folder const& root, bool parallel,
             std::function<void(vfs::FileOrFolderEntry const&)> const& onEntry) {
  ReportingVisitor visitor(onEntry);
  if (parallel) {
    vfs::walkFolderParallel(root, visitor);
  } else {
    vfs::walkFolder(root, visitor);
  }
  return visitor.status();
}

} // namespace vfs_tool
