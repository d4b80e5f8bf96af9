// The s3 provider's own behaviour against a real gateway: request counts, multipart
// writes, transactions that die, conditional creation, failures and retries.

#include "../support/item_io.hpp"
#include "../support/s3_endpoint.hpp"
#include "fault_proxy.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/systems/standard_storage_system.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/property_tree/ptree.hpp>

#include <gtest/gtest.h>

#include <sys/wait.h>

#include <functional>
#include <thread>
#include <utility>

namespace p = foundation::storage::provider;
using testsupport::readFile;
using testsupport::replaceAll;
using testsupport::writeFile;

namespace {

/// A fresh folder of the test bucket, removed afterwards.
class S3ProviderTest : public ::testing::Test {
protected:
  void SetUp() override {
    SKIP_WITHOUT_S3();
    provider_ = testsupport::makeS3Provider();
    root_ = p::StorageIRI(u"s3://" + testsupport::s3TestBucket + u"/" + testsupport::uniqueS3FolderName(u"provider"));
    provider_->createFolder(root_);
  }
  void TearDown() override {
    if (provider_) provider_->removeFolderRecursively(root_);
  }

  p::StorageItem item(std::u16string const& relative) const {
    return p::StorageItem(p::StorageItem(provider_, root_), relative);
  }

  /// Part size at its smallest, so that a few MiB make a multipart upload.
  void useSmallParts() {
    boost::property_tree::ptree settings;
    settings.put("partSize", 5u << 20);
    provider_->configure(root_, settings);
  }

  std::shared_ptr<testsupport::s3::S3Provider> provider_;
  p::StorageIRI root_;
};

std::string pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>('a' + (i * 7 + i / 4096) % 26);
  return bytes;
}

std::uint16_t portOf(std::string const& endpoint) {
  return static_cast<std::uint16_t>(std::stoi(endpoint.substr(endpoint.rfind(':') + 1)));
}

} // namespace

TEST_F(S3ProviderTest, ListsTreesWithOneRequestPerThousandKeys) {
  // 1,001 files (the folder has no marker once files are in it): two pages. (The benchmark
  // lists 10,000 keys.)
  constexpr int files = 1001;
  item(u"many/sub").createFolderRecursive();
  std::vector<std::thread> writers;
  for (int w = 0; w < 16; ++w)
    writers.emplace_back([&, w] {
      for (int i = w; i < files; i += 16) {
        auto name = (i % 2 ? "sub/" : "") + std::to_string(i);
        item(u"many/" + std::u16string(name.begin(), name.end())).openStream(replaceAll)->close();
      }
    });
  for (auto& writer : writers) writer.join();

  auto const before = provider_->requestCount();
  auto cursor = item(u"many").listAllRecursiveNamesOnly(u"");
  EXPECT_EQ(provider_->requestCount() - before, 2u);
  std::size_t fileCount = 0, folderCount = 0;
  while (cursor->hasNext()) {
    cursor->next();
    (cursor->current().isFile() ? fileCount : folderCount)++;
  }
  EXPECT_EQ(fileCount, static_cast<std::size_t>(files));
  EXPECT_EQ(folderCount, 1u);

  auto const beforeRemoval = provider_->requestCount();
  item(u"many").removeFolderRecursively();
  // the kind check, two listing pages, two batch deletes, the parent's existence and its
  // marker (the parent is empty again)
  EXPECT_EQ(provider_->requestCount() - beforeRemoval, 7u);
  EXPECT_FALSE(item(u"many").folderExists());
}

TEST_F(S3ProviderTest, LargeWritesGoInPartsAndReadBackInParallelRanges) {
  useSmallParts();
  auto const payload = pattern((17u << 20) + 123);
  auto out = item(u"big.bin").openTransactionalStream(replaceAll);
  for (std::size_t at = 0; at < payload.size(); at += 1 << 20)
    out->write(payload.data() + at, static_cast<std::streamsize>(std::min<std::size_t>(1 << 20, payload.size() - at)));
  EXPECT_THROW(out->seek(0, std::ios_base::beg), p::ByteStreamSeekFailure); // parts already sent
  EXPECT_FALSE(item(u"big.bin").fileExists());
  out->close(p::StreamClosePolicy::Commit);

  EXPECT_EQ(item(u"big.bin").getFileAttributes().getSize(), payload.size());
  EXPECT_EQ(readFile(item(u"big.bin")), payload);
  auto in = item(u"big.bin").openReadOnlyStream();
  in->seek(-100, std::ios_base::end);
  EXPECT_EQ(testsupport::readAll(*in), payload.substr(payload.size() - 100));

  // A server-side copy of a multipart object, with progress.
  std::uint64_t done = 0;
  item(u"big.bin")
      .copyFile(item(u"copy.bin"),
                {p::ReplacementPolicy::FailIfExists, [&](std::uint64_t d, std::uint64_t) { done = d; }});
  EXPECT_EQ(done, payload.size());
  EXPECT_EQ(readFile(item(u"copy.bin")), payload);
}

// A write far past the end: the zeros before it stream out as parts instead of being
// held in memory, and a size no multipart upload can reach fails before anything is sent.
TEST_F(S3ProviderTest, WritesPastTheEndSendTheGapInParts) {
  useSmallParts();
  auto out = item(u"gap.bin").openTransactionalStream(replaceAll);
  out->seek(1ll << 40, std::ios_base::beg);
  try {
    out->write("x", 1);
    ADD_FAILURE() << "a write at 1 TiB with 5 MiB parts went through";
  } catch (p::ByteStreamWriteFailure const& e) {
    EXPECT_EQ(e.getErrorCode(), p::ErrorCode::FileTooLarge);
  }
  std::size_t const gap = 11u << 20;
  out->seek(static_cast<std::streamoff>(gap), std::ios_base::beg);
  out->write("x", 1);
  EXPECT_THROW(out->seek(0, std::ios_base::beg), p::ByteStreamSeekFailure); // the zeros went out already
  out->close(p::StreamClosePolicy::Commit);
  EXPECT_EQ(readFile(item(u"gap.bin")), std::string(gap, '\0') + "x");
}

TEST_F(S3ProviderTest, UnfinishedMultipartWritesLeaveTheOldObject) {
  useSmallParts();
  writeFile(item(u"t.bin"), "old");
  auto const payload = pattern(11u << 20);
  {
    auto abandoned = item(u"t.bin").openTransactionalStream(replaceAll);
    abandoned->write(payload.data(), static_cast<std::streamsize>(payload.size()));
  }
  EXPECT_EQ(readFile(item(u"t.bin")), "old");

  // The writing process dies with parts sent and the upload open.
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    // A provider of its own: the parent's pooled connections are not the child's to use.
    auto dying =
        p::StorageItem(testsupport::makeS3Provider(), item(u"t.bin").getLocation()).openTransactionalStream(replaceAll);
    dying->write(payload.data(), static_cast<std::streamsize>(payload.size()));
    ::_exit(0);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_EQ(readFile(item(u"t.bin")), "old");
}

// A commit that must not replace keeps a file that appeared while the stream was open,
// for multipart uploads (whose completion the gateway cannot make conditional) and for
// read-write streams staged in a temporary file; where nothing appeared, it lands whole.
TEST_F(S3ProviderTest, CommitsThatMustNotReplaceKeepAFileThatAppeared) {
  useSmallParts();
  auto const payload = pattern((5u << 20) + 17);
  p::ByteStreamOpenOptions const readWrite{p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::CreateIfMissing,
                                           p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition};
  for (auto const& options : {replaceAll, readWrite}) {
    auto const kind = options == replaceAll ? std::u16string(u"multipart") : std::u16string(u"staged");
    SCOPED_TRACE(std::string(kind.begin(), kind.end()));
    auto late = item(kind + u"-late").openTransactionalStream(options);
    late->write(payload.data(), static_cast<std::streamsize>(payload.size()));
    writeFile(item(kind + u"-late"), "first");
    try {
      late->close(p::StreamClosePolicy::CommitWithoutReplacing);
      ADD_FAILURE() << "the commit replaced a file";
    } catch (p::ByteStreamCloseFailure const& e) {
      EXPECT_EQ(e.getErrorCode(), p::ErrorCode::ResourceAlreadyExists);
    }
    EXPECT_EQ(readFile(item(kind + u"-late")), "first");

    auto fresh = item(kind + u"-fresh").openTransactionalStream(options);
    fresh->write(payload.data(), static_cast<std::streamsize>(payload.size()));
    fresh->close(p::StreamClosePolicy::CommitWithoutReplacing);
    EXPECT_EQ(readFile(item(kind + u"-fresh")), payload);
  }
}

TEST_F(S3ProviderTest, OnlyOneOfRacingCreatorsSucceeds) {
  for (int round = 0; round < 3; ++round) {
    auto const name = u"race" + std::u16string(1, static_cast<char16_t>(u'0' + round));
    std::atomic<int> created{0}, refused{0};
    std::vector<std::thread> racers;
    for (int r = 0; r < 6; ++r)
      racers.emplace_back([&] {
        try {
          item(name).createFile();
          ++created;
        } catch (p::Exception const& e) {
          if (e.getErrorCode() == p::ErrorCode::ResourceAlreadyExists) ++refused;
        }
      });
    for (auto& racer : racers) racer.join();
    EXPECT_EQ(created.load(), 1);
    EXPECT_EQ(refused.load(), 5);
  }
  // Server-side copies that must not replace: one lands, the others find it there.
  for (int source = 0; source < 6; ++source)
    writeFile(item(u"from" + std::u16string(1, static_cast<char16_t>(u'0' + source))), std::to_string(source));
  std::atomic<int> copied{0}, refused{0};
  std::vector<std::thread> racers;
  for (int source = 0; source < 6; ++source)
    racers.emplace_back([&, source] {
      try {
        item(u"from" + std::u16string(1, static_cast<char16_t>(u'0' + source)))
            .copyFile(item(u"copied"), {p::ReplacementPolicy::FailIfExists, {}});
        ++copied;
      } catch (p::Exception const& e) {
        if (e.getErrorCode() == p::ErrorCode::ResourceAlreadyExists) ++refused;
      }
    });
  for (auto& racer : racers) racer.join();
  EXPECT_EQ(copied.load(), 1);
  EXPECT_EQ(refused.load(), 5);
  EXPECT_EQ(readFile(item(u"copied")).size(), 1u);

  // Moves likewise; a refused move keeps its source.
  std::atomic<int> moved{0}, kept{0};
  racers.clear();
  for (int source = 0; source < 6; ++source)
    racers.emplace_back([&, source] {
      auto const from = item(u"from" + std::u16string(1, static_cast<char16_t>(u'0' + source)));
      try {
        from.moveFile(item(u"moved").getLocation(), p::ReplacementPolicy::FailIfExists);
        ++moved;
      } catch (p::Exception const& e) {
        if (e.getErrorCode() == p::ErrorCode::ResourceAlreadyExists && readFile(from) == std::to_string(source)) ++kept;
      }
    });
  for (auto& racer : racers) racer.join();
  EXPECT_EQ(moved.load(), 1);
  EXPECT_EQ(kept.load(), 5);
}

TEST_F(S3ProviderTest, KeepsModificationTimesThroughCopiesAndMoves) {
  auto const when = boost::posix_time::time_from_string("2001-02-03 04:05:06.789012");
  item(u"d").createFolder();
  writeFile(item(u"d/f.txt"), "f");
  item(u"d/f.txt").setLastModified(when);
  EXPECT_EQ(readFile(item(u"d/f.txt")), "f");
  item(u"d/f.txt").copyFile(item(u"copy.txt"), {});
  EXPECT_EQ(item(u"copy.txt").getFileAttributes().getLastModified(), when);
  item(u"d").moveFolder(item(u"e").getLocation(), p::ReplacementPolicy::FailIfExists);
  EXPECT_EQ(item(u"e/f.txt").getFileAttributes().getLastModified(), when);
  EXPECT_EQ(item(u"d").exists(), p::ExistsResult::NotFound);
  EXPECT_EQ(item(u"e/f.txt").getExtendedAttributes().get<std::string>("s3.key").substr(0, 8), "provider");
}

TEST_F(S3ProviderTest, FoldersStayWhenTheirLastItemGoes) {
  item(u"a/b").createFolderRecursive();
  writeFile(item(u"a/b/x.txt"), "x");
  item(u"a/b/x.txt").moveFile(item(u"y.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  EXPECT_TRUE(item(u"a/b").folderExists());
  item(u"a/b").removeFolder();
  EXPECT_TRUE(item(u"a").folderExists());
  EXPECT_EQ(readFile(item(u"y.txt")), "x");
}

TEST_F(S3ProviderTest, ReportsNoNativeChangesAndRefusesWritableFlags) {
  EXPECT_THROW(item(u"").publishFolderEvents({}, {}, p::RecursiveWatching::No), p::ChangeEventsNotSupportedException);
  EXPECT_FALSE(provider_->hasFeature(p::ExtendedFeature::RecursiveChangeEvents));
  writeFile(item(u"f"), "f");
  try {
    item(u"f").setWritable(false);
    ADD_FAILURE() << "setWritable succeeded";
  } catch (p::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), p::ErrorCode::UnsupportedOperation);
  }
  boost::property_tree::ptree bad;
  bad.put("colour", "blue");
  EXPECT_THROW(provider_->configure(root_, bad), p::Exception);
}

TEST_F(S3ProviderTest, WrongKeysArePermissionDeniedWithTheStoresAnswer) {
  auto settings = testsupport::s3::S3Settings::fromEnvironment();
  settings.secretAccessKey = "not-the-secret";
  auto intruder = testsupport::makeS3Provider(settings);
  try {
    intruder->exists(p::StorageIRI(root_, u"x"));
    ADD_FAILURE() << "a request with a wrong key succeeded";
  } catch (p::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), p::ErrorCode::PermissionDenied) << e.what();
    ASSERT_FALSE(e.getAllExceptionContexts().empty());
    auto const& context = e.getAllExceptionContexts().front();
    EXPECT_EQ(context.getExceptionContextKey(), u"s3.exists");
    EXPECT_NE(context.getMessage().find("HTTP 403 Forbidden"), std::string::npos) << context.getMessage();
    EXPECT_NE(context.getMessage().find("request id"), std::string::npos) << context.getMessage();
  }
}

TEST_F(S3ProviderTest, RetriesThrottledAndDroppedRequests) {
  auto const upstream = portOf(testsupport::s3::S3Settings::fromEnvironment().endpoint);
  for (auto fault : {testsupport::FaultProxy::Fault::SlowDown, testsupport::FaultProxy::Fault::Drop}) {
    testsupport::FaultProxy proxy(upstream, fault, 2);
    auto settings = testsupport::s3::S3Settings::fromEnvironment();
    settings.endpoint = "http://127.0.0.1:" + std::to_string(proxy.port());
    auto throughProxy = testsupport::makeS3Provider(settings);
    writeFile(p::StorageItem(throughProxy, p::StorageIRI(root_, u"through.txt")), "made it");
    EXPECT_EQ(readFile(item(u"through.txt")), "made it");
    EXPECT_GE(proxy.requests(), 3);
  }
  // More failures than retries: IOError naming the status.
  testsupport::FaultProxy proxy(upstream, testsupport::FaultProxy::Fault::SlowDown, 100);
  auto settings = testsupport::s3::S3Settings::fromEnvironment();
  settings.endpoint = "http://127.0.0.1:" + std::to_string(proxy.port());
  try {
    testsupport::makeS3Provider(settings)->exists(p::StorageIRI(root_, u"x"));
    ADD_FAILURE() << "a throttled request succeeded";
  } catch (p::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), p::ErrorCode::IOError);
    EXPECT_NE(std::string(e.what()).find("HTTP 503 Slow Down"), std::string::npos) << e.what();
  }
  EXPECT_EQ(proxy.requests(), 3); // the first attempt and two retries
}

TEST_F(S3ProviderTest, ListsNamesThatXmlCannotCarryRaw) {
  std::u16string const control = u"bell\u0007, tab\t, plus+ and %41";
  writeFile(item(control), "x");
  std::vector<std::u16string> names;
  for (auto cursor = item(u"").listAllNamesOnly(u""); cursor->hasNext();) {
    cursor->next();
    names.push_back(cursor->current().getName());
  }
  EXPECT_EQ(names, std::vector<std::u16string>{control});
}

TEST(S3StorageSystem, ServesS3LocationsOnePerBucket) {
  auto system = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  auto provider = system->buildProvider(p::StorageIRI(u"s3://Some-Bucket/a/b"));
  EXPECT_NE(std::dynamic_pointer_cast<testsupport::s3::S3Provider>(provider), nullptr);
  EXPECT_EQ(system->buildProvider(p::StorageIRI(u"s3://some-bucket/c")), provider);
  EXPECT_NE(system->buildProvider(p::StorageIRI(u"s3://other/")), provider);
  EXPECT_THROW(system->buildProvider(p::StorageIRI(u"s3:///no-bucket")), p::Exception);
}

namespace {

/// Expects `act` to fail as IOError whose message names `request` and `location`.
void expectUnreadableAnswer(std::function<void()> const& act, std::string const& request,
                            p::StorageIRI const& location) {
  auto check = [&](p::ErrorCode code, std::string const& what) {
    EXPECT_EQ(code, p::ErrorCode::IOError) << what;
    EXPECT_NE(what.find("the answer to " + request), std::string::npos) << what;
    EXPECT_NE(what.find(location.toIRI()), std::string::npos) << what;
  };
  try {
    act();
    ADD_FAILURE() << "an unreadable answer to " << request << " passed";
  } catch (p::Exception const& e) {
    check(e.getErrorCode(), e.what());
  } catch (p::ByteStreamFailure const& e) {
    check(e.getErrorCode(), e.what());
  }
}

} // namespace

// An answer that is not the document its request asks for (garbage, or some proxy's own
// page) fails the call as IOError naming the request and the location: it never passes
// for an empty answer, and never escapes as another kind of exception.
TEST_F(S3ProviderTest, UnreadableAnswersFailNamingTheRequest) {
  using Fault = testsupport::FaultProxy::Fault;
  item(u"d").createFolder();
  writeFile(item(u"d/kept.txt"), "kept");
  auto const key = [](p::StorageItem const& of) {
    auto const path = fl::i18n::to_utf8(of.getLocation().getPath());
    return path.substr(1);
  };
  struct Case {
    Fault fault;
    std::string requestLineHolds;
    std::string request;
    p::StorageIRI location;
    std::function<void(p::StorageItem const& folder)> act;
  };
  std::vector<Case> const cases{
      {Fault::Garbage, "list-type=2", "GET /?list-type=2", item(u"d").getLocation(),
       [](p::StorageItem const& folder) { folder.listAll(u""); }},
      {Fault::ForeignDocument, "list-type=2", "GET /?list-type=2", item(u"d").getLocation(),
       [](p::StorageItem const& folder) { folder.listAllRecursive(u""); }},
      {Fault::Garbage, "?uploads=", "POST /" + key(item(u"d/big.bin")) + "?uploads", item(u"d/big.bin").getLocation(),
       [](p::StorageItem const& folder) {
         std::string const bytes((5u << 20) + 1, 'b');
         p::StorageItem(folder, u"big.bin")
             .openTransactionalStream(replaceAll)
             ->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
       }},
      {Fault::ForeignDocument, "?delete=", "POST /?delete", item(u"d").getLocation(),
       [](p::StorageItem const& folder) { folder.removeFolderRecursively(); }},
  };
  for (auto const& c : cases) {
    SCOPED_TRACE(c.request);
    testsupport::FaultProxy proxy(portOf(testsupport::s3::S3Settings::fromEnvironment().endpoint), c.fault, 100,
                                  c.requestLineHolds);
    auto settings = testsupport::s3::S3Settings::fromEnvironment();
    settings.endpoint = "http://127.0.0.1:" + std::to_string(proxy.port());
    settings.partSize = 5u << 20;
    auto const throughProxy = testsupport::makeS3Provider(settings);
    expectUnreadableAnswer([&] { c.act(p::StorageItem(throughProxy, item(u"d").getLocation())); }, c.request,
                           c.location);
  }
  // None of those requests reached the store: everything is as it was.
  EXPECT_EQ(readFile(item(u"d/kept.txt")), "kept");
  EXPECT_FALSE(item(u"d/big.bin").fileExists());
}

// A copy that must not replace claims its destination, then copies over the claim. When
// the copy fails after that (here: the source changes or vanishes once the copy started,
// from its first progress report), no empty object is left posing as the copy, and a
// changed source is not mistaken for a destination in the way.
TEST_F(S3ProviderTest, CopiesThatFailAfterClaimingLeaveNoDestination) {
  for (auto policy : {p::ReplacementPolicy::FailIfExists, p::ReplacementPolicy::KeepExisting}) {
    SCOPED_TRACE(static_cast<int>(policy));
    struct Case {
      std::u16string destination;
      std::function<void()> meddle;
      p::ErrorCode expected;
    };
    std::vector<Case> const cases{
        {u"copy-of-changed", [&] { writeFile(item(u"src.txt"), "changed"); }, p::ErrorCode::IOError},
        {u"copy-of-removed", [&] { item(u"src.txt").removeFile(); }, p::ErrorCode::ResourceNotFound}};
    for (auto const& c : cases) {
      SCOPED_TRACE(fl::i18n::to_utf8(c.destination));
      writeFile(item(u"src.txt"), "source");
      bool meddled = false;
      try {
        item(u"src.txt").copyFile(item(c.destination), {policy, [&](std::uint64_t, std::uint64_t) {
                                                          if (!std::exchange(meddled, true)) c.meddle();
                                                        }});
        ADD_FAILURE() << "the copy succeeded";
      } catch (p::Exception const& e) {
        EXPECT_EQ(e.getErrorCode(), c.expected) << e.what();
      }
      EXPECT_TRUE(meddled);
      EXPECT_EQ(item(c.destination).exists(), p::ExistsResult::NotFound);
    }
  }
}

// Only empty folders carry a marker, as other S3 tools expect: a folder loses it when the
// first item lands below, whichever way it lands, and gets it back when its last item
// goes. Dropping the marker costs one request, once per folder.
TEST_F(S3ProviderTest, OnlyEmptyFoldersHaveMarkers) {
  auto marked = [&](std::u16string const& folder) {
    return !item(folder).getExtendedAttributes().get<bool>("s3.implicitFolder", false);
  };
  item(u"a").createFolder();
  EXPECT_TRUE(marked(u"a"));
  EXPECT_FALSE(marked(u"")); // the test's folder holds "a" now
  item(u"a/b").createFolder();
  EXPECT_FALSE(marked(u"a"));
  EXPECT_TRUE(marked(u"a/b"));

  auto const first = provider_->requestCount();
  writeFile(item(u"a/b/1.txt"), "1");
  auto const second = provider_->requestCount();
  writeFile(item(u"a/b/2.txt"), "2");
  EXPECT_EQ(second - first, provider_->requestCount() - second + 1);
  EXPECT_FALSE(marked(u"a/b"));

  item(u"c/d/e").createFolderRecursive();
  EXPECT_FALSE(marked(u"c"));
  EXPECT_FALSE(marked(u"c/d"));
  EXPECT_TRUE(marked(u"c/d/e"));
  item(u"c/d/e/f.txt").createFile();
  EXPECT_FALSE(marked(u"c/d/e"));

  for (auto const* folder : {u"copied", u"moved", u"streamed", u"folder-moved"}) item(folder).createFolder();
  item(u"a/b/1.txt").copyFile(item(u"copied/1.txt"), {});
  item(u"a/b/2.txt").moveFile(item(u"moved/2.txt").getLocation(), p::ReplacementPolicy::FailIfExists);
  p::ByteStreamOpenOptions const readWrite{p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::CreateIfMissing,
                                           p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition};
  auto stream = item(u"streamed/s.txt").openTransactionalStream(readWrite);
  stream->write("s", 1);
  EXPECT_TRUE(marked(u"streamed")); // not before the commit: a discarded stream leaves the folder empty
  stream->close(p::StreamClosePolicy::Commit);
  item(u"c").moveFolder(item(u"folder-moved/c").getLocation(), p::ReplacementPolicy::FailIfExists);
  for (auto const* folder : {u"copied", u"moved", u"streamed", u"folder-moved", u"folder-moved/c", u"folder-moved/c/d"})
    EXPECT_FALSE(marked(folder)) << fl::i18n::to_utf8(folder);
  EXPECT_TRUE(item(u"folder-moved/c/d/e/f.txt").fileExists());

  item(u"a/b/1.txt").removeFile();
  EXPECT_TRUE(item(u"a/b").folderExists());
  EXPECT_TRUE(marked(u"a/b"));
}
