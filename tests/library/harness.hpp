#pragma once

// A storage system for the library's tests: the provider under test (memory or local) sits
// behind a fault injector and a call counter, registered for its scheme.

#include <foundation/storage/providers/wrappers/call_counting_provider.hpp>
#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>
#include <foundation/storage/systems/standard_storage_system.hpp>

#include <vfs/vfs.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

namespace harness {

namespace vfs = foundation::storage::vfs;
namespace p = foundation::storage::provider;
namespace wrappers = foundation::storage::providers::wrappers;
using foundation::storage::systems::StandardStorageSystem;

struct Harness {
  std::shared_ptr<StandardStorageSystem> system;
  std::shared_ptr<wrappers::FaultInjectingProvider> faults;
  std::shared_ptr<wrappers::CallCountingProvider> counts;
  vfs::AbsoluteIRI root{u"mem:///"}; ///< an empty folder (set by make)
  std::function<void()> cleanup;

  vfs::StorageSystemReference reference() const { return vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(system)); }
  vfs::AbsoluteIRI at(std::u16string const& relative) const { return vfs::AbsoluteIRI(root, relative); }
  vfs::File file(std::u16string const& relative) const { return vfs::File(at(relative), reference()); }
  vfs::Folder folder(std::u16string const& relative) const { return vfs::Folder(at(relative), reference()); }
};

/// "mem" or "file".
Harness make(std::string const& scheme);

std::string read(vfs::File const& file);
void write(vfs::File const& file, std::string const& bytes);

/// Fixture over both providers.
class OnEveryProvider : public ::testing::TestWithParam<std::string> {
protected:
  void SetUp() override { h = make(GetParam()); }
  void TearDown() override {
    if (h.cleanup) h.cleanup();
  }
  Harness h;
};

} // namespace harness

/// Expects `statement` to throw the library's Exception with `code`.
#define EXPECT_VFS_ERROR(code, statement)                                                            \
  do {                                                                                               \
    try {                                                                                            \
      statement;                                                                                     \
      ADD_FAILURE() << #statement " succeeded; expected " << (code);                                 \
    } catch (::foundation::storage::vfs::Exception const& failure) {                                 \
      EXPECT_EQ(failure.getErrorCode(), (code)) << ::foundation::core::except::toString(failure);    \
    }                                                                                                \
  } while (false)
