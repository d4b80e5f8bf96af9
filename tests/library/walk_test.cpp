#include "harness.hpp"

#include "../support/recording_visitor.hpp"

#include <algorithm>
#include <set>

using namespace harness;
using testsupport::RecordingVisitor;
using vfs::ErrorCode;
using vfs::FolderVisitResult;
using wrappers::Operation;

namespace {

/// root: f.txt, a/{x.txt, y.txt}, b/c/z.txt, empty/
void buildTree(Harness const& h) {
  for (auto folder : {u"root/a", u"root/b/c", u"root/empty"}) h.folder(folder).createFolderRecursive();
  for (auto file : {u"root/f.txt", u"root/a/x.txt", u"root/a/y.txt", u"root/b/c/z.txt"}) write(h.file(file), "data");
}

std::set<std::string> const wholeTree{"before:", "file:f.txt",   "before:a",    "file:a/x.txt",   "file:a/y.txt",
                                      "after:a", "before:b",     "before:b/c",  "file:b/c/z.txt", "after:b/c",
                                      "after:b", "before:empty", "after:empty", "after:"};

std::set<std::string> asSet(std::vector<std::string> const& sequence) { return {sequence.begin(), sequence.end()}; }

/// A serial walk nests: every callback belongs to the innermost folder still open.
void expectNested(std::vector<testsupport::Call> const& calls) {
  std::vector<std::string> open;
  for (auto const& call : calls) {
    if (call.kind == "failed") continue;
    if (call.kind == "before") {
      if (!open.empty()) EXPECT_EQ(testsupport::parentOf(call.path), open.back()) << "before:" << call.path;
      if (!call.path.empty() || open.empty()) open.push_back(call.path);
    } else if (call.kind == "file") {
      ASSERT_FALSE(open.empty());
      EXPECT_EQ(testsupport::parentOf(call.path), open.back()) << "file:" << call.path;
    } else {
      ASSERT_FALSE(open.empty());
      EXPECT_EQ(call.path, open.back()) << "after:" << call.path;
      open.pop_back();
    }
  }
}

} // namespace

class SerialWalk : public OnEveryProvider {
protected:
  void SetUp() override {
    OnEveryProvider::SetUp();
    buildTree(h);
  }
  vfs::Folder root() const { return h.folder(u"root"); }
};

TEST_P(SerialWalk, VisitsEveryFolderAndFileDepthFirst) {
  RecordingVisitor visitor(root());
  EXPECT_EQ(vfs::walkFolder(root(), visitor), FolderVisitResult::Continue);
  EXPECT_EQ(asSet(visitor.sequence()), wholeTree);
  EXPECT_EQ(visitor.calls().size(), wholeTree.size()); // each exactly once
  expectNested(visitor.calls());
  auto const sequence = visitor.sequence();
  auto const emptyBefore = std::find(sequence.begin(), sequence.end(), "before:empty");
  ASSERT_NE(emptyBefore, sequence.end());
  EXPECT_EQ(*std::next(emptyBefore), "after:empty"); // an empty folder: nothing in between
}

TEST_P(SerialWalk, SkipPrunesAFolderAndStopEndsEverything) {
  RecordingVisitor skipping(root());
  skipping.answer("before", "a", FolderVisitResult::Skip);
  skipping.answer("file", "f.txt", FolderVisitResult::Skip); // no effect for a file
  EXPECT_EQ(vfs::walkFolder(root(), skipping), FolderVisitResult::Continue);
  auto expected = wholeTree;
  for (auto gone : {"file:a/x.txt", "file:a/y.txt", "after:a"}) expected.erase(gone);
  EXPECT_EQ(asSet(skipping.sequence()), expected);

  RecordingVisitor stopping(root());
  stopping.answer("file", "b/c/z.txt", FolderVisitResult::Stop);
  EXPECT_EQ(vfs::walkFolder(root(), stopping), FolderVisitResult::Stop);
  EXPECT_EQ(stopping.sequence().back(), "file:b/c/z.txt"); // nothing after it, no ancestor's after-callback
  EXPECT_FALSE(stopping.has("after", "b/c"));
  EXPECT_FALSE(stopping.has("after", ""));

  RecordingVisitor skippingTop(root());
  skippingTop.answer("before", "", FolderVisitResult::Skip);
  EXPECT_EQ(vfs::walkFolder(root(), skippingTop), FolderVisitResult::Skip);
  EXPECT_EQ(skippingTop.sequence(), std::vector<std::string>{"before:"});
}

TEST_P(SerialWalk, AnUnlistableFolderFailsThroughEveryAncestorWithDefaultCallbacks) {
  h.faults->denyListing(h.at(u"root/b/c").toStorageIRI());
  RecordingVisitor visitor(root());
  EXPECT_VFS_ERROR(ErrorCode::PermissionDenied, vfs::walkFolder(root(), visitor));
  auto const calls = visitor.calls();
  std::vector<std::string> failed;
  for (auto const& call : calls) {
    if (call.kind != "failed") continue;
    failed.push_back(call.path);
    EXPECT_EQ(call.failure, ErrorCode::PermissionDenied);
  }
  EXPECT_EQ(failed, (std::vector<std::string>{"b/c", "b", ""})); // each default rethrows to its parent
  EXPECT_FALSE(visitor.has("after", "b/c"));
  EXPECT_FALSE(visitor.has("after", ""));
}

TEST_P(SerialWalk, AFailureCallbackThatContinuesSkipsOnlyThatFolder) {
  h.faults->denyListing(h.at(u"root/a").toStorageIRI());
  RecordingVisitor visitor(root());
  visitor.answerFailures(FolderVisitResult::Continue);
  EXPECT_EQ(vfs::walkFolder(root(), visitor), FolderVisitResult::Continue);
  EXPECT_TRUE(visitor.has("failed", "a"));
  EXPECT_FALSE(visitor.has("after", "a")); // a failed folder gets no after-callback
  EXPECT_TRUE(visitor.has("file", "b/c/z.txt"));
  EXPECT_TRUE(visitor.has("after", ""));

  // A failure callback that stops ends the walk.
  RecordingVisitor stopping(root());
  stopping.answerFailures(FolderVisitResult::Stop);
  EXPECT_EQ(vfs::walkFolder(root(), stopping), FolderVisitResult::Stop);
  EXPECT_FALSE(stopping.has("after", ""));
}

TEST_P(SerialWalk, FailingCallbacksAreFailuresOfTheFolderTheyBelongTo) {
  RecordingVisitor visitor(root());
  visitor.answerFailures(FolderVisitResult::Continue);
  visitor.onCall("file", "a/x.txt", [&] { throw vfs::Exception(ErrorCode::IOError, h.at(u"root/a/x.txt")); });
  visitor.onCall("after", "b/c", [&] { throw vfs::Exception(ErrorCode::IOError, h.at(u"root/b/c")); });
  EXPECT_EQ(vfs::walkFolder(root(), visitor), FolderVisitResult::Continue);
  auto const calls = visitor.calls();
  std::vector<std::string> failed;
  for (auto const& call : calls)
    if (call.kind == "failed") failed.push_back(call.path);
  std::sort(failed.begin(), failed.end());
  EXPECT_EQ(failed, (std::vector<std::string>{"a", "b"})); // an after-callback's failure is its parent's
  EXPECT_FALSE(visitor.has("after", "b"));
  EXPECT_TRUE(visitor.has("after", ""));

  // Exceptions of other kinds are not the walk's business.
  RecordingVisitor throwing(root());
  throwing.onCall("file", "a/x.txt", [] { throw std::runtime_error("not a storage failure"); });
  EXPECT_THROW(vfs::walkFolder(root(), throwing), std::runtime_error);
  EXPECT_EQ(throwing.count("failed"), 0u);
}

TEST_P(SerialWalk, AFolderThatVanishedAfterItsParentListedItCountsAsWalked) {
  h.faults->vanishAfterListing(h.at(u"root/b").toStorageIRI());
  RecordingVisitor visitor(root());
  EXPECT_EQ(vfs::walkFolder(root(), visitor), FolderVisitResult::Continue);
  EXPECT_TRUE(visitor.has("before", "b"));
  EXPECT_TRUE(visitor.has("after", "b"));
  EXPECT_FALSE(visitor.has("before", "b/c"));
  EXPECT_EQ(visitor.count("failed"), 0u);
  EXPECT_TRUE(visitor.has("after", ""));
}

TEST_P(SerialWalk, EntryCallbacksUseTheAttributesTheListingDelivered) {
  struct SizeSummer : vfs::FolderVisitor {
    std::uint64_t bytes = 0;
    std::size_t folders = 0;
    FolderVisitResult visitEntry(vfs::FileEntry const& entry) override {
      bytes += entry.getAttributes().getSize();
      return FolderVisitResult::Continue;
    }
    FolderVisitResult visitBefore(vfs::Folder const&) override {
      ++folders;
      return FolderVisitResult::Continue;
    }
  } summer;
  h.counts->reset();
  vfs::walkFolder(root(), summer);
  EXPECT_EQ(summer.bytes, 16u);
  EXPECT_EQ(summer.folders, 5u); // the plain form, reached through the entry form's default
  EXPECT_EQ(h.counts->count(Operation::GetFileAttributes), 0u);
  EXPECT_EQ(h.counts->count(Operation::ListAll), 5u); // one listing per folder, nothing more
}

TEST_P(SerialWalk, AMissingRootCountsAsVanished) {
  RecordingVisitor visitor(h.folder(u"missing"));
  EXPECT_EQ(vfs::walkFolder(h.folder(u"missing"), visitor), FolderVisitResult::Continue);
  EXPECT_EQ(visitor.sequence(), (std::vector<std::string>{"before:", "after:"}));
}

INSTANTIATE_TEST_SUITE_P(Providers, SerialWalk, ::testing::Values("mem", "file"));

TEST(SerialWalkDepth, WalksATreeDeeperThanAStackWouldAllow) {
  // A recursive walk would need a stack frame per level; this one keeps levels on the heap.
  Harness h = make("mem");
  std::u16string path = u"deep";
  for (int i = 0; i < 3000; ++i) path += u"/d";
  h.folder(path).createFolderRecursive();
  write(vfs::File(h.folder(path), u"leaf.txt"), "x");
  struct Counter : vfs::FolderVisitor {
    int folders = 0, files = 0;
    FolderVisitResult visitBefore(vfs::Folder const&) override { return ++folders, FolderVisitResult::Continue; }
    FolderVisitResult visit(vfs::File const&) override { return ++files, FolderVisitResult::Continue; }
  } counter;
  EXPECT_EQ(vfs::walkFolder(h.folder(u"deep"), counter), FolderVisitResult::Continue);
  EXPECT_EQ(counter.folders, 3001);
  EXPECT_EQ(counter.files, 1);
}

TEST(WalkPrinting, ResultsAndRemovalPolicies) {
  std::ostringstream text;
  text << FolderVisitResult::Skip << "|" << static_cast<FolderVisitResult>(3) << "|"
       << vfs::FolderRemovalPolicy::Recursive << "|" << static_cast<vfs::FolderRemovalPolicy>(2) << "|";
  EXPECT_EQ(text.str(), "FolderVisitResult::Skip|Unhandled FolderVisitResult|FolderRemovalPolicy::Recursive||");
  EXPECT_EQ(vfs::toUstring(FolderVisitResult::Stop), u"FolderVisitResult::Stop");
  EXPECT_EQ(vfs::toString(FolderVisitResult::Continue), "FolderVisitResult::Continue");
}
