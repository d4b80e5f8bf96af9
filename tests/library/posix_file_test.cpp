#include "harness.hpp"

#include <cerrno>
#include <cstdio>

using namespace harness;

namespace {

std::string readAll(vfs::PosixFILE& f) {
  std::string bytes;
  char buffer[7];
  for (std::size_t n; (n = f.fread(buffer, 1, sizeof buffer)) > 0;) bytes.append(buffer, n);
  return bytes;
}

} // namespace

class PosixFiles : public OnEveryProvider {};

TEST_P(PosixFiles, OpenWithEveryModeStringIgnoringB) {
  vfs::File const file = h.file(u"f");
  write(file, "old");
  for (char const* mode : {"rb", "bbr", "r"}) {
    auto f = vfs::openPosixFile(file, mode);
    EXPECT_EQ(f->rawFile(), nullptr);
    EXPECT_EQ(readAll(*f), "old");
    EXPECT_EQ(f->fwrite("x", 1, 1), 0u);
    EXPECT_EQ(f->ferror(), EPERM);
    EXPECT_EQ(f->fflush(), -1);
    EXPECT_EQ(f->fclose(), 0);
  }
  for (char const* mode : {"r+b", "rb+"}) {
    auto f = vfs::openPosixFile(file, mode);
    EXPECT_EQ(f->fwrite("N", 1, 1), 1u);
    EXPECT_EQ(readAll(*f), "ld");
    EXPECT_EQ(f->fclose(), 0);
  }
  EXPECT_EQ(read(file), "Nld");
  auto append = vfs::openPosixFile(file, "a");
  EXPECT_EQ(append->fwrite("++", 2, 1), 1u);
  char c;
  EXPECT_EQ(append->fread(&c, 1, 1), 0u);
  EXPECT_EQ(append->ferror(), EPERM);
  append->clearerr();
  EXPECT_EQ(append->ferror(), 0);
  EXPECT_EQ(append->fclose(), 0);
  EXPECT_EQ(read(file), "Nld++");

  auto readWriteAppend = vfs::openPosixFile(file, "a+");
  EXPECT_EQ(readWriteAppend->fwrite("!", 1, 1), 1u);
  readWriteAppend->rewind();
  EXPECT_EQ(readAll(*readWriteAppend), "Nld++!");
  readWriteAppend->fclose();

  auto truncating = vfs::openPosixFile(file, "w+");
  EXPECT_EQ(readAll(*truncating), "");
  truncating->fwrite("w", 1, 1);
  truncating->fclose();
  EXPECT_EQ(read(file), "w");
  vfs::openPosixFile(h.file(u"created"), "w")->fwrite("c", 1, 1); // dropped unclosed: still written
  EXPECT_EQ(read(h.file(u"created")), "c");

  EXPECT_VFS_ERROR(vfs::ErrorCode::ResourceNotFound, vfs::openPosixFile(h.file(u"none"), "r+"));
  for (char const* bad : {"rw", "x", "", "r+x", "rr", "+"}) {
    try {
      vfs::openPosixFile(file, bad);
      ADD_FAILURE() << "accepted " << bad;
    } catch (std::logic_error const& misuse) {
      EXPECT_STREQ(misuse.what(), "Invalid open mode");
    }
  }
  EXPECT_FALSE(h.file(u"none").fileExists());
  auto f = vfs::openPosixFile(file, "r");
  try {
    f->release();
    ADD_FAILURE() << "released";
  } catch (std::logic_error const& misuse) {
    EXPECT_STREQ(misuse.what(), "Cannot release RAW file from VFS-based PosixFILE.");
  }
}

TEST_P(PosixFiles, KeepTheEndAndErrorIndicatorsAsStdioDoes) {
  vfs::File const file = h.file(u"f");
  write(file, std::string(33, 'a'));
  auto f = vfs::openPosixFile(file, "r");
  std::uint32_t words[10];
  EXPECT_EQ(f->fread(words, 4, 5), 5u);
  EXPECT_FALSE(f->feof());
  EXPECT_EQ(f->fread(words, 4, 10), 3u); // 13 bytes were left
  EXPECT_TRUE(f->feof());
  EXPECT_EQ(f->fread(words, 4, 1), 0u);
  EXPECT_TRUE(f->feof());
  EXPECT_EQ(f->fread(words, 0, 10), 0u);
  EXPECT_EQ(f->fseek(0, SEEK_SET), 0);
  EXPECT_FALSE(f->feof());
  EXPECT_EQ(f->fseek(-3, SEEK_END), 0);
  EXPECT_EQ(f->ftell(), 30);
  EXPECT_EQ(f->fseek(-10, SEEK_CUR), 0);
  EXPECT_EQ(f->ftell(), 20);
  EXPECT_EQ(f->fseek(0, 3), ESPIPE);
  EXPECT_EQ(f->fseek(0, -1), ESPIPE);
  EXPECT_EQ(f->ferror(), 0);
  EXPECT_EQ(f->fseek(-1, SEEK_SET), EIO);
  EXPECT_EQ(f->ferror(), EIO);
  f->rewind();
  EXPECT_EQ(f->ferror(), 0);
  EXPECT_EQ(f->ftell(), 0);
  EXPECT_EQ(f->fread(words, SIZE_MAX, 2), 0u);
  EXPECT_EQ(f->ferror(), EOVERFLOW);

  EXPECT_EQ(f->fclose(), 0);
  // After fclose: reads find nothing, writes and positions fail; nothing throws.
  EXPECT_EQ(f->fread(words, 1, 1), 0u);
  errno = 0;
  EXPECT_EQ(f->ftell(), -1);
  EXPECT_EQ(errno, EIO);
}

TEST_P(PosixFiles, ProviderFailuresBecomeErrnoValues) {
  vfs::File const file = h.file(u"f");
  write(file, "contents");
  auto const location = file.getLocation().toStorageIRI();
  struct Case {
    p::ErrorCode code;
    int expected;
  };
  for (Case const& c : {Case{p::ErrorCode::PermissionDenied, EPERM}, Case{p::ErrorCode::ReadOnlyProvider, EPERM},
                        Case{p::ErrorCode::FileTooLarge, EFBIG}, Case{p::ErrorCode::NoSpaceLeft, ENOSPC},
                        Case{p::ErrorCode::ResourceNotFound, EIO}, Case{p::ErrorCode::ResourceInUse, EIO},
                        Case{p::ErrorCode::ResourceAlreadyExists, EIO}, Case{p::ErrorCode::Unknown, EIO}}) {
    SCOPED_TRACE(static_cast<int>(c.code));
    h.faults->clear();
    h.faults->failStream(location, wrappers::StreamOperation::Read, c.code);
    auto reading = vfs::openPosixFile(file, "r");
    char buffer[4];
    EXPECT_EQ(reading->fread(buffer, 1, 4), 0u);
    EXPECT_EQ(reading->ferror(), c.expected);
    EXPECT_FALSE(reading->feof());

    h.faults->clear();
    h.faults->failStream(location, wrappers::StreamOperation::Seek, c.code);
    auto seeking = vfs::openPosixFile(file, "r");
    errno = 0;
    EXPECT_EQ(seeking->ftell(), -1);
    EXPECT_EQ(errno, c.expected);
    EXPECT_EQ(seeking->ferror(), 0);
    EXPECT_EQ(seeking->fseek(1, SEEK_SET), c.expected);
    EXPECT_EQ(seeking->ferror(), c.expected);

    h.faults->clear();
    h.faults->failStream(location, wrappers::StreamOperation::Close, c.code);
    auto closing = vfs::openPosixFile(file, "r");
    EXPECT_EQ(closing->fclose(), c.expected);
    EXPECT_EQ(closing->ferror(), 0);
  }
  // A flush failure loses the provider's code on the way through the buffer: EIO.
  h.faults->clear();
  h.faults->failStream(location, wrappers::StreamOperation::Write, p::ErrorCode::NoSpaceLeft);
  auto writing = vfs::openPosixFile(file, "a");
  EXPECT_EQ(writing->fwrite("abc", 1, 3), 3u);
  EXPECT_EQ(writing->fflush(), -1);
  EXPECT_EQ(writing->ferror(), EIO);
  EXPECT_EQ(writing->fclose(), EIO);
  std::string const big(200000, 'b');
  EXPECT_EQ(writing->fwrite(big.data(), 1, big.size()), 0u) << "larger than the buffer: written through at once";
  EXPECT_EQ(writing->ferror(), ENOSPC);
}

INSTANTIATE_ON_EVERY_SCHEME(PosixFiles);

TEST(RawPosixFiles, ForwardToTheCLibraryAndCloseOnlyWhatTheyOwn) {
  EXPECT_EQ(vfs::adaptPosixFile(nullptr, true), nullptr);
  std::FILE* c = std::tmpfile();
  ASSERT_NE(c, nullptr);
  auto borrowed = vfs::adaptPosixFile(c, false);
  EXPECT_EQ(borrowed->rawFile(), c);
  EXPECT_EQ(borrowed->fwrite("hello", 1, 5), 5u);
  EXPECT_EQ(borrowed->fflush(), 0);
  EXPECT_EQ(borrowed->ftell(), 5);
  borrowed->rewind();
  char buffer[8];
  EXPECT_EQ(borrowed->fread(buffer, 1, 8), 5u);
  EXPECT_TRUE(borrowed->feof());
  borrowed->clearerr();
  EXPECT_FALSE(borrowed->feof());
  EXPECT_EQ(borrowed->fseek(1, SEEK_SET), 0);
  EXPECT_EQ(borrowed->ferror(), 0);
  EXPECT_EQ(borrowed->fclose(), 0); // not owned: still open
  EXPECT_EQ(std::fgetc(c), 'e');
  borrowed.reset(); // never closes

  auto owner = vfs::adaptPosixFile(c, true);
  EXPECT_EQ(owner->release(), c);
  EXPECT_EQ(owner->rawFile(), nullptr);
  EXPECT_EQ(owner->fclose(), 0) << "released: no longer owned";
  EXPECT_EQ(vfs::adaptPosixFile(c, true)->fclose(), 0);
}
