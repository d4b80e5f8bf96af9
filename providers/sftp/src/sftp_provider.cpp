#include <foundation/storage/providers/sftp/sftp_provider.hpp>

#include "sftp_attributes.hpp"
#include "sftp_listing.hpp"
#include "sftp_renames.hpp"
#include "sftp_streams.hpp"
#include "ssh_connection.hpp"

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/conversion.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace foundation::storage::providers::sftp {

namespace p = foundation::storage::provider;
using detail::Attributes;
using detail::explained;
using detail::renameKeeping;
using detail::renameReplacing;
using detail::SftpFailure;
using detail::SftpSession;
using p::ErrorCode;
using p::Operation;
using Session = std::shared_ptr<SftpSession>;

namespace {

/// How long a lost connection rests before the one retry of a read.
constexpr auto retryDelay = std::chrono::milliseconds(200);

std::string pathOf(p::StorageIRI const& location) {
  auto path = fl::i18n::to_utf8(location.getResolvedPath());
  return path.empty() ? "/" : path;
}

bool isRoot(std::string const& path) { return path == "/"; }

detail::Target targetOf(std::u16string const& authority) {
  try {
    return detail::parseAuthority(authority);
  } catch (std::invalid_argument const& e) {
    p::fail(ErrorCode::InvalidLocation, p::StorageIRI(u"sftp:///"), u"sftp.connect", e.what());
  }
}

/// What is at a path: the item's own attributes, and those of what it links to.
struct Item {
  Attributes own;
  std::optional<Attributes> linked;

  sftp_attributes_struct const* target() const { return linked && *linked ? linked->get() : nullptr; }
  bool folder() const { return detail::isFolder(target() ? *target() : *own); }
};

std::optional<Item> lookUp(SftpSession& session, std::string const& path) {
  auto own = session.lstat(path);
  if (!own) return std::nullopt;
  Item item{std::move(*own), std::nullopt};
  if (detail::isSymlink(*item.own)) item.linked = session.stat(path);
  return item;
}

Item existing(SftpSession& session, std::string const& path) {
  auto item = lookUp(session, path);
  if (!item) throw SftpFailure(ErrorCode::ResourceNotFound, "no such file or folder");
  return std::move(*item);
}

Item existingFile(SftpSession& session, std::string const& path) {
  auto item = existing(session, path);
  if (item.folder()) throw SftpFailure(ErrorCode::ResourceNotFound, "a folder, not a file");
  return item;
}

Item existingFolder(SftpSession& session, std::string const& path) {
  auto item = existing(session, path);
  if (!item.folder()) throw SftpFailure(ErrorCode::ResourceNotFound, "a file, not a folder");
  return item;
}

} // namespace

template <class Action>
decltype(auto) SftpProvider::run(p::StorageIRI const& location, Operation operation, bool idempotent, Action&& action) {
  auto const shared = connection();
  for (int attempt = 0;; ++attempt) {
    Session session;
    try {
      session = shared->session();
      std::lock_guard lock(session->mutex());
      return action(session);
    } catch (SftpFailure const& failure) {
      if (failure.connectionLost && session) shared->drop(session);
      if (failure.connectionLost && idempotent && attempt == 0) {
        std::this_thread::sleep_for(retryDelay);
        continue;
      }
      fail(failure.code, location, operation, failure.what());
    }
  }
}

SftpSettings SftpSettings::fromEnvironment() {
  auto variable = [](char const* name) -> std::string {
    char const* value = std::getenv(name);
    return value ? value : "";
  };
  return {variable("VFS_SSH_KNOWN_HOSTS"), variable("VFS_SSH_IDENTITY"), variable("VFS_SSH_CONFIG")};
}

SftpProvider::SftpProvider(std::u16string const& authority, SftpSettings settings)
    : ProviderBase(u"sftp", p::ProviderCapabilities{}),
      connection_(detail::SshConnection::of(targetOf(authority), std::move(settings))) {}

SftpProvider::~SftpProvider() { stopChangePolling(); }

std::shared_ptr<detail::SshConnection> SftpProvider::connection() {
  std::lock_guard lock(mutex_);
  return connection_;
}

p::ExistsResult SftpProvider::exists(p::StorageIRI const& location) {
  auto const path = pathOf(location);
  return run(location, Operation::Exists, true, [&](Session const& session) {
    auto found = session->stat(path);
    if (!found) return p::ExistsResult::NotFound;
    return detail::isFolder(**found) ? p::ExistsResult::Folder : p::ExistsResult::File;
  });
}

p::FileAttributes SftpProvider::getFileAttributes(p::StorageIRI const& file) {
  auto const path = pathOf(file);
  return run(file, Operation::GetFileAttributes, true, [&](Session const& session) {
    auto item = existingFile(*session, path);
    return detail::fileAttributes(fl::i18n::to_utf8(file.getName()), *item.own, item.target());
  });
}

p::FolderAttributes SftpProvider::getFolderAttributes(p::StorageIRI const& folder) {
  auto const path = pathOf(folder);
  return run(folder, Operation::GetFolderAttributes, true, [&](Session const& session) {
    auto item = existingFolder(*session, path);
    return detail::folderAttributes(fl::i18n::to_utf8(folder.getName()), *item.own, item.target());
  });
}

p::ExtendedAttributes SftpProvider::getExtendedAttributes(p::StorageIRI const& location) {
  auto const path = pathOf(location);
  return run(location, Operation::GetExtendedAttributes, true, [&](Session const& session) {
    auto item = existing(*session, path);
    return detail::extendedAttributes(item.target() ? *item.target() : *item.own);
  });
}

void SftpProvider::setLastModified(p::StorageIRI const& location, boost::posix_time::ptime const& time) {
  auto const path = pathOf(location);
  auto const seconds = (time - boost::posix_time::from_time_t(0)).total_seconds();
  run(location, Operation::SetLastModified, false, [&](Session const& session) {
    auto found = session->stat(path);
    if (!found) throw SftpFailure(ErrorCode::ResourceNotFound, "no such file or folder");
    timeval times[2]{};
    times[0].tv_sec = static_cast<time_t>((*found)->atime); // the access time stays
    times[1].tv_sec = static_cast<time_t>(seconds);
    session->check(sftp_utimes(session->sftp(), path.c_str(), times), "cannot set the modification time");
  });
}

void SftpProvider::setWritable(p::StorageIRI const& location, bool writable) {
  auto const path = pathOf(location);
  run(location, Operation::SetWritable, false, [&](Session const& session) {
    auto found = session->stat(path);
    if (!found) throw SftpFailure(ErrorCode::ResourceNotFound, "no such file or folder");
    auto const mode = (*found)->permissions & 07777;
    auto const wanted = writable ? mode | S_IWUSR : mode & ~static_cast<std::uint32_t>(S_IWUSR);
    if (wanted != mode)
      session->check(sftp_chmod(session->sftp(), path.c_str(), wanted), "cannot change the permissions");
  });
}

void SftpProvider::createFile(p::StorageIRI const& file) {
  auto const path = pathOf(file);
  run(file, Operation::CreateFile, false, [&](Session const& session) {
    sftp_file made = sftp_open(session->sftp(), path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0666);
    if (!made) {
      auto failed = session->failure("cannot create the file");
      if (!failed.connectionLost && session->lstat(path))
        throw SftpFailure(ErrorCode::ResourceAlreadyExists, "it exists already");
      throw explained(*session, failed, path);
    }
    session->check(sftp_close(made), "cannot close the new file");
  });
}

void SftpProvider::removeFile(p::StorageIRI const& file) {
  auto const path = pathOf(file);
  run(file, Operation::RemoveFile, false, [&](Session const& session) {
    if (sftp_unlink(session->sftp(), path.c_str()) >= 0) return;
    auto failed = session->failure("cannot remove the file");
    if (!failed.connectionLost && failed.status == SSH_FX_FAILURE) existingFile(*session, path);
    throw explained(*session, failed, path);
  });
}

void SftpProvider::truncateToSize(p::StorageIRI const& file, std::uint64_t size) {
  auto const path = pathOf(file);
  run(file, Operation::TruncateToSize, false, [&](Session const& session) {
    existingFile(*session, path);
    sftp_attributes_struct attributes{};
    attributes.flags = SSH_FILEXFER_ATTR_SIZE;
    attributes.size = size;
    session->check(sftp_setstat(session->sftp(), path.c_str(), &attributes), "cannot change the size");
  });
}

std::unique_ptr<p::ByteStream> SftpProvider::openReadOnlyStream(p::StorageIRI const& file) {
  auto const path = pathOf(file);
  return run(file, Operation::OpenReadOnlyStream, true,
             [&](Session const& session) { return detail::openReadStream(session, path); });
}

std::unique_ptr<p::ByteStream> SftpProvider::doOpenStream(p::StorageIRI const& file,
                                                          p::ByteStreamOpenOptions const& options) {
  auto const path = pathOf(file);
  return run(file, Operation::OpenStream, false, [&](Session const& session) {
    try {
      return detail::openWriteStream(session, path, options);
    } catch (SftpFailure const& failed) {
      throw explained(*session, failed, path);
    }
  });
}

std::unique_ptr<p::TransactionalStream>
SftpProvider::doOpenTransactionalStream(p::StorageIRI const& file, p::ByteStreamOpenOptions const& options) {
  auto const path = pathOf(file);
  std::weak_ptr<detail::SshConnection> const shared = connection();
  return run(file, Operation::OpenTransactionalStream, false,
             [&](Session const& session) { return detail::openTransaction(session, shared, path, options); });
}

void SftpProvider::createFolder(p::StorageIRI const& folder) {
  auto const path = pathOf(folder);
  run(folder, Operation::CreateFolder, false, [&](Session const& session) {
    if (sftp_mkdir(session->sftp(), path.c_str(), 0777) >= 0) return;
    auto failed = session->failure("cannot create the folder");
    if (!failed.connectionLost && session->lstat(path))
      throw SftpFailure(ErrorCode::ResourceAlreadyExists, "it exists already");
    throw explained(*session, failed, path);
  });
}

void SftpProvider::removeFolder(p::StorageIRI const& folder) {
  auto const path = pathOf(folder);
  if (isRoot(path))
    fail(ErrorCode::InvalidLocation, folder, Operation::RemoveFolder, "the root folder cannot be removed");
  run(folder, Operation::RemoveFolder, false, [&](Session const& session) {
    if (sftp_rmdir(session->sftp(), path.c_str()) >= 0) return;
    auto failed = session->failure("cannot remove the folder");
    if (failed.connectionLost || failed.status != SSH_FX_FAILURE) throw failed;
    existingFolder(*session, path);
    if (detail::hasChildren(*session, path)) throw SftpFailure(ErrorCode::FolderNotEmpty, "the folder is not empty");
    throw failed;
  });
}

std::unique_ptr<p::IFolderEntryIterator> SftpProvider::list(p::StorageIRI const& folder,
                                                            p::ListingRequest const& request) {
  auto const path = pathOf(folder);
  auto entries = run(folder, request.operation, true,
                     [&](Session const& session) { return detail::readFolder(*session, path, request); });
  return std::make_unique<p::SnapshotFolderEntryIterator>(std::move(entries));
}

void SftpProvider::doMoveFile(p::StorageIRI const& source, p::StorageIRI const& destination,
                              p::ReplacementPolicy policy) {
  if (!source.hasSameRoot(destination))
    fail(ErrorCode::UnsupportedOperation, destination, Operation::MoveFile, "the destination is on another server");
  auto const from = pathOf(source);
  auto const to = pathOf(destination);
  run(source, Operation::MoveFile, false, [&](Session const& session) {
    existingFile(*session, from);
    if (from == to) return;
    if (policy != p::ReplacementPolicy::Overwrite) {
      try {
        renameKeeping(*session, from, to);
      } catch (SftpFailure const& failed) {
        if (failed.code != ErrorCode::ResourceAlreadyExists || policy != p::ReplacementPolicy::KeepExisting) throw;
      }
      return;
    }
    if (auto target = lookUp(*session, to); target && target->folder())
      throw SftpFailure(ErrorCode::ResourceAlreadyExists, "a folder is in the way");
    renameReplacing(*session, from, to);
  });
}

void SftpProvider::doMoveFolder(p::StorageIRI const& source, p::StorageIRI const& destination,
                                p::ReplacementPolicy policy) {
  if (!source.hasSameRoot(destination))
    fail(ErrorCode::UnsupportedOperation, destination, Operation::MoveFolder, "the destination is on another server");
  auto const from = pathOf(source);
  auto const to = pathOf(destination);
  if (isRoot(from)) fail(ErrorCode::InvalidLocation, source, Operation::MoveFolder, "the root folder cannot be moved");
  if (source.withPath(source.getResolvedPath()).isAncestorOf(destination.withPath(destination.getResolvedPath())))
    fail(ErrorCode::InvalidLocation, destination, Operation::MoveFolder, "a folder cannot move into itself");
  run(source, Operation::MoveFolder, false, [&](Session const& session) {
    existingFolder(*session, from);
    if (from == to) return;
    auto const target = lookUp(*session, to);
    if (!target) return renameKeeping(*session, from, to);
    if (policy == p::ReplacementPolicy::KeepExisting) return;
    if (policy == p::ReplacementPolicy::FailIfExists || !target->folder())
      throw SftpFailure(ErrorCode::ResourceAlreadyExists, "the destination exists");
    if (detail::hasChildren(*session, to))
      throw SftpFailure(ErrorCode::FolderNotEmpty, "the destination folder is not empty");
    try {
      renameReplacing(*session, from, to); // rename(2) replaces an empty folder, never a full one
    } catch (SftpFailure const& failed) {
      if (failed.status == SSH_FX_FAILURE && detail::hasChildren(*session, to))
        throw SftpFailure(ErrorCode::FolderNotEmpty, "the destination folder is not empty");
      throw;
    }
  });
}

void SftpProvider::configure(p::StorageIRI const& location, boost::property_tree::ptree settings) {
  auto const current = connection();
  SftpSettings changed = current->settings();
  for (auto const& [key, value] : settings) {
    if (key == "knownHostsFile")
      changed.knownHostsFile = value.data();
    else if (key == "identityFile")
      changed.identityFile = value.data();
    else if (key == "configFile")
      changed.configFile = value.data();
    else
      fail(ErrorCode::InvalidLocation, location, Operation::Configure, "unknown sftp setting '" + key + "'");
  }
  auto replaced = detail::SshConnection::of(current->target(), changed);
  std::lock_guard lock(mutex_);
  connection_ = std::move(replaced);
}

void SftpProvider::shutdownProvider(p::StorageIRI const& location) {
  ProviderBase::shutdownProvider(location);
  connection()->close();
}

p::StorageInfo SftpProvider::getProviderStorageInfo(p::StorageIRI const& location) {
  auto const path = pathOf(location);
  return run(location, Operation::GetProviderStorageInfo, true, [&](Session const& session) {
    p::StorageInfo info;
    info.details.put("sftp.server", session->label());
    if (!session->supports("statvfs@openssh.com", "2")) return info;
    std::unique_ptr<sftp_statvfs_struct, void (*)(sftp_statvfs_t)> found(sftp_statvfs(session->sftp(), path.c_str()),
                                                                         sftp_statvfs_free);
    if (!found) throw session->failure("cannot read the storage information");
    info.totalBytes = found->f_frsize * found->f_blocks;
    info.freeBytes = found->f_frsize * found->f_bfree;
    info.availableBytes = found->f_frsize * found->f_bavail;
    info.details.put("posix.blockSize", found->f_frsize);
    info.details.put("posix.maxNameLength", found->f_namemax);
    return info;
  });
}

} // namespace foundation::storage::providers::sftp
