#include "../conformance/provider_conformance.hpp"
#include "../support/item_io.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>

namespace p = conformance::p;
namespace events = conformance::events;
using foundation::storage::providers::memory::MemoryProvider;
using Code = p::ErrorCode;
using conformance::EventLog;

using testsupport::readFile;
using testsupport::replaceAll;
using testsupport::writeFile;

namespace {

class MemoryProviderTest : public ::testing::Test {
protected:
  p::StorageItem item(std::u16string const& path) const {
    return p::StorageItem(provider_, p::StorageIRI(u"mem:///" + path));
  }
  void configure(std::string const& key, std::string const& value) const {
    boost::property_tree::ptree settings;
    settings.put(key, value);
    item(u"").configure(settings);
  }

  std::shared_ptr<MemoryProvider> provider_ = std::make_shared<MemoryProvider>();
};

class CaseInsensitiveMemoryTest : public MemoryProviderTest {
protected:
  CaseInsensitiveMemoryTest() { provider_ = std::make_shared<MemoryProvider>(p::FilenameSensitivity::CaseInsensitive); }
};

} // namespace

TEST_F(CaseInsensitiveMemoryTest, KeepsLetterCaseButIgnoresItInLookups) {
  writeFile(item(u"ReadMe.TXT"), "x");
  EXPECT_EQ(item(u"readme.txt").exists(), p::ExistsResult::File);
  EXPECT_EQ(item(u"READme.txt").getCanonicalLocation(), p::StorageIRI(u"mem:///ReadMe.TXT"));
  EXPECT_PROVIDER_ERROR(Code::ResourceAlreadyExists, item(u"README.TXT").createFile());
  auto cursor = item(u"").listAllNamesOnly(u"");
  ASSERT_TRUE(cursor->hasNext());
  cursor->next();
  EXPECT_EQ(cursor->current().getName(), u"ReadMe.TXT");
  item(u"Ümlaut").createFolder();
  EXPECT_TRUE(item(u"ümlaut").folderExists());
}

TEST_F(CaseInsensitiveMemoryTest, RenamesByLetterCaseOnly) {
  writeFile(item(u"ReadMe.TXT"), "x");
  item(u"readme.txt").moveFile(p::StorageIRI(u"mem:///README.txt"), p::ReplacementPolicy::FailIfExists);
  EXPECT_EQ(item(u"readme.TXT").getCanonicalLocation(), p::StorageIRI(u"mem:///README.txt"));
  EXPECT_EQ(readFile(item(u"README.txt")), "x");
  item(u"Docs").createFolder();
  item(u"docs").moveFolder(p::StorageIRI(u"mem:///DOCS"), p::ReplacementPolicy::FailIfExists);
  EXPECT_EQ(item(u"docs").getCanonicalLocation(), p::StorageIRI(u"mem:///DOCS"));
}

TEST_F(MemoryProviderTest, RefusesWritesBeyondItsCapacityAndKeepsOldContents) {
  writeFile(item(u"a.txt"), "12345");
  configure("capacity", "9");
  EXPECT_EQ(item(u"").getProviderStorageInfo().totalBytes, 9u);
  EXPECT_EQ(item(u"").getProviderStorageInfo().availableBytes, 4u);

  auto stream = item(u"b.txt").openStream(replaceAll);
  try {
    stream->write("too many bytes", 14);
    ADD_FAILURE() << "the write should not fit";
  } catch (p::ByteStreamWriteFailure const& e) {
    EXPECT_EQ(e.getErrorCode(), Code::NoSpaceLeft);
  }
  stream->close();

  auto transaction = item(u"a.txt").openTransactionalStream(replaceAll);
  transaction->write("0123456789AB", 12);
  try {
    transaction->close(p::StreamClosePolicy::Commit);
    ADD_FAILURE() << "the commit should not fit";
  } catch (p::ByteStreamCloseFailure const& e) {
    EXPECT_EQ(e.getErrorCode(), Code::NoSpaceLeft);
  }
  EXPECT_EQ(readFile(item(u"a.txt")), "12345");
  EXPECT_PROVIDER_ERROR(Code::NoSpaceLeft, item(u"a.txt").copyFile(item(u"c.txt"), {}));
  EXPECT_EQ(item(u"c.txt").exists(), p::ExistsResult::NotFound);

  configure("maxFileSize", "3");
  EXPECT_PROVIDER_ERROR(Code::FileTooLarge, item(u"a.txt").truncateToSize(4));
}

TEST_F(MemoryProviderTest, RejectsUnknownSettingsAndForeignLocations) {
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, configure("colour", "1"));
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, configure("capacity", "lots"));
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, p::StorageItem(provider_, p::StorageIRI(u"mem://other/x")).createFile());
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, p::StorageItem(provider_, p::StorageIRI(u"file:///x")).exists());
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, item(u"").removeFolder());
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, item(u"").moveFolder(p::StorageIRI(u"mem:///x"), {}));
}

TEST_F(MemoryProviderTest, FailuresNameTheProviderAndTheOperation) {
  auto const contextOf = [](auto const& action) -> std::u16string {
    try {
      action();
    } catch (p::Exception const& failure) {
      return failure.getAllExceptionContexts().empty()
                 ? u"(none)"
                 : failure.getAllExceptionContexts().front().getExceptionContextKey();
    }
    return u"(no failure)";
  };
  EXPECT_EQ(contextOf([&] { item(u"missing").getCanonicalLocation(); }), u"memory.getCanonicalLocation");
  EXPECT_EQ(contextOf([&] { item(u"missing").moveFile(p::StorageIRI(u"mem:///x"), {}); }), u"memory.moveFile");
  EXPECT_EQ(contextOf([&] { item(u"missing").listFolders(u"*"); }), u"memory.listFolders");
}

TEST_F(MemoryProviderTest, OpenStreamsOutliveTheirFileAndTheProvider) {
  writeFile(item(u"a.txt"), "contents");
  auto stream = item(u"a.txt").openStream({p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::MustExist,
                                           p::ByteStreamTruncate::Keep, p::ByteStreamAppend::AtPosition});
  item(u"a.txt").removeFile();
  provider_.reset();
  stream->write("new", 3);
  stream->seek(0, std::ios_base::beg);
  char buffer[16] = {};
  EXPECT_EQ(stream->read(buffer, sizeof buffer), 8);
  EXPECT_EQ(std::string(buffer, 8), "newtents");
  stream->close();
}

TEST_F(MemoryProviderTest, ReportsEachKindOfChangeNatively) {
  writeFile(item(u"f.txt"), "1");
  EventLog all, attributes;
  item(u"f.txt").publishFileEvents(all.callback(), {});
  item(u"f.txt").publishFileEvents(all.callback(), {}); // subscribing again replaces
  item(u"").publishFolderEvents(attributes.callback(), {events::Kind::AttributesChanged}, p::RecursiveWatching::No);
  writeFile(item(u"f.txt"), "22");
  item(u"f.txt").setWritable(false);
  item(u"f.txt").setLastModified(boost::posix_time::time_from_string("2001-02-03 04:05:06"));
  item(u"f.txt").setWritable(true);
  item(u"f.txt").removeFile();
  std::vector<events::Kind> kinds;
  for (auto const& r : all.records()) kinds.push_back(r.kind);
  EXPECT_EQ(kinds, (std::vector<events::Kind>{events::Kind::Modified, events::Kind::AttributesChanged,
                                              events::Kind::AttributesChanged, events::Kind::AttributesChanged,
                                              events::Kind::Removed}));
  EXPECT_EQ(attributes.records().size(), 3u);
}

TEST_F(MemoryProviderTest, ReportsARecursiveRemovalChildrenFirstDespiteThrowingSubscribers) {
  item(u"tree/sub").createFolderRecursive();
  item(u"tree/sub/x").createFile();
  EventLog log;
  item(u"tree").publishFolderEvents(log.callback(), {}, p::RecursiveWatching::Yes);
  item(u"tree/sub")
      .publishFolderEvents(
          [](auto const&, auto const&, auto const&, auto const&, auto) { throw std::runtime_error("subscriber bug"); },
          {}, p::RecursiveWatching::No);
  item(u"tree").removeFolderRecursively();
  std::vector<std::u16string> removed;
  for (auto const& r : log.records()) removed.push_back(r.item);
  EXPECT_EQ(removed, (std::vector<std::u16string>{u"mem:///tree/sub/x", u"mem:///tree/sub", u"mem:///tree"}));
  EXPECT_EQ(item(u"tree").exists(), p::ExistsResult::NotFound);
}

TEST_F(MemoryProviderTest, ShutdownEndsEveryWatch) {
  EventLog log;
  item(u"").publishFolderEvents(log.callback(), {}, p::RecursiveWatching::Yes);
  item(u"").startChangePollingMechanism(log.callback(), {}, std::chrono::milliseconds(1), p::RecursivePolling::Yes);
  item(u"").shutdownProvider();
  item(u"x").createFile();
  EXPECT_FALSE(log.waitFor(1, std::chrono::milliseconds(30)));
}

TEST_F(MemoryProviderTest, CreatesListsAndRemovesAChainFortyThousandDeep) {
  std::u16string path = u"deep";
  for (int level = 1; level < 40000; ++level) path += u"/d";
  item(path).createFolderRecursive();
  EXPECT_EQ(item(path).exists(), p::ExistsResult::Folder);
  std::size_t listed = 0;
  for (auto cursor = item(path.substr(0, path.size() - 2 * 100)).listAllRecursiveNamesOnly(u""); cursor->hasNext();
       cursor->next())
    ++listed;
  EXPECT_EQ(listed, 100u);
  item(u"deep").removeFolderRecursively();
  EXPECT_EQ(item(u"deep").exists(), p::ExistsResult::NotFound);
  item(path).createFolderRecursive();
  provider_.reset(); // a deep tree goes with its provider
}

TEST_F(MemoryProviderTest, ReportsChangesMadeByACallbackAfterTheChangeThatCausedThem) {
  EventLog log;
  item(u"").publishFolderEvents(
      [&, record = log.callback()](events::Kind const& kind, p::StorageIRI const& watched, p::StorageIRI const& changed,
                                   events::EntryType const& type, boost::property_tree::ptree extra) {
        record(kind, watched, changed, type, extra);
        if (changed == p::StorageIRI(u"mem:///a")) item(u"b").createFile(); // on the delivering thread
      },
      {}, p::RecursiveWatching::Yes);
  item(u"a").createFile();
  // Delivered before the call returns, in the order of the changes.
  std::vector<std::u16string> created;
  for (auto const& r : log.records()) created.push_back(r.item);
  EXPECT_EQ(created, (std::vector<std::u16string>{u"mem:///a", u"mem:///b"}));
  item(u"c/d").createFolderRecursive();
  EXPECT_EQ(log.records().size(), 4u);
  EXPECT_EQ(log.records().back().item, u"mem:///c/d");
}
