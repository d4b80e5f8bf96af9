#pragma once

#include <foundation/core/visibility.hpp>

#include <fl/filesystem/basic_path.hpp>

#include <cstddef>
#include <iosfwd>
#include <memory>
#include <string>
#include <string_view>

namespace foundation::storage::provider {

/// An absolute storage location: `scheme ":" ["//" authority] path`, or nested
/// `scheme ":" inner-IRI "!" path` (as in `zip:file:///a.zip!/dir/x.txt`).
///
/// Immutable; copies share one reference-counted representation. Names are held decoded
/// (UTF-16); the text forms percent-encode what must be. Normalisation: scheme and
/// authority are lowercase, `file://localhost/` is `file:///`, an empty authority equals
/// none (`mem:/a` == `mem:///a`), empty segments are dropped (`/a//b/` == `/a/b`). Dot
/// segments are kept as given (`getResolvedPath` removes them). A raw `?` or `#`, an
/// escape decoding to `/` or NUL, a malformed escape or invalid UTF-8 is InvalidLocation.
///
/// Every failure is the provider `Exception` (see exceptions.hpp) with InvalidLocation.
/// Thread-safe: values may be copied and read from any thread.
class FOUNDATION_API StorageIRI {
public:
  /// The empty value (also what a move leaves behind): no scheme, no path.
  StorageIRI() noexcept = default;
  /// Parses IRI text.
  explicit StorageIRI(std::u16string const& text);
  /// The child location: appends the `/`-separated segments of `name` (no decoding).
  /// An empty name or "/" yields `parent` itself.
  StorageIRI(StorageIRI const& parent, std::u16string const& name);
  /// A nested location of `scheme` inside `inner`; `path` is decoded text, empty or
  /// starting with "/".
  StorageIRI(std::u16string const& scheme, StorageIRI const& inner, std::u16string path);
  /// Parses UTF-8 IRI text.
  static StorageIRI fromUtf8(std::string_view text);

  bool empty() const noexcept { return !rep_; }
  std::u16string const& getScheme() const noexcept;
  /// The host or bucket; empty when there is none.
  std::u16string const& getAuthority() const noexcept;
  bool hasPath() const noexcept;
  /// The decoded path: "/" for the root, "/a/b" below it, empty without a path.
  std::u16string const& getPath() const noexcept;
  std::u16string_view getPathView() const noexcept { return getPath(); }
  /// The path with dot segments removed (RFC 3986 section 5.2.4).
  std::u16string getResolvedPath() const;
  /// The last path segment; empty for the root or without a path.
  std::u16string getName() const;
  /// True when the path has at least one segment.
  bool hasParent() const noexcept;
  /// The location without the last segment; InvalidLocation when there is none.
  StorageIRI getParent() const;
  /// True when `other` lies strictly below this location (same scheme, authority and
  /// inner IRI; segment-wise prefix). Dot segments are not resolved.
  bool isAncestorOf(StorageIRI const& other) const noexcept;
  /// The path of this location relative to `base` ("a/b", "../c", "" when equal);
  /// InvalidLocation when the two have different roots or either has no path.
  std::u16string makePathRelativeTo(StorageIRI const& base) const;
  bool hasInnerIRI() const noexcept;
  /// The inner location of a nested IRI; InvalidLocation when there is none.
  StorageIRI getInnerIRI() const;
  /// Same scheme, authority and inner IRI.
  bool hasSameRoot(StorageIRI const& other) const noexcept;
  /// The location with the same root and the decoded `path` (empty, or starting with
  /// "/"); InvalidLocation otherwise.
  StorageIRI withPath(std::u16string const& path) const;

  /// The normalised IRI; `StorageIRI(x.toString()) == x` always.
  std::u16string toString() const;
  /// `toString()` as UTF-8.
  std::string toIRI() const;
  /// The URI form: non-ASCII and reserved characters percent-encoded as UTF-8.
  std::string toAsciiString() const;

  std::size_t hashValue() const noexcept;

  friend FOUNDATION_API bool operator==(StorageIRI const& a, StorageIRI const& b) noexcept;
  friend bool operator!=(StorageIRI const& a, StorageIRI const& b) noexcept { return !(a == b); }
  /// Scheme, authority, inner IRI, then path segment by segment, so that a folder sorts
  /// right before its contents.
  friend FOUNDATION_API bool operator<(StorageIRI const& a, StorageIRI const& b) noexcept;

  struct Rep;

private:
  friend struct RepAccess;
  explicit StorageIRI(std::shared_ptr<Rep const> rep) noexcept : rep_(std::move(rep)) {}
  Rep const& rep() const noexcept;

  std::shared_ptr<Rep const> rep_;
};

FOUNDATION_API std::size_t hash_value(StorageIRI const& iri) noexcept;
FOUNDATION_API std::ostream& operator<<(std::ostream& os, StorageIRI const& iri);

/// The location of an absolute local path under `scheme` (empty authority). A relative
/// path, a NUL or a name that is not valid UTF-8 is InvalidLocation.
FOUNDATION_API StorageIRI toStorageIRI(std::u16string const& scheme, fl::filesystem::path const& path);
/// As `toStorageIRI`, after resolving symbolic links and dot segments on the local file
/// system (realpath; a relative path is taken from the current folder). A missing path is
/// ResourceNotFound; other failures map from errno.
FOUNDATION_API StorageIRI toCanonicalizedStorageIRI(std::u16string const& scheme, fl::filesystem::path const& path);
/// The local path of a location; InvalidLocation for a nested IRI or one without path.
FOUNDATION_API fl::filesystem::path fromStorageIRI(StorageIRI const& iri);

} // namespace foundation::storage::provider

template <>
struct std::hash<foundation::storage::provider::StorageIRI> {
  std::size_t operator()(foundation::storage::provider::StorageIRI const& iri) const noexcept {
    return iri.hashValue();
  }
};
