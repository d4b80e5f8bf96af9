#pragma once

// Streams of a provider whose crashes are simulated: they report commits to the durability
// ledger, and die with a crash like the process that held them.

#include "durability_ledger.hpp"

#include <foundation/storage/provider/byte_stream.hpp>

#include <memory>

namespace foundation::storage::providers::wrappers::detail {

/// A plain stream; what it writes is recorded as changed in place when it is opened.
class CrashAwareStream final : public p::ByteStream {
public:
  CrashAwareStream(std::unique_ptr<p::ByteStream> inner, std::shared_ptr<DurabilityLedger> ledger);

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose() override;

private:
  std::unique_ptr<p::ByteStream> inner_;
  std::shared_ptr<DurabilityLedger> ledger_;
  std::uint64_t crashes_;
};

/// A transactional stream; its commit is a landing. After a crash it can only discard.
class CrashAwareTransactionalStream final : public p::TransactionalStream {
public:
  CrashAwareTransactionalStream(std::unique_ptr<p::TransactionalStream> inner, std::shared_ptr<DurabilityLedger> ledger,
                                std::shared_ptr<p::IProvider> storage, p::StorageIRI file);

protected:
  std::streamsize doRead(char* s, std::streamsize n) override;
  std::streamsize doWrite(char const* s, std::streamsize n) override;
  std::streampos doSeek(std::streamoff off, std::ios_base::seekdir way) override;
  void doClose(p::StreamClosePolicy const& policy) override;

private:
  std::unique_ptr<p::TransactionalStream> inner_; ///< discards when destroyed unclosed
  std::shared_ptr<DurabilityLedger> ledger_;
  std::shared_ptr<p::IProvider> storage_;
  p::StorageIRI file_;
  std::uint64_t crashes_;
};

} // namespace foundation::storage::providers::wrappers::detail
