#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/storage_item.hpp>

namespace foundation::storage::provider {

/// Copies a file of `sourceProvider` to a destination of any provider through byte
/// streams: the destination is written in a transaction, so a failed copy leaves it as it
/// was. Honours the replacement policy (see IProvider::copyFile) and reports progress.
/// For providers copying to a destination they cannot reach natively.
FOUNDATION_API CopyResult copyFileThroughStreams(IProvider& sourceProvider, StorageIRI const& source,
                                                 StorageItem const& destination, CopyFileOptions const& options);

} // namespace foundation::storage::provider
