#include "provider_conformance.hpp"

#include "../support/s3_endpoint.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>

using namespace conformance;
using foundation::storage::providers::memory::MemoryProvider;

namespace {

ProviderUnderTest s3Gateway() {
  auto make = [] {
    auto provider = testsupport::makeS3Provider();
    p::StorageIRI root(u"s3://" + testsupport::s3TestBucket + u"/" + testsupport::uniqueS3FolderName(u"conformance"));
    provider->createFolder(root);
    return Workspace{provider, root, std::make_shared<MemoryProvider>(), p::StorageIRI(u"mem:///"),
                     [provider, root] { provider->removeFolderRecursively(root); }};
  };
  Capabilities capabilities;
  capabilities.writableFlags = false;
  capabilities.nativeChangeEvents = false;
  return {"S3", make, capabilities, &testsupport::s3Unavailable};
}

} // namespace

INSTANTIATE_PROVIDER_CONFORMANCE(S3, ::testing::Values(s3Gateway()));
