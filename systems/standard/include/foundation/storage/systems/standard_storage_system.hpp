#pragma once

#include <foundation/core/visibility.hpp>

#include <vfs/storage_system.hpp>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <utility>

namespace foundation::storage::systems {

/// Builds the provider serving every location of one scheme and authority; `root` is that
/// scheme's and authority's root ("mem://name/"). May throw the provider Exception.
using ProviderFactory = std::function<std::shared_ptr<provider::IProvider>(provider::StorageIRI const& root)>;

/// The storage system applications use: a registry from scheme to provider factory, with
/// "mem" (one memory tree per authority), "file" (the local file system), "zip" and "tar"
/// (archives as folders, on any location this system serves), "s3" (one bucket per
/// authority, configured from the AWS_* environment variables) and "sftp" (one SSH server
/// per "[user@]host[:port]", reached as ssh would, or with the VFS_SSH_* environment
/// variables' files) registered.
/// One provider is built per scheme and authority and reused for every handle, so that
/// watches started through one handle can be stopped through another. It owns an event
/// manager. A scheme nobody serves is UnsupportedIRISchemeException. Thread-safe.
class FOUNDATION_API StandardStorageSystem final : public vfs::StorageSystem {
public:
  StandardStorageSystem();
  ~StandardStorageSystem() override;

  /// Serves `scheme` (case-insensitive) with `factory` from now on; providers already built
  /// for it stay in use.
  void registerProvider(std::u16string const& scheme, ProviderFactory factory);

  /// Shuts down every provider built so far (their watches and polls end) and the event
  /// manager, after it delivered what is queued.
  void shutdown() const override;
  std::shared_ptr<provider::IProvider> buildProvider(provider::StorageIRI const& iri) const override;
  boost::shared_ptr<msg_svc::eventmgr::EventMgr> getEventMgr() const override;

private:
  using Root = std::pair<std::u16string, std::u16string>; ///< scheme, authority

  mutable std::mutex mutex_;
  std::map<std::u16string, ProviderFactory> factories_;
  mutable std::map<Root, std::shared_ptr<provider::IProvider>> providers_;
  boost::shared_ptr<msg_svc::eventmgr::EventMgr> eventMgr_;
};

} // namespace foundation::storage::systems
