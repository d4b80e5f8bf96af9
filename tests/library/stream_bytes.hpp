#pragma once

// Test data for the stream tests: bytes that tell their offset, so a misplaced block shows.

#include <cstddef>
#include <string>

namespace streambytes {

/// `n` bytes; the byte at offset i depends on i (period 251, a prime, so it drifts
/// against every power-of-two buffer boundary).
inline std::string pattern(std::size_t n, std::size_t from = 0) {
  std::string bytes(n, '\0');
  for (std::size_t i = 0; i < n; ++i) bytes[i] = static_cast<char>((from + i) % 251);
  return bytes;
}

inline constexpr std::size_t KiB = 1024;
/// The stream buffer size of the library.
inline constexpr std::size_t Buffer = 128 * KiB;

} // namespace streambytes
