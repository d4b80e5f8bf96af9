#pragma once

// Administering the provider behind a folder or a location: settings, shutdown, storage
// information, and the optional extensions (invalidation, flushing) a provider may offer.

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/types.hpp>

#include <vfs/absolute_iri.hpp>
#include <vfs/folder.hpp>
#include <vfs/storage_system.hpp>

#include <map>
#include <string>

namespace foundation::storage::vfs {

/// Hands `settings` to the folder's provider as a tree: a key "a.b" sets child b of child a,
/// so "cache" and "cache.size" set a node's value and its child's. Every failure is
/// translated.
FOUNDATION_API void configureProvider(Folder& folder, std::map<std::string, std::string> settings);
/// Stops the provider's watches and polls and releases what it holds; stored data stays.
/// Every failure is translated.
FOUNDATION_API void shutdownProvider(Folder& folder);
/// The provider's answer, unchanged. Only provider failures are translated.
FOUNDATION_API provider::StorageInfo getStorageInfo(Folder const& folder);
/// Asks the provider to drop what it caches for the folder; nothing when it cannot. Only
/// provider failures are translated.
FOUNDATION_API void invalidateFolder(Folder const& folder);

namespace extensions {

/// Asks the provider serving `iri` in `system` to flush its file systems; nothing when it
/// cannot. Only provider failures are translated.
FOUNDATION_API void flushFilesystem(AbsoluteIRI const& iri, StorageSystemReference const& system);

} // namespace extensions

} // namespace foundation::storage::vfs
