#include "read_ahead.hpp"

#include <algorithm>
#include <cstring>

namespace foundation::storage::providers::sftp::detail {

namespace {

constexpr std::uint32_t requestBytes = 64 * 1024;
constexpr std::size_t mostRequests = 32; // 2 MiB in flight, as OpenSSH's own client keeps

} // namespace

std::streamsize ReadAhead::read(SftpSession& session, std::uint64_t position, char* s, std::streamsize n) {
  if (n <= 0) return 0;
  if (auto got = fromWindow(position, s, n); got > 0) return got;
  requests_ = position == continuesAt_ ? std::min(mostRequests, requests_ == 0 ? 1 : requests_ * 2) : 0;
  fetch(session, position, std::max<std::size_t>(requests_, 1));
  return fromWindow(position, s, n);
}

std::streamsize ReadAhead::fromWindow(std::uint64_t position, char* s, std::streamsize n) {
  if (position < windowOffset_ || position >= windowOffset_ + window_.size()) return 0;
  auto const at = static_cast<std::size_t>(position - windowOffset_);
  auto const count = std::min(window_.size() - at, static_cast<std::size_t>(n));
  std::memcpy(s, window_.data() + at, count);
  continuesAt_ = position + count;
  return static_cast<std::streamsize>(count);
}

void ReadAhead::fetch(SftpSession& session, std::uint64_t position, std::size_t requests) {
  window_.clear(); // nothing stale is served if this fails
  session.check(sftp_seek64(file_, position), "cannot seek");
  std::vector<std::uint32_t> ids;
  for (std::size_t i = 0; i < requests; ++i) {
    int id = sftp_async_read_begin(file_, requestBytes);
    if (id < 0) throw session.failure("cannot read");
    ids.push_back(static_cast<std::uint32_t>(id));
  }
  std::vector<char> fetched(requests * requestBytes);
  std::size_t filled = 0;
  bool whole = true; // every answer so far was whole, so the next one continues them
  for (std::size_t i = 0; i < ids.size(); ++i) {
    // libssh answers 0 without reading once it saw the end of the file; seeking clears
    // that, so that every answer is taken from the session. Answers after a short one are
    // taken and dropped (they land past `filled`, within the buffer).
    sftp_seek64(file_, position + i * requestBytes);
    int got = sftp_async_read(file_, fetched.data() + filled, requestBytes, ids[i]);
    if (got < 0) throw session.failure("cannot read");
    if (whole) filled += static_cast<std::size_t>(got);
    whole = whole && got == static_cast<int>(requestBytes);
  }
  fetched.resize(filled);
  window_ = std::move(fetched);
  windowOffset_ = position;
}

} // namespace foundation::storage::providers::sftp::detail
