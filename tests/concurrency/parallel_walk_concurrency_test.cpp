// The parallel walk's protocol: callbacks concurrent across siblings but in causal order
// within each folder, cancellation, Stop, failing and vanishing sub-folders. Each case
// repeats its walk so that TSan and the causal checks see many interleavings.

#include "../library/harness.hpp"
#include "../support/recording_visitor.hpp"

#include <oneapi/tbb/task_arena.h>

#include <atomic>

using namespace harness;
using testsupport::RecordingVisitor;
using vfs::ErrorCode;
using vfs::FolderVisitResult;

namespace {

constexpr int repetitions = 20;
constexpr int folders = 6, subfolders = 3, filesPerFolder = 8;
/// More files than one task visits, and not a multiple of that number.
constexpr int manyFiles = 70;

/// root/d<i>/s<j>/f<k>.txt and root/d<i>/f<k>.txt, plus root/empty and root/many/f<k>.txt.
void buildTree(Harness const& h) {
  h.folder(u"root/empty").createFolderRecursive();
  h.folder(u"root/many").createFolderRecursive();
  for (int k = 0; k < manyFiles; ++k)
    h.file(u"root/many/f" + fl::i18n::to_ustring(std::to_string(k)) + u".txt").createFile();
  for (int i = 0; i < folders; ++i) {
    std::u16string const d = u"root/d" + fl::i18n::to_ustring(std::to_string(i));
    for (int j = 0; j < subfolders; ++j) {
      std::u16string const s = d + u"/s" + fl::i18n::to_ustring(std::to_string(j));
      h.folder(s).createFolderRecursive();
      for (int k = 0; k < filesPerFolder; ++k)
        h.file(s + u"/f" + fl::i18n::to_ustring(std::to_string(k)) + u".txt").createFile();
    }
    for (int k = 0; k < filesPerFolder; ++k)
      h.file(d + u"/f" + fl::i18n::to_ustring(std::to_string(k)) + u".txt").createFile();
  }
}

constexpr std::size_t totalFiles = folders * (subfolders + 1) * filesPerFolder + manyFiles;
constexpr std::size_t totalFolders = 1 + 2 + folders * (1 + subfolders); // root, empty, many, d<i>, s<j>

class ParallelWalk : public OnEveryProvider {
protected:
  void SetUp() override {
    OnEveryProvider::SetUp();
    buildTree(h);
  }
  vfs::Folder root() const { return h.folder(u"root"); }
};

} // namespace

TEST_P(ParallelWalk, VisitsEverythingOnceInCausalOrder) {
  for (int round = 0; round < repetitions; ++round) {
    RecordingVisitor visitor(root());
    ASSERT_EQ(vfs::walkFolderParallel(root(), visitor), FolderVisitResult::Continue);
    EXPECT_EQ(visitor.count("file"), totalFiles);
    EXPECT_EQ(visitor.count("before"), totalFolders);
    EXPECT_EQ(visitor.count("after"), totalFolders);
    testsupport::expectCausalOrder(visitor.calls());
    auto const sequence = visitor.sequence();
    EXPECT_EQ(sequence.front(), "before:");
    EXPECT_EQ(sequence.back(), "after:");
    if (HasFailure()) break;
  }
}

TEST_P(ParallelWalk, AnEmptyFolderIsEnteredAndLeft) {
  RecordingVisitor visitor(h.folder(u"root/empty"));
  EXPECT_EQ(vfs::walkFolderParallel(h.folder(u"root/empty"), visitor), FolderVisitResult::Continue);
  EXPECT_EQ(visitor.sequence(), (std::vector<std::string>{"before:", "after:"}));
}

TEST_P(ParallelWalk, CancelledFromTheStartCallsNothing) {
  RecordingVisitor visitor(root());
  EXPECT_EQ(vfs::walkFolderParallel(root(), visitor, [] { return true; }), FolderVisitResult::Stop);
  EXPECT_TRUE(visitor.calls().empty());
}

TEST_P(ParallelWalk, CancelledDuringTheWalkListsNoMoreAndLeavesOpenFoldersOpen) {
  auto const threads = static_cast<std::size_t>(tbb::this_task_arena::max_concurrency());
  for (int round = 0; round < repetitions; ++round) {
    std::atomic<std::size_t> files{0};
    struct Counting : RecordingVisitor {
      using RecordingVisitor::RecordingVisitor;
      std::atomic<std::size_t>* files = nullptr;
      FolderVisitResult visit(vfs::File const& file) override {
        ++*files;
        return RecordingVisitor::visit(file);
      }
    } counting(root());
    counting.files = &files;
    std::size_t const limit = 5;
    ASSERT_EQ(vfs::walkFolderParallel(root(), counting, [&] { return files.load() >= limit; }),
              FolderVisitResult::Stop);
    // Every task asks first; only those already past the question may still visit.
    EXPECT_LE(counting.count("file"), limit + threads);
    EXPECT_FALSE(counting.has("after", ""));
    testsupport::expectCausalOrder(counting.calls());
    if (HasFailure()) break;
  }
}

TEST_P(ParallelWalk, StopFromAFileKeepsSiblingsButNoAfterCallbacksAbove) {
  for (int round = 0; round < repetitions; ++round) {
    RecordingVisitor visitor(root());
    visitor.answer("file", "d1/s2/f3.txt", FolderVisitResult::Stop);
    ASSERT_EQ(vfs::walkFolderParallel(root(), visitor), FolderVisitResult::Stop);
    EXPECT_EQ(visitor.count("file"), totalFiles); // Stop does not stop siblings
    for (auto folder : {"d1/s2", "d1", ""}) EXPECT_FALSE(visitor.has("after", folder)) << folder;
    EXPECT_TRUE(visitor.has("after", "d1/s1"));
    EXPECT_TRUE(visitor.has("after", "d2"));
    if (HasFailure()) break;
  }
}

TEST_P(ParallelWalk, AnUnlistableSubfolderFailsTheWalkWithDefaultCallbacks) {
  h.faults->denyListing(h.at(u"root/d3/s1").toStorageIRI());
  for (int round = 0; round < repetitions; ++round) {
    RecordingVisitor visitor(root());
    EXPECT_VFS_ERROR(ErrorCode::PermissionDenied, vfs::walkFolderParallel(root(), visitor));
    EXPECT_TRUE(visitor.has("failed", "d3/s1"));
    EXPECT_FALSE(visitor.has("after", ""));
    if (HasFailure()) break;
  }

  // A failure callback that continues turns the failure into a skip.
  RecordingVisitor forgiving(root());
  forgiving.answerFailures(FolderVisitResult::Continue);
  EXPECT_EQ(vfs::walkFolderParallel(root(), forgiving), FolderVisitResult::Continue);
  EXPECT_FALSE(forgiving.has("after", "d3/s1"));
  EXPECT_TRUE(forgiving.has("after", ""));
  EXPECT_EQ(forgiving.count("file"), totalFiles - filesPerFolder);
}

TEST_P(ParallelWalk, AVanishedSubfolderGetsItsAfterCallbackAndTheWalkGoesOn) {
  h.faults->vanishAfterListing(h.at(u"root/d4/s0").toStorageIRI());
  RecordingVisitor visitor(root());
  EXPECT_EQ(vfs::walkFolderParallel(root(), visitor), FolderVisitResult::Continue);
  EXPECT_TRUE(visitor.has("after", "d4/s0"));
  EXPECT_FALSE(visitor.has("file", "d4/s0/f0.txt"));
  EXPECT_EQ(visitor.count("file"), totalFiles - filesPerFolder);
  EXPECT_TRUE(visitor.has("after", ""));
  testsupport::expectCausalOrder(visitor.calls());
}

TEST_P(ParallelWalk, AnEmptyPredicateIsAProgrammingError) {
  RecordingVisitor visitor(root());
  vfs::ParallelFolderWalker walker(visitor, std::function<bool()>());
  EXPECT_THROW(walker.walk(root()), std::bad_function_call);
  EXPECT_TRUE(visitor.calls().empty());
}

INSTANTIATE_TEST_SUITE_P(Providers, ParallelWalk, ::testing::Values("mem", "file"));
