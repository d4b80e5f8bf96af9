#include "harness.hpp"

#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <filesystem>
#include <fstream>
#include <new>
#include <unistd.h>

using namespace harness;
using vfs::ErrorCode;
using wrappers::Operation;
using Policy = p::ReplacementPolicy;

namespace {

/// src: a.txt, sub/b.txt, sub/deeper/c.txt, empty/
void buildSource(Harness const& h, std::u16string const& at = u"src") {
  h.folder(at + u"/sub/deeper").createFolderRecursive();
  h.folder(at + u"/empty").createFolder();
  write(h.file(at + u"/a.txt"), "a");
  write(h.file(at + u"/sub/b.txt"), "b");
  write(h.file(at + u"/sub/deeper/c.txt"), "c");
}

void expectCopyOfSource(vfs::Folder const& copy) {
  EXPECT_EQ(read(vfs::File(copy, u"a.txt")), "a");
  EXPECT_EQ(read(vfs::File(copy, u"sub/b.txt")), "b");
  EXPECT_EQ(read(vfs::File(copy, u"sub/deeper/c.txt")), "c");
  EXPECT_TRUE(vfs::Folder(copy, u"empty").folderExists());
}

/// A folder seen through `provider` with its native recursive removal switched off.
vfs::Folder withoutNativeRemoval(Harness const& h, std::u16string const& relative,
                                 std::shared_ptr<p::IProvider> provider = {}) {
  auto features = std::make_shared<wrappers::FeatureSwitchingProvider>(provider ? provider : h.counts);
  features->disable(p::ExtendedFeature::NativeRecursiveRemoval);
  return vfs::Folder(p::StorageItem(features, h.at(relative).toStorageIRI()), h.reference());
}

/// Removes a file of a folder right after the folder was listed, as another process might.
class RemovingAfterListing final : public p::ForwardingProvider {
public:
  RemovingAfterListing(std::shared_ptr<p::IProvider> inner, p::StorageIRI folder, p::StorageIRI file)
      : ForwardingProvider(std::move(inner)), folder_(std::move(folder)), file_(std::move(file)) {}

  std::unique_ptr<p::IFolderEntryIterator> listAll(p::StorageIRI const& folder,
                                                   std::u16string const& pattern) override {
    auto listing = ForwardingProvider::listAll(folder, pattern);
    if (folder == folder_) inner().removeFile(file_);
    return listing;
  }

private:
  p::StorageIRI folder_, file_;
};

/// Writes "theirs" to the destination of one source file just before that file is copied,
/// as another writer might while a tree copy runs.
class WritingBeforeCopy final : public p::ForwardingProvider {
public:
  WritingBeforeCopy(std::shared_ptr<p::IProvider> inner, p::StorageIRI source)
      : ForwardingProvider(std::move(inner)), source_(std::move(source)) {}

  p::CopyResult copyFile(p::StorageIRI const& source, p::StorageItem const& destination,
                         p::CopyFileOptions const& options) override {
    if (source == source_) {
      auto out =
          destination.openTransactionalStream({p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                               p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
      out->write("theirs", 6);
      out->close(p::StreamClosePolicy::Commit);
    }
    return ForwardingProvider::copyFile(source, destination, options);
  }

private:
  p::StorageIRI source_;
};

/// Lists names and kinds only, as providers that learn nothing more from a listing do, and
/// removes one folder right after its parent was listed, as another process might.
class NamesOnlyRemovingAfterListing final : public p::ForwardingProvider {
public:
  NamesOnlyRemovingAfterListing(std::shared_ptr<p::IProvider> inner, p::StorageIRI vanishing)
      : ForwardingProvider(std::move(inner)), vanishing_(std::move(vanishing)) {}

  std::unique_ptr<p::IFolderEntryIterator> listAll(p::StorageIRI const& folder,
                                                   std::u16string const& pattern) override {
    auto listing = ForwardingProvider::listAllNamesOnly(folder, pattern);
    if (folder == vanishing_.getParent()) inner().removeFolderRecursively(vanishing_);
    return listing;
  }

private:
  p::StorageIRI vanishing_;
};

/// Runs out of memory on the call of `op` that follows `callsBefore` successful ones.
class OutOfMemoryOn final : public p::ForwardingProvider {
public:
  OutOfMemoryOn(std::shared_ptr<p::IProvider> inner, Operation op, int callsBefore)
      : ForwardingProvider(std::move(inner)), op_(op), callsBefore_(callsBefore) {}

protected:
  void beforeCall(Operation op, p::StorageIRI const& location) override {
    if (op == op_ && callsBefore_-- == 0) throw std::bad_alloc();
    ForwardingProvider::beforeCall(op, location);
  }

private:
  Operation op_;
  int callsBefore_;
};

/// A case-insensitive memory provider, registered as "memci" in `h`'s storage system.
void registerCaseInsensitiveMemory(Harness const& h) {
  auto insensitive = std::make_shared<foundation::storage::providers::memory::MemoryProvider>(
      p::FilenameSensitivity::CaseInsensitive, u"", u"memci");
  h.system->registerProvider(u"memci", [insensitive](p::StorageIRI const&) { return insensitive; });
}

std::u16string numbered(std::u16string const& name, Policy policy) {
  return name + fl::i18n::to_ustring(std::to_string(static_cast<int>(policy)));
}

} // namespace

class TreeTransfer : public OnEveryProvider {
protected:
  void SetUp() override {
    OnEveryProvider::SetUp();
    if (!IsSkipped()) buildSource(h);
  }

  /// A folder on the other provider of the storage system (not wrapped).
  vfs::Folder elsewhere(std::string const& name) const {
    if (GetParam() == "file")
      return vfs::Folder(vfs::AbsoluteIRI(u"mem:///" + fl::i18n::to_ustring(name)), h.reference());
    return vfs::Folder(vfs::toAbsoluteIRI(u"file", fl::filesystem::path(other_.path() / name)), h.reference());
  }

  testsupport::TemporaryFolder other_{"vfs-other"};
};

TEST_P(TreeTransfer, MixedKindsAreProgrammingErrorsThatTouchNothing) {
  vfs::FileOrFolder const file = h.file(u"src/a.txt"), folder = h.folder(u"src/sub");
  auto expectLogicError = [](auto&& call, std::string const& text) {
    try {
      call();
      ADD_FAILURE() << "no std::logic_error for: " << text;
    } catch (std::logic_error const& e) {
      EXPECT_EQ(std::string(e.what()), text);
    }
  };
  expectLogicError([&] { vfs::move(file, folder, Policy::Overwrite); }, "Can't change a file to a folder.");
  expectLogicError([&] { vfs::move(folder, file, Policy::Overwrite); }, "Can't change a folder to a file.");
  expectLogicError([&] { vfs::copy(file, folder, Policy::Overwrite); }, "Can't make a folder out of a file.");
  expectLogicError([&] { vfs::copy(folder, file, Policy::Overwrite); }, "Can't make a file out of a folder.");
  EXPECT_EQ(read(h.file(u"src/a.txt")), "a");
  EXPECT_EQ(read(h.file(u"src/sub/b.txt")), "b");

  // Same kinds reach the file and folder operations.
  EXPECT_EQ(vfs::copy(file, vfs::FileOrFolder(h.file(u"a-copy.txt")), Policy::FailIfExists), p::CopyResult::Copied);
  vfs::copy(vfs::FileOrFolder(h.folder(u"src")), vfs::FileOrFolder(h.folder(u"copy")), Policy::FailIfExists);
  expectCopyOfSource(h.folder(u"copy"));
  vfs::move(vfs::FileOrFolder(h.folder(u"copy")), vfs::FileOrFolder(h.folder(u"moved")), Policy::FailIfExists);
  expectCopyOfSource(h.folder(u"moved"));
  EXPECT_FALSE(h.folder(u"copy").folderExists());
}

TEST_P(TreeTransfer, CopyRefusesAMissingSourceAndItsOwnSubtree) {
  try {
    h.folder(u"missing").copyFolder(h.folder(u"dst"), Policy::Overwrite);
    ADD_FAILURE() << "copied a missing folder";
  } catch (vfs::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::ResourceNotFound);
    EXPECT_EQ(e.getLocation(), h.at(u"missing"));
  }
  for (auto inside : {u"src/sub/copy", u"src", u"other/../src/sub"}) {
    try {
      h.folder(u"src").copyFolder(h.folder(inside), Policy::KeepExisting);
      ADD_FAILURE() << "copied a folder into its own subtree";
    } catch (vfs::Exception const& e) {
      EXPECT_EQ(e.getErrorCode(), ErrorCode::InvalidLocation);
      EXPECT_EQ(e.getLocation(), h.at(inside));
    }
  }
  EXPECT_FALSE(h.folder(u"src/sub/copy").folderExists());
}

TEST_P(TreeTransfer, CopyKeepsTimesAndMapsTheRootOntoTheDestination) {
  auto const when = boost::posix_time::time_from_string("2010-02-03 04:05:06");
  h.folder(u"src/sub").setLastModified(when);
  h.file(u"src/sub/b.txt").setLastModified(when);
  h.folder(u"src").copyFolder(h.folder(u"dst"), Policy::FailIfExists);
  expectCopyOfSource(h.folder(u"dst"));
  EXPECT_EQ(h.folder(u"dst/sub").getAttributes().getLastModified(), when);
  EXPECT_EQ(h.file(u"dst/sub/b.txt").getAttributes().getLastModified(), when);

  h.folder(u"dst2").createFolder();
  h.folder(u"src").copyFolderInto(h.folder(u"dst2"), Policy::FailIfExists);
  expectCopyOfSource(h.folder(u"dst2/src"));
}

TEST_P(TreeTransfer, EveryReplacementPolicyOnAnExistingDestination) {
  // The destination holds older a.txt and sub/b.txt; sub/deeper and empty are missing.
  struct Case {
    Policy policy;
    char const* expected; ///< contents of a.txt and sub/b.txt afterwards
  };
  for (auto [policy, expected] :
       {Case{Policy::Overwrite, "old"}, Case{Policy::ForceOverwrite, "new"},
        Case{Policy::OverwriteDeferringPermissionErrors, "new"}, Case{Policy::KeepExisting, "old"}}) {
    SCOPED_TRACE(testing::Message() << "policy " << policy);
    std::u16string const dst = u"dst" + fl::i18n::to_ustring(std::to_string(static_cast<int>(policy)));
    h.folder(dst + u"/sub").createFolderRecursive();
    write(h.file(dst + u"/a.txt"), "old");
    write(h.file(dst + u"/sub/b.txt"), "old");
    write(h.file(u"src/a.txt"), "new");
    write(h.file(u"src/sub/b.txt"), "new");
    h.folder(u"src").copyFolder(h.folder(dst), policy);
    EXPECT_EQ(read(h.file(dst + u"/a.txt")), expected);
    EXPECT_EQ(read(h.file(dst + u"/sub/b.txt")), expected);
    EXPECT_EQ(read(h.file(dst + u"/sub/deeper/c.txt")), "c"); // what was missing is copied
    EXPECT_TRUE(h.folder(dst + u"/empty").folderExists());
  }
  try {
    h.folder(u"src").copyFolder(h.folder(u"dst1"), Policy::FailIfExists);
    ADD_FAILURE() << "FailIfExists copied onto an existing folder";
  } catch (vfs::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::ResourceAlreadyExists);
    EXPECT_EQ(e.getLocation(), h.at(u"dst1"));
  }
  // Overwrite replaces an existing empty folder.
  write(h.file(u"src/a.txt"), "a");
  write(h.file(u"src/sub/b.txt"), "b");
  h.folder(u"dst5").createFolder();
  h.folder(u"src").copyFolder(h.folder(u"dst5"), Policy::Overwrite);
  expectCopyOfSource(h.folder(u"dst5"));
}

TEST_P(TreeTransfer, ForceOverwriteReplacesReadOnlyFiles) {
  SKIP_WITHOUT(WritableFlags);
  h.folder(u"dst/sub").createFolderRecursive();
  write(h.file(u"dst/sub/b.txt"), "old");
  h.file(u"dst/sub/b.txt").setWritable(false);
  if (GetParam() == "file" && ::geteuid() == 0) // root writes read-only files anyway: refuse as a user would be
    h.faults->failOn(Operation::CopyFile, h.at(u"src/sub/b.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied,
                   h.file(u"src/sub/b.txt").copyFile(h.file(u"dst/sub/b.txt"), Policy::Overwrite));
  if (GetParam() == "file" && ::geteuid() == 0)
    h.faults->failOn(Operation::CopyFile, h.at(u"src/sub/b.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  h.folder(u"src").copyFolder(h.folder(u"dst"), Policy::ForceOverwrite);
  EXPECT_EQ(read(h.file(u"dst/sub/b.txt")), "b");
  expectCopyOfSource(h.folder(u"dst"));
}

TEST_P(TreeTransfer, PermissionFailuresAreDeferredToTheEndWithPolicyThree) {
  for (auto file : {u"src/a.txt", u"src/sub/deeper/c.txt"})
    h.faults->failOn(Operation::CopyFile, h.at(file).toStorageIRI(), p::ErrorCode::PermissionDenied);
  try {
    h.folder(u"src").copyFolder(h.folder(u"dst"), Policy::OverwriteDeferringPermissionErrors);
    ADD_FAILURE() << "the refused files were not reported";
  } catch (vfs::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_TRUE(e.getLocation() == h.at(u"src/a.txt") || e.getLocation() == h.at(u"src/sub/deeper/c.txt"));
  }
  EXPECT_EQ(read(h.file(u"dst/sub/b.txt")), "b"); // everything else was copied first
  EXPECT_TRUE(h.folder(u"dst/empty").folderExists());
  EXPECT_FALSE(h.file(u"dst/a.txt").fileExists());

  // Any other policy stops at the first refusal.
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied,
                   h.folder(u"src").copyFolder(h.folder(u"dst-other"), Policy::ForceOverwrite));

  // A move with deferred failures keeps its source.
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied,
                   h.folder(u"src").moveFolder(elsewhere("moved"), Policy::OverwriteDeferringPermissionErrors));
  EXPECT_EQ(read(h.file(u"src/a.txt")), "a");
  EXPECT_EQ(read(vfs::File(elsewhere("moved"), u"sub/b.txt")), "b");
}

TEST_P(TreeTransfer, MovesWithinAProviderAreTheProvidersOwn) {
  h.counts->reset();
  h.folder(u"src").moveFolder(h.folder(u"moved"), Policy::FailIfExists);
  expectCopyOfSource(h.folder(u"moved"));
  EXPECT_FALSE(h.folder(u"src").folderExists());
  EXPECT_EQ(h.counts->count(Operation::MoveFolder), 1u);
  EXPECT_EQ(h.counts->count(Operation::CopyFile), 0u);

  // Where the provider cannot, the library copies and removes.
  h.faults->failOn(Operation::MoveFolder, h.at(u"moved").toStorageIRI(), p::ErrorCode::UnsupportedOperation, {}, 1);
  h.folder(u"moved").moveFolder(h.folder(u"again"), Policy::FailIfExists);
  expectCopyOfSource(h.folder(u"again"));
  EXPECT_FALSE(h.folder(u"moved").folderExists());

  // Onto a folder with contents: Overwrite is refused as the provider refuses it, KeepExisting
  // merges by copying.
  buildSource(h, u"other");
  write(h.file(u"again/a.txt"), "kept");
  EXPECT_VFS_ERROR(ErrorCode::FolderNotEmpty, h.folder(u"again").moveFolder(h.folder(u"other"), Policy::Overwrite));
  EXPECT_EQ(read(h.file(u"again/a.txt")), "kept");
  write(h.file(u"other/a.txt"), "theirs");
  h.folder(u"again").moveFolder(h.folder(u"other"), Policy::KeepExisting);
  EXPECT_EQ(read(h.file(u"other/a.txt")), "theirs");
  // Every file was there already, so each stays where it was; an empty folder moves.
  EXPECT_EQ(read(h.file(u"again/a.txt")), "kept");
  EXPECT_EQ(read(h.file(u"again/sub/deeper/c.txt")), "c");
  EXPECT_FALSE(h.folder(u"again/empty").folderExists());
}

TEST_P(TreeTransfer, MovesAndCopiesAcrossProviders) {
  auto const there = elsewhere("tree");
  h.folder(u"src").copyFolder(there, Policy::FailIfExists);
  expectCopyOfSource(there);
  there.moveFolder(h.folder(u"back"), Policy::FailIfExists);
  expectCopyOfSource(h.folder(u"back"));
  EXPECT_FALSE(there.folderExists());
  h.folder(u"back").moveFolder(there, Policy::FailIfExists);
  expectCopyOfSource(there);
  EXPECT_FALSE(h.folder(u"back").folderExists());
  there.removeFolder(vfs::FolderRemovalPolicy::Recursive);
}

TEST_P(TreeTransfer, ACopyNeverReplacesAFileThatAppearsInAFolderItHasJustCreated) {
  // Keeping policies keep a file another writer creates meanwhile; ForceOverwrite replaces it.
  for (Policy policy : {Policy::FailIfExists, Policy::Overwrite, Policy::KeepExisting, Policy::ForceOverwrite}) {
    SCOPED_TRACE(testing::Message() << "policy " << policy);
    auto const writer = std::make_shared<WritingBeforeCopy>(h.counts, h.at(u"src/sub/b.txt").toStorageIRI());
    vfs::Folder const source(p::StorageItem(writer, h.at(u"src").toStorageIRI()), h.reference());
    std::u16string const dst = numbered(u"dst", policy);
    source.copyFolder(h.folder(dst), policy);
    EXPECT_EQ(read(h.file(dst + u"/sub/b.txt")), policy == Policy::ForceOverwrite ? "b" : "theirs");
    EXPECT_EQ(read(h.file(dst + u"/a.txt")), "a");
    EXPECT_EQ(read(h.file(dst + u"/sub/deeper/c.txt")), "c");
  }
}

TEST_P(TreeTransfer, IntoACaseInsensitiveFolderNamesDifferingInCaseOnlyLandOnce) {
  registerCaseInsensitiveMemory(h);
  write(h.file(u"src/A.txt"), "A");
  // The walk copies in listing order; a later namesake is skipped unless the policy
  // overwrites.
  std::vector<std::string> order;
  for (auto const& entry : h.folder(u"src").listAllEntries())
    if (auto name = vfs::getName(entry); name == u"A.txt" || name == u"a.txt")
      order.push_back(name == u"A.txt" ? "A" : "a");
  ASSERT_EQ(order.size(), 2u);
  for (Policy policy : {Policy::FailIfExists, Policy::Overwrite, Policy::KeepExisting, Policy::ForceOverwrite}) {
    SCOPED_TRACE(testing::Message() << "policy " << policy);
    vfs::Folder const dst(vfs::AbsoluteIRI(numbered(u"memci:///dst", policy)), h.reference());
    h.folder(u"src").copyFolder(dst, policy);
    EXPECT_EQ(read(vfs::File(dst, u"a.txt")), policy == Policy::ForceOverwrite ? order[1] : order[0]);
    EXPECT_EQ(read(vfs::File(dst, u"sub/b.txt")), "b");
  }
}

TEST_P(TreeTransfer, AMoveAcrossProvidersRemovesFromTheSourceOnlyWhatItCopied) {
  // The destination holds sub/b.txt already: the keeping policies skip it, and the source
  // keeps it with the folder holding it.
  for (Policy policy :
       {Policy::Overwrite, Policy::ForceOverwrite, Policy::OverwriteDeferringPermissionErrors, Policy::KeepExisting}) {
    SCOPED_TRACE(testing::Message() << "policy " << policy);
    std::u16string const src = numbered(u"src", policy);
    buildSource(h, src);
    auto const there = elsewhere("moved" + std::to_string(static_cast<int>(policy)));
    vfs::Folder(there, u"sub").createFolderRecursive();
    write(vfs::File(there, u"sub/b.txt"), "theirs");
    h.folder(src).moveFolder(there, policy);
    EXPECT_EQ(read(vfs::File(there, u"a.txt")), "a");
    EXPECT_EQ(read(vfs::File(there, u"sub/deeper/c.txt")), "c");
    EXPECT_TRUE(vfs::Folder(there, u"empty").folderExists());
    bool const replaces = policy == Policy::ForceOverwrite || policy == Policy::OverwriteDeferringPermissionErrors;
    EXPECT_EQ(read(vfs::File(there, u"sub/b.txt")), replaces ? "b" : "theirs");
    if (replaces) {
      EXPECT_FALSE(h.folder(src).folderExists());
    } else {
      EXPECT_EQ(read(h.file(src + u"/sub/b.txt")), "b");
      EXPECT_FALSE(h.file(src + u"/a.txt").fileExists());
      EXPECT_FALSE(h.folder(src + u"/sub/deeper").folderExists());
      EXPECT_FALSE(h.folder(src + u"/empty").folderExists());
    }
  }
  // FailIfExists copies into a new folder only, where another writer's file is skipped too.
  auto const writer = std::make_shared<WritingBeforeCopy>(h.counts, h.at(u"src/sub/b.txt").toStorageIRI());
  vfs::Folder const source(p::StorageItem(writer, h.at(u"src").toStorageIRI()), h.reference());
  auto const there = elsewhere("moved0");
  source.moveFolder(there, Policy::FailIfExists);
  EXPECT_EQ(read(vfs::File(there, u"sub/b.txt")), "theirs");
  EXPECT_EQ(read(vfs::File(there, u"sub/deeper/c.txt")), "c");
  EXPECT_EQ(read(h.file(u"src/sub/b.txt")), "b");
  EXPECT_FALSE(h.file(u"src/a.txt").fileExists());

  // A file, too, stays where it was when the move keeps the destination's.
  h.file(u"src/sub/b.txt").moveFile(vfs::File(there, u"sub/b.txt"), Policy::KeepExisting);
  EXPECT_EQ(read(vfs::File(there, u"sub/b.txt")), "theirs");
  EXPECT_EQ(read(h.file(u"src/sub/b.txt")), "b");
}

TEST_P(TreeTransfer, OnlyProviderAndLibraryFailuresGiveWayToTheFirstFailure) {
  SKIP_WITHOUT(WritableFlags); // every recovery here begins by making the destination writable
  // A copy refused for lack of permission, whose destination cannot be made writable for
  // lack of memory.
  write(h.file(u"dst.txt"), "old");
  h.faults->failOn(Operation::CopyFile, h.at(u"src/a.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  auto const unlockFails = std::make_shared<OutOfMemoryOn>(h.counts, Operation::SetWritable, 0);
  vfs::File const target(p::StorageItem(unlockFails, h.at(u"dst.txt").toStorageIRI()), h.reference());
  EXPECT_THROW(h.file(u"src/a.txt").copyFile(target, Policy::ForceOverwrite), std::bad_alloc);
  EXPECT_EQ(read(h.file(u"dst.txt")), "old");

  // A move refused for lack of permission, whose retry runs out of memory.
  h.faults->failOn(Operation::MoveFile, h.at(u"src/a.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  auto const retryFails = std::make_shared<OutOfMemoryOn>(h.counts, Operation::MoveFile, 1);
  vfs::File const source(p::StorageItem(retryFails, h.at(u"src/a.txt").toStorageIRI()), h.reference());
  EXPECT_THROW(source.moveFile(h.file(u"dst.txt"), Policy::ForceOverwrite), std::bad_alloc);
  EXPECT_EQ(read(h.file(u"src/a.txt")), "a");

  // A provider failure of the retry still gives way to the first one.
  h.faults->failOn(Operation::MoveFile, h.at(u"src/a.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  h.faults->failOn(Operation::MoveFile, h.at(u"src/a.txt").toStorageIRI(), p::ErrorCode::IOError, {}, 1);
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied,
                   h.file(u"src/a.txt").moveFile(h.file(u"dst.txt"), Policy::ForceOverwrite));
}

TEST_P(TreeTransfer, AFailedMoveAcrossProvidersKeepsTheSource) {
  h.faults->failOn(Operation::CopyFile, h.at(u"src/sub/b.txt").toStorageIRI(), p::ErrorCode::IOError);
  EXPECT_VFS_ERROR(ErrorCode::IOError, h.folder(u"src").moveFolder(elsewhere("moved"), Policy::Overwrite));
  expectCopyOfSource(h.folder(u"src"));
  EXPECT_TRUE(elsewhere("moved").folderExists()); // what was copied stays
}

TEST_P(TreeTransfer, RecursiveRemovalFailsForATreeGoneAlreadyAndToleratesEntriesGoneMeanwhile) {
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound,
                   withoutNativeRemoval(h, u"gone").removeFolder(vfs::FolderRemovalPolicy::Recursive));
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, vfs::removeNonEmptyFolder(h.folder(u"gone")));

  auto remover = std::make_shared<RemovingAfterListing>(h.counts, h.at(u"src/sub").toStorageIRI(),
                                                        h.at(u"src/sub/b.txt").toStorageIRI());
  withoutNativeRemoval(h, u"src", remover).removeFolder(vfs::FolderRemovalPolicy::Recursive);
  EXPECT_FALSE(h.folder(u"src").folderExists());

  // A folder that vanishes where the listing carried no attributes to tell it is a folder
  // (and no link), so that they are asked for.
  buildSource(h, u"again");
  auto const vanishing = std::make_shared<NamesOnlyRemovingAfterListing>(h.counts, h.at(u"again/empty").toStorageIRI());
  vfs::removeNonEmptyFolder(vfs::Folder(p::StorageItem(vanishing, h.at(u"again").toStorageIRI()), h.reference()));
  EXPECT_FALSE(h.folder(u"again").folderExists());
}

INSTANTIATE_ON_EVERY_SCHEME(TreeTransfer);

TEST(LocalTreeRemoval, NeverFollowsALinkOutOfTheTree) {
  for (bool native : {true, false}) {
    SCOPED_TRACE(native ? "the provider's removal" : "the library's walk");
    Harness h = make("file");
    buildSource(h);
    h.folder(u"outside").createFolder();
    write(h.file(u"outside/precious.txt"), "keep");
    auto const path = [&](std::u16string const& relative) { return vfs::fromAbsoluteIRI(h.at(relative)).std_path(); };
    std::filesystem::create_directory_symlink(path(u"outside"), path(u"src/sub/link"));
    std::filesystem::create_symlink(path(u"outside/precious.txt"), path(u"src/file-link"));
    (native ? h.folder(u"src") : withoutNativeRemoval(h, u"src")).removeFolder(vfs::FolderRemovalPolicy::Recursive);
    EXPECT_FALSE(std::filesystem::exists(path(u"src")));
    EXPECT_EQ(read(h.file(u"outside/precious.txt")), "keep");

    // A root that is itself a link is not removed through.
    std::filesystem::create_directory_symlink(path(u"outside"), path(u"root-link"));
    auto const link = native ? h.folder(u"root-link") : withoutNativeRemoval(h, u"root-link");
    EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, link.removeFolder(vfs::FolderRemovalPolicy::Recursive));
    EXPECT_EQ(read(h.file(u"outside/precious.txt")), "keep");
  }
}
