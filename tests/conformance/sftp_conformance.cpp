#include "provider_conformance.hpp"

#include "../support/sftp_server.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <unistd.h>

using namespace conformance;
using foundation::storage::providers::memory::MemoryProvider;

namespace {

ProviderUnderTest sftpServer() {
  auto make = [] {
    auto provider = testsupport::makeSftpProvider();
    auto root = testsupport::uniqueSftpFolder("conformance").iri;
    provider->createFolder(root);
    return Workspace{provider, root, std::make_shared<MemoryProvider>(), p::StorageIRI(u"mem:///"),
                     [provider, root] { provider->removeFolderRecursively(root); }};
  };
  Capabilities capabilities;
  // The server acts as the user the tests log in as: the superuser writes read-only files.
  capabilities.enforcesPermissions = ::geteuid() != 0;
  capabilities.nativeChangeEvents = false;
  capabilities.nativeRecursiveRemoval = false;
  capabilities.subSecondTimes = false;
  return {"Sftp", make, capabilities, &testsupport::sftpUnavailable};
}

} // namespace

INSTANTIATE_PROVIDER_CONFORMANCE(Sftp, ::testing::Values(sftpServer()));
