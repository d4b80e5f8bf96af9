#include <vfs/io_device.hpp>

#include "errors/guard.hpp"

#include <stdexcept>

namespace foundation::storage::vfs {

namespace {

/// Runs `call` on the provider device, failures translated. A closed device is checked
/// first, close included, and reported untranslated: it is a programming error.
template <class Device, class Call>
decltype(auto) operate(Device* device, char const* closedText, Call&& call) {
  if (!device) throw std::logic_error(closedText);
  return detail::guarded([&]() -> decltype(auto) { return call(*device); });
}

constexpr char const* closedIODevice = "Cannot operate on a closed IODevice.";
constexpr char const* closedTransactionalIODevice = "Cannot operate on a closed TransactionalIODevice.";

} // namespace

IODevice::IODevice(File file)
    : file_(std::move(file)),
      device_(std::make_shared<provider::GenericByteStreamDevice<provider::ByteStream>>(file_.openReadOnly())) {}

IODevice::IODevice(File file, provider::ByteStreamOpenOptions const& options)
    : file_(std::move(file)),
      device_(std::make_shared<provider::GenericByteStreamDevice<provider::ByteStream>>(file_.open(options))) {}

std::streamsize IODevice::read(char* s, std::streamsize n) const {
  return operate(device_.get(), closedIODevice, [&](auto& d) { return d.read(s, n); });
}

std::streamsize IODevice::write(char const* s, std::streamsize n) const {
  return operate(device_.get(), closedIODevice, [&](auto& d) { return d.write(s, n); });
}

std::streampos IODevice::seek(std::streamoff off, std::ios_base::seekdir way) const {
  return operate(device_.get(), closedIODevice, [&](auto& d) { return d.seek(off, way); });
}

std::streampos IODevice::tell() const { return seek(0, std::ios_base::cur); }

void IODevice::close() {
  operate(device_.get(), closedIODevice, [](auto& d) { d.close(); });
  device_.reset();
}

TransactionalIODevice::TransactionalIODevice(File file, provider::ByteStreamAccess access)
    : device_(std::make_unique<provider::GenericByteStreamDevice<provider::TransactionalStream>>(
          file.openTransactionalStream({access, provider::ByteStreamCreate::CreateIfMissing,
                                        provider::ByteStreamTruncate::Truncate,
                                        provider::ByteStreamAppend::AtPosition}))) {}

TransactionalIODevice::TransactionalIODevice(TransactionalIODevice&&) noexcept = default;
TransactionalIODevice& TransactionalIODevice::operator=(TransactionalIODevice&&) noexcept = default;
TransactionalIODevice::~TransactionalIODevice() = default;

std::streamsize TransactionalIODevice::read(char* s, std::streamsize n) const {
  return operate(device_.get(), closedTransactionalIODevice, [&](auto& d) { return d.read(s, n); });
}

std::streamsize TransactionalIODevice::write(char const* s, std::streamsize n) const {
  return operate(device_.get(), closedTransactionalIODevice, [&](auto& d) { return d.write(s, n); });
}

std::streampos TransactionalIODevice::seek(std::streamoff off, std::ios_base::seekdir way) const {
  return operate(device_.get(), closedTransactionalIODevice, [&](auto& d) { return d.seek(off, way); });
}

std::streampos TransactionalIODevice::tell() const { return seek(0, std::ios_base::cur); }

void TransactionalIODevice::close(provider::StreamClosePolicy policy) {
  operate(device_.get(), closedTransactionalIODevice, [&](auto& d) { d.close(policy); });
  device_.reset();
}

} // namespace foundation::storage::vfs
