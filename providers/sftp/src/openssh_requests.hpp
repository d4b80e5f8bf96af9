#pragma once

#include <libssh/libssh.h>

#include <cstdint>
#include <string>

namespace foundation::storage::providers::sftp::detail {

/// The OpenSSH extended requests that this libssh does not send (posix-rename@openssh.com),
/// spoken on a second SFTP channel of the same session. Same thread rules as the session.
class OpensshRequests {
public:
  /// Opens the channel and greets the server; SftpFailure when that fails.
  explicit OpensshRequests(ssh_session session);
  ~OpensshRequests();
  OpensshRequests(OpensshRequests const&) = delete;
  OpensshRequests& operator=(OpensshRequests const&) = delete;

  /// rename(2) on the server: replaces an existing target in one step. The SFTP status
  /// (SSH_FX_OK on success); SftpFailure when the channel fails.
  int posixRename(std::string const& from, std::string const& to);

private:
  void send(std::string const& packet);
  /// One packet's type and payload.
  std::string receive(std::uint8_t& type);
  [[noreturn]] void lost(char const* what) const;

  ssh_session session_;
  ssh_channel channel_ = nullptr;
  std::uint32_t nextId_ = 1;
};

} // namespace foundation::storage::providers::sftp::detail
