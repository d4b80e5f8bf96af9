// Probes limits of the local provider that unit tests cannot time or crash for:
//
//   local_limits_probe deep <folder> <depth>...   lists (recursively) and removes a chain of
//       <depth> nested folders, each depth in its own child process; prints whether each
//       step succeeded, failed with an error, or killed the process.
//   local_limits_probe kills <folder> <count>      starts <count> writers, one after the other,
//       and SIGKILLs each in the middle of a transactional write; prints the temporary files
//       left on disk, those a listing shows, and those left after a listing 6 s later.
//
// Run the kills probe with LD_PRELOAD=<libno_tmpfile.so> to see file systems without O_TMPFILE.

#include <foundation/storage/providers/local/local_provider.hpp>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace p = foundation::storage::provider;
using foundation::storage::providers::local::LocalProvider;

namespace {

p::StorageItem itemAt(std::string const& path) {
  return p::StorageItem(std::make_shared<LocalProvider>(), p::toStorageIRI(u"file", fl::filesystem::path(path)));
}

/// Runs `step` in a child; "ok", "error: <what>" or "killed by signal N".
template <class Step>
std::string inChild(Step step) {
  std::fflush(stdout);
  pid_t child = ::fork();
  if (child == 0) {
    try {
      step();
      ::_exit(0);
    } catch (std::exception const& e) {
      std::fprintf(stderr, "    %s\n", e.what());
      ::_exit(1);
    }
  }
  int status = 0;
  ::waitpid(child, &status, 0);
  if (WIFSIGNALED(status)) return "killed by signal " + std::to_string(WTERMSIG(status));
  return WEXITSTATUS(status) == 0 ? "ok" : "error";
}

void buildChain(std::string const& root, int depth) {
  ::mkdir(root.c_str(), 0755);
  int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  for (int level = 0; level < depth && fd >= 0; ++level) {
    ::mkdirat(fd, "d", 0755);
    int next = ::openat(fd, "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ::close(fd);
    fd = next;
  }
  ::close(::openat(fd, "leaf", O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
  ::close(fd);
}

int deep(std::string const& folder, int argc, char** argv) {
  for (int i = 0; i < argc; ++i) {
    int const depth = std::atoi(argv[i]);
    std::string const root = folder + "/chain-" + std::to_string(depth);
    buildChain(root, depth);
    std::string const listed = inChild([&] {
      auto cursor = itemAt(root).listAllRecursiveNamesOnly(u"leaf");
      if (!cursor->hasNext()) throw std::runtime_error("the leaf is missing from the listing");
    });
    std::string const removed = inChild([&] { itemAt(root).removeFolderRecursively(); });
    std::printf("depth %6d: listed %s, removed %s\n", depth, listed.c_str(), removed.c_str());
    if (removed != "ok") std::printf("  (the chain is left in %s)\n", root.c_str());
  }
  return 0;
}

int temporaries(std::string const& folder) {
  int count = 0;
  DIR* dir = ::opendir(folder.c_str());
  while (dirent* entry = dir ? ::readdir(dir) : nullptr)
    if (std::strncmp(entry->d_name, ".vfs-", 5) == 0) ++count;
  if (dir) ::closedir(dir);
  return count;
}

int kills(std::string const& folder, int count) {
  ::mkdir(folder.c_str(), 0755);
  std::string const chunk(1 << 20, 'x');
  for (int i = 0; i < count; ++i) {
    int ready[2];
    if (::pipe(ready) != 0) return 1;
    pid_t child = ::fork();
    if (child == 0) {
      auto stream = itemAt(folder + "/target.bin")
                        .openTransactionalStream({p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                                  p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
      stream->write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
      (void)!::write(ready[1], "w", 1);
      for (;;) stream->write(chunk.data(), static_cast<std::streamsize>(chunk.size()));
    }
    char byte;
    (void)!::read(ready[0], &byte, 1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ::close(ready[0]);
    ::close(ready[1]);
  }
  int const onDisk = temporaries(folder);
  int shown = 0;
  for (auto cursor = itemAt(folder).listAllNamesOnly(u""); cursor->hasNext();) {
    cursor->next();
    if (cursor->current().getName().starts_with(u".vfs-")) ++shown;
  }
  std::this_thread::sleep_for(std::chrono::seconds(6));
  itemAt(folder).listAllNamesOnly(u"");
  std::printf("after %d kills: %d temporary files on disk, %d in a listing, %d left after a listing 6 s later\n", count,
              onDisk, shown, temporaries(folder));
  return 0;
}

} // namespace

int main(int argc, char** argv) {
  if (argc >= 4 && std::strcmp(argv[1], "deep") == 0) return deep(argv[2], argc - 3, argv + 3);
  if (argc == 4 && std::strcmp(argv[1], "kills") == 0) return kills(argv[2], std::atoi(argv[3]));
  std::fprintf(stderr, "usage: %s deep <folder> <depth>... | kills <folder> <count>\n", argv[0]);
  return 2;
}
