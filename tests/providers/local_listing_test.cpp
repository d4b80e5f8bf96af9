// Tree listings are read as the cursor moves: folders larger than one read of the
// directory, folders entered mid-read, entries created after the listing began, and clones
// that carry on from the same place on their own.

#include "local_fixture.hpp"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

using namespace localtest;

namespace {

struct Listed {
  std::string name; ///< relative path, "/" after a folder
  std::uint64_t size = 0;
};

Listed listed(p::FolderEntry const& entry) {
  Listed out{conformance::toUtf8(entry.getName()) + (entry.isFile() ? "" : "/")};
  if (entry.getFileAttributes()) out.size = entry.getFileAttributes()->getSize();
  return out;
}

std::vector<Listed> drain(p::IFolderEntryIterator& cursor, std::size_t limit = SIZE_MAX) {
  std::vector<Listed> out;
  while (out.size() < limit && cursor.hasNext()) {
    cursor.next();
    out.push_back(listed(cursor.current()));
  }
  return out;
}

std::vector<std::string> namesOf(std::vector<Listed> const& entries) {
  std::vector<std::string> names;
  for (auto const& e : entries) names.push_back(e.name);
  return names;
}

} // namespace

class LocalTreeListingTest : public LocalProviderTest {
protected:
  /// "wide" holds more records than one read returns, with subfolders among them; "b/c/d"
  /// is a chain. Returns every path, "/" after folders.
  std::set<std::string> buildTree() {
    std::set<std::string> all;
    fs::create_directories(path("wide"));
    all.insert("wide/");
    for (int i = 0; i < 1200; ++i) {
      std::string const name = "wide/" + std::string(60, 'n') + std::to_string(i);
      writePath(path(name), std::string(static_cast<std::size_t>(i % 7), 'x'));
      all.insert(name);
      if (i % 300 == 0) {
        fs::create_directories(path(name + ".sub"));
        writePath(path(name + ".sub/inner"), "in");
        all.insert(name + ".sub/");
        all.insert(name + ".sub/inner");
      }
    }
    fs::create_directories(path("b/c/d"));
    all.insert({"b/", "b/c/", "b/c/d/"});
    return all;
  }
};

TEST_F(LocalTreeListingTest, ReadsTheTreeAsTheCursorMovesAFolderBeforeItsContents) {
  auto expected = buildTree();
  auto names = item(u"").listAllRecursiveNamesOnly(u"");
  auto entries = item(u"").listAllRecursive(u"");
  // Created after the listings began, in a folder they have not entered yet.
  writePath(path("b/c/d/late.txt"), "late");
  expected.insert("b/c/d/late.txt");

  auto const byName = drain(*names);
  auto const listedNames = namesOf(byName);
  EXPECT_EQ(std::set<std::string>(listedNames.begin(), listedNames.end()), expected);
  EXPECT_EQ(byName.size(), expected.size()) << "an entry listed twice";
  std::set<std::string> seen;
  for (auto const& e : byName) {
    auto const slash = e.name.find_last_of('/', e.name.size() - 2);
    if (slash != std::string::npos) {
      EXPECT_TRUE(seen.count(e.name.substr(0, slash + 1))) << e.name << " before its folder";
    }
    seen.insert(e.name);
  }

  auto const withAttributes = drain(*entries);
  EXPECT_EQ(withAttributes.size(), expected.size());
  for (auto const& e : withAttributes) {
    if (e.name.back() != '/') {
      EXPECT_EQ(e.size, fs::file_size(path(e.name))) << e.name;
    }
  }
}

TEST_F(LocalTreeListingTest, ClonesCarryOnFromTheSamePlaceWithoutDisturbingTheOriginal) {
  buildTree();
  // A tree listing, whose clones walk the tree again, and a flat listing of a folder larger
  // than one read, whose clones take over the batch the cursor read last.
  std::function<std::unique_ptr<p::IFolderEntryIterator>()> const listings[] = {
      [&] { return item(u"").listAllRecursiveNamesOnly(u""); },
      [&] { return item(u"wide").listAll(u""); },
  };
  for (auto const& list : listings) {
    auto whole = namesOf(drain(*list()));
    for (std::size_t at : {std::size_t{0}, std::size_t{1}, std::size_t{700}, whole.size() - 1, whole.size()}) {
      auto cursor = list();
      auto const before = drain(*cursor, at);
      auto clone = cursor->clone();
      if (at > 0) {
        EXPECT_EQ(listed(clone->current()).name, whole[at - 1]);
      }
      // Interleaved, so a shared descriptor or buffer would show.
      std::vector<std::string> fromOriginal, fromClone;
      while (cursor->hasNext() || clone->hasNext()) {
        for (auto* c : {cursor.get(), clone.get()}) {
          if (!c->hasNext()) continue;
          c->next();
          (c == cursor.get() ? fromOriginal : fromClone).push_back(listed(c->current()).name);
        }
      }
      EXPECT_EQ(fromOriginal, fromClone) << "cloned after " << at;
      auto rebuilt = namesOf(before);
      rebuilt.insert(rebuilt.end(), fromOriginal.begin(), fromOriginal.end());
      EXPECT_EQ(rebuilt, whole) << "cloned after " << at;
    }
  }
}
