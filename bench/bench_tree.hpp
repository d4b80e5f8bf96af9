#pragma once

// The trees the benchmarks walk, copy and remove, generated once and kept, and the fastest
// walk a program can make of them (the reference the library is measured against).
//
// This disk creates files slowly right after deleting many, so nothing here deletes and
// re-creates a tree.

#include <benchmark/benchmark.h>

#include <cstddef>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <vector>

namespace benchtree {

namespace fs = std::filesystem;

/// $VFS_BENCH_DIR, default /tmp/vfs-bench.
inline fs::path benchRoot() {
  char const* dir = std::getenv("VFS_BENCH_DIR");
  return fs::path(dir ? dir : "/tmp/vfs-bench");
}

/// `folders` folders d<i> nested up to depth 8 (d<i> lies in d<i/8> for i >= 8), each with
/// 20 small files, under benchRoot()/name.
inline fs::path makeTree(std::string const& name, int folders) {
  constexpr int filesPerFolder = 20;
  fs::path root = benchRoot() / name;
  if (fs::exists(root / ".complete")) return root;
  fs::remove_all(root);
  std::vector<fs::path> paths(static_cast<std::size_t>(folders));
  for (int i = 0; i < folders; ++i) {
    paths[i] = (i < 8 ? root : paths[i / 8]) / ("d" + std::to_string(i));
    fs::create_directories(paths[i]);
    for (int f = 0; f < filesPerFolder; ++f)
      std::ofstream(paths[i] / ("file" + std::to_string(f) + ".txt")) << std::string(f * 10, 'x');
  }
  std::ofstream(root / ".complete") << "done";
  return root;
}

/// 200,000 files in 10,000 folders.
inline fs::path const& tree() {
  static fs::path const root = makeTree("tree", 10000);
  return root;
}

struct Dirent64 {
  ino64_t ino;
  off64_t off;
  unsigned short reclen;
  unsigned char type;
};

/// Reads one folder with getdents64 into a buffer and calls `onName(name, isFolder)` for every
/// entry but "." and "..", the kind from d_type. Returns the number of entries.
template <class OnName>
std::size_t readFolder(int dirfd, OnName&& onName) {
  alignas(Dirent64) char buffer[64 * 1024];
  std::size_t count = 0;
  for (long got; (got = ::syscall(SYS_getdents64, dirfd, buffer, sizeof buffer)) > 0;) {
    for (long offset = 0; offset < got;) {
      auto const* entry = reinterpret_cast<Dirent64 const*>(buffer + offset);
      offset += entry->reclen;
      char const* name = reinterpret_cast<char const*>(entry) + offsetof(Dirent64, type) + 1;
      if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) continue;
      ++count;
      onName(name, entry->type == DT_DIR);
    }
  }
  return count;
}

/// The fastest a walk can be: readFolder, openat descent. Calls `onEntry(dirfd, name,
/// isFolder)` for every entry.
template <class OnEntry>
std::size_t bareWalk(int dirfd, OnEntry&& onEntry) {
  std::size_t below = 0;
  std::size_t const here = readFolder(dirfd, [&](char const* name, bool isFolder) {
    onEntry(dirfd, name, isFolder);
    if (!isFolder) return;
    int sub = ::openat(dirfd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    below += bareWalk(sub, onEntry);
    ::close(sub);
  });
  return here + below;
}

/// `bareWalk` of the tree at `root`.
template <class OnEntry>
std::size_t bareWalk(fs::path const& root, OnEntry&& onEntry) {
  int fd = ::open(root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::size_t const entries = bareWalk(fd, onEntry);
  ::close(fd);
  return entries;
}

/// The size of an entry, as a walk that sums sizes asks for it.
inline void statEntry(int dirfd, char const* name, bool) {
  struct stat st {};
  ::fstatat(dirfd, name, &st, AT_SYMLINK_NOFOLLOW);
  benchmark::DoNotOptimize(st.st_size);
}

inline void nameOnly(int, char const*, bool) {}

inline void reportEntries(benchmark::State& state, std::size_t entries) {
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * entries));
  state.counters["entries"] = static_cast<double>(entries);
}

/// The body of a benchmark of `bareWalk` over the 200,000-file tree.
template <class OnEntry>
void benchmarkBareWalk(benchmark::State& state, OnEntry&& onEntry) {
  tree();
  std::size_t entries = 0;
  for (auto _ : state) entries = bareWalk(tree(), onEntry);
  reportEntries(state, entries);
}

} // namespace benchtree
