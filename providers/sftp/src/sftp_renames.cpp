#include "sftp_renames.hpp"

namespace foundation::storage::providers::sftp::detail {

using provider::ErrorCode;

void renameKeeping(SftpSession& session, std::string const& from, std::string const& to) {
  if (sftp_rename(session.sftp(), from.c_str(), to.c_str()) >= 0) return;
  auto failed = session.failure("cannot rename");
  if (!failed.connectionLost && session.lstat(to))
    throw SftpFailure(ErrorCode::ResourceAlreadyExists, "the destination exists");
  throw explained(session, failed, to);
}

void renameReplacing(SftpSession& session, std::string const& from, std::string const& to) {
  if (session.supports("posix-rename@openssh.com")) {
    try {
      session.posixRename(from, to);
    } catch (SftpFailure const& failed) {
      throw explained(session, failed, to);
    }
    return;
  }
  try {
    renameKeeping(session, from, to);
  } catch (SftpFailure const& failed) {
    if (failed.code != ErrorCode::ResourceAlreadyExists) throw;
    throw SftpFailure(ErrorCode::UnsupportedOperation,
                      "the server cannot replace in one step (no posix-rename@openssh.com); nothing was changed");
  }
}

} // namespace foundation::storage::providers::sftp::detail
