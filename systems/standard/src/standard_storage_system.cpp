#include <foundation/storage/systems/standard_storage_system.hpp>

#include <foundation/storage/providers/archive/archive_provider.hpp>
#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/s3/s3_provider.hpp>
#include <foundation/storage/providers/sftp/sftp_provider.hpp>

#include <vfs/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/make_shared.hpp>

#include <vector>

namespace foundation::storage::systems {

namespace {

provider::StorageIRI rootOf(std::u16string const& scheme, std::u16string const& authority) {
  return provider::StorageIRI(scheme + u"://" + authority + u"/");
}

std::u16string lowercase(std::u16string text) {
  for (auto& c : text) c = static_cast<char16_t>(fl::i18n::lcctype::tolower_ascii(c));
  return text;
}

} // namespace

StandardStorageSystem::StandardStorageSystem() : eventMgr_(boost::make_shared<msg_svc::eventmgr::EventMgr>()) {
  registerProvider(u"mem", [](provider::StorageIRI const& root) {
    return std::make_shared<providers::memory::MemoryProvider>(provider::FilenameSensitivity::CaseSensitive,
                                                               root.getAuthority());
  });
  registerProvider(u"file", [](provider::StorageIRI const& root) -> std::shared_ptr<provider::IProvider> {
    if (!root.getAuthority().empty())
      provider::fail(provider::ErrorCode::InvalidLocation, root, u"system.buildProvider",
                     "file locations on other hosts are not on the local file system");
    return std::make_shared<providers::local::LocalProvider>();
  });
  // Archives reach their files through this system, whatever provider holds them.
  auto outer = [this](provider::StorageIRI const& file) { return buildProvider(file); };
  registerProvider(u"zip", [outer](provider::StorageIRI const&) {
    return std::make_shared<providers::archive::ZipProvider>(outer);
  });
  registerProvider(u"tar", [outer](provider::StorageIRI const&) {
    return std::make_shared<providers::archive::TarProvider>(outer);
  });
  registerProvider(u"s3", [](provider::StorageIRI const& root) -> std::shared_ptr<provider::IProvider> {
    if (root.getAuthority().empty())
      provider::fail(provider::ErrorCode::InvalidLocation, root, u"system.buildProvider",
                     "s3 locations name their bucket");
    return std::make_shared<providers::s3::S3Provider>(root.getAuthority(),
                                                       providers::s3::S3Settings::fromEnvironment());
  });
  // One provider per "[user@]host[:port]"; providers of the same server share its session.
  registerProvider(u"sftp", [](provider::StorageIRI const& root) -> std::shared_ptr<provider::IProvider> {
    if (root.getAuthority().empty())
      provider::fail(provider::ErrorCode::InvalidLocation, root, u"system.buildProvider",
                     "sftp locations name their host");
    return std::make_shared<providers::sftp::SftpProvider>(root.getAuthority(),
                                                           providers::sftp::SftpSettings::fromEnvironment());
  });
}

StandardStorageSystem::~StandardStorageSystem() = default;

void StandardStorageSystem::registerProvider(std::u16string const& scheme, ProviderFactory factory) {
  std::lock_guard lock(mutex_);
  factories_[lowercase(scheme)] = std::move(factory);
}

std::shared_ptr<provider::IProvider> StandardStorageSystem::buildProvider(provider::StorageIRI const& iri) const {
  Root const root{iri.getScheme(), iri.getAuthority()};
  std::lock_guard lock(mutex_);
  if (auto built = providers_.find(root); built != providers_.end()) return built->second;
  auto factory = factories_.find(root.first);
  if (factory == factories_.end()) throw vfs::UnsupportedIRISchemeException(root.first);
  auto provider = factory->second(rootOf(root.first, root.second));
  providers_.emplace(root, provider);
  return provider;
}

void StandardStorageSystem::shutdown() const {
  std::vector<std::pair<Root, std::shared_ptr<provider::IProvider>>> built;
  {
    std::lock_guard lock(mutex_);
    built.assign(providers_.begin(), providers_.end());
  }
  for (auto const& [root, provider] : built) provider->shutdownProvider(rootOf(root.first, root.second));
  eventMgr_->shutdown(msg_svc::eventmgr::EventMgr::ShutdownPolicy::DeliverQueued);
}

boost::shared_ptr<msg_svc::eventmgr::EventMgr> StandardStorageSystem::getEventMgr() const { return eventMgr_; }

} // namespace foundation::storage::systems
