#pragma once

#include "local_support.hpp"
#include "temporary_files.hpp"
#include "unique_fd.hpp"

#include <foundation/storage/provider/byte_stream.hpp>

namespace foundation::storage::providers::local::detail {

/// A stream on an open file descriptor. Appending is the descriptor's own (O_APPEND).
class LocalByteStream final : public p::ByteStream {
public:
  LocalByteStream(UniqueFd fd, bool canRead, bool canWrite);
  int descriptor() const noexcept { return fd_.get(); }

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose() override;

private:
  UniqueFd fd_;
  bool canRead_;
  bool canWrite_;
};

/// Writes a temporary file in the target's folder; commit makes it durable and lands it at
/// the target (keeping the target's permissions; see commitTemporaryFile), so readers see
/// the old or the new contents, never a mix. Discard, or destruction unclosed, removes the
/// temporary file.
class LocalTransactionalStream final : public p::TransactionalStream {
public:
  LocalTransactionalStream(UniqueFd folder, std::string targetName, UniqueFd temporary, std::string temporaryName,
                           p::StorageIRI location, SyncCall sync, bool canRead, bool mustExist);
  ~LocalTransactionalStream() override;

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose(p::StreamClosePolicy const& policy) override;

private:
  void commit(bool replace);
  void discard() noexcept;

  UniqueFd folder_;
  std::string targetName_;
  LocalByteStream temporary_;
  std::string temporaryName_; ///< empty while the temporary file has no name
  p::StorageIRI location_;
  SyncCall sync_;
  bool mustExist_;
};

} // namespace foundation::storage::providers::local::detail
