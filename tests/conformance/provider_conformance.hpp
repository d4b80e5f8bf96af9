#pragma once

// The provider contract as tests: every provider instantiates this suite with a factory
// giving it an empty folder to work in.

#include <foundation/storage/provider/storage_item.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace conformance {

namespace p = foundation::storage::provider;
namespace events = foundation::storage::events;

/// An empty folder on the provider under test, and a second provider for copies across.
struct Workspace {
  std::shared_ptr<p::IProvider> provider;
  p::StorageIRI root;
  std::shared_ptr<p::IProvider> foreign;
  p::StorageIRI foreignRoot;
  std::function<void()> cleanup;
};

/// Honest differences between providers.
struct Capabilities {
  /// Read-only flags are enforced (not so for root on a local file system).
  bool enforcesPermissions = true;
  /// Names differing only in letter case denote the same item.
  bool caseInsensitive = false;
  /// How long native change events may take to arrive.
  std::chrono::milliseconds eventDelay{0};
  /// Every change is ReadOnlyProvider: the workspace comes holding the listing tree and
  /// only the rows that read run; the others check that a change is refused and skip.
  bool readOnly = false;
  /// Items have read-only flags (object stores have none).
  bool writableFlags = true;
  /// The storage reports changes itself (object stores do not: polling only).
  bool nativeChangeEvents = true;
  /// A whole tree goes in one call (SFTP removes one item at a time).
  bool nativeRecursiveRemoval = true;
  /// Modification times keep fractions of a second (SFTP carries whole seconds).
  bool subSecondTimes = true;
};

struct ProviderUnderTest {
  std::string name;
  std::function<Workspace()> make;
  Capabilities capabilities;
  /// Why the provider cannot be tested here (a server that is not running); empty when it can.
  std::function<std::string()> unavailable = {};
};

std::string toUtf8(std::u16string const& s);
/// The names of a whole listing, "name/" for folders, sorted.
std::vector<std::string> sortedNames(std::unique_ptr<p::IFolderEntryIterator> cursor);

inline void PrintTo(ProviderUnderTest const& provider, std::ostream* os) { *os << provider.name; }

/// Collects change notifications from any thread.
class EventLog {
public:
  struct Record {
    events::Kind kind;
    std::u16string item;
    events::EntryType type;
    std::string renamedFrom;
  };

  p::ChangeCallback callback();
  /// Waits until at least `count` records arrived; false on timeout.
  bool waitFor(std::size_t count, std::chrono::milliseconds timeout);
  std::vector<Record> records() const;

private:
  mutable std::mutex mutex_;
  std::condition_variable arrived_;
  std::vector<Record> records_;
};

class ProviderConformance : public ::testing::TestWithParam<ProviderUnderTest> {
protected:
  void SetUp() override;
  void TearDown() override;

  Capabilities const& capabilities() const { return GetParam().capabilities; }
  p::StorageItem item(std::u16string const& relative) const;
  p::StorageItem foreignItem(std::u16string const& relative) const;
  static std::vector<std::string> names(std::unique_ptr<p::IFolderEntryIterator> cursor) {
    return sortedNames(std::move(cursor));
  }

  Workspace workspace_;
};

/// The contract of listings, on a small tree: top/{a.txt, b.log, sub/{c.txt, deeper/{d.txt}}}.
class ListingConformance : public ProviderConformance {
protected:
  void SetUp() override;
};

} // namespace conformance

/// Expects `statement` to fail with the provider Exception of `code`.
#define EXPECT_PROVIDER_ERROR(code, statement)                                                                         \
  do {                                                                                                                 \
    try {                                                                                                              \
      statement;                                                                                                       \
      ADD_FAILURE() << #statement " succeeded; expected " << (code);                                                   \
    } catch (::foundation::storage::provider::Exception const& failure) {                                              \
      EXPECT_EQ(failure.getErrorCode(), (code)) << failure.what();                                                     \
    }                                                                                                                  \
  } while (false)

/// Runs the whole contract for the providers `generator` yields.
#define INSTANTIATE_PROVIDER_CONFORMANCE(prefix, generator)                                                            \
  INSTANTIATE_TEST_SUITE_P(prefix, ProviderConformance, generator, [](auto const& info) { return info.param.name; });  \
  INSTANTIATE_TEST_SUITE_P(prefix, ListingConformance, generator, [](auto const& info) { return info.param.name; })
