// Real tools from Debian on the other side: archives made by zip, tar and bsdtar are read
// by our providers, and zips we write pass unzip and bsdtar.

#include "archive_fixture.hpp"

using namespace archivetest;
using testsupport::quoted;
using testsupport::readFile;
using testsupport::run;
using testsupport::writeLocal;
using Strings = std::vector<std::string>;

namespace {

std::string const longName = std::string(150, 'n') + ".txt"; // needs an extension header in tar
std::string const big = [] {
  std::string bytes;
  for (int i = 0; i < 200000; ++i) bytes += std::to_string(i) + ",";
  return bytes;
}();

/// A small tree with Unicode names, an empty folder, a long name and a large file.
void makeTree(std::filesystem::path const& root) {
  writeLocal(root / "Grüße" / "日本語.txt", "unicode");
  writeLocal(root / "big.txt", big);
  writeLocal(root / "small.txt", "small");
  writeLocal(root / longName, "long");
  std::filesystem::create_directories(root / "empty");
}

Strings const treeNames = [] {
  Strings names{"big.txt", "empty/", "Grüße/", "Grüße/日本語.txt", longName, "small.txt"};
  std::sort(names.begin(), names.end());
  return names;
}();

/// Reads ten bytes at `offset` after seeking there.
std::string tenAt(p::StorageItem const& file, std::streamoff offset) {
  auto stream = file.openReadOnlyStream();
  stream->seek(offset, std::ios_base::beg);
  char bytes[10];
  return std::string(bytes, static_cast<std::size_t>(stream->read(bytes, 10)));
}

} // namespace

class ArchiveInterop : public ArchiveTest {};

TEST_F(ArchiveInterop, ReadsZipsOfTheZipToolWithStoredAndDeflatedEntries) {
  makeTree(path("tree"));
  writeLocal(path("tree/stored.txt"), big);
  run("cd " + quoted(path("tree")) + " && zip -qr ../t.zip . -x stored.txt && zip -q0 ../t.zip stored.txt");
  std::u16string const root = u"zip:" + local("t.zip") + u"!/";
  Strings expected = treeNames;
  expected.push_back("stored.txt");
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(tree(item(root)), expected);
  EXPECT_EQ(readFile(item(root + u"Grüße/日本語.txt")), "unicode");
  EXPECT_TRUE(item(root + u"empty").folderExists());
  for (auto name : {u"big.txt", u"stored.txt"}) {
    EXPECT_EQ(readFile(item(root + name)), big);
    EXPECT_EQ(item(root + name).getFileAttributes().getSize(), big.size());
    EXPECT_EQ(tenAt(item(root + name), 100000), big.substr(100000, 10)); // forward, then back below
    auto stream = item(root + name).openReadOnlyStream();
    char byte;
    stream->seek(500000, std::ios_base::beg);
    stream->read(&byte, 1);
    stream->seek(7, std::ios_base::beg);
    stream->read(&byte, 1);
    EXPECT_EQ(byte, big[7]);
  }
}

TEST_F(ArchiveInterop, ReadsSeventyThousandEntriesOfAZip64Archive) {
  for (int folder = 0; folder < 70; ++folder) {
    auto const dir = path("many") / std::to_string(folder);
    std::filesystem::create_directories(dir);
    for (int file = 0; file < 1000; ++file) std::ofstream(dir / std::to_string(file));
  }
  run("cd " + quoted(path("many")) + " && zip -qr ../many.zip .");
  auto root = item(u"zip:" + local("many.zip") + u"!/");
  std::size_t files = 0;
  for (auto cursor = root.listAllRecursive(u""); cursor->hasNext();) {
    cursor->next();
    files += cursor->current().isFile();
  }
  EXPECT_EQ(files, 70000u);
  EXPECT_TRUE(item(u"zip:" + local("many.zip") + u"!/69/999").fileExists());
}

TEST_F(ArchiveInterop, ReadsTarsOfEveryCompressionFromTarAndBsdtar) {
  makeTree(path("tree"));
  std::vector<std::string> const makers{"tar -cf",
                                        "tar -czf",
                                        "tar -cjf",
                                        "tar -cJf",
                                        "tar --zstd -cf",
                                        "bsdtar -cf",
                                        "bsdtar --zstd -cf",
                                        "bsdtar --format ustar -cf",
                                        "bsdtar --format pax -cjf"};
  int n = 0;
  for (auto const& maker : makers) {
    SCOPED_TRACE(maker);
    std::string const name = "t" + std::to_string(n++) + ".tar";
    bool const ustar = maker.find("ustar") != std::string::npos; // ustar cannot hold the long name
    run("cd " + quoted(path("tree")) + " && " + maker + " ../" + name + " " +
        (ustar ? "Grüße big.txt small.txt empty" : "."));
    std::u16string const root = u"tar:" + local(name) + u"!/";
    Strings expected = treeNames;
    if (ustar) expected.erase(std::find(expected.begin(), expected.end(), longName));
    EXPECT_EQ(tree(item(root)), expected);
    EXPECT_EQ(readFile(item(root + u"Grüße/日本語.txt")), "unicode");
    EXPECT_EQ(readFile(item(root + u"big.txt")), big);
    EXPECT_EQ(tenAt(item(root + u"big.txt"), 654321), big.substr(654321, 10));
    if (!ustar) {
      EXPECT_EQ(readFile(item(root + fl::i18n::to_ustring(longName))), "long");
    }
    EXPECT_TRUE(item(root + u"empty").folderExists());
    EXPECT_FALSE(item(root + u"small.txt").getFileAttributes().getLastModified().is_special());
  }
}

TEST_F(ArchiveInterop, ZipsWeWritePassUnzipAndBsdtarAndKeepUnchangedEntriesOnRewrite) {
  std::u16string const root = u"zip:" + local("ours.zip") + u"!/";
  item(root).createFolder(); // a new, empty archive
  item(root + u"Grüße").createFolder();
  item(root + u"empty").createFolder();
  testsupport::writeFile(item(root + u"Grüße/日本語.txt"), "unicode");
  testsupport::writeFile(item(root + u"big.txt"), big);
  testsupport::writeFile(item(root + u"small.txt"), "small");
  testsupport::writeFile(item(root + fl::i18n::to_ustring(longName)), "long");
  item(root + u"small.txt").setWritable(false);
  EXPECT_FALSE(std::filesystem::exists(path("ours.zip"))); // nothing before the commit
  commit();

  std::string const zip = quoted(path("ours.zip"));
  EXPECT_NO_THROW(run("unzip -tq " + zip));
  Strings const expected{"Grüße/", "Grüße/日本語.txt", "big.txt", "empty/", longName, "small.txt"};
  EXPECT_EQ(sortedLines(run("unzip -Z1 " + zip)), expected);
  EXPECT_EQ(sortedLines(run("bsdtar -tf " + zip)), expected);
  EXPECT_EQ(run("unzip -p " + zip + " big.txt"), big);
  EXPECT_NE(run("unzip -Z " + zip + " small.txt").find("r--"), std::string::npos); // read-only kept

  // A second change set: unchanged entries are carried over as they were.
  item(root + u"big.txt").moveFile(item(root + u"empty/moved.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  item(root + u"small.txt").setWritable(true);
  item(root + u"small.txt").removeFile();
  commit();
  EXPECT_NO_THROW(run("unzip -tq " + zip));
  EXPECT_EQ(sortedLines(run("unzip -Z1 " + zip)),
            (Strings{"Grüße/", "Grüße/日本語.txt", "empty/", "empty/moved.txt", longName}));
  EXPECT_EQ(run("unzip -p " + zip + " empty/moved.txt"), big);
  EXPECT_EQ(readFile(item(root + u"Grüße/日本語.txt")), "unicode");
}
