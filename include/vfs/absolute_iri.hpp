#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/storage_iri.hpp>

#include <fl/filesystem/basic_path.hpp>

#include <cstddef>
#include <iosfwd>
#include <string>
#include <string_view>

namespace foundation::storage::vfs {

/// The location of a file or folder: an absolute IRI with a path. A thin value over the
/// provider's StorageIRI, which parses, normalises, compares and hashes; copies share one
/// representation. Text that is not such an IRI is InvalidIRIException.
class FOUNDATION_API AbsoluteIRI {
public:
  explicit AbsoluteIRI(std::u16string const& iri);
  /// With `requirePath`, a value without path is InvalidIRIException.
  AbsoluteIRI(provider::StorageIRI iri, bool requirePath);
  /// The child `name` (one or more "/"-separated names) of `parent`.
  AbsoluteIRI(AbsoluteIRI const& parent, std::u16string const& name);
  /// The location `path` of `scheme` nested in `inner`.
  AbsoluteIRI(std::u16string const& scheme, AbsoluteIRI const& inner, std::u16string path);

  std::u16string getName() const { return iri_.getName(); }
  std::u16string const& getPath() const noexcept { return iri_.getPath(); }
  std::u16string_view getPathView() const noexcept { return iri_.getPathView(); }
  std::u16string getResolvedPath() const { return iri_.getResolvedPath(); }
  std::u16string toString() const { return iri_.toString(); }
  std::u16string const& getScheme() const noexcept { return iri_.getScheme(); }
  bool hasParent() const noexcept { return iri_.hasParent(); }
  std::string toIRI() const { return iri_.toIRI(); }
  std::string toAsciiString() const { return iri_.toAsciiString(); }
  bool hasInnerIRI() const noexcept { return iri_.hasInnerIRI(); }
  std::size_t hashValue() const noexcept { return iri_.hashValue(); }

  /// The parent, without a path check.
  AbsoluteIRI getParent() const;
  /// This location with dot segments resolved; InvalidIRIException with this IRI's text.
  AbsoluteIRI getResolvedIRI() const;
  /// The inner location of a nested IRI (it must have a path).
  AbsoluteIRI getInnerIRI() const;
  bool isAncestorOf(AbsoluteIRI const& other) const;
  std::u16string makePathRelativeTo(AbsoluteIRI const& base) const;
  /// The provider value, sharing the representation.
  provider::StorageIRI toStorageIRI() const { return iri_; }

  friend bool operator==(AbsoluteIRI const& a, AbsoluteIRI const& b) noexcept { return a.iri_ == b.iri_; }
  friend bool operator!=(AbsoluteIRI const& a, AbsoluteIRI const& b) noexcept { return a.iri_ != b.iri_; }
  friend bool operator<(AbsoluteIRI const& a, AbsoluteIRI const& b) noexcept { return a.iri_ < b.iri_; }
  /// Compares `toString()` with the text, code unit by code unit (no normalisation).
  friend FOUNDATION_API bool operator==(AbsoluteIRI const& iri, std::u16string const& text);
  friend bool operator!=(AbsoluteIRI const& iri, std::u16string const& text) { return !(iri == text); }
  friend bool operator==(std::u16string const& text, AbsoluteIRI const& iri) { return iri == text; }
  friend bool operator!=(std::u16string const& text, AbsoluteIRI const& iri) { return !(iri == text); }

private:
  provider::StorageIRI iri_;
};

/// An AbsoluteIRI known to be in the provider's canonical form (links and case resolved).
class FOUNDATION_API CanonicalAbsoluteIRI : public AbsoluteIRI {
public:
  explicit CanonicalAbsoluteIRI(std::u16string const& iri);
  CanonicalAbsoluteIRI(AbsoluteIRI const& parent, std::u16string const& name);
  CanonicalAbsoluteIRI getParent() const;

private:
  explicit CanonicalAbsoluteIRI(AbsoluteIRI iri) : AbsoluteIRI(std::move(iri)) {}
  friend FOUNDATION_API CanonicalAbsoluteIRI toCanonicalAbsoluteIRI(std::u16string const&, fl::filesystem::path const&);
};

FOUNDATION_API std::size_t hash_value(AbsoluteIRI const& iri) noexcept;
FOUNDATION_API std::ostream& operator<<(std::ostream& os, AbsoluteIRI const& iri);

/// Parses text; any failure is InvalidIRIException (the input text) with the provider's
/// failure nested.
FOUNDATION_API provider::StorageIRI parse(std::u16string const& iri);
/// `iri` when it has a path; InvalidIRIException (its text) otherwise.
FOUNDATION_API provider::StorageIRI storageIRIWithPath(provider::StorageIRI iri);
/// The location of a local path; any failure is InvalidIRIException (the scheme) with the
/// cause nested.
FOUNDATION_API AbsoluteIRI toAbsoluteIRI(std::u16string const& scheme, fl::filesystem::path const& path);
/// The canonical location of a local path; provider failures (a missing path) arrive
/// translated with their own codes, others as InvalidIRIException (the scheme).
FOUNDATION_API CanonicalAbsoluteIRI toCanonicalAbsoluteIRI(std::u16string const& scheme,
                                                           fl::filesystem::path const& path);
/// The local path of a location.
FOUNDATION_API fl::filesystem::path fromAbsoluteIRI(AbsoluteIRI const& iri);

/// Whether the text starts with a scheme followed by "/" (directly or after further
/// nested schemes). Never throws: a failure is logged and answers false.
FOUNDATION_API bool hasIRIPrefix(std::u32string const& s) noexcept;
FOUNDATION_API bool hasIRIPrefix(std::u16string const& s) noexcept;

} // namespace foundation::storage::vfs

template <>
struct std::hash<foundation::storage::vfs::AbsoluteIRI> {
  std::size_t operator()(foundation::storage::vfs::AbsoluteIRI const& iri) const noexcept { return iri.hashValue(); }
};
