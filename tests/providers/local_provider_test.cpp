#include "local_fixture.hpp"

#include "../support/item_io.hpp"

#include <boost/date_time/posix_time/posix_time.hpp>

#include <atomic>
#include <set>
#include <thread>

#include <sys/stat.h>

using namespace localtest;
namespace events = conformance::events;
using foundation::storage::providers::local::LocalProvider;
using foundation::storage::providers::local::LocalProviderOptions;
using Code = p::ErrorCode;
using conformance::EventLog;

using testsupport::readFile;
using testsupport::replaceAll;
using testsupport::writeFile;

TEST_F(LocalProviderTest, RefusesChangesToProtectedFilesEvenForTheSuperuser) {
  writePath(path("locked.txt"), "original");
  writePath(path("source.txt"), "source");
  if (!makeImmutable(path("locked.txt"), true))
    GTEST_SKIP() << "this file system or user cannot set the immutable flag";
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked.txt").openStream(replaceAll));
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked.txt").openTransactionalStream(replaceAll));
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked.txt").truncateToSize(0));
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied, item(u"locked.txt").removeFile());
  EXPECT_PROVIDER_ERROR(Code::PermissionDenied,
                        item(u"source.txt").copyFile(item(u"locked.txt"), {p::ReplacementPolicy::Overwrite, {}}));
  makeImmutable(path("locked.txt"), false);
  EXPECT_EQ(readPath(path("locked.txt")), "original");
  EXPECT_EQ(folderNames(), (std::vector<std::string>{"locked.txt", "source.txt"})); // no temporary file left
}

TEST_F(LocalProviderTest, ReportsFailuresWithTheCallAndTheSystemMessage) {
  fs::create_directories(path("full/inside"));
  try {
    item(u"full").removeFolder();
    FAIL() << "a full folder was removed";
  } catch (p::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), Code::FolderNotEmpty);
    ASSERT_EQ(e.getAllExceptionContexts().size(), 1u);
    EXPECT_EQ(e.getAllExceptionContexts().front().getExceptionContextKey(), u"local.removeFolder");
    EXPECT_EQ(e.getAllExceptionContexts().front().getMessage(), std::generic_category().message(ENOTEMPTY));
    EXPECT_EQ(e.getStorageIRI(), item(u"full").getLocation());
  }
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, p::StorageItem(provider_, p::StorageIRI(u"file://host/x")).exists());
  EXPECT_PROVIDER_ERROR(Code::InvalidLocation, p::StorageItem(provider_, p::StorageIRI(u"mem:///x")).exists());
}

TEST_F(LocalProviderTest, FollowsSymbolicLinksWithoutLoopingOrEscaping) {
  fs::create_directories(path("tree/sub"));
  fs::create_directories(path("outside"));
  writePath(path("outside/precious.txt"), "keep me");
  writePath(path("tree/file.txt"), "f");
  fs::create_symlink(path("tree/file.txt"), path("tree/link-to-file"));
  fs::create_directory_symlink(path("outside"), path("tree/link-to-outside"));
  fs::create_directory_symlink(path("tree"), path("tree/sub/loop"));
  fs::create_symlink(path("nowhere"), path("tree/broken"));

  EXPECT_EQ(item(u"tree/link-to-file").existsExtended(), p::ExtendedExistsResult::SymlinkToFile);
  EXPECT_EQ(item(u"tree/link-to-outside").existsExtended(), p::ExtendedExistsResult::SymlinkToFolder);
  EXPECT_EQ(item(u"tree/broken").existsExtended(), p::ExtendedExistsResult::BrokenSymlink);
  EXPECT_EQ(item(u"tree/link-to-outside").exists(), p::ExistsResult::Folder);
  EXPECT_TRUE(item(u"tree/link-to-file").getFileAttributes().isSymlink());
  EXPECT_EQ(item(u"tree/link-to-file").getFileAttributes().getSize(), 1u);
  EXPECT_EQ(item(u"tree/sub/loop").getCanonicalLocation(), item(u"tree").getCanonicalLocation());

  EXPECT_EQ(conformance::sortedNames(item(u"tree").listAllRecursive(u"")),
            (std::vector<std::string>{"broken", "file.txt", "link-to-file", "link-to-outside/", "sub/", "sub/loop/"}));
  for (auto cursor = item(u"tree").listAll(u""); cursor->hasNext();) {
    cursor->next();
    auto entry = cursor->current();
    bool const symlink =
        entry.isFile() ? entry.getFileAttributes()->isSymlink() : entry.getFolderAttributes()->isSymlink();
    EXPECT_EQ(symlink, entry.getName() != u"file.txt" && entry.getName() != u"sub")
        << conformance::toUtf8(entry.getName());
  }

  item(u"tree").removeFolderRecursively();
  EXPECT_FALSE(fs::exists(path("tree")));
  EXPECT_EQ(readPath(path("outside/precious.txt")), "keep me"); // links were removed, not followed
}

TEST_F(LocalProviderTest, RoundTripsUnusualNamesBetweenPathsAndLocations) {
  for (std::string name : {"with space", "100%", "hash#", "what?", "bang!", "Grüße", "日本"}) {
    writePath(path(name), name);
    p::StorageIRI location = p::toStorageIRI(u"file", fl::filesystem::path(path(name)));
    EXPECT_EQ(p::fromStorageIRI(p::StorageIRI(location.toString())).std_path(), path(name));
    EXPECT_EQ(readFile(p::StorageItem(provider_, p::StorageIRI::fromUtf8(location.toAsciiString()))), name);
  }
  writePath(path("bad\xff"), "not UTF-8");
  EXPECT_EQ(conformance::sortedNames(item(u"").listAllNamesOnly(u"")).size(), 7u); // the unnamable one is left out
}

TEST_F(LocalProviderTest, OpensAFifoWithoutWaitingForAWriter) {
  ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
  EXPECT_EQ(item(u"pipe").existsExtended(), p::ExtendedExistsResult::Special);
  auto stream = item(u"pipe").openReadOnlyStream(); // would block forever in open(2)
  char byte;
  EXPECT_EQ(stream->read(&byte, 1), 0); // no writer: end of data
}

TEST_F(LocalProviderTest, KeepsTimesAndModesPrecisely) {
  writePath(path("f.txt"), "x");
  auto const when = boost::posix_time::time_from_string("2019-05-06 07:08:09.654321");
  item(u"f.txt").setLastModified(when);
  EXPECT_EQ(item(u"f.txt").getFileAttributes().getLastModified(), when);
  fs::permissions(path("f.txt"), fs::perms(0664));
  item(u"f.txt").setWritable(false);
  EXPECT_EQ(fs::status(path("f.txt")).permissions() & fs::perms::all, fs::perms(0444));
  item(u"f.txt").setWritable(true);
  EXPECT_EQ(fs::status(path("f.txt")).permissions() & fs::perms::all, fs::perms(0644));
  auto extended = item(u"f.txt").getExtendedAttributes();
  EXPECT_EQ(extended.get<std::string>("posix.mode"), "0644");
  EXPECT_EQ(extended.get<std::uint64_t>("posix.links"), 1u);
  EXPECT_GT(item(u"").getProviderStorageInfo().totalBytes, 0u);
  item(u"").flushFilesystem();
}

TEST_F(LocalProviderTest, HandlesFilesBeyondFourGibibytes) {
  std::uint64_t const size = (std::uint64_t{5} << 30) + 7;
  item(u"sparse.bin").createFile();
  item(u"sparse.bin").truncateToSize(size); // sparse: no data blocks are written
  auto stream = item(u"sparse.bin")
                    .openStream({p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::MustExist,
                                 p::ByteStreamTruncate::Keep, p::ByteStreamAppend::AtPosition});
  std::streamoff const far = static_cast<std::streamoff>(std::uint64_t{9} << 29); // 4.5 GiB
  EXPECT_EQ(stream->seek(far, std::ios_base::beg), std::streampos(far));
  stream->write("far away", 8);
  EXPECT_EQ(stream->seek(-8, std::ios_base::cur), std::streampos(far));
  char buffer[8];
  EXPECT_EQ(stream->read(buffer, 8), 8);
  EXPECT_EQ(std::string(buffer, 8), "far away");
  EXPECT_EQ(stream->seek(0, std::ios_base::end), std::streampos(static_cast<std::streamoff>(size)));
  stream->close();
  EXPECT_EQ(item(u"sparse.bin").getFileAttributes().getSize(), size);
}

TEST_F(LocalProviderTest, CommitsKeepPermissionsLeaveNoTemporaryFilesAndNeverShowAMix) {
  std::string const a(256 * 1024, 'A'), b(128 * 1024, 'B');
  writePath(path("data.bin"), a);
  fs::permissions(path("data.bin"), fs::perms(0640));
  std::atomic<bool> done{false};
  std::atomic<int> mixed{0}, reads{0};
  std::thread reader([&] {
    while (!done) {
      std::string seen = readFile(item(u"data.bin"));
      ++reads;
      if (seen != a && seen != b) ++mixed;
    }
  });
  for (int i = 0; i < 40; ++i) {
    auto transaction = item(u"data.bin").openTransactionalStream(replaceAll);
    std::string const& next = i % 2 ? a : b;
    for (std::size_t at = 0; at < next.size(); at += 8192) transaction->write(next.data() + at, 8192);
    transaction->close(p::StreamClosePolicy::Commit);
  }
  done = true;
  reader.join();
  EXPECT_EQ(mixed.load(), 0) << "of " << reads.load() << " reads";
  EXPECT_EQ(fs::status(path("data.bin")).permissions() & fs::perms::all, fs::perms(0640));

  item(u"data.bin").openTransactionalStream(replaceAll)->close(p::StreamClosePolicy::Discard);
  { auto abandoned = item(u"data.bin").openTransactionalStream(replaceAll); }
  item(u"data.bin").copyFile(item(u"copy.bin"), {});
  EXPECT_EQ(folderNames(), (std::vector<std::string>{"copy.bin", "data.bin"}));
}

TEST_F(LocalProviderTest, MovesAcrossFileSystemsAreLeftToTheCaller) {
  LocalProviderOptions options;
  options.rename = [](int, char const*, int, char const*, bool) { return EXDEV; };
  std::shared_ptr<p::IProvider> crossDevice = std::make_shared<LocalProvider>(options);
  writePath(path("a.txt"), "a");
  fs::create_directories(path("folder"));
  p::StorageItem file(crossDevice, item(u"a.txt").getLocation());
  p::StorageItem folder(crossDevice, item(u"folder").getLocation());
  EXPECT_PROVIDER_ERROR(Code::UnsupportedOperation,
                        file.moveFile(item(u"b.txt").getLocation(), p::ReplacementPolicy::Overwrite));
  EXPECT_PROVIDER_ERROR(Code::UnsupportedOperation,
                        folder.moveFolder(item(u"moved").getLocation(), p::ReplacementPolicy::Overwrite));
  EXPECT_EQ(readPath(path("a.txt")), "a");
  EXPECT_TRUE(fs::is_directory(path("folder")));
}

TEST_F(LocalProviderTest, ReportsChangesInOrderAndFollowsNewSubfolders) {
  EventLog log;
  item(u"").publishFolderEvents(log.callback(), {}, p::RecursiveWatching::Yes);
  item(u"a.txt").createFile();
  item(u"a.txt").setLastModified(boost::posix_time::time_from_string("2020-01-01 00:00:00"));
  item(u"a.txt").moveFile(item(u"b.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  item(u"new/deeper").createFolderRecursive();
  writeFile(item(u"new/deeper/c.txt"), "c");
  auto transaction = item(u"b.txt").openTransactionalStream(replaceAll);
  transaction->write("committed", 9);
  transaction->close();
  item(u"b.txt").removeFile();

  std::vector<std::pair<events::Kind, std::u16string>> expected{
      {events::Kind::Created, item(u"a.txt").getLocation().toString()},
      {events::Kind::AttributesChanged, item(u"a.txt").getLocation().toString()},
      {events::Kind::Renamed, item(u"b.txt").getLocation().toString()},
      {events::Kind::Created, item(u"new").getLocation().toString()},
      {events::Kind::Created, item(u"new/deeper").getLocation().toString()},
      {events::Kind::Created, item(u"new/deeper/c.txt").getLocation().toString()},
      {events::Kind::Modified, item(u"b.txt").getLocation().toString()},
      {events::Kind::Removed, item(u"b.txt").getLocation().toString()}};
  ASSERT_TRUE(log.waitFor(expected.size(), std::chrono::seconds(5)));
  std::this_thread::sleep_for(std::chrono::milliseconds(100)); // nothing more may follow
  // c.txt was written in a folder that was only just watched: whether its contents arrive
  // as a Modified of their own or within its Created depends on timing.
  std::vector<std::pair<events::Kind, std::u16string>> seen;
  for (auto const& r : log.records())
    if (!(r.kind == events::Kind::Modified && r.item == item(u"new/deeper/c.txt").getLocation().toString()))
      seen.emplace_back(r.kind, r.item);
  EXPECT_EQ(seen, expected);
  item(u"").stopPublishingFolderEvents();
}

TEST_F(LocalProviderTest, RescansAfterTheKernelQueueOverflows) {
  char const* const limitFile = "/proc/sys/fs/inotify/max_queued_events";
  std::string const saved = readPath(limitFile);
  std::ofstream limit(limitFile);
  if (!(limit << "16" << std::flush)) GTEST_SKIP() << "cannot lower the inotify queue limit (needs root)";
  auto provider = std::make_shared<LocalProvider>(); // its inotify instance gets the small queue
  std::ofstream(limitFile) << saved;
  std::atomic<bool> release{false};
  std::mutex mutex;
  std::set<std::u16string> created;
  p::StorageItem root(provider, item(u"").getLocation());
  root.publishFolderEvents(
      [&](events::Kind const& kind, auto const&, p::StorageIRI const& item, auto const&, auto) {
        while (!release) std::this_thread::sleep_for(std::chrono::milliseconds(1)); // the queue fills meanwhile
        std::lock_guard lock(mutex);
        if (kind == events::Kind::Created) created.insert(item.toString());
      },
      {}, p::RecursiveWatching::No);
  for (int i = 0; i < 100; ++i) writePath(path("f" + std::to_string(i)), "x");
  release = true;
  for (int i = 0; i < 500; ++i) {
    {
      std::lock_guard lock(mutex);
      if (created.size() == 100) break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  std::lock_guard lock(mutex);
  EXPECT_EQ(created.size(), 100u) << "changes lost in the overflow";
  root.stopPublishingFolderEvents();
}

TEST_F(LocalProviderTest, StoppingLeaksNoDescriptorOrThread) {
  std::size_t const before = openDescriptors();
  {
    auto provider = std::make_shared<LocalProvider>();
    p::StorageItem root(provider, item(u"").getLocation());
    EventLog log;
    root.publishFolderEvents(log.callback(), {}, p::RecursiveWatching::Yes);
    root.startChangePollingMechanism(log.callback(), {}, std::chrono::milliseconds(5), p::RecursivePolling::Yes);
    writePath(path("x"), "x");
    ASSERT_TRUE(log.waitFor(1, std::chrono::seconds(5)));
    root.stopPublishingFolderEvents();
    root.shutdownProvider();
  }
  EXPECT_EQ(openDescriptors(), before);
}
