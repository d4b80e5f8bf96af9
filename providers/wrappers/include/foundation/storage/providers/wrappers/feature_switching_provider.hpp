#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/forwarding_provider.hpp>

#include <atomic>

namespace foundation::storage::providers::wrappers {

/// Turns extended features of any provider off, so that callers' fallbacks can be tested on
/// real providers. A switched-off feature is not only reported missing but also withheld:
/// without FlatWildcardListing or RecursiveWildcardListing the wrapped provider receives no
/// pattern (the listing is unfiltered, as from a provider that cannot filter); without
/// RecursiveListing or NativeRecursiveRemoval those calls are UnsupportedOperation; without
/// RecursiveChangeEvents a recursive subscription is ChangeEventsNotSupportedException.
/// Thread-safe.
class FOUNDATION_API FeatureSwitchingProvider final : public provider::ForwardingProvider {
public:
  using ForwardingProvider::ForwardingProvider;

  void disable(provider::ExtendedFeature feature) noexcept;
  void enable(provider::ExtendedFeature feature) noexcept;
  bool isDisabled(provider::ExtendedFeature feature) const noexcept;

  bool hasFeature(provider::ExtendedFeature feature) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllNamesOnly(provider::StorageIRI const& folder,
                                                                   std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFilesNamesOnly(provider::StorageIRI const& folder,
                                                                     std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFoldersNamesOnly(provider::StorageIRI const& folder,
                                                                       std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAll(provider::StorageIRI const& folder,
                                                          std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFiles(provider::StorageIRI const& folder,
                                                            std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listFolders(provider::StorageIRI const& folder,
                                                              std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllRecursiveNamesOnly(provider::StorageIRI const& folder,
                                                                            std::u16string const& pattern) override;
  std::unique_ptr<provider::IFolderEntryIterator> listAllRecursive(provider::StorageIRI const& folder,
                                                                   std::u16string const& pattern) override;
  void removeFolderRecursively(provider::StorageIRI const& folder) override;
  void publishFolderEvents(provider::StorageIRI const& folder, provider::ChangeCallback callback,
                           std::vector<events::Kind> const& kinds, provider::RecursiveWatching recursive) override;

private:
  std::u16string flatPattern(std::u16string const& pattern) const;
  void requireRecursiveListing(provider::StorageIRI const& folder) const;
  std::u16string recursivePattern(std::u16string const& pattern) const;

  std::atomic<std::uint32_t> disabled_{0}; ///< one bit per feature
};

} // namespace foundation::storage::providers::wrappers
