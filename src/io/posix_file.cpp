#include <vfs/buffered_io_device.hpp>
#include <vfs/exceptions.hpp>
#include <vfs/posix_file.hpp>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <stdexcept>
#include <string>

namespace foundation::storage::vfs {

namespace {

/// The errno value of the exception in flight: an IO exception by its code, anything else
/// EIO.
int currentErrno() noexcept {
  try {
    throw;
  } catch (IOException const& failure) {
    switch (failure.getErrorCode()) {
    case ErrorCode::PermissionDenied:
    case ErrorCode::ReadOnlyProvider: return EPERM;
    case ErrorCode::FileTooLarge: return EFBIG;
    case ErrorCode::NoSpaceLeft: return ENOSPC;
    default: return EIO;
    }
  } catch (...) {
    return EIO;
  }
}

/// Runs `call`; 0 when it succeeded, else the errno value of its failure.
template <class Call>
int errnoOf(Call&& call) noexcept {
  try {
    std::forward<Call>(call)();
    return 0;
  } catch (...) {
    return currentErrno();
  }
}

/// A library file behind the stdio calls, through a buffered device.
class VfsPosixFILE final : public PosixFILE {
public:
  template <class... DeviceArguments>
  VfsPosixFILE(bool readable, bool writable, DeviceArguments&&... arguments)
      : readable_(readable), writable_(writable), device_(std::forward<DeviceArguments>(arguments)...) {}

  std::FILE* rawFile() const override { return nullptr; }
  std::FILE* release() override { throw std::logic_error("Cannot release RAW file from VFS-based PosixFILE."); }

  void clearerr() override {
    atEnd_ = false;
    error_ = 0;
  }
  int fclose() override {
    return errnoOf([&] { device_.close(); });
  }
  bool feof() const override { return atEnd_; }
  int ferror() const override { return error_; }
  int fflush() override {
    int const error = writable_ ? errnoOf([&] { device_.flush(); }) : EPERM;
    if (error == 0) return 0;
    error_ = error;
    return -1;
  }

  std::size_t fread(void* ptr, std::size_t size, std::size_t count) override {
    std::streamsize const wanted = byteCount(size, count);
    int error = readable_ ? 0 : EPERM;
    if (error == 0 && wanted < 0) error = EOVERFLOW;
    std::streamsize got = 0;
    if (error == 0)
      error = errnoOf([&] { got = std::max<std::streamsize>(device_.read(static_cast<char*>(ptr), wanted), 0); });
    if (error != 0) {
      error_ = error;
      return 0;
    }
    if (got < wanted) atEnd_ = true;
    return size == 0 ? 0 : static_cast<std::size_t>(got) / size;
  }

  int fseek(long offset, int whence) override {
    if (static_cast<unsigned int>(whence) > 2) return ESPIPE;
    if (int error = errnoOf([&] { device_.seek(offset, static_cast<std::ios_base::seekdir>(whence)); })) {
      error_ = error;
      return error;
    }
    atEnd_ = false;
    return 0;
  }

  long ftell() override {
    long position = -1;
    if (int error = errnoOf([&] { position = static_cast<long>(std::streamoff(device_.tell())); })) {
      errno = error;
      return -1;
    }
    return position;
  }

  std::size_t fwrite(void const* ptr, std::size_t size, std::size_t count) override {
    std::streamsize const total = byteCount(size, count);
    if (!writable_ || total < 0) {
      error_ = writable_ ? EOVERFLOW : EPERM;
      return 0;
    }
    auto const* bytes = static_cast<char const*>(ptr);
    std::streamsize written = 0;
    // Each call asks for the whole request: the buffered device takes all of it or throws.
    while (written < total) {
      if (int error = errnoOf([&] { written += device_.write(bytes + written, total); })) {
        error_ = error;
        break;
      }
    }
    return size == 0 ? 0 : static_cast<std::size_t>(written) / size;
  }

  void rewind() override {
    error_ = 0;
    if (int error = errnoOf([&] { device_.seek(0, std::ios_base::beg); })) {
      error_ = error;
      return;
    }
    atEnd_ = false;
  }

private:
  /// `size` × `count` bytes, or -1 when that is more than a stream can take.
  static std::streamsize byteCount(std::size_t size, std::size_t count) noexcept {
    std::size_t bytes = 0;
    if (__builtin_mul_overflow(size, count, &bytes) || bytes > static_cast<std::size_t>(PTRDIFF_MAX)) return -1;
    return static_cast<std::streamsize>(bytes);
  }

  bool readable_;
  bool writable_;
  BufferedIODevice device_;
  bool atEnd_ = false;
  int error_ = 0;
};

/// A C stream behind the same calls.
class RawPosixFILE final : public PosixFILE {
public:
  RawPosixFILE(std::FILE* file, bool ownsFile) : file_(file), ownsFile_(ownsFile) {}

  std::FILE* rawFile() const override { return file_; }
  std::FILE* release() override {
    std::FILE* file = file_;
    file_ = nullptr;
    ownsFile_ = false;
    return file;
  }
  void clearerr() override { std::clearerr(file_); }
  int fclose() override { return ownsFile_ ? std::fclose(file_) : 0; }
  bool feof() const override { return std::feof(file_) != 0; }
  int ferror() const override { return std::ferror(file_); }
  int fflush() override { return std::fflush(file_); }
  std::size_t fread(void* ptr, std::size_t size, std::size_t count) override {
    return std::fread(ptr, size, count, file_);
  }
  int fseek(long offset, int whence) override { return std::fseek(file_, offset, whence); }
  long ftell() override { return std::ftell(file_); }
  std::size_t fwrite(void const* ptr, std::size_t size, std::size_t count) override {
    return std::fwrite(ptr, size, count, file_);
  }
  void rewind() override { std::rewind(file_); }

private:
  std::FILE* file_;
  bool ownsFile_;
};

provider::ByteStreamOpenOptions options(provider::ByteStreamAccess access, provider::ByteStreamCreate create,
                                        provider::ByteStreamTruncate truncate, provider::ByteStreamAppend append) {
  return {access, create, truncate, append};
}

} // namespace

PosixFILE::~PosixFILE() = default;

std::unique_ptr<PosixFILE> openPosixFile(File file, char const* mode) {
  std::string text(mode ? mode : "");
  std::erase(text, 'b');
  if (text == "r") return std::make_unique<VfsPosixFILE>(true, false, std::move(file));
  using A = provider::ByteStreamAccess;
  using C = provider::ByteStreamCreate;
  using T = provider::ByteStreamTruncate;
  using P = provider::ByteStreamAppend;
  struct Row {
    char const* mode;
    bool readable;
    provider::ByteStreamOpenOptions options;
  };
  static Row const rows[] = {
      {"w", false, options(A::WriteOnly, C::CreateIfMissing, T::Truncate, P::AtPosition)},
      {"a", false, options(A::WriteOnly, C::CreateIfMissing, T::Keep, P::Append)},
      {"r+", true, options(A::ReadWrite, C::MustExist, T::Keep, P::AtPosition)},
      {"w+", true, options(A::ReadWrite, C::CreateIfMissing, T::Truncate, P::AtPosition)},
      {"a+", true, options(A::ReadWrite, C::CreateIfMissing, T::Keep, P::Append)},
  };
  for (Row const& row : rows)
    if (text == row.mode) return std::make_unique<VfsPosixFILE>(row.readable, true, std::move(file), row.options);
  throw std::logic_error("Invalid open mode");
}

std::unique_ptr<PosixFILE> adaptPosixFile(std::FILE* file, bool ownsFile) {
  if (!file) return nullptr;
  return std::make_unique<RawPosixFILE>(file, ownsFile);
}

} // namespace foundation::storage::vfs
