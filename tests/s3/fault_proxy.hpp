#pragma once

// A loopback HTTP proxy in front of the S3 gateway that fails the first requests it
// receives (optionally only those whose request line holds a given text): answers 503
// Slow Down, drops the connection without answering, or answers 200 with a body that is
// not the store's document. Every other request goes through unchanged, one request per
// connection.

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

class FaultProxy {
public:
  enum class Fault {
    SlowDown,
    Drop,
    Garbage,        ///< 200 with a body that is no XML at all
    ForeignDocument ///< 200 with a well-formed document of another kind (a proxy's page)
  };

  FaultProxy(std::uint16_t upstreamPort, Fault fault, int failures, std::string onlyRequestsHolding = {})
      : upstream_(upstreamPort), fault_(fault), failures_(failures), only_(std::move(onlyRequestsHolding)) {
    listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener_, 16) != 0 ||
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      throw std::runtime_error("the fault proxy cannot listen");
    port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { serve(); });
  }

  ~FaultProxy() {
    stopping_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    ::close(listener_);
    thread_.join();
  }

  std::uint16_t port() const { return port_; }
  /// Requests that reached the proxy, failed ones included.
  int requests() const { return requests_.load(); }

private:
  static std::string readRequest(int fd) {
    std::string data;
    char buffer[65536];
    std::size_t headEnd = std::string::npos;
    while (headEnd == std::string::npos) {
      ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
      if (got <= 0) return {};
      data.append(buffer, static_cast<std::size_t>(got));
      headEnd = data.find("\r\n\r\n");
    }
    std::size_t bodyLength = 0;
    for (auto const* name : {"\r\nContent-Length: ", "\r\ncontent-length: "})
      if (auto at = data.find(name); at != std::string::npos && at < headEnd)
        bodyLength = std::stoul(data.substr(at + 18));
    while (data.size() < headEnd + 4 + bodyLength) {
      ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
      if (got <= 0) return {};
      data.append(buffer, static_cast<std::size_t>(got));
    }
    return data;
  }

  static void sendAll(int fd, std::string const& data) {
    for (std::size_t done = 0; done < data.size();) {
      ssize_t put = ::send(fd, data.data() + done, data.size() - done, MSG_NOSIGNAL);
      if (put <= 0) return;
      done += static_cast<std::size_t>(put);
    }
  }

  void relay(std::string request, int client) {
    // One request per connection upstream, so the answer ends where the connection does.
    auto const headEnd = request.find("\r\n\r\n");
    request.insert(headEnd, "\r\nConnection: close");
    int server = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(upstream_);
    if (::connect(server, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      sendAll(server, request);
      char buffer[65536];
      for (ssize_t got; (got = ::recv(server, buffer, sizeof buffer, 0)) > 0;)
        sendAll(client, std::string(buffer, static_cast<std::size_t>(got)));
    }
    ::close(server);
  }

  static std::string answer(std::string const& status, std::string const& body) {
    return "HTTP/1.1 " + status +
           "\r\nContent-Type: application/xml\r\nContent-Length: " + std::to_string(body.size()) +
           "\r\nConnection: close\r\n\r\n" + body;
  }

  void fail(int client) const {
    switch (fault_) {
    case Fault::SlowDown:
      sendAll(client, answer("503 Slow Down", "<Error><Code>SlowDown</Code><Message>injected</Message></Error>"));
      break;
    case Fault::Drop: break;
    case Fault::Garbage: sendAll(client, answer("200 OK", "<<< not a document >>>")); break;
    case Fault::ForeignDocument:
      sendAll(client, answer("200 OK", "<?xml version=\"1.0\"?><html><body>Gateway maintenance</body></html>"));
      break;
    }
  }

  void serve() {
    while (!stopping_) {
      int client = ::accept(listener_, nullptr, nullptr);
      if (client < 0) continue;
      std::string request = readRequest(client);
      if (!request.empty()) {
        ++requests_;
        bool const chosen = request.substr(0, request.find("\r\n")).find(only_) != std::string::npos;
        if (chosen && failures_-- > 0) {
          fail(client);
        } else {
          relay(request, client);
        }
      }
      ::close(client);
    }
  }

  std::uint16_t upstream_;
  Fault fault_;
  std::atomic<int> failures_;
  std::string const only_;
  std::atomic<int> requests_{0};
  std::atomic<bool> stopping_{false};
  int listener_ = -1;
  std::uint16_t port_ = 0;
  std::thread thread_;
};

} // namespace testsupport
