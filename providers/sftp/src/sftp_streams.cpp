#include "sftp_streams.hpp"

#include "read_ahead.hpp"

#include "sftp_attributes.hpp"
#include "sftp_renames.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <random>
#include <string_view>

namespace foundation::storage::providers::sftp::detail {

namespace p = foundation::storage::provider;
using p::ErrorCode;

namespace {

/// The most one request carries; OpenSSH accepts up to 256 KiB.
constexpr std::size_t requestBytes = 252 * 1024;

struct StreamMode {
  bool read = false;
  bool write = false;
  bool append = false;
};

StreamMode modeOf(p::ByteStreamOpenOptions const& options) {
  return {options.access == p::ByteStreamAccess::ReadWrite, true, options.append == p::ByteStreamAppend::Append};
}

template <class Failure>
[[noreturn]] void raiseAs(SftpFailure const& failure) {
  p::raise(Failure(failure.what(), failure.code));
}

std::streamsize readAt(SftpSession& session, sftp_file file, std::uint64_t position, char* s, std::streamsize n) {
  session.check(sftp_seek64(file, position), "cannot seek");
  auto got = sftp_read(file, s, std::min<std::size_t>(static_cast<std::size_t>(n), requestBytes));
  if (got < 0) throw session.failure("cannot read");
  return static_cast<std::streamsize>(got);
}

void writeAt(SftpSession& session, sftp_file file, std::uint64_t position, char const* s, std::streamsize n) {
  session.check(sftp_seek64(file, position), "cannot seek");
  std::size_t done = 0;
  while (done < static_cast<std::size_t>(n)) {
    auto count = std::min<std::size_t>(static_cast<std::size_t>(n) - done, requestBytes);
    auto written = sftp_write(file, s + done, count);
    if (written < 0) throw session.failure("cannot write");
    done += static_cast<std::size_t>(written);
  }
}

Attributes fileStatus(SftpSession& session, sftp_file file) {
  Attributes found(sftp_fstat(file));
  if (!found) throw session.failure("cannot read the file's attributes");
  return found;
}

/// Why opening `path` failed: OpenSSH reports a folder in the way as a plain failure.
SftpFailure openFailure(SftpSession& session, std::string const& path) {
  auto failed = session.failure("cannot open the file");
  if (failed.connectionLost || failed.status != SSH_FX_FAILURE) return failed;
  if (auto found = session.stat(path); found && isFolder(**found))
    return SftpFailure(ErrorCode::ResourceNotFound, "a folder, not a file");
  return failed;
}

/// A name beside `path` that no one else picks: hidden, and marked as ours. The file's own
/// name is shortened (on a UTF-8 character boundary) so that the result stays within the
/// 255 bytes a name may have, however long the file's name.
std::string temporaryBeside(std::string const& path) {
  static thread_local std::mt19937_64 random{std::random_device{}()};
  char suffix[24];
  std::snprintf(suffix, sizeof suffix, "%016llx", static_cast<unsigned long long>(random()));
  auto const slash = path.rfind('/');
  constexpr std::size_t longestName = 255, marks = 1 + 5 + 16 + 4; // ".", ".vfs-", suffix, ".tmp"
  std::string_view stem = std::string_view(path).substr(slash + 1);
  if (stem.size() > longestName - marks) {
    std::size_t cut = longestName - marks;
    while (cut > 0 && (static_cast<unsigned char>(stem[cut]) & 0xC0) == 0x80) --cut;
    stem = stem.substr(0, cut);
  }
  return path.substr(0, slash + 1) + "." + std::string(stem) + ".vfs-" + suffix + ".tmp";
}

/// Closes a file of a session whose lock the caller holds, ignoring failures.
void closeQuietly(sftp_file file) noexcept {
  if (file) sftp_close(file);
}

/// A stream over a remote file opened in place.
class SftpFileStream final : public p::ByteStream {
public:
  SftpFileStream(std::shared_ptr<SftpSession> session, sftp_file file, StreamMode mode)
      : session_(std::move(session)), file_(file), mode_(mode) {
    // Only a stream that never writes may keep answers for later reads.
    if (!mode_.write) readAhead_.emplace(file_);
  }

  ~SftpFileStream() override {
    std::lock_guard lock(session_->mutex());
    closeQuietly(file_);
  }

protected:
  std::streamsize doRead(char* s, std::streamsize n) override {
    if (!mode_.read)
      p::raise(p::ByteStreamReadFailure("the stream is not open for reading", ErrorCode::PermissionDenied));
    std::lock_guard lock(session_->mutex());
    try {
      auto got = readAhead_ ? readAhead_->read(*session_, position_, s, n) : readAt(*session_, file_, position_, s, n);
      position_ += static_cast<std::uint64_t>(got);
      return got;
    } catch (SftpFailure const& failure) {
      raiseAs<p::ByteStreamReadFailure>(failure);
    }
  }

  std::streamsize doWrite(char const* s, std::streamsize n) override {
    if (!mode_.write)
      p::raise(p::ByteStreamWriteFailure("the stream is not open for writing", ErrorCode::PermissionDenied));
    std::lock_guard lock(session_->mutex());
    try {
      // Each write lands at the end the server reports. Not O_APPEND: libssh 0.10 leaks
      // the attributes it fetches when opening with it.
      std::uint64_t const at = mode_.append ? fileStatus(*session_, file_)->size : position_;
      writeAt(*session_, file_, at, s, n);
      position_ = at + static_cast<std::uint64_t>(n);
      return n;
    } catch (SftpFailure const& failure) {
      raiseAs<p::ByteStreamWriteFailure>(failure);
    }
  }

  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override {
    std::uint64_t size = 0;
    if (way == std::ios_base::end) {
      std::lock_guard lock(session_->mutex());
      try {
        size = fileStatus(*session_, file_)->size;
      } catch (SftpFailure const& failure) {
        raiseAs<p::ByteStreamSeekFailure>(failure);
      }
    }
    position_ = p::seekTarget(position_, size, off, way);
    return static_cast<std::streamoff>(position_);
  }

  void doClose() override {
    std::lock_guard lock(session_->mutex());
    sftp_file file = std::exchange(file_, nullptr);
    if (file && sftp_close(file) < 0) raiseAs<p::ByteStreamCloseFailure>(session_->failure("cannot close the file"));
    markClosed();
  }

private:
  std::shared_ptr<SftpSession> session_;
  sftp_file file_;
  StreamMode mode_;
  std::uint64_t position_ = 0;
  std::optional<ReadAhead> readAhead_;
};

/// The temporary file of one transaction and how it lands.
struct Landing {
  std::string target;
  std::string temporary;
  bool mustExist = false;
  /// The replaced file's permissions, given to the new contents.
  std::optional<std::uint32_t> permissions;
};

class SftpTransactionalStream final : public p::TransactionalStream {
public:
  SftpTransactionalStream(std::shared_ptr<SftpSession> session, std::weak_ptr<SshConnection> connection, sftp_file file,
                          StreamMode mode, std::uint64_t size, Landing landing)
      : session_(std::move(session)), connection_(std::move(connection)), file_(file), mode_(mode), size_(size),
        landing_(std::move(landing)) {}

  // Destroyed unclosed: the temporary goes and the file keeps its contents.
  ~SftpTransactionalStream() override {
    if (!file_ && landed_) return;
    std::lock_guard lock(session_->mutex());
    discard();
  }

protected:
  std::streamsize doRead(char* s, std::streamsize n) override {
    if (!mode_.read)
      p::raise(p::ByteStreamReadFailure("the stream is not open for reading", ErrorCode::PermissionDenied));
    std::lock_guard lock(session_->mutex());
    try {
      auto got = readAt(*session_, file_, position_, s, n);
      position_ += static_cast<std::uint64_t>(got);
      return got;
    } catch (SftpFailure const& failure) {
      raiseAs<p::ByteStreamReadFailure>(failure);
    }
  }

  std::streamsize doWrite(char const* s, std::streamsize n) override {
    std::lock_guard lock(session_->mutex());
    std::uint64_t const at = mode_.append ? size_ : position_;
    try {
      writeAt(*session_, file_, at, s, n);
    } catch (SftpFailure const& failure) {
      raiseAs<p::ByteStreamWriteFailure>(failure);
    }
    position_ = at + static_cast<std::uint64_t>(n);
    size_ = std::max(size_, position_);
    return n;
  }

  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override {
    position_ = p::seekTarget(position_, size_, off, way);
    return static_cast<std::streamoff>(position_);
  }

  void doClose(p::StreamClosePolicy const& policy) override {
    std::lock_guard lock(session_->mutex());
    if (policy == p::StreamClosePolicy::Discard) {
      discard();
      markClosed();
      return;
    }
    try {
      land(policy == p::StreamClosePolicy::Commit);
    } catch (SftpFailure const& failure) {
      discard();
      markClosed();
      raiseAs<p::ByteStreamCloseFailure>(failure);
    }
    markClosed();
  }

private:
  void land(bool replace) {
    auto& session = *session_;
    sftp_file file = std::exchange(file_, nullptr);
    // Durable before it can replace anything: a crash after the rename must not leave an
    // empty file where the old one was.
    if (session.supports("fsync@openssh.com") && sftp_fsync(file) < 0) {
      auto failed = session.failure("cannot flush the new contents");
      closeQuietly(file);
      throw failed;
    }
    session.check(sftp_close(file), "cannot close the new contents");
    if (landing_.permissions)
      session.check(sftp_chmod(session.sftp(), landing_.temporary.c_str(), *landing_.permissions & 07777),
                    "cannot give the new contents the old permissions");
    if (landing_.mustExist && !session.lstat(landing_.target))
      throw SftpFailure(ErrorCode::ResourceNotFound, "the file was removed meanwhile");
    try {
      if (replace)
        renameReplacing(session, landing_.temporary, landing_.target);
      else
        renameKeeping(session, landing_.temporary, landing_.target);
    } catch (SftpFailure const& failed) {
      throw inTheWay(failed);
    }
    landed_ = true;
  }

  SftpFailure inTheWay(SftpFailure const& failed) const {
    if (failed.connectionLost) return failed;
    if (auto found = session_->lstat(landing_.target); found && isFolder(**found))
      return SftpFailure(ErrorCode::ResourceAlreadyExists, "a folder is in the way");
    return failed;
  }

  /// Drops the temporary file; the caller holds the session's lock.
  void discard() noexcept {
    closeQuietly(std::exchange(file_, nullptr));
    if (!landed_) {
      if (session_->connected())
        sftp_unlink(session_->sftp(), landing_.temporary.c_str());
      else if (auto connection = connection_.lock())
        connection->leftBehind(landing_.temporary);
    }
    landed_ = true; // nothing left to drop
  }

  std::shared_ptr<SftpSession> session_;
  std::weak_ptr<SshConnection> connection_;
  sftp_file file_;
  StreamMode mode_;
  std::uint64_t position_ = 0;
  std::uint64_t size_;
  Landing landing_;
  bool landed_ = false;
};

/// Copies the file at `from` into the open `to`; the count of bytes copied.
std::uint64_t copyInto(SftpSession& session, std::string const& from, sftp_file to) {
  sftp_file source = sftp_open(session.sftp(), from.c_str(), O_RDONLY, 0);
  if (!source) throw openFailure(session, from);
  std::vector<char> buffer(requestBytes);
  std::uint64_t copied = 0;
  try {
    while (true) {
      auto got = sftp_read(source, buffer.data(), buffer.size());
      if (got < 0) throw session.failure("cannot read the old contents");
      if (got == 0) break;
      writeAt(session, to, copied, buffer.data(), got);
      copied += static_cast<std::uint64_t>(got);
    }
  } catch (...) {
    closeQuietly(source);
    throw;
  }
  sftp_close(source);
  return copied;
}

} // namespace

std::unique_ptr<p::ByteStream> openReadStream(std::shared_ptr<SftpSession> const& session, std::string const& path) {
  sftp_file file = sftp_open(session->sftp(), path.c_str(), O_RDONLY, 0);
  if (!file) throw openFailure(*session, path);
  // A folder opens for reading on a POSIX server; it is not a file.
  bool folder = false;
  try {
    folder = isFolder(*fileStatus(*session, file));
  } catch (SftpFailure const&) {
    closeQuietly(file);
    throw;
  }
  if (folder) {
    closeQuietly(file);
    throw SftpFailure(ErrorCode::ResourceNotFound, "a folder, not a file");
  }
  return std::make_unique<SftpFileStream>(session, file, StreamMode{true, false, false});
}

std::unique_ptr<p::ByteStream> openWriteStream(std::shared_ptr<SftpSession> const& session, std::string const& path,
                                               p::ByteStreamOpenOptions const& options) {
  int flags = options.access == p::ByteStreamAccess::ReadWrite ? O_RDWR : O_WRONLY;
  if (options.create == p::ByteStreamCreate::CreateIfMissing) flags |= O_CREAT;
  if (options.truncate == p::ByteStreamTruncate::Truncate) flags |= O_TRUNC;
  sftp_file file = sftp_open(session->sftp(), path.c_str(), flags, 0666);
  if (!file) throw openFailure(*session, path);
  return std::make_unique<SftpFileStream>(session, file, modeOf(options));
}

std::unique_ptr<p::TransactionalStream> openTransaction(std::shared_ptr<SftpSession> const& session,
                                                        std::weak_ptr<SshConnection> connection,
                                                        std::string const& path,
                                                        p::ByteStreamOpenOptions const& options) {
  Landing landing{path, temporaryBeside(path), options.create == p::ByteStreamCreate::MustExist, std::nullopt};
  auto const existing = session->stat(path);
  if (existing && isFolder(**existing)) throw SftpFailure(ErrorCode::ResourceNotFound, "a folder, not a file");
  if (!existing) {
    if (landing.mustExist) throw SftpFailure(ErrorCode::ResourceNotFound, "no such file");
    auto parent = session->stat(parentPath(path));
    if (!parent || !isFolder(**parent)) throw SftpFailure(ErrorCode::ResourceNotFound, "the parent folder is missing");
  } else {
    // The rename would replace a read-only file, which only the folder's permission guards.
    if (((*existing)->permissions & S_IWUSR) == 0)
      throw SftpFailure(ErrorCode::PermissionDenied, "the file is read-only");
    landing.permissions = (*existing)->permissions;
  }
  // Created readable by no more than the old file, so the new contents never leak.
  mode_t const mode = landing.permissions ? ((*landing.permissions & 0777) | 0600) : 0666;
  sftp_file file = sftp_open(session->sftp(), landing.temporary.c_str(), O_RDWR | O_CREAT | O_EXCL, mode);
  if (!file) throw session->failure("cannot create a temporary file beside the file");
  std::uint64_t size = 0;
  try {
    if (existing && options.truncate == p::ByteStreamTruncate::Keep && (*existing)->size > 0)
      size = copyInto(*session, path, file);
  } catch (SftpFailure const&) {
    closeQuietly(file);
    sftp_unlink(session->sftp(), landing.temporary.c_str());
    throw;
  }
  return std::make_unique<SftpTransactionalStream>(session, std::move(connection), file, modeOf(options), size,
                                                   std::move(landing));
}

} // namespace foundation::storage::providers::sftp::detail
