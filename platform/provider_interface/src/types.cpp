#include <foundation/storage/provider/types.hpp>

#include <foundation/storage/provider/error_code_table.hpp>

#include <fl/i18n/i18n.hpp>

#include <ostream>

namespace foundation::storage::provider {

bool isValid(ByteStreamOpenOptions const& o) noexcept {
  return static_cast<std::uint32_t>(o.access) <= 1 && static_cast<std::uint32_t>(o.create) <= 1 &&
         static_cast<std::uint32_t>(o.truncate) <= 1 && static_cast<std::uint32_t>(o.append) <= 1;
}

bool isValid(ReplacementPolicy policy) noexcept {
  return static_cast<std::uint32_t>(policy) <= static_cast<std::uint32_t>(ReplacementPolicy::KeepExisting);
}

bool replaces(ReplacementPolicy policy) noexcept {
  return policy == ReplacementPolicy::Overwrite || policy == ReplacementPolicy::ForceOverwrite ||
         policy == ReplacementPolicy::OverwriteDeferringPermissionErrors;
}

PathComparatorFunction makePathComparator(FilenameSensitivity sensitivity) {
  return [sensitivity](std::u16string const& a, std::u16string const& b, CaseModifier modifier) {
    bool const insensitive =
        modifier == CaseModifier::CaseInsensitive ||
        (modifier == CaseModifier::ProviderDefault && sensitivity == FilenameSensitivity::CaseInsensitive);
    return insensitive ? fl::i18n::fold_case(a) == fl::i18n::fold_case(b) : a == b;
  };
}

char const* toString(ErrorCode c) noexcept {
  switch (c) {
#define FOUNDATION_STORAGE_NAME_ROW(name, ...)                                                                         \
  case ErrorCode::name: return #name;
    FOUNDATION_STORAGE_ERROR_CODES(FOUNDATION_STORAGE_NAME_ROW)
#undef FOUNDATION_STORAGE_NAME_ROW
  }
  return "Unknown";
}

char const* toString(ExtendedFeature f) noexcept {
  switch (f) {
  case ExtendedFeature::NativeRecursiveRemoval: return "NativeRecursiveRemoval";
  case ExtendedFeature::RecursiveListing: return "RecursiveListing";
  case ExtendedFeature::FlatWildcardListing: return "FlatWildcardListing";
  case ExtendedFeature::RecursiveChangeEvents: return "RecursiveChangeEvents";
  case ExtendedFeature::RecursiveWildcardListing: return "RecursiveWildcardListing";
  }
  return "UnknownFeature";
}

char const* toString(ReplacementPolicy p) noexcept {
  switch (p) {
  case ReplacementPolicy::FailIfExists: return "FailIfExists";
  case ReplacementPolicy::Overwrite: return "Overwrite";
  case ReplacementPolicy::ForceOverwrite: return "ForceOverwrite";
  case ReplacementPolicy::OverwriteDeferringPermissionErrors: return "OverwriteDeferringPermissionErrors";
  case ReplacementPolicy::KeepExisting: return "KeepExisting";
  }
  return "UnknownPolicy";
}

std::ostream& operator<<(std::ostream& os, ErrorCode c) { return os << toString(c); }
std::ostream& operator<<(std::ostream& os, ExtendedFeature f) { return os << toString(f); }
std::ostream& operator<<(std::ostream& os, ReplacementPolicy p) { return os << toString(p); }

std::ostream& operator<<(std::ostream& os, ByteStreamOpenOptions const& o) {
  return os << "{access=" << static_cast<std::uint32_t>(o.access) << ", create=" << static_cast<std::uint32_t>(o.create)
            << ", truncate=" << static_cast<std::uint32_t>(o.truncate)
            << ", append=" << static_cast<std::uint32_t>(o.append) << "}";
}

} // namespace foundation::storage::provider
