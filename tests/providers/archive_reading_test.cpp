// Reading archives as the standard tools read them: links shown as links in both formats,
// failures to read an entry with their class, and compressed tars read in one pass by a walk.

#include "archive_fixture.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/providers/archive/archive_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/call_counting_provider.hpp>

using namespace archivetest;
using testsupport::quoted;
using testsupport::readFile;
using testsupport::readLocal;
using testsupport::run;
using testsupport::writeLocal;

namespace {

using foundation::storage::providers::archive::TarProvider;
using foundation::storage::providers::memory::MemoryProvider;
using foundation::storage::providers::wrappers::CallCountingProvider;

/// The code of the read failure `statement` throws, and its message.
template <class Statement>
std::pair<p::ErrorCode, std::string> readFailureOf(Statement statement) {
  try {
    statement();
  } catch (p::ByteStreamFailure const& failure) {
    return {failure.getErrorCode(), failure.what()};
  } catch (p::Exception const& failure) {
    return {failure.getErrorCode(), failure.what()};
  }
  ADD_FAILURE() << "no failure";
  return {p::ErrorCode::Unknown, ""};
}

} // namespace

class ArchiveReading : public ArchiveTest {};

TEST_F(ArchiveReading, LinksAreLinksInBothFormatsWithTheirTargetAndNoData) {
  writeLocal(path("src/dir/file.txt"), "file");
  std::filesystem::create_symlink("dir/file.txt", path("src/to-file"));
  std::filesystem::create_symlink("dir", path("src/to-folder"));
  std::filesystem::create_symlink("../outside", path("src/out"));
  std::filesystem::create_symlink("/etc/passwd", path("src/absolute"));
  std::filesystem::create_symlink("loop", path("src/loop"));
  std::string const names = " dir to-file to-folder out absolute loop";
  run("cd " + quoted(path("src")) + " && zip -qry ../l.zip" + names + " && tar -cf ../l.tar" + names);
  for (std::string const scheme : {"zip", "tar"}) {
    SCOPED_TRACE(scheme);
    std::u16string const root = fl::i18n::to_ustring(scheme) + u":" + local("l." + scheme) + u"!/";
    auto const link = item(root + u"to-file");
    EXPECT_EQ(link.exists(), p::ExistsResult::File);
    EXPECT_TRUE(link.getFileAttributes().isSymlink());
    EXPECT_EQ(link.getFileAttributes().getSize(), std::string("dir/file.txt").size()); // as lstat gives it
    EXPECT_EQ(link.getExtendedAttributes().get<std::string>(scheme + ".linkTarget"), "dir/file.txt");
    EXPECT_EQ(link.existsExtended(), p::ExtendedExistsResult::SymlinkToFile);
    EXPECT_EQ(item(root + u"to-folder").existsExtended(), p::ExtendedExistsResult::SymlinkToFolder);
    for (auto name : {u"out", u"absolute", u"loop"})
      EXPECT_EQ(item(root + name).existsExtended(), p::ExtendedExistsResult::BrokenSymlink);
    EXPECT_EQ(item(root + u"dir/file.txt").existsExtended(), p::ExtendedExistsResult::File);
    // A link holds no data of its own and is never followed: reading it is refused, so a
    // copy never turns it into a file holding its target's text or nothing.
    auto const [code, message] = readFailureOf([&] { readFile(link); });
    EXPECT_EQ(code, p::ErrorCode::InvalidLocation);
    EXPECT_NE(message.find("dir/file.txt"), std::string::npos) << message;
    EXPECT_THROW(link.copyFile(item(local("copied-" + scheme)), {}), p::Exception);
    EXPECT_FALSE(std::filesystem::exists(path("copied-" + scheme)));
  }
  // Rewriting a zip keeps its link a link.
  std::u16string const zip = u"zip:" + local("l.zip") + u"!/";
  testsupport::writeFile(item(zip + u"new.txt"), "new");
  commit();
  EXPECT_NE(run("zipinfo " + quoted(path("l.zip")) + " to-file").find("lrwx"), std::string::npos);
}

TEST_F(ArchiveReading, EntriesThatCannotBeReadFailWithTheirClassAndReason) {
  writeLocal(path("src/secret.txt"), "secret");
  writeLocal(path("src/plain.txt"), std::string(1000, 'p'));
  run("cd " + quoted(path("src")) + " && zip -q -P pw ../e.zip secret.txt && zip -q0 ../c.zip plain.txt" +
      " && zip -q0 ../m.zip plain.txt");
  // A flipped data byte fails the CRC check; WavPack (method 97) is a method libzip lacks.
  std::string bytes = readLocal(path("c.zip"));
  bytes[bytes.find("pppp")] = 'q';
  writeLocal(path("c.zip"), bytes);
  bytes = readLocal(path("m.zip"));
  for (std::size_t at = 0; (at = bytes.find("PK", at)) != std::string::npos; at += 2) {
    int const offset = bytes.compare(at, 4, "PK\3\4") == 0 ? 8 : bytes.compare(at, 4, "PK\1\2") == 0 ? 10 : -1;
    if (offset > 0) bytes[at + static_cast<std::size_t>(offset)] = 97;
  }
  writeLocal(path("m.zip"), bytes);

  struct Case {
    std::string archive, entry;
    p::ErrorCode code;
    std::string reason;
  };
  for (auto const& c : {Case{"e.zip", "secret.txt", p::ErrorCode::UnsupportedOperation, "password"},
                        Case{"m.zip", "plain.txt", p::ErrorCode::UnsupportedOperation, "ompression method"},
                        Case{"c.zip", "plain.txt", p::ErrorCode::IOError, "CRC"}}) {
    SCOPED_TRACE(c.archive);
    auto const [code, message] =
        readFailureOf([&] { readFile(item(u"zip:" + local(c.archive) + u"!/" + fl::i18n::to_ustring(c.entry))); });
    EXPECT_EQ(code, c.code);
    EXPECT_NE(message.find(c.reason), std::string::npos) << message;
  }
}

TEST_F(ArchiveReading, AWalkReadsACompressedTarInOnePassAndSparseHolesReadAsZeros) {
  for (int folder = 0; folder < 10; ++folder)
    for (int file = 0; file < 20; ++file)
      writeLocal(path("src/f" + std::to_string(folder) + "/" + std::to_string(file) + ".txt"),
                 std::string(5000, static_cast<char>('a' + file)));
  run("cd " + quoted(path("src")) + " && tar -czf ../many.tgz f*");
  run("truncate -s 1M " + quoted(path("hole")) + " && cd " + quoted(path("")) + " && tar --sparse -czf hole.tgz hole");
  auto counting = std::make_shared<CallCountingProvider>(std::make_shared<MemoryProvider>());
  for (std::string const name : {"many.tgz", "hole.tgz"})
    testsupport::writeFile(p::StorageItem(counting, p::StorageIRI(u"mem:///" + fl::i18n::to_ustring(name))),
                           readLocal(path(name)));
  auto tar = std::make_shared<TarProvider>([counting](p::StorageIRI const&) { return counting; });

  counting->reset();
  std::size_t files = 0;
  for (auto cursor = tar->listAllRecursiveNamesOnly(p::StorageIRI(u"tar:mem:///many.tgz!/"), u""); cursor->hasNext();) {
    cursor->next();
    if (!cursor->current().isFile()) continue;
    auto const location = p::StorageIRI(u"tar:mem:///many.tgz!/" + cursor->current().getName());
    EXPECT_EQ(readFile(p::StorageItem(tar, location)).size(), 5000u);
    ++files;
  }
  EXPECT_EQ(files, 200u);
  // Once to list the entries, once for all their data, not once per file.
  EXPECT_LE(counting->count(p::Operation::OpenReadOnlyStream), 2u);

  EXPECT_EQ(readFile(p::StorageItem(tar, p::StorageIRI(u"tar:mem:///hole.tgz!/hole"))), std::string(1 << 20, '\0'));
}
