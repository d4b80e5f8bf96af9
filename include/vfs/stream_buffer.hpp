#pragma once

// What the buffered layers of the library share: the buffer size, the exported line-ending
// constants and the opaque handle of a stream buffer.

#include <foundation/core/visibility.hpp>

#include <ios>
#include <memory>

namespace foundation::storage::vfs {

/// The one buffer of every buffered device and file stream: 128 KiB.
inline constexpr std::streamsize StreamBufferSize = 131072;

namespace detail {

/// Line-ending bytes, for callers: no device or stream translates line endings.
namespace LineEndings {
FOUNDATION_API extern char const CR;
FOUNDATION_API extern char const LF;
} // namespace LineEndings
namespace CRLF {
FOUNDATION_API extern char const Bytes[2];
} // namespace CRLF

/// A Boost.Iostreams filtering stream buffer holding at most one device.
class StreamBuffer;
struct FOUNDATION_API StreamBufferDeleter {
  void operator()(StreamBuffer* buffer) const noexcept;
};
using OwnedStreamBuffer = std::unique_ptr<StreamBuffer, StreamBufferDeleter>;
/// A buffer with no device yet.
FOUNDATION_API OwnedStreamBuffer makeStreamBuffer();
/// The buffer as a standard stream buffer.
FOUNDATION_API std::streambuf* standardBuffer(StreamBuffer& buffer) noexcept;

} // namespace detail
} // namespace foundation::storage::vfs
