#include "harness.hpp"
#include "stream_bytes.hpp"

#include <algorithm>
#include <iomanip>
#include <iterator>
#include <optional>
#include <sstream>

using namespace harness;
using std::ios_base;
using vfs::ErrorCode;

namespace {

unsigned int bits(ios_base::openmode mode) { return static_cast<unsigned int>(mode); }

std::string const old = "old-contents";

/// What opening with a mode does to an existing file ("old-contents") after writing "NEW",
/// and whether it creates a missing one.
struct ModeRow {
  ios_base::openmode mode;
  bool readOnly;
  std::string afterWrite; ///< for writable modes
  bool createsMissing;
};

ModeRow const modeRows[] = {
    {ios_base::in, true, "", false},
    {ios_base::in | ios_base::trunc, true, "", false},
    {ios_base::out, false, "NEW-contents", false},
    {ios_base::out | ios_base::trunc, false, "NEW", true},
    {ios_base::out | ios_base::app, false, "old-contentsNEW", true},
    {ios_base::app, false, "old-contentsNEW", true},
    {ios_base::in | ios_base::out, false, "NEW-contents", false},
    {ios_base::in | ios_base::out | ios_base::trunc, false, "NEW", true},
    {ios_base::in | ios_base::out | ios_base::app, false, "old-contentsNEW", true},
    {ios_base::in | ios_base::app, false, "old-contentsNEW", true},
};

std::string readStream(std::istream& in) { return std::string(std::istreambuf_iterator<char>(in), {}); }

} // namespace

class FileStreams : public OnEveryProvider {};

TEST_P(FileStreams, OpenEveryModeAsTheTableSays) {
  int n = 0;
  for (ModeRow const& row : modeRows) {
    SCOPED_TRACE("mode " + std::to_string(bits(row.mode)));
    vfs::File const existing = h.file(u"existing" + fl::i18n::to_ustring(std::to_string(n)));
    vfs::File const missing = h.file(u"missing" + fl::i18n::to_ustring(std::to_string(n++)));
    write(existing, old);
    {
      vfs::fstream stream(existing, bits(row.mode));
      ASSERT_TRUE(stream.is_open());
      if (row.readOnly) {
        EXPECT_EQ(readStream(stream), old);
      } else {
        stream << "NEW";
        stream.close();
        EXPECT_TRUE(stream.good());
      }
    }
    EXPECT_EQ(read(existing), row.readOnly ? old : row.afterWrite);
    if (row.createsMissing) {
      vfs::fstream(missing, bits(row.mode)) << "NEW";
      EXPECT_EQ(read(missing), "NEW");
    } else {
      EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, (void)vfs::fstream(missing, bits(row.mode)));
      EXPECT_FALSE(missing.fileExists());
    }
  }
  // Modes that name no access, or both app and trunc, are refused before the provider.
  for (auto mode : {ios_base::openmode{}, ios_base::trunc, ios_base::app | ios_base::trunc,
                    ios_base::out | ios_base::app | ios_base::trunc}) {
    EXPECT_THROW((void)vfs::fstream(h.file(u"refused"), bits(mode)), std::runtime_error);
  }
  EXPECT_FALSE(h.file(u"refused").fileExists());
}

TEST_P(FileStreams, InputAndOutputStreamsAddTheirDirection) {
  vfs::File const file = h.file(u"f.txt");
  write(file, old);
  {
    vfs::ifstream readOnly(file, 0);
    EXPECT_EQ(readStream(readOnly), old);
  }
  {
    vfs::ifstream both(file, bits(ios_base::out)); // in+out: read-write on an existing file
    both.seekg(4);
    EXPECT_EQ(readStream(both), "contents");
  }
  EXPECT_VFS_ERROR(ErrorCode::ResourceNotFound, (void)vfs::ifstream(h.file(u"none"), bits(ios_base::out)));

  vfs::ofstream(file, 0) << "short"; // plain out truncates
  EXPECT_EQ(read(file), "short");
  vfs::ofstream(file, bits(ios_base::app)) << "+more";
  EXPECT_EQ(read(file), "short+more");
  vfs::ofstream(h.file(u"created"), 0) << "x";
  EXPECT_EQ(read(h.file(u"created")), "x");

  vfs::fstream atEnd(file, bits(ios_base::in | ios_base::out | ios_base::ate));
  EXPECT_EQ(atEnd.tellg(), std::streampos(10));
  atEnd << "!";
  atEnd.close();
  EXPECT_EQ(read(file), "short+more!");
  EXPECT_THROW((void)vfs::fstream(file, 0), std::runtime_error);
}

TEST_P(FileStreams, OpeningAnOpenStreamOrClosingAClosedOneOnlySetsFailbit) {
  vfs::File const first = h.file(u"first"), second = h.file(u"second");
  write(first, "1");
  write(second, "2");
  vfs::ifstream stream(first, 0);
  stream.setstate(ios_base::eofbit);
  stream.open(second, 0);
  EXPECT_EQ(stream.rdstate(), ios_base::failbit);
  stream.clear();
  EXPECT_EQ(readStream(stream), "1");

  vfs::ofstream never;
  EXPECT_FALSE(never.is_open());
  EXPECT_TRUE(never.good());
  never.close();
  EXPECT_EQ(never.rdstate(), ios_base::failbit);
  never.clear();
  never.exceptions(ios_base::failbit);
  EXPECT_THROW(never.close(), ios_base::failure);

  // A successful open starts from a fresh state: flags, exception mask, width, fill.
  vfs::fstream reused;
  reused.exceptions(ios_base::badbit);
  reused << std::hex << std::setw(9) << std::setfill('*');
  reused.setstate(ios_base::failbit);
  reused.open(first, bits(ios_base::in));
  EXPECT_TRUE(reused.good());
  EXPECT_EQ(reused.exceptions(), ios_base::goodbit);
  EXPECT_EQ(reused.flags(), ios_base::skipws | ios_base::dec);
  EXPECT_EQ(reused.width(), 0);
  EXPECT_EQ(reused.fill(), ' ');
  reused.close();
  EXPECT_TRUE(reused.good()); // a successful close leaves the state
  EXPECT_FALSE(reused.is_open());
  reused.open(second, bits(ios_base::in));
  EXPECT_EQ(readStream(reused), "2");
}

TEST_P(FileStreams, ReadLinesWordsAndCharactersAcrossTheBuffer) {
  std::string text;
  std::vector<std::string> lines;
  for (int i = 0; text.size() < 3 * streambytes::Buffer; ++i) {
    lines.push_back("line " + std::to_string(i) + std::string(static_cast<std::size_t>(i % 97), 'x'));
    text += lines.back() + "\n";
  }
  vfs::File const file = h.file(u"lines.txt");
  write(file, text);

  vfs::ifstream byLine(file);
  std::vector<std::string> got;
  for (std::string line; std::getline(byLine, line);) got.push_back(line);
  EXPECT_EQ(got, lines);
  EXPECT_TRUE(byLine.eof());

  vfs::ifstream byWord(file);
  std::string word;
  std::size_t words = 0;
  while (byWord >> word) ++words;
  EXPECT_EQ(words, 2 * lines.size()); // "line" and "<i>x..."

  vfs::ifstream byChar(file);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(byChar), {}), text);

  vfs::ofstream numbers(h.file(u"numbers"));
  numbers << 42 << ' ' << 3.5 << '\n';
  numbers.close();
  vfs::ifstream parse(h.file(u"numbers"));
  int whole = 0;
  double fraction = 0;
  parse >> whole >> fraction;
  EXPECT_EQ(whole, 42);
  EXPECT_EQ(fraction, 3.5);
}

TEST_P(FileStreams, CopyAWholeFileToAnotherProvider) {
  Harness other = make(GetParam() == "mem" ? "file" : "mem");
  std::string const bytes = streambytes::pattern(2 * streambytes::Buffer + 17);
  vfs::File const source = h.file(u"source.bin"), target = other.file(u"target.bin");
  write(source, bytes);
  {
    vfs::ifstream in(source, bits(ios_base::binary));
    vfs::ofstream out(target, bits(ios_base::binary));
    std::copy(std::istreambuf_iterator<char>(in), {}, std::ostreambuf_iterator<char>(out));
  }
  EXPECT_EQ(read(target), bytes);
  if (other.cleanup) other.cleanup();
}

TEST_P(FileStreams, FailuresAreExceptionsNeverSilentLoss) {
  vfs::File const file = h.file(u"f");
  write(file, old);
  auto const location = file.getLocation().toStorageIRI();

  // A close failure is thrown with its message and code; the stream stays open.
  h.faults->failStream(location, wrappers::StreamOperation::Close, p::ErrorCode::ResourceInUse, "busy");
  {
    vfs::ifstream in(file);
    try {
      in.close();
      ADD_FAILURE() << "close succeeded";
    } catch (vfs::IOCloseException const& failure) {
      EXPECT_EQ(failure.getErrorCode(), ErrorCode::ResourceInUse);
      EXPECT_NE(std::string(failure.what()).find("busy"), std::string::npos);
    }
    EXPECT_TRUE(in.is_open());
    EXPECT_EQ(readStream(in), old);
  } // the destructor swallows the same failure
  h.faults->clear();

  // Output that cannot be written when the stream closes is reported, not dropped.
  h.faults->failStream(location, wrappers::StreamOperation::Write, p::ErrorCode::NoSpaceLeft);
  vfs::ofstream out(file, bits(ios_base::app));
  out << "pending";
  EXPECT_TRUE(out.good());
  EXPECT_THROW(out.close(), vfs::IOCloseException);
  EXPECT_TRUE(out.is_open());

  // A read failure makes the standard stream bad, and rethrows when asked to.
  h.faults->clear();
  h.faults->failStream(location, wrappers::StreamOperation::Read, p::ErrorCode::IOError, "unreadable");
  vfs::ifstream in(file);
  std::string line;
  EXPECT_FALSE(std::getline(in, line));
  EXPECT_TRUE(in.bad());
  vfs::ifstream loud(file);
  loud.exceptions(ios_base::badbit);
  EXPECT_THROW(std::getline(loud, line), vfs::IOReadException);
}

TEST_P(FileStreams, AClosedStreamReadsNothingAndWritesNothing) {
  vfs::File const file = h.file(u"f");
  write(file, streambytes::pattern(1000));
  vfs::fstream stream(file, bits(ios_base::in | ios_base::out));
  char buffer[10];
  stream.read(buffer, 10); // leaves the get area holding the file's buffer
  stream.close();
  EXPECT_FALSE(stream.is_open());
  EXPECT_EQ(stream.get(), std::char_traits<char>::eof());
  stream.clear();
  stream << "x" << std::flush;
  EXPECT_TRUE(stream.bad());
  stream.clear();
  EXPECT_EQ(stream.tellg(), std::streampos(-1));
  EXPECT_EQ(read(file), streambytes::pattern(1000));
}

namespace {

/// What a stream answers to `unget(); get();` and where it then stands.
struct AfterUnget {
  ios_base::iostate afterUnget;
  int got;
  std::streamoff tellg;
  std::streamoff afterClear; ///< tellg once the state is cleared
  bool operator==(AfterUnget const&) const = default;
};

std::ostream& operator<<(std::ostream& os, AfterUnget const& a) {
  return os << "{state " << a.afterUnget << ", got " << a.got << ", tellg " << a.tellg << ", after clear "
            << a.afterClear << "}";
}

AfterUnget ungetAndGet(vfs::fstream& stream) {
  AfterUnget after{};
  stream.unget();
  after.afterUnget = stream.rdstate();
  after.got = stream.get();
  after.tellg = stream.tellg();
  stream.clear();
  after.afterClear = stream.tellg();
  return after;
}

/// Reads or writes `n` bytes at once, or in pieces that each go through the buffer.
void readBytes(vfs::fstream& stream, std::size_t n, bool inPieces) {
  std::string into(n, '\0');
  std::size_t const piece = inPieces ? streambytes::Buffer / 4 : n;
  for (std::size_t done = 0; done < n; done += piece)
    stream.read(into.data() + done, static_cast<std::streamsize>(std::min(piece, n - done)));
}
void writeBytes(vfs::fstream& stream, std::string const& bytes, bool inPieces) {
  std::size_t const piece = inPieces ? streambytes::Buffer / 4 : bytes.size();
  for (std::size_t done = 0; done < bytes.size(); done += piece)
    stream.write(bytes.data() + done, static_cast<std::streamsize>(std::min(piece, bytes.size() - done)));
}

} // namespace

TEST_P(FileStreams, LargeRequestsLeaveThePutBackAreaAsBufferedOnesWould) {
  using streambytes::Buffer;
  std::string const bytes = streambytes::pattern(4 * Buffer);
  std::string const big = streambytes::pattern(Buffer + 7, 100);
  int n = 0;
  // Each sequence runs with requests of the buffer's size or more, which pass the buffer, and
  // with the same requests in pieces, which go through it: the stream must answer the same.
  auto both = [&](auto const& sequence) {
    AfterUnget outcome[2];
    std::string contents[2];
    for (bool inPieces : {false, true}) {
      vfs::File const file = h.file(u"f" + fl::i18n::to_ustring(std::to_string(n++)));
      write(file, bytes);
      {
        vfs::fstream stream(file, bits(ios_base::in | ios_base::out));
        outcome[inPieces] = sequence(stream, inPieces);
      }
      contents[inPieces] = read(file);
    }
    EXPECT_EQ(outcome[0], outcome[1]);
    EXPECT_EQ(contents[0], contents[1]);
    return outcome[0];
  };

  // A large write after reading to the end of the buffered data: the bytes read before are
  // no longer where the stream stands.
  both([&](vfs::fstream& stream, bool inPieces) {
    stream.get(); // fills the buffer
    readBytes(stream, Buffer - 1, false);
    writeBytes(stream, big, inPieces);
    return ungetAndGet(stream);
  });
  // A large read, from the start and from inside the buffered data: the last byte read can
  // be put back.
  for (std::size_t before : {0, 3}) {
    SCOPED_TRACE("after reading " + std::to_string(before));
    AfterUnget const after = both([&](vfs::fstream& stream, bool inPieces) {
      readBytes(stream, before, false);
      readBytes(stream, Buffer + 5, inPieces);
      return ungetAndGet(stream);
    });
    std::streamoff const end = static_cast<std::streamoff>(before + Buffer + 5);
    EXPECT_EQ(after, (AfterUnget{ios_base::goodbit, static_cast<unsigned char>(bytes[end - 1]), end, end}));
  }
}

INSTANTIATE_ON_EVERY_SCHEME(FileStreams);
