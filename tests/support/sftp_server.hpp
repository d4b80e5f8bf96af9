#pragma once

// The SSH server the sftp tests run against: the one the VFS_SFTP_* variables name, as
// `eval "$(scripts/sshd.sh start)"` sets them for an OpenSSH server on loopback.

#include <foundation/storage/providers/sftp/sftp_provider.hpp>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <unistd.h>

namespace testsupport {

namespace sftp = foundation::storage::providers::sftp;

inline std::string sftpVariable(char const* name) {
  char const* value = std::getenv(name);
  return value ? value : "";
}

/// "user@127.0.0.1:port", the authority of the test server.
inline std::string sftpAuthority() {
  return sftpVariable("VFS_SFTP_USER") + "@" + sftpVariable("VFS_SFTP_HOST") + ":" + sftpVariable("VFS_SFTP_PORT");
}

/// The server's key files; no ~/.ssh/config, so that the tester's own settings stay out.
inline sftp::SftpSettings sftpTestSettings() {
  return {sftpVariable("VFS_SFTP_KNOWN_HOSTS"), sftpVariable("VFS_SFTP_IDENTITY"), "/dev/null"};
}

inline std::shared_ptr<sftp::SftpProvider> makeSftpProvider(sftp::SftpSettings settings = sftpTestSettings()) {
  auto authority = sftpAuthority();
  return std::make_shared<sftp::SftpProvider>(std::u16string(authority.begin(), authority.end()), std::move(settings));
}

/// A folder below the server's data folder that no other test process uses, as an IRI
/// ("sftp://user@host:port/tmp/.../stem-pid-n") and as the server's path.
struct SftpFolder {
  foundation::storage::provider::StorageIRI iri;
  std::string path;
};

inline SftpFolder uniqueSftpFolder(std::string const& stem) {
  static std::atomic<int> counter{0};
  std::string path =
      sftpVariable("VFS_SFTP_DATA") + "/" + stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
  std::string iri = "sftp://" + sftpAuthority() + path;
  return {foundation::storage::provider::StorageIRI(std::u16string(iri.begin(), iri.end())), path};
}

/// Why the sftp tests cannot run (no server configured or none answering); empty when
/// they can.
inline std::string sftpUnavailable() {
  static std::string const reason = []() -> std::string {
    if (sftpVariable("VFS_SFTP_PORT").empty())
      return "no SSH server: run `eval \"$(scripts/sshd.sh start)\"` (it sets VFS_SFTP_PORT and the key files)";
    try {
      // Kept, so that every provider of the tests shares its session: one login per process.
      // Never destroyed: at exit libssh's cryptography may be gone before a static's
      // destructor could close the session; the system closes the connection instead.
      static auto const* probe = new std::shared_ptr<sftp::SftpProvider>(makeSftpProvider());
      (*probe)->exists(uniqueSftpFolder("probe").iri);
      return {};
    } catch (std::exception const& e) {
      return std::string("the SSH server does not answer (start it with scripts/sshd.sh start): ") + e.what();
    }
  }();
  return reason;
}

/// Options of OpenSSH's `sftp` and `scp` clients for the test server (batch mode, its keys only).
inline std::string sshClientOptions() {
  return "-F /dev/null -o BatchMode=yes -o IdentitiesOnly=yes -o StrictHostKeyChecking=yes -o UserKnownHostsFile=" +
         sftpVariable("VFS_SFTP_KNOWN_HOSTS") + " -i " + sftpVariable("VFS_SFTP_IDENTITY") + " -P " +
         sftpVariable("VFS_SFTP_PORT");
}

/// "user@host" of the test server, as the clients take it.
inline std::string sftpLogin() { return sftpVariable("VFS_SFTP_USER") + "@" + sftpVariable("VFS_SFTP_HOST"); }

/// The `sftp` command line client's options and login for the test server.
inline std::string sftpClientOptions() { return sshClientOptions() + " " + sftpLogin(); }

} // namespace testsupport

/// Skips the test when no SSH server answers.
#define SKIP_WITHOUT_SFTP()                                                                                            \
  do {                                                                                                                 \
    if (auto reason = ::testsupport::sftpUnavailable(); !reason.empty()) GTEST_SKIP() << reason;                       \
  } while (false)
