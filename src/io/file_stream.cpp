#include <vfs/fstream.hpp>
#include <vfs/open_mode.hpp>

#include "errors/guard.hpp"
#include "io/filtering_stream_buffer.hpp"

namespace foundation::storage::vfs::detail {

namespace {

using ProviderDevice = provider::GenericByteStreamDevice<provider::ByteStream>;

unsigned int effectiveMode(unsigned int mode, StreamDirection direction) {
  auto const in = static_cast<unsigned int>(std::ios_base::in);
  auto const out = static_cast<unsigned int>(std::ios_base::out);
  auto const trunc = static_cast<unsigned int>(std::ios_base::trunc);
  switch (direction) {
  case StreamDirection::Input: return mode | in;
  case StreamDirection::Output: {
    // A plain output stream replaces the file, as the standard one does.
    unsigned int const withOut = mode | out;
    return applyMask(withOut) == out ? withOut | trunc : withOut;
  }
  case StreamDirection::Both: break;
  }
  return mode;
}

} // namespace

void openFileStream(StreamBuffer& buffer, File const& file, unsigned int mode, StreamDirection direction) {
  OpenMode const openMode(effectiveMode(mode, direction));
  ProviderDevice device = openMode.isReadOnly() ? file.openReadOnly() : file.open(openMode.toByteStreamOpenOptions());
  if (openMode.includesAtEnd()) guarded([&] { device.seek(0, std::ios_base::end); });
  buffer.attach(device);
}

bool isFileStreamOpen(StreamBuffer const& buffer) { return buffer.attached(); }

void closeFileStream(StreamBuffer& buffer) {
  guarded([&] { buffer.closeAttached<ProviderDevice>(); });
}

} // namespace foundation::storage::vfs::detail
