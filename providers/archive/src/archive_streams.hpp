#pragma once

// Byte streams over the files of an archive: data written in this change set, and
// entries read from the archive.

#include "archive_tree.hpp"

#include <foundation/storage/provider/byte_stream.hpp>

#include <functional>
#include <memory>
#include <mutex>

namespace foundation::storage::providers::archive::detail {

struct StreamMode {
  bool read = false;
  bool write = false;
  bool append = false;
};

/// A stream over contents shared with the tree, under the archive's lock; `closed` runs
/// after the last write (with true when something was written).
class ContentStream final : public p::ByteStream {
public:
  ContentStream(std::shared_ptr<Content> content, std::shared_ptr<std::mutex> lock, StreamMode mode,
                std::function<void(bool wrote)> closed);
  ~ContentStream() override;

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose() override;

private:
  std::shared_ptr<Content> content_;
  std::shared_ptr<std::mutex> lock_;
  StreamMode mode_;
  std::function<void(bool)> closed_;
  std::uint64_t position_ = 0;
  bool wrote_ = false;
};

/// A stream over a private content whose bytes `commit` receives on a committing close, with
/// whether an existing file may be replaced.
class TransactionalContentStream final : public p::TransactionalStream {
public:
  using Commit = std::function<void(std::shared_ptr<Content>, bool replace)>;
  TransactionalContentStream(std::shared_ptr<Content> initial, StreamMode mode, Commit commit);

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose(p::StreamClosePolicy const& policy) override;

private:
  std::shared_ptr<Content> content_;
  StreamMode mode_;
  Commit commit_;
  std::uint64_t position_ = 0;
};

/// An entry's data from its start on, as a format decodes it.
class EntryDecoder {
public:
  virtual ~EntryDecoder() = default;
  /// Up to `n` bytes; 0 at the end. Failures are ByteStreamReadFailure.
  virtual std::size_t read(char* s, std::size_t n) = 0;
  /// Moves straight to `position` when the format can; false when it cannot.
  virtual bool seekTo(std::uint64_t /*position*/) { return false; }
};

/// A read-only stream over an entry: seeks move straight where the decoder can, else by
/// decoding forward (from a fresh decoder when going back). Data beyond or short of the
/// declared size fails the read, so an entry that lies about its size is caught.
class EntryStream final : public p::ByteStream {
public:
  EntryStream(std::function<std::unique_ptr<EntryDecoder>()> open, std::uint64_t declaredSize);

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose() override;

private:
  void moveTo(std::uint64_t target);

  std::function<std::unique_ptr<EntryDecoder>()> open_;
  std::unique_ptr<EntryDecoder> decoder_;
  std::uint64_t declaredSize_;
  std::uint64_t decoded_ = 0;  ///< the decoder's position
  std::uint64_t position_ = 0; ///< the stream's position; may lie beyond `decoded_` until the next read
};

} // namespace foundation::storage::providers::archive::detail
