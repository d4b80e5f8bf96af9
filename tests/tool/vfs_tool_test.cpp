// The vfs tool end to end: the built binary against temporary trees, its output compared
// with what the trees hold.

#include "../support/odd_zip.hpp"
#include "../support/shell.hpp"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
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

std::set<std::string> split(std::string const& text, char separator) {
  std::set<std::string> parts;
  std::string part;
  for (char c : text) {
    if (c == separator) {
      parts.insert(part);
      part.clear();
    } else {
      part += c;
    }
  }
  EXPECT_TRUE(part.empty()) << "output does not end with its separator";
  return parts;
}

struct Result {
  int status;
  std::string out, err;
};

class VfsTool : public ::testing::Test {
protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "vfs-tool-test-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    scratch_ = pattern;
    root_ = scratch_ / "tree";
  }
  void TearDown() override { fs::remove_all(scratch_); }

  /// Runs `vfs` with already quoted `arguments` through the shell, `input` on its standard input.
  Result vfs(std::string const& arguments, std::string const& input = {}) {
    writeFile(scratch_ / "in", input);
    auto const command = quote(Tool) + " " + arguments + " <" + quote((scratch_ / "in").string()) + " >" +
                         quote((scratch_ / "out").string()) + " 2>" + quote((scratch_ / "err").string());
    int const raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, readFile(scratch_ / "out"), readFile(scratch_ / "err")};
  }

  /// A tree with the names that break careless tools.
  void makeHostileTree() {
    fs::create_directories(root_ / "with space" / "deeper");
    fs::create_directories(root_ / "Grüße ü");
    writeFile(root_ / "plain.txt", "plain\n");
    writeFile(root_ / "with space" / "a b.txt", "12345");
    writeFile(root_ / "with space" / "deeper" / "new\nline", "x");
    writeFile(root_ / "Grüße ü" / "100% #?.txt", std::string(1000, 'z'));
    writeFile(root_ / "Grüße ü" / "日本語", "");
  }

  /// Every path of the tree, as `find` would print it from `root_`.
  std::set<std::string> treePaths(bool files, bool folders) {
    std::set<std::string> paths;
    if (folders) paths.insert(root_.string());
    for (auto const& entry : fs::recursive_directory_iterator(root_)) {
      if (entry.is_directory() ? folders : files) paths.insert(entry.path().string());
    }
    return paths;
  }

  std::string iri(fs::path const& path) { return "file://" + path.string(); }

  fs::path scratch_, root_;
};

TEST_F(VfsTool, FindPrintsEveryEntryOfTheTreeSeriallyAndInParallel) {
  makeHostileTree();
  for (std::string const parallel : {"", " --parallel"}) {
    auto const all = vfs("find -0" + parallel + " " + quote(root_.string()));
    ASSERT_EQ(all.status, 0) << all.err;
    EXPECT_EQ(split(all.out, '\0'), treePaths(true, true));
    auto const files = vfs("find -0 --type f" + parallel + " " + quote(root_.string()));
    EXPECT_EQ(split(files.out, '\0'), treePaths(true, false));
    auto const folders = vfs("find -0 --type d" + parallel + " " + quote(root_.string()));
    EXPECT_EQ(split(folders.out, '\0'), treePaths(false, true));
  }
  auto const txt = vfs("find --name '*.txt' " + quote(root_.string()));
  EXPECT_EQ(split(txt.out, '\n'),
            (std::set<std::string>{(root_ / "plain.txt").string(), (root_ / "with space" / "a b.txt").string(),
                                   (root_ / "Grüße ü" / "100% #?.txt").string()}));
  // Relative paths are resolved from the current folder and printed as typed.
  auto const relative = vfs("find -0 " + quote(fs::relative(root_ / "Grüße ü").string()));
  EXPECT_EQ(split(relative.out, '\0').size(), 3u);
}

TEST_F(VfsTool, LsShowsNamesSizesAndTheWholeTree) {
  makeHostileTree();
  auto const flat = vfs("ls " + quote(root_.string()));
  ASSERT_EQ(flat.status, 0) << flat.err;
  EXPECT_EQ(flat.out, "Grüße ü\nplain.txt\nwith space\n");

  auto const longForm = vfs("ls -l " + quote((root_ / "Grüße ü").string()));
  std::istringstream lines(longForm.out);
  std::string line;
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(line.substr(0, 15), "f         1000 ");
  EXPECT_EQ(line.substr(line.size() - 12), " 100% #?.txt");
  ASSERT_TRUE(std::getline(lines, line));
  EXPECT_EQ(line.substr(0, 15), "f            0 ");

  std::set<std::string> relative;
  for (auto const& path : treePaths(true, true)) {
    if (path != root_.string()) relative.insert(fs::path(path).lexically_relative(root_).string());
  }
  auto const tree = vfs("ls -R " + quote(iri(root_)));
  EXPECT_EQ(split(tree.out, '\n').size(), relative.size() + 1) << "the name with a newline makes two lines";
  auto const pattern = vfs("ls -R --pattern '*.txt' " + quote(root_.string()));
  EXPECT_EQ(split(pattern.out, '\n'),
            (std::set<std::string>{"plain.txt", "with space/a b.txt", "Grüße ü/100% #?.txt"}));

  auto const file = vfs("stat " + quote((root_ / "with space" / "a b.txt").string()));
  EXPECT_NE(file.out.find("kind:     file\nsize:     5\n"), std::string::npos) << file.out;
}

TEST_F(VfsTool, DuAddsTheSizesOfEveryFile) {
  makeHostileTree();
  std::uintmax_t bytes = 0;
  for (auto const& entry : fs::recursive_directory_iterator(root_)) {
    if (entry.is_regular_file()) bytes += entry.file_size();
  }
  EXPECT_EQ(vfs("du " + quote(root_.string())).out, std::to_string(bytes) + "\t" + root_.string() + "\n");
  EXPECT_EQ(vfs("du --parallel " + quote(iri(root_))).out, std::to_string(bytes) + "\t" + iri(root_) + "\n");
}

TEST_F(VfsTool, PutWritesAllOfStandardInputAndCatReadsItBack) {
  fs::create_directories(root_);
  std::string bytes(300 * 1024, '\0');
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
  auto const target = root_ / "blob ü";
  ASSERT_EQ(vfs("put " + quote(target.string()), bytes).status, 0);
  EXPECT_EQ(readFile(target), bytes);
  EXPECT_EQ(vfs("cat " + quote(target.string()) + " " + quote(iri(target))).out, bytes + bytes);

  // Replacing keeps nothing of the old contents.
  ASSERT_EQ(vfs("put " + quote(target.string()), "short").status, 0);
  EXPECT_EQ(readFile(target), "short");
  // A folder in the way is refused and stays as it was.
  fs::create_directories(root_ / "folder");
  EXPECT_NE(vfs("put " + quote((root_ / "folder").string()), "x").status, 0);
  EXPECT_TRUE(fs::is_directory(root_ / "folder"));
  // cat goes on after a file it cannot read, and says so.
  auto const partly = vfs("cat " + quote((root_ / "nope").string()) + " " + quote(target.string()));
  EXPECT_EQ(partly.status, 3);
  EXPECT_EQ(partly.out, "short");
  EXPECT_EQ(partly.err, "vfs: ResourceNotFound: " + iri(root_ / "nope") + "\n");
}

TEST_F(VfsTool, CopyMoveRemoveAndMkdirChangeTheTreeAsTold) {
  makeHostileTree();
  auto const copy = scratch_ / "copy";
  ASSERT_EQ(vfs("cp -r " + quote(root_.string()) + " " + quote(copy.string())).status, 0);
  EXPECT_EQ(readFile(copy / "Grüße ü" / "100% #?.txt"), std::string(1000, 'z'));
  EXPECT_EQ(readFile(copy / "with space" / "deeper" / "new\nline"), "x");

  // A folder needs -r; an existing file is kept unless a policy says otherwise.
  auto const noR = vfs("cp " + quote(root_.string()) + " " + quote((scratch_ / "x").string()));
  EXPECT_EQ(noR.status, 6);
  EXPECT_FALSE(fs::exists(scratch_ / "x"));
  writeFile(copy / "plain.txt", "changed");
  auto const source = quote((root_ / "plain.txt").string()), target = quote((copy / "plain.txt").string());
  auto const refused = vfs("cp " + source + " " + target);
  EXPECT_EQ(refused.status, 4);
  EXPECT_EQ(refused.err, "vfs: ResourceAlreadyExists: " + iri(copy / "plain.txt") + "\n");
  EXPECT_EQ(vfs("cp --policy keep " + source + " " + target).status, 0);
  EXPECT_EQ(readFile(copy / "plain.txt"), "changed");
  EXPECT_EQ(vfs("cp --policy overwrite " + source + " " + target).status, 0);
  EXPECT_EQ(readFile(copy / "plain.txt"), "plain\n");
  EXPECT_EQ(vfs("cp --policy sideways " + source + " " + target).status, 2);

  // Into an existing folder, like cp and mv.
  fs::create_directories(scratch_ / "into");
  ASSERT_EQ(vfs("mv " + quote((copy / "with space").string()) + " " + quote((scratch_ / "into").string())).status, 0);
  EXPECT_TRUE(fs::exists(scratch_ / "into" / "with space" / "a b.txt"));
  EXPECT_FALSE(fs::exists(copy / "with space"));

  EXPECT_EQ(vfs("rm " + quote(copy.string())).status, 4) << "a folder with contents needs -r";
  EXPECT_EQ(vfs("rm -r " + quote(copy.string())).status, 0);
  EXPECT_FALSE(fs::exists(copy));

  auto const nested = scratch_ / "a" / "b c" / "d";
  EXPECT_EQ(vfs("mkdir " + quote(nested.string())).status, 3);
  EXPECT_EQ(vfs("mkdir -p " + quote(nested.string())).status, 0);
  EXPECT_EQ(vfs("mkdir -p " + quote(nested.string())).status, 0);
  EXPECT_EQ(vfs("mkdir " + quote(nested.string())).status, 4);
  EXPECT_TRUE(fs::is_directory(nested));
}

TEST_F(VfsTool, FailuresAreOneLineAndTheirStatusTellsTheirClass) {
  auto const missing = vfs("ls " + quote((scratch_ / "nope").string()));
  EXPECT_EQ(missing.status, 3);
  EXPECT_EQ(missing.err, "vfs: ResourceNotFound: " + iri(scratch_ / "nope") + "\n");
  EXPECT_EQ(missing.out, "");
  EXPECT_EQ(vfs("stat mem:///nothing/here").status, 3) << "each process has its own memory tree";
  auto const scheme = vfs("ls nosuchscheme:///x");
  EXPECT_EQ(scheme.status, 6);
  EXPECT_EQ(scheme.err.rfind("vfs: UnsupportedScheme: nosuchscheme", 0), 0u) << scheme.err;
  EXPECT_EQ(vfs("ls --no-such-option").status, 2);
  EXPECT_EQ(vfs("").status, 2) << "a command is required";
  EXPECT_EQ(vfs("find --type x .").status, 2);
  fs::create_directories(root_);
  writeFile(root_ / "file", "");
  EXPECT_EQ(vfs("mkdir -p " + quote((root_ / "file" / "below").string())).status, 4);
}

TEST_F(VfsTool, ChangesToAZipAreCommittedBeforeExitAndACommitThatFailsFailsTheCommand) {
  fs::create_directories(root_);
  // Entries the reader skips, an encrypted one and one with a wrong checksum are all kept.
  testsupport::makeOddZip(root_ / "odd.zip");
  std::string const odd = "zip:" + iri(root_ / "odd.zip") + "!/";
  auto const names = [&] { return testsupport::run("zipinfo -1 " + quote((root_ / "odd.zip").string())); };
  std::string const before = names();
  EXPECT_EQ(vfs("put " + quote(odd + "new.txt"), "new\n").status, 0);
  EXPECT_EQ(vfs("mkdir " + quote(odd + "made")).status, 0);
  EXPECT_EQ(vfs("cp " + quote(odd + "plain.txt") + " " + quote(odd + "made/copy.txt")).status, 0);
  EXPECT_EQ(vfs("rm " + quote(odd + "gone.txt")).status, 0);
  std::string expected = before;
  expected.erase(expected.find("gone.txt\n"), 9);
  EXPECT_EQ(names(), expected + "new.txt\nmade/\nmade/copy.txt\n");

  // A commit that cannot be made: the command fails with one line, the archive stays.
  testsupport::makeZipWithALostEntry(root_ / "lost.zip");
  std::string const lost = "zip:" + iri(root_ / "lost.zip") + "!/";
  std::string const lostBytes = readFile(root_ / "lost.zip");
  for (std::string const command :
       {"put " + quote(lost + "new.txt"), "mkdir " + quote(lost + "made"), "rm " + quote(lost + "kept.txt"),
        "cp " + quote(lost + "kept.txt") + " " + quote(lost + "copy.txt")}) {
    auto const failed = vfs(command, "new\n");
    EXPECT_EQ(failed.status, 8) << command;
    EXPECT_EQ(failed.err, "vfs: IOError: " + iri(root_ / "lost.zip") + "\n") << command;
    EXPECT_EQ(failed.out, "") << "reported once: " << command;
    EXPECT_EQ(readFile(root_ / "lost.zip"), lostBytes) << command;
  }

  // A zip inside a tar can never be committed: refused as it is asked for.
  writeFile(root_ / "inner.txt", "inner\n");
  testsupport::run("cd " + quote(root_.string()) + " && zip -q in.zip inner.txt && tar -cf a.tar in.zip");
  std::string const inTar = "zip:tar:" + iri(root_ / "a.tar") + "!/in.zip!/";
  EXPECT_EQ(vfs("cat " + quote(inTar + "inner.txt")).out, "inner\n");
  for (std::string const command :
       {"put " + quote(inTar + "new.txt"), "mkdir " + quote(inTar + "made"), "rm " + quote(inTar + "inner.txt"),
        "cp " + quote(inTar + "inner.txt") + " " + quote(inTar + "copy.txt")}) {
    auto const refused = vfs(command, "new\n");
    EXPECT_EQ(refused.status, 5) << command;
    EXPECT_EQ(refused.err.find('\n'), refused.err.size() - 1) << refused.err;
    EXPECT_EQ(refused.err.rfind("vfs: ReadOnlyProvider: ", 0), 0u) << refused.err;
  }
}

TEST_F(VfsTool, ArchiveEntriesCatByteExactWithWarningsOnStandardErrorAndFailuresByClass) {
  // An archive whose reading warns (an entry that climbs out is skipped), one with an
  // encrypted entry, and one whose stored data no longer matches its CRC.
  std::string data;
  for (int i = 0; i < 100000; ++i) data += static_cast<char>(i * 7);
  fs::create_directories(scratch_ / "src");
  writeFile(scratch_ / "src" / "data.bin", data);
  writeFile(scratch_ / "src" / "plain.txt", std::string(1000, 'p'));
  auto const src = quote((scratch_ / "src").string());
  auto const make = "cd " + src + " && python3 -c " +
                    quote("import zipfile; z = zipfile.ZipFile('../w.zip', 'w'); z.write('data.bin'); "
                          "z.writestr('../evil.txt', 'evil'); z.close()") +
                    " && zip -q -P pw ../e.zip plain.txt && zip -q0 ../c.zip plain.txt";
  ASSERT_EQ(std::system(make.c_str()), 0);
  std::string bytes = readFile(scratch_ / "c.zip");
  bytes[bytes.find("pppp")] = 'q';
  writeFile(scratch_ / "c.zip", bytes);

  auto const cat = vfs("cat " + quote("zip:" + iri(scratch_ / "w.zip") + "!/data.bin"));
  EXPECT_EQ(cat.status, 0) << cat.err;
  EXPECT_TRUE(cat.out == data) << "standard output holds " << cat.out.size() << " bytes, not " << data.size();
  EXPECT_NE(cat.err.find("warning"), std::string::npos) << cat.err;
  EXPECT_NE(cat.err.find("../evil.txt"), std::string::npos) << cat.err;

  auto const encrypted = vfs("cat " + quote("zip:" + iri(scratch_ / "e.zip") + "!/plain.txt"));
  EXPECT_EQ(encrypted.status, 6);
  EXPECT_EQ(encrypted.err.rfind("vfs: UnsupportedOperation (", 0), 0u) << encrypted.err;
  EXPECT_NE(encrypted.err.find("password"), std::string::npos) << encrypted.err;
  auto const damaged = vfs("cat " + quote("zip:" + iri(scratch_ / "c.zip") + "!/plain.txt"));
  EXPECT_EQ(damaged.status, 8);
  EXPECT_EQ(damaged.err.rfind("vfs: IOError (", 0), 0u) << damaged.err;
  EXPECT_NE(damaged.err.find("CRC"), std::string::npos) << damaged.err;
}

TEST_F(VfsTool, HelpForTheToolAndEveryCommand) {
  auto const help = vfs("--help");
  EXPECT_EQ(help.status, 0);
  EXPECT_NE(help.out.find("Exit status:"), std::string::npos);
  for (auto const* command : {"ls", "find", "du", "stat", "cat", "put", "cp", "mv", "rm", "mkdir", "watch"}) {
    EXPECT_NE(help.out.find(std::string("  ") + command), std::string::npos) << command;
    auto const own = vfs(std::string(command) + " --help");
    EXPECT_EQ(own.status, 0) << command;
    EXPECT_NE(own.out.find("Usage:"), std::string::npos) << command;
  }
  auto const version = vfs("--version");
  EXPECT_EQ(version.status, 0);
  EXPECT_EQ(version.out.rfind("vfs ", 0), 0u);
}

TEST_F(VfsTool, AClosedPipeEndsTheOutputQuietly) {
  fs::create_directories(root_);
  writeFile(root_ / "big", std::string(4 << 20, 'b'));
  for (int i = 0; i < 3000; ++i)
    writeFile(root_ / ("a rather long file name to fill the pipe " + std::to_string(i)), "");
  for (std::string const& command :
       {"cat " + quote((root_ / "big").string()), "find " + quote(root_.string()), "ls -l " + quote(root_.string())}) {
    auto const line = "bash -c " + quote(quote(Tool) + " " + command + " 2>" + quote((scratch_ / "err").string()) +
                                         " | head -c 10 >/dev/null; exit ${PIPESTATUS[0]}");
    int const raw = std::system(line.c_str());
    EXPECT_EQ(WEXITSTATUS(raw), 141) << command;
    EXPECT_EQ(readFile(scratch_ / "err"), "") << command;
  }
}

TEST_F(VfsTool, PutOfALargeFileIntoAZipKeepsMemoryBounded) {
#if defined(__SANITIZE_ADDRESS__)
  GTEST_SKIP() << "memory figures under AddressSanitizer say nothing about the tool";
#endif
  constexpr std::size_t Mebibyte = 1 << 20, Size = 256 * Mebibyte;
  fs::create_directories(root_);
  {
    std::string chunk; // compresses fast: the test is about memory, not about deflate
    while (chunk.size() < Mebibyte) chunk += "a line of text that repeats itself over and over\n";
    chunk.resize(Mebibyte);
    std::ofstream input(root_ / "large", std::ios::binary);
    for (std::size_t done = 0; done < Size; done += Mebibyte)
      input.write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
  }
  ASSERT_EQ(vfs("mkdir " + quote("zip:" + iri(root_ / "large.zip") + "!/")).status, 0); // an empty archive
  std::string const target = "zip:" + iri(root_ / "large.zip") + "!/large.bin";
  std::string const script = "exec " + quote(Tool) + " put " + quote(target) + " <" + quote((root_ / "large").string());
  char const* argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ), 0);
  int status = 0;
  struct rusage usage {};
  ASSERT_EQ(::wait4(pid, &status, 0, &usage), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_LT(static_cast<std::size_t>(usage.ru_maxrss) * 1024, 64 * Mebibyte) << "peak resident set of vfs put";
  EXPECT_EQ(testsupport::run("unzip -p " + quote((root_ / "large.zip").string()) + " | cmp - " +
                             quote((root_ / "large").string()) + " && echo same"),
            "same\n");
}

/// Polls `condition` every few milliseconds for at most ten seconds.
template <class Condition>
bool eventually(Condition condition) {
  auto const deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

TEST_F(VfsTool, WatchPrintsChangesUntilItIsAskedToEnd) {
  fs::create_directories(root_ / "sub");
  for (std::string const mode : {"-r", "--poll=20"}) {
    auto const out = (scratch_ / ("watch" + mode + ".out")).string(),
               err = (scratch_ / ("watch" + mode + ".err")).string();
    std::string const script =
        "exec " + quote(Tool) + " watch " + mode + " " + quote(root_.string()) + " >" + quote(out) + " 2>" + quote(err);
    char const* argv[] = {"/bin/sh", "-c", script.c_str(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ), 0);
    ASSERT_TRUE(eventually([&] { return readFile(err).find("watching") != std::string::npos; })) << mode;
    // A poll compares with a listing it takes after starting: write fresh files until one
    // is reported.
    auto const folder = mode == "-r" ? root_ / "sub" : root_;
    int written = 0;
    EXPECT_TRUE(eventually([&] {
      writeFile(folder / ("new ü " + std::to_string(written++)), "hello");
      return readFile(out).find("Created\tfile\t" + (folder / "new ü ").string()) != std::string::npos;
    })) << mode
        << ": " << readFile(out);
    ::kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << mode << " " << status;
  }
}

} // namespace
