#include "zip_format.hpp"

#include "archive_streams.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <boost/date_time/posix_time/conversion.hpp>

#include <sys/stat.h>

namespace foundation::storage::providers::archive::detail {

namespace {

/// A read failure with libzip's reason: what the archive uses and libzip cannot decode
/// (encryption, a compression method) is UnsupportedOperation, anything else IOError.
[[noreturn]] void failRead(std::string const& what, zip_error_t* error) {
  switch (zip_error_code_zip(error)) {
  case ZIP_ER_NOPASSWD:
  case ZIP_ER_WRONGPASSWD:
  case ZIP_ER_ENCRNOTSUPP:
  case ZIP_ER_COMPNOTSUPP:
    p::raise(p::ByteStreamReadFailure(what + ": " + zip_error_strerror(error), p::ErrorCode::UnsupportedOperation));
  default: p::raise(p::ByteStreamReadFailure(what + ": " + zip_error_strerror(error), p::ErrorCode::IOError));
  }
}

/// An entry's data as libzip decodes it (inflating, checking the CRC at the end).
class ZipEntryDecoder final : public EntryDecoder {
public:
  ZipEntryDecoder(std::shared_ptr<ZipReader> reader, std::uint64_t index) : reader_(std::move(reader)) {
    std::lock_guard lock(reader_->mutex);
    zip_stat_t st;
    if (zip_stat_index(reader_->archive, index, 0, &st) == 0)
      stored_ = st.comp_method == ZIP_CM_STORE && st.encryption_method == ZIP_EM_NONE;
    file_ = zip_fopen_index(reader_->archive, index, 0);
    if (!file_) failRead("cannot open the entry", zip_get_error(reader_->archive));
  }
  ~ZipEntryDecoder() override {
    std::lock_guard lock(reader_->mutex);
    zip_fclose(file_);
  }

  std::size_t read(char* s, std::size_t n) override {
    std::lock_guard lock(reader_->mutex);
    zip_int64_t const got = zip_fread(file_, s, n);
    if (got < 0) failRead("cannot read the entry", zip_file_get_error(file_));
    return static_cast<std::size_t>(got);
  }

  bool seekTo(std::uint64_t position) override {
    if (!stored_) return false;
    std::lock_guard lock(reader_->mutex);
    return zip_fseek(file_, static_cast<zip_int64_t>(position), SEEK_SET) == 0;
  }

private:
  std::shared_ptr<ZipReader> reader_;
  zip_file_t* file_ = nullptr;
  bool stored_ = false;
};

class ZipFormat final : public ArchiveFormat {
public:
  bool writable() const override { return true; }
  std::shared_ptr<ArchiveReader> open(p::StorageItem const& archive, std::vector<RawEntry>& entries) override {
    return std::make_shared<ZipReader>(archive, entries);
  }
  void write(p::StorageItem const& archive, Tree const& tree, ArchiveReader* previous,
             p::StreamClosePolicy landing) override {
    writeZip(archive, tree, static_cast<ZipReader*>(previous), landing);
  }
};

/// A symbolic link's target: the entry's data. Empty, with `problem` set, when it cannot be read.
std::string linkTargetAt(zip_t* archive, zip_uint64_t index, zip_uint64_t size, std::string& problem) {
  constexpr zip_uint64_t longestTarget = 4096; // PATH_MAX
  if (size > longestTarget) {
    problem = "a symbolic link whose target is longer than a path can be";
    return {};
  }
  std::string target(size, '\0');
  zip_file_t* file = zip_fopen_index(archive, index, 0);
  zip_int64_t const got = file ? zip_fread(file, target.data(), size) : -1;
  if (got != static_cast<zip_int64_t>(size))
    problem = std::string("the target of this symbolic link cannot be read: ") +
              (file ? zip_file_strerror(file) : zip_strerror(archive));
  if (file) zip_fclose(file);
  return problem.empty() ? target : std::string();
}

RawEntry entryAt(zip_t* archive, zip_uint64_t index) {
  RawEntry entry;
  zip_stat_t st;
  // Names as unzip and bsdtar show them: UTF-8 when the entry is flagged so or carries a
  // Unicode path field, or when its bytes are valid UTF-8 (what Unix tools write unflagged);
  // otherwise code page 437, the format's own, which decodes every byte.
  if (zip_stat_index(archive, index, ZIP_FL_ENC_GUESS, &st) != 0 || !(st.valid & ZIP_STAT_NAME)) {
    entry.problem = std::string("the entry cannot be read: ") + zip_strerror(archive);
    return entry;
  }
  entry.name = st.name;
  entry.folder = !entry.name.empty() && entry.name.back() == '/';
  entry.modified = boost::posix_time::from_time_t(st.mtime);
  entry.ref = {index, std::nullopt, st.size};
  zip_uint8_t system = 0;
  zip_uint32_t attributes = 0;
  if (zip_file_get_external_attributes(archive, index, 0, &system, &attributes) != 0) attributes = 0;
  auto const mode = system == ZIP_OPSYS_UNIX ? attributes >> 16 : 0;
  if ((mode & S_IFMT) != 0) {
    entry.folder = entry.folder || S_ISDIR(mode);
    entry.symlink = S_ISLNK(mode);
    if (!entry.folder && !entry.symlink && !S_ISREG(mode))
      entry.problem = "a device, pipe or socket, which has no place among files and folders";
  } else if ((attributes & 0x10) != 0) {
    entry.folder = true; // the DOS folder attribute, also where Unix tools keep no type
  }
  if (mode != 0) {
    entry.mode = mode & 07777;
    entry.writable = (mode & S_IWUSR) != 0;
  } else {
    entry.writable = (attributes & 0x01) == 0; // the DOS read-only attribute
  }
  if (entry.folder) entry.ref.size = 0;
  if (entry.symlink) entry.linkTarget = linkTargetAt(archive, index, st.size, entry.problem);
  return entry;
}

} // namespace

void CallbackFailure::raise(p::StorageIRI const& location, std::u16string key, std::string const& what,
                            zip_error_t* libzipError) const {
  if (failure) {
    try {
      std::rethrow_exception(failure);
    } catch (p::Exception& e) {
      throw e.addExceptionContext(p::ExceptionContext(std::move(key), what));
    } catch (p::ByteStreamFailure const& e) {
      p::fail(e.getErrorCode(), location, std::move(key), what + ": " + e.what());
    }
  }
  p::fail(p::ErrorCode::IOError, location, std::move(key), what + ": " + zip_error_strerror(libzipError));
}

ZipReader::ZipReader(p::StorageItem file, std::vector<RawEntry>& entries) : file_(std::move(file)) {
  try {
    stream_ = file_.openReadOnlyStream();
    size_ = static_cast<std::uint64_t>(stream_->seek(0, std::ios_base::end));
    stream_->seek(0, std::ios_base::beg);
  } catch (p::ByteStreamFailure const& e) {
    p::fail(e.getErrorCode(), file_.getLocation(), u"zip.open", e.what());
  }
  if (size_ == 0) return; // an empty file is an empty archive
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* source = zip_source_function_create(&ZipReader::callback, this, &error);
  archive = source ? zip_open_from_source(source, ZIP_RDONLY, &error) : nullptr;
  if (!archive) {
    if (source) zip_source_free(source);
    std::string const what = "not a readable zip archive";
    try {
      failure_.raise(file_.getLocation(), u"zip.open", what, &error);
    } catch (...) {
      zip_error_fini(&error);
      throw;
    }
  }
  zip_error_fini(&error);
  zip_int64_t const count = zip_get_num_entries(archive, 0);
  entries.reserve(static_cast<std::size_t>(count));
  for (zip_int64_t i = 0; i < count; ++i) entries.push_back(entryAt(archive, static_cast<zip_uint64_t>(i)));
}

ZipReader::~ZipReader() {
  if (archive) zip_discard(archive);
}

std::unique_ptr<p::ByteStream> ZipReader::openEntry(EntryRef const& ref) {
  auto self = shared_from_this();
  auto const index = ref.index;
  return std::make_unique<EntryStream>([self, index] { return std::make_unique<ZipEntryDecoder>(self, index); },
                                       ref.size);
}

RawEntry ZipReader::entry(std::uint64_t index) { return entryAt(archive, index); }

void ZipReader::readBytes(std::uint64_t offset, char* data, std::size_t n) {
  if (offset > size_ || n > size_ - offset)
    p::raise(p::ByteStreamReadFailure("the archive ends before the data its directory names", p::ErrorCode::IOError));
  stream_->seek(static_cast<std::streamoff>(offset), std::ios_base::beg);
  for (std::size_t done = 0; done < n;) {
    auto const got = stream_->read(data + done, static_cast<std::streamsize>(n - done));
    if (got <= 0) p::raise(p::ByteStreamReadFailure("the archive file ended early", p::ErrorCode::IOError));
    done += static_cast<std::size_t>(got);
  }
}

zip_int64_t ZipReader::callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
  auto& self = *static_cast<ZipReader*>(state);
  try {
    switch (command) {
    case ZIP_SOURCE_OPEN: self.position_ = 0; return 0;
    case ZIP_SOURCE_READ: {
      self.stream_->seek(static_cast<std::streamoff>(self.position_), std::ios_base::beg);
      zip_uint64_t done = 0;
      while (done < length) {
        auto const got =
            self.stream_->read(static_cast<char*>(data) + done, static_cast<std::streamsize>(length - done));
        if (got <= 0) break;
        done += static_cast<zip_uint64_t>(got);
      }
      self.position_ += done;
      return static_cast<zip_int64_t>(done);
    }
    case ZIP_SOURCE_SEEK: {
      zip_int64_t const target =
          zip_source_seek_compute_offset(self.position_, self.size_, data, length, &self.failure_.error);
      if (target < 0) return -1;
      self.position_ = static_cast<zip_uint64_t>(target);
      return 0;
    }
    case ZIP_SOURCE_TELL: return static_cast<zip_int64_t>(self.position_);
    case ZIP_SOURCE_STAT: {
      auto* st = ZIP_SOURCE_GET_ARGS(zip_stat_t, data, length, &self.failure_.error);
      if (!st) return -1;
      zip_stat_init(st);
      st->size = self.size_;
      st->valid |= ZIP_STAT_SIZE;
      return sizeof(zip_stat_t);
    }
    case ZIP_SOURCE_CLOSE:
    case ZIP_SOURCE_FREE: return 0;
    case ZIP_SOURCE_ERROR: return zip_error_to_data(&self.failure_.error, data, length);
    case ZIP_SOURCE_SUPPORTS:
      return zip_source_make_command_bitmap(ZIP_SOURCE_OPEN, ZIP_SOURCE_READ, ZIP_SOURCE_CLOSE, ZIP_SOURCE_STAT,
                                            ZIP_SOURCE_ERROR, ZIP_SOURCE_FREE, ZIP_SOURCE_SEEK, ZIP_SOURCE_TELL,
                                            ZIP_SOURCE_SUPPORTS, -1);
    default: zip_error_set(&self.failure_.error, ZIP_ER_OPNOTSUPP, 0); return -1;
    }
  } catch (...) {
    return self.failure_.caught(ZIP_ER_READ);
  }
}

std::unique_ptr<ArchiveFormat> makeZipFormat() { return std::make_unique<ZipFormat>(); }

} // namespace foundation::storage::providers::archive::detail
