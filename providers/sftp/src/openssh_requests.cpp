#include "openssh_requests.hpp"

#include "sftp_session.hpp"

namespace foundation::storage::providers::sftp::detail {

namespace {

constexpr std::uint8_t fxpInit = 1;
constexpr std::uint8_t fxpVersion = 2;
constexpr std::uint8_t fxpStatus = 101;
constexpr std::uint8_t fxpExtended = 200;
constexpr std::uint32_t largestPacket = 256 * 1024;

void putUint32(std::string& out, std::uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out += static_cast<char>((value >> shift) & 0xff);
}

void putString(std::string& out, std::string const& text) {
  putUint32(out, static_cast<std::uint32_t>(text.size()));
  out += text;
}

std::uint32_t getUint32(std::string const& in, std::size_t at) {
  std::uint32_t value = 0;
  for (std::size_t i = 0; i < 4; ++i) value = (value << 8) | static_cast<unsigned char>(in.at(at + i));
  return value;
}

/// A packet: its length, then its type and payload.
std::string packet(std::uint8_t type, std::string const& payload) {
  std::string out;
  putUint32(out, static_cast<std::uint32_t>(payload.size() + 1));
  out += static_cast<char>(type);
  out += payload;
  return out;
}

} // namespace

OpensshRequests::OpensshRequests(ssh_session session) : session_(session) {
  channel_ = ssh_channel_new(session_);
  if (!channel_) lost("cannot open a channel");
  if (ssh_channel_open_session(channel_) != SSH_OK || ssh_channel_request_subsystem(channel_, "sftp") != SSH_OK) {
    ssh_channel_free(channel_);
    channel_ = nullptr;
    lost("cannot start the sftp subsystem");
  }
  std::string version;
  putUint32(version, 3);
  send(packet(fxpInit, version));
  std::uint8_t type = 0;
  receive(type);
  if (type != fxpVersion) lost("the server did not greet with its version");
}

OpensshRequests::~OpensshRequests() {
  if (!channel_) return;
  ssh_channel_close(channel_);
  ssh_channel_free(channel_);
}

int OpensshRequests::posixRename(std::string const& from, std::string const& to) {
  std::uint32_t const id = nextId_++;
  std::string payload;
  putUint32(payload, id);
  putString(payload, "posix-rename@openssh.com");
  putString(payload, from);
  putString(payload, to);
  send(packet(fxpExtended, payload));
  std::uint8_t type = 0;
  std::string answer = receive(type);
  if (type != fxpStatus || answer.size() < 8 || getUint32(answer, 0) != id) lost("an unexpected answer to a rename");
  return static_cast<int>(getUint32(answer, 4));
}

void OpensshRequests::send(std::string const& bytes) {
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    int n = ssh_channel_write(channel_, bytes.data() + sent, static_cast<std::uint32_t>(bytes.size() - sent));
    if (n <= 0) lost("the connection failed while sending");
    sent += static_cast<std::size_t>(n);
  }
}

std::string OpensshRequests::receive(std::uint8_t& type) {
  auto readExactly = [this](std::size_t count) {
    std::string bytes(count, '\0');
    std::size_t got = 0;
    while (got < count) {
      int n = ssh_channel_read(channel_, bytes.data() + got, static_cast<std::uint32_t>(count - got), 0);
      if (n <= 0) lost("the connection failed while receiving");
      got += static_cast<std::size_t>(n);
    }
    return bytes;
  };
  std::uint32_t const length = getUint32(readExactly(4), 0);
  if (length == 0 || length > largestPacket) lost("a malformed packet");
  std::string body = readExactly(length);
  type = static_cast<std::uint8_t>(body[0]);
  return body.substr(1);
}

void OpensshRequests::lost(char const* what) const {
  throw SftpFailure(provider::ErrorCode::IOError, std::string(what) + ": " + ssh_get_error(session_), -1,
                    ssh_is_connected(session_) == 0);
}

} // namespace foundation::storage::providers::sftp::detail
