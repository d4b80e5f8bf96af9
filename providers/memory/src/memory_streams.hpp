#pragma once

#include "memory_tree.hpp"

#include <foundation/storage/provider/byte_stream.hpp>

namespace foundation::storage::providers::memory::detail {

/// What an open stream may do.
struct StreamMode {
  bool read = false;
  bool write = false;
  bool append = false;
};

/// A stream on a file node. Works on the node even after the file was removed or the
/// provider destroyed (the tree lives as long as the stream).
class MemoryByteStream final : public p::ByteStream {
public:
  /// `modified`: the file was already changed on opening (truncated).
  MemoryByteStream(std::shared_ptr<Tree> tree, NodePtr file, p::StorageIRI location, StreamMode mode,
                   bool modified = false);

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose() override;

private:
  /// Whether the bytes this stream works on are still the file's (not replaced by a commit
  /// or copy, not removed); only then do writes count against the capacity.
  bool isCurrent() const { return file_->attached && file_->content == data_; }

  std::shared_ptr<Tree> tree_;
  NodePtr file_;
  std::shared_ptr<std::vector<char>> data_; ///< the bytes opened, captured at construction
  p::StorageIRI location_;
  StreamMode mode_;
  std::uint64_t position_ = 0;
  bool modified_;
};

/// A stream on a private buffer that replaces the file's contents on commit, under the
/// tree lock, so readers see the old or the new contents and never a mix.
class MemoryTransactionalStream final : public p::TransactionalStream {
public:
  MemoryTransactionalStream(std::shared_ptr<Tree> tree, p::StorageIRI location, std::vector<char> initial,
                            StreamMode mode, bool mustExist);
  ~MemoryTransactionalStream() override;

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose(p::StreamClosePolicy const& policy) override;

private:
  /// Lands the buffer; without `replace` only where no file is.
  void commit(bool replace);

  std::shared_ptr<Tree> tree_;
  p::StorageIRI location_;
  std::vector<char> buffer_;
  StreamMode mode_;
  bool mustExist_;
  std::uint64_t position_ = 0;
};

} // namespace foundation::storage::providers::memory::detail
