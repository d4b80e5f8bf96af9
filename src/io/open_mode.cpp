#include <vfs/open_mode.hpp>

#include <foundation/core/except/exception.hpp>

#include <ios>
#include <stdexcept>

namespace foundation::storage::vfs {

namespace {

using Bits = unsigned int;
constexpr Bits App = 0x01, AtEnd = 0x02, Binary = 0x04, In = 0x08, Out = 0x10, Trunc = 0x20;

// The bits cross into the provider by value: they must be the standard library's.
static_assert(static_cast<Bits>(std::ios_base::app) == App && static_cast<Bits>(std::ios_base::ate) == AtEnd &&
              static_cast<Bits>(std::ios_base::binary) == Binary && static_cast<Bits>(std::ios_base::in) == In &&
              static_cast<Bits>(std::ios_base::out) == Out && static_cast<Bits>(std::ios_base::trunc) == Trunc);
static_assert(OpenModeMask == (App | In | Out | Trunc));

[[noreturn]] void misuse(char const* text) {
  throw core::except::detail::AnonymousInternalException<std::runtime_error>(text);
}

} // namespace

unsigned int applyMask(unsigned int const& mode) { return mode & OpenModeMask; }

unsigned int canonicalizeOpenMode(unsigned int const& mode) {
  Bits const masked = applyMask(mode);
  return masked == App || masked == (In | App) ? mode | Out : mode;
}

bool doIsReadOnly(unsigned int const& mode) { return (mode & (In | Out)) == In; }
bool doIncludesAtEnd(unsigned int const& mode) { return (mode & AtEnd) != 0; }
bool doIncludesBinary(unsigned int const& mode) { return (mode & Binary) != 0; }

provider::ByteStreamAccess toByteStreamAccess(unsigned int const& mode) {
  switch (mode & (In | Out)) {
  case Out: return provider::ByteStreamAccess::WriteOnly;
  case In | Out: return provider::ByteStreamAccess::ReadWrite;
  default: misuse("toByteStreamAccess called with bad openmode");
  }
}

provider::ByteStreamCreate toByteStreamCreate(unsigned int const& mode) {
  switch (applyMask(mode)) {
  case Out:
  case In | Out: return provider::ByteStreamCreate::MustExist;
  case Out | App:
  case In | Out | App:
  case Out | Trunc:
  case In | Out | Trunc: return provider::ByteStreamCreate::CreateIfMissing;
  default: misuse("toByteStreamCreate called with bad openmode");
  }
}

provider::ByteStreamTruncate toByteStreamTruncate(unsigned int const& mode) {
  return (mode & Trunc) != 0 ? provider::ByteStreamTruncate::Truncate : provider::ByteStreamTruncate::Keep;
}

provider::ByteStreamAppend toByteStreamAppend(unsigned int const& mode) {
  return (mode & App) != 0 ? provider::ByteStreamAppend::Append : provider::ByteStreamAppend::AtPosition;
}

provider::ByteStreamOpenOptions doToByteStreamOpenOptions(unsigned int const& mode) {
  auto const access = toByteStreamAccess(mode);
  auto const create = toByteStreamCreate(mode);
  return {access, create, toByteStreamTruncate(mode), toByteStreamAppend(mode)};
}

OpenMode::OpenMode(unsigned int const& mode)
    : mode_(canonicalizeOpenMode(mode)), atEnd_(doIncludesAtEnd(mode)), binary_(doIncludesBinary(mode)) {}

bool OpenMode::isReadOnly() const { return doIsReadOnly(mode_); }

provider::ByteStreamOpenOptions OpenMode::toByteStreamOpenOptions() const { return doToByteStreamOpenOptions(mode_); }

} // namespace foundation::storage::vfs
