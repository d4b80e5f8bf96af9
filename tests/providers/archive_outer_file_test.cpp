// The archive file seen from outside: other writers of it, copies that must not replace,
// names the archive could not give back, and central directories that point elsewhere.

#include "archive_fixture.hpp"

#include <foundation/storage/provider/exceptions.hpp>

using namespace archivetest;
using testsupport::readFile;
using testsupport::readLocal;
using testsupport::writeFile;
using testsupport::writeLocal;

namespace {

/// The error code of the provider failure `statement` throws.
template <class Statement>
p::ErrorCode codeOf(Statement statement) {
  try {
    statement();
  } catch (p::Exception const& failure) {
    return failure.getErrorCode();
  }
  ADD_FAILURE() << "no failure";
  return p::ErrorCode::Unknown;
}

} // namespace

class ArchiveOuterFile : public ArchiveTest {};

TEST_F(ArchiveOuterFile, ACommitNeverOverwritesWhatAnotherWriterPutThere) {
  // A new archive whose file another writer created meanwhile.
  item(u"zip:mem:///n.zip!/").createFolder();
  writeFile(item(u"zip:mem:///n.zip!/ours.txt"), "ours");
  writeFile(item(u"mem:///n.zip"), "theirs");
  EXPECT_EQ(codeOf([&] { commit(); }), p::ErrorCode::ResourceInUse);
  EXPECT_EQ(readFile(item(u"mem:///n.zip")), "theirs");
  dynamic_cast<p::extensions::IInvalidatable&>(*item(u"zip:mem:///n.zip!/").getProvider())
      .invalidate(p::StorageIRI(u"zip:mem:///n.zip!/"));

  // An archive rewritten by another writer since it was read.
  item(u"zip:mem:///t.zip!/").createFolder();
  writeFile(item(u"zip:mem:///t.zip!/a.txt"), "a");
  commit();
  std::string const theirs = readFile(item(u"mem:///t.zip")) + "trailing bytes of another writer";
  writeFile(item(u"zip:mem:///t.zip!/b.txt"), "b");
  writeFile(item(u"mem:///t.zip"), theirs);
  EXPECT_EQ(codeOf([&] { commit(); }), p::ErrorCode::ResourceInUse);
  EXPECT_EQ(readFile(item(u"mem:///t.zip")), theirs);
}

TEST_F(ArchiveOuterFile, ACopyThatMustNotReplaceLeavesTheEntryAsItWas) {
  item(u"zip:mem:///c.zip!/").createFolder();
  writeFile(item(u"zip:mem:///c.zip!/kept.txt"), "kept");
  writeFile(item(u"mem:///source.txt"), "incoming");
  auto const target = item(u"zip:mem:///c.zip!/kept.txt");
  EXPECT_EQ(codeOf([&] { item(u"mem:///source.txt").copyFile(target, {}); }), p::ErrorCode::ResourceAlreadyExists);
  EXPECT_EQ(readFile(target), "kept");
  item(u"mem:///source.txt").copyFile(item(u"zip:mem:///c.zip!/new.txt"), {});
  commit();
  EXPECT_EQ(readFile(item(u"zip:mem:///c.zip!/new.txt")), "incoming");
  EXPECT_EQ(readFile(target), "kept");
}

TEST_F(ArchiveOuterFile, NamesTheArchiveCouldNotGiveBackAreRefused) {
  item(u"zip:mem:///names.zip!/").createFolder();
  std::u16string const backslash = u"zip:mem:///names.zip!/a%5Cb.txt";
  EXPECT_EQ(codeOf([&] { item(backslash).createFile(); }), p::ErrorCode::InvalidLocation);
  EXPECT_EQ(codeOf([&] { item(backslash).createFolder(); }), p::ErrorCode::InvalidLocation);
  EXPECT_EQ(codeOf([&] { writeFile(item(backslash), "x"); }), p::ErrorCode::InvalidLocation);
  std::u16string const longName = u"zip:mem:///names.zip!/" + std::u16string(70000, u'n');
  EXPECT_EQ(codeOf([&] { item(longName).createFile(); }), p::ErrorCode::InvalidLocation);
  writeFile(item(u"zip:mem:///names.zip!/Case.txt"), "upper");
  writeFile(item(u"zip:mem:///names.zip!/case.txt"), "lower");
  commit();
  dynamic_cast<p::extensions::IInvalidatable&>(*item(u"zip:mem:///names.zip!/").getProvider())
      .invalidate(p::StorageIRI(u"zip:mem:///names.zip!/"));
  EXPECT_EQ(tree(item(u"zip:mem:///names.zip!/")), (std::vector<std::string>{"Case.txt", "case.txt"}));
}

TEST_F(ArchiveOuterFile, ACentralDirectoryPointingOutsideTheFileIsAClearError) {
  writeLocal(path("src/a.txt"), "a");
  testsupport::run("cd " + testsupport::quoted(path("src")) + " && zip -q ../bad.zip a.txt");
  std::string bytes = readLocal(path("bad.zip"));
  auto const end = bytes.rfind("PK\x05\x06");
  ASSERT_NE(end, std::string::npos);
  bytes.replace(end + 16, 4, "\xff\xff\xff\x0f"); // the central directory's offset
  writeLocal(path("bad.zip"), bytes);
  EXPECT_EQ(codeOf([&] { item(u"zip:" + local("bad.zip") + u"!/").folderExists(); }), p::ErrorCode::IOError);
}
