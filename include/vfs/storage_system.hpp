#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/msg_svc/eventmgr/event_mgr.hpp>
#include <foundation/storage/provider/provider.hpp>

#include <vfs/absolute_iri.hpp>

#include <boost/shared_ptr.hpp>

#include <functional>
#include <memory>

namespace foundation::storage::vfs {

/// Knows how to reach storage: builds the provider that serves a location, can be shut
/// down, and may own the event manager through which change events are delivered.
class FOUNDATION_API StorageSystem {
public:
  virtual ~StorageSystem();
  virtual void shutdown() const = 0;
  /// The provider for `iri`; an unknown scheme is UnsupportedIRISchemeException.
  virtual std::shared_ptr<provider::IProvider> buildProvider(provider::StorageIRI const& iri) const = 0;
  /// The event manager; none by default.
  virtual boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr() const;
};

/// Wraps a storage system, forwarding `shutdown` and `buildProvider`. It reports no event
/// manager even when the wrapped system has one.
class FOUNDATION_API StorageSystemDecorator : public StorageSystem {
public:
  explicit StorageSystemDecorator(std::shared_ptr<StorageSystem> wrapped);
  void shutdown() const override;
  std::shared_ptr<provider::IProvider> buildProvider(provider::StorageIRI const& iri) const override;

private:
  std::shared_ptr<StorageSystem> wrapped_;
};

/// A cheap, copyable handle that reaches a storage system only when an operation needs it
/// and never keeps it alive. Once the system is gone, `lock`, `buildProvider` and
/// `getEventMgr` throw std::runtime_error "StorageSystem has been destroyed"; `shutdown`
/// does nothing. Equality is identity of the system.
class FOUNDATION_API StorageSystemReference : public StorageSystem {
public:
  using Source = std::function<std::shared_ptr<StorageSystem>()>;

  StorageSystemReference(std::weak_ptr<StorageSystem> system);
  /// `source` yields the system, or nothing once it is gone.
  StorageSystemReference(Source source);

  std::shared_ptr<StorageSystem> lock() const;
  void shutdown() const override;
  std::shared_ptr<provider::IProvider> buildProvider(provider::StorageIRI const& iri) const override;
  boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr() const override;

  friend FOUNDATION_API bool operator==(StorageSystemReference const& a, StorageSystemReference const& b);
  friend bool operator!=(StorageSystemReference const& a, StorageSystemReference const& b) { return !(a == b); }

private:
  Source source_;
};

/// `system.buildProvider(iri)` with every failure translated to the library's exceptions;
/// never empty: a system that yields no provider throws UnsupportedIRISchemeException.
FOUNDATION_API std::shared_ptr<provider::IProvider> buildProvider(StorageSystem const& system,
                                                                  provider::StorageIRI const& iri);
FOUNDATION_API boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr(StorageSystem const& system);

/// Something with a location (a File).
class FOUNDATION_API Resource {
public:
  virtual AbsoluteIRI getLocation() const = 0;
  virtual ~Resource();
};

} // namespace foundation::storage::vfs
