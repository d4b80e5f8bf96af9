#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/types.hpp>

namespace foundation::storage::vfs {

/// The standard open-mode bits that decide the provider options (`app`, `in`, `out`,
/// `trunc`); `ate` and `binary` never do.
inline constexpr unsigned int OpenModeMask = 0x39;

/// The mode ANDed with `OpenModeMask`.
FOUNDATION_API unsigned int applyMask(unsigned int const& mode);
/// `app` and `in`+`app` (masked) gain `out`; every other mode is returned unchanged.
FOUNDATION_API unsigned int canonicalizeOpenMode(unsigned int const& mode);
/// `in` without `out`.
FOUNDATION_API bool doIsReadOnly(unsigned int const& mode);
FOUNDATION_API bool doIncludesAtEnd(unsigned int const& mode);
FOUNDATION_API bool doIncludesBinary(unsigned int const& mode);
/// `out` gives WriteOnly, `in`+`out` ReadWrite; anything else is a misuse (runtime_error
/// "toByteStreamAccess called with bad openmode").
FOUNDATION_API provider::ByteStreamAccess toByteStreamAccess(unsigned int const& mode);
/// Plain `out` and `in`+`out` require an existing file; with `app` or `trunc` (not both)
/// a missing file is created; anything else is a misuse (runtime_error
/// "toByteStreamCreate called with bad openmode").
FOUNDATION_API provider::ByteStreamCreate toByteStreamCreate(unsigned int const& mode);
FOUNDATION_API provider::ByteStreamTruncate toByteStreamTruncate(unsigned int const& mode);
FOUNDATION_API provider::ByteStreamAppend toByteStreamAppend(unsigned int const& mode);
/// The four options of a mode as given (not canonicalised); access is checked first.
FOUNDATION_API provider::ByteStreamOpenOptions doToByteStreamOpenOptions(unsigned int const& mode);

/// A standard open mode (`std::ios_base::openmode` as `unsigned int`), canonicalised once,
/// with the questions the file streams ask before opening.
class FOUNDATION_API OpenMode {
public:
  explicit OpenMode(unsigned int const& mode);

  bool isReadOnly() const;
  bool includesAtEnd() const { return atEnd_; }
  bool includesBinary() const { return binary_; }
  provider::ByteStreamOpenOptions toByteStreamOpenOptions() const;
  /// The canonical mode, `ate`, `binary` and any other bits kept.
  unsigned int getOpenMode() const { return mode_; }

private:
  unsigned int mode_;
  bool atEnd_;
  bool binary_;
};

} // namespace foundation::storage::vfs
