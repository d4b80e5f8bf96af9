#include <foundation/storage/providers/local/local_provider.hpp>

#include "deferred_syncs.hpp"
#include "inotify_watcher.hpp"
#include "local_listing.hpp"
#include "local_streams.hpp"
#include "local_support.hpp"
#include "posix_calls.hpp"

#include <cerrno>
#include <fcntl.h>
#include <sys/statvfs.h>
#include <unistd.h>

namespace foundation::storage::providers::local {

using namespace detail;
using p::ErrorCode;
using p::Operation;

namespace {

int const folderFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/// The folder holding a path's last name, opened, and that name.
struct Placement {
  UniqueFd folder;
  std::string name;
};

Placement place(std::string const& path, p::StorageIRI const& location, Operation op) {
  auto slash = path.rfind('/');
  std::string name = path.substr(slash + 1);
  if (name.empty()) refuse(ErrorCode::InvalidLocation, location, op, "the root folder has no parent");
  std::string const parent = slash == 0 ? std::string("/") : path.substr(0, slash);
  int fd = openAt(AT_FDCWD, parent.c_str(), folderFlags);
  if (fd < 0) failErrno(-fd, location, op);
  return {UniqueFd(fd), std::move(name)};
}

/// stat (following links); false when nothing is there.
bool statIfPresent(std::string const& path, struct stat& st, p::StorageIRI const& location, Operation op,
                   bool follow = true) {
  int error = statAt(AT_FDCWD, path.c_str(), st, follow);
  if (error == ENOENT || error == ENOTDIR) return false;
  if (error != 0) failErrno(error, location, op);
  return true;
}

/// Removes a named temporary file unless dismissed (an unnamed one vanishes with its
/// descriptor).
class TemporaryFileGuard {
public:
  TemporaryFileGuard(int folder, std::string const& name) : folder_(folder), name_(name) {}
  ~TemporaryFileGuard() {
    if (armed_ && !name_.empty()) ::unlinkat(folder_, name_.c_str(), 0);
  }
  TemporaryFileGuard(TemporaryFileGuard const&) = delete;
  TemporaryFileGuard& operator=(TemporaryFileGuard const&) = delete;
  void dismiss() noexcept { armed_ = false; }

private:
  int folder_;
  std::string const& name_;
  bool armed_ = true;
};

/// Opens a file for reading without blocking on a FIFO that has no writer yet (open(2)
/// would wait for one); reads then block as usual.
int openForReading(std::string const& path) {
  int fd = openAt(AT_FDCWD, path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd >= 0) {
    int const flags = ::fcntl(fd, F_GETFL);
    if (flags >= 0) ::fcntl(fd, F_SETFL, flags & ~O_NONBLOCK);
  }
  return fd;
}

p::FilenameSensitivity sensitivityOf([[maybe_unused]] std::string const& path) {
#if defined(__APPLE__) && defined(_PC_CASE_SENSITIVE)
  if (::pathconf(path.c_str(), _PC_CASE_SENSITIVE) == 0) return p::FilenameSensitivity::CaseInsensitive;
#endif
  return p::FilenameSensitivity::CaseSensitive;
}

/// Throws unless the folder `st`, in the open folder `parent`, can be removed from it: what
/// would keep the folder itself from going is refused before anything below it goes.
void checkRemovable(int parent, struct stat const& st, UserIdentity const& user, p::StorageIRI const& folder) {
  struct stat holder {};
  if (::fstat(parent, &holder) != 0) failErrno(errno, folder, Operation::RemoveFolderRecursively);
  if (holder.st_dev != st.st_dev)
    refuse(ErrorCode::ResourceInUse, folder, Operation::RemoveFolderRecursively, "a mount point");
  if (::faccessat(parent, ".", W_OK | X_OK, AT_EACCESS) != 0)
    failErrno(errno, folder, Operation::RemoveFolderRecursively);
  bool const sticky = (holder.st_mode & S_ISVTX) != 0;
  if (sticky && user.uid != 0 && st.st_uid != user.uid && holder.st_uid != user.uid)
    refuse(ErrorCode::PermissionDenied, folder, Operation::RemoveFolderRecursively,
           "the folder belongs to someone else");
}

} // namespace

LocalProvider::LocalProvider(LocalProviderOptions options)
    : ProviderBase(u"local", {.sensitivity = p::FilenameSensitivity::CaseSensitive,
                              .filtersNames = true,
                              .listsRecursively = true,
                              .removesRecursively = true,
                              .reportsRecursiveChanges = true}),
      options_(std::move(options)), user_(std::make_unique<UserIdentity>(UserIdentity::current())) {
  if (!options_.sync) options_.sync = syncFile;
}

LocalProvider::~LocalProvider() {
  stopChangePolling();
  inotify_.reset();
}

int LocalProvider::rename(int fromDir, char const* from, int toDir, char const* to, bool noReplace) const {
  if (options_.rename) return options_.rename(fromDir, from, toDir, to, noReplace);
  return renameAt(fromDir, from, toDir, to, noReplace);
}

InotifyWatcher& LocalProvider::inotify() {
  std::lock_guard lock(inotifyMutex_);
  if (!inotify_) inotify_ = std::make_unique<InotifyWatcher>();
  return *inotify_;
}

p::StorageIRI LocalProvider::getCanonicalLocation(p::StorageIRI const& location) {
  return p::toCanonicalizedStorageIRI(u"file", fl::filesystem::path(pathOf(location, Operation::GetCanonicalLocation)));
}

p::ExistsResult LocalProvider::exists(p::StorageIRI const& location) {
  std::string const path = pathOf(location, Operation::Exists);
  struct stat st {};
  if (statIfPresent(path, st, location, Operation::Exists))
    return S_ISDIR(st.st_mode) ? p::ExistsResult::Folder : p::ExistsResult::File;
  // A broken link is an entry, though not one to open.
  return statIfPresent(path, st, location, Operation::Exists, false) ? p::ExistsResult::File
                                                                     : p::ExistsResult::NotFound;
}

p::ExtendedExistsResult LocalProvider::existsExtended(p::StorageIRI const& location) {
  std::string const path = pathOf(location, Operation::ExistsExtended);
  struct stat st {};
  if (!statIfPresent(path, st, location, Operation::ExistsExtended, false)) return p::ExtendedExistsResult::NotFound;
  if (S_ISLNK(st.st_mode)) {
    if (!statIfPresent(path, st, location, Operation::ExistsExtended)) return p::ExtendedExistsResult::BrokenSymlink;
    return S_ISDIR(st.st_mode) ? p::ExtendedExistsResult::SymlinkToFolder : p::ExtendedExistsResult::SymlinkToFile;
  }
  if (S_ISDIR(st.st_mode)) return p::ExtendedExistsResult::Folder;
  return S_ISREG(st.st_mode) ? p::ExtendedExistsResult::File : p::ExtendedExistsResult::Special;
}

p::FileAttributes LocalProvider::getFileAttributes(p::StorageIRI const& file) {
  std::string const path = pathOf(file, Operation::GetFileAttributes);
  struct stat st {};
  if (!statIfPresent(path, st, file, Operation::GetFileAttributes, false))
    refuse(ErrorCode::ResourceNotFound, file, Operation::GetFileAttributes, "no such file");
  bool const symlink = S_ISLNK(st.st_mode);
  if (symlink && !statIfPresent(path, st, file, Operation::GetFileAttributes))
    refuse(ErrorCode::ResourceNotFound, file, Operation::GetFileAttributes, "a broken symbolic link");
  if (S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, file, Operation::GetFileAttributes, "a folder, not a file");
  return fileAttributes(st, baseName(path), symlink, *user_);
}

p::FolderAttributes LocalProvider::getFolderAttributes(p::StorageIRI const& folder) {
  std::string const path = pathOf(folder, Operation::GetFolderAttributes);
  struct stat st {};
  if (!statIfPresent(path, st, folder, Operation::GetFolderAttributes, false))
    refuse(ErrorCode::ResourceNotFound, folder, Operation::GetFolderAttributes, "no such folder");
  bool const symlink = S_ISLNK(st.st_mode);
  if ((symlink && !statIfPresent(path, st, folder, Operation::GetFolderAttributes)) || !S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, folder, Operation::GetFolderAttributes, "no such folder");
  return folderAttributes(st, baseName(path), symlink, *user_);
}

p::ExtendedAttributes LocalProvider::getExtendedAttributes(p::StorageIRI const& location) {
  std::string const path = pathOf(location, Operation::GetExtendedAttributes);
  struct stat st {};
  if (!statIfPresent(path, st, location, Operation::GetExtendedAttributes, false))
    refuse(ErrorCode::ResourceNotFound, location, Operation::GetExtendedAttributes, "no such file or folder");
  bool const symlink = S_ISLNK(st.st_mode);
  if (symlink) statIfPresent(path, st, location, Operation::GetExtendedAttributes); // a broken link describes itself
  return extendedAttributes(st, symlink);
}

void LocalProvider::setLastModified(p::StorageIRI const& location, boost::posix_time::ptime const& time) {
  if (time.is_special())
    refuse(ErrorCode::InvalidLocation, location, Operation::SetLastModified, "not a point in time");
  std::string const path = pathOf(location, Operation::SetLastModified);
  // Setting both times (the access time to what it is) makes this an attribute change for
  // watchers; setting the modification time alone reads as a change of contents.
  struct stat st {};
  if (int error = statAt(AT_FDCWD, path.c_str(), st, true)) failErrno(error, location, Operation::SetLastModified);
  timespec const times[2] = {accessTime(st), toTimespec(time)};
  if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) failErrno(errno, location, Operation::SetLastModified);
}

void LocalProvider::setWritable(p::StorageIRI const& location, bool writable) {
  std::string const path = pathOf(location, Operation::SetWritable);
  struct stat st {};
  if (!statIfPresent(path, st, location, Operation::SetWritable))
    refuse(ErrorCode::ResourceNotFound, location, Operation::SetWritable, "no such file or folder");
  // Making writable gives the owner write access; making read-only takes it from everyone.
  mode_t const mode = writable ? (st.st_mode | S_IWUSR) : (st.st_mode & ~mode_t{0222});
  if (::chmod(path.c_str(), mode & 07777) != 0) failErrno(errno, location, Operation::SetWritable);
}

void LocalProvider::createFile(p::StorageIRI const& file) {
  Placement at = place(pathOf(file, Operation::CreateFile), file, Operation::CreateFile);
  int fd = openAt(at.folder.get(), at.name.c_str(), O_CREAT | O_EXCL | O_WRONLY | O_CLOEXEC, 0666);
  if (fd < 0) failErrno(-fd, file, Operation::CreateFile);
  ::close(fd);
}

void LocalProvider::removeFile(p::StorageIRI const& file) {
  std::string const path = pathOf(file, Operation::RemoveFile);
  struct stat st {};
  if (!statIfPresent(path, st, file, Operation::RemoveFile, false) || S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, file, Operation::RemoveFile, "no such file");
  if (::unlink(path.c_str()) != 0) failErrno(errno, file, Operation::RemoveFile);
}

void LocalProvider::truncateToSize(p::StorageIRI const& file, std::uint64_t size) {
  std::string const path = pathOf(file, Operation::TruncateToSize);
  if (size > static_cast<std::uint64_t>(std::numeric_limits<off_t>::max()))
    refuse(ErrorCode::FileTooLarge, file, Operation::TruncateToSize, "beyond the largest file size");
  struct stat st {};
  if (!statIfPresent(path, st, file, Operation::TruncateToSize) || S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, file, Operation::TruncateToSize, "no such file");
  if (::truncate(path.c_str(), static_cast<off_t>(size)) != 0) failErrno(errno, file, Operation::TruncateToSize);
}

std::unique_ptr<p::ByteStream> LocalProvider::doOpenStream(p::StorageIRI const& file,
                                                           p::ByteStreamOpenOptions const& options) {
  std::string const path = pathOf(file, Operation::OpenStream);
  bool const readable = options.access == p::ByteStreamAccess::ReadWrite;
  int flags = O_CLOEXEC | (readable ? O_RDWR : O_WRONLY);
  if (options.create == p::ByteStreamCreate::CreateIfMissing) flags |= O_CREAT;
  if (options.truncate == p::ByteStreamTruncate::Truncate) flags |= O_TRUNC;
  if (options.append == p::ByteStreamAppend::Append) flags |= O_APPEND;
  int fd = openAt(AT_FDCWD, path.c_str(), flags, 0666);
  if (fd < 0) failErrno(-fd, file, Operation::OpenStream);
  return std::make_unique<LocalByteStream>(UniqueFd(fd), readable, true);
}

std::unique_ptr<p::ByteStream> LocalProvider::openReadOnlyStream(p::StorageIRI const& file) {
  int fd = openForReading(pathOf(file, Operation::OpenReadOnlyStream));
  if (fd < 0) failErrno(-fd, file, Operation::OpenReadOnlyStream);
  UniqueFd opened(fd);
  struct stat st {};
  if (::fstat(fd, &st) != 0) failErrno(errno, file, Operation::OpenReadOnlyStream);
  if (S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, file, Operation::OpenReadOnlyStream, "a folder, not a file");
  return std::make_unique<LocalByteStream>(std::move(opened), true, false);
}

std::unique_ptr<p::TransactionalStream>
LocalProvider::doOpenTransactionalStream(p::StorageIRI const& file, p::ByteStreamOpenOptions const& options) {
  Placement at = place(pathOf(file, Operation::OpenTransactionalStream), file, Operation::OpenTransactionalStream);
  struct stat target {};
  int const missing = statAt(at.folder.get(), at.name.c_str(), target, true);
  if (missing == 0) {
    if (S_ISDIR(target.st_mode))
      refuse(ErrorCode::ResourceNotFound, file, Operation::OpenTransactionalStream, "a folder, not a file");
    if (::faccessat(at.folder.get(), at.name.c_str(), W_OK, AT_EACCESS) != 0)
      failErrno(errno, file, Operation::OpenTransactionalStream);
  } else if (missing != ENOENT || options.create == p::ByteStreamCreate::MustExist) {
    failErrno(missing, file, Operation::OpenTransactionalStream);
  }
  UniqueFd temporary;
  std::string temporaryName;
  if (int error = openTemporaryFile(at.folder.get(), 0666, temporary, temporaryName))
    failErrno(error, file, Operation::OpenTransactionalStream);
  TemporaryFileGuard guard{at.folder.get(), temporaryName};
  if (missing == 0 && options.truncate == p::ByteStreamTruncate::Keep) {
    int fd = openAt(at.folder.get(), at.name.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) failErrno(-fd, file, Operation::OpenTransactionalStream);
    UniqueFd old(fd);
    if (int error =
            copyContents(old.get(), temporary.get(), static_cast<std::uint64_t>(target.st_size), [](std::uint64_t) {}))
      failErrno(error, file, Operation::OpenTransactionalStream);
  }
  if (options.append == p::ByteStreamAppend::Append && ::fcntl(temporary.get(), F_SETFL, O_APPEND) != 0)
    failErrno(errno, file, Operation::OpenTransactionalStream);
  guard.dismiss();
  return std::make_unique<LocalTransactionalStream>(
      std::move(at.folder), std::move(at.name), std::move(temporary), std::move(temporaryName), file, options_.sync,
      options.access == p::ByteStreamAccess::ReadWrite, options.create == p::ByteStreamCreate::MustExist);
}

void LocalProvider::doMoveFile(p::StorageIRI const& source, p::StorageIRI const& destination,
                               p::ReplacementPolicy policy) {
  if (!isLocalLocation(destination))
    refuse(ErrorCode::UnsupportedOperation, destination, Operation::MoveFile,
           "the destination is not on the local file system");
  std::string const from = pathOf(source, Operation::MoveFile), to = pathOf(destination, Operation::MoveFile);
  struct stat st {
  }, existing{};
  if (!statIfPresent(from, st, source, Operation::MoveFile, false) || S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, source, Operation::MoveFile, "no such file");
  if (statIfPresent(to, existing, destination, Operation::MoveFile, false)) {
    if (existing.st_dev == st.st_dev && existing.st_ino == st.st_ino) return; // the same file
    if (policy == p::ReplacementPolicy::KeepExisting) return;
    if (policy == p::ReplacementPolicy::FailIfExists || S_ISDIR(existing.st_mode))
      refuse(ErrorCode::ResourceAlreadyExists, destination, Operation::MoveFile, "the destination exists");
  }
  Placement fromAt = place(from, source, Operation::MoveFile), toAt = place(to, destination, Operation::MoveFile);
  int const error =
      rename(fromAt.folder.get(), fromAt.name.c_str(), toAt.folder.get(), toAt.name.c_str(), !p::replaces(policy));
  if (error == EEXIST && policy == p::ReplacementPolicy::KeepExisting) return; // it appeared meanwhile: kept
  if (error != 0) failErrno(error, destination, Operation::MoveFile);
}

p::CopyResult LocalProvider::doCopyFile(p::StorageIRI const& source, p::StorageItem const& destination,
                                        p::CopyFileOptions const& options) {
  if (destination.getProvider().get() != this) return ProviderBase::doCopyFile(source, destination, options);
  p::StorageIRI const& target = destination.getLocation();
  std::string const from = pathOf(source, Operation::CopyFile), to = pathOf(target, Operation::CopyFile);
  int fd = openForReading(from);
  if (fd < 0) failErrno(-fd, source, Operation::CopyFile);
  UniqueFd in(fd);
  struct stat st {};
  if (::fstat(in.get(), &st) != 0) failErrno(errno, source, Operation::CopyFile);
  if (S_ISDIR(st.st_mode)) refuse(ErrorCode::ResourceNotFound, source, Operation::CopyFile, "a folder, not a file");

  Placement at = place(to, target, Operation::CopyFile);
  struct stat existing {};
  bool const exists = statAt(at.folder.get(), at.name.c_str(), existing, true) == 0;
  if (exists) {
    if (options.policy == p::ReplacementPolicy::KeepExisting) return p::CopyResult::Skipped;
    if (options.policy == p::ReplacementPolicy::FailIfExists || S_ISDIR(existing.st_mode))
      refuse(ErrorCode::ResourceAlreadyExists, target, Operation::CopyFile, "the destination exists");
    if (existing.st_dev == st.st_dev && existing.st_ino == st.st_ino)
      refuse(ErrorCode::InvalidLocation, target, Operation::CopyFile, "source and destination are the same file");
    if (::faccessat(at.folder.get(), at.name.c_str(), W_OK, AT_EACCESS) != 0)
      failErrno(errno, target, Operation::CopyFile);
  }
  // The copy lands all at once and durable: written to a temporary file beside the
  // destination, synced, then renamed over it (or linked, never replacing). A failure
  // leaves the destination as it was.
  UniqueFd out;
  std::string temporaryName;
  if (int error = openTemporaryFile(at.folder.get(), 0600, out, temporaryName))
    failErrno(error, target, Operation::CopyFile);
  TemporaryFileGuard guard{at.folder.get(), temporaryName};
  auto const size = static_cast<std::uint64_t>(st.st_size);
  int error = copyContents(in.get(), out.get(), size, [&](std::uint64_t done) {
    if (options.progress) options.progress(done, size);
  });
  if (error == 0 && ::fchmod(out.get(), (exists ? existing.st_mode : st.st_mode) & 07777) != 0) error = errno;
  bool const replace = p::replaces(options.policy);
  if (error == 0)
    error = commitTemporaryFile(out.get(), at.folder.get(), temporaryName, at.name.c_str(), replace, options_.sync);
  if (error == EEXIST && !replace) { // the destination appeared while copying
    if (options.policy == p::ReplacementPolicy::KeepExisting) return p::CopyResult::Skipped;
    refuse(ErrorCode::ResourceAlreadyExists, target, Operation::CopyFile, "the destination appeared meanwhile");
  }
  if (error != 0) failErrno(error, target, Operation::CopyFile);
  guard.dismiss();
  if (size == 0 && options.progress) options.progress(0, 0);
  return p::CopyResult::Copied;
}

void LocalProvider::createFolder(p::StorageIRI const& folder) {
  if (::mkdir(pathOf(folder, Operation::CreateFolder).c_str(), 0777) != 0)
    failErrno(errno, folder, Operation::CreateFolder);
}

void LocalProvider::removeFolder(p::StorageIRI const& folder) {
  std::string const path = pathOf(folder, Operation::RemoveFolder);
  struct stat st {};
  if (!statIfPresent(path, st, folder, Operation::RemoveFolder, false) || !S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, folder, Operation::RemoveFolder, "no such folder");
  if (::rmdir(path.c_str()) != 0) failErrno(errno == EEXIST ? ENOTEMPTY : errno, folder, Operation::RemoveFolder);
}

void LocalProvider::removeFolderRecursively(p::StorageIRI const& folder) {
  std::string const path = pathOf(folder, Operation::RemoveFolderRecursively);
  struct stat st {};
  if (!statIfPresent(path, st, folder, Operation::RemoveFolderRecursively, false) || !S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, folder, Operation::RemoveFolderRecursively, "no such folder");
  Placement at = place(path, folder, Operation::RemoveFolderRecursively); // refuses the root
  checkRemovable(at.folder.get(), st, *user_, folder);
  if (int error = removeTree(at.folder.get(), at.name.c_str()))
    failErrno(error, folder, Operation::RemoveFolderRecursively);
}

void LocalProvider::doMoveFolder(p::StorageIRI const& source, p::StorageIRI const& destination,
                                 p::ReplacementPolicy policy) {
  if (!isLocalLocation(destination))
    refuse(ErrorCode::UnsupportedOperation, destination, Operation::MoveFolder,
           "the destination is not on the local file system");
  std::string const from = pathOf(source, Operation::MoveFolder), to = pathOf(destination, Operation::MoveFolder);
  struct stat st {
  }, existing{};
  if (!statIfPresent(from, st, source, Operation::MoveFolder) || !S_ISDIR(st.st_mode))
    refuse(ErrorCode::ResourceNotFound, source, Operation::MoveFolder, "no such folder");
  bool const replace = p::replaces(policy);
  if (statIfPresent(to, existing, destination, Operation::MoveFolder, false)) {
    if (existing.st_dev == st.st_dev && existing.st_ino == st.st_ino) return;
    if (!S_ISDIR(existing.st_mode) || !replace)
      refuse(ErrorCode::ResourceAlreadyExists, destination, Operation::MoveFolder, "the destination exists");
  }
  Placement fromAt = place(from, source, Operation::MoveFolder), toAt = place(to, destination, Operation::MoveFolder);
  int error = rename(fromAt.folder.get(), fromAt.name.c_str(), toAt.folder.get(), toAt.name.c_str(), !replace);
  if (error == EEXIST && replace) error = ENOTEMPTY; // POSIX lets rename say either for a full folder
  if (error != 0) failErrno(error, destination, Operation::MoveFolder);
}

p::FilenameSensitivity LocalProvider::getFilenameSensitivity(p::StorageIRI const& location) {
  return sensitivityOf(pathOf(location, Operation::GetFilenameSensitivity));
}

std::unique_ptr<p::IFolderEntryIterator> LocalProvider::list(p::StorageIRI const& folder,
                                                             p::ListingRequest const& request) {
  int fd = openAt(AT_FDCWD, pathOf(folder, request.operation).c_str(), folderFlags);
  if (fd < 0) failErrno(-fd, folder, request.operation);
  return listFolder(UniqueFd(fd), request, *user_, folder);
}

void LocalProvider::shutdownProvider(p::StorageIRI const& location) {
  ProviderBase::shutdownProvider(location);
  std::lock_guard lock(inotifyMutex_);
  inotify_.reset();
}

p::StorageInfo LocalProvider::getProviderStorageInfo(p::StorageIRI const& location) {
  struct statvfs vfs {};
  if (::statvfs(pathOf(location, Operation::GetProviderStorageInfo).c_str(), &vfs) != 0)
    failErrno(errno, location, Operation::GetProviderStorageInfo);
  p::StorageInfo info;
  info.totalBytes = static_cast<std::uint64_t>(vfs.f_blocks) * vfs.f_frsize;
  info.freeBytes = static_cast<std::uint64_t>(vfs.f_bfree) * vfs.f_frsize;
  info.availableBytes = static_cast<std::uint64_t>(vfs.f_bavail) * vfs.f_frsize;
  info.details.put("posix.blockSize", vfs.f_frsize);
  info.details.put("posix.maxNameLength", vfs.f_namemax);
  info.details.put("posix.filesAvailable", vfs.f_favail);
  info.details.put("posix.readOnly", (vfs.f_flag & ST_RDONLY) != 0);
  return info;
}

void LocalProvider::flushFilesystem() { ::sync(); }

void LocalProvider::flushFilesystem(p::StorageIRI const& location) {
  int fd = openAt(AT_FDCWD, pathOf(location, "flushFilesystem").c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) failErrno(-fd, location, "flushFilesystem");
  UniqueFd opened(fd);
  if (int error = syncFilesystem(opened.get())) failErrno(error, location, "flushFilesystem");
}

void LocalProvider::invalidate(p::StorageIRI const&) {}

void LocalProvider::beginDurabilityBatch() { detail::beginDurabilityBatch(); }

void LocalProvider::endDurabilityBatch(p::StorageIRI const& location) {
  if (int error = detail::endDurabilityBatch(true)) failErrno(error, location, "endDurabilityBatch");
}

void LocalProvider::abandonDurabilityBatch() noexcept { detail::endDurabilityBatch(false); }

void LocalProvider::publishFileEvents(p::StorageIRI const& file, p::ChangeCallback callback,
                                      std::vector<events::Kind> const& kinds) {
  std::string const path = pathOf(file, Operation::PublishFileEvents);
  struct stat st {};
  if (statAt(AT_FDCWD, path.c_str(), st, true) != 0 || S_ISDIR(st.st_mode))
    p::raise(p::ChangeEventsSubscriptionException(file, "no such file"));
  inotify().watch(file, path, false, false, std::move(callback), kinds);
}

void LocalProvider::stopPublishingFileEvents(p::StorageIRI const& file) {
  pathOf(file, Operation::StopPublishingFileEvents);
  inotify().unwatch(file);
}

void LocalProvider::publishFolderEvents(p::StorageIRI const& folder, p::ChangeCallback callback,
                                        std::vector<events::Kind> const& kinds, p::RecursiveWatching recursive) {
  std::string const path = pathOf(folder, Operation::PublishFolderEvents);
  struct stat st {};
  if (statAt(AT_FDCWD, path.c_str(), st, true) != 0 || !S_ISDIR(st.st_mode))
    p::raise(p::ChangeEventsSubscriptionException(folder, "no such folder"));
  inotify().watch(folder, path, true, recursive == p::RecursiveWatching::Yes, std::move(callback), kinds);
}

void LocalProvider::stopPublishingFolderEvents(p::StorageIRI const& folder) {
  pathOf(folder, Operation::StopPublishingFolderEvents);
  inotify().unwatch(folder);
}

} // namespace foundation::storage::providers::local
