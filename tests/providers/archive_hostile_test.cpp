// Crafted hostile archives: names that climb out or are absolute, backslashes, duplicates,
// links pointing outside, sizes that lie, truncated files. Each gives a clear error or a
// skipped entry, and nothing lands outside the archive's root.

#include "archive_fixture.hpp"

#include <foundation/storage/provider/exceptions.hpp>

using namespace archivetest;
using testsupport::quoted;
using testsupport::readFile;
using testsupport::readLocal;
using testsupport::run;
using testsupport::writeLocal;
using Strings = std::vector<std::string>;

namespace {

/// Replaces every `from` in the file with `to` (of the same length).
void patch(std::filesystem::path const& file, std::string const& from, std::string const& to) {
  std::string bytes = readLocal(file);
  for (auto at = bytes.find(from); at != std::string::npos; at = bytes.find(from, at + to.size()))
    bytes.replace(at, from.size(), to);
  writeLocal(file, bytes);
}

std::string littleEndian32(std::uint32_t value) {
  return {static_cast<char>(value), static_cast<char>(value >> 8), static_cast<char>(value >> 16),
          static_cast<char>(value >> 24)};
}

void truncate(std::filesystem::path const& file, std::size_t keep) {
  writeLocal(file, readLocal(file).substr(0, keep));
}

/// The message of the provider failure `statement` throws, checking its code.
template <class Statement>
std::string failureOf(p::ErrorCode code, Statement statement) {
  try {
    statement();
  } catch (p::Exception const& failure) {
    EXPECT_EQ(failure.getErrorCode(), code) << failure.what();
    return failure.what();
  }
  ADD_FAILURE() << "no failure";
  return {};
}

} // namespace

class HostileArchives : public ArchiveTest {
protected:
  /// Copies every file of the archive folder to a local folder, as an extraction would.
  void extract(std::u16string const& root, std::filesystem::path const& to) {
    std::filesystem::create_directories(to);
    for (auto cursor = item(root).listAllRecursiveNamesOnly(u""); cursor->hasNext();) {
      cursor->next();
      auto const name = cursor->current().getName();
      auto target = item(u"file://" + fl::i18n::to_ustring(to.string()) + u"/" + name);
      if (cursor->current().isFile() && item(root + name).getFileAttributes().isSymlink())
        continue; // a link holds no data and is never followed
      if (cursor->current().isFile())
        item(root + name).copyFile(target, {});
      else
        target.createFolderRecursive();
    }
  }
};

TEST_F(HostileArchives, ZipNamesOutsideTheRootAreSkippedAndLinksNeverFollowed) {
  writeLocal(path("src/XX/evil.txt"), "evil");
  writeLocal(path("src/Xabs.txt"), "absolute");
  writeLocal(path("src/aXb.txt"), "backslash");
  writeLocal(path("src/dup.txt"), "first");
  writeLocal(path("src/dux.txt"), "second");
  writeLocal(path("src/good.txt"), "good");
  std::filesystem::create_symlink("/etc/passwd", path("src/link"));
  run("cd " + quoted(path("src")) + " && zip -qy ../h.zip XX/evil.txt Xabs.txt aXb.txt dup.txt dux.txt good.txt link");
  patch(path("h.zip"), "XX/evil.txt", "../evil.txt");
  patch(path("h.zip"), "Xabs.txt", "/abs.txt");
  patch(path("h.zip"), "aXb.txt", "a\\b.txt");
  patch(path("h.zip"), "dux.txt", "dup.txt");

  std::u16string const root = u"zip:" + local("h.zip") + u"!/";
  EXPECT_EQ(tree(item(root)), (Strings{"dup.txt", "good.txt", "link"}));
  EXPECT_EQ(readFile(item(root + u"dup.txt")), "first"); // the first of two wins
  EXPECT_EQ(item(root).getExtendedAttributes().get<int>("zip.skippedCount"), 4);
  EXPECT_NE(failureOf(p::ErrorCode::ResourceNotFound, [&] { readFile(item(root + u"abs.txt")); }).find("absolute"),
            std::string::npos);
  EXPECT_EQ(item(root + u"../evil.txt").exists(), p::ExistsResult::NotFound); // dot segments stay inside

  auto const link = item(root + u"link");
  EXPECT_EQ(link.existsExtended(), p::ExtendedExistsResult::BrokenSymlink); // nothing there inside the archive
  EXPECT_TRUE(link.getFileAttributes().isSymlink());
  EXPECT_EQ(link.getExtendedAttributes().get<std::string>("zip.linkTarget"), "/etc/passwd");
  EXPECT_NE(failureOf(p::ErrorCode::InvalidLocation, [&] { readFile(link); }).find("not followed"), std::string::npos);

  extract(root, path("out/inside"));
  EXPECT_FALSE(std::filesystem::exists(path("out/evil.txt")));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("out")), {}), 1);
  EXPECT_FALSE(std::filesystem::is_symlink(path("out/inside/link")));
}

TEST_F(HostileArchives, TarNamesOutsideTheRootAreSkippedAndLinksNeverFollowed) {
  writeLocal(path("src/x.txt"), "x");
  writeLocal(path("src/dup.txt"), "first");
  std::filesystem::create_symlink("/etc/passwd", path("src/link"));
  std::string const tar = quoted(path("h.tar"));
  run("cd " + quoted(path("src")) + " && bsdtar -cPf " + tar + " -s ',^x,../x,' x.txt dup.txt link" +
      " && bsdtar -rPf " + tar + " -s ',^x,/abs/x,' x.txt");
  writeLocal(path("src/dup.txt"), "second");
  run("cd " + quoted(path("src")) + " && bsdtar -rf " + tar + " dup.txt");

  std::u16string const root = u"tar:" + local("h.tar") + u"!/";
  EXPECT_EQ(tree(item(root)), (Strings{"dup.txt", "link"}));
  EXPECT_EQ(readFile(item(root + u"dup.txt")), "second"); // the last copy, as tar extracts them
  EXPECT_TRUE(item(root + u"link").getFileAttributes().isSymlink());
  EXPECT_EQ(item(root + u"link").existsExtended(), p::ExtendedExistsResult::BrokenSymlink);
  EXPECT_THROW(readFile(item(root + u"link")), p::Exception);
  EXPECT_EQ(item(root).getExtendedAttributes().get<int>("tar.skippedCount"), 3);
  extract(root, path("out/inside"));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(path("out")), {}), 1);
}

TEST_F(HostileArchives, AnEntryLargerThanItDeclaresFailsItsReadWithoutExpanding) {
  writeLocal(path("src/bomb.bin"), std::string(10 << 20, '\0'));
  run("cd " + quoted(path("src")) + " && zip -q ../bomb.zip bomb.bin");
  patch(path("bomb.zip"), littleEndian32(10 << 20), littleEndian32(1000));
  auto const bomb = item(u"zip:" + local("bomb.zip") + u"!/bomb.bin");
  EXPECT_EQ(bomb.getFileAttributes().getSize(), 1000u);
  EXPECT_THROW(readFile(bomb), p::ByteStreamReadFailure);
  // Editing it in place reads it first, and fails the same way.
  EXPECT_THROW(bomb.truncateToSize(10), p::Exception);
}

TEST_F(HostileArchives, TruncatedArchivesGiveClearErrors) {
  writeLocal(path("src/big.txt"), std::string(100000, 'b'));
  writeLocal(path("src/after.txt"), "after");
  run("cd " + quoted(path("src")) + " && zip -q ../t.zip big.txt after.txt && tar -cf ../t.tar big.txt after.txt" +
      " && tar -czf ../t.tgz big.txt after.txt");
  truncate(path("t.zip"), readLocal(path("t.zip")).size() - 30);
  truncate(path("t.tar"), 50000);
  truncate(path("t.tgz"), readLocal(path("t.tgz")).size() / 2);
  for (auto const& root : {u"zip:" + local("t.zip") + u"!/", u"tar:" + local("t.tgz") + u"!/"}) {
    SCOPED_TRACE(fl::i18n::to_utf8(root));
    auto message = failureOf(p::ErrorCode::IOError, [&] { item(root).listAll(u""); });
    EXPECT_TRUE(message.find("truncated") != std::string::npos || message.find("not a readable") != std::string::npos)
        << message;
  }
  // A tar is read front to back: what comes before the damage lists (as bsdtar lists it),
  // the damage is noted, and reading into it fails.
  std::u16string const root = u"tar:" + local("t.tar") + u"!/";
  EXPECT_EQ(tree(item(root)), Strings{"big.txt"});
  auto const skipped = item(root).getExtendedAttributes().get_child("tar.skipped");
  ASSERT_EQ(skipped.size(), 1u);
  EXPECT_EQ(skipped.front().second.get<std::string>("reason").find("the archive is damaged"), 0u);
  try {
    readFile(item(root + u"big.txt"));
    ADD_FAILURE() << "read past the end";
  } catch (p::ByteStreamReadFailure const& failure) {
    EXPECT_EQ(failure.getErrorCode(), p::ErrorCode::IOError);
  }
}

TEST_F(HostileArchives, ADamagedHeaderIsPassedOverWithANoteAndWhatCameBeforeStaysReadable) {
  for (auto const* name : {"one.txt", "two.txt", "three.txt"}) writeLocal(path("src") / name, name);
  run("cd " + quoted(path("src")) + " && tar -cf ../d.tar one.txt two.txt three.txt");
  std::string bytes = readLocal(path("d.tar"));
  bytes.replace(bytes.find("three.txt") + 148, 8, std::string("9999999\0", 8)); // the header's checksum
  writeLocal(path("d.tar"), bytes);
  std::u16string const root = u"tar:" + local("d.tar") + u"!/";
  EXPECT_EQ(tree(item(root)), (Strings{"one.txt", "two.txt"}));
  EXPECT_EQ(readFile(item(root + u"two.txt")), "two.txt");
  auto const skipped = item(root).getExtendedAttributes().get_child("tar.skipped");
  ASSERT_EQ(skipped.size(), 1u);
  EXPECT_NE(skipped.front().second.get<std::string>("reason").find("Damaged tar archive"), std::string::npos);
}

TEST_F(HostileArchives, DeepChainsOfFoldersAreWrittenReadAndDroppedWithoutDeepRecursion) {
  std::u16string deep = u"zip:mem:///deep.zip!/";
  for (int level = 0; level < 1000; ++level) deep += u"d/";
  item(deep).createFolderRecursive();
  testsupport::writeFile(item(deep + u"x.txt"), "bottom");
  commit();
  auto provider = item(deep).getProvider();
  dynamic_cast<p::extensions::IInvalidatable&>(*provider).invalidate(p::StorageIRI(deep));
  EXPECT_EQ(tree(item(u"zip:mem:///deep.zip!/")).size(), 1001u);
  EXPECT_EQ(readFile(item(deep + u"x.txt")), "bottom");
}
