#pragma once

#include <string>

namespace foundation::storage::providers::sftp::detail {

/// Whom an sftp IRI's authority names. Empty user and port 0: whatever the ssh
/// configuration says (and then the local user and port 22).
struct Target {
  std::string user;
  std::string host;
  int port = 0;

  friend bool operator==(Target const&, Target const&) = default;
  /// "user@host:port" with what is given, for messages.
  std::string label() const;
};

/// Parses "[user@]host[:port]" (IPv6 hosts in brackets). A password ("user:pass@"), an
/// empty host or a bad port is std::invalid_argument with the reason.
Target parseAuthority(std::u16string const& authority);

} // namespace foundation::storage::providers::sftp::detail
