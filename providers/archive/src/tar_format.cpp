#include "archive_format.hpp"

#include "archive_streams.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <archive.h>
#include <archive_entry.h>

#include <boost/date_time/posix_time/conversion.hpp>

#include <algorithm>
#include <map>
#include <mutex>
#include <set>
#include <sys/stat.h>
#include <utility>

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
    archive_.reset(archive_read_new());
    archive_read_support_filter_all(get());
    archive_read_support_format_tar(get());
    archive_read_set_callback_data(get(), this);
    archive_read_set_read_callback(get(), &TarInput::read);
    archive_read_set_skip_callback(get(), &TarInput::skip);
    if (archive_read_open1(get()) != ARCHIVE_OK) raise("not a readable tar archive");
  }
  TarInput(TarInput const&) = delete;
  TarInput& operator=(TarInput const&) = delete;

  ::archive* get() const { return archive_.get(); }

  /// The next header; null at the end of the archive. libarchive's recoverable statuses
  /// are not failures: a warning, and "retry", where it passed over a damaged header (see
  /// takeDamage). A header it cannot get past is.
  archive_entry* next() {
    // A bound on retries, so that an archive that asks again and again cannot loop forever.
    constexpr int mostRetries = 1000;
    for (int attempt = 0;; ++attempt) {
      archive_entry* entry = nullptr;
      int const status = archive_read_next_header(get(), &entry);
      if (status == ARCHIVE_EOF) return nullptr;
      if (status == ARCHIVE_OK || status == ARCHIVE_WARN) return entry;
      if (status != ARCHIVE_RETRY || attempt == mostRetries) raise("the archive is damaged or truncated");
      damage_ = problem();
    }
  }

  /// What damage the last call of next() passed over; empty when none.
  std::string takeDamage() { return std::exchange(damage_, std::string()); }

  /// Whether a failure came from reading the archive file rather than from its contents.
  bool streamFailed() const { return failure_ != nullptr; }
  /// libarchive's account of the last failure.
  std::string problem() const {
    char const* detail = archive_ ? archive_error_string(get()) : nullptr;
    return detail ? detail : "unknown failure";
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
    p::fail(p::ErrorCode::IOError, location_, u"tar.read", what + ": " + problem());
  }

private:
  static la_ssize_t read(::archive*, void* state, void const** buffer) {
    auto& self = *static_cast<TarInput*>(state);
    try {
      *buffer = self.buffer_.data();
      return static_cast<la_ssize_t>(
          self.stream_->read(self.buffer_.data(), static_cast<std::streamsize>(self.buffer_.size())));
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
      auto const skipped =
          std::min<std::uint64_t>(static_cast<std::uint64_t>(request), self.size_ - std::min(position, self.size_));
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
  std::unique_ptr<::archive, int (*)(::archive*)> archive_{nullptr, &archive_read_free};
  std::exception_ptr failure_;
  std::string damage_;
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

/// A decompressor left where the last entry read through it ended, so that reading the
/// entries in archive order (as a walk of the tree does) decompresses the archive once.
struct ParkedInput {
  std::mutex mutex;
  std::unique_ptr<TarInput> input;
  std::uint64_t lastRead = 0; ///< the entry whose header `input` gave last
};

/// An entry of a compressed (or sparse) archive: decompressed up to it, from a parked
/// decompressor that is not past it yet, or from the start.
class CompressedDecoder final : public EntryDecoder {
public:
  CompressedDecoder(p::StorageItem const& file, std::shared_ptr<ParkedInput> parked, std::uint64_t index,
                    std::uint64_t size, bool sparse)
      : parked_(std::move(parked)), index_(index), size_(size), sparse_(sparse) {
    std::uint64_t at = 0;
    {
      std::lock_guard lock(parked_->mutex);
      if (parked_->input && parked_->lastRead < index) {
        input_ = std::move(parked_->input);
        at = parked_->lastRead + 1;
      }
    }
    try {
      if (!input_) input_ = std::make_unique<TarInput>(file);
      for (; at <= index; ++at)
        if (!input_->next())
          p::raise(p::ByteStreamReadFailure("the entry is gone from the archive", p::ErrorCode::IOError));
    } catch (p::Exception const& failure) {
      p::raise(p::ByteStreamReadFailure(failure.what(), failure.getErrorCode()));
    }
  }
  ~CompressedDecoder() override {
    std::lock_guard lock(parked_->mutex);
    parked_->input = std::move(input_);
    parked_->lastRead = index_;
  }

  std::size_t read(char* s, std::size_t n) override {
    // libarchive fills holes between a sparse entry's data with zeros, but not one at its end.
    if (ended_) return padding(s, n);
    // The same bound as for headers: warnings and "retry" are read past.
    constexpr int mostRetries = 1000;
    for (int attempt = 0;; ++attempt) {
      la_ssize_t const got = archive_read_data(input_->get(), s, n);
      if (got > 0) {
        produced_ += static_cast<std::uint64_t>(got);
        return static_cast<std::size_t>(got);
      }
      if (got == 0) {
        ended_ = true;
        return padding(s, n);
      }
      if ((got != ARCHIVE_WARN && got != ARCHIVE_RETRY) || attempt == mostRetries)
        p::raise(p::ByteStreamReadFailure("cannot read the entry: " + input_->problem(), p::ErrorCode::IOError));
    }
  }

private:
  std::size_t padding(char* s, std::size_t n) {
    if (!sparse_ || produced_ >= size_) return 0;
    auto const count = static_cast<std::size_t>(std::min<std::uint64_t>(n, size_ - produced_));
    std::fill_n(s, count, '\0');
    produced_ += count;
    return count;
  }

  std::shared_ptr<ParkedInput> parked_;
  std::unique_ptr<TarInput> input_;
  std::uint64_t index_;
  std::uint64_t size_;
  bool sparse_;
  bool ended_ = false;
  std::uint64_t produced_ = 0;
};

class TarReader final : public ArchiveReader {
public:
  TarReader(p::StorageItem file, std::set<std::uint64_t> sparse) : file_(std::move(file)), sparse_(std::move(sparse)) {}

  std::unique_ptr<p::ByteStream> openEntry(EntryRef const& ref) override {
    p::StorageItem file = file_;
    auto const size = ref.size;
    if (ref.dataOffset) {
      auto const offset = *ref.dataOffset;
      return std::make_unique<EntryStream>(
          [file, offset, size] { return std::make_unique<PlainDecoder>(file, offset, size); }, size);
    }
    auto const index = ref.index;
    bool const sparse = sparse_.count(index) != 0;
    return std::make_unique<EntryStream>(
        [file, parked = parked_, index, size, sparse] {
          return std::make_unique<CompressedDecoder>(file, parked, index, size, sparse);
        },
        size);
  }

private:
  p::StorageItem file_;
  std::set<std::uint64_t> const sparse_; ///< entries with holes
  std::shared_ptr<ParkedInput> parked_ = std::make_shared<ParkedInput>();
};

/// A name as tar would extract it, for finding entries of the same name: without "./"
/// prefixes, repeated or trailing slashes.
std::string normalized(std::string const& name) {
  std::string out;
  std::size_t start = 0;
  while (start < name.size()) {
    std::size_t end = name.find('/', start);
    if (end == std::string::npos) end = name.size();
    std::string_view const segment(name.data() + start, end - start);
    if (!segment.empty() && segment != ".") {
      if (!out.empty()) out += '/';
      out += segment;
    }
    start = end + 1;
  }
  return out;
}

/// What a hard link entry shares: the data of an earlier file, or an earlier link's target.
struct Linkable {
  EntryRef ref;
  bool symlink = false;
  std::string linkTarget;
};

/// The entry of a header, with its problem when it cannot be shown.
RawEntry entryOf(TarInput& input, archive_entry* header, std::uint64_t index,
                 std::map<std::string, Linkable> const& linkable) {
  RawEntry entry;
  // The archive's own encoding where it declares one (pax); raw bytes otherwise, which the
  // tree shows when they are UTF-8.
  char const* utf8 = archive_entry_pathname_utf8(header);
  char const* raw = utf8 ? utf8 : archive_entry_pathname(header);
  entry.name = raw ? raw : "";
  auto const type = archive_entry_filetype(header);
  entry.folder = type == AE_IFDIR;
  entry.symlink = type == AE_IFLNK;
  entry.mode = archive_entry_perm(header) & 07777;
  entry.writable = (entry.mode & S_IWUSR) != 0;
  entry.modified = boost::posix_time::from_time_t(archive_entry_mtime(header)) +
                   boost::posix_time::microseconds(archive_entry_mtime_nsec(header) / 1000);
  auto const text = [](char const* utf8Text, char const* rawText) {
    return std::string(utf8Text ? utf8Text : rawText ? rawText : "");
  };
  if (archive_entry_hardlink(header)) {
    std::string const target = text(archive_entry_hardlink_utf8(header), archive_entry_hardlink(header));
    auto const linked = linkable.find(normalized(target));
    if (linked == linkable.end()) {
      entry.problem = "a hard link to \"" + target + "\", which is no earlier file of the archive";
      return entry;
    }
    entry.ref = linked->second.ref;
    entry.symlink = linked->second.symlink;
    entry.linkTarget = linked->second.linkTarget;
    entry.folder = false;
  } else if (entry.symlink) {
    entry.linkTarget = text(archive_entry_symlink_utf8(header), archive_entry_symlink(header));
    entry.ref = {index, std::nullopt, entry.linkTarget.size()};
  } else if (type == AE_IFREG) {
    entry.ref = {index, std::nullopt, static_cast<std::uint64_t>(archive_entry_size(header))};
    if (archive_filter_code(input.get(), 0) == ARCHIVE_FILTER_NONE)
      entry.ref.dataOffset = static_cast<std::uint64_t>(archive_filter_bytes(input.get(), 0));
  } else if (!entry.folder) {
    entry.problem = "a device, pipe or socket, which has no place among files and folders";
  }
  return entry;
}

class TarFormat final : public ArchiveFormat {
public:
  bool writable() const override { return false; }

  std::shared_ptr<ArchiveReader> open(p::StorageItem const& file, std::vector<RawEntry>& entries) override {
    TarInput input(file);
    std::map<std::string, Linkable> linkable;  // by normalized name, for hard links
    std::map<std::string, std::size_t> latest; // by normalized name: its last entry so far
    std::vector<bool> dropped;                 // folders that a later entry repeats
    std::set<std::uint64_t> sparse;
    std::uint64_t index = 0;
    for (;; ++index) {
      archive_entry* header = nullptr;
      try {
        header = input.next();
      } catch (p::Exception const&) {
        if (index == 0 || input.streamFailed()) throw; // not a tar archive at all, or unreadable
        // Like bsdtar: what came before the damage stays readable.
        RawEntry damage;
        damage.name = "(entry " + std::to_string(index + 1) + " and after)";
        damage.problem = "the archive is damaged here; nothing after it can be read: " + input.problem();
        entries.push_back(std::move(damage));
        dropped.push_back(false);
        break;
      }
      if (auto damage = input.takeDamage(); !damage.empty()) {
        RawEntry skipped;
        skipped.name = "(a damaged header after entry " + std::to_string(index) + ")";
        skipped.problem = "passed over, as bsdtar does; what it held cannot be read: " + damage;
        entries.push_back(std::move(skipped));
        dropped.push_back(false);
      }
      if (!header) break;
      RawEntry entry = entryOf(input, header, index, linkable);
      if (entry.problem.empty() && archive_entry_sparse_count(header) > 0 && !entry.folder && !entry.symlink) {
        sparse.insert(index);
        entry.ref.dataOffset.reset();
      }
      if (entry.problem.empty()) {
        // Tar extracts every entry in turn, so a later one of the same name replaces an
        // earlier one (an update appended with tar -r, say).
        std::string const key = normalized(entry.name);
        auto [earlier, first] = latest.try_emplace(key, entries.size());
        if (!first) {
          RawEntry& previous = entries[earlier->second];
          if (previous.folder && entry.folder)
            dropped[earlier->second] = true;
          else if (previous.problem.empty())
            previous.problem = "a later entry of the same name replaces it";
          earlier->second = entries.size();
        }
        if (!entry.folder) linkable[key] = {entry.ref, entry.symlink, entry.linkTarget};
      }
      entries.push_back(std::move(entry));
      dropped.push_back(false);
    }
    std::size_t kept = 0;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (dropped[i]) continue;
      if (kept != i) entries[kept] = std::move(entries[i]);
      ++kept;
    }
    entries.resize(kept);
    return std::make_shared<TarReader>(file, std::move(sparse));
  }

  void write(p::StorageItem const& file, Tree const&, ArchiveReader*, p::StreamClosePolicy) override {
    p::fail(p::ErrorCode::ReadOnlyProvider, file.getLocation(), u"tar.commit", "tar archives are read only");
  }
};

} // namespace

std::unique_ptr<ArchiveFormat> makeTarFormat() { return std::make_unique<TarFormat>(); }

} // namespace foundation::storage::providers::archive::detail
