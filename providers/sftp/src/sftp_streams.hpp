#pragma once

#include "ssh_connection.hpp"

#include <foundation/storage/provider/byte_stream.hpp>

#include <memory>
#include <string>

namespace foundation::storage::providers::sftp::detail {

/// The streams below are opened with the session's lock held; each of their calls takes
/// it again. Failures while opening are SftpFailure; a folder at `path` is ResourceNotFound.

/// A seekable read-only stream over the file at `path`.
std::unique_ptr<provider::ByteStream> openReadStream(std::shared_ptr<SftpSession> const& session,
                                                     std::string const& path);

/// A stream writing the file at `path` in place, opened with the flags `options` ask
/// (O_CREAT, O_TRUNC, read and write or write only); appending writes go to the end the
/// server reports at each write.
std::unique_ptr<provider::ByteStream> openWriteStream(std::shared_ptr<SftpSession> const& session,
                                                      std::string const& path,
                                                      provider::ByteStreamOpenOptions const& options);

/// A stream writing a temporary file beside `path` (starting from the old contents unless
/// `options` truncate), which a commit renames over `path` in one step: with
/// posix-rename@openssh.com to replace, with the plain rename (which never replaces) for
/// CommitWithoutReplacing. A server without posix-rename cannot replace an existing file:
/// the commit then fails and keeps it. Until the rename the old file is untouched, so a
/// failure or a lost connection leaves it whole; a temporary file that a lost connection
/// kept is removed through `connection` when it connects again.
std::unique_ptr<provider::TransactionalStream> openTransaction(std::shared_ptr<SftpSession> const& session,
                                                               std::weak_ptr<SshConnection> connection,
                                                               std::string const& path,
                                                               provider::ByteStreamOpenOptions const& options);

} // namespace foundation::storage::providers::sftp::detail
