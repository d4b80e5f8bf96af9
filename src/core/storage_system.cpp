#include <vfs/storage_system.hpp>

#include "errors/guard.hpp"

#include <foundation/core/except/exception.hpp>

#include <stdexcept>

namespace foundation::storage::vfs {

namespace {

[[noreturn]] void destroyed() {
  throw core::except::detail::AnonymousInternalException<std::runtime_error>("StorageSystem has been destroyed");
}

} // namespace

StorageSystem::~StorageSystem() = default;

boost::shared_ptr<msg_svc::eventmgr::EventMgr> StorageSystem::getEventMgr() const { return {}; }

StorageSystemDecorator::StorageSystemDecorator(std::shared_ptr<StorageSystem> wrapped) : wrapped_(std::move(wrapped)) {}

void StorageSystemDecorator::shutdown() const { wrapped_->shutdown(); }

std::shared_ptr<provider::IProvider> StorageSystemDecorator::buildProvider(provider::StorageIRI const& iri) const {
  return wrapped_->buildProvider(iri);
}

StorageSystemReference::StorageSystemReference(std::weak_ptr<StorageSystem> system)
    : source_([weak = std::move(system)] { return weak.lock(); }) {}

StorageSystemReference::StorageSystemReference(Source source) : source_(std::move(source)) {}

std::shared_ptr<StorageSystem> StorageSystemReference::lock() const {
  auto system = source_();
  if (!system) destroyed();
  return system;
}

void StorageSystemReference::shutdown() const {
  if (auto system = source_()) system->shutdown(); // a system already gone needs no shutdown
}

std::shared_ptr<provider::IProvider> StorageSystemReference::buildProvider(provider::StorageIRI const& iri) const {
  return vfs::buildProvider(*lock(), iri);
}

boost::shared_ptr<msg_svc::eventmgr::EventMgr> StorageSystemReference::getEventMgr() const {
  return vfs::getEventMgr(*lock());
}

bool operator==(StorageSystemReference const& a, StorageSystemReference const& b) {
  // Both are held until compared: a system released early could leave its address to the other.
  auto const first = a.source_();
  auto const second = b.source_();
  return first == second;
}

std::shared_ptr<provider::IProvider> buildProvider(StorageSystem const& system, provider::StorageIRI const& iri) {
  auto provider = detail::guarded([&] { return system.buildProvider(iri); });
  // No provider is the system's way of saying that none serves the location.
  if (!provider) throw UnsupportedIRISchemeException(iri.getScheme());
  return provider;
}

boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr(StorageSystem const& system) { return system.getEventMgr(); }

Resource::~Resource() = default;

} // namespace foundation::storage::vfs
