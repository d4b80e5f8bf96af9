#include "../conformance/provider_conformance.hpp"

#include <foundation/storage/providers/archive/archive_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <gtest/gtest.h>

#include <functional>

namespace p = conformance::p;
namespace events = conformance::events;
using conformance::EventLog;
using foundation::storage::providers::archive::TarProvider;
using foundation::storage::providers::archive::ZipProvider;
using foundation::storage::providers::memory::MemoryProvider;

namespace {

class ArchiveProviderTest : public ::testing::Test {
protected:
  ArchiveProviderTest() { item(u"").createFolder(); }

  p::StorageItem item(std::u16string const& path) const {
    return p::StorageItem(zip_, p::StorageIRI(u"zip:mem:///a.zip!/" + path));
  }

  std::shared_ptr<MemoryProvider> memory_ = std::make_shared<MemoryProvider>();
  std::shared_ptr<ZipProvider> zip_ =
      std::make_shared<ZipProvider>([memory = memory_](p::StorageIRI const&) { return memory; });
};

std::vector<std::u16string> items(EventLog const& log) {
  std::vector<std::u16string> seen;
  for (auto const& record : log.records()) seen.push_back(record.item);
  return seen;
}

/// The key of the first context of the failure `action` raises.
std::u16string contextOf(std::function<void()> const& action) {
  try {
    action();
  } catch (p::Exception const& failure) {
    auto const& contexts = failure.getAllExceptionContexts();
    return contexts.empty() ? u"(none)" : contexts.front().getExceptionContextKey();
  }
  return u"(no failure)";
}

} // namespace

TEST_F(ArchiveProviderTest, ChangesMadeByACallbackReachEverySubscriberAfterTheChangeThatCausedThem) {
  item(u"d").createFolder();
  EventLog first, second;
  auto const record = first.callback();
  // Told first (the root sorts before its folder), it makes a change while the other
  // subscriber has yet to hear of the change under way.
  item(u"").publishFolderEvents(
      [&](events::Kind const& kind, p::StorageIRI const& watched, p::StorageIRI const& changed,
          events::EntryType const& type, boost::property_tree::ptree extra) {
        record(kind, watched, changed, type, extra);
        if (changed.getName() == u"a") item(u"d/b").createFile();
      },
      {}, p::RecursiveWatching::Yes);
  item(u"d").publishFolderEvents(second.callback(), {}, p::RecursiveWatching::No);
  item(u"d/a").createFile();
  std::vector<std::u16string> const expected{item(u"d/a").getLocation().toString(),
                                             item(u"d/b").getLocation().toString()};
  EXPECT_EQ(items(first), expected);
  EXPECT_EQ(items(second), expected) << "every subscriber hears of the changes in the order they were made";
}

TEST_F(ArchiveProviderTest, AFolderSubscriptionHearsOfAFileMovedOutAndOfTheFolderItself) {
  item(u"w").createFolder();
  item(u"elsewhere").createFolder();
  item(u"w/f.txt").createFile();
  EventLog log;
  item(u"w").publishFolderEvents(log.callback(), {}, p::RecursiveWatching::No);
  item(u"w/f.txt").moveFile(item(u"elsewhere/f.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  item(u"w").setWritable(false);
  item(u"w").setWritable(true);
  item(u"w").removeFolder();
  auto const records = log.records();
  ASSERT_EQ(records.size(), 4u);
  EXPECT_EQ(records[0].kind, events::Kind::Renamed);
  EXPECT_EQ(records[0].renamedFrom, item(u"w/f.txt").getLocation().toIRI());
  EXPECT_EQ(records[1].kind, events::Kind::AttributesChanged);
  EXPECT_EQ(records[3].kind, events::Kind::Removed);
  EXPECT_EQ(records[3].item, item(u"w").getLocation().toString());
}

TEST_F(ArchiveProviderTest, FailuresNameTheSchemeAndTheOperation) {
  EXPECT_EQ(contextOf([&] { item(u"missing").listAll(u""); }), u"zip.listAll");
  EXPECT_EQ(contextOf([&] { item(u"missing/x").createFile(); }), u"zip.createFile");
  EXPECT_EQ(contextOf([&] {
              item(u"missing")
                  .openStream({p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::MustExist,
                               p::ByteStreamTruncate::Keep, p::ByteStreamAppend::AtPosition});
            }),
            u"zip.openStream");
  auto tar = std::make_shared<TarProvider>([memory = memory_](p::StorageIRI const&) { return memory; });
  EXPECT_EQ(contextOf([&] { p::StorageItem(tar, p::StorageIRI(u"tar:mem:///a.tar!/x")).createFile(); }),
            u"tar.createFile");
}
