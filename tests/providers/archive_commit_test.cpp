// Change sets: invisible until committed, committed all at once through the outer
// provider's transaction, and a failed commit leaves the old archive byte for byte.
// Archives inside archives are written innermost first.

#include "../support/odd_zip.hpp"
#include "archive_fixture.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/providers/archive/archive_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>

#include <vfs/exceptions.hpp>
#include <vfs/file.hpp>
#include <vfs/provider_administration.hpp>

using namespace archivetest;
using foundation::storage::providers::archive::ZipProvider;
using foundation::storage::providers::memory::MemoryProvider;
using foundation::storage::providers::wrappers::FaultInjectingProvider;
using foundation::storage::providers::wrappers::StreamOperation;
using testsupport::quoted;
using testsupport::readFile;
using testsupport::readLocal;
using testsupport::run;
using testsupport::writeFile;

class ArchiveCommits : public ArchiveTest {};

TEST_F(ArchiveCommits, ChangesAreInvisibleOutsideUntilCommitted) {
  auto const file = item(u"mem:///t.zip");
  item(u"zip:mem:///t.zip!/").createFolder();
  writeFile(item(u"zip:mem:///t.zip!/a.txt"), "first");
  EXPECT_EQ(file.exists(), p::ExistsResult::NotFound);
  commit();
  std::string const committed = readFile(file);
  writeFile(item(u"zip:mem:///t.zip!/a.txt"), "second");
  item(u"zip:mem:///t.zip!/b").createFolder();
  EXPECT_EQ(readFile(file), committed);
  EXPECT_EQ(readFile(item(u"zip:mem:///t.zip!/a.txt")), "second"); // the change set reads its own changes
  commit();
  EXPECT_NE(readFile(file), committed);

  // Forgetting a change set leaves the committed archive.
  writeFile(item(u"zip:mem:///t.zip!/a.txt"), "third");
  dynamic_cast<p::extensions::IInvalidatable&>(*item(u"zip:mem:///t.zip!/").getProvider())
      .invalidate(p::StorageIRI(u"zip:mem:///t.zip!/"));
  EXPECT_EQ(readFile(item(u"zip:mem:///t.zip!/a.txt")), "second");
  EXPECT_TRUE(item(u"zip:mem:///t.zip!/b").folderExists());
}

TEST_F(ArchiveCommits, AFailedCommitLeavesTheOldArchiveByteForByte) {
  auto memory = std::make_shared<MemoryProvider>();
  auto faulty = std::make_shared<FaultInjectingProvider>(memory);
  auto zip = std::make_shared<ZipProvider>([faulty](p::StorageIRI const&) { return faulty; });
  p::StorageItem const root(zip, p::StorageIRI(u"zip:mem:///t.zip!/"));
  p::StorageItem const file(memory, p::StorageIRI(u"mem:///t.zip"));
  root.createFolder();
  writeFile(p::StorageItem(root, u"kept.txt"), std::string(100000, 'k'));
  zip->flushFilesystem();
  std::string const before = readFile(file);

  writeFile(p::StorageItem(root, u"new.txt"), "new");
  for (auto op : {StreamOperation::Write, StreamOperation::Close}) {
    faulty->failStream(file.getLocation(), op, p::ErrorCode::NoSpaceLeft, "injected", 100);
    try {
      zip->flushFilesystem();
      ADD_FAILURE() << "the commit succeeded";
    } catch (p::Exception const& failure) {
      EXPECT_EQ(failure.getErrorCode(), p::ErrorCode::NoSpaceLeft) << failure.what();
    }
    faulty->clear();
    EXPECT_EQ(readFile(file), before);
    EXPECT_EQ(readFile(p::StorageItem(root, u"new.txt")), "new"); // still pending
  }
  zip->flushFilesystem();
  auto fresh = std::make_shared<ZipProvider>([memory](p::StorageIRI const&) { return memory; });
  EXPECT_EQ(readFile(p::StorageItem(fresh, p::StorageIRI(u"zip:mem:///t.zip!/new.txt"))), "new");
  EXPECT_EQ(readFile(p::StorageItem(fresh, p::StorageIRI(u"zip:mem:///t.zip!/kept.txt"))), std::string(100000, 'k'));
}

TEST_F(ArchiveCommits, ACommitThatFailsReachesTheCallerOfFlushFilesystem) {
  namespace vfs = foundation::storage::vfs;
  testsupport::makeZipWithALostEntry(path("lost.zip"));
  std::string const before = readLocal(path("lost.zip"));
  vfs::StorageSystemReference const system{std::weak_ptr<vfs::StorageSystem>(system_)};
  vfs::AbsoluteIRI const added(u"zip:" + local("lost.zip") + u"!/new.txt");
  vfs::File(added, system).createFile();
  try {
    vfs::extensions::flushFilesystem(added, system);
    ADD_FAILURE() << "the commit succeeded";
  } catch (vfs::Exception const& failure) {
    EXPECT_EQ(failure.getErrorCode(), vfs::ErrorCode::IOError);
    EXPECT_EQ(failure.getLocation().toString(), local("lost.zip"));
    auto const cause = failure.topExceptionContext();
    ASSERT_TRUE(cause);
    EXPECT_NE(cause->getMessage().find("broken.txt"), std::string::npos) << cause->getMessage();
  }
  EXPECT_EQ(readLocal(path("lost.zip")), before);
  EXPECT_TRUE(vfs::File(added, system).fileExists()); // still pending
}

TEST_F(ArchiveCommits, AChangeToAZipInsideATarIsRefusedWhenItIsMade) {
  testsupport::writeLocal(path("parts/x.txt"), "x");
  run("cd " + quoted(path("parts")) + " && zip -q inner.zip x.txt && zip -q outer.zip inner.zip && tar -cf " +
      quoted(path("a.tar")) + " inner.zip outer.zip");
  std::u16string const inTar = u"zip:tar:" + local("a.tar") + u"!/inner.zip!/";
  std::u16string const deeper = u"zip:zip:tar:" + local("a.tar") + u"!/outer.zip!/inner.zip!/";
  for (auto const& root : {inTar, deeper}) {
    EXPECT_EQ(readFile(item(root + u"x.txt")), "x"); // reading works
    auto const refused = [&](auto change) {
      try {
        change();
        ADD_FAILURE() << "a change inside " << fl::i18n::to_utf8(root) << " was taken";
      } catch (p::Exception const& failure) {
        EXPECT_EQ(failure.getErrorCode(), p::ErrorCode::ReadOnlyProvider) << failure.what();
      }
    };
    refused([&] { writeFile(item(root + u"new.txt"), "new"); });
    refused([&] { item(root + u"x.txt").removeFile(); });
    refused([&] { item(root + u"made").createFolder(); });
    refused([&] { item(root + u"x.txt").setWritable(false); });
  }
  EXPECT_NO_THROW(commit());
}

TEST_F(ArchiveCommits, AZipInsideAZipInsideMemoryIsWrittenAndRead) {
  std::u16string const inner = u"zip:zip:mem:///outer.zip!/inner.zip!/";
  item(u"zip:mem:///outer.zip!/").createFolder();
  writeFile(item(u"zip:mem:///outer.zip!/beside.txt"), "beside");
  item(inner).createFolder();
  item(inner + u"a").createFolder();
  writeFile(item(inner + u"a/b.txt"), "deep");
  commit(); // the inner archive first, then the outer one holding it

  auto provider = item(inner).getProvider();
  auto& forget = dynamic_cast<p::extensions::IInvalidatable&>(*provider);
  forget.invalidate(p::StorageIRI(inner));
  forget.invalidate(p::StorageIRI(u"zip:mem:///outer.zip!/"));
  EXPECT_EQ(readFile(item(inner + u"a/b.txt")), "deep");
  EXPECT_EQ(tree(item(u"zip:mem:///outer.zip!/")), (std::vector<std::string>{"beside.txt", "inner.zip"}));

  // A second change deep inside; the tools agree with what was written.
  writeFile(item(inner + u"a/c.txt"), "more");
  commit();
  testsupport::writeLocal(path("outer.zip"), readFile(item(u"mem:///outer.zip")));
  run("cd " + quoted(folder_.path()) +
      " && unzip -tq outer.zip && unzip -p outer.zip inner.zip > inner.zip && unzip -tq inner.zip");
  EXPECT_EQ(run("unzip -p " + quoted(path("inner.zip")) + " a/c.txt"), "more");
  EXPECT_EQ(run("unzip -p " + quoted(path("inner.zip")) + " a/b.txt"), "deep");
}
