#include "harness.hpp"

#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <filesystem>
#include <fstream>
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
vfs::Folder withoutNativeRemoval(Harness const& h, std::u16string const& relative, std::shared_ptr<p::IProvider> provider = {}) {
  auto features = std::make_shared<wrappers::FeatureSwitchingProvider>(provider ? provider : h.counts);
  features->disable(p::ExtendedFeature::NativeRecursiveRemoval);
  return vfs::Folder(p::StorageItem(features, h.at(relative).toStorageIRI()), h.reference());
}

/// Removes a file of a folder right after the folder was listed, as another process might.
class RemovingAfterListing final : public p::ForwardingProvider {
public:
  RemovingAfterListing(std::shared_ptr<p::IProvider> inner, p::StorageIRI folder, p::StorageIRI file)
      : ForwardingProvider(std::move(inner)), folder_(std::move(folder)), file_(std::move(file)) {}

  std::unique_ptr<p::IFolderEntryIterator> listAll(p::StorageIRI const& folder, std::u16string const& pattern) override {
    auto listing = ForwardingProvider::listAll(folder, pattern);
    if (folder == folder_) inner().removeFile(file_);
    return listing;
  }

private:
  p::StorageIRI folder_, file_;
};

} // namespace

class TreeTransfer : public OnEveryProvider {
protected:
  void SetUp() override {
    OnEveryProvider::SetUp();
    buildSource(h);
  }

  /// A folder on the other provider of the storage system (not wrapped).
  vfs::Folder elsewhere(std::string const& name) const {
    if (GetParam() == "file") return vfs::Folder(vfs::AbsoluteIRI(u"mem:///" + fl::i18n::to_ustring(name)), h.reference());
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
  for (auto [policy, expected] : {Case{Policy::Overwrite, "old"}, Case{Policy::ForceOverwrite, "new"},
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
  h.folder(u"dst/sub").createFolderRecursive();
  write(h.file(u"dst/sub/b.txt"), "old");
  h.file(u"dst/sub/b.txt").setWritable(false);
  if (GetParam() == "file" && ::geteuid() == 0) // root writes read-only files anyway: refuse as a user would be
    h.faults->failOn(Operation::CopyFile, h.at(u"src/sub/b.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied, h.file(u"src/sub/b.txt").copyFile(h.file(u"dst/sub/b.txt"), Policy::Overwrite));
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
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied, h.folder(u"src").copyFolder(h.folder(u"dst-other"), Policy::ForceOverwrite));

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
  EXPECT_FALSE(h.folder(u"again").folderExists());
  EXPECT_EQ(read(h.file(u"other/a.txt")), "theirs");
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

TEST_P(TreeTransfer, AFailedMoveAcrossProvidersKeepsTheSource) {
  h.faults->failOn(Operation::CopyFile, h.at(u"src/sub/b.txt").toStorageIRI(), p::ErrorCode::IOError);
  EXPECT_VFS_ERROR(ErrorCode::IOError, h.folder(u"src").moveFolder(elsewhere("moved"), Policy::Overwrite));
  expectCopyOfSource(h.folder(u"src"));
  EXPECT_TRUE(elsewhere("moved").folderExists()); // what was copied stays
}

TEST_P(TreeTransfer, RecursiveRemovalFailsForATreeGoneAlreadyAndToleratesEntriesGoneMeanwhile) {
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, withoutNativeRemoval(h, u"gone").removeFolder(vfs::FolderRemovalPolicy::Recursive));
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, vfs::removeNonEmptyFolder(h.folder(u"gone")));

  auto remover = std::make_shared<RemovingAfterListing>(h.counts, h.at(u"src/sub").toStorageIRI(),
                                                        h.at(u"src/sub/b.txt").toStorageIRI());
  withoutNativeRemoval(h, u"src", remover).removeFolder(vfs::FolderRemovalPolicy::Recursive);
  EXPECT_FALSE(h.folder(u"src").folderExists());
}

INSTANTIATE_TEST_SUITE_P(Providers, TreeTransfer, ::testing::Values("mem", "file"));

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
