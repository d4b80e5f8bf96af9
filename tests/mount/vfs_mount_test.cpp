// `vfs mount` end to end: a memory folder and a local folder mounted through FUSE, used by
// real programs (cp, tar, git, find, du, fio) and by system calls whose errno is checked.
// Every mount is taken down in TearDown, also after a failure.

#include "../support/shell.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace {

namespace fs = std::filesystem;

std::string const Tool = VFS_TOOL_BINARY;
using testsupport::quote;
using testsupport::readFile;
using testsupport::writeFile;

bool isMountpoint(fs::path const& path) {
  struct stat at {
  }, parent{};
  if (::stat(path.c_str(), &at) != 0) return errno == ENOTCONN; // a mount whose server died
  return ::stat(path.parent_path().c_str(), &parent) == 0 && at.st_dev != parent.st_dev;
}

/// Waits (bounded) until `path` is or is no longer a mountpoint.
bool waitForMount(fs::path const& path, bool mounted) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (isMountpoint(path) != mounted) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

int errnoOf(int result) { return result == 0 ? 0 : errno; }

struct Result {
  int status;
  std::string out;
};

class MountFixture : public ::testing::Test {
protected:
  void SetUp() override {
    if (::access("/dev/fuse", R_OK | W_OK) != 0) GTEST_SKIP() << "no usable /dev/fuse: FUSE mounts cannot be made here";
    std::string pattern = (fs::temp_directory_path() / "vfs-mount-test-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    scratch_ = pattern;
    mountpoint_ = scratch_ / "mnt";
    fs::create_directories(mountpoint_);
    fs::create_directories(scratch_ / "backing");
  }

  void TearDown() override {
    if (scratch_.empty()) return;
    if (isMountpoint(mountpoint_)) {
      run(quote(Tool) + " umount " + quote(mountpoint_.string()));
      if (isMountpoint(mountpoint_)) ::umount2(mountpoint_.c_str(), MNT_DETACH);
    }
    std::error_code ignored;
    fs::remove_all(scratch_, ignored);
  }

  /// Runs a bash script with `set -euo pipefail`, M the mountpoint and S the scratch folder;
  /// the output names the command that failed.
  Result run(std::string const& script) {
    auto const file = scratch_ / "script.sh";
    writeFile(file, "set -euo pipefail\ntrap 'echo \"failed: $BASH_COMMAND\"' ERR\nM=" + quote(mountpoint_.string()) +
                        "\nS=" + quote(scratch_.string()) + "\n" + script);
    auto const command = "bash " + quote(file.string()) + " >" + quote((scratch_ / "out").string()) + " 2>&1";
    int const raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readFile(scratch_ / "out")};
  }

  void mount(std::string const& location, std::string const& options = {}) {
    auto const result = run(quote(Tool) + " mount " + options + " " + quote(location) + " \"$M\"");
    ASSERT_EQ(result.status, 0) << result.out;
    ASSERT_TRUE(isMountpoint(mountpoint_)) << "vfs mount returned before the mount was in place";
  }

  void unmount() {
    auto const result = run(quote(Tool) + " umount \"$M\"");
    ASSERT_EQ(result.status, 0) << result.out;
    ASSERT_TRUE(waitForMount(mountpoint_, false));
  }

  fs::path scratch_, mountpoint_;
};

std::string environment(char const* name) {
  char const* value = std::getenv(name);
  return value ? value : "";
}

/// Every case on a memory folder, a local folder and a folder on the SSH server that
/// `eval "$(scripts/sshd.sh start)"` runs, reached through an ssh configuration's alias.
class Mount : public MountFixture, public ::testing::WithParamInterface<std::string> {
protected:
  void SetUp() override {
    if (GetParam() == "sftp" && environment("VFS_SFTP_PORT").empty())
      GTEST_SKIP() << "no SSH server: run `eval \"$(scripts/sshd.sh start)\"`";
    MountFixture::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    if (GetParam() == "sftp") useSshServer();
    mount(location());
  }

  void TearDown() override {
    if (GetParam() == "sftp" && !scratch_.empty()) run(quote(Tool) + " rm -r " + quote(location()));
    MountFixture::TearDown();
  }

  std::string location() const {
    if (GetParam() == "mem") return "mem:///";
    if (GetParam() == "sftp") return "sftp://vfs-mount-test" + remoteFolder_;
    return (scratch_ / "backing").string();
  }

  /// Points the tool at the test server by an alias of an ssh configuration of its own, as a
  /// user with a separate ssh setup would, and makes the folder to mount there.
  void useSshServer() {
    auto const config = scratch_ / "ssh_config";
    writeFile(config, "Host vfs-mount-test\n  HostName " + environment("VFS_SFTP_HOST") + "\n  Port " +
                          environment("VFS_SFTP_PORT") + "\n  User " + environment("VFS_SFTP_USER") +
                          "\n  IdentityFile " + environment("VFS_SFTP_IDENTITY") + "\n  UserKnownHostsFile " +
                          environment("VFS_SFTP_KNOWN_HOSTS") + "\n");
    ::setenv("VFS_SSH_CONFIG", config.c_str(), 1);
    remoteFolder_ = environment("VFS_SFTP_DATA") + "/mount-" + scratch_.filename().string();
    auto const made = run(quote(Tool) + " mkdir -p " + quote(location()));
    ASSERT_EQ(made.status, 0) << made.out;
  }

  /// A tree with hostile names, an empty file and a file larger than one request.
  void makeSourceTree() {
    auto const source = scratch_ / "source";
    fs::create_directories(source / "with space" / "deeper");
    fs::create_directories(source / "Grüße ü" / "a" / "b" / "c" / "d");
    writeFile(source / "plain.txt", "plain\n");
    writeFile(source / "empty", "");
    writeFile(source / "with space" / "a b.txt", "12345");
    writeFile(source / "with space" / "deeper" / "new\nline", "x");
    writeFile(source / "Grüße ü" / "100% #?.txt", std::string(1000, 'z'));
    writeFile(source / "Grüße ü" / "a" / "b" / "c" / "d" / "日本語", "deep");
    std::mt19937 random(7);
    std::string large(3 * 1024 * 1024 + 17, '\0');
    for (auto& c : large) c = static_cast<char>(random());
    writeFile(source / "large.bin", large);
  }

  std::string remoteFolder_;
};

INSTANTIATE_TEST_SUITE_P(Folders, Mount, ::testing::Values("mem", "local", "sftp"),
                         [](auto const& info) { return info.param; });

TEST_P(Mount, CopiesAndArchivesComeBackTheSame) {
  makeSourceTree();
  auto const result = run(R"sh(
    cp -a "$S/source" "$M/copy"
    diff -r "$S/source" "$M/copy"
    [ "$(cd "$S/source" && find . | sort)" = "$(cd "$M/copy" && find . | sort)" ]
    sizes() { (cd "$1" && find . -type f -printf '%s %p\0' | sort -z | tr '\0' '\n'); }
    [ "$(sizes "$S/source")" = "$(sizes "$M/copy")" ]
    [ "$(du -sb --apparent-size "$M/copy/large.bin" | cut -f1)" = 3145745 ]
    du -s "$M/copy" >/dev/null
    [ "$(find "$M/copy" -type f -printf x | wc -c)" = 7 ]
    mkdir "$M/unpacked" "$S/back"
    tar -cf - -C "$S" source | tar -xf - -C "$M/unpacked"
    diff -r "$S/source" "$M/unpacked/source"
    tar -cf - -C "$M" copy | tar -xf - -C "$S/back"
    diff -r "$S/source" "$S/back/copy"
  )sh");
  EXPECT_EQ(result.status, 0) << result.out;
  if (GetParam() == "local") {
    EXPECT_EQ(readFile(scratch_ / "backing" / "copy" / "large.bin"), readFile(scratch_ / "source" / "large.bin"));
  }
}

TEST_P(Mount, GitCommitsAndReadsItsHistory) {
  if (run("command -v git").status != 0) GTEST_SKIP() << "git is not installed";
  auto const result = run(R"sh(
    cd "$M"
    git init -q repo && cd repo
    git config user.email test@example.org && git config user.name test
    mkdir src && echo 'int main() {}' > src/main.c && echo notes > README
    git add . && git commit -qm first
    echo more >> README && git mv src/main.c src/app.c && git commit -qam second
    [ "$(git log --format=%s | tr '\n' ' ')" = "second first " ]
    git fsck --strict 2>&1
    [ -z "$(git status --porcelain)" ]
    git checkout -q HEAD~1 && [ -f src/main.c ] && [ ! -e src/app.c ]
  )sh");
  EXPECT_EQ(result.status, 0) << result.out;
}

TEST_P(Mount, AnEditorsSaveReplacesTheFileWhole) {
  auto const result = run(R"sh(
    cd "$M"
    printf 'first version' > doc.txt
    printf 'second version' > .doc.txt.swp
    sync .doc.txt.swp
    mv .doc.txt.swp doc.txt
    [ "$(cat doc.txt)" = 'second version' ]
    [ "$(ls -A)" = doc.txt ]
    printf 'x' > other && mkdir folder && mv other folder/ && mv folder renamed
    [ "$(cat renamed/other)" = x ]
  )sh");
  EXPECT_EQ(result.status, 0) << result.out;
  // RENAME_NOREPLACE keeps what is there.
  auto const a = mountpoint_ / "a", b = mountpoint_ / "b";
  writeFile(a, "a");
  writeFile(b, "b");
  EXPECT_EQ(errnoOf(::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_NOREPLACE)), EEXIST);
  EXPECT_EQ(readFile(a), "a");
  EXPECT_EQ(readFile(b), "b");
  EXPECT_EQ(errnoOf(::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE)), EINVAL);
}

TEST_P(Mount, SeveralProcessesWriteAtOnce) {
  auto const result = run(R"sh(
    cd "$M"
    for w in 1 2 3 4; do
      ( mkdir "w$w"
        for i in $(seq 1 100); do
          echo "$w $i" >> shared.log
          echo "$w $i" >> "w$w/own.log"
          [ $((i % 4)) -ne 0 ] || echo "$i" > "w$w/file-$i"
        done ) &
    done
    wait
    [ "$(wc -l < shared.log)" = 400 ]
    for w in 1 2 3 4; do
      [ "$(grep -c "^$w " shared.log)" = 100 ]
      [ "$(seq 1 100 | sed "s/^/$w /")" = "$(cat "w$w/own.log")" ]
      [ "$(ls "w$w" | wc -l)" = 26 ]
    done
  )sh");
  EXPECT_EQ(result.status, 0) << result.out;
}

TEST_P(Mount, FioVerifiesWhatItWrote) {
  if (run("command -v fio").status != 0) GTEST_SKIP() << "fio is not installed";
  auto const result = run(R"sh(
    fio --name=verify --directory="$M" --size=8m --bs=4k --rw=randwrite --numjobs=2 \
        --verify=crc32c --verify_fatal=1 --verify_state_save=0 --ioengine=psync --output-format=terse >/dev/null
    fio --name=sequential --directory="$M" --size=8m --bs=1m --rw=write --verify=md5 --verify_fatal=1 --verify_state_save=0 \
        --output-format=terse >/dev/null
  )sh");
  EXPECT_EQ(result.status, 0) << result.out;
}

TEST_P(Mount, ProgramsSeeTheErrnoTheyExpect) {
  fs::create_directories(mountpoint_ / "full" / "inner");
  writeFile(mountpoint_ / "file", "x");
  struct stat st {};
  EXPECT_EQ(errnoOf(::stat((mountpoint_ / "missing").c_str(), &st)), ENOENT);
  EXPECT_EQ(errnoOf(::rmdir((mountpoint_ / "full").c_str())), ENOTEMPTY);
  EXPECT_EQ(errnoOf(::mkdir((mountpoint_ / "full").c_str(), 0755)), EEXIST);
  EXPECT_EQ(errnoOf(::mkdir((mountpoint_ / "missing" / "x").c_str(), 0755)), ENOENT);
  int const fd = ::open((mountpoint_ / "file").c_str(), O_WRONLY | O_CREAT | O_EXCL, 0644);
  EXPECT_EQ(fd < 0 ? errno : 0, EEXIST);
  if (fd >= 0) ::close(fd);
  fs::create_directories(mountpoint_ / "empty");
  EXPECT_EQ(errnoOf(::rename((mountpoint_ / "empty").c_str(), (mountpoint_ / "full").c_str())), ENOTEMPTY);
  EXPECT_EQ(errnoOf(::rename((mountpoint_ / "full").c_str(), (mountpoint_ / "empty").c_str())), 0)
      << "a folder replaces an empty one";
  EXPECT_TRUE(fs::exists(mountpoint_ / "empty" / "inner"));
  auto const ls = run("ls \"$M/missing\"");
  EXPECT_EQ(ls.status, 2);
  EXPECT_NE(ls.out.find("No such file or directory"), std::string::npos) << ls.out;
}

TEST_F(MountFixture, AReadOnlyMountRefusesEveryChange) {
  writeFile(scratch_ / "backing" / "kept", "kept");
  mount((scratch_ / "backing").string(), "--read-only");
  EXPECT_EQ(readFile(mountpoint_ / "kept"), "kept");
  int const fd = ::open((mountpoint_ / "new").c_str(), O_WRONLY | O_CREAT, 0644);
  EXPECT_EQ(fd < 0 ? errno : 0, EROFS);
  if (fd >= 0) ::close(fd);
  EXPECT_EQ(errnoOf(::mkdir((mountpoint_ / "d").c_str(), 0755)), EROFS);
  EXPECT_EQ(errnoOf(::unlink((mountpoint_ / "kept").c_str())), EROFS);
  EXPECT_EQ(errnoOf(::truncate((mountpoint_ / "kept").c_str(), 0)), EROFS);
  auto const shell = run("echo x > \"$M/kept\"");
  EXPECT_NE(shell.out.find("Read-only file system"), std::string::npos) << shell.out;
  EXPECT_EQ(readFile(scratch_ / "backing" / "kept"), "kept");
}

TEST_F(MountFixture, AMemoryFolderIsMadeWhereverItIsMounted) {
  mount("mem:///scratch/deeper");
  writeFile(mountpoint_ / "f", "x");
  EXPECT_EQ(readFile(mountpoint_ / "f"), "x");
  unmount();
  auto const missing = run(quote(Tool) + " mount \"$S/missing\" \"$M\"");
  EXPECT_EQ(missing.status, 3) << "a local folder must exist: " << missing.out;
}

/// A server in the foreground, to be signalled.
class MountServer : public MountFixture {
protected:
  pid_t start() {
    char const* arguments[] = {Tool.c_str(), "mount", "--foreground", "mem:///", mountpoint_.c_str(), nullptr};
    pid_t child = 0;
    EXPECT_EQ(::posix_spawn(&child, Tool.c_str(), nullptr, nullptr, const_cast<char**>(arguments), environ), 0);
    EXPECT_TRUE(waitForMount(mountpoint_, true));
    return child;
  }
  int waitFor(pid_t child) {
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return status;
  }
};

TEST_F(MountServer, InterruptedOrTerminatedItUnmountsCleanly) {
  for (int signal : {SIGINT, SIGTERM}) {
    pid_t const server = start();
    writeFile(mountpoint_ / "f", "x");
    ::kill(server, signal);
    int const status = waitFor(server);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "signal " << signal << ", status " << status;
    EXPECT_FALSE(isMountpoint(mountpoint_));
  }
}

TEST_F(MountServer, AMountWhoseServerDiedIsUnmounted) {
  pid_t const server = start();
  ::kill(server, SIGKILL);
  waitFor(server);
  struct stat st {};
  EXPECT_EQ(errnoOf(::stat((mountpoint_ / "anything").c_str(), &st)), ENOTCONN);
  unmount();
  EXPECT_EQ(errnoOf(::stat((mountpoint_ / "anything").c_str(), &st)), ENOENT) << "the empty mountpoint shows again";
  auto const again = run(quote(Tool) + " umount \"$M\"");
  EXPECT_NE(again.status, 0) << "nothing is mounted there any more";
}

} // namespace
