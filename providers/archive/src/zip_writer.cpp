#include "zip_format.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/conversion.hpp>

#include <sys/stat.h>

namespace foundation::storage::providers::archive::detail {

namespace {

p::ByteStreamOpenOptions const replaceWhole{p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                            p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition};

/// The new archive's bytes, written through one transaction of the archive file; libzip
/// commits or rolls it back when it closes the archive.
class TargetSource {
public:
  TargetSource(p::StorageItem file, p::StreamClosePolicy landing) : file_(std::move(file)), landing_(landing) {}

  static zip_int64_t callback(void* state, void* data, zip_uint64_t length, zip_source_cmd_t command) {
    auto& self = *static_cast<TargetSource*>(state);
    try {
      switch (command) {
      case ZIP_SOURCE_STAT: // a new archive: nothing to read first
        zip_error_set(&self.failure.error, ZIP_ER_READ, ENOENT);
        return -1;
      case ZIP_SOURCE_BEGIN_WRITE:
        self.stream_ = self.file_.openTransactionalStream(replaceWhole);
        return 0;
      case ZIP_SOURCE_WRITE:
        self.stream_->write(static_cast<char const*>(data), static_cast<std::streamsize>(length));
        return static_cast<zip_int64_t>(length);
      case ZIP_SOURCE_SEEK_WRITE: {
        auto* args = ZIP_SOURCE_GET_ARGS(zip_source_args_seek_t, data, length, &self.failure.error);
        if (!args) return -1;
        auto const way = args->whence == SEEK_SET ? std::ios_base::beg
                         : args->whence == SEEK_CUR ? std::ios_base::cur
                                                    : std::ios_base::end;
        self.stream_->seek(static_cast<std::streamoff>(args->offset), way);
        return 0;
      }
      case ZIP_SOURCE_TELL_WRITE: return static_cast<zip_int64_t>(self.stream_->seek(0, std::ios_base::cur));
      case ZIP_SOURCE_COMMIT_WRITE:
        self.stream_->close(self.landing_);
        self.stream_.reset();
        return 0;
      case ZIP_SOURCE_ROLLBACK_WRITE:
        self.stream_.reset(); // an unclosed transaction is discarded
        return 0;
      case ZIP_SOURCE_CLOSE:
      case ZIP_SOURCE_FREE: return 0;
      case ZIP_SOURCE_ERROR: return zip_error_to_data(&self.failure.error, data, length);
      case ZIP_SOURCE_SUPPORTS: return ZIP_SOURCE_SUPPORTS_WRITABLE;
      default:
        zip_error_set(&self.failure.error, ZIP_ER_OPNOTSUPP, 0);
        return -1;
      }
    } catch (...) {
      return self.failure.caught(ZIP_ER_WRITE);
    }
  }

  CallbackFailure failure;

private:
  p::StorageItem file_;
  p::StreamClosePolicy landing_;
  std::unique_ptr<p::TransactionalStream> stream_;
};

/// POSIX type and permissions of a node, as zip's external attributes keep them.
zip_uint32_t attributesOf(Node const& node) {
  zip_uint32_t mode = node.mode != 0 ? node.mode : node.folder ? 0755 : 0644;
  if (node.writable)
    mode |= S_IWUSR;
  else
    mode &= ~zip_uint32_t{0222};
  mode |= node.folder ? S_IFDIR : node.symlink ? S_IFLNK : S_IFREG;
  return mode << 16;
}

/// Adds every node below the root to `archive`, each folder before its contents.
void addEntries(zip_t* archive, Tree const& tree, ZipReader* previous, p::StorageIRI const& location) {
  auto refuse = [&](std::string const& what) {
    p::fail(p::ErrorCode::IOError, location, u"zip.commit", what + ": " + zip_strerror(archive));
  };
  std::vector<std::pair<Node const*, std::string>> pending;
  for (auto it = tree.root().children.rbegin(); it != tree.root().children.rend(); ++it)
    pending.emplace_back(it->second.get(), fl::i18n::to_utf8(it->second->name));
  while (!pending.empty()) {
    auto [node, name] = pending.back();
    pending.pop_back();
    zip_int64_t index = -1;
    if (node->folder) {
      index = zip_dir_add(archive, name.c_str(), ZIP_FL_ENC_UTF_8);
    } else {
      zip_source_t* data = node->content
                               ? zip_source_buffer(archive, node->content->data(), node->content->size(), 0)
                               : zip_source_zip(archive, previous->archive, node->entry->index, 0, 0, -1);
      if (!data) refuse("cannot read the data of " + name);
      index = zip_file_add(archive, name.c_str(), data, ZIP_FL_ENC_UTF_8);
      if (index < 0) zip_source_free(data);
    }
    if (index < 0) refuse("cannot add " + name);
    auto const idx = static_cast<zip_uint64_t>(index);
    if (!node->folder && node->entry) {
      zip_stat_t st; // keep the original compression, so that the data is copied as it is
      if (zip_stat_index(previous->archive, node->entry->index, 0, &st) == 0 && (st.valid & ZIP_STAT_COMP_METHOD))
        zip_set_file_compression(archive, idx, static_cast<zip_int32_t>(st.comp_method), 0);
    }
    if (zip_file_set_mtime(archive, idx, boost::posix_time::to_time_t(node->modified), 0) != 0 ||
        zip_file_set_external_attributes(archive, idx, 0, ZIP_OPSYS_UNIX, attributesOf(*node)) != 0)
      refuse("cannot set the attributes of " + name);
    if (node->folder)
      for (auto it = node->children.rbegin(); it != node->children.rend(); ++it)
        pending.emplace_back(it->second.get(), name + "/" + fl::i18n::to_utf8(it->second->name));
  }
}

/// The end record of an archive without entries (libzip would remove the file instead).
void writeEmpty(p::StorageItem const& file, p::StreamClosePolicy landing) {
  char const record[22] = {'P', 'K', 5, 6};
  try {
    auto stream = file.openTransactionalStream(replaceWhole);
    stream->write(record, sizeof record);
    stream->close(landing);
  } catch (p::ByteStreamFailure const& e) {
    p::fail(e.getErrorCode(), file.getLocation(), u"zip.commit", e.what());
  }
}

} // namespace

void writeZip(p::StorageItem const& file, Tree const& tree, ZipReader* previous, p::StreamClosePolicy landing) {
  if (tree.root().children.empty()) return writeEmpty(file, landing);
  // Unchanged entries are read from the previous archive while the new one is written.
  std::unique_lock<std::mutex> reading;
  if (previous) reading = std::unique_lock(previous->mutex);
  TargetSource target(file, landing);
  zip_error_t error;
  zip_error_init(&error);
  zip_source_t* source = zip_source_function_create(&TargetSource::callback, &target, &error);
  zip_t* archive = source ? zip_open_from_source(source, ZIP_CREATE | ZIP_TRUNCATE, &error) : nullptr;
  if (!archive) {
    if (source) zip_source_free(source);
    target.failure.raise(file.getLocation(), u"zip.commit", "cannot start the new archive", &error);
  }
  zip_error_fini(&error);
  try {
    addEntries(archive, tree, previous, file.getLocation());
  } catch (...) {
    zip_discard(archive);
    throw;
  }
  if (zip_close(archive) != 0) {
    zip_error_t failed;
    zip_error_init(&failed);
    zip_error_set(&failed, zip_error_code_zip(zip_get_error(archive)), zip_error_code_system(zip_get_error(archive)));
    zip_discard(archive);
    try {
      target.failure.raise(file.getLocation(), u"zip.commit", "cannot write the new archive", &failed);
    } catch (...) {
      zip_error_fini(&failed);
      throw;
    }
  }
}

} // namespace foundation::storage::providers::archive::detail
