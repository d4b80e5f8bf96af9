#include "provider_conformance.hpp"

#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <unistd.h>

using namespace conformance;
using foundation::storage::providers::local::LocalProvider;
using foundation::storage::providers::memory::MemoryProvider;

namespace {

ProviderUnderTest local() {
  auto make = [] {
    testsupport::TemporaryFolder folder("vfs-conformance");
    return Workspace{std::make_shared<LocalProvider>(), p::toStorageIRI(u"file", fl::filesystem::path(folder.path())),
                     std::make_shared<MemoryProvider>(), p::StorageIRI(u"mem:///"), [folder] {}};
  };
  // The superuser writes read-only files; inotify reports asynchronously.
  return {"Local", make, Capabilities{::geteuid() != 0, false, std::chrono::milliseconds(200)}};
}

} // namespace

INSTANTIATE_PROVIDER_CONFORMANCE(Local, ::testing::Values(local()));
