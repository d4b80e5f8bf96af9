#pragma once

#include <foundation/core/visibility.hpp>

#include <vfs/file.hpp>

#include <cstddef>
#include <cstdio>
#include <memory>

namespace foundation::storage::vfs {

/// The C standard I/O calls on one open file, over a library `File` (`openPosixFile`) or
/// over a C `FILE*` (`adaptPosixFile`), so that code written against stdio runs on either.
/// Apart from the documented `std::logic_error`s nothing throws: failures become the error
/// indicator (`ferror`), a return value or `errno`, as with stdio.
class FOUNDATION_API PosixFILE {
public:
  /// The adapted C stream, or null for a library file.
  virtual std::FILE* rawFile() const = 0;
  /// Hands the adapted C stream to the caller, who then closes it.
  virtual std::FILE* release() = 0;
  virtual ~PosixFILE();

  virtual void clearerr() = 0;
  /// 0, or the errno value of the failure.
  virtual int fclose() = 0;
  virtual bool feof() const = 0;
  /// 0, or the errno value of the last failure.
  virtual int ferror() const = 0;
  virtual int fflush() = 0;
  virtual std::size_t fread(void* ptr, std::size_t size, std::size_t count) = 0;
  /// `whence` is SEEK_SET, SEEK_CUR or SEEK_END; any other value gives ESPIPE.
  virtual int fseek(long offset, int whence) = 0;
  virtual long ftell() = 0;
  virtual std::size_t fwrite(void const* ptr, std::size_t size, std::size_t count) = 0;
  virtual void rewind() = 0;

protected:
  PosixFILE() = default;
  PosixFILE(PosixFILE const&) = default;
  PosixFILE& operator=(PosixFILE const&) = default;
};

/// Opens `file` with a stdio mode: "r", "w", "a", "r+", "w+" or "a+", with any number of
/// `b` anywhere (text and binary are the same). Another mode is `std::logic_error`
/// "Invalid open mode"; open failures are the library's exceptions. Reads and writes go
/// through a 128 KiB buffer.
FOUNDATION_API std::unique_ptr<PosixFILE> openPosixFile(File file, char const* mode);

/// Wraps a C stream (null for null). `fclose` closes it only when `ownsFile`; destroying
/// the wrapper never does.
FOUNDATION_API std::unique_ptr<PosixFILE> adaptPosixFile(std::FILE* file, bool ownsFile);

} // namespace foundation::storage::vfs
