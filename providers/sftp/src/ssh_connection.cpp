#include "ssh_connection.hpp"

namespace foundation::storage::providers::sftp::detail {

std::shared_ptr<SshConnection> SshConnection::of(Target const& target, SftpSettings const& settings) {
  static std::mutex mutex;
  static std::vector<std::weak_ptr<SshConnection>> known;
  std::lock_guard lock(mutex);
  std::erase_if(known, [](auto const& weak) { return weak.expired(); });
  for (auto const& weak : known) {
    if (auto shared = weak.lock(); shared && shared->target_ == target && shared->settings_ == settings) return shared;
  }
  auto made = std::make_shared<SshConnection>(target, settings);
  known.push_back(made);
  return made;
}

SshConnection::SshConnection(Target target, SftpSettings settings)
    : target_(std::move(target)), settings_(std::move(settings)) {}

std::shared_ptr<SftpSession> SshConnection::session() {
  std::lock_guard lock(mutex_);
  if (session_) {
    std::lock_guard inUse(session_->mutex());
    if (session_->alive()) return session_;
  }
  session_.reset();
  session_ = std::make_shared<SftpSession>(target_, settings_);
  std::vector<std::string> leftovers;
  {
    std::lock_guard listed(leftoversMutex_);
    leftovers.swap(leftovers_);
  }
  // No one else has the new session yet: no session lock needed. Failures leave a stray file only.
  for (auto const& path : leftovers) sftp_unlink(session_->sftp(), path.c_str());
  return session_;
}

void SshConnection::drop(std::shared_ptr<SftpSession> const& lost) {
  std::lock_guard lock(mutex_);
  if (session_ == lost) session_.reset();
}

void SshConnection::leftBehind(std::string path) {
  std::lock_guard lock(leftoversMutex_);
  leftovers_.push_back(std::move(path));
}

void SshConnection::close() {
  std::lock_guard lock(mutex_);
  session_.reset();
}

} // namespace foundation::storage::providers::sftp::detail
