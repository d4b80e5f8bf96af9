#pragma once

#include "sftp_authority.hpp"

#include <foundation/storage/provider/types.hpp>
#include <foundation/storage/providers/sftp/sftp_provider.hpp>

#include <libssh/libssh.h>
#include <libssh/sftp.h>

#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>

namespace foundation::storage::providers::sftp::detail {

class OpensshRequests;

/// A request that failed: the provider's code for it, the SFTP status when the server
/// answered one (SSH_FX_*), and whether the connection is gone.
class SftpFailure : public std::runtime_error {
public:
  SftpFailure(provider::ErrorCode code, std::string message, int status = -1, bool connectionLost = false)
      : std::runtime_error(std::move(message)), code(code), status(status), connectionLost(connectionLost) {}

  provider::ErrorCode code;
  int status;
  bool connectionLost;
};

struct AttributesDeleter {
  void operator()(sftp_attributes attributes) const noexcept { sftp_attributes_free(attributes); }
};
/// What the server tells about one item.
using Attributes = std::unique_ptr<sftp_attributes_struct, AttributesDeleter>;

/// One connected, authenticated SSH session with its SFTP channel. Not thread-safe: every
/// use holds `mutex()`. A lost connection stays lost; the owner opens a new session.
class SftpSession {
public:
  /// Connects, checks the host key, authenticates and starts SFTP; SftpFailure otherwise.
  SftpSession(Target const& target, SftpSettings const& settings);
  ~SftpSession();
  SftpSession(SftpSession const&) = delete;
  SftpSession& operator=(SftpSession const&) = delete;

  std::mutex& mutex() noexcept { return mutex_; }
  sftp_session sftp() const noexcept { return sftp_; }
  std::string const& label() const noexcept { return label_; }
  bool connected() const;
  /// Connected, and no end of the connection has arrived; asks nothing of the server.
  bool alive() const;
  /// Whether the server offers the extension in the version this code speaks.
  bool supports(char const* extension, char const* version = "1") const;

  /// The failure of the request that just failed, "what: reason".
  SftpFailure failure(std::string const& what) const;
  /// Throws `failure(what)` when `rc` is negative.
  void check(int rc, std::string const& what) const {
    if (rc < 0) throw failure(what);
  }

  /// The item's attributes, links not followed (lstat) or followed (stat); empty when
  /// nothing is there.
  std::optional<Attributes> lstat(std::string const& path) const;
  std::optional<Attributes> stat(std::string const& path) const;

  /// Renames over an existing target in one step (posix-rename@openssh.com); the caller
  /// checks `supports` first.
  void posixRename(std::string const& from, std::string const& to);

private:
  std::optional<Attributes> attributes(std::string const& path, bool follow) const;

  std::mutex mutex_;
  std::string label_;
  ssh_session ssh_ = nullptr;
  sftp_session sftp_ = nullptr;
  std::unique_ptr<OpensshRequests> extensions_; ///< opened on first use
};

/// The folder holding `path` ("/" for the root's children).
std::string parentPath(std::string const& path);

/// A plain failure of a change at `path` explained: OpenSSH answers SSH_FX_FAILURE for a
/// missing parent folder and a file in place of one alike.
SftpFailure explained(SftpSession& session, SftpFailure failed, std::string const& path);

/// The SFTP status's provider code (SSH_FX_NO_SUCH_FILE: ResourceNotFound...).
provider::ErrorCode codeOfStatus(int status) noexcept;

} // namespace foundation::storage::providers::sftp::detail
