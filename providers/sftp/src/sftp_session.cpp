#include "sftp_session.hpp"

#include "host_key_check.hpp"
#include "openssh_requests.hpp"

namespace foundation::storage::providers::sftp::detail {

using provider::ErrorCode;

namespace {

constexpr long connectTimeoutSeconds = 30;

void setOption(ssh_session session, ssh_options_e option, void const* value, char const* what) {
  if (ssh_options_set(session, option, value) != SSH_OK)
    throw SftpFailure(ErrorCode::InvalidLocation,
                      std::string("cannot use the ") + what + ": " + ssh_get_error(session));
}

void configure(ssh_session session, Target const& target, SftpSettings const& settings) {
  // What the location gives wins over ~/.ssh/config, which fills in the rest (and may
  // turn a Host alias into the real host name).
  setOption(session, SSH_OPTIONS_HOST, target.host.c_str(), "host name");
  if (!target.user.empty()) setOption(session, SSH_OPTIONS_USER, target.user.c_str(), "user name");
  if (target.port != 0) setOption(session, SSH_OPTIONS_PORT, &target.port, "port");
  if (ssh_options_parse_config(session, settings.configFile.empty() ? nullptr : settings.configFile.c_str()) != 0)
    throw SftpFailure(ErrorCode::InvalidLocation,
                      "cannot read the ssh configuration: " + std::string(ssh_get_error(session)));
  if (!settings.knownHostsFile.empty())
    setOption(session, SSH_OPTIONS_KNOWNHOSTS, settings.knownHostsFile.c_str(), "known hosts file");
  if (!settings.identityFile.empty())
    setOption(session, SSH_OPTIONS_ADD_IDENTITY, settings.identityFile.c_str(), "identity file");
  long timeout = connectTimeoutSeconds;
  setOption(session, SSH_OPTIONS_TIMEOUT, &timeout, "timeout");
  // Every request waits for its answer: with Nagle's algorithm, a request's last segment
  // waits for the peer's delayed acknowledgement, about 40 ms per request.
  int noDelay = 1;
  setOption(session, SSH_OPTIONS_NODELAY, &noDelay, "TCP_NODELAY");
}

void authenticate(ssh_session session, std::string const& label) {
  // The agent first, then the keys: those of ~/.ssh, of the configuration and of the settings.
  int rc = ssh_userauth_publickey_auto(session, nullptr, nullptr);
  if (rc == SSH_AUTH_SUCCESS) return;
  if (rc == SSH_AUTH_ERROR)
    throw SftpFailure(ErrorCode::IOError, "authentication with " + label + " failed: " + ssh_get_error(session), -1,
                      ssh_is_connected(session) == 0);
  throw SftpFailure(ErrorCode::PermissionDenied, "no key of the SSH agent or of the identity files is accepted by " +
                                                     label + " (passwords are not used)");
}

} // namespace

std::string parentPath(std::string const& path) {
  auto slash = path.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : path.substr(0, slash);
}

SftpFailure explained(SftpSession& session, SftpFailure failed, std::string const& path) {
  if (failed.connectionLost || failed.status != SSH_FX_FAILURE) return failed;
  if (auto parent = session.stat(parentPath(path)); !parent || parent->get()->type != SSH_FILEXFER_TYPE_DIRECTORY)
    return SftpFailure(ErrorCode::ResourceNotFound, "the parent folder is missing");
  return failed;
}

ErrorCode codeOfStatus(int status) noexcept {
  switch (status) {
  case SSH_FX_NO_SUCH_FILE:
  case SSH_FX_NO_SUCH_PATH: return ErrorCode::ResourceNotFound;
  case SSH_FX_PERMISSION_DENIED:
  case SSH_FX_WRITE_PROTECT: return ErrorCode::PermissionDenied;
  case SSH_FX_FILE_ALREADY_EXISTS: return ErrorCode::ResourceAlreadyExists;
  case SSH_FX_OP_UNSUPPORTED: return ErrorCode::UnsupportedOperation;
  case SSH_FX_BAD_MESSAGE: return ErrorCode::InvalidLocation;
  case SSH_FX_NO_CONNECTION:
  case SSH_FX_CONNECTION_LOST:
  case SSH_FX_NO_MEDIA:
  case SSH_FX_FAILURE: return ErrorCode::IOError;
  default: return ErrorCode::Unknown;
  }
}

SftpSession::SftpSession(Target const& target, SftpSettings const& settings) : label_(target.label()) {
  ssh_ = ssh_new();
  if (!ssh_) throw SftpFailure(ErrorCode::InternalError, "cannot make an SSH session");
  try {
    configure(ssh_, target, settings);
    if (ssh_connect(ssh_) != SSH_OK)
      throw SftpFailure(ErrorCode::IOError, "cannot connect to " + label_ + ": " + ssh_get_error(ssh_), -1, true);
    checkHostKey(ssh_, label_);
    authenticate(ssh_, label_);
    sftp_ = sftp_new(ssh_);
    if (!sftp_ || sftp_init(sftp_) != SSH_OK)
      throw SftpFailure(ErrorCode::IOError, "cannot start SFTP on " + label_ + ": " + ssh_get_error(ssh_), -1,
                        ssh_is_connected(ssh_) == 0);
  } catch (...) {
    if (sftp_) sftp_free(sftp_);
    ssh_disconnect(ssh_);
    ssh_free(ssh_);
    throw;
  }
}

SftpSession::~SftpSession() {
  extensions_.reset();
  sftp_free(sftp_);
  ssh_disconnect(ssh_);
  ssh_free(ssh_);
}

bool SftpSession::connected() const { return ssh_is_connected(ssh_) != 0; }

bool SftpSession::alive() const {
  if (!connected()) return false;
  // Reads what already arrived without waiting: a server that went away has closed the
  // connection, which this notices before a request is sent into the void.
  int const rc = ssh_channel_poll(sftp_->channel, 0);
  return rc != SSH_ERROR && rc != SSH_EOF && connected();
}

bool SftpSession::supports(char const* extension, char const* version) const {
  return sftp_extension_supported(sftp_, extension, version) != 0;
}

SftpFailure SftpSession::failure(std::string const& what) const {
  if (!connected() || ssh_get_error_code(ssh_) == SSH_FATAL)
    return SftpFailure(ErrorCode::IOError,
                       what + ": the connection to " + label_ + " was lost (" + ssh_get_error(ssh_) + ")",
                       SSH_FX_CONNECTION_LOST, true);
  int const status = sftp_get_error(sftp_);
  std::string reason;
  switch (status) {
  case SSH_FX_NO_SUCH_FILE:
  case SSH_FX_NO_SUCH_PATH: reason = "no such file or folder"; break;
  case SSH_FX_PERMISSION_DENIED: reason = "permission denied"; break;
  case SSH_FX_FILE_ALREADY_EXISTS: reason = "it exists already"; break;
  case SSH_FX_OP_UNSUPPORTED: reason = "the server does not support it"; break;
  default: reason = ssh_get_error(ssh_); break;
  }
  return SftpFailure(codeOfStatus(status), what + ": " + reason, status);
}

std::optional<Attributes> SftpSession::attributes(std::string const& path, bool follow) const {
  Attributes found(follow ? sftp_stat(sftp_, path.c_str()) : sftp_lstat(sftp_, path.c_str()));
  if (found) return found;
  auto const failed = failure("cannot read the attributes");
  if (failed.status == SSH_FX_NO_SUCH_FILE || failed.status == SSH_FX_NO_SUCH_PATH) return std::nullopt;
  // A path through a file: ENOTDIR, which OpenSSH reports as a plain failure.
  if (failed.status == SSH_FX_FAILURE) return std::nullopt;
  throw failed;
}

std::optional<Attributes> SftpSession::lstat(std::string const& path) const { return attributes(path, false); }

std::optional<Attributes> SftpSession::stat(std::string const& path) const { return attributes(path, true); }

void SftpSession::posixRename(std::string const& from, std::string const& to) {
  if (!extensions_) extensions_ = std::make_unique<OpensshRequests>(ssh_);
  int const status = extensions_->posixRename(from, to);
  if (status == SSH_FX_OK) return;
  std::string reason = status == SSH_FX_NO_SUCH_FILE        ? "no such file or folder"
                       : status == SSH_FX_PERMISSION_DENIED ? "permission denied"
                                                            : "the server refused it";
  throw SftpFailure(codeOfStatus(status), "cannot rename: " + reason, status);
}

} // namespace foundation::storage::providers::sftp::detail
