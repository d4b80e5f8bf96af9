// Rewriting a zip made by other tools: every entry the change set leaves alone comes out
// byte for byte as it was, the ones the reader skips included; changed entries keep what
// the change did not touch.

#include "../support/odd_zip.hpp"
#include "archive_fixture.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>

#include <set>

using namespace archivetest;
using testsupport::quoted;
using testsupport::rawZipEntries;
using testsupport::readLocal;
using testsupport::run;
using testsupport::zipinfoBlocks;

namespace {

using Key = std::pair<std::string, int>;

/// The entries of `before` that the change set did not name, with what `after` holds for them.
template <class Map>
void expectUntouchedKept(Map const& before, Map const& after, std::set<std::string> const& changed) {
  for (auto const& [key, value] : before) {
    if (changed.count(key.first)) continue;
    auto const kept = after.find(key);
    if (kept == after.end()) {
      ADD_FAILURE() << "lost: \"" << key.first << "\" #" << key.second;
      continue;
    }
    EXPECT_EQ(kept->second, value) << "changed: \"" << key.first << "\" #" << key.second;
  }
}

} // namespace

class ArchiveRewrite : public ArchiveTest {};

TEST_F(ArchiveRewrite, EntriesTheChangeSetLeavesAloneAreCopiedByteForByte) {
  testsupport::makeOddZip(path("odd.zip"));
  std::string const original = readLocal(path("odd.zip"));
  auto const rawBefore = rawZipEntries(original);
  auto const infoBefore = zipinfoBlocks(path("odd.zip"));
  ASSERT_EQ(rawBefore.size(), 15u);
  ASSERT_EQ(infoBefore.size(), 15u);

  std::u16string const root = u"zip:" + local("odd.zip") + u"!/";
  testsupport::writeFile(item(root + u"new.txt"), "new\n");
  item(root + u"gone.txt").removeFile();
  item(root + u"made").createFolder();
  item(root + u"renamed.txt")
      .moveFile(item(root + u"made/renamed.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  auto const retimed =
      boost::posix_time::ptime(boost::gregorian::date(2001, 2, 3), boost::posix_time::time_duration(4, 5, 6));
  item(root + u"retimed.txt").setLastModified(retimed);
  item(root + u"plain.txt").setWritable(false);
  commit();

  std::string const rewritten = readLocal(path("odd.zip"));
  auto const rawAfter = rawZipEntries(rewritten);
  std::set<std::string> const changed{"gone.txt", "renamed.txt", "retimed.txt", "plain.txt"};
  expectUntouchedKept(rawBefore, rawAfter, changed);
  expectUntouchedKept(infoBefore, zipinfoBlocks(path("odd.zip")), changed);
  EXPECT_EQ(rewritten.substr(rewritten.size() - 15), "archive comment");

  // The changes themselves.
  EXPECT_EQ(rawAfter.count({"gone.txt", 0}), 0u);
  EXPECT_EQ(run("unzip -p " + quoted(path("odd.zip")) + " new.txt"), "new\n");
  EXPECT_EQ(rawAfter.count({"made/", 0}), 1u);
  // Moved: the same data and extra fields under the new name.
  auto const& moved = rawAfter.at({"made/renamed.txt", 0});
  auto const& source = rawBefore.at({"renamed.txt", 0});
  EXPECT_EQ(moved.local.substr(30 + 16), source.local.substr(30 + 11));
  EXPECT_EQ(run("unzip -p " + quoted(path("odd.zip")) + " made/renamed.txt"), [] {
    std::string text;
    for (int i = 0; i < 50; ++i) text += "renamed\n";
    return text;
  }());
  // Retimed: the extended timestamp says the new time too; the uid/gid field stays.
  std::string const info = run("zipinfo -v " + quoted(path("odd.zip")) + " retimed.txt");
  EXPECT_NE(info.find("2001 Feb 3 04:05:06 UTC"), std::string::npos) << info;
  EXPECT_NE(info.find("0x7875"), std::string::npos) << info;

  // Made read-only: only the permission bits change (0640 to 0440).
  auto plainBefore = rawBefore.at({"plain.txt", 0}), plainAfter = rawAfter.at({"plain.txt", 0});
  EXPECT_EQ(plainAfter.local, plainBefore.local);
  EXPECT_EQ(plainAfter.central.substr(40, 2), std::string("\x20\x81", 2)); // 0100440
  plainAfter.central.replace(38, 4, plainBefore.central.substr(38, 4));
  EXPECT_EQ(plainAfter.central, plainBefore.central);

  // Read back, the archive shows the entries as before, with the changes.
  system_ = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  EXPECT_EQ(testsupport::readFile(item(root + u"dup.txt")), "first\n");
  EXPECT_EQ(testsupport::readFile(item(root + u"made/renamed.txt")).size(), 400u);
  EXPECT_EQ(item(root + u"retimed.txt").getFileAttributes().getLastModified(), retimed);
}

TEST_F(ArchiveRewrite, RemovingAFileRemovesTheNamesakesTheReaderSkipped) {
  // "dup.txt" is there twice and only the first is read; once removed, the name must be
  // gone, not show the second copy in its place (as zip -d removes every namesake).
  testsupport::makeOddZip(path("odd.zip"));
  auto const rawBefore = rawZipEntries(readLocal(path("odd.zip")));
  std::u16string const root = u"zip:" + local("odd.zip") + u"!/";
  item(root + u"dup.txt").removeFile();
  commit();

  auto const rawAfter = rawZipEntries(readLocal(path("odd.zip")));
  EXPECT_EQ(rawAfter.count({"dup.txt", 0}), 0u);
  EXPECT_EQ(rawAfter.count({"dup.txt", 1}), 0u);
  expectUntouchedKept(rawBefore, rawAfter, {"dup.txt"});
  system_ = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  EXPECT_EQ(item(root + u"dup.txt").exists(), p::ExistsResult::NotFound);

  // The same for a folder removed with its contents; a file removed keeps what was skipped
  // below its name, which it did not hold.
  run("python3 - " + quoted(path("folder.zip")) + R"( <<'EOF'
import sys, warnings, zipfile
warnings.simplefilter('ignore')
with zipfile.ZipFile(sys.argv[1], 'w') as z:
    for name, data in [('f/', ''), ('f/x', 'first'), ('f/x', 'second'), ('a', 'file'), ('a/b', 'below')]:
        z.writestr(name, data)
EOF
)");
  std::u16string const folderRoot = u"zip:" + local("folder.zip") + u"!/";
  item(folderRoot + u"f").removeFolderRecursively();
  item(folderRoot + u"a").removeFile();
  commit();
  EXPECT_EQ(run("zipinfo -1 " + quoted(path("folder.zip"))), "a/b\n");
}

TEST_F(ArchiveRewrite, BytesBeforeTheFirstEntryAreKept) {
  // A self-extracting archive: a program, then the entries, whose offsets count from the
  // start of the file.
  run("python3 - " + quoted(path("sfx.zip")) + R"( <<'EOF'
import sys, zipfile
with open(sys.argv[1], 'wb') as f:
    f.write(b'#!/bin/sh\necho a program before the entries\n' * 100)
    with zipfile.ZipFile(f, 'w') as z:
        z.writestr('old.txt', 'old\n')
EOF
)");
  std::string const original = readLocal(path("sfx.zip"));
  std::u16string const root = u"zip:" + local("sfx.zip") + u"!/";
  testsupport::writeFile(item(root + u"new.txt"), "new\n");
  commit();

  std::string const rewritten = readLocal(path("sfx.zip"));
  std::size_t const program = original.find("PK\3\4");
  ASSERT_EQ(program, 4400u);
  EXPECT_EQ(rewritten.compare(0, program, original, 0, program), 0);
  EXPECT_NE(run("unzip -t " + quoted(path("sfx.zip")) + " 2>&1").find("No errors detected"), std::string::npos);
  EXPECT_EQ(run("unzip -p " + quoted(path("sfx.zip")) + " old.txt"), "old\n");
  EXPECT_EQ(run("unzip -p " + quoted(path("sfx.zip")) + " new.txt"), "new\n");
}
