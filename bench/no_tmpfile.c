// Preloaded by the kills probe (local_limits_probe) to act like a file system without
// O_TMPFILE: such opens fail with EOPNOTSUPP, so writers fall back to named temporary files.
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>

int openat(int dirfd, const char* path, int flags, ...) {
  static int (*real)(int, const char*, int, ...) = 0;
  if (!real) *(void**)&real = dlsym(RTLD_NEXT, "openat"); /* POSIX's way to take a function from dlsym */
  if ((flags & O_TMPFILE) == O_TMPFILE) {
    errno = EOPNOTSUPP;
    return -1;
  }
  va_list args;
  va_start(args, flags);
  mode_t mode = (mode_t)va_arg(args, int);
  va_end(args);
  return real(dirfd, path, flags, mode);
}
