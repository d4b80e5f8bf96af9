#pragma once

#include <vfs/exceptions.hpp>
#include <vfs/stream_buffer.hpp>

#include "errors/guard.hpp"

#include <boost/iostreams/constants.hpp>
#include <boost/iostreams/filtering_streambuf.hpp>

#include <algorithm>
#include <functional>
#include <iterator>

namespace foundation::storage::vfs::detail {

/// Boost's filtering stream buffer with the few things the library needs on top:
/// - with no device attached it answers like a closed standard file buffer (end of data,
///   nothing written, no position) instead of reaching into an empty chain;
/// - closing writes pending output first and reports a failure of that write: Boost's own
///   close would swallow it and lose the data;
/// - requests of a whole buffer or more go straight between the device and the caller's
///   memory once the buffer holds nothing for them, as standard file buffers do, instead of
///   being copied through the buffer; what can be put back afterwards is what a buffered
///   request would leave: the last bytes read, nothing after a write.
class StreamBuffer final : public boost::iostreams::filtering_streambuf<boost::iostreams::seekable> {
  using Base = boost::iostreams::filtering_streambuf<boost::iostreams::seekable>;

public:
  template <class Device>
  void attach(Device const& device) {
    push(device, StreamBufferSize);
    Device* held = component<Device>(0);
    readDevice_ = [held](char* s, std::streamsize n) { return held->read(s, n); };
    writeDevice_ = [held](char const* s, std::streamsize n) { return held->write(s, n); };
  }

  bool attached() const { return is_complete(); }

  /// Writes pending output, closes the attached `Device` and detaches it. A failure leaves
  /// the device attached, open and its output pending, so the close can be retried.
  template <class Device>
  void closeAttached() {
    // Output that cannot be written fails the close; it stays pending, nothing is lost.
    if (pubsync() != 0) throw IOCloseException(ErrorCode::IOError);
    // A copy shares the provider stream: closing it here lets a failure escape with the
    // chain intact; the chain's own close then finds the stream closed already.
    Device device = *component<Device>(0);
    device.close();
    pop();
    readDevice_ = nullptr;
    writeDevice_ = nullptr;
    // The chain forgets the link's buffer; so must we.
    setg(nullptr, nullptr, nullptr);
    setp(nullptr, nullptr);
  }

protected:
  // Every entry point: nothing attached answers like a closed file buffer; provider
  // failures of the device leave translated.
  int_type underflow() override {
    return onDevice(traits_type::eof(), [&] { return Base::underflow(); });
  }
  int_type pbackfail(int_type c) override {
    return onDevice(traits_type::eof(), [&] { return Base::pbackfail(c); });
  }
  std::streamsize xsgetn(char_type* s, std::streamsize n) override {
    return onDevice(std::streamsize(0),
                    [&] { return n < StreamBufferSize || pptr() ? Base::xsgetn(s, n) : readAround(s, n); });
  }
  int_type overflow(int_type c) override {
    return onDevice(traits_type::eof(), [&] { return Base::overflow(c); });
  }
  std::streamsize xsputn(char_type const* s, std::streamsize n) override {
    // Only with nothing pending and nothing read ahead is the device where the caller is.
    bool const inStep = pptr() == pbase() && gptr() == egptr();
    return onDevice(std::streamsize(0),
                    [&] { return n < StreamBufferSize || !inStep ? Base::xsputn(s, n) : writeAround(s, n); });
  }
  int sync() override {
    return onDevice(0, [&] { return Base::sync(); });
  }
  pos_type seekoff(off_type off, std::ios_base::seekdir way, std::ios_base::openmode which) override {
    return onDevice(pos_type(off_type(-1)), [&] { return Base::seekoff(off, way, which); });
  }
  pos_type seekpos(pos_type position, std::ios_base::openmode which) override {
    return onDevice(pos_type(off_type(-1)), [&] { return Base::seekpos(position, which); });
  }

private:
  /// What the buffer holds, then the rest straight from the device (which reads ahead of
  /// the buffer's position only while the buffer holds something, and it holds nothing now).
  std::streamsize readAround(char_type* s, std::streamsize n) {
    std::streamsize got = std::min<std::streamsize>(n, egptr() - gptr());
    if (got > 0) {
      traits_type::copy(s, gptr(), static_cast<std::size_t>(got));
      gbump(static_cast<int>(got));
    }
    for (std::streamsize more; got < n && (more = readDevice_(s + got, n - got)) > 0;) got += more;
    if (got > 0) keepForPutBack(s, got);
    return got;
  }

  /// The last bytes of `s[0, got)`, just read, become the get area's put-back bytes, where
  /// a refill of the buffer would have kept them; the get area is empty, so the device
  /// stands where the caller does.
  void keepForPutBack(char_type const* s, std::streamsize got) {
    auto const keep = std::min<std::streamsize>(got, std::ssize(putBack_));
    traits_type::copy(putBack_, s + got - keep, static_cast<std::size_t>(keep));
    setg(putBack_, putBack_ + keep, putBack_ + keep);
  }

  /// Writes straight to the device, which stands where the caller does (nothing pending,
  /// nothing read ahead). Like a buffered write, it ends reading: the bytes read before are
  /// behind the written ones now, no longer there to be put back.
  std::streamsize writeAround(char_type const* s, std::streamsize n) {
    setg(nullptr, nullptr, nullptr);
    return writeDevice_(s, n);
  }

  template <class Result, class Call>
  Result onDevice(Result detached, Call&& call) {
    if (!attached()) return detached;
    return guarded(std::forward<Call>(call));
  }

  std::function<std::streamsize(char*, std::streamsize)> readDevice_;
  std::function<std::streamsize(char const*, std::streamsize)> writeDevice_;
  /// The put-back bytes after a read that passed the buffer; as many as a refill keeps.
  char_type putBack_[boost::iostreams::default_pback_buffer_size];
};

} // namespace foundation::storage::vfs::detail
