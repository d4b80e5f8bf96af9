// Crashes simulated over the memory provider: what durability batches and transactional
// streams promise holds across a power loss, and what they do not promise is lost.

#include "../conformance/provider_conformance.hpp"
#include "../support/item_io.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>

#include <thread>

namespace p = conformance::p;
using foundation::storage::providers::memory::MemoryProvider;
using foundation::storage::providers::wrappers::FaultInjectingProvider;
using testsupport::readFile;
using testsupport::replaceAll;

namespace {

class CrashSimulation : public ::testing::Test {
protected:
  void SetUp() override { storage_->trackDurability(); }

  p::StorageItem item(std::u16string const& path) const {
    return p::StorageItem(storage_, p::StorageIRI(u"mem:///" + path));
  }
  /// What the storage holds, read past the wrapper: "(none)" for no file.
  std::string onStorage(std::u16string const& path) const {
    p::StorageItem real(memory_, p::StorageIRI(u"mem:///" + path));
    return real.fileExists() ? readFile(real) : "(none)";
  }
  /// Commits `bytes` to `path` through a transactional stream.
  void commit(std::u16string const& path, std::string const& bytes) const {
    auto stream = item(path).openTransactionalStream(replaceAll);
    stream->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream->close(p::StreamClosePolicy::Commit);
  }
  void copy(std::u16string const& from, std::u16string const& to) const {
    item(from).copyFile(item(to), p::CopyFileOptions{p::ReplacementPolicy::Overwrite, {}});
  }

  std::shared_ptr<MemoryProvider> memory_ = std::make_shared<MemoryProvider>();
  std::shared_ptr<FaultInjectingProvider> storage_ = std::make_shared<FaultInjectingProvider>(memory_);
  p::extensions::IDurabilityBatching& batch_ = *storage_;
};

} // namespace

TEST_F(CrashSimulation, NewFilesOfAnOpenBatchVanishAndSurviveOnceTheOutermostBatchEnded) {
  commit(u"source", "copied");
  batch_.beginDurabilityBatch();
  commit(u"committed", "new");
  copy(u"source", u"copied");
  EXPECT_EQ(onStorage(u"committed"), "new") << "landed, though not durable yet";
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"committed"), "(none)");
  EXPECT_EQ(onStorage(u"copied"), "(none)");
  EXPECT_EQ(onStorage(u"source"), "copied") << "committed outside the batch: durable on return";

  batch_.beginDurabilityBatch();
  commit(u"committed", "new");
  batch_.beginDurabilityBatch(); // nested: its end promises nothing yet
  copy(u"source", u"copied");
  batch_.endDurabilityBatch(item(u"").getLocation());
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"committed"), "(none)");
  EXPECT_EQ(onStorage(u"copied"), "(none)");

  batch_.beginDurabilityBatch();
  commit(u"committed", "new");
  batch_.beginDurabilityBatch();
  copy(u"source", u"copied");
  batch_.endDurabilityBatch(item(u"").getLocation());
  batch_.endDurabilityBatch(item(u"").getLocation());
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"committed"), "new");
  EXPECT_EQ(onStorage(u"copied"), "copied");
}

TEST_F(CrashSimulation, AFileReplacingOldContentsInABatchNeverLosesBoth) {
  commit(u"f", "old");
  batch_.beginDurabilityBatch();
  {
    auto stream = item(u"f").openTransactionalStream(replaceAll);
    stream->write("new", 3);
    storage_->simulateCrash(); // mid-transaction: the old contents
    EXPECT_EQ(onStorage(u"f"), "old");
    EXPECT_THROW(stream->close(p::StreamClosePolicy::Commit), p::ByteStreamCloseFailure) << "died with the crash";
  }
  EXPECT_EQ(onStorage(u"f"), "old");

  batch_.beginDurabilityBatch();
  commit(u"f", "new");
  storage_->simulateCrash(); // the batch never ended, but the replacement was flushed first
  EXPECT_EQ(onStorage(u"f"), "new");
}

TEST_F(CrashSimulation, ATransactionShowsTheOldContentsOrNothingUntilItsCommitReturns) {
  commit(u"old", "before");
  auto onOld = item(u"old").openTransactionalStream(replaceAll);
  auto onNew = item(u"new").openTransactionalStream(replaceAll);
  onOld->write("half", 4);
  onNew->write("half", 4);
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"old"), "before");
  EXPECT_EQ(onStorage(u"new"), "(none)");
  EXPECT_THROW(onNew->write("more", 4), p::ByteStreamWriteFailure);
  EXPECT_THROW(onNew->close(p::StreamClosePolicy::Commit), p::ByteStreamCloseFailure);
  onOld->close(p::StreamClosePolicy::Discard); // discarding what died is fine
  EXPECT_EQ(onStorage(u"new"), "(none)") << "a dead transaction never commits";

  commit(u"new", "after");
  commit(u"old", "after");
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"new"), "after");
  EXPECT_EQ(onStorage(u"old"), "after");
}

TEST_F(CrashSimulation, AnAbandonedBatchLeavesItsFilesToTheNextFlush) {
  batch_.beginDurabilityBatch();
  commit(u"a", "a");
  batch_.abandonDurabilityBatch();
  batch_.beginDurabilityBatch();
  batch_.endDurabilityBatch(item(u"").getLocation()); // another batch does not cover it
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"a"), "(none)");

  batch_.beginDurabilityBatch();
  commit(u"a", "a");
  batch_.abandonDurabilityBatch();
  storage_->flushFilesystem();
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"a"), "a");
}

TEST_F(CrashSimulation, InPlaceWritesAreDurableOnlyAfterAFlush) {
  commit(u"kept", "durable");
  testsupport::writeFile(item(u"kept"), "closed, not flushed");
  testsupport::writeFile(item(u"made"), "closed, not flushed");
  item(u"empty").createFile();
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"kept"), "durable");
  EXPECT_EQ(onStorage(u"made"), "(none)");
  EXPECT_EQ(onStorage(u"empty"), "(none)");

  auto open = item(u"kept").openStream(replaceAll);
  storage_->simulateCrash();
  EXPECT_THROW(open->write("x", 1), p::ByteStreamWriteFailure) << "streams die with the crash";
  EXPECT_EQ(onStorage(u"kept"), "durable") << "the truncation at opening was not durable";

  testsupport::writeFile(item(u"kept"), "flushed");
  item(u"kept").truncateToSize(5);
  storage_->flushFilesystem(item(u"kept").getLocation());
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"kept"), "flush");
}

TEST_F(CrashSimulation, RemovedAndMovedFilesStayAsTheCallsLeftThem) {
  batch_.beginDurabilityBatch();
  commit(u"landed", "x");
  commit(u"moved", "y");
  item(u"landed").removeFile();
  item(u"moved").moveFile(item(u"there").getLocation(), p::ReplacementPolicy::FailIfExists);
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"landed"), "(none)");
  EXPECT_EQ(onStorage(u"moved"), "(none)");
  EXPECT_EQ(onStorage(u"there"), "y");
}

TEST_F(CrashSimulation, ABatchCoversOnlyTheFilesItsOwnThreadLanded) {
  batch_.beginDurabilityBatch();
  std::thread([&] { commit(u"other thread", "durable"); }).join();
  commit(u"this thread", "pending");
  std::thread([&] {
    batch_.beginDurabilityBatch();
    batch_.endDurabilityBatch(item(u"").getLocation()); // ends that thread's batch only
  }).join();
  storage_->simulateCrash();
  EXPECT_EQ(onStorage(u"other thread"), "durable");
  EXPECT_EQ(onStorage(u"this thread"), "(none)");
}

TEST(CrashSimulationOff, WithoutTrackingEverythingCountsAsDurable) {
  auto memory = std::make_shared<MemoryProvider>();
  auto storage = std::make_shared<FaultInjectingProvider>(memory);
  p::StorageItem file(storage, p::StorageIRI(u"mem:///f"));
  storage->beginDurabilityBatch();
  testsupport::writeFile(file, "kept");
  storage->simulateCrash();
  EXPECT_EQ(readFile(p::StorageItem(memory, file.getLocation())), "kept");
}
