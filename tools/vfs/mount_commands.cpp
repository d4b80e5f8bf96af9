// mount and umount: a folder of any provider as a directory every program can use.

#include "commands.hpp"
#include "exit_status.hpp"
#include "mount/serve.hpp"

#include <vfs/exceptions.hpp>

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iostream>

namespace vfs_tool {

namespace {

struct MountArguments {
  std::string location, mountpoint;
  bool readOnly = false, foreground = false;
  double cacheTimeout = 1.0;
};

/// Serves the mount in this process; `ready` runs once it is in place.
int serveMount(Tool& tool, MountArguments const& arguments, std::function<void()> const& ready) {
  try {
    Location const location = tool.session.resolve(arguments.location);
    vfs::Folder root(location.iri, tool.session.system());
    // A memory tree lives in the process that serves it and starts empty there: a scratch
    // folder is made wherever it is asked for.
    if (location.iri.getScheme() == u"mem") root.createFolderRecursive();
    if (!root.folderExists()) throw vfs::Exception(vfs::ErrorCode::ResourceNotFound, location.iri);
    mount::MountedFolder folder(root, {arguments.readOnly, arguments.cacheTimeout});
    auto const mountpoint = std::filesystem::absolute(arguments.mountpoint).string();
    if (!mount::serve(folder, mountpoint, location.iriText(), arguments.readOnly, ready)) {
      std::cerr << "vfs: cannot mount " << location.iriText() << " at " << mountpoint << "\n";
      return OtherFailure;
    }
    return Success;
  } catch (...) {
    return reportCurrentFailure(arguments.location);
  }
}

/// Forks before the storage system starts any thread; the caller returns once the mount is
/// in place (0) or has failed (the child's status), so scripts can use the mount at once.
int mountInBackground(Tool& tool, MountArguments const& arguments) {
  int pipe[2];
  if (::pipe2(pipe, O_CLOEXEC) != 0) throw std::system_error(errno, std::generic_category(), "pipe");
  pid_t const child = ::fork();
  if (child < 0) throw std::system_error(errno, std::generic_category(), "fork");
  if (child > 0) {
    ::close(pipe[1]);
    unsigned char status = OtherFailure;
    ssize_t got;
    while ((got = ::read(pipe[0], &status, 1)) < 0 && errno == EINTR) {
    }
    ::close(pipe[0]);
    if (got == 1 && status == Success) return Success;
    int raw = 0;
    ::waitpid(child, &raw, 0);
    return got == 1 ? static_cast<int>(status) : static_cast<int>(OtherFailure);
  }
  ::close(pipe[0]);
  ::setsid();
  auto tell = [&](unsigned char status) {
    if (pipe[1] < 0) return;
    while (::write(pipe[1], &status, 1) < 0 && errno == EINTR) {
    }
    ::close(pipe[1]);
    pipe[1] = -1;
  };
  int const status = serveMount(tool, arguments, [&] {
    tell(Success);
    // Detached from the terminal that started it, like any daemon.
    int const null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) ::dup2(null, fd);
    ::close(null);
    [[maybe_unused]] int const ignored = ::chdir("/");
  });
  tell(static_cast<unsigned char>(status));
  return status;
}

int umount(std::string const& mountpoint) {
  bool detached = false;
  auto const path = std::filesystem::absolute(mountpoint).lexically_normal().string();
  if (int const error = mount::unmount(path, detached)) {
    std::cerr << "vfs: " << std::strerror(error) << ": " << path << "\n";
    return error == EINVAL || error == ENOENT ? BadLocation : NotPermitted;
  }
  if (detached) std::cerr << "vfs: " << path << " is busy: detached; it goes once no program uses it\n";
  return Success;
}

} // namespace

void addMountCommands(CLI::App& app, Tool& tool) {
  auto arguments = std::make_shared<MountArguments>();
  auto* mount =
      app.add_subcommand("mount", "Mount a folder of any scheme as a directory (FUSE); returns once the mount "
                                  "is ready and serves it in the background until unmounted");
  mount->add_option("location", arguments->location, "Folder to mount")->required();
  mount->add_option("mountpoint", arguments->mountpoint, "Empty directory to mount it on")->required();
  mount->add_flag("--read-only", arguments->readOnly, "Refuse every change with EROFS");
  mount->add_flag("-f,--foreground", arguments->foreground, "Serve in this process until unmounted or interrupted");
  mount
      ->add_option("--cache-timeout", arguments->cacheTimeout,
                   "Seconds the kernel may trust names and attributes; 0 for changes made beside the mount")
      ->default_val(1.0)
      ->check(CLI::Range(0.0, 3600.0));
  mount->callback([&tool, arguments] {
    tool.status = arguments->foreground ? serveMount(tool, *arguments, [] {}) : mountInBackground(tool, *arguments);
  });

  auto mountpoint = std::make_shared<std::string>();
  auto* umount = app.add_subcommand("umount", "Unmount a mount made by vfs mount, also one whose process died");
  umount->add_option("mountpoint", *mountpoint, "Where it is mounted")->required();
  umount->callback([&tool, mountpoint] { tool.status = vfs_tool::umount(*mountpoint); });
}

} // namespace vfs_tool
