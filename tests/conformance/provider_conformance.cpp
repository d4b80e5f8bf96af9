#include "provider_conformance.hpp"

#include "../support/item_io.hpp"

#include <fl/i18n/i18n.hpp>

#include <algorithm>

namespace conformance {

using testsupport::writeFile;

std::string toUtf8(std::u16string const& s) { return fl::i18n::to_utf8(s); }

p::ChangeCallback EventLog::callback() {
  return [this](events::Kind const& kind, p::StorageIRI const&, p::StorageIRI const& item,
                events::EntryType const& type, boost::property_tree::ptree extra) {
    std::lock_guard lock(mutex_);
    records_.push_back({kind, item.toString(), type, extra.get("renamedFrom", std::string())});
    arrived_.notify_all();
  };
}

bool EventLog::waitFor(std::size_t count, std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  return arrived_.wait_for(lock, timeout, [&] { return records_.size() >= count; });
}

std::vector<EventLog::Record> EventLog::records() const {
  std::lock_guard lock(mutex_);
  return records_;
}

namespace {

/// Rows that only read, given the listing tree.
bool readsOnly(std::string row) {
  row = row.substr(0, row.find('/')); // without the provider's suffix
  static std::vector<std::string> const rows{
      "ListsChildrenByKindWithAndWithoutAttributes", "FiltersNamesWithPatterns",
      "ListsTreesDepthFirstWithRelativeNames",       "CursorsCloneIndependently",
      "ComparesNamesByTheRequestedCaseRule",         "ReportsStorageInformation"};
  return std::find(rows.begin(), rows.end(), row) != rows.end();
}

} // namespace

void ProviderConformance::SetUp() {
  if (GetParam().unavailable)
    if (auto reason = GetParam().unavailable(); !reason.empty()) GTEST_SKIP() << reason;
  workspace_ = GetParam().make();
  if (capabilities().readOnly && !readsOnly(::testing::UnitTest::GetInstance()->current_test_info()->name())) {
    EXPECT_PROVIDER_ERROR(p::ErrorCode::ReadOnlyProvider, item(u"new.txt").createFile());
    GTEST_SKIP() << "the storage is read only: its rows that change things only check that a change is refused";
  }
}

void ProviderConformance::TearDown() {
  if (workspace_.cleanup) workspace_.cleanup();
}

p::StorageItem ProviderConformance::item(std::u16string const& relative) const {
  return p::StorageItem(p::StorageItem(workspace_.provider, workspace_.root), relative);
}

p::StorageItem ProviderConformance::foreignItem(std::u16string const& relative) const {
  return p::StorageItem(p::StorageItem(workspace_.foreign, workspace_.foreignRoot), relative);
}

void ListingConformance::SetUp() {
  ProviderConformance::SetUp();
  if (IsSkipped() || capabilities().readOnly) return; // a read-only workspace holds the tree already
  item(u"top/sub/deeper").createFolderRecursive();
  writeFile(item(u"top/a.txt"), "aaa");
  writeFile(item(u"top/b.log"), "b");
  writeFile(item(u"top/sub/c.txt"), "cc");
  writeFile(item(u"top/sub/deeper/d.txt"), "d");
}

std::vector<std::string> sortedNames(std::unique_ptr<p::IFolderEntryIterator> cursor) {
  std::vector<std::string> out;
  while (cursor->hasNext()) {
    cursor->next();
    auto entry = cursor->current();
    out.push_back(toUtf8(entry.getName()) + (entry.isFile() ? "" : "/"));
  }
  std::sort(out.begin(), out.end());
  return out;
}

} // namespace conformance
