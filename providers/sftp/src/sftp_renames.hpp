#pragma once

#include "sftp_session.hpp"

#include <string>

namespace foundation::storage::providers::sftp::detail {

/// Renames only when nothing is at `to`: the plain SFTP rename refuses to replace, in the
/// same step. Something at `to` is ResourceAlreadyExists.
void renameKeeping(SftpSession& session, std::string const& from, std::string const& to);

/// Renames over what is at `to` in one step (posix-rename@openssh.com). A server without
/// that extension renames only when nothing is at `to`, and otherwise refuses with
/// UnsupportedOperation, changing nothing.
void renameReplacing(SftpSession& session, std::string const& from, std::string const& to);

} // namespace foundation::storage::providers::sftp::detail
