#include "provider_conformance.hpp"

#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <filesystem>
#include <stdlib.h>
#include <unistd.h>

using namespace conformance;
using foundation::storage::providers::local::LocalProvider;
using foundation::storage::providers::memory::MemoryProvider;

namespace {

ProviderUnderTest local() {
  auto make = [] {
    std::string folder = (std::filesystem::temp_directory_path() / "vfs-conformance-XXXXXX").string();
    if (!::mkdtemp(folder.data())) throw std::runtime_error("mkdtemp failed");
    Workspace w{std::make_shared<LocalProvider>(), p::toStorageIRI(u"file", fl::filesystem::path(folder)),
                std::make_shared<MemoryProvider>(), p::StorageIRI(u"mem:///"),
                [folder] {
                  std::error_code ignored;
                  std::filesystem::remove_all(folder, ignored);
                }};
    return w;
  };
  // The superuser writes read-only files; inotify reports asynchronously.
  return {"Local", make, Capabilities{::geteuid() != 0, false, std::chrono::milliseconds(200)}};
}

} // namespace

INSTANTIATE_PROVIDER_CONFORMANCE(Local, ::testing::Values(local()));
