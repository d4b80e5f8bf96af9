#include "serve.hpp"

#include <spawn.h>
#include <sys/mount.h>
#include <sys/wait.h>

#include <cerrno>
#include <memory>

extern char** environ;

namespace vfs_tool::mount {

namespace {

constexpr unsigned MaxThreads = 16;

std::string escapeOption(std::string const& text) {
  // libfuse splits options at commas and unescapes backslashes.
  std::string escaped;
  for (char c : text) {
    if (c == ',' || c == '\\') escaped += '\\';
    escaped += c;
  }
  return escaped;
}

} // namespace

bool serve(MountedFolder& folder, std::string const& mountpoint, std::string const& name, bool readOnly,
           std::function<void()> const& ready) {
  std::string options = "fsname=" + escapeOption(name) + ",subtype=vfs";
  if (readOnly) options += ",ro";
  char const* arguments[] = {"vfs", "-o", options.c_str()};
  fuse_args args = FUSE_ARGS_INIT(3, const_cast<char**>(arguments));
  auto const& ops = MountedFolder::operations();
  std::unique_ptr<fuse_session, void (*)(fuse_session*)> session(fuse_session_new(&args, &ops, sizeof ops, &folder),
                                                                 fuse_session_destroy);
  fuse_opt_free_args(&args); // what parsing allocated; the session keeps its own copies
  if (!session) return false;
  if (fuse_set_signal_handlers(session.get()) != 0) return false;
  if (fuse_session_mount(session.get(), mountpoint.c_str()) != 0) {
    fuse_remove_signal_handlers(session.get());
    return false;
  }
  ready();
  std::unique_ptr<fuse_loop_config, void (*)(fuse_loop_config*)> config(fuse_loop_cfg_create(), fuse_loop_cfg_destroy);
  fuse_loop_cfg_set_max_threads(config.get(), MaxThreads);
  fuse_session_loop_mt(session.get(), config.get());
  fuse_session_unmount(session.get());
  fuse_remove_signal_handlers(session.get());
  return true;
}

int unmount(std::string const& mountpoint, bool& detached) {
  detached = false;
  if (::umount2(mountpoint.c_str(), UMOUNT_NOFOLLOW) == 0) return 0;
  int const error = errno;
  if (error == EPERM) {
    // Not privileged: the setuid helper unmounts what this user mounted.
    char const* arguments[] = {"fusermount3", "-u", "-z", mountpoint.c_str(), nullptr};
    pid_t child;
    if (int failed = ::posix_spawnp(&child, "fusermount3", nullptr, nullptr, const_cast<char**>(arguments), environ))
      return failed;
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : EPERM;
  }
  if (error == EBUSY && ::umount2(mountpoint.c_str(), MNT_DETACH | UMOUNT_NOFOLLOW) == 0) {
    detached = true;
    return 0;
  }
  return error;
}

} // namespace vfs_tool::mount
