#include "harness.hpp"

#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <unistd.h>
#include <vector>

using namespace harness;
using vfs::ErrorCode;
using wrappers::Operation;
using Policy = p::ReplacementPolicy;

class Handles : public OnEveryProvider {};

TEST_P(Handles, CreateQueryAndRemoveFilesAndFolders) {
  auto folder = h.folder(u"docs");
  auto file = vfs::File(folder, u"report.tar.gz");
  EXPECT_FALSE(folder.folderExists());
  EXPECT_FALSE(file.fileExists());
  folder.createFolder();
  file.createFile();
  EXPECT_TRUE(file.fileExists());
  EXPECT_FALSE(vfs::File(h.at(u"docs"), h.reference()).fileExists());
  EXPECT_FALSE(vfs::Folder(h.at(u"docs/report.tar.gz"), h.reference()).folderExists());
  EXPECT_EQ(file.getParent(), folder);
  EXPECT_EQ(file.getAttributes().getSize(), 0u);
  EXPECT_FALSE(folder.getExtendedAttributes().empty());
  EXPECT_VFS_ERROR(ErrorCode::ResourceAlreadyExists, file.createFile());
  EXPECT_VFS_ERROR(ErrorCode::FolderNotEmpty, folder.removeFolder(vfs::FolderRemovalPolicy::NonRecursive));
  folder.removeFolder(vfs::FolderRemovalPolicy::Recursive);
  EXPECT_FALSE(folder.folderExists());
  EXPECT_EQ(h.counts->count(Operation::RemoveFolderRecursively), 1u); // the provider's own, in one call
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, file.getAttributes());
}

TEST_P(Handles, RecursiveRemovalWithoutTheProvidersHelpWalksTheTree) {
  h.folder(u"tree/sub/deeper").createFolderRecursive();
  h.file(u"tree/a.txt").createFile();
  h.file(u"tree/sub/deeper/b.txt").createFile();
  auto features = std::make_shared<wrappers::FeatureSwitchingProvider>(h.counts);
  features->disable(p::ExtendedFeature::NativeRecursiveRemoval);
  vfs::Folder tree(p::StorageItem(features, h.at(u"tree").toStorageIRI()), h.reference());
  h.counts->reset();
  tree.removeFolder(vfs::FolderRemovalPolicy::Recursive);
  EXPECT_FALSE(h.folder(u"tree").folderExists());
  EXPECT_EQ(h.counts->count(Operation::RemoveFolderRecursively), 0u);
  EXPECT_EQ(h.counts->count(Operation::RemoveFile), 2u);
  EXPECT_EQ(h.counts->count(Operation::RemoveFolder), 3u);
}

TEST_P(Handles, AnswerExistenceAndBuildTheRightKind) {
  h.folder(u"d").createFolder();
  h.file(u"f").createFile();
  EXPECT_EQ(vfs::exists(h.at(u"f"), h.reference()), p::ExistsResult::File);
  EXPECT_EQ(vfs::exists(h.at(u"d"), h.reference()), p::ExistsResult::Folder);
  EXPECT_EQ(vfs::exists(h.at(u"missing"), h.reference()), p::ExistsResult::NotFound);
  EXPECT_EQ(vfs::existsExtended(h.at(u"missing"), h.reference()), p::ExtendedExistsResult::NotFound);
  EXPECT_EQ(vfs::makeFileOrFolder(h.at(u"f"), h.reference()).which(), 0);
  EXPECT_EQ(vfs::makeFileOrFolder(h.at(u"d"), h.reference()).which(), 1);
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, vfs::makeFileOrFolder(h.at(u"missing"), h.reference()));
  try {
    vfs::makeFileOrFolder(h.at(u"missing"), h.reference());
  } catch (vfs::Exception const& e) {
    EXPECT_EQ(e.getLocation(), h.at(u"missing"));
  }
  // Permission failures are not absence.
  h.faults->failOn(Operation::FileExists, h.at(u"f").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied, h.file(u"f").fileExists());
  h.faults->failOn(Operation::FolderExists, h.at(u"d").toStorageIRI(), p::ErrorCode::ResourceNotFound, {}, 1);
  EXPECT_FALSE(h.folder(u"d").folderExists());
}

TEST_P(Handles, DispatchOnFileOrFolder) {
  h.folder(u"d").createFolder();
  h.file(u"d/.f").createFile();
  vfs::FileOrFolder file = h.file(u"d/.f");
  vfs::FileOrFolder folder = h.folder(u"d");
  // A file always lives in a folder, even where its location names none.
  vfs::AbsoluteIRI const root(u"mem:///");
  ASSERT_FALSE(root.hasParent());
  EXPECT_TRUE(vfs::hasParent(vfs::FileOrFolder(vfs::File(root, h.reference()))));
  EXPECT_EQ(vfs::getName(file), u".f");
  EXPECT_TRUE(vfs::isHidden(file));
  EXPECT_FALSE(vfs::isHidden(folder));
  EXPECT_TRUE(vfs::exists(file));
  EXPECT_EQ(vfs::getParent(file), h.folder(u"d"));
  auto const when = boost::posix_time::time_from_string("2021-03-04 05:06:07");
  vfs::setLastModified(file, when);
  EXPECT_EQ(vfs::getLastModified(file), when);
  vfs::remove(file, vfs::FolderRemovalPolicy::Recursive); // just the file
  EXPECT_FALSE(vfs::exists(file));
  EXPECT_TRUE(vfs::exists(folder));
  vfs::remove(folder, vfs::FolderRemovalPolicy::NonRecursive);
  EXPECT_FALSE(vfs::exists(folder));
}

TEST_P(Handles, KnowTheirNamesExtensionsAndOrder) {
  for (auto [name, extension] : std::vector<std::pair<std::u16string, std::u16string>>{{u"archive.tar.gz", u".gz"},
                                                                                       {u".profile", u".profile"},
                                                                                       {u"name.", u"."},
                                                                                       {u"README", u""},
                                                                                       {u"a.b.c", u".c"}})
    EXPECT_EQ(h.file(name).getExtension(), extension);
  auto other = std::make_shared<StandardStorageSystem>();
  vfs::File elsewhere(h.at(u"x"), vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(other)));
  EXPECT_EQ(elsewhere, h.file(u"x")); // the storage system takes no part
  EXPECT_LT(h.file(u"a"), h.file(u"b"));
  std::ostringstream text;
  text << h.file(u"x");
  EXPECT_EQ(text.str(), h.at(u"x").toIRI());

  vfs::File a = h.file(u"a"), b = elsewhere;
  a.swap(b);
  EXPECT_EQ(a.getLocation(), h.at(u"x"));
  EXPECT_TRUE(a.getStorageSystem() == h.reference()); // the systems stay where they were
}

TEST_P(Handles, AskForCanonicalLocationsOnlyWhenNotKnown) {
  h.folder(u"real").createFolder();
  auto const before = h.counts->count(Operation::GetCanonicalLocation);
  vfs::Folder known(vfs::CanonicalAbsoluteIRI(h.at(u"real").toString()), h.reference());
  EXPECT_EQ(known.getCanonicalLocation(), h.at(u"real"));
  EXPECT_EQ(h.counts->count(Operation::GetCanonicalLocation), before);
  EXPECT_EQ(vfs::Folder(known, u"..").getCanonicalLocation(), h.root); // a child asks, even of a canonical parent
  EXPECT_EQ(h.counts->count(Operation::GetCanonicalLocation), before + 1);
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, h.folder(u"missing").getCanonicalLocation());
}

TEST_P(Handles, MoveAndCopyFilesWithinAndAcrossProviders) {
  write(h.file(u"src.txt"), "contents");
  auto const when = boost::posix_time::time_from_string("2001-01-01 01:01:01");
  h.file(u"src.txt").setLastModified(when);
  EXPECT_EQ(h.file(u"src.txt").copyFile(h.file(u"copy.txt"), Policy::FailIfExists), p::CopyResult::Copied);
  EXPECT_EQ(h.file(u"copy.txt").getAttributes().getLastModified(), when); // kept within one scheme
  EXPECT_EQ(h.file(u"src.txt").copyFile(h.file(u"copy.txt"), Policy::KeepExisting), p::CopyResult::Skipped);
  EXPECT_VFS_ERROR(ErrorCode::ResourceAlreadyExists,
                   h.file(u"src.txt").copyFile(h.file(u"copy.txt"), Policy::FailIfExists));

  h.file(u"copy.txt").moveFile(h.file(u"moved.txt"), Policy::OverwriteDeferringPermissionErrors);
  EXPECT_FALSE(h.file(u"copy.txt").fileExists());
  EXPECT_EQ(read(h.file(u"moved.txt")), "contents");

  // Across schemes (the other scheme is the system's own provider): copied, then the
  // source removed.
  vfs::AbsoluteIRI const elsewhere =
      GetParam() == "mem"
          ? vfs::toAbsoluteIRI(u"file", fl::filesystem::path(std::filesystem::temp_directory_path() /
                                                             ("vfs-across-" + std::to_string(::getpid()))))
          : vfs::AbsoluteIRI(u"mem:///across.txt");
  vfs::File across(elsewhere, h.reference());
  h.file(u"moved.txt").moveFile(across, Policy::Overwrite);
  EXPECT_FALSE(h.file(u"moved.txt").fileExists());
  EXPECT_EQ(read(across), "contents");
  across.removeFile();
}

TEST_P(Handles, ForceOverwriteUnlocksTheDestinationAndRetriesOnce) {
  SKIP_WITHOUT(WritableFlags);
  write(h.file(u"src.txt"), "new");
  write(h.file(u"dst.txt"), "old");
  h.faults->failOn(Operation::CopyFile, h.at(u"src.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  EXPECT_EQ(h.file(u"src.txt").copyFile(h.file(u"dst.txt"), Policy::ForceOverwrite), p::CopyResult::Copied);
  EXPECT_EQ(read(h.file(u"dst.txt")), "new");
  EXPECT_EQ(h.counts->count(Operation::CopyFile), 2u);
  EXPECT_EQ(h.counts->count(Operation::SetWritable), 1u);

  // Without ForceOverwrite the failure is reported as it is.
  h.faults->failOn(Operation::CopyFile, h.at(u"src.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied, h.file(u"src.txt").copyFile(h.file(u"dst.txt"), Policy::Overwrite));

  // A move that still fails after unlocking reports the first failure.
  h.faults->failOn(Operation::MoveFile, h.at(u"src.txt").toStorageIRI(), p::ErrorCode::PermissionDenied, {}, 1);
  h.faults->failOn(Operation::MoveFile, h.at(u"src.txt").toStorageIRI(), p::ErrorCode::ResourceInUse, {}, 1);
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied,
                   h.file(u"src.txt").moveFile(h.file(u"dst.txt"), Policy::ForceOverwrite));
  EXPECT_EQ(read(h.file(u"src.txt")), "new");
}

TEST_P(Handles, MovesFallBackToCopyWhereTheProviderCannotMove) {
  write(h.file(u"a.txt"), "a");
  h.faults->failOn(Operation::MoveFile, h.at(u"a.txt").toStorageIRI(), p::ErrorCode::UnsupportedOperation, {}, 1);
  h.file(u"a.txt").moveFile(h.file(u"b.txt"), Policy::FailIfExists);
  EXPECT_FALSE(h.file(u"a.txt").fileExists());
  EXPECT_EQ(read(h.file(u"b.txt")), "a");
  EXPECT_EQ(h.counts->count(Operation::CopyFile), 1u);
  EXPECT_EQ(h.counts->count(Operation::RemoveFile), 1u);
}

TEST_P(Handles, OpenDevicesThatReadWriteAndCommit) {
  auto file = h.file(u"data.bin");
  auto device = file.open({p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::CreateIfMissing,
                           p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
  EXPECT_EQ(device.write("hello", 5), 5);
  EXPECT_EQ(device.seek(0, std::ios_base::beg), std::streampos(0));
  char buffer[8];
  EXPECT_EQ(device.read(buffer, sizeof buffer), 5);
  EXPECT_EQ(device.read(buffer, sizeof buffer), -1);
  device.close();
  auto transaction = file.openTransactionalStream({p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::MustExist,
                                                   p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
  transaction.write("bye", 3);
  transaction.close(p::StreamClosePolicy::Discard);
  EXPECT_EQ(read(file), "hello");
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, h.file(u"missing").openReadOnly());
}

INSTANTIATE_ON_EVERY_SCHEME(Handles);

TEST(LocalHandles, ResolveSymbolicLinksForCanonicalLocations) {
  Harness h = make("file");
  h.folder(u"real").createFolder();
  std::filesystem::create_directory_symlink(vfs::fromAbsoluteIRI(h.at(u"real")).std_path(),
                                            vfs::fromAbsoluteIRI(h.at(u"link")).std_path());
  EXPECT_EQ(h.folder(u"link").getCanonicalLocation(),
            vfs::toCanonicalAbsoluteIRI(u"file", vfs::fromAbsoluteIRI(h.at(u"real"))));
  EXPECT_TRUE(vfs::isSymlink(vfs::FileOrFolder(h.folder(u"link"))));
  h.cleanup();
}

// A move across file systems copies, then removes the source: only once the copy is on disk.
TEST(LocalHandles, MovesAcrossFileSystemsRemoveTheSourceOnlyOnceTheCopyIsDurable) {
  testsupport::TemporaryFolder folder("vfs-library");
  auto const source = folder.path() / "source.txt";
  std::vector<bool> sourceThereAtSync;
  foundation::storage::providers::local::LocalProviderOptions options;
  options.rename = [](int, char const*, int, char const*, bool) { return EXDEV; };
  options.sync = [&](int fd) {
    sourceThereAtSync.push_back(std::filesystem::exists(source));
    return ::fsync(fd) == 0 ? 0 : errno;
  };
  auto system = std::make_shared<StandardStorageSystem>();
  auto provider = std::make_shared<foundation::storage::providers::local::LocalProvider>(options);
  system->registerProvider(u"file", [provider](p::StorageIRI const&) { return provider; });
  vfs::StorageSystemReference const reference{std::weak_ptr<vfs::StorageSystem>(system)};
  auto const at = [&](char const* name) {
    return vfs::File(vfs::toAbsoluteIRI(u"file", fl::filesystem::path(folder.path() / name)), reference);
  };
  std::ofstream(source) << "moved";
  at("source.txt").moveFile(at("target.txt"), Policy::FailIfExists);
  EXPECT_EQ(read(at("target.txt")), "moved");
  EXPECT_FALSE(std::filesystem::exists(source));
  EXPECT_EQ(sourceThereAtSync, (std::vector<bool>{true, true})); // the data, then the folder, before the removal
}
