#include "../conformance/provider_conformance.hpp"
#include "../support/item_io.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/call_counting_provider.hpp>
#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>
#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

namespace p = conformance::p;
namespace events = conformance::events;
using foundation::storage::providers::memory::MemoryProvider;
using namespace foundation::storage::providers::wrappers;
using Code = p::ErrorCode;

using testsupport::readFile;
using testsupport::replaceAll;
using testsupport::writeFile;

namespace {

/// Fault injection over call counting over memory: what the faults let through is counted.
class FaultInjectionTest : public ::testing::Test {
protected:
  p::StorageItem item(std::u16string const& path) const {
    return p::StorageItem(faults_, p::StorageIRI(u"mem:///" + path));
  }

  std::shared_ptr<CallCountingProvider> counts_ =
      std::make_shared<CallCountingProvider>(std::make_shared<MemoryProvider>());
  std::shared_ptr<FaultInjectingProvider> faults_ = std::make_shared<FaultInjectingProvider>(counts_);
};

} // namespace

TEST_F(FaultInjectionTest, FailsChosenOperationsWithCodeAndContextsBeforeTheProviderSeesThem) {
  faults_->failOn(Operation::CreateFile, item(u"a").getLocation(), Code::ReadOnlyProvider,
                  {p::ExceptionContext(u"inner", "first"), p::ExceptionContext(u"outer", "second")});
  try {
    item(u"a").createFile();
    FAIL() << "the fault did not strike";
  } catch (p::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), Code::ReadOnlyProvider);
    EXPECT_EQ(e.getStorageIRI(), item(u"a").getLocation());
    ASSERT_EQ(e.getAllExceptionContexts().size(), 2u);
    EXPECT_EQ(e.getAllExceptionContexts().front().getExceptionContextKey(), u"inner");
    EXPECT_EQ(e.getAllExceptionContexts().back().getExceptionContextKey(), u"outer");
  }
  EXPECT_EQ(counts_->count(Operation::CreateFile), 0u);
  item(u"b").createFile(); // another location is not affected
  EXPECT_EQ(counts_->count(Operation::CreateFile), 1u);
}

TEST_F(FaultInjectionTest, FaultsCanBeCountedAnyLocationAndAnyCode) {
  faults_->failOn(Operation::Exists, p::StorageIRI(), static_cast<Code>(42), {}, 2);
  EXPECT_PROVIDER_ERROR(static_cast<Code>(42), item(u"x").exists());
  EXPECT_PROVIDER_ERROR(static_cast<Code>(42), item(u"y").exists());
  EXPECT_EQ(item(u"x").exists(), p::ExistsResult::NotFound); // used up
  faults_->failOn(Operation::RemoveFile, p::StorageIRI(), Code::ResourceInUse);
  faults_->clear();
  item(u"x").createFile();
  item(u"x").removeFile();
}

TEST_F(FaultInjectionTest, BrokenWritesLeaveCommittedContentsAlone) {
  writeFile(item(u"f.txt"), "old");
  faults_->failStream(item(u"f.txt").getLocation(), StreamOperation::Write, Code::IOError, "disk on fire", 4);
  {
    auto transaction = item(u"f.txt").openTransactionalStream(replaceAll);
    EXPECT_EQ(transaction->write("new!", 4), 4);
    try {
      transaction->write("more", 4);
      ADD_FAILURE() << "the fault did not strike";
    } catch (p::ByteStreamWriteFailure const& e) {
      EXPECT_EQ(e.getErrorCode(), Code::IOError);
      EXPECT_STREQ(e.what(), "disk on fire");
    }
  } // abandoned after the failure
  EXPECT_EQ(readFile(item(u"f.txt")), "old");

  auto plain = item(u"f.txt").openStream(replaceAll);
  EXPECT_THROW(plain->write("12345678", 8), p::ByteStreamWriteFailure);
  plain->close();
  EXPECT_EQ(readFile(item(u"f.txt")), "1234"); // a plain stream has no transaction: the bytes before the fault landed
}

TEST_F(FaultInjectionTest, BreaksReadsSeeksAndCloses) {
  writeFile(item(u"r.txt"), "readable");
  writeFile(item(u"c.txt"), "old");
  faults_->failStream(item(u"r.txt").getLocation(), StreamOperation::Read, Code::IOError, "bad sector", 3);
  faults_->failStream(item(u"c.txt").getLocation(), StreamOperation::Close, Code::NoSpaceLeft);
  auto reader = item(u"r.txt").openReadOnlyStream();
  char buffer[16];
  EXPECT_EQ(reader->read(buffer, sizeof buffer), 3);
  EXPECT_THROW(reader->read(buffer, sizeof buffer), p::ByteStreamReadFailure);

  faults_->failStream(item(u"s.txt").getLocation(), StreamOperation::Seek, Code::InvalidLocation);
  EXPECT_THROW(item(u"s.txt").openStream(replaceAll)->seek(1, std::ios_base::beg), p::ByteStreamSeekFailure);

  auto transaction = item(u"c.txt").openTransactionalStream(replaceAll);
  transaction->write("new", 3);
  EXPECT_THROW(transaction->close(p::StreamClosePolicy::Commit), p::ByteStreamCloseFailure);
  EXPECT_FALSE(transaction->isClosed()); // a failed close can be retried
  transaction.reset();
  EXPECT_EQ(readFile(item(u"c.txt")), "old");
}

TEST_F(FaultInjectionTest, FoldersVanishOnceTheirParentWasListed) {
  item(u"p/gone/inner").createFolderRecursive();
  faults_->vanishAfterListing(item(u"p/gone").getLocation());
  EXPECT_TRUE(item(u"p/gone").folderExists());
  auto cursor = item(u"p").listAllNamesOnly(u"");
  ASSERT_TRUE(cursor->hasNext()); // the listing itself still names it
  EXPECT_FALSE(item(u"p/gone").folderExists());
  EXPECT_EQ(item(u"p/gone/inner").exists(), p::ExistsResult::NotFound);
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"p/gone").listAll(u""));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"p/gone/inner").getFolderAttributes());
  faults_->clear();
  EXPECT_TRUE(item(u"p/gone/inner").folderExists());
}

TEST_F(FaultInjectionTest, DeniesListingsAndChangeEvents) {
  item(u"locked").createFolder();
  faults_->denyListing(item(u"locked").getLocation());
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked").listAll(u""));
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked").listAllRecursiveNamesOnly(u""));
  EXPECT_TRUE(item(u"locked").folderExists());

  conformance::EventLog log;
  faults_->failChangeEvents(item(u"locked").getLocation(), ChangeEventsFailure::NotSupported);
  EXPECT_THROW(item(u"locked").publishFolderEvents(log.callback(), {}, p::RecursiveWatching::No),
               p::ChangeEventsNotSupportedException);
  faults_->failChangeEvents(p::StorageIRI(), ChangeEventsFailure::Subscription);
  EXPECT_THROW(
      item(u"").startChangePollingMechanism(log.callback(), {}, std::chrono::milliseconds(5), p::RecursivePolling::No),
      p::ChangeEventsSubscriptionException);
}

TEST_F(FaultInjectionTest, RecursiveListingsNameADeniedFolderButNoneOfItsContents) {
  item(u"tree/open").createFolderRecursive();
  item(u"tree/locked/deeper").createFolderRecursive();
  writeFile(item(u"tree/open/a.txt"), "a");
  writeFile(item(u"tree/locked/secret.txt"), "s");
  writeFile(item(u"tree/locked/deeper/x.txt"), "x");
  faults_->denyListing(item(u"tree/locked").getLocation());
  auto const tree = item(u"tree");
  std::vector<std::string> const everything{"locked/", "open/", "open/a.txt"};
  EXPECT_EQ(conformance::sortedNames(tree.listAllRecursiveNamesOnly(u"")), everything);
  EXPECT_EQ(conformance::sortedNames(tree.listAllRecursive(u"")), everything);
  EXPECT_EQ(conformance::sortedNames(tree.listAllRecursive(u"*.txt")), std::vector<std::string>{"open/a.txt"});
  EXPECT_EQ(conformance::sortedNames(item(u"").listAllRecursiveNamesOnly(u"*.txt")),
            std::vector<std::string>{"tree/open/a.txt"});

  auto cursor = tree.listAllRecursive(u"");
  cursor->next();
  auto copy = cursor->clone();
  EXPECT_EQ(conformance::sortedNames(std::move(cursor)), conformance::sortedNames(std::move(copy)));

  EXPECT_EQ(conformance::sortedNames(item(u"tree/locked/deeper").listAllRecursive(u"")),
            std::vector<std::string>{"x.txt"})
      << "a folder below a denied one is listed when asked for by name";
  faults_->clear();
  EXPECT_EQ(conformance::sortedNames(tree.listAllRecursiveNamesOnly(u"")).size(), 6u);
}

TEST(FeatureSwitching, WithholdsSwitchedOffFeatures) {
  auto features = std::make_shared<FeatureSwitchingProvider>(std::make_shared<MemoryProvider>());
  p::StorageItem root(features, p::StorageIRI(u"mem:///"));
  p::StorageItem(root, u"a.txt").createFile();
  p::StorageItem(root, u"b.log").createFile();
  p::StorageItem(root, u"sub").createFolder();

  features->disable(p::ExtendedFeature::FlatWildcardListing);
  EXPECT_FALSE(features->hasFeature(p::ExtendedFeature::FlatWildcardListing));
  EXPECT_EQ(conformance::sortedNames(root.listAll(u"*.txt")).size(), 3u); // unfiltered
  features->enable(p::ExtendedFeature::FlatWildcardListing);
  EXPECT_EQ(conformance::sortedNames(root.listAll(u"*.txt")).size(), 1u);

  features->disable(p::ExtendedFeature::RecursiveWildcardListing);
  EXPECT_EQ(conformance::sortedNames(root.listAllRecursive(u"*.txt")).size(), 3u);
  features->disable(p::ExtendedFeature::RecursiveListing);
  EXPECT_PROVIDER_ERROR(Code::UnsupportedOperation, root.listAllRecursiveNamesOnly(u""));
  features->disable(p::ExtendedFeature::NativeRecursiveRemoval);
  EXPECT_PROVIDER_ERROR(Code::UnsupportedOperation, p::StorageItem(root, u"sub").removeFolderRecursively());
  EXPECT_TRUE(p::StorageItem(root, u"sub").folderExists());
  features->disable(p::ExtendedFeature::RecursiveChangeEvents);
  conformance::EventLog log;
  EXPECT_THROW(root.publishFolderEvents(log.callback(), {}, p::RecursiveWatching::Yes),
               p::ChangeEventsNotSupportedException);
  root.publishFolderEvents(log.callback(), {}, p::RecursiveWatching::No);
}

TEST(CallCounting, CountsEveryCallAndKeepsNativeCopiesNative) {
  auto counts = std::make_shared<CallCountingProvider>(std::make_shared<MemoryProvider>());
  p::StorageItem source(counts, p::StorageIRI(u"mem:///a.txt"));
  source.createFile();
  EXPECT_EQ(source.exists(), p::ExistsResult::File);
  EXPECT_EQ(source.copyFile(p::StorageItem(counts, p::StorageIRI(u"mem:///b.txt")), {}), p::CopyResult::Copied);
  EXPECT_EQ(counts->count(Operation::CreateFile), 1u);
  EXPECT_EQ(counts->count(Operation::Exists), 1u);
  EXPECT_EQ(counts->count(Operation::CopyFile), 1u);
  EXPECT_EQ(counts->count(Operation::OpenTransactionalStream), 0u); // no fallback through streams
  EXPECT_EQ(counts->total(), 3u);
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, p::StorageItem(counts, p::StorageIRI(u"mem:///missing")).removeFile());
  EXPECT_EQ(counts->count(Operation::RemoveFile), 1u);
  counts->reset();
  EXPECT_EQ(counts->total(), 0u);
  EXPECT_STREQ(toString(Operation::OpenTransactionalStream), "openTransactionalStream");
}
