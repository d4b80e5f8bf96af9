// Trees deeper than any stack or descriptor budget: listed and removed whole, or refused
// with an error, never a crash and never a shortened answer.

#include "local_fixture.hpp"

#include <string>

#include <sys/resource.h>
#include <sys/stat.h>

using namespace localtest;
using Code = p::ErrorCode;

namespace {

/// Builds `depth` nested folders "d/d/…" below `root`, with the file "leaf" in the deepest
/// (paths this long exceed PATH_MAX, so the chain is built relative to each level).
void buildChain(fs::path const& root, int depth) {
  fs::create_directories(root);
  int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  for (int level = 0; level < depth; ++level) {
    ASSERT_EQ(::mkdirat(fd, "d", 0755), 0) << "at level " << level;
    int next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::close(fd);
    ASSERT_GE(next, 0);
    fd = next;
  }
  int leaf = ::openat(fd, "leaf", O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  ::close(leaf);
  ::close(fd);
}

/// Lowers the soft limit of open descriptors to what is open now plus `spare`, until destroyed.
class DescriptorBudget {
public:
  explicit DescriptorBudget(std::size_t spare) {
    ::getrlimit(RLIMIT_NOFILE, &saved_);
    rlimit lowered = saved_;
    lowered.rlim_cur = static_cast<rlim_t>(openDescriptors() + spare);
    ::setrlimit(RLIMIT_NOFILE, &lowered);
  }
  ~DescriptorBudget() { ::setrlimit(RLIMIT_NOFILE, &saved_); }
  DescriptorBudget(DescriptorBudget const&) = delete;
  DescriptorBudget& operator=(DescriptorBudget const&) = delete;

private:
  rlimit saved_{};
};

std::size_t count(std::unique_ptr<p::IFolderEntryIterator> cursor) {
  std::size_t n = 0;
  for (; cursor->hasNext(); ++n) cursor->next();
  return n;
}

} // namespace

TEST_F(LocalProviderTest, ListsAndRemovesTreesDeeperThanTheStackCouldRecurse) {
  constexpr int depth = 20000;
  buildChain(root_ / "deep", depth);
  // The pattern keeps the answer small; the walk still enters every level.
  auto leaves = item(u"deep").listAllRecursiveNamesOnly(u"leaf");
  ASSERT_TRUE(leaves->hasNext());
  leaves->next();
  EXPECT_EQ(leaves->current().getName().size(), 2u * depth + 4); // "d/" per level, then "leaf"
  EXPECT_FALSE(leaves->hasNext());
  item(u"deep").removeFolderRecursively();
  EXPECT_FALSE(fs::exists(path("deep")));
}

TEST_F(LocalProviderTest, RunningOutOfDescriptorsIsAnErrorNeverAShorterListing) {
  constexpr int depth = 300;
  buildChain(root_ / "tree", depth);
  std::size_t const everything = depth + 1; // the folders and the leaf
  {
    DescriptorBudget budget(40); // enough for a bounded walk, far from one per level
    EXPECT_EQ(count(item(u"tree").listAllRecursiveNamesOnly(u"")), everything);
    EXPECT_EQ(count(item(u"tree").listAllRecursive(u"")), everything);
  }
#ifndef __SANITIZE_ADDRESS__
  // Sanitizer runtimes open a pipe of their own to check memory while an exception is built;
  // with every descriptor taken they report the check itself, so only plain builds exhaust them.
  {
    DescriptorBudget budget(3);
    EXPECT_PROVIDER_ERROR(Code::Unknown, count(item(u"tree").listAllRecursiveNamesOnly(u"")));
    EXPECT_PROVIDER_ERROR(Code::Unknown, item(u"tree").removeFolderRecursively());
  }
#endif
  EXPECT_TRUE(fs::exists(path("tree")));
  {
    DescriptorBudget budget(40);
    item(u"tree").removeFolderRecursively();
  }
  EXPECT_FALSE(fs::exists(path("tree")));
}
