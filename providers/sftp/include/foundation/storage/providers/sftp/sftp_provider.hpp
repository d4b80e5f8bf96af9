#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/provider_base.hpp>

#include <memory>
#include <mutex>
#include <string>

namespace foundation::storage::providers::sftp {

namespace detail {
class SshConnection;
class SftpSession;
} // namespace detail

/// The files ssh itself would use, where they differ from its defaults. Empty: the
/// defaults (~/.ssh/known_hosts, the agent and ~/.ssh/id_*, ~/.ssh/config).
struct SftpSettings {
  /// Known host keys, in place of ~/.ssh/known_hosts ("knownHostsFile").
  std::string knownHostsFile;
  /// A private key tried besides the agent's and the default ones ("identityFile").
  std::string identityFile;
  /// An ssh configuration file read in place of ~/.ssh/config ("configFile").
  std::string configFile;

  /// The settings of VFS_SSH_CONFIG (as ssh's -F), VFS_SSH_KNOWN_HOSTS and VFS_SSH_IDENTITY,
  /// for command-line users who keep a separate ssh setup; unset variables leave the defaults.
  FOUNDATION_API static SftpSettings fromEnvironment();

  friend bool operator==(SftpSettings const&, SftpSettings const&) = default;
};

/// Files and folders on an SSH server, `sftp://[user@]host[:port]/absolute/path`.
///
/// One provider serves one authority. Providers of the same user, host, port and settings
/// share one SSH session; its requests are serialised (an SSH session serves one thread at
/// a time). The server's host key must be in known_hosts: an unknown or changed key is
/// PermissionDenied, naming the host and the key's SHA256 fingerprint. Authentication is by
/// the SSH agent and by keys, never by password. A dropped connection is opened again by
/// the next operation; reads and listings are retried once. Transactional streams write a
/// temporary file beside the target and rename it over the target on commit.
class FOUNDATION_API SftpProvider final : public provider::ProviderBase {
public:
  /// `authority` is the IRI's "[user@]host[:port]"; a password in it is InvalidLocation.
  explicit SftpProvider(std::u16string const& authority, SftpSettings settings = {});
  ~SftpProvider() override;

  provider::ExistsResult exists(provider::StorageIRI const& location) override;
  provider::FileAttributes getFileAttributes(provider::StorageIRI const& file) override;
  provider::FolderAttributes getFolderAttributes(provider::StorageIRI const& folder) override;
  /// "posix.mode", "posix.uid" and "posix.gid" as the server reports them.
  provider::ExtendedAttributes getExtendedAttributes(provider::StorageIRI const& location) override;
  /// Whole seconds (what the protocol carries); the access time is kept.
  void setLastModified(provider::StorageIRI const& location, boost::posix_time::ptime const& time) override;
  /// Sets or clears the owner's write permission.
  void setWritable(provider::StorageIRI const& location, bool writable) override;
  void createFile(provider::StorageIRI const& file) override;
  void removeFile(provider::StorageIRI const& file) override;
  void truncateToSize(provider::StorageIRI const& file, std::uint64_t size) override;
  std::unique_ptr<provider::ByteStream> openReadOnlyStream(provider::StorageIRI const& file) override;
  void createFolder(provider::StorageIRI const& folder) override;
  void removeFolder(provider::StorageIRI const& folder) override;

  /// Keys "knownHostsFile", "identityFile", "configFile" (see SftpSettings); the next
  /// operation connects with them.
  void configure(provider::StorageIRI const& location, boost::property_tree::ptree settings) override;
  /// Stops polls and closes the session.
  void shutdownProvider(provider::StorageIRI const& location) override;
  /// From the server's file system (statvfs@openssh.com).
  provider::StorageInfo getProviderStorageInfo(provider::StorageIRI const& location) override;

protected:
  std::unique_ptr<provider::IFolderEntryIterator> list(provider::StorageIRI const& folder,
                                                       provider::ListingRequest const& request) override;
  std::unique_ptr<provider::ByteStream> doOpenStream(provider::StorageIRI const& file,
                                                     provider::ByteStreamOpenOptions const& options) override;
  std::unique_ptr<provider::TransactionalStream>
  doOpenTransactionalStream(provider::StorageIRI const& file, provider::ByteStreamOpenOptions const& options) override;
  void doMoveFile(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                  provider::ReplacementPolicy policy) override;
  void doMoveFolder(provider::StorageIRI const& source, provider::StorageIRI const& destination,
                    provider::ReplacementPolicy policy) override;

private:
  /// Runs `action` on the session with its lock held; failures become provider
  /// exceptions naming `location` and `operation`. Idempotent actions are retried once on
  /// a fresh connection when the old one was lost.
  template <class Action>
  decltype(auto) run(provider::StorageIRI const& location, provider::Operation operation, bool idempotent,
                     Action&& action);
  std::shared_ptr<detail::SshConnection> connection();

  std::mutex mutex_;
  std::shared_ptr<detail::SshConnection> connection_; ///< replaced by `configure`
};

} // namespace foundation::storage::providers::sftp
