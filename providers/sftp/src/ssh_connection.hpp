#pragma once

#include "sftp_session.hpp"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace foundation::storage::providers::sftp::detail {

/// The SSH session of one (user, host, port) with given settings, shared by every provider
/// and stream that names them, and opened again when it was lost.
class SshConnection {
public:
  /// The connection of `target` with `settings`, shared while anyone holds it.
  static std::shared_ptr<SshConnection> of(Target const& target, SftpSettings const& settings);

  SshConnection(Target target, SftpSettings settings);

  /// The live session, connecting when there is none or the last one was lost.
  std::shared_ptr<SftpSession> session();
  /// Forgets `lost` so that the next `session` connects again; streams still holding it
  /// keep it until they close.
  void drop(std::shared_ptr<SftpSession> const& lost);
  /// Forgets the session, whatever its state.
  void close();
  /// Remembers a temporary file that a lost session left behind; the next session removes it.
  void leftBehind(std::string path);

  Target const& target() const noexcept { return target_; }
  SftpSettings const& settings() const noexcept { return settings_; }

private:
  Target const target_;
  SftpSettings const settings_;
  std::mutex mutex_;
  std::shared_ptr<SftpSession> session_;
  // A leaf lock of its own: streams report leftovers while holding their session's lock,
  // which `session` takes under `mutex_`.
  std::mutex leftoversMutex_;
  std::vector<std::string> leftovers_;
};

} // namespace foundation::storage::providers::sftp::detail
