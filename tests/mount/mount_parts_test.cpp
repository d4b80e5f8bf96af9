// The mount's parts without the kernel: errno mapping, the node table, and open files over
// streams that write in place or through transactions.

#include "../library/harness.hpp"

#include <mount/errno_mapping.hpp>
#include <mount/inode_table.hpp>
#include <mount/open_file.hpp>
#include <mount/renaming.hpp>

#include <foundation/storage/provider/exceptions.hpp>

#include <cerrno>
#include <new>
#include <stdexcept>

namespace {

using namespace vfs_tool::mount;
namespace p = harness::p;
namespace vfs = harness::vfs;
namespace wrappers = harness::wrappers;
using Operation = foundation::storage::provider::Operation;

int errnoOf(auto&& thrower) {
  try {
    thrower();
  } catch (...) {
    return currentErrno();
  }
  return 0;
}

TEST(MountErrno, EveryCodeHasTheErrnoProgramsExpect) {
  using enum vfs::ErrorCode;
  std::pair<vfs::ErrorCode, int> const table[] = {{FolderNotEmpty, ENOTEMPTY},
                                                  {InvalidLocation, EINVAL},
                                                  {PermissionDenied, EACCES},
                                                  {ResourceAlreadyExists, EEXIST},
                                                  {ResourceNotFound, ENOENT},
                                                  {ReadOnlyProvider, EROFS},
                                                  {FileTooLarge, EFBIG},
                                                  {ResourceInUse, EBUSY},
                                                  {NoSpaceLeft, ENOSPC},
                                                  {IOError, EIO},
                                                  {InternalError, EIO},
                                                  {UnsupportedOperation, ENOTSUP},
                                                  {Unknown, EIO}};
  for (auto [code, expected] : table) EXPECT_EQ(errnoFor(code), expected) << code;
  EXPECT_EQ(errnoFor(UnsupportedOperation, true), EXDEV) << "rename must let mv fall back to copying";
  EXPECT_EQ(errnoFor(static_cast<vfs::ErrorCode>(99)), EIO);
}

TEST(MountErrno, FailuresInFlightMapByTheirCode) {
  vfs::AbsoluteIRI const where(u"mem:///x");
  EXPECT_EQ(errnoOf([&] { throw vfs::Exception(vfs::ErrorCode::NoSpaceLeft, where); }), ENOSPC);
  EXPECT_EQ(errnoOf([] { throw vfs::IOWriteException(vfs::ErrorCode::PermissionDenied); }), EACCES);
  // Streams hand provider failures through as the provider's codes, which are numbered differently.
  EXPECT_EQ(errnoOf([] { throw p::ByteStreamWriteFailure("full", p::ErrorCode::ReadOnlyProvider); }), EROFS);
  EXPECT_EQ(errnoOf([] { throw std::bad_alloc(); }), ENOMEM);
  EXPECT_EQ(errnoOf([] { throw std::runtime_error("other"); }), EIO);
}

class MountInodeTable : public ::testing::Test {
protected:
  std::u16string at(NodeId node) {
    auto location = table.location(node);
    return location ? location->toString() : u"(none)";
  }
  InodeTable table{vfs::AbsoluteIRI(u"mem:///root")};
};

TEST_F(MountInodeTable, RenamingAFolderMovesEverythingBelowIt) {
  NodeId const a = table.remember(InodeTable::Root, "a", NodeKind::Folder);
  NodeId const b = table.remember(a, "b", NodeKind::Folder);
  NodeId const f = table.remember(b, "f #1?.txt", NodeKind::File);
  EXPECT_EQ(at(f), vfs::AbsoluteIRI(vfs::AbsoluteIRI(u"mem:///root"), u"a/b/f #1?.txt").toString());
  EXPECT_EQ(table.remember(b, "f #1?.txt", NodeKind::File), f) << "a name looked up again keeps its node";
  EXPECT_EQ(table.childKind(a, "b"), NodeKind::Folder);
  EXPECT_FALSE(table.childKind(a, "never seen"));

  NodeId const z = table.remember(InodeTable::Root, "z", NodeKind::Folder);
  table.renamed(a, "b", z, "c");
  EXPECT_EQ(at(f), vfs::AbsoluteIRI(vfs::AbsoluteIRI(u"mem:///root"), u"z/c/f #1?.txt").toString());
  EXPECT_EQ(at(b), u"mem:///root/z/c");
  EXPECT_EQ(table.childLocation(a, "b")->toString(), u"mem:///root/a/b") << "the old name is free";
}

TEST_F(MountInodeTable, ReplacedAndRemovedNodesLoseTheirPlaceButLiveUntilForgotten) {
  NodeId const old = table.remember(InodeTable::Root, "doc", NodeKind::File);
  NodeId const temporary = table.remember(InodeTable::Root, "doc.tmp", NodeKind::File);
  table.renamed(InodeTable::Root, "doc.tmp", InodeTable::Root, "doc"); // an editor's save
  EXPECT_EQ(at(temporary), u"mem:///root/doc");
  EXPECT_EQ(at(old), u"(none)");
  EXPECT_EQ(table.kind(old), NodeKind::File) << "the kernel may still ask about it";
  table.forget(old, 1);
  EXPECT_FALSE(table.kind(old));

  table.removed(InodeTable::Root, "doc");
  EXPECT_EQ(at(temporary), u"(none)");
  NodeId const again = table.remember(InodeTable::Root, "doc", NodeKind::Folder);
  EXPECT_NE(again, temporary) << "a new thing at the name is a new node";
  EXPECT_EQ(table.kind(again), NodeKind::Folder);
}

TEST_F(MountInodeTable, AFolderStaysWhileItsChildrenAreReferenced) {
  NodeId const folder = table.remember(InodeTable::Root, "d", NodeKind::Folder);
  NodeId const child = table.remember(folder, "x", NodeKind::File);
  table.forget(folder, 1);
  EXPECT_EQ(at(child), u"mem:///root/d/x");
  table.forget(child, 5); // more than it had: the kernel batches forgets
  EXPECT_EQ(table.size(), 1u) << "only the root is left";
  table.forget(InodeTable::Root, 1);
  EXPECT_EQ(at(InodeTable::Root), u"mem:///root");
}

class MountOpenFile : public ::testing::Test {
protected:
  void SetUp() override { harness::write(h.file(u"f"), "old contents"); }
  void TearDown() override {
    if (h.cleanup) h.cleanup();
  }
  std::string readAll(OpenFile& file) {
    std::string bytes(64, '\0');
    bytes.resize(file.read(bytes.data(), bytes.size(), 0));
    return bytes;
  }
  harness::Harness h = harness::make("mem");
};

TEST_F(MountOpenFile, InPlaceWritesAreSeenAtOnceAndReadsFollowAnyOffset) {
  OpenFile writer(h.file(u"f"), true, false);
  writer.write("NEW", 3, 0);
  writer.write("!", 1, 12);
  EXPECT_EQ(harness::read(h.file(u"f")), "NEW contents!");
  OpenFile reader(h.file(u"f"), false, false);
  char middle[8] = {};
  EXPECT_EQ(reader.read(middle, 8, 4), 8u);
  EXPECT_EQ(std::string(middle, 8), "contents");
  EXPECT_EQ(reader.read(middle, 8, 13), 0u) << "at the end";
  EXPECT_FALSE(writer.pendingSize());
  writer.close();
  reader.close();
}

TEST_F(MountOpenFile, WherePlainWritesAreRefusedATransactionHoldsThemUntilFlush) {
  // An all-or-nothing store: plain writable streams are refused.
  h.faults->failOn(Operation::OpenStream, {}, p::ErrorCode::UnsupportedOperation);
  OpenFile writer(h.file(u"f"), true, false);
  writer.write("NEW", 3, 0);
  EXPECT_EQ(readAll(writer), "NEW contents") << "the writer reads its own writes";
  EXPECT_EQ(harness::read(h.file(u"f")), "old contents") << "others see the old contents until the commit";
  EXPECT_EQ(writer.pendingSize(), 12u);
  writer.write("++", 2, 12);
  EXPECT_EQ(writer.pendingSize(), 14u);
  writer.flush();
  EXPECT_EQ(harness::read(h.file(u"f")), "NEW contents++");
  EXPECT_FALSE(writer.pendingSize());

  writer.write("n", 1, 0); // the next transaction starts from what was committed
  writer.close();
  EXPECT_EQ(harness::read(h.file(u"f")), "nEW contents++");
}

TEST_F(MountOpenFile, TruncatingOpenEmptiesTheFileAndAnUnwrittenTransactionChangesNothing) {
  h.faults->failOn(Operation::OpenStream, {}, p::ErrorCode::UnsupportedOperation);
  {
    OpenFile untouched(h.file(u"f"), true, false);
    untouched.close();
  }
  EXPECT_EQ(harness::read(h.file(u"f")), "old contents");
  OpenFile emptied(h.file(u"f"), true, true);
  EXPECT_EQ(emptied.pendingSize(), 0u);
  emptied.close();
  EXPECT_EQ(harness::read(h.file(u"f")), "");
}

TEST_F(MountOpenFile, TruncatingATransactionLastsThroughItsCommit) {
  h.faults->failOn(Operation::OpenStream, {}, p::ErrorCode::UnsupportedOperation);
  OpenFile writer(h.file(u"f"), true, false);
  writer.write("NEW", 3, 0);
  writer.truncate(5);
  EXPECT_EQ(writer.pendingSize(), 5u);
  EXPECT_EQ(readAll(writer), "NEW c");
  EXPECT_EQ(harness::read(h.file(u"f")), "old contents") << "others see the truncation with the commit";
  writer.truncate(7);
  writer.write("!", 1, 7);
  EXPECT_EQ(readAll(writer), std::string("NEW c\0\0!", 8)) << "growth reads as zeros";

  OpenFile other(h.file(u"f"), true, false);
  other.write("X", 1, 0);
  other.truncateTransaction(2); // as after a truncation through the first handle
  other.close();
  EXPECT_EQ(harness::read(h.file(u"f")), "Xl");
  writer.flush();
  EXPECT_EQ(harness::read(h.file(u"f")), std::string("NEW c\0\0!", 8));

  writer.truncate(3); // no transaction open any more: the file itself
  EXPECT_EQ(harness::read(h.file(u"f")), "NEW");
  writer.close();
}

TEST_F(MountOpenFile, ATruncationThatFailsLeavesTheTransactionWhole) {
  h.faults->failOn(Operation::OpenStream, {}, p::ErrorCode::UnsupportedOperation);
  OpenFile writer(h.file(u"f"), true, false);
  writer.write("NEW", 3, 0);
  h.faults->failOn(Operation::OpenTransactionalStream, {}, p::ErrorCode::NoSpaceLeft, {}, 1);
  EXPECT_EQ(errnoOf([&] { writer.truncate(2); }), ENOSPC);
  EXPECT_EQ(writer.pendingSize(), 12u);
  EXPECT_EQ(readAll(writer), "NEW contents");
  writer.close();
  EXPECT_EQ(harness::read(h.file(u"f")), "NEW contents");
}

TEST_F(MountOpenFile, AFailedWriteReportsTheProvidersCode) {
  h.faults->failStream(h.at(u"f").toStorageIRI(), wrappers::StreamOperation::Write, p::ErrorCode::NoSpaceLeft);
  OpenFile writer(h.file(u"f"), true, false);
  EXPECT_EQ(errnoOf([&] { writer.write("x", 1, 0); }), ENOSPC);
  writer.close();
  EXPECT_EQ(harness::read(h.file(u"f")), "old contents");
}

TEST(MountRenaming, AFolderReplacesAnEmptyFolderOnlyByAMoveThatSucceeds) {
  auto h = harness::make("mem");
  h.folder(u"source/inner").createFolderRecursive();
  h.folder(u"empty").createFolder();
  h.folder(u"full/kept").createFolderRecursive();
  auto const system = h.reference();
  EXPECT_VFS_ERROR(vfs::ErrorCode::FolderNotEmpty, renameItem(h.at(u"source"), h.at(u"full"), system, false));
  EXPECT_VFS_ERROR(vfs::ErrorCode::ResourceAlreadyExists, renameItem(h.at(u"source"), h.at(u"empty"), system, true));

  h.faults->failOn(Operation::MoveFolder, h.at(u"source").toStorageIRI(), p::ErrorCode::IOError, {}, 1);
  EXPECT_VFS_ERROR(vfs::ErrorCode::IOError, renameItem(h.at(u"source"), h.at(u"empty"), system, false));
  EXPECT_TRUE(h.folder(u"empty").folderExists()) << "the folder to be replaced went before the move failed";
  EXPECT_TRUE(h.folder(u"source/inner").folderExists());

  renameItem(h.at(u"source"), h.at(u"empty"), system, false);
  EXPECT_TRUE(h.folder(u"empty/inner").folderExists());
  EXPECT_FALSE(h.folder(u"source").folderExists());
  EXPECT_TRUE(h.folder(u"full/kept").folderExists());
}

} // namespace
