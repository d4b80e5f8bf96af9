#include "provider_conformance.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>
#include <foundation/storage/providers/wrappers/call_counting_provider.hpp>
#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>
#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

using namespace conformance;
using foundation::storage::providers::memory::MemoryProvider;
namespace wrappers = foundation::storage::providers::wrappers;

namespace {

/// A memory provider, optionally wrapped, with a second memory tree as the foreign one.
template <class Wrapper = void>
ProviderUnderTest memory(std::string name, p::FilenameSensitivity sensitivity = p::FilenameSensitivity::CaseSensitive) {
  auto make = [sensitivity] {
    std::shared_ptr<p::IProvider> provider = std::make_shared<MemoryProvider>(sensitivity);
    if constexpr (!std::is_void_v<Wrapper>) provider = std::make_shared<Wrapper>(provider);
    Workspace w{provider,
                p::StorageIRI(u"mem:///work"),
                std::make_shared<MemoryProvider>(p::FilenameSensitivity::CaseSensitive, u"elsewhere"),
                p::StorageIRI(u"mem://elsewhere/"),
                {}};
    w.provider->createFolder(w.root);
    return w;
  };
  return {std::move(name), make, Capabilities{true, sensitivity == p::FilenameSensitivity::CaseInsensitive, {}}};
}

} // namespace

INSTANTIATE_PROVIDER_CONFORMANCE(
    Memory,
    ::testing::Values(memory("Memory"), memory("MemoryCaseInsensitive", p::FilenameSensitivity::CaseInsensitive),
                      memory<p::ForwardingProvider>("Forwarding"),
                      memory<wrappers::CallCountingProvider>("CallCounting"),
                      memory<wrappers::FaultInjectingProvider>("FaultInjectingWithoutFaults"),
                      memory<wrappers::FeatureSwitchingProvider>("FeatureSwitchingAllOn")));
