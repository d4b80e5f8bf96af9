#pragma once

#include <foundation/core/visibility.hpp>

#include <vfs/file.hpp>
#include <vfs/stream_buffer.hpp>

#include <istream>
#include <ostream>

namespace foundation::storage::vfs {

namespace detail {

/// Which standard stream a file stream is: it decides the bits added to the caller's mode.
enum class StreamDirection { Both, Input, Output };

/// Opens `file` with the stream's effective mode and attaches it to `buffer`; failures are
/// thrown (translated), never turned into stream state.
FOUNDATION_API void openFileStream(StreamBuffer& buffer, File const& file, unsigned int mode,
                                   StreamDirection direction);
FOUNDATION_API bool isFileStreamOpen(StreamBuffer const& buffer);
/// Writes pending output and closes the file; failures are thrown (translated) and leave
/// the stream open.
FOUNDATION_API void closeFileStream(StreamBuffer& buffer);

/// What the three file streams share. The stream buffer lives as long as the stream; the
/// stream is open while a file is attached to it.
template <class Standard, StreamDirection Direction>
class FileStream : public Standard {
public:
  FileStream() : Standard(nullptr), buffer_(makeStreamBuffer()) { this->init(standardBuffer(*buffer_)); }
  FileStream(File const& file, unsigned int mode) : Standard(nullptr), buffer_(makeStreamBuffer()) {
    openFileStream(*buffer_, file, mode, Direction);
    this->init(standardBuffer(*buffer_));
  }
  FileStream(FileStream const&) = delete;
  FileStream& operator=(FileStream const&) = delete;
  /// Closes an open stream and swallows any failure.
  ~FileStream() override {
    try {
      if (is_open()) close();
    } catch (...) {
      // A destructor reports nothing.
    }
  }

  /// On an open stream: the state becomes exactly `failbit` and nothing else happens.
  /// Otherwise opens and resets the whole stream state, as if newly constructed.
  void open(File const& file, unsigned int mode) {
    if (is_open()) {
      this->clear(std::ios_base::failbit);
      return;
    }
    openFileStream(*buffer_, file, mode, Direction);
    this->init(standardBuffer(*buffer_));
  }
  /// On a closed stream: the state becomes exactly `failbit`. A failure to write pending
  /// output or to close is thrown (IOCloseException, unless the provider's failure says
  /// more) and the stream stays open.
  void close() {
    if (!is_open()) {
      this->clear(std::ios_base::failbit);
      return;
    }
    closeFileStream(*buffer_);
  }
  bool is_open() const { return isFileStreamOpen(*buffer_); }
  std::streambuf* rdbuf() const { return standardBuffer(*buffer_); }

private:
  OwnedStreamBuffer buffer_;
};

} // namespace detail

/// A `std::iostream` on a `File`, opened with the mode as given (`in`, `out`, `app`,
/// `trunc`, `ate`; `binary` changes nothing). Plain `out` requires an existing file and
/// keeps its contents.
class FOUNDATION_API fstream : public detail::FileStream<std::iostream, detail::StreamDirection::Both> {
public:
  using FileStream::FileStream;
  fstream() = default;
  explicit fstream(File const& file) : FileStream(file, std::ios_base::in | std::ios_base::out) {}
};

/// A `std::istream` on a `File`; `in` is added to the mode (with `out` the file is opened
/// read-write and must exist).
class FOUNDATION_API ifstream : public detail::FileStream<std::istream, detail::StreamDirection::Input> {
public:
  using FileStream::FileStream;
  ifstream() = default;
  explicit ifstream(File const& file) : FileStream(file, std::ios_base::in) {}
};

/// A `std::ostream` on a `File`; `out` is added to the mode, and plain `out` also
/// truncates (creating a missing file).
class FOUNDATION_API ofstream : public detail::FileStream<std::ostream, detail::StreamDirection::Output> {
public:
  using FileStream::FileStream;
  ofstream() = default;
  explicit ofstream(File const& file) : FileStream(file, std::ios_base::out) {}
};

} // namespace foundation::storage::vfs
