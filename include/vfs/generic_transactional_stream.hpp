#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/byte_stream.hpp>

#include <atomic>
#include <functional>
#include <memory>

namespace foundation::storage::provider {

/// Makes a transactional stream of a plain one, for providers without transactions of
/// their own: reads, writes and seeks go to the wrapped stream, and closing closes it and
/// then hands the policy to a callback that makes the contents final or drops them.
/// Closing twice does the work once; a failed close can be retried. Destroyed unclosed, it
/// closes with Discard and swallows any failure. Instantiated for `ByteStream`.
template <class Stream>
class FOUNDATION_API GenericTransactionalStream final : public TransactionalStream {
public:
  using CloseCallback = std::function<void(StreamClosePolicy const&)>;

  /// Takes the stream out of `stream`; `onClose` runs after the stream was closed.
  GenericTransactionalStream(std::unique_ptr<Stream>& stream, CloseCallback const& onClose);
  ~GenericTransactionalStream() override;

  Stream* getByteStream() const noexcept { return stream_.get(); }

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose(StreamClosePolicy const& policy) override;

private:
  std::shared_ptr<Stream> stream_;
  CloseCallback onClose_;
  std::atomic<bool> closed_{false};
};

extern template class FOUNDATION_API GenericTransactionalStream<ByteStream>;

} // namespace foundation::storage::provider
