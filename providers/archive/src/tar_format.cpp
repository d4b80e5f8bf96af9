#include "archive_format.hpp"

#include "archive_streams.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <archive.h>
#include <archive_entry.h>

#include <boost/date_time/posix_time/conversion.hpp>

#include <algorithm>
#include <map>
#include <sys/stat.h>

namespace foundation::storage::providers::archive::detail {

namespace {

/// libarchive reading a tar file through a fresh read-only stream of it. Stream failures
/// caught in the callbacks are kept and rethrown (they must not cross libarchive's frames).
class TarInput {
public:
  explicit TarInput(p::StorageItem const& file) : location_(file.getLocation()), buffer_(1 << 16) {
    try {
      stream_ = file.openReadOnlyStream();
      size_ = static_cast<std::uint64_t>(stream_->seek(0, std::ios_base::end));
      stream_->seek(0, std::ios_base::beg);
    } catch (p::ByteStreamFailure const& e) {
      p::fail(e.getErrorCode(), location_, u"tar.open", e.what());
    }
    archive_ = archive_read_new();
    archive_read_support_filter_all(archive_);
    archive_read_support_format_tar(archive_);
    archive_read_set_callback_data(archive_, this);
    archive_read_set_read_callback(archive_, &TarInput::read);
    archive_read_set_skip_callback(archive_, &TarInput::skip);
    if (archive_read_open1(archive_) != ARCHIVE_OK) {
      std::string const what = "not a readable tar archive";
      archive_read_free(archive_);
      archive_ = nullptr;
      raise(what);
    }
  }
  ~TarInput() {
    if (archive_) archive_read_free(archive_);
  }
  TarInput(TarInput const&) = delete;
  TarInput& operator=(TarInput const&) = delete;

  ::archive* get() const { return archive_; }

  /// The next header; null at the end of the archive.
  archive_entry* next() {
    archive_entry* entry = nullptr;
    int const status = archive_read_next_header(archive_, &entry);
    if (status == ARCHIVE_EOF) return nullptr;
    if (status != ARCHIVE_OK && status != ARCHIVE_WARN) raise("the archive is damaged or truncated");
    return entry;
  }

  /// Rethrows what a callback caught, or fails with libarchive's message.
  [[noreturn]] void raise(std::string const& what) const {
    if (failure_) {
      try {
        std::rethrow_exception(failure_);
      } catch (p::Exception& e) {
        throw e.addExceptionContext(p::ExceptionContext(u"tar.read", what));
      } catch (p::ByteStreamFailure const& e) {
        p::fail(e.getErrorCode(), location_, u"tar.read", what + ": " + e.what());
      }
    }
    char const* detail = archive_ ? archive_error_string(archive_) : nullptr;
    p::fail(p::ErrorCode::IOError, location_, u"tar.read", what + (detail ? std::string(": ") + detail : std::string()));
  }

private:
  static la_ssize_t read(::archive*, void* state, void const** buffer) {
    auto& self = *static_cast<TarInput*>(state);
    try {
      *buffer = self.buffer_.data();
      return static_cast<la_ssize_t>(self.stream_->read(self.buffer_.data(), static_cast<std::streamsize>(self.buffer_.size())));
    } catch (...) {
      self.failure_ = std::current_exception();
      return ARCHIVE_FATAL;
    }
  }
  static la_int64_t skip(::archive*, void* state, la_int64_t request) {
    auto& self = *static_cast<TarInput*>(state);
    try {
      // Never past the end, so that a truncated archive shows as one.
      auto const position = static_cast<std::uint64_t>(self.stream_->seek(0, std::ios_base::cur));
      auto const skipped = std::min<std::uint64_t>(static_cast<std::uint64_t>(request), self.size_ - std::min(position, self.size_));
      self.stream_->seek(static_cast<std::streamoff>(skipped), std::ios_base::cur);
      return static_cast<la_int64_t>(skipped);
    } catch (...) {
      return 0; // libarchive reads over what it cannot skip
    }
  }

  p::StorageIRI location_;
  std::unique_ptr<p::ByteStream> stream_;
  std::uint64_t size_ = 0;
  std::vector<char> buffer_;
  ::archive* archive_ = nullptr;
  std::exception_ptr failure_;
};

/// An entry of an uncompressed archive: its bytes, read in place.
class PlainDecoder final : public EntryDecoder {
public:
  PlainDecoder(p::StorageItem const& file, std::uint64_t offset, std::uint64_t size)
      : stream_(file.openReadOnlyStream()), offset_(offset), size_(size) {
    stream_->seek(static_cast<std::streamoff>(offset_), std::ios_base::beg);
  }
  std::size_t read(char* s, std::size_t n) override {
    auto const want = static_cast<std::streamsize>(std::min<std::uint64_t>(n, size_ - position_));
    auto const got = want > 0 ? static_cast<std::size_t>(stream_->read(s, want)) : 0;
    position_ += got;
    return got;
  }
  bool seekTo(std::uint64_t position) override {
    stream_->seek(static_cast<std::streamoff>(offset_ + position), std::ios_base::beg);
    position_ = position;
    return true;
  }

private:
  std::unique_ptr<p::ByteStream> stream_;
  std::uint64_t offset_;
  std::uint64_t size_;
  std::uint64_t position_ = 0;
};

/// An entry of a compressed archive: decompressed from the start up to it.
class CompressedDecoder final : public EntryDecoder {
public:
  CompressedDecoder(p::StorageItem const& file, std::uint64_t index) : input_(file) {
    for (std::uint64_t i = 0; i <= index; ++i)
      if (!input_.next()) p::raise(p::ByteStreamReadFailure("the entry is gone from the archive", p::ErrorCode::IOError));
  }
  std::size_t read(char* s, std::size_t n) override {
    la_ssize_t const got = archive_read_data(input_.get(), s, n);
    if (got < 0) {
      char const* detail = archive_error_string(input_.get());
      p::raise(p::ByteStreamReadFailure(std::string("cannot read the entry: ") + (detail ? detail : "unknown failure"),
                                     p::ErrorCode::IOError));
    }
    return static_cast<std::size_t>(got);
  }

private:
  TarInput input_;
};

class TarReader final : public ArchiveReader {
public:
  explicit TarReader(p::StorageItem file) : file_(std::move(file)) {}

  std::unique_ptr<p::ByteStream> openEntry(EntryRef const& ref) override {
    p::StorageItem file = file_;
    if (ref.dataOffset) {
      auto const offset = *ref.dataOffset;
      auto const size = ref.size;
      return std::make_unique<EntryStream>(
          [file, offset, size] { return std::make_unique<PlainDecoder>(file, offset, size); }, size);
    }
    auto const index = ref.index;
    return std::make_unique<EntryStream>([file, index] { return std::make_unique<CompressedDecoder>(file, index); },
                                         ref.size);
  }

private:
  p::StorageItem file_;
};

class TarFormat final : public ArchiveFormat {
public:
  bool writable() const override { return false; }

  std::shared_ptr<ArchiveReader> open(p::StorageItem const& file, std::vector<RawEntry>& entries) override {
    TarInput input(file);
    std::map<std::string, EntryRef> files; // for hard links, which share an earlier file's data
    std::uint64_t index = 0;
    for (archive_entry* header; (header = input.next()); ++index) {
      bool const plain = archive_filter_code(input.get(), 0) == ARCHIVE_FILTER_NONE;
      char const* utf8 = archive_entry_pathname_utf8(header);
      char const* raw = utf8 ? utf8 : archive_entry_pathname(header);
      if (!raw) continue;
      RawEntry entry;
      entry.name = raw;
      auto const type = archive_entry_filetype(header);
      entry.folder = type == AE_IFDIR;
      entry.symlink = type == AE_IFLNK;
      entry.mode = archive_entry_perm(header) & 07777;
      entry.writable = (entry.mode & S_IWUSR) != 0;
      entry.modified = boost::posix_time::from_time_t(archive_entry_mtime(header)) +
                       boost::posix_time::microseconds(archive_entry_mtime_nsec(header) / 1000);
      if (char const* target = archive_entry_hardlink(header)) {
        auto linked = files.find(target);
        if (linked == files.end()) continue; // a link to nothing readable
        entry.ref = linked->second;
      } else if (type == AE_IFREG) {
        entry.ref = {index, std::nullopt, static_cast<std::uint64_t>(archive_entry_size(header))};
        if (plain && archive_entry_sparse_count(header) == 0)
          entry.ref.dataOffset = static_cast<std::uint64_t>(archive_filter_bytes(input.get(), 0));
        files[entry.name] = entry.ref;
      } else if (!entry.folder && !entry.symlink) {
        continue; // devices and pipes have no place in a folder view
      }
      entries.push_back(std::move(entry));
    }
    return std::make_shared<TarReader>(file);
  }

  void write(p::StorageItem const& file, Tree const&, ArchiveReader*, p::StreamClosePolicy) override {
    p::fail(p::ErrorCode::ReadOnlyProvider, file.getLocation(), u"tar.commit", "tar archives are read only");
  }
};

} // namespace

std::unique_ptr<ArchiveFormat> makeTarFormat() { return std::make_unique<TarFormat>(); }

} // namespace foundation::storage::providers::archive::detail
