#include "harness.hpp"
#include "stream_bytes.hpp"

using namespace harness;
using streambytes::Buffer;
using streambytes::pattern;
using vfs::ErrorCode;

namespace {

p::ByteStreamOpenOptions const readWriteCreate{p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::CreateIfMissing,
                                               p::ByteStreamTruncate::Keep, p::ByteStreamAppend::AtPosition};

std::string readExactly(vfs::BufferedIODevice const& device, std::size_t n) {
  std::string bytes(n, '\0');
  std::streamsize got = device.read(bytes.data(), static_cast<std::streamsize>(n));
  bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
  return bytes;
}

} // namespace

class BufferedDevices : public OnEveryProvider {};

TEST_P(BufferedDevices, WriteAndReadAcrossTheBufferBoundary) {
  vfs::File const file = h.file(u"f");
  std::string const bytes = pattern(3 * Buffer + 5);
  {
    vfs::BufferedIODevice device(file, readWriteCreate);
    EXPECT_EQ(device.write(bytes.data(), 10), 10);
    EXPECT_EQ(device.tell(), 10);
    // Chunks that straddle the boundary, one larger than the buffer.
    std::size_t at = 10;
    for (std::size_t chunk : {Buffer - 20, std::size_t(1), std::size_t(20), Buffer + 7}) {
      device.write(bytes.data() + at, static_cast<std::streamsize>(chunk));
      at += chunk;
    }
    device.write(bytes.data() + at, static_cast<std::streamsize>(bytes.size() - at));
  } // the destructor writes what is pending
  EXPECT_EQ(read(file), bytes);

  vfs::BufferedIODevice device(file);
  EXPECT_EQ(readExactly(device, Buffer - 1), bytes.substr(0, Buffer - 1));
  EXPECT_EQ(readExactly(device, 2), bytes.substr(Buffer - 1, 2));
  EXPECT_EQ(readExactly(device, Buffer + 100), bytes.substr(Buffer + 1, Buffer + 100));
  EXPECT_EQ(readExactly(device, 2 * Buffer), bytes.substr(2 * Buffer + 101)) << "short only at the end";
  char c = 0;
  EXPECT_EQ(device.read(&c, 1), -1);
  EXPECT_EQ(device.read(&c, 1), -1);
}

TEST_P(BufferedDevices, SeekInEveryDirectionWhileReadingAndWriting) {
  vfs::File const file = h.file(u"f");
  std::string const bytes = pattern(2 * Buffer);
  write(file, bytes);
  vfs::BufferedIODevice device(file, readWriteCreate);
  EXPECT_EQ(readExactly(device, 5), bytes.substr(0, 5));
  EXPECT_EQ(device.tell(), 5);
  EXPECT_EQ(device.seek(Buffer + 3, std::ios_base::beg), std::streampos(Buffer + 3));
  EXPECT_EQ(readExactly(device, 4), bytes.substr(Buffer + 3, 4));
  EXPECT_EQ(device.seek(-10, std::ios_base::cur), std::streampos(Buffer - 3));
  EXPECT_EQ(readExactly(device, 6), bytes.substr(Buffer - 3, 6));
  EXPECT_EQ(device.seek(-2, std::ios_base::end), std::streampos(2 * Buffer - 2));
  EXPECT_EQ(readExactly(device, 10), bytes.substr(2 * Buffer - 2));

  // Writes after reads land where the position is; reads after writes see them.
  device.seek(100, std::ios_base::beg);
  device.write("XYZ", 3);
  EXPECT_EQ(readExactly(device, 2), bytes.substr(103, 2));
  device.seek(-5, std::ios_base::cur);
  EXPECT_EQ(readExactly(device, 5), "XYZ" + bytes.substr(103, 2));
  device.seek(0, std::ios_base::end);
  device.write("tail", 4);
  EXPECT_THROW(device.seek(-1, std::ios_base::beg), vfs::IOSeekException);
  device.close(); // an object store shows what a stream wrote only once it closes
  std::string expected = bytes;
  expected.replace(100, 3, "XYZ");
  EXPECT_EQ(read(file), expected + "tail");
}

TEST_P(BufferedDevices, LargeRequestsPassTheBufferWithoutLosingItsPlace) {
  vfs::File const file = h.file(u"f");
  std::string const bytes = pattern(4 * Buffer);
  write(file, bytes);
  vfs::BufferedIODevice device(file, readWriteCreate);
  EXPECT_EQ(readExactly(device, 3), bytes.substr(0, 3));                   // fills the buffer
  EXPECT_EQ(readExactly(device, Buffer + 5), bytes.substr(3, Buffer + 5)); // the rest of it, then the device
  EXPECT_EQ(device.tell(), std::streampos(Buffer + 8));
  EXPECT_EQ(readExactly(device, 2), bytes.substr(Buffer + 8, 2));
  device.seek(0, std::ios_base::cur);
  std::string const big = pattern(Buffer, 7);
  device.write(big.data(), Buffer); // in step with the device: written through
  EXPECT_EQ(readExactly(device, 4), bytes.substr(2 * Buffer + 10, 4));
  device.write("ab", 2);            // a small write after reading ahead lands at the position
  device.write(big.data(), Buffer); // pending output first: through the buffer
  device.close();                   // an object store shows what a stream wrote only once it closes
  std::string expected = bytes;
  expected.replace(Buffer + 10, Buffer, big);
  expected.replace(2 * Buffer + 14, 2, "ab");
  expected.replace(2 * Buffer + 16, Buffer, big);
  EXPECT_EQ(read(file), expected);

  vfs::ifstream stream(file);
  std::string chunk(Buffer, '\0');
  stream.read(chunk.data(), Buffer);
  EXPECT_EQ(chunk, expected.substr(0, Buffer));
  EXPECT_EQ(stream.get(), static_cast<unsigned char>(expected[Buffer]));
  stream.unget();
  EXPECT_EQ(stream.get(), static_cast<unsigned char>(expected[Buffer]));
  EXPECT_EQ(stream.tellg(), std::streampos(Buffer + 1));
}

TEST_P(BufferedDevices, EveryFailureIsAnIOException) {
  vfs::File const file = h.file(u"f");
  write(file, pattern(1000));
  auto const location = file.getLocation().toStorageIRI();

  // Read-only: written bytes wait in the buffer; the provider refuses them at the flush.
  {
    vfs::BufferedIODevice readOnly(file);
    readOnly.write("x", 1);
    EXPECT_THROW(readOnly.flush(), vfs::IOWriteException);
  } // and the destructor does not throw
  EXPECT_EQ(read(file), pattern(1000));

  h.faults->failStream(location, wrappers::StreamOperation::Read, p::ErrorCode::PermissionDenied, "no read");
  try {
    char c;
    vfs::BufferedIODevice(file).read(&c, 1);
    ADD_FAILURE() << "read succeeded";
  } catch (vfs::IOReadException const& failure) {
    EXPECT_EQ(failure.getErrorCode(), ErrorCode::PermissionDenied);
    EXPECT_NE(std::string(failure.what()).find("no read"), std::string::npos);
  }
  h.faults->clear();

  // A write that overflows the buffer reaches the provider at once: its failure keeps its
  // code; a flush reports IOError.
  h.faults->failStream(location, wrappers::StreamOperation::Write, p::ErrorCode::NoSpaceLeft, "full");
  {
    vfs::BufferedIODevice device(file, readWriteCreate);
    std::string const big = pattern(2 * Buffer);
    try {
      device.write(big.data(), static_cast<std::streamsize>(big.size()));
      ADD_FAILURE() << "write succeeded";
    } catch (vfs::IOWriteException const& failure) {
      EXPECT_EQ(failure.getErrorCode(), ErrorCode::NoSpaceLeft);
    }
    vfs::BufferedIODevice small(file, readWriteCreate);
    small.write("abc", 3);
    try {
      small.flush();
      ADD_FAILURE() << "flush succeeded";
    } catch (vfs::IOWriteException const& failure) {
      EXPECT_EQ(failure.getErrorCode(), ErrorCode::IOError);
    }
    // A close whose pending output cannot be written is a failed close; nothing is dropped.
    try {
      small.close();
      ADD_FAILURE() << "pending output was dropped silently";
    } catch (vfs::IOCloseException const& failure) {
      EXPECT_EQ(failure.getErrorCode(), ErrorCode::IOError);
    }
    EXPECT_TRUE(small.is_open());
  }
  h.faults->clear();

  h.faults->failStream(location, wrappers::StreamOperation::Seek, p::ErrorCode::InvalidLocation, "no seek");
  EXPECT_THROW(vfs::BufferedIODevice(file).tell(), vfs::IOSeekException);
  h.faults->clear();

  h.faults->failStream(location, wrappers::StreamOperation::Close, p::ErrorCode::ResourceInUse, "busy");
  vfs::BufferedIODevice closing(file);
  EXPECT_THROW(closing.close(), vfs::IOCloseException);
  EXPECT_TRUE(closing.is_open());
  EXPECT_EQ(readExactly(closing, 3), pattern(3)) << "a failed close leaves the device usable";
}

TEST_P(BufferedDevices, AClosedDeviceClosesAgainQuietlyAndRefusesWork) {
  vfs::File const file = h.file(u"f");
  vfs::BufferedIODevice device(file, readWriteCreate);
  device.write("abc", 3);
  device.close();
  EXPECT_FALSE(device.is_open());
  EXPECT_EQ(read(file), "abc");
  device.close();
  EXPECT_FALSE(device.is_open());
  char c = 0;
  EXPECT_EQ(device.read(&c, 1), -1);
  EXPECT_THROW(device.write("x", 1), vfs::IOWriteException);
  EXPECT_THROW(device.tell(), vfs::IOSeekException);
  EXPECT_NO_THROW(device.flush());

  vfs::IODevice shared(file);
  vfs::BufferedIODevice over(shared);
  EXPECT_EQ(readExactly(over, 3), "abc");
}

INSTANTIATE_ON_EVERY_SCHEME(BufferedDevices);

TEST(BufferedDevicesOnLocalFiles, ReadAndWriteBeyondFourGiB) {
  Harness h = make("file");
  vfs::File const file = h.file(u"sparse");
  file.createFile();
  std::uint64_t const size = 5ull << 30;
  file.truncateToSize(size);
  std::string const tail = pattern(Buffer + 11);
  std::streamoff const at = static_cast<std::streamoff>(size) - static_cast<std::streamoff>(tail.size());
  {
    vfs::BufferedIODevice device(file, readWriteCreate);
    EXPECT_EQ(device.seek(at, std::ios_base::beg), std::streampos(at));
    device.write(tail.data(), static_cast<std::streamsize>(tail.size()));
    EXPECT_EQ(device.tell(), std::streampos(static_cast<std::streamoff>(size)));
  }
  EXPECT_EQ(file.getAttributes().getSize(), size);
  vfs::BufferedIODevice device(file);
  EXPECT_EQ(device.seek(-static_cast<std::streamoff>(tail.size()), std::ios_base::end), std::streampos(at));
  EXPECT_EQ(readExactly(device, tail.size() + 10), tail);
  device.seek(at - 4, std::ios_base::beg);
  EXPECT_EQ(readExactly(device, 6), std::string(4, '\0') + tail.substr(0, 2));

  vfs::ifstream stream(file);
  stream.seekg(at + 1);
  EXPECT_EQ(stream.get(), static_cast<unsigned char>(tail[1]));
  EXPECT_EQ(stream.tellg(), std::streampos(at + 2));
  if (h.cleanup) h.cleanup();
}
