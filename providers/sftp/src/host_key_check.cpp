#include "host_key_check.hpp"

#include "sftp_session.hpp"

namespace foundation::storage::providers::sftp::detail {

namespace {

/// "SHA256:..." as ssh prints it, or a note when the key cannot be read.
std::string fingerprintOf(ssh_session session) {
  ssh_key key = nullptr;
  if (ssh_get_server_publickey(session, &key) != SSH_OK) return "(no key received)";
  unsigned char* hash = nullptr;
  std::size_t length = 0;
  std::string text = "(no fingerprint)";
  if (ssh_get_publickey_hash(key, SSH_PUBLICKEY_HASH_SHA256, &hash, &length) == SSH_OK) {
    if (char* printable = ssh_get_fingerprint_hash(SSH_PUBLICKEY_HASH_SHA256, hash, length)) {
      text = printable;
      ssh_string_free_char(printable);
    }
    ssh_clean_pubkey_hash(&hash);
  }
  text = std::string(ssh_key_type_to_char(ssh_key_type(key))) + " key " + text;
  ssh_key_free(key);
  return text;
}

} // namespace

void checkHostKey(ssh_session session, std::string const& label) {
  using provider::ErrorCode;
  switch (ssh_session_is_known_server(session)) {
  case SSH_KNOWN_HOSTS_OK: return;
  case SSH_KNOWN_HOSTS_CHANGED:
    throw SftpFailure(ErrorCode::PermissionDenied,
                      "the host key of " + label + " has changed (" + fingerprintOf(session) +
                          "); refused: someone may be intercepting the connection. If the key was changed on "
                          "purpose, replace the old one in known_hosts");
  case SSH_KNOWN_HOSTS_OTHER:
    throw SftpFailure(ErrorCode::PermissionDenied, "known_hosts holds a key of another type for " + label +
                                                       " than the server offers (" + fingerprintOf(session) +
                                                       "); refused: someone may be intercepting the connection");
  case SSH_KNOWN_HOSTS_UNKNOWN:
  case SSH_KNOWN_HOSTS_NOT_FOUND:
    throw SftpFailure(ErrorCode::PermissionDenied,
                      "the host key of " + label + " is unknown (" + fingerprintOf(session) +
                          "); refused: check the fingerprint and add the key to known_hosts (ssh-keyscan)");
  case SSH_KNOWN_HOSTS_ERROR: break;
  }
  throw SftpFailure(ErrorCode::IOError, "cannot check the host key of " + label + ": " + ssh_get_error(session));
}

} // namespace foundation::storage::providers::sftp::detail
