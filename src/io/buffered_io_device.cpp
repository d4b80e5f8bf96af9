#include <vfs/buffered_io_device.hpp>

#include "io/filtering_stream_buffer.hpp"

namespace foundation::storage::vfs {

namespace {

/// Runs `call`; IO exceptions pass as they are, anything else becomes `Failure` with
/// IOError.
template <class Failure, class Call>
decltype(auto) underIOPolicy(Call&& call) {
  try {
    return std::forward<Call>(call)();
  } catch (IOException const&) {
    throw;
  } catch (...) {
    throw Failure(ErrorCode::IOError);
  }
}

} // namespace

BufferedIODevice::BufferedIODevice(File file) : BufferedIODevice(IODevice(std::move(file))) {}

BufferedIODevice::BufferedIODevice(File file, provider::ByteStreamOpenOptions const& options)
    : BufferedIODevice(IODevice(std::move(file), options)) {}

BufferedIODevice::BufferedIODevice(IODevice device) : buffer_(detail::makeStreamBuffer()) { buffer_->attach(device); }

BufferedIODevice::~BufferedIODevice() {
  try {
    close();
  } catch (...) {
    // A destructor reports nothing; the buffer's own teardown still closes the device.
  }
}

std::streamsize BufferedIODevice::read(char* s, std::streamsize n) const {
  std::streamsize const got = underIOPolicy<IOReadException>([&] { return buffer_->sgetn(s, n); });
  return got == 0 ? -1 : got;
}

std::streamsize BufferedIODevice::write(char const* s, std::streamsize n) const {
  return underIOPolicy<IOWriteException>([&] {
    std::streamsize const written = buffer_->sputn(s, n);
    // The buffer takes everything or throws; less means no device is attached any more.
    if (written < n) throw IOWriteException(ErrorCode::IOError);
    return written;
  });
}

std::streampos BufferedIODevice::seek(std::streamoff off, std::ios_base::seekdir way) const {
  return underIOPolicy<IOSeekException>([&] {
    auto const position = buffer_->pubseekoff(off, way, std::ios_base::in | std::ios_base::out);
    if (position == std::streampos(std::streamoff(-1))) throw IOSeekException(ErrorCode::IOError);
    return position;
  });
}

std::streampos BufferedIODevice::tell() const { return seek(0, std::ios_base::cur); }

void BufferedIODevice::flush() const {
  underIOPolicy<IOWriteException>([&] {
    if (buffer_->pubsync() != 0) throw IOWriteException(ErrorCode::IOError);
  });
}

void BufferedIODevice::close() {
  underIOPolicy<IOCloseException>([&] {
    if (buffer_->attached()) buffer_->closeAttached<IODevice>();
  });
  closed_ = true;
}

} // namespace foundation::storage::vfs
