#pragma once

// libzip over the outer provider's byte streams.

#include "archive_format.hpp"

#include <zip.h>

#include <exception>
#include <mutex>

namespace foundation::storage::providers::archive::detail {

/// Turns a stream failure caught inside a libzip callback into libzip's error, keeping
/// the original to rethrow once libzip returns (exceptions must not cross libzip's frames).
struct CallbackFailure {
  CallbackFailure() { zip_error_init(&error); }
  ~CallbackFailure() { zip_error_fini(&error); }
  CallbackFailure(CallbackFailure const&) = delete;
  CallbackFailure& operator=(CallbackFailure const&) = delete;

  zip_int64_t caught(int zipCode) noexcept {
    failure = std::current_exception();
    zip_error_set(&error, zipCode, EIO);
    return -1;
  }
  /// Rethrows what a callback caught, or fails with libzip's message.
  [[noreturn]] void raise(p::StorageIRI const& location, std::u16string key, std::string const& what,
                          zip_error_t* libzipError) const;

  zip_error_t error;
  std::exception_ptr failure;
};

/// An archive opened for reading through a read-only stream of its file. libzip objects
/// are not thread-safe: every call on them holds `mutex`.
class ZipReader final : public ArchiveReader, public std::enable_shared_from_this<ZipReader> {
public:
  /// Opens the archive and lists its entries.
  ZipReader(p::StorageItem file, std::vector<RawEntry>& entries);
  ~ZipReader() override;

  std::unique_ptr<p::ByteStream> openEntry(EntryRef const& ref) override;
  /// The entry at `index` as reading shows it. Under `mutex`.
  RawEntry entry(std::uint64_t index);
  /// The archive file's size.
  std::uint64_t fileSize() const { return size_; }
  /// Exactly `n` bytes of the archive file from `offset`, as they are. Under `mutex`.
  void readBytes(std::uint64_t offset, char* data, std::size_t n);

  std::mutex mutex;
  zip_t* archive = nullptr; ///< null for an empty file

private:
  static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command);

  p::StorageItem file_;
  std::unique_ptr<p::ByteStream> stream_;
  std::uint64_t size_ = 0;
  std::uint64_t position_ = 0;
  CallbackFailure failure_;
};

/// Writes a new archive holding `tree` through a transactional stream of `file`; entries
/// still unchanged are copied from `previous` without recompressing.
void writeZip(p::StorageItem const& file, Tree const& tree, ZipReader* previous, p::StreamClosePolicy landing);

} // namespace foundation::storage::providers::archive::detail
