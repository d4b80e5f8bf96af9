#pragma once

// Reading and writing whole files through a provider, for tests.

#include <foundation/storage/provider/storage_item.hpp>

#include <string>
#include <vector>

namespace testsupport {

namespace p = foundation::storage::provider;

/// Creates or empties the file, then writes at the start.
inline p::ByteStreamOpenOptions const replaceAll{p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                                 p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition};

/// Everything from the stream's position on, read `chunk` bytes at a time.
inline std::string readAll(p::ByteStream& stream, std::size_t chunk = 4096) {
  std::string bytes;
  std::vector<char> buffer(chunk);
  for (std::streamsize n; (n = stream.read(buffer.data(), static_cast<std::streamsize>(chunk))) > 0;)
    bytes.append(buffer.data(), static_cast<std::size_t>(n));
  return bytes;
}

/// The whole file; the stream is released, not closed, so that a test's injected close
/// failure stays for the stream it meant.
inline std::string readFile(p::StorageItem const& file) { return readAll(*file.openReadOnlyStream()); }

inline void writeFile(p::StorageItem const& file, std::string const& bytes) {
  auto stream = file.openStream(replaceAll);
  stream->write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  stream->close();
}

} // namespace testsupport
