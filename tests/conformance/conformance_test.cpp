#include "provider_conformance.hpp"

#include "../support/item_io.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/iostreams/stream.hpp>

#include <optional>
#include <utility>

using namespace conformance;
using Code = p::ErrorCode;
using Strings = std::vector<std::string>;
using testsupport::readFile;
using testsupport::replaceAll;
using testsupport::writeFile;

namespace {

p::ByteStreamOpenOptions options(p::ByteStreamAccess access, p::ByteStreamCreate create, p::ByteStreamTruncate truncate,
                                 p::ByteStreamAppend append) {
  return {access, create, truncate, append};
}

p::ByteStreamOpenOptions const readWriteKeep =
    options(p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::CreateIfMissing, p::ByteStreamTruncate::Keep,
            p::ByteStreamAppend::AtPosition);

} // namespace

// --- existence, creation, removal -------------------------------------------------------

TEST_P(ProviderConformance, CreatesAndRemovesFilesAndFolders) {
  auto file = item(u"a.txt");
  auto folder = item(u"sub");
  EXPECT_EQ(file.exists(), p::ExistsResult::NotFound);
  file.createFile();
  folder.createFolder();
  EXPECT_EQ(file.exists(), p::ExistsResult::File);
  EXPECT_EQ(folder.exists(), p::ExistsResult::Folder);
  EXPECT_EQ(file.existsExtended(), p::ExtendedExistsResult::File);
  EXPECT_EQ(folder.existsExtended(), p::ExtendedExistsResult::Folder);
  EXPECT_TRUE(file.fileExists());
  EXPECT_FALSE(file.folderExists());
  EXPECT_TRUE(folder.folderExists());
  EXPECT_FALSE(folder.fileExists());
  EXPECT_EQ(file.getFileAttributes().getSize(), 0u);

  file.removeFile();
  folder.removeFolder();
  EXPECT_EQ(file.exists(), p::ExistsResult::NotFound);
  EXPECT_EQ(folder.existsExtended(), p::ExtendedExistsResult::NotFound);
  EXPECT_FALSE(folder.folderExists());
}

TEST_P(ProviderConformance, AnswersMissingForPathsThroughFiles) {
  item(u"f").createFile();
  EXPECT_EQ(item(u"f/x").exists(), p::ExistsResult::NotFound);
  EXPECT_FALSE(item(u"f/x").fileExists());
  EXPECT_EQ(item(u"missing/x").exists(), p::ExistsResult::NotFound);
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"f/x").createFile());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"f/x").createFolder());
}

TEST_P(ProviderConformance, RefusesCreationOverExistingItemsAndInMissingFolders) {
  item(u"f").createFile();
  item(u"d").createFolder();
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, item(u"f").createFile());
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, item(u"d").createFile());
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, item(u"f").createFolder());
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, item(u"d").createFolder());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing/f").createFile());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing/d").createFolder());
  EXPECT_EQ(item(u"missing").exists(), p::ExistsResult::NotFound);
}

TEST_P(ProviderConformance, RemovalNeedsTheRightKindAndAnEmptyFolder) {
  item(u"d").createFolder();
  writeFile(item(u"d/keep.txt"), "kept");
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").removeFile());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").removeFolder());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"d").removeFile());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"d/keep.txt").removeFolder());
  EXPECT_PROVIDER_ERROR(Code::FolderNotEmpty, item(u"d").removeFolder());
  EXPECT_EQ(readFile(item(u"d/keep.txt")), "kept");
}

TEST_P(ProviderConformance, CreatesAndRemovesWholeTrees) {
  item(u"a/b/c").createFolderRecursive();
  EXPECT_TRUE(item(u"a/b/c").folderExists());
  item(u"a/b/c").createFolderRecursive(); // an existing folder is fine
  writeFile(item(u"a/b/file"), "x");
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, item(u"a/b/file/deeper").createFolderRecursive());
  writeFile(item(u"a/b/c/deep.txt"), "deep");

  EXPECT_EQ(workspace_.provider->hasFeature(p::ExtendedFeature::NativeRecursiveRemoval),
            capabilities().nativeRecursiveRemoval);
  item(u"a").removeFolderRecursively();
  EXPECT_EQ(item(u"a").exists(), p::ExistsResult::NotFound);
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"a").removeFolderRecursively());
}

// A location's dot segments are resolved by name before any provider acts, so "x/." and
// "x/sub/.." name x itself: removing them removes x whole, never its contents alone.
TEST_P(ProviderConformance, ActsOnTheFolderThatDotSegmentsName) {
  item(u"base/sub").createFolderRecursive();
  writeFile(item(u"base/sub/f.txt"), "f");
  item(u"base/sub/..").removeFolderRecursively();
  EXPECT_EQ(item(u"base").exists(), p::ExistsResult::NotFound);

  item(u"other/inner").createFolderRecursive();
  writeFile(item(u"other/inner/g.txt"), "g");
  item(u"other/inner/.").removeFolderRecursively();
  EXPECT_EQ(item(u"other/inner").exists(), p::ExistsResult::NotFound);
  EXPECT_TRUE(item(u"other").folderExists());

  item(u"other/./made/..").createFolderRecursive(); // names "other", which exists: nothing is made
  EXPECT_EQ(names(item(u"other").listAllNamesOnly(u"")), Strings{});
  item(u"other/x/..").removeFolder(); // the missing "x" is never looked at
  EXPECT_EQ(item(u"other").exists(), p::ExistsResult::NotFound);

  writeFile(item(u"d/../a.txt"), "a");
  EXPECT_EQ(readFile(item(u"a.txt")), "a");
  item(u"a.txt").copyFile(item(u"nowhere/../b.txt"), {});
  item(u"b.txt").moveFile(item(u"./c.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  EXPECT_EQ(names(item(u"x/..").listAllNamesOnly(u"")), (Strings{"a.txt", "c.txt"}));
  item(u"./c.txt").removeFile();
  EXPECT_EQ(item(u"c.txt").exists(), p::ExistsResult::NotFound);
}

// --- attributes -------------------------------------------------------------------------

TEST_P(ProviderConformance, ReportsAndSetsAttributes) {
  writeFile(item(u"data.bin"), std::string(1000, 'x'));
  item(u".hidden").createFile();
  item(u"folder").createFolder();

  auto attributes = item(u"data.bin").getFileAttributes();
  EXPECT_EQ(attributes.getSize(), 1000u);
  EXPECT_TRUE(attributes.isWritable());
  EXPECT_FALSE(attributes.isHidden());
  EXPECT_FALSE(attributes.isSymlink());
  EXPECT_TRUE(item(u".hidden").getFileAttributes().isHidden());
  EXPECT_TRUE(item(u"folder").getFolderAttributes().isWritable());
  EXPECT_FALSE(item(u"data.bin").getExtendedAttributes().empty());

  auto const when = boost::posix_time::time_from_string("2020-01-02 03:04:05.123456");
  item(u"data.bin").setLastModified(when);
  item(u"folder").setLastModified(when);
  auto const kept = capabilities().subSecondTimes ? when : boost::posix_time::time_from_string("2020-01-02 03:04:05");
  EXPECT_EQ(item(u"data.bin").getFileAttributes().getLastModified(), kept);
  EXPECT_EQ(item(u"folder").getFolderAttributes().getLastModified(), kept);

  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"folder").getFileAttributes());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"data.bin").getFolderAttributes());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").getExtendedAttributes());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").setLastModified(when));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").setWritable(false));
}

TEST_P(ProviderConformance, ReadOnlyFilesRefuseChangesAndKeepTheirContents) {
  if (!capabilities().writableFlags) GTEST_SKIP() << "the storage has no read-only flags";
  if (!capabilities().enforcesPermissions) GTEST_SKIP() << "read-only flags are not enforced for this user";
  auto file = item(u"locked.txt");
  writeFile(file, "original");
  file.setWritable(false);
  EXPECT_FALSE(file.getFileAttributes().isWritable());
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, file.openStream(readWriteKeep));
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, file.openTransactionalStream(replaceAll));
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, file.truncateToSize(0));
  EXPECT_EQ(readFile(file), "original");
  file.setWritable(true);
  writeFile(file, "changed");
  EXPECT_EQ(readFile(file), "changed");
}

TEST_P(ProviderConformance, ReadOnlyFoldersRefuseNewAndRemovedChildren) {
  if (!capabilities().writableFlags) GTEST_SKIP() << "the storage has no read-only flags";
  if (!capabilities().enforcesPermissions) GTEST_SKIP() << "read-only flags are not enforced for this user";
  auto folder = item(u"locked");
  folder.createFolder();
  writeFile(item(u"locked/inside.txt"), "inside");
  folder.setWritable(false);
  EXPECT_FALSE(folder.getFolderAttributes().isWritable());
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked/new.txt").createFile());
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked/inside.txt").removeFile());
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked").removeFolderRecursively());
  EXPECT_EQ(readFile(item(u"locked/inside.txt")), "inside");
  folder.setWritable(true);
}

// --- byte streams -----------------------------------------------------------------------

TEST_P(ProviderConformance, OpenOptionsCreateOrRequireTheFile) {
  auto file = item(u"f.txt");
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound,
                        file.openStream(options(p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::MustExist,
                                                p::ByteStreamTruncate::Keep, p::ByteStreamAppend::AtPosition)));
  EXPECT_EQ(file.exists(), p::ExistsResult::NotFound);
  file.openStream(replaceAll)->close();
  EXPECT_TRUE(file.fileExists());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing/f.txt").openStream(replaceAll));
  item(u"d").createFolder();
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"d").openStream(readWriteKeep));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"d").openReadOnlyStream());
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing.txt").openReadOnlyStream());
}

TEST_P(ProviderConformance, OpenOptionsTruncateOrKeepAndAppendOrWriteInPlace) {
  auto file = item(u"f.txt");
  writeFile(file, "0123456789");

  auto keep = file.openStream(readWriteKeep);
  keep->write("ab", 2);
  keep->close();
  EXPECT_EQ(readFile(file), "ab23456789");

  auto append = file.openStream(options(p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::MustExist,
                                        p::ByteStreamTruncate::Keep, p::ByteStreamAppend::Append));
  append->seek(0, std::ios_base::beg);
  append->write("XY", 2); // appended despite the seek
  append->close();
  EXPECT_EQ(readFile(file), "ab23456789XY");

  file.openStream(options(p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::MustExist,
                          p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition))
      ->close();
  EXPECT_EQ(readFile(file), "");
}

TEST_P(ProviderConformance, StreamsReadWriteAndSeekAsTheirModeAllows) {
  auto file = item(u"f.bin");
  auto stream = file.openStream(readWriteKeep);
  EXPECT_EQ(stream->write("hello world", 11), 11);
  EXPECT_EQ(stream->seek(0, std::ios_base::beg), std::streampos(0));
  EXPECT_EQ(testsupport::readAll(*stream, 7), "hello world");
  char byte;
  EXPECT_EQ(stream->read(&byte, 1), 0); // end of data
  EXPECT_EQ(stream->seek(-5, std::ios_base::end), std::streampos(6));
  EXPECT_EQ(stream->seek(2, std::ios_base::cur), std::streampos(8));
  EXPECT_THROW(stream->seek(-100, std::ios_base::cur), p::ByteStreamSeekFailure);
  stream->seek(15, std::ios_base::beg);
  stream->write("!", 1); // the gap reads as zeros
  stream->close();
  stream->close(); // a second close does nothing
  EXPECT_THROW(stream->read(&byte, 1), p::ByteStreamReadFailure);
  EXPECT_EQ(readFile(file), std::string("hello world") + std::string(4, '\0') + "!");

  auto writeOnly = file.openStream(options(p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::MustExist,
                                           p::ByteStreamTruncate::Keep, p::ByteStreamAppend::AtPosition));
  EXPECT_THROW(writeOnly->read(&byte, 1), p::ByteStreamReadFailure);
  auto readOnly = file.openReadOnlyStream();
  EXPECT_THROW(readOnly->write("x", 1), p::ByteStreamWriteFailure);
}

TEST_P(ProviderConformance, DevicesSignalEndOfDataWithMinusOne) {
  writeFile(item(u"f.txt"), "abc");
  p::ByteStreamDevice device(item(u"f.txt").openReadOnlyStream());
  char buffer[8];
  EXPECT_EQ(device.read(buffer, sizeof buffer), 3);
  EXPECT_EQ(device.read(buffer, sizeof buffer), -1);
  EXPECT_EQ(device.read(buffer, 0), 0);
  device.close();
}

TEST_P(ProviderConformance, DevicesServeBoostIostreams) {
  {
    boost::iostreams::stream<p::ByteStreamDevice> out(p::ByteStreamDevice(item(u"lines.txt").openStream(replaceAll)));
    out << "first line\nsecond line\n";
  } // closing the stream closes the device
  boost::iostreams::stream<p::ByteStreamDevice> in(p::ByteStreamDevice(item(u"lines.txt").openReadOnlyStream()));
  std::string line;
  std::vector<std::string> lines;
  while (std::getline(in, line)) lines.push_back(line);
  EXPECT_EQ(lines, (std::vector<std::string>{"first line", "second line"}));
  in.clear();
  in.seekg(6, std::ios_base::beg);
  std::getline(in, line);
  EXPECT_EQ(line, "line");
}

TEST_P(ProviderConformance, RejectsUnknownOpenOptionsWithoutCreatingAnything) {
  auto bad = readWriteKeep;
  bad.access = static_cast<p::ByteStreamAccess>(7);
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, item(u"f.txt").openStream(bad));
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, item(u"f.txt").openTransactionalStream(bad));
  auto badAppend = readWriteKeep;
  badAppend.append = static_cast<p::ByteStreamAppend>(2);
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, item(u"f.txt").openStream(badAppend));
  EXPECT_EQ(item(u"f.txt").exists(), p::ExistsResult::NotFound);
}

TEST_P(ProviderConformance, TruncatesAndExtendsFiles) {
  auto file = item(u"f.txt");
  writeFile(file, "0123456789");
  file.truncateToSize(4);
  EXPECT_EQ(readFile(file), "0123");
  file.truncateToSize(6);
  EXPECT_EQ(readFile(file), std::string("0123") + std::string(2, '\0'));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").truncateToSize(1));
}

// --- transactions -----------------------------------------------------------------------

TEST_P(ProviderConformance, CommitReplacesTheContentsAllAtOnce) {
  auto file = item(u"t.txt");
  writeFile(file, "old contents");
  auto transaction = file.openTransactionalStream(replaceAll);
  transaction->write("new", 3);
  EXPECT_EQ(readFile(file), "old contents"); // nothing visible before the commit
  auto reader = file.openReadOnlyStream();
  char head[4] = {};
  ASSERT_EQ(reader->read(head, 4), 4);
  transaction->close(p::StreamClosePolicy::Commit);
  EXPECT_EQ(readFile(file), "new");
  EXPECT_EQ(std::string(head, 4) + testsupport::readAll(*reader, 7),
            "old contents"); // an open reader keeps what it opened
}

TEST_P(ProviderConformance, DiscardAndAbandonedTransactionsKeepTheOldContents) {
  auto file = item(u"t.txt");
  writeFile(file, "old");
  auto discarded = file.openTransactionalStream(replaceAll);
  discarded->write("new", 3);
  discarded->close(p::StreamClosePolicy::Discard);
  EXPECT_EQ(readFile(file), "old");
  {
    auto abandoned = file.openTransactionalStream(replaceAll);
    abandoned->write("new", 3);
  }
  EXPECT_EQ(readFile(file), "old");

  auto fresh = item(u"fresh.txt");
  {
    auto abandoned = fresh.openTransactionalStream(replaceAll);
    abandoned->write("x", 1);
  }
  EXPECT_EQ(fresh.exists(), p::ExistsResult::NotFound);
}

TEST_P(ProviderConformance, TransactionsCreateFilesAndCanStartFromTheOldContents) {
  auto fresh = item(u"fresh.txt");
  auto create = fresh.openTransactionalStream(replaceAll);
  create->write("created", 7);
  EXPECT_EQ(fresh.exists(), p::ExistsResult::NotFound);
  create->close(); // a plain close commits
  EXPECT_EQ(readFile(fresh), "created");

  auto keep = fresh.openTransactionalStream(options(p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::MustExist,
                                                    p::ByteStreamTruncate::Keep, p::ByteStreamAppend::Append));
  EXPECT_EQ(testsupport::readAll(*keep, 7), "created");
  keep->write("+more", 5);
  keep->close(p::StreamClosePolicy::Commit);
  EXPECT_EQ(readFile(fresh), "created+more");

  EXPECT_PROVIDER_ERROR(
      Code::ResourceNotFound,
      item(u"missing.txt")
          .openTransactionalStream(options(p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::MustExist,
                                           p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition)));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing/f.txt").openTransactionalStream(replaceAll));
}

// --- copy and move ----------------------------------------------------------------------

TEST_P(ProviderConformance, CopiesFilesPerReplacementPolicy) {
  writeFile(item(u"src.txt"), "source");
  writeFile(item(u"dst.txt"), "destination");
  auto copy = [&](std::u16string const& to, p::ReplacementPolicy policy) {
    return item(u"src.txt").copyFile(item(to), p::CopyFileOptions{policy, {}});
  };
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, copy(u"dst.txt", p::ReplacementPolicy::FailIfExists));
  EXPECT_EQ(readFile(item(u"dst.txt")), "destination");
  EXPECT_EQ(copy(u"dst.txt", p::ReplacementPolicy::KeepExisting), p::CopyResult::Skipped);
  EXPECT_EQ(readFile(item(u"dst.txt")), "destination");
  EXPECT_EQ(copy(u"dst.txt", p::ReplacementPolicy::Overwrite), p::CopyResult::Copied);
  EXPECT_EQ(readFile(item(u"dst.txt")), "source");
  EXPECT_EQ(copy(u"new.txt", p::ReplacementPolicy::FailIfExists), p::CopyResult::Copied);
  EXPECT_EQ(readFile(item(u"new.txt")), "source");
  EXPECT_EQ(readFile(item(u"src.txt")), "source");

  item(u"folder").createFolder();
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, copy(u"folder", p::ReplacementPolicy::Overwrite));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").copyFile(item(u"x"), {}));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, copy(u"missing/x.txt", p::ReplacementPolicy::Overwrite));
}

TEST_P(ProviderConformance, CopiesAcrossProvidersWithProgress) {
  std::string const payload(300 * 1024, 'p');
  writeFile(item(u"big.bin"), payload);
  std::uint64_t lastDone = 0, lastTotal = 0;
  p::CopyFileOptions copyOptions{p::ReplacementPolicy::FailIfExists, [&](std::uint64_t done, std::uint64_t total) {
                                   EXPECT_GE(done, lastDone);
                                   lastDone = done;
                                   lastTotal = total;
                                 }};
  EXPECT_EQ(item(u"big.bin").copyFile(foreignItem(u"big.bin"), copyOptions), p::CopyResult::Copied);
  EXPECT_EQ(readFile(foreignItem(u"big.bin")), payload);
  EXPECT_EQ(lastDone, payload.size());
  EXPECT_EQ(lastTotal, payload.size());
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, item(u"big.bin").copyFile(foreignItem(u"big.bin"), {}));
  EXPECT_EQ(item(u"big.bin").copyFile(foreignItem(u"big.bin"), {p::ReplacementPolicy::KeepExisting, {}}),
            p::CopyResult::Skipped);
}

// The replacement check and the landing are one step: a destination that appears while
// a copy runs (here: from its progress callback) is never replaced by FailIfExists or
// KeepExisting, within one provider, across providers, and for a transaction's commit.
TEST_P(ProviderConformance, NeverReplacesADestinationThatAppearsMeanwhile) {
  std::string const payload(300 * 1024, 's');
  writeFile(item(u"src.bin"), payload);
  writeFile(foreignItem(u"src.bin"), payload);
  std::vector<std::pair<p::StorageItem, p::StorageItem>> const copies{{item(u"src.bin"), item(u"here")},
                                                                      {item(u"src.bin"), foreignItem(u"there")},
                                                                      {foreignItem(u"src.bin"), item(u"back")}};
  for (auto const& [from, toPrefix] : copies) {
    for (auto policy : {p::ReplacementPolicy::FailIfExists, p::ReplacementPolicy::KeepExisting}) {
      p::StorageItem const to(toPrefix.getParent(),
                              toPrefix.getName() +
                                  (policy == p::ReplacementPolicy::KeepExisting ? u"-keep" : u"-fail"));
      bool intruded = false, tried = false;
      auto intrude = [&](std::uint64_t, std::uint64_t) {
        if (std::exchange(tried, true)) return;
        try {
          to.createFile(); // a copy that landed already wins
        } catch (p::Exception const&) {
          return;
        }
        intruded = true;
        writeFile(to, "intruder");
      };
      SCOPED_TRACE(toUtf8(to.getLocation().toString()));
      std::optional<p::CopyResult> result;
      std::optional<Code> error;
      try {
        result = from.copyFile(to, {policy, intrude});
      } catch (p::Exception const& e) {
        error = e.getErrorCode();
      }
      EXPECT_TRUE(tried);
      if (!intruded) {
        EXPECT_EQ(result, p::CopyResult::Copied);
        EXPECT_EQ(readFile(to), payload);
      } else {
        EXPECT_EQ(readFile(to), "intruder");
        if (policy == p::ReplacementPolicy::KeepExisting)
          EXPECT_EQ(result, p::CopyResult::Skipped);
        else
          EXPECT_EQ(error, Code::ResourceAlreadyExists);
      }
    }
  }

  auto transaction = item(u"late.txt").openTransactionalStream(replaceAll);
  transaction->write("new", 3);
  writeFile(item(u"late.txt"), "first");
  try {
    transaction->close(p::StreamClosePolicy::CommitWithoutReplacing);
    ADD_FAILURE() << "the commit replaced a file";
  } catch (p::ByteStreamCloseFailure const& e) {
    EXPECT_EQ(e.getErrorCode(), Code::ResourceAlreadyExists);
  }
  EXPECT_EQ(readFile(item(u"late.txt")), "first");
  auto fresh = item(u"fresh.txt").openTransactionalStream(replaceAll);
  fresh->write("fresh", 5);
  fresh->close(p::StreamClosePolicy::CommitWithoutReplacing);
  EXPECT_EQ(readFile(item(u"fresh.txt")), "fresh");
}

TEST_P(ProviderConformance, CopyOntoAReadOnlyFileFailsAndKeepsIt) {
  if (!capabilities().writableFlags) GTEST_SKIP() << "the storage has no read-only flags";
  if (!capabilities().enforcesPermissions) GTEST_SKIP() << "read-only flags are not enforced for this user";
  writeFile(item(u"src.txt"), "source");
  writeFile(item(u"dst.txt"), "destination");
  item(u"dst.txt").setWritable(false);
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied,
                        item(u"src.txt").copyFile(item(u"dst.txt"), {p::ReplacementPolicy::Overwrite, {}}));
  EXPECT_EQ(readFile(item(u"dst.txt")), "destination");
  item(u"dst.txt").setWritable(true);
}

TEST_P(ProviderConformance, MovesFilesPerReplacementPolicy) {
  writeFile(item(u"a.txt"), "a");
  writeFile(item(u"b.txt"), "b");
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists,
                        item(u"a.txt").moveFile(item(u"b.txt").getLocation(), p::ReplacementPolicy::FailIfExists));
  item(u"a.txt").moveFile(item(u"b.txt").getLocation(), p::ReplacementPolicy::KeepExisting);
  EXPECT_EQ(readFile(item(u"a.txt")), "a");
  EXPECT_EQ(readFile(item(u"b.txt")), "b");
  item(u"a.txt").moveFile(item(u"b.txt").getLocation(), p::ReplacementPolicy::Overwrite);
  EXPECT_EQ(item(u"a.txt").exists(), p::ExistsResult::NotFound);
  EXPECT_EQ(readFile(item(u"b.txt")), "a");

  item(u"d").createFolder();
  item(u"b.txt").moveFile(item(u"d/c.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  EXPECT_EQ(readFile(item(u"d/c.txt")), "a");
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").moveFile(item(u"x").getLocation(), {}));
  EXPECT_PROVIDER_ERROR(
      Code::ResourceNotFound,
      item(u"d/c.txt").moveFile(item(u"nowhere/c.txt").getLocation(), p::ReplacementPolicy::Overwrite));
  EXPECT_PROVIDER_ERROR(
      Code::UnsupportedOperation,
      item(u"d/c.txt").moveFile(foreignItem(u"c.txt").getLocation(), p::ReplacementPolicy::Overwrite));
  EXPECT_EQ(readFile(item(u"d/c.txt")), "a");
}

TEST_P(ProviderConformance, MovesFoldersWithTheirContents) {
  item(u"src/inner").createFolderRecursive();
  writeFile(item(u"src/inner/x.txt"), "x");
  item(u"src").moveFolder(item(u"moved").getLocation(), p::ReplacementPolicy::FailIfExists);
  EXPECT_EQ(item(u"src").exists(), p::ExistsResult::NotFound);
  EXPECT_EQ(readFile(item(u"moved/inner/x.txt")), "x");

  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, item(u"moved").moveFolder(item(u"moved/inner/deeper").getLocation(),
                                                                         p::ReplacementPolicy::Overwrite));
  item(u"full").createFolder();
  writeFile(item(u"full/y.txt"), "y");
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists,
                        item(u"moved").moveFolder(item(u"full").getLocation(), p::ReplacementPolicy::FailIfExists));
  EXPECT_PROVIDER_ERROR(Code::FolderNotEmpty,
                        item(u"moved").moveFolder(item(u"full").getLocation(), p::ReplacementPolicy::Overwrite));
  item(u"empty").createFolder();
  item(u"moved").moveFolder(item(u"empty").getLocation(), p::ReplacementPolicy::Overwrite);
  EXPECT_EQ(readFile(item(u"empty/inner/x.txt")), "x");
  EXPECT_PROVIDER_ERROR(Code::UnsupportedOperation, item(u"empty").moveFolder(foreignItem(u"empty").getLocation(),
                                                                              p::ReplacementPolicy::Overwrite));
}

// --- listings ---------------------------------------------------------------------------

TEST_P(ListingConformance, ListsChildrenByKindWithAndWithoutAttributes) {
  auto top = item(u"top");
  EXPECT_EQ(names(top.listAllNamesOnly(u"")), (Strings{"a.txt", "b.log", "sub/"}));
  EXPECT_EQ(names(top.listFilesNamesOnly(u"")), (Strings{"a.txt", "b.log"}));
  EXPECT_EQ(names(top.listFoldersNamesOnly(u"")), (Strings{"sub/"}));
  EXPECT_EQ(names(top.listAll(u"")), (Strings{"a.txt", "b.log", "sub/"}));
  EXPECT_EQ(names(top.listFiles(u"")), (Strings{"a.txt", "b.log"}));
  EXPECT_EQ(names(top.listFolders(u"")), (Strings{"sub/"}));

  for (auto cursor = top.listAllNamesOnly(u""); cursor->hasNext();) {
    cursor->next();
    EXPECT_FALSE(cursor->current().getFileAttributes() || cursor->current().getFolderAttributes());
  }
  for (auto cursor = top.listAll(u""); cursor->hasNext();) {
    cursor->next();
    auto entry = cursor->current();
    if (entry.isFile()) {
      ASSERT_TRUE(entry.getFileAttributes());
      EXPECT_EQ(entry.getFileAttributes()->getSize(), entry.getName() == u"a.txt" ? 3u : 1u);
    } else {
      EXPECT_TRUE(entry.getFolderAttributes());
    }
  }
}

TEST_P(ListingConformance, FiltersNamesWithPatterns) {
  auto top = item(u"top");
  ASSERT_TRUE(workspace_.provider->hasFeature(p::ExtendedFeature::FlatWildcardListing));
  EXPECT_EQ(names(top.listAll(u"*.txt")), (Strings{"a.txt"}));
  EXPECT_EQ(names(top.listFilesNamesOnly(u"?.*")), (Strings{"a.txt", "b.log"}));
  EXPECT_EQ(names(top.listFolders(u"s*")), (Strings{"sub/"}));
  EXPECT_EQ(names(top.listAllNamesOnly(u"*.TXT")), (Strings{}));
}

TEST_P(ListingConformance, ListsTreesDepthFirstWithRelativeNames) {
  ASSERT_TRUE(workspace_.provider->hasFeature(p::ExtendedFeature::RecursiveListing));
  std::vector<std::string> order;
  for (auto cursor = item(u"top").listAllRecursiveNamesOnly(u""); cursor->hasNext();) {
    cursor->next();
    order.push_back(toUtf8(cursor->current().getName()));
  }
  EXPECT_EQ(order.size(), 6u);
  // Every folder comes before its contents.
  auto position = [&](std::string const& name) { return std::find(order.begin(), order.end(), name) - order.begin(); };
  EXPECT_LT(position("sub"), position("sub/c.txt"));
  EXPECT_LT(position("sub/deeper"), position("sub/deeper/d.txt"));
  EXPECT_EQ(names(item(u"top").listAllRecursive(u"")),
            (Strings{"a.txt", "b.log", "sub/", "sub/c.txt", "sub/deeper/", "sub/deeper/d.txt"}));
  // The pattern tests the last segment; folders that do not match are still entered.
  ASSERT_TRUE(workspace_.provider->hasFeature(p::ExtendedFeature::RecursiveWildcardListing));
  EXPECT_EQ(names(item(u"top").listAllRecursiveNamesOnly(u"*.txt")),
            (Strings{"a.txt", "sub/c.txt", "sub/deeper/d.txt"}));
}

TEST_P(ListingConformance, CursorsCloneIndependently) {
  auto cursor = item(u"top").listAllNamesOnly(u"");
  ASSERT_TRUE(cursor->hasNext());
  cursor->next();
  auto clone = cursor->clone();
  auto first = cursor->current().getName();
  cursor->next();
  EXPECT_EQ(clone->current().getName(), first);
  EXPECT_NE(cursor->current().getName(), first);
  EXPECT_EQ(names(std::move(clone)).size(), 2u); // the clone goes on from its own position
}

TEST_P(ListingConformance, ListingNeedsAnExistingFolder) {
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").listAll(u""));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"top/a.txt").listAllNamesOnly(u""));
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"missing").listAllRecursive(u""));
  item(u"empty").createFolder();
  EXPECT_FALSE(item(u"empty").listAll(u"")->hasNext());
}

// --- names, locations, administration ---------------------------------------------------

TEST_P(ProviderConformance, KeepsUnusualNamesIntact) {
  std::vector<std::u16string> const unusual{u"with space", u"100%",   u"hash#tag",         u"what?",      u"bang!",
                                            u"Grüße",      u"日本語", u"emoji \U0001F600", u"semi;colon", u"..dots.."};
  for (auto const& name : unusual) writeFile(item(name), toUtf8(name));
  std::vector<std::string> expected;
  for (auto const& name : unusual) expected.push_back(toUtf8(name));
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(names(item(u"").listAllNamesOnly(u"")), expected);
  for (auto const& name : unusual) {
    p::StorageIRI reparsed(item(name).getLocation().toString());
    EXPECT_EQ(readFile(p::StorageItem(workspace_.provider, reparsed)), toUtf8(name));
  }
}

TEST_P(ProviderConformance, ResolvesCanonicalLocations) {
  item(u"a/b").createFolderRecursive();
  EXPECT_EQ(item(u"a/./b/../b").getCanonicalLocation(), item(u"a/b").getCanonicalLocation());
  EXPECT_EQ(item(u"a/b").getCanonicalLocation().getName(), u"b");
  EXPECT_PROVIDER_ERROR(Code::ResourceNotFound, item(u"a/missing").getCanonicalLocation());
}

TEST_P(ProviderConformance, ComparesNamesByTheRequestedCaseRule) {
  auto compare = item(u"").getPathComparator();
  EXPECT_TRUE(compare(u"Name.txt", u"Name.txt", p::CaseModifier::ProviderDefault));
  EXPECT_FALSE(compare(u"Name.txt", u"name.txt", p::CaseModifier::CaseSensitive));
  EXPECT_TRUE(compare(u"Name.txt", u"name.TXT", p::CaseModifier::CaseInsensitive));
  EXPECT_EQ(compare(u"Name.txt", u"name.txt", p::CaseModifier::ProviderDefault), capabilities().caseInsensitive);
  EXPECT_EQ(item(u"").getFilenameSensitivity(), capabilities().caseInsensitive ? p::FilenameSensitivity::CaseInsensitive
                                                                               : p::FilenameSensitivity::CaseSensitive);
}

TEST_P(ProviderConformance, ReportsStorageInformation) {
  auto info = item(u"").getProviderStorageInfo();
  EXPECT_LE(info.availableBytes, info.totalBytes == 0 ? info.availableBytes : info.totalBytes);
}

// --- change reporting -------------------------------------------------------------------

TEST_P(ProviderConformance, ReportsFolderChangesInOrderUntilStopped) {
  if (!capabilities().nativeChangeEvents) GTEST_SKIP() << "the storage reports no changes itself; polling covers it";
  auto folder = item(u"watched");
  folder.createFolder();
  EventLog log;
  folder.publishFolderEvents(log.callback(), {}, p::RecursiveWatching::No);
  item(u"watched/f.txt").createFile();
  writeFile(item(u"watched/f.txt"), "changed");
  item(u"watched/f.txt").moveFile(item(u"watched/g.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  item(u"watched/g.txt").removeFile();
  ASSERT_TRUE(log.waitFor(4, capabilities().eventDelay + std::chrono::seconds(5)));
  auto records = log.records();
  EXPECT_EQ(records.front().kind, events::Kind::Created);
  EXPECT_EQ(records.front().item, item(u"watched/f.txt").getLocation().toString());
  EXPECT_EQ(records.front().type, events::EntryType::File);
  auto renamed =
      std::find_if(records.begin(), records.end(), [](auto const& r) { return r.kind == events::Kind::Renamed; });
  ASSERT_NE(renamed, records.end());
  EXPECT_EQ(renamed->item, item(u"watched/g.txt").getLocation().toString());
  EXPECT_EQ(renamed->renamedFrom, item(u"watched/f.txt").getLocation().toIRI());
  EXPECT_EQ(records.back().kind, events::Kind::Removed);

  folder.stopPublishingFolderEvents();
  std::size_t const before = log.records().size();
  item(u"watched/after.txt").createFile();
  EXPECT_FALSE(log.waitFor(before + 1, capabilities().eventDelay + std::chrono::milliseconds(50)));
}

TEST_P(ProviderConformance, WatchesSubfoldersOnlyWhenRecursive) {
  if (!capabilities().nativeChangeEvents) GTEST_SKIP() << "the storage reports no changes itself; polling covers it";
  item(u"w/sub").createFolderRecursive();
  EventLog flat, deep;
  item(u"w").publishFolderEvents(flat.callback(), {events::Kind::Created}, p::RecursiveWatching::No);
  ASSERT_TRUE(workspace_.provider->hasFeature(p::ExtendedFeature::RecursiveChangeEvents));
  item(u"w").publishFolderEvents(deep.callback(), {events::Kind::Created}, p::RecursiveWatching::Yes);
  item(u"w/sub/inner.txt").createFile();
  ASSERT_TRUE(deep.waitFor(1, capabilities().eventDelay + std::chrono::seconds(5)));
  EXPECT_EQ(deep.records().front().item, item(u"w/sub/inner.txt").getLocation().toString());
  EXPECT_FALSE(flat.waitFor(1, capabilities().eventDelay + std::chrono::milliseconds(50)));
  item(u"w").stopPublishingFolderEvents();
  EXPECT_THROW(item(u"missing").publishFolderEvents(flat.callback(), {}, p::RecursiveWatching::No),
               p::ChangeEventsSubscriptionException);
}

TEST_P(ProviderConformance, PollsFoldersForChanges) {
  item(u"polled").createFolder();
  writeFile(item(u"polled/existing.txt"), "1");
  EventLog log;
  item(u"polled").startChangePollingMechanism(log.callback(), {}, std::chrono::milliseconds(5),
                                              p::RecursivePolling::No);
  item(u"polled/new.txt").createFile();
  item(u"polled/existing.txt").removeFile();
  ASSERT_TRUE(log.waitFor(2, std::chrono::seconds(5)));
  item(u"polled").stopChangePollingMechanism();
  auto records = log.records();
  std::vector<std::pair<events::Kind, std::u16string>> seen;
  for (auto const& r : records) seen.emplace_back(r.kind, r.item);
  EXPECT_NE(std::find(seen.begin(), seen.end(),
                      std::make_pair(events::Kind::Created, item(u"polled/new.txt").getLocation().toString())),
            seen.end());
  EXPECT_NE(std::find(seen.begin(), seen.end(),
                      std::make_pair(events::Kind::Removed, item(u"polled/existing.txt").getLocation().toString())),
            seen.end());
  EXPECT_THROW(
      item(u"missing")
          .startChangePollingMechanism(log.callback(), {}, std::chrono::milliseconds(5), p::RecursivePolling::No),
      p::ChangeEventsSubscriptionException);
}
