// What the local provider does so that no operation loses data: atomic no-replace landings,
// durable copies, removals refused before they start, temporary files nobody sees.

#include "local_fixture.hpp"

#include "../support/item_io.hpp"

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include <sys/file.h>
#include <sys/stat.h>

using namespace localtest;
using foundation::storage::providers::local::LocalProvider;
using foundation::storage::providers::local::LocalProviderOptions;
using Code = p::ErrorCode;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

/// The system's rename, with RENAME_NOREPLACE when asked.
int systemRename(int fromDir, char const* from, int toDir, char const* to, bool noReplace) {
  int const result =
      noReplace ? ::renameat2(fromDir, from, toDir, to, RENAME_NOREPLACE) : ::renameat(fromDir, from, toDir, to);
  return result == 0 ? 0 : errno;
}

} // namespace

TEST_F(LocalProviderTest, MovesNeverReplaceADestinationThatAppearsMeanwhile) {
  LocalProviderOptions options;
  // Someone else creates the destination right between the provider's check and its rename.
  options.rename = [](int fromDir, char const* from, int toDir, char const* to, bool noReplace) {
    int fd = ::openat(toDir, to, O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0644);
    if (fd >= 0) {
      (void)!::write(fd, "intruder", 8);
      ::close(fd);
    }
    return systemRename(fromDir, from, toDir, to, noReplace);
  };
  auto racing = std::make_shared<LocalProvider>(options);
  writePath(path("a.txt"), "a");
  p::StorageItem source(racing, item(u"a.txt").getLocation());
  source.moveFile(item(u"kept.txt").getLocation(), p::ReplacementPolicy::KeepExisting);
  EXPECT_EQ(readPath(path("kept.txt")), "intruder");
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists,
                        source.moveFile(item(u"failed.txt").getLocation(), p::ReplacementPolicy::FailIfExists));
  EXPECT_EQ(readPath(path("failed.txt")), "intruder");
  EXPECT_EQ(readPath(path("a.txt")), "a");
}

TEST_F(LocalProviderTest, CopiesAndCommitsReachTheDiskBeforeTheyLandAndTheFolderAfter) {
  struct Sync {
    bool folder;
    std::string targetThen; ///< the target's contents when the sync ran
  };
  std::vector<Sync> syncs;
  LocalProviderOptions options;
  options.sync = [&](int fd) {
    struct stat st {};
    ::fstat(fd, &st);
    syncs.push_back({S_ISDIR(st.st_mode), readPath(path("target.txt"))});
    return ::fsync(fd) == 0 ? 0 : errno;
  };
  auto observed = std::make_shared<LocalProvider>(options);
  writePath(path("source.txt"), "new");
  auto const expectSyncedThenLandedThenFolderSynced = [&] {
    ASSERT_EQ(syncs.size(), 2u);
    EXPECT_FALSE(syncs[0].folder);
    EXPECT_EQ(syncs[0].targetThen, "old"); // the data is on disk before it replaces anything
    EXPECT_TRUE(syncs[1].folder);
    EXPECT_EQ(syncs[1].targetThen, "new"); // and the rename reaches the disk before the call returns
    syncs.clear();
  };
  for (auto policy : {p::ReplacementPolicy::Overwrite, p::ReplacementPolicy::FailIfExists}) {
    if (policy == p::ReplacementPolicy::FailIfExists)
      fs::remove(path("target.txt"));
    else
      writePath(path("target.txt"), "old");
    p::StorageItem(observed, item(u"source.txt").getLocation())
        .copyFile(p::StorageItem(observed, item(u"target.txt").getLocation()), {policy, {}});
    if (policy == p::ReplacementPolicy::FailIfExists) {
      ASSERT_EQ(syncs.size(), 2u);
      syncs[0].targetThen = "old"; // there was nothing to replace
    }
    expectSyncedThenLandedThenFolderSynced();
  }
  writePath(path("target.txt"), "old");
  auto transaction =
      p::StorageItem(observed, item(u"target.txt").getLocation()).openTransactionalStream(testsupport::replaceAll);
  transaction->write("new", 3);
  transaction->close();
  expectSyncedThenLandedThenFolderSynced();
}

TEST_F(LocalProviderTest, InADurabilityBatchOnlyFilesThatReplaceSomethingAreSyncedOneByOne) {
  std::atomic<int> syncs{0};
  LocalProviderOptions options;
  options.sync = [&](int fd) {
    ++syncs;
    return ::fsync(fd) == 0 ? 0 : errno;
  };
  auto batching = std::make_shared<LocalProvider>(options);
  writePath(path("source.txt"), "new");
  p::StorageItem const source(batching, item(u"source.txt").getLocation());
  auto const copyTo = [&](char16_t const* name, p::ReplacementPolicy policy) {
    syncs = 0;
    source.copyFile(p::StorageItem(batching, item(name).getLocation()), {policy, {}});
    return syncs.load();
  };
  auto const folder = item(u"").getLocation();

  batching->beginDurabilityBatch();
  EXPECT_EQ(copyTo(u"fresh.txt", p::ReplacementPolicy::FailIfExists), 0);
  EXPECT_EQ(copyTo(u"fresh-overwrite.txt", p::ReplacementPolicy::Overwrite), 0); // nothing was there
  syncs = 0;
  auto transaction = p::StorageItem(batching, item(u"fresh-stream.txt").getLocation())
                         .openTransactionalStream(testsupport::replaceAll);
  transaction->write("new", 3);
  transaction->close();
  EXPECT_EQ(syncs, 0);
  writePath(path("old.txt"), "old");
  EXPECT_EQ(copyTo(u"old.txt", p::ReplacementPolicy::Overwrite), 2); // old contents are at stake
  int otherThread = 0;
  std::thread([&] { otherThread = copyTo(u"other-thread.txt", p::ReplacementPolicy::FailIfExists); }).join();
  EXPECT_EQ(otherThread, 2);        // the batch is this thread's
  batching->beginDurabilityBatch(); // nested: only the outermost end flushes
  batching->endDurabilityBatch(folder);
  EXPECT_EQ(copyTo(u"still-batched.txt", p::ReplacementPolicy::FailIfExists), 0);
  batching->endDurabilityBatch(folder);
  EXPECT_EQ(copyTo(u"after.txt", p::ReplacementPolicy::FailIfExists), 2);

  batching->beginDurabilityBatch();
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, copyTo(u"fresh.txt", p::ReplacementPolicy::FailIfExists));
  batching->abandonDurabilityBatch();
  EXPECT_EQ(copyTo(u"unbatched.txt", p::ReplacementPolicy::FailIfExists), 2);
  for (auto name :
       {"fresh.txt", "fresh-overwrite.txt", "fresh-stream.txt", "old.txt", "still-batched.txt", "unbatched.txt"})
    EXPECT_EQ(readPath(path(name)), "new") << name;
}

TEST_F(LocalProviderTest, RecursiveRemovalThatCannotFinishRemovesNothing) {
  fs::create_directories(path("parent/doomed/inner"));
  writePath(path("parent/doomed/inner/data.txt"), "data");
  if (!makeImmutable(path("parent"), true)) GTEST_SKIP() << "this file system or user cannot set the immutable flag";
  // The folder itself could never leave its parent: nothing below it may go either.
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"parent/doomed").removeFolderRecursively());
  makeImmutable(path("parent"), false);
  EXPECT_EQ(readPath(path("parent/doomed/inner/data.txt")), "data");
}

TEST_F(LocalProviderTest, ListingsHideTemporaryFilesAndRemoveThoseNoWriterHolds) {
  fs::create_directories(path("sub"));
  writePath(path("sub/real.txt"), "real");
  // What a killed writer leaves: an unlocked temporary file, not written to for a while.
  writePath(path(".vfs-0123456789abcdef-1.tmp"), "left behind");
  writePath(path("sub/.vfs-0123456789abcdef-2.tmp"), "left behind too");
  // A live writer's: locked.
  writePath(path(".vfs-0123456789abcdef-3.tmp"), "being written");
  int held = ::open(path(".vfs-0123456789abcdef-3.tmp").c_str(), O_RDONLY | O_CLOEXEC);
  ASSERT_GE(held, 0);
  ASSERT_EQ(::flock(held, LOCK_EX), 0);
  for (char const* name :
       {".vfs-0123456789abcdef-1.tmp", "sub/.vfs-0123456789abcdef-2.tmp", ".vfs-0123456789abcdef-3.tmp"}) {
    timespec const old[2] = {{0, UTIME_OMIT}, {::time(nullptr) - 3600, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path(name).c_str(), old, 0), 0);
  }

  EXPECT_EQ(conformance::sortedNames(item(u"").listAllNamesOnly(u"")), (std::vector<std::string>{"sub/"}));
  EXPECT_EQ(conformance::sortedNames(item(u"").listAll(u"")), (std::vector<std::string>{"sub/"}));
  EXPECT_EQ(conformance::sortedNames(item(u"").listAllRecursiveNamesOnly(u"")),
            (std::vector<std::string>{"sub/", "sub/real.txt"}));
  EXPECT_EQ(conformance::sortedNames(item(u"").listAllRecursive(u"*")),
            (std::vector<std::string>{"sub/", "sub/real.txt"}));
  EXPECT_FALSE(fs::exists(path(".vfs-0123456789abcdef-1.tmp")));
  EXPECT_FALSE(fs::exists(path("sub/.vfs-0123456789abcdef-2.tmp")));
  EXPECT_EQ(readPath(path(".vfs-0123456789abcdef-3.tmp")), "being written");
  ::close(held);
}
