#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

namespace foundation::storage::providers::wrappers {

namespace p = foundation::storage::provider;

namespace {
std::uint32_t bitOf(p::ExtendedFeature feature) { return 1u << static_cast<std::uint32_t>(feature); }
} // namespace

void FeatureSwitchingProvider::disable(p::ExtendedFeature feature) noexcept { disabled_.fetch_or(bitOf(feature)); }
void FeatureSwitchingProvider::enable(p::ExtendedFeature feature) noexcept { disabled_.fetch_and(~bitOf(feature)); }
bool FeatureSwitchingProvider::isDisabled(p::ExtendedFeature feature) const noexcept {
  return (disabled_.load() & bitOf(feature)) != 0;
}

bool FeatureSwitchingProvider::hasFeature(p::ExtendedFeature feature) {
  return !isDisabled(feature) && ForwardingProvider::hasFeature(feature);
}

std::u16string FeatureSwitchingProvider::flatPattern(std::u16string const& pattern) const {
  return isDisabled(p::ExtendedFeature::FlatWildcardListing) ? std::u16string() : pattern;
}

std::u16string FeatureSwitchingProvider::recursivePattern(std::u16string const& pattern) const {
  return isDisabled(p::ExtendedFeature::RecursiveWildcardListing) ? std::u16string() : pattern;
}

void FeatureSwitchingProvider::requireRecursiveListing(p::StorageIRI const& folder) const {
  if (isDisabled(p::ExtendedFeature::RecursiveListing))
    p::fail(p::ErrorCode::UnsupportedOperation, folder, u"features.listRecursive", "recursive listing is switched off");
}

std::unique_ptr<p::IFolderEntryIterator> FeatureSwitchingProvider::listAllNamesOnly(p::StorageIRI const& folder,
                                                                                    std::u16string const& pattern) {
  return ForwardingProvider::listAllNamesOnly(folder, flatPattern(pattern));
}
std::unique_ptr<p::IFolderEntryIterator> FeatureSwitchingProvider::listFilesNamesOnly(p::StorageIRI const& folder,
                                                                                      std::u16string const& pattern) {
  return ForwardingProvider::listFilesNamesOnly(folder, flatPattern(pattern));
}
std::unique_ptr<p::IFolderEntryIterator> FeatureSwitchingProvider::listFoldersNamesOnly(p::StorageIRI const& folder,
                                                                                        std::u16string const& pattern) {
  return ForwardingProvider::listFoldersNamesOnly(folder, flatPattern(pattern));
}
std::unique_ptr<p::IFolderEntryIterator> FeatureSwitchingProvider::listAll(p::StorageIRI const& folder,
                                                                           std::u16string const& pattern) {
  return ForwardingProvider::listAll(folder, flatPattern(pattern));
}
std::unique_ptr<p::IFolderEntryIterator> FeatureSwitchingProvider::listFiles(p::StorageIRI const& folder,
                                                                             std::u16string const& pattern) {
  return ForwardingProvider::listFiles(folder, flatPattern(pattern));
}
std::unique_ptr<p::IFolderEntryIterator> FeatureSwitchingProvider::listFolders(p::StorageIRI const& folder,
                                                                               std::u16string const& pattern) {
  return ForwardingProvider::listFolders(folder, flatPattern(pattern));
}
std::unique_ptr<p::IFolderEntryIterator>
FeatureSwitchingProvider::listAllRecursiveNamesOnly(p::StorageIRI const& folder, std::u16string const& pattern) {
  requireRecursiveListing(folder);
  return ForwardingProvider::listAllRecursiveNamesOnly(folder, recursivePattern(pattern));
}
std::unique_ptr<p::IFolderEntryIterator> FeatureSwitchingProvider::listAllRecursive(p::StorageIRI const& folder,
                                                                                    std::u16string const& pattern) {
  requireRecursiveListing(folder);
  return ForwardingProvider::listAllRecursive(folder, recursivePattern(pattern));
}

void FeatureSwitchingProvider::removeFolderRecursively(p::StorageIRI const& folder) {
  if (isDisabled(p::ExtendedFeature::NativeRecursiveRemoval))
    p::fail(p::ErrorCode::UnsupportedOperation, folder, u"features.removeFolderRecursively",
            "native recursive removal is switched off");
  ForwardingProvider::removeFolderRecursively(folder);
}

void FeatureSwitchingProvider::publishFolderEvents(p::StorageIRI const& folder, p::ChangeCallback callback,
                                                   std::vector<events::Kind> const& kinds,
                                                   p::RecursiveWatching recursive) {
  if (recursive == p::RecursiveWatching::Yes && isDisabled(p::ExtendedFeature::RecursiveChangeEvents))
    p::raise(p::ChangeEventsNotSupportedException(folder, "recursive change events are switched off"));
  ForwardingProvider::publishFolderEvents(folder, std::move(callback), kinds, recursive);
}

} // namespace foundation::storage::providers::wrappers
