#include "sftp_authority.hpp"

#include <fl/i18n/i18n.hpp>

#include <charconv>
#include <stdexcept>

namespace foundation::storage::providers::sftp::detail {

std::string Target::label() const {
  std::string text = user.empty() ? host : user + "@" + host;
  if (port != 0) text += ":" + std::to_string(port);
  return text;
}

Target parseAuthority(std::u16string const& authority) {
  std::string const text = fl::i18n::to_utf8(authority);
  Target target;
  std::string hostPort = text;
  if (auto at = text.rfind('@'); at != std::string::npos) {
    target.user = text.substr(0, at);
    hostPort = text.substr(at + 1);
    // Passwords in locations end up in logs, histories and listings.
    if (target.user.find(':') != std::string::npos)
      throw std::invalid_argument("a password in an sftp location is refused; use the SSH agent or a key");
    if (target.user.empty()) throw std::invalid_argument("an empty user name before '@'");
  }
  std::string portText;
  if (!hostPort.empty() && hostPort.front() == '[') {
    auto close = hostPort.find(']');
    if (close == std::string::npos) throw std::invalid_argument("an IPv6 host without its closing ']'");
    target.host = hostPort.substr(1, close - 1);
    auto rest = hostPort.substr(close + 1);
    if (!rest.empty()) {
      if (rest.front() != ':') throw std::invalid_argument("text after the IPv6 host");
      portText = rest.substr(1);
    }
  } else if (auto colon = hostPort.rfind(':'); colon != std::string::npos) {
    target.host = hostPort.substr(0, colon);
    portText = hostPort.substr(colon + 1);
  } else {
    target.host = hostPort;
  }
  if (target.host.empty()) throw std::invalid_argument("an sftp location names its host");
  if (!portText.empty()) {
    auto [end, error] = std::from_chars(portText.data(), portText.data() + portText.size(), target.port);
    if (error != std::errc() || end != portText.data() + portText.size() || target.port < 1 || target.port > 65535)
      throw std::invalid_argument("the port '" + portText + "' is not a number from 1 to 65535");
  }
  return target;
}

} // namespace foundation::storage::providers::sftp::detail
