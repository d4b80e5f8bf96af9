#include <vfs/absolute_iri.hpp>
#include <vfs/exceptions.hpp>

#include "core/logger.hpp"
#include "errors/guard.hpp"
#include "errors/invalid_iri.hpp"

#include <foundation/core/except/exception.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/exception/diagnostic_information.hpp>
#include <boost/exception/errinfo_nested_exception.hpp>
#include <boost/exception_ptr.hpp>

#include <ostream>

namespace foundation::storage::vfs {

namespace {

using detail::InvalidIRI;

/// InvalidIRIException for `text`, with the exception in flight nested in it.
[[noreturn]] void invalidWithCause(std::u16string const& text) {
  throw InvalidIRI(text) << boost::errinfo_nested_exception(boost::current_exception());
}

} // namespace

provider::StorageIRI parse(std::u16string const& iri) {
  try {
    return provider::StorageIRI(std::u16string(iri));
  } catch (...) {
    invalidWithCause(iri);
  }
}

provider::StorageIRI storageIRIWithPath(provider::StorageIRI iri) {
  if (!iri.hasPath()) throw InvalidIRI(iri.toString());
  return iri;
}

AbsoluteIRI::AbsoluteIRI(std::u16string const& iri) : iri_(storageIRIWithPath(parse(iri))) {}

AbsoluteIRI::AbsoluteIRI(provider::StorageIRI iri, bool requirePath)
    : iri_(requirePath ? storageIRIWithPath(std::move(iri)) : std::move(iri)) {}

AbsoluteIRI::AbsoluteIRI(AbsoluteIRI const& parent, std::u16string const& name) : iri_(parent.iri_, name) {}

AbsoluteIRI::AbsoluteIRI(std::u16string const& scheme, AbsoluteIRI const& inner, std::u16string path)
    : iri_(scheme, inner.iri_, std::move(path)) {}

AbsoluteIRI AbsoluteIRI::getParent() const { return AbsoluteIRI(iri_.getParent(), false); }

AbsoluteIRI AbsoluteIRI::getResolvedIRI() const {
  try {
    return AbsoluteIRI(iri_.withPath(getResolvedPath()), false);
  } catch (...) {
    throw InvalidIRIException(toString());
  }
}

AbsoluteIRI AbsoluteIRI::getInnerIRI() const { return AbsoluteIRI(iri_.getInnerIRI(), true); }

bool AbsoluteIRI::isAncestorOf(AbsoluteIRI const& other) const { return iri_.isAncestorOf(other.toStorageIRI()); }

std::u16string AbsoluteIRI::makePathRelativeTo(AbsoluteIRI const& base) const {
  return iri_.makePathRelativeTo(base.iri_);
}

bool operator==(AbsoluteIRI const& iri, std::u16string const& text) { return iri.toString() == text; }

CanonicalAbsoluteIRI::CanonicalAbsoluteIRI(std::u16string const& iri) : AbsoluteIRI(iri) {}

CanonicalAbsoluteIRI::CanonicalAbsoluteIRI(AbsoluteIRI const& parent, std::u16string const& name)
    : AbsoluteIRI(parent, name) {}

CanonicalAbsoluteIRI CanonicalAbsoluteIRI::getParent() const { return CanonicalAbsoluteIRI(AbsoluteIRI::getParent()); }

std::size_t hash_value(AbsoluteIRI const& iri) noexcept { return iri.hashValue(); }

std::ostream& operator<<(std::ostream& os, AbsoluteIRI const& iri) { return os << iri.toIRI(); }

AbsoluteIRI toAbsoluteIRI(std::u16string const& scheme, fl::filesystem::path const& path) {
  try {
    return AbsoluteIRI(provider::toStorageIRI(scheme, path), true);
  } catch (...) {
    invalidWithCause(scheme);
  }
}

CanonicalAbsoluteIRI toCanonicalAbsoluteIRI(std::u16string const& scheme, fl::filesystem::path const& path) {
  try {
    return CanonicalAbsoluteIRI(AbsoluteIRI(provider::toCanonicalizedStorageIRI(scheme, path), true));
  } catch (provider::Exception const&) {
    handleException(); // provider failures keep their own codes ("no such file")
  } catch (...) {
    invalidWithCause(scheme);
  }
}

fl::filesystem::path fromAbsoluteIRI(AbsoluteIRI const& iri) { return provider::fromStorageIRI(iri.toStorageIRI()); }

namespace {

bool isSchemeMark(char32_t c) { return c == U'+' || c == U'-' || c == U'.'; }

bool startsWithScheme(std::u32string_view s) {
  using fl::i18n::lcctype::isalnum_ascii;
  using fl::i18n::lcctype::isalpha_ascii;
  if (s.size() < 4) return false;
  if (!isalpha_ascii(s[0])) return false;
  if (!isalnum_ascii(s[1]) && !isSchemeMark(s[1])) return false;
  std::size_t i = 2;
  while (i < s.size() && (isalnum_ascii(s[i]) || isSchemeMark(s[i]))) ++i;
  if (i >= s.size() || s[i] != U':' || i + 1 == s.size()) return false;
  if (s[i + 1] == U'/') return true;
  return startsWithScheme(s.substr(i + 1)); // a nested form: the innermost must go on with "/"
}

/// Logs the exception in flight; composing the text may fail too, and then nothing is logged.
void logCaughtException() noexcept {
  try {
    detail::getLogger().log(foundation::log::Severity::Warning,
                            "Exception caught: " + boost::current_exception_diagnostic_information());
  } catch (...) {
  }
}

} // namespace

bool hasIRIPrefix(std::u32string const& s) noexcept {
  try {
    return startsWithScheme(s);
  } catch (...) {
    logCaughtException();
    return false;
  }
}

bool hasIRIPrefix(std::u16string const& s) noexcept {
  try {
    return hasIRIPrefix(fl::i18n::to_u32string(s));
  } catch (...) {
    logCaughtException();
    return false;
  }
}

} // namespace foundation::storage::vfs
