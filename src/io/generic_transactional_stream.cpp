#include <vfs/generic_transactional_stream.hpp>

namespace foundation::storage::provider {

template <class Stream>
GenericTransactionalStream<Stream>::GenericTransactionalStream(std::unique_ptr<Stream>& stream,
                                                               CloseCallback const& onClose)
    : stream_(std::move(stream)), onClose_(onClose) {}

template <class Stream>
GenericTransactionalStream<Stream>::~GenericTransactionalStream() {
  try {
    TransactionalStream::close(StreamClosePolicy::Discard);
  } catch (...) {
    // A destructor reports nothing; discarding is all that was left to do.
  }
}

template <class Stream>
std::streamsize GenericTransactionalStream<Stream>::doRead(char* s, std::streamsize n) {
  return stream_->read(s, n);
}

template <class Stream>
std::streamsize GenericTransactionalStream<Stream>::doWrite(char const* s, std::streamsize n) {
  return stream_->write(s, n);
}

template <class Stream>
std::streampos GenericTransactionalStream<Stream>::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  return stream_->seek(off, way);
}

template <class Stream>
void GenericTransactionalStream<Stream>::doClose(StreamClosePolicy const& policy) {
  // Two racing closes do the work once; a failure clears the flag so that it can be retried.
  if (closed_.exchange(true)) return;
  try {
    stream_->close();
    onClose_(policy);
  } catch (...) {
    closed_.store(false);
    throw;
  }
}

template class GenericTransactionalStream<ByteStream>;

} // namespace foundation::storage::provider
