#pragma once

#include "sftp_session.hpp"

#include <cstdint>
#include <ios>
#include <vector>

namespace foundation::storage::providers::sftp::detail {

/// Sequential reads of one open remote file, fetched a window at a time with all of the
/// window's read requests in flight at once, so that a download waits for one round trip
/// per window instead of one per request. The window opens only while reads continue where
/// the last one ended, and grows from one request, so random access costs what a plain read
/// costs. Every answer is collected before a call returns: libssh 0.10 cannot take an
/// answer that another caller's request already read from the session. The caller holds
/// the session's lock for every call.
class ReadAhead {
public:
  explicit ReadAhead(sftp_file file) : file_(file) {}

  /// Up to `n` bytes at `position`; 0 at the end of the file. Throws SftpFailure.
  std::streamsize read(SftpSession& session, std::uint64_t position, char* s, std::streamsize n);

private:
  std::streamsize fromWindow(std::uint64_t position, char* s, std::streamsize n);
  void fetch(SftpSession& session, std::uint64_t position, std::size_t requests);

  sftp_file file_;
  std::vector<char> window_;
  std::uint64_t windowOffset_ = 0;
  std::uint64_t continuesAt_ = 0;
  std::size_t requests_ = 0;
};

} // namespace foundation::storage::providers::sftp::detail
