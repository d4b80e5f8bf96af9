#pragma once

#include <libssh/libssh.h>

#include <string>

namespace foundation::storage::providers::sftp::detail {

/// Accepts the connected server only when its host key is in known_hosts. An unknown or
/// changed key is an SftpFailure with PermissionDenied that names `label` and the key's
/// SHA256 fingerprint; nothing is ever added to known_hosts.
void checkHostKey(ssh_session session, std::string const& label);

} // namespace foundation::storage::providers::sftp::detail
