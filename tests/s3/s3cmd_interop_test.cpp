// Objects, folders and modification times written by the provider are what s3cmd (a
// client from Debian) reads, and the reverse.

#include "../support/item_io.hpp"
#include "../support/s3_endpoint.hpp"
#include "../support/temporary_folder.hpp"

#include <foundation/storage/systems/standard_storage_system.hpp>
#include <vfs/folder.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <set>
#include <sstream>
#include <sys/time.h>

namespace p = foundation::storage::provider;
using testsupport::readFile;
using testsupport::writeFile;

namespace {

class S3cmdInterop : public ::testing::Test {
protected:
  void SetUp() override {
    SKIP_WITHOUT_S3();
    if (std::system("command -v s3cmd >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "s3cmd is not installed (scripts/install-deps.sh installs it)";
    auto const settings = testsupport::s3::S3Settings::fromEnvironment();
    std::string const host = settings.endpoint.substr(settings.endpoint.find("://") + 3);
    config_ = (scratch_.path() / "s3cmd.cfg").string();
    std::ofstream(config_) << "[default]\naccess_key = " << settings.accessKeyId
                           << "\nsecret_key = " << settings.secretAccessKey << "\nhost_base = " << host
                           << "\nhost_bucket = " << host
                           << "\nuse_https = False\nsignature_v2 = False\nbucket_location = " << settings.region
                           << "\n";
    provider_ = testsupport::makeS3Provider();
    folder_ = testsupport::uniqueS3FolderName(u"interop");
    root_ = p::StorageIRI(u"s3://" + testsupport::s3TestBucket + u"/" + folder_);
    provider_->createFolder(root_);
  }
  void TearDown() override {
    if (provider_) provider_->removeFolderRecursively(root_);
  }

  p::StorageItem item(std::u16string const& relative) const {
    return p::StorageItem(p::StorageItem(provider_, root_), relative);
  }
  std::string url(std::string const& relative) const {
    return "s3://" + fl::i18n::to_utf8(testsupport::s3TestBucket) + "/" + fl::i18n::to_utf8(folder_) + "/" + relative;
  }

  /// s3cmd's output; the test fails when s3cmd does.
  std::string s3cmd(std::string const& arguments) const {
    std::string output;
    std::string const command = "s3cmd --no-progress -c '" + config_ + "' " + arguments + " 2>&1";
    FILE* pipe = ::popen(command.c_str(), "r");
    char buffer[4096];
    for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
    EXPECT_EQ(::pclose(pipe), 0) << command << "\n" << output;
    return output;
  }

  testsupport::TemporaryFolder scratch_{"vfs-s3cmd"};
  std::string config_;
  std::shared_ptr<testsupport::s3::S3Provider> provider_;
  std::u16string folder_;
  p::StorageIRI root_;
};

} // namespace

TEST_F(S3cmdInterop, S3cmdReadsWhatTheProviderWrites) {
  item(u"ours/empty").createFolderRecursive();
  writeFile(item(u"ours/Grüße 100%.txt"), "written by the provider");
  auto const when = boost::posix_time::time_from_string("2003-04-05 06:07:08");
  item(u"ours/Grüße 100%.txt").setLastModified(when);

  auto const listing = s3cmd("ls '" + url("ours/") + "'");
  EXPECT_NE(listing.find("DIR"), std::string::npos) << listing;
  EXPECT_NE(listing.find(url("ours/empty/")), std::string::npos) << listing;
  EXPECT_NE(listing.find(url("ours/Grüße 100%.txt")), std::string::npos) << listing;

  std::string const local = (scratch_.path() / "got.txt").string();
  s3cmd("get '" + url("ours/Grüße 100%.txt") + "' '" + local + "'");
  std::ifstream in(local);
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "written by the provider");
  auto const info = s3cmd("info '" + url("ours/Grüße 100%.txt") + "'");
  EXPECT_NE(info.find("x-amz-meta-mtime: 1049522828.000000"), std::string::npos) << info;
}

TEST_F(S3cmdInterop, TheProviderReadsWhatS3cmdWrites) {
  std::string const local = (scratch_.path() / "theirs.bin").string();
  std::string payload(3 << 20, 'x');
  for (std::size_t i = 0; i < payload.size(); i += 4093) payload[i] = static_cast<char>('a' + i % 26);
  std::ofstream(local, std::ios::binary) << payload;
  timeval const times[2] = {{1000000000, 0}, {1000000000, 0}}; // 2001-09-09 01:46:40
  ASSERT_EQ(::utimes(local.c_str(), times), 0);
  s3cmd("put --preserve '" + local + "' '" + url("theirs/deep/data.bin") + "'");

  // No markers: the folders exist through the key alone.
  EXPECT_TRUE(item(u"theirs").folderExists());
  EXPECT_TRUE(item(u"theirs/deep").folderExists());
  std::vector<std::u16string> names;
  for (auto cursor = item(u"theirs").listAllRecursiveNamesOnly(u""); cursor->hasNext();) {
    cursor->next();
    names.push_back(cursor->current().getName());
  }
  EXPECT_EQ(names, (std::vector<std::u16string>{u"deep", u"deep/data.bin"}));
  EXPECT_EQ(readFile(item(u"theirs/deep/data.bin")), payload);
  auto const attributes = item(u"theirs/deep/data.bin").getFileAttributes();
  EXPECT_EQ(attributes.getSize(), payload.size());
  EXPECT_EQ(attributes.getLastModified(), boost::posix_time::from_time_t(1000000000));

  // Removing the only file keeps the folder that held it.
  item(u"theirs/deep/data.bin").removeFile();
  EXPECT_TRUE(item(u"theirs/deep").folderExists());
  EXPECT_NE(s3cmd("ls '" + url("theirs/") + "'").find(url("theirs/deep/")), std::string::npos);
}

// A tree the library copies into the bucket is, to other tools, exactly its files: no
// marker object beside them. Only an empty folder keeps one, or it would not exist.
TEST_F(S3cmdInterop, ACopiedTreeIsItsFilesAndItsEmptyFolders) {
  namespace vfs = foundation::storage::vfs;
  auto const system = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  vfs::StorageSystemReference const reference{std::weak_ptr<vfs::StorageSystem>(system)};
  p::StorageItem const tree(system->buildProvider(p::StorageIRI(u"mem:///")), p::StorageIRI(u"mem:///tree"));
  std::vector<std::u16string> const folders{u"one", u"one/two", u"three"};
  tree.createFolder();
  for (auto const& folder : folders) p::StorageItem(tree, folder).createFolder();
  p::StorageItem(tree, u"three/empty").createFolder();
  std::set<std::string> expected{url("copy/three/empty/")};
  for (int i = 0; i < 20; ++i) {
    std::u16string const name =
        folders[i % folders.size()] + u"/file" + fl::i18n::to_ustring(std::to_string(i)) + u".txt";
    writeFile(p::StorageItem(tree, name), "file " + std::to_string(i));
    expected.insert(url("copy/" + fl::i18n::to_utf8(name)));
  }

  auto const folder = [&](std::u16string const& iri) { return vfs::Folder(vfs::AbsoluteIRI(iri), reference); };
  auto const inBucket = [&](std::u16string const& relative) { return item(relative).getLocation().toString(); };
  folder(u"mem:///tree").copyFolder(folder(inBucket(u"copy")), p::ReplacementPolicy::FailIfExists);
  // Within the bucket the copy carries folder times over too: folders without a marker
  // have none to carry.
  folder(inBucket(u"copy")).copyFolder(folder(inBucket(u"again")), p::ReplacementPolicy::FailIfExists);

  auto const listed = [&](std::string const& prefix) {
    std::set<std::string> keys;
    std::istringstream lines(s3cmd("ls --recursive '" + url(prefix) + "'"));
    for (std::string line; std::getline(lines, line);)
      if (auto const at = line.find("s3://"); at != std::string::npos) keys.insert(line.substr(at));
    return keys;
  };
  EXPECT_EQ(listed("copy/"), expected);
  std::set<std::string> expectedAgain;
  for (auto const& key : expected) expectedAgain.insert(url("again/" + key.substr(url("copy/").size())));
  EXPECT_EQ(listed("again/"), expectedAgain);

  // The folders are all there for the provider, the empty one included.
  std::size_t entries = 0;
  for (auto cursor = item(u"copy").listAllRecursiveNamesOnly(u""); cursor->hasNext(); ++entries) cursor->next();
  EXPECT_EQ(entries, 20u + 4u);
  EXPECT_TRUE(item(u"copy/three/empty").folderExists());
}
