#pragma once

// A storage system for the library's tests: the provider under test sits behind a fault
// injector and a call counter, registered for its scheme.

#include <foundation/storage/providers/wrappers/call_counting_provider.hpp>
#include <foundation/storage/providers/wrappers/fault_injecting_provider.hpp>
#include <foundation/storage/systems/standard_storage_system.hpp>

#include <vfs/vfs.hpp>

#include <gtest/gtest.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace harness {

namespace vfs = foundation::storage::vfs;
namespace p = foundation::storage::provider;
namespace wrappers = foundation::storage::providers::wrappers;
using foundation::storage::systems::StandardStorageSystem;

/// What a storage may honestly lack; a row that needs it skips, with the reason, where it does.
enum class Capability {
  WritableFlags,      ///< items carry a read-only flag
  NativeChangeEvents, ///< the storage reports its changes itself
  Capacity,           ///< the storage tells how many bytes it holds
  ExclusiveNames,     ///< a commit refuses a file where a folder of its name appeared meanwhile
};

struct Harness {
  std::shared_ptr<StandardStorageSystem> system;
  std::shared_ptr<wrappers::FaultInjectingProvider> faults;
  std::shared_ptr<wrappers::CallCountingProvider> counts;
  vfs::AbsoluteIRI root{u"mem:///"}; ///< an empty folder (set by make)
  std::function<void()> cleanup;
  std::map<Capability, std::string> lacking; ///< what the storage cannot do, and why

  /// Why the storage lacks `capability`; empty when it has it.
  std::string lacks(Capability capability) const {
    auto const found = lacking.find(capability);
    return found == lacking.end() ? std::string() : found->second;
  }

  vfs::StorageSystemReference reference() const {
    return vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(system));
  }
  vfs::AbsoluteIRI at(std::u16string const& relative) const { return vfs::AbsoluteIRI(root, relative); }
  vfs::File file(std::u16string const& relative) const { return vfs::File(at(relative), reference()); }
  vfs::Folder folder(std::u16string const& relative) const { return vfs::Folder(at(relative), reference()); }
};

/// The schemes the library's suites run on: "mem", "file", "zip" (an archive in memory) and
/// "s3" (the endpoint the AWS_* variables name).
std::vector<std::string> const& everyScheme();

/// Why `scheme` cannot be tested here (no S3 endpoint answers); empty when it can.
std::string unavailable(std::string const& scheme);

/// A storage system serving an empty folder, `root`, on `scheme` (one of everyScheme()).
Harness make(std::string const& scheme);

std::string read(vfs::File const& file);
void write(vfs::File const& file, std::string const& bytes);

/// Fixture over the schemes it is instantiated with (INSTANTIATE_ON_EVERY_SCHEME).
class OnEveryProvider : public ::testing::TestWithParam<std::string> {
protected:
  void SetUp() override {
    if (auto reason = unavailable(GetParam()); !reason.empty()) GTEST_SKIP() << reason;
    h = make(GetParam());
  }
  void TearDown() override {
    if (h.cleanup) h.cleanup();
  }
  Harness h;
};

} // namespace harness

/// Runs `fixture`'s rows on every scheme, named by it ("Providers/Fixture.Row/zip").
#define INSTANTIATE_ON_EVERY_SCHEME(fixture)                                                                           \
  INSTANTIATE_TEST_SUITE_P(Providers, fixture, ::testing::ValuesIn(::harness::everyScheme()),                          \
                           [](auto const& info) { return info.param; })

/// Skips the row, saying why, where the storage of the harness `h` lacks `capability`.
#define SKIP_WITHOUT(capability)                                                                                       \
  do {                                                                                                                 \
    if (auto reason = h.lacks(::harness::Capability::capability); !reason.empty()) GTEST_SKIP() << reason;             \
  } while (false)

/// Expects `statement` to throw the library's Exception with `code`.
#define EXPECT_VFS_ERROR(code, statement)                                                                              \
  do {                                                                                                                 \
    try {                                                                                                              \
      statement;                                                                                                       \
      ADD_FAILURE() << #statement " succeeded; expected " << (code);                                                   \
    } catch (::foundation::storage::vfs::Exception const& failure) {                                                   \
      EXPECT_EQ(failure.getErrorCode(), (code)) << ::foundation::core::except::toString(failure);                      \
    }                                                                                                                  \
  } while (false)
