#include <vfs/provider_administration.hpp>

#include "errors/guard.hpp"

#include <boost/property_tree/ptree.hpp>

namespace foundation::storage::vfs {

void configureProvider(Folder& folder, std::map<std::string, std::string> settings) {
  detail::guarded([&] {
    boost::property_tree::ptree tree;
    for (auto const& [key, value] : settings) tree.put(boost::property_tree::ptree::path_type(key, '.'), value);
    folder.item_.configure(tree);
  });
}

void shutdownProvider(Folder& folder) {
  detail::guarded([&] { folder.item_.shutdownProvider(); });
}

provider::StorageInfo getStorageInfo(Folder const& folder) {
  return detail::guardedProviderFailures([&] { return folder.item_.getProviderStorageInfo(); });
}

void invalidateFolder(Folder const& folder) {
  detail::guardedProviderFailures([&] {
    provider::StorageIRI const location = folder.getLocation().toStorageIRI();
    auto const built = folder.getStorageSystem().buildProvider(location);
    if (auto* invalidatable = dynamic_cast<provider::extensions::IInvalidatable*>(built.get()))
      invalidatable->invalidate(location);
  });
}

namespace extensions {

void flushFilesystem(AbsoluteIRI const& iri, StorageSystemReference const& system) {
  detail::guardedProviderFailures([&] {
    auto const built = system.buildProvider(iri.toStorageIRI());
    if (auto* flushable = dynamic_cast<provider::extensions::IFlushableFilesystem*>(built.get()))
      flushable->flushFilesystem();
  });
}

} // namespace extensions

} // namespace foundation::storage::vfs
