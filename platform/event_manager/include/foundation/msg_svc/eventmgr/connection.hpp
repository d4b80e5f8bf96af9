#pragma once

#include <foundation/core/visibility.hpp>

#include <functional>
#include <memory>

namespace foundation::msg_svc::eventmgr {

/// A listener's subscription. `disconnect` ends it: once it returns, the listener is not
/// called again (a call already running on another thread may finish). Disconnecting twice
/// is harmless. Destroying a Connection does not disconnect (subscriptions often outlive
/// the code that made them); use ScopedConnection for that.
class FOUNDATION_API Connection {
public:
  explicit Connection(std::function<void()> disconnect);
  ~Connection();
  Connection(Connection const&) = delete;
  Connection& operator=(Connection const&) = delete;

  void disconnect();
  bool isConnected() const noexcept;

private:
  std::function<void()> disconnect_;
  bool connected_ = true;
};

/// Disconnects when destroyed.
class FOUNDATION_API ScopedConnection {
public:
  explicit ScopedConnection(std::unique_ptr<Connection> connection) : connection_(std::move(connection)) {}
  ~ScopedConnection() {
    if (connection_) connection_->disconnect();
  }
  ScopedConnection(ScopedConnection&&) noexcept = default;
  ScopedConnection& operator=(ScopedConnection&&) noexcept = default;

  Connection& get() const noexcept { return *connection_; }

private:
  std::unique_ptr<Connection> connection_;
};

} // namespace foundation::msg_svc::eventmgr
