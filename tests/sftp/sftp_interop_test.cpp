// Files the provider writes are what OpenSSH's `sftp` and `scp` clients read back, byte for
// byte, and the reverse; the clients run in batch mode against the test server.

#include "../support/item_io.hpp"
#include "../support/sftp_server.hpp"
#include "../support/shell.hpp"
#include "../support/temporary_folder.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <random>

namespace p = foundation::storage::provider;
using testsupport::readFile;

namespace {

/// Every byte value, then random bytes: more than one SFTP request's worth.
std::string awkwardBytes(std::size_t size) {
  std::string bytes;
  for (int c = 0; c < 256; ++c) bytes += static_cast<char>(c);
  std::mt19937 random(42);
  while (bytes.size() < size) bytes += static_cast<char>(random());
  return bytes;
}

class SftpClientInterop : public ::testing::Test {
protected:
  void SetUp() override {
    SKIP_WITHOUT_SFTP();
    if (std::system("command -v sftp >/dev/null 2>&1") != 0)
      GTEST_SKIP() << "the sftp client is not installed (scripts/install-deps.sh installs openssh-client)";
    provider_ = testsupport::makeSftpProvider();
    folder_ = testsupport::uniqueSftpFolder("interop");
    provider_->createFolder(folder_.iri);
  }

  void TearDown() override {
    if (provider_) provider_->removeFolderRecursively(folder_.iri);
  }

  p::StorageItem item(std::u16string const& name) const { return {provider_, p::StorageIRI(folder_.iri, name)}; }

  /// Runs the batch `commands` with the client; its exit status.
  int client(std::string const& commands) const {
    auto batch = scratch_.path() / "batch";
    testsupport::writeFile(batch, commands);
    auto command = "sftp -b " + testsupport::quote(batch.string()) + " " + testsupport::sftpClientOptions() + " >" +
                   testsupport::quote((scratch_.path() / "client.log").string()) + " 2>&1";
    return std::system(command.c_str());
  }

  /// Runs `scp -r` from `from` to `to` (either may be "login:path"); its exit status.
  int scp(std::string const& from, std::string const& to) const {
    auto command = "scp -r -q " + testsupport::sshClientOptions() + " " + testsupport::quote(from) + " " +
                   testsupport::quote(to) + " >" + testsupport::quote((scratch_.path() / "client.log").string()) +
                   " 2>&1";
    return std::system(command.c_str());
  }

  std::string clientLog() const { return testsupport::readFile(scratch_.path() / "client.log"); }

  testsupport::TemporaryFolder scratch_{"vfs-sftp-interop"};
  std::shared_ptr<testsupport::sftp::SftpProvider> provider_;
  testsupport::SftpFolder folder_;
};

TEST_F(SftpClientInterop, TheClientReadsWhatWeWriteByteForByte) {
  auto const bytes = awkwardBytes(300 * 1024);
  auto stream = item(u"ours.bin").openTransactionalStream({});
  stream->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  stream->close();
  testsupport::writeFile(item(u"plain name.txt"), "written in place");

  auto local = scratch_.path() / "fetched.bin";
  ASSERT_EQ(client("get " + folder_.path + "/ours.bin " + local.string() + "\nget \"" + folder_.path +
                   "/plain name.txt\" " + (scratch_.path() / "plain.txt").string() + "\n"),
            0)
      << clientLog();
  EXPECT_EQ(testsupport::readFile(local), bytes);
  EXPECT_EQ(testsupport::readFile(scratch_.path() / "plain.txt"), "written in place");
}

TEST_F(SftpClientInterop, WeReadWhatTheClientWritesByteForByte) {
  auto const bytes = awkwardBytes(200 * 1024 + 17);
  auto local = scratch_.path() / "theirs.bin";
  testsupport::writeFile(local, bytes);
  ASSERT_EQ(
      client("mkdir " + folder_.path + "/made\nput " + local.string() + " " + folder_.path + "/made/theirs.bin\n"), 0)
      << clientLog();

  EXPECT_TRUE(item(u"made").folderExists());
  EXPECT_EQ(item(u"made/theirs.bin").getFileAttributes().getSize(), bytes.size());
  EXPECT_EQ(readFile(item(u"made/theirs.bin")), bytes);
  auto stream = item(u"made/theirs.bin").openReadOnlyStream();
  stream->seek(-17, std::ios_base::end);
  EXPECT_EQ(testsupport::readAll(*stream), bytes.substr(bytes.size() - 17));
}

TEST_F(SftpClientInterop, ScpCopiesTreesWeWriteAndWeReadTreesItWrites) {
  auto const bytes = awkwardBytes(150 * 1024 + 3);
  provider_->createFolder(item(u"tree").getLocation());
  provider_->createFolder(item(u"tree/inner folder").getLocation());
  testsupport::writeFile(item(u"tree/data.bin"), bytes);
  testsupport::writeFile(item(u"tree/inner folder/note.txt"), "inside");
  testsupport::writeFile(item(u"tree/inner folder/empty"), "");

  auto fetched = scratch_.path() / "fetched";
  ASSERT_EQ(scp(testsupport::sftpLogin() + ":" + folder_.path + "/tree", fetched.string()), 0) << clientLog();
  EXPECT_EQ(testsupport::readFile(fetched / "data.bin"), bytes);
  EXPECT_EQ(testsupport::readFile(fetched / "inner folder" / "note.txt"), "inside");
  EXPECT_EQ(std::filesystem::file_size(fetched / "inner folder" / "empty"), 0u);

  testsupport::writeFile(fetched / "inner folder" / "added.txt", "theirs");
  ASSERT_EQ(scp(fetched.string(), testsupport::sftpLogin() + ":" + folder_.path + "/uploaded"), 0) << clientLog();
  EXPECT_EQ(readFile(item(u"uploaded/data.bin")), bytes);
  EXPECT_EQ(readFile(item(u"uploaded/inner folder/added.txt")), "theirs");
  EXPECT_EQ(item(u"uploaded/inner folder/empty").getFileAttributes().getSize(), 0u);
  auto listing = provider_->listAllRecursive(item(u"uploaded").getLocation(), u"*");
  std::size_t entries = 0;
  while (listing->hasNext()) {
    listing->next();
    ++entries;
  }
  EXPECT_EQ(entries, 5u); // data.bin, inner folder and its three files
}

} // namespace
