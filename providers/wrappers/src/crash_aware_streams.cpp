#include "crash_aware_streams.hpp"

#include <foundation/storage/provider/exceptions.hpp>

namespace foundation::storage::providers::wrappers::detail {

namespace {

constexpr char const* crashed = "the storage crashed since the stream was opened";

/// A stream opened before the last crash died with it.
template <class Failure>
void failIfCrashed(DurabilityLedger const& ledger, std::uint64_t crashesAtOpening) {
  if (ledger.crashes() != crashesAtOpening) p::raise(Failure(crashed, p::ErrorCode::IOError));
}

} // namespace

CrashAwareStream::CrashAwareStream(std::unique_ptr<p::ByteStream> inner, std::shared_ptr<DurabilityLedger> ledger)
    : inner_(std::move(inner)), ledger_(std::move(ledger)), crashes_(ledger_->crashes()) {}

std::streamsize CrashAwareStream::doRead(char* s, std::streamsize n) {
  failIfCrashed<p::ByteStreamReadFailure>(*ledger_, crashes_);
  return inner_->read(s, n);
}
std::streamsize CrashAwareStream::doWrite(char const* s, std::streamsize n) {
  failIfCrashed<p::ByteStreamWriteFailure>(*ledger_, crashes_);
  return inner_->write(s, n);
}
std::streampos CrashAwareStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  failIfCrashed<p::ByteStreamSeekFailure>(*ledger_, crashes_);
  return inner_->seek(off, way);
}
void CrashAwareStream::doClose() {
  failIfCrashed<p::ByteStreamCloseFailure>(*ledger_, crashes_);
  inner_->close();
}

CrashAwareTransactionalStream::CrashAwareTransactionalStream(std::unique_ptr<p::TransactionalStream> inner,
                                                             std::shared_ptr<DurabilityLedger> ledger,
                                                             std::shared_ptr<p::IProvider> storage, p::StorageIRI file)
    : inner_(std::move(inner)), ledger_(std::move(ledger)), storage_(std::move(storage)), file_(std::move(file)),
      crashes_(ledger_->crashes()) {}

std::streamsize CrashAwareTransactionalStream::doRead(char* s, std::streamsize n) {
  failIfCrashed<p::ByteStreamReadFailure>(*ledger_, crashes_);
  return inner_->read(s, n);
}
std::streamsize CrashAwareTransactionalStream::doWrite(char const* s, std::streamsize n) {
  failIfCrashed<p::ByteStreamWriteFailure>(*ledger_, crashes_);
  return inner_->write(s, n);
}
std::streampos CrashAwareTransactionalStream::doSeek(std::streamoff off, std::ios_base::seekdir way) {
  failIfCrashed<p::ByteStreamSeekFailure>(*ledger_, crashes_);
  return inner_->seek(off, way);
}

void CrashAwareTransactionalStream::doClose(p::StreamClosePolicy const& policy) {
  if (policy == p::StreamClosePolicy::Discard) {
    inner_->close(policy);
    return;
  }
  if (ledger_->crashes() != crashes_) {
    inner_->close(p::StreamClosePolicy::Discard); // the transaction died with the crash
    p::raise(p::ByteStreamCloseFailure(crashed, p::ErrorCode::IOError));
  }
  bool const replacesAFile = storage_->fileExists(file_);
  inner_->close(policy);
  ledger_->landed(file_, replacesAFile);
}

} // namespace foundation::storage::providers::wrappers::detail
