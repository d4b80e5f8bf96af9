// Tree copies and moves across a simulated crash, over the memory provider: a copy that
// returned is durable as a whole, one that failed part-way leaves no half-written file, and
// a move never loses the source before its copy is durable.

#include "harness.hpp"

using namespace harness;
using wrappers::Operation;
using Policy = p::ReplacementPolicy;

namespace {

class TreeCrash : public ::testing::Test {
protected:
  void SetUp() override {
    h.faults->trackDurability();
    // src: a.txt, sub/b.txt, sub/deeper/c.txt
    folder(u"src/sub/deeper").createFolderRecursive();
    write(file(u"src/a.txt"), "a");
    write(file(u"src/sub/b.txt"), "b");
    write(file(u"src/sub/deeper/c.txt"), "c");
    folder(u"dst").createFolder();
    write(file(u"dst/a.txt"), "old a");
  }

  /// Handles served by the fault wrapper itself, whose durability batches the library uses.
  vfs::Folder folder(std::u16string const& relative) const {
    return vfs::Folder(p::StorageItem(h.faults, h.at(relative).toStorageIRI()), h.reference());
  }
  vfs::File file(std::u16string const& relative) const {
    return vfs::File(p::StorageItem(h.faults, h.at(relative).toStorageIRI()), h.reference());
  }
  /// What the storage holds, read past the wrapper: "(none)" for no file.
  std::string onStorage(std::u16string const& relative) const {
    p::StorageItem real(h.faults->getInner(), h.at(relative).toStorageIRI());
    if (!real.fileExists()) return "(none)";
    auto stream = real.openReadOnlyStream();
    std::string bytes(64, '\0');
    bytes.resize(static_cast<std::size_t>(stream->read(bytes.data(), 64)));
    return bytes;
  }

  Harness h = make("mem");
};

} // namespace

TEST_F(TreeCrash, ACopyFailingPartWayLeavesOldOrWholeFilesAndLosesNoneOfTheOld) {
  h.faults->failOn(Operation::CopyFile, h.at(u"src/sub/deeper/c.txt").toStorageIRI(), p::ErrorCode::IOError);
  EXPECT_VFS_ERROR(vfs::ErrorCode::IOError, folder(u"src").copyFolder(folder(u"dst"), Policy::ForceOverwrite));
  h.faults->simulateCrash();
  EXPECT_EQ(onStorage(u"dst/a.txt"), "a") << "a replacement is flushed before it lands, in a batch too";
  EXPECT_EQ(onStorage(u"dst/sub/b.txt"), "(none)") << "new files of an abandoned copy are not durable";
  EXPECT_EQ(onStorage(u"dst/sub/deeper/c.txt"), "(none)");
  EXPECT_EQ(onStorage(u"src/sub/deeper/c.txt"), "c");
}

TEST_F(TreeCrash, ACopyThatReturnedSurvivesACrashWhole) {
  folder(u"src").copyFolder(folder(u"dst"), Policy::ForceOverwrite);
  h.faults->simulateCrash();
  EXPECT_EQ(onStorage(u"dst/a.txt"), "a");
  EXPECT_EQ(onStorage(u"dst/sub/b.txt"), "b");
  EXPECT_EQ(onStorage(u"dst/sub/deeper/c.txt"), "c");
}

TEST_F(TreeCrash, AMoveByCopyingKeepsEveryFileWhereverItCrashes) {
  // The provider refuses, so the library copies, then removes the source.
  h.faults->failOn(Operation::MoveFolder, h.at(u"src").toStorageIRI(), p::ErrorCode::UnsupportedOperation);
  h.faults->failOn(Operation::CopyFile, h.at(u"src/sub/deeper/c.txt").toStorageIRI(), p::ErrorCode::IOError, {}, 1);
  EXPECT_VFS_ERROR(vfs::ErrorCode::IOError, folder(u"src").moveFolder(folder(u"moved"), Policy::FailIfExists));
  h.faults->simulateCrash();
  EXPECT_EQ(onStorage(u"src/a.txt"), "a");
  EXPECT_EQ(onStorage(u"src/sub/b.txt"), "b");
  EXPECT_EQ(onStorage(u"src/sub/deeper/c.txt"), "c");
  EXPECT_EQ(onStorage(u"moved/a.txt"), "(none)");

  folder(u"src").moveFolder(folder(u"elsewhere"), Policy::FailIfExists);
  h.faults->simulateCrash();
  EXPECT_FALSE(h.faults->getInner()->folderExists(h.at(u"src").toStorageIRI()));
  EXPECT_EQ(onStorage(u"elsewhere/a.txt"), "a") << "the copy was durable before the source went";
  EXPECT_EQ(onStorage(u"elsewhere/sub/b.txt"), "b");
  EXPECT_EQ(onStorage(u"elsewhere/sub/deeper/c.txt"), "c");
}
