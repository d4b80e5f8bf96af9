#pragma once

// Byte streams over objects: ranged reads with read-ahead, uploads (single PUT or
// multipart), and read-write opens through a local temporary file.

#include "s3_objects.hpp"

#include <foundation/storage/provider/byte_stream.hpp>

#include <deque>
#include <future>
#include <memory>

namespace foundation::storage::providers::s3::detail {

class ReadStream final : public provider::ByteStream {
public:
  ReadStream(std::shared_ptr<S3Client> client, provider::StorageIRI location, std::string key, ObjectInfo info);
  ~ReadStream() override;

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose() override;

private:
  void load(std::uint64_t offset);
  std::future<std::string> fetch(std::uint64_t offset) const;

  std::shared_ptr<S3Client> client_;
  provider::StorageIRI location_;
  std::string key_;
  ObjectInfo info_;
  std::uint64_t position_ = 0;
  std::uint64_t bufferStart_ = 0;
  std::string buffer_;
  /// Ranges fetched ahead of a sequential reader, in order, with their offsets.
  std::deque<std::pair<std::uint64_t, std::future<std::string>>> ahead_;
};

/// Writes an object: the bytes stay in memory until there are `partSize` of them, then go
/// out as parts of a multipart upload, several at a time. Commit completes the upload (or
/// sends one PUT); discard and destruction abort it, unless `commitWhenDestroyed`.
/// A commit that must not replace sends its single PUT with If-None-Match; a multipart one
/// completes over a claim (`claimKey`). Once committed, the object makes `parentMarker`
/// (the marker its folder had when it was opened) redundant: it is removed.
class UploadStream final : public provider::TransactionalStream {
public:
  UploadStream(std::shared_ptr<S3Client> client, provider::StorageIRI location, std::string key, bool append,
               bool commitWhenDestroyed, std::optional<std::string> parentMarker);
  ~UploadStream() override;

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose(provider::StreamClosePolicy const& policy) override;

private:
  std::uint64_t end() const noexcept { return sent_ + pending_.size(); }
  void sendFullParts();
  void sendPart(std::string bytes);
  void commit(bool replace);
  void abort() noexcept;

  std::shared_ptr<S3Client> client_;
  provider::StorageIRI location_;
  std::string key_;
  bool append_;
  bool commitWhenDestroyed_;
  std::optional<std::string> parentMarker_;
  std::uint64_t position_ = 0;
  std::uint64_t sent_ = 0; ///< bytes handed to parts
  std::string pending_;
  std::string uploadId_;
  std::deque<std::future<std::string>> inFlight_; ///< ETags of parts being sent
  std::vector<std::string> etags_;
};

/// A read-write view of an object through a local temporary file, uploaded on commit.
class TempFileStream final : public provider::TransactionalStream {
public:
  /// Starts from `existing`'s contents unless `options` truncate; uploads as UploadStream.
  TempFileStream(std::shared_ptr<S3Client> client, provider::StorageIRI location, std::string key,
                 provider::ByteStreamOpenOptions options, std::optional<ObjectInfo> const& existing,
                 bool commitWhenDestroyed, std::optional<std::string> parentMarker);
  ~TempFileStream() override;
  /// Shrinks or zero-extends the contents.
  void resize(std::uint64_t size);

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose(provider::StreamClosePolicy const& policy) override;

private:
  std::uint64_t size() const;
  void upload(provider::StreamClosePolicy policy);
  void release() noexcept;

  std::shared_ptr<S3Client> client_;
  provider::StorageIRI location_;
  std::string key_;
  provider::ByteStreamOpenOptions options_;
  bool commitWhenDestroyed_;
  std::optional<std::string> parentMarker_;
  int fd_ = -1;
  std::uint64_t position_ = 0;
};

} // namespace foundation::storage::providers::s3::detail
