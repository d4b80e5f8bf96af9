// Mounts served in this process over the test harness, so that the storage can behave as an
// all-or-nothing store or fail a move while programs act through the kernel.

#include "../library/harness.hpp"
#include "../support/temporary_folder.hpp"

#include <mount/serve.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <optional>
#include <thread>

namespace {

using namespace vfs_tool::mount;
namespace p = harness::p;
namespace vfs = harness::vfs;
using Operation = foundation::storage::provider::Operation;

int errnoOf(int result) { return result == 0 ? 0 : errno; }

class MountOverFaults : public ::testing::Test {
protected:
  void SetUp() override {
    if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no usable /dev/fuse: FUSE mounts cannot be made here";
    folder_ = std::make_unique<MountedFolder>(h.folder(u""), MountOptions{});
    server_ = std::thread([this] {
      bool announced = false;
      serve(*folder_, scratch_.path().string(), "vfs-test", false, [&] {
        announced = true;
        mounted_.set_value(true);
      });
      if (!announced) mounted_.set_value(false);
    });
    ASSERT_TRUE(mounted_.get_future().get()) << "the mount could not be made";
  }

  void TearDown() override {
    if (!server_.joinable()) return;
    bool detached = false;
    EXPECT_EQ(unmount(scratch_.path().string(), detached), 0);
    server_.join();
  }

  std::string at(std::string const& name) const { return (scratch_.path() / name).string(); }

  harness::Harness h = harness::make("mem");
  testsupport::TemporaryFolder scratch_{"vfs-mount-faults"};
  std::unique_ptr<MountedFolder> folder_;
  std::promise<bool> mounted_;
  std::thread server_;
};

TEST_F(MountOverFaults, AnAllOrNothingStoreKeepsTruncationsMadeWhileATransactionIsOpen) {
  harness::write(h.file(u"f"), "old contents");
  h.faults->failOn(Operation::OpenStream, {}, p::ErrorCode::UnsupportedOperation);

  int fd = ::open(at("f").c_str(), O_RDWR);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  EXPECT_EQ(::pwrite(fd, "NEW", 3, 0), 3);
  EXPECT_EQ(errnoOf(::ftruncate(fd, 5)), 0);
  struct stat st {};
  EXPECT_EQ(errnoOf(::fstat(fd, &st)), 0);
  EXPECT_EQ(st.st_size, 5);
  EXPECT_EQ(harness::read(h.file(u"f")), "old contents") << "others see the truncation with the commit";
  EXPECT_EQ(errnoOf(::close(fd)), 0);
  EXPECT_EQ(harness::read(h.file(u"f")), "NEW c");

  fd = ::open(at("f").c_str(), O_RDWR);
  ASSERT_GE(fd, 0) << std::strerror(errno);
  EXPECT_EQ(::pwrite(fd, "XY", 2, 0), 2);
  EXPECT_EQ(errnoOf(::truncate(at("f").c_str(), 1)), 0) << "by name, while the transaction is open";
  EXPECT_EQ(errnoOf(::close(fd)), 0);
  EXPECT_EQ(harness::read(h.file(u"f")), "X");
}

TEST_F(MountOverFaults, AnEmptyFolderStaysWhenTheFolderRenamedOverItCannotMove) {
  h.folder(u"source/inner").createFolderRecursive();
  h.folder(u"empty").createFolder();
  h.faults->failOn(Operation::MoveFolder, h.at(u"source").toStorageIRI(), p::ErrorCode::IOError, {}, 1);
  EXPECT_EQ(errnoOf(::rename(at("source").c_str(), at("empty").c_str())), EIO);
  EXPECT_TRUE(h.folder(u"empty").folderExists());
  EXPECT_TRUE(h.folder(u"source/inner").folderExists());

  EXPECT_EQ(errnoOf(::rename(at("source").c_str(), at("empty").c_str())), 0);
  EXPECT_TRUE(h.folder(u"empty/inner").folderExists());
  struct stat st {};
  EXPECT_EQ(errnoOf(::stat(at("empty/inner").c_str(), &st)), 0);
}

} // namespace
