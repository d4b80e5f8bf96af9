#pragma once

// The shared representation of a StorageIRI and the text codec working on it.

#include <foundation/storage/provider/storage_iri.hpp>

#include <memory>
#include <string>
#include <string_view>

namespace foundation::storage::provider {

struct StorageIRI::Rep {
  std::u16string scheme;    ///< lowercase
  std::u16string authority; ///< lowercase, decoded; empty when there is none
  std::shared_ptr<Rep const> inner;
  bool hasPath = false;
  std::u16string path; ///< decoded; "/" for the root, "/a/b" below it; no empty segments
  std::size_t hash = 0;
};

/// Lets the implementation files wrap a finished representation.
struct RepAccess {
  static StorageIRI wrap(std::shared_ptr<StorageIRI::Rep const> rep) { return StorageIRI(std::move(rep)); }
};

namespace iri {

using RepPtr = std::shared_ptr<StorageIRI::Rep const>;

/// Parses IRI text; InvalidLocation on any error.
RepPtr parse(std::u16string_view text);
/// Appends the normalised text; `ascii` gives the URI form.
void print(StorageIRI::Rep const& rep, bool ascii, std::u16string& out);
/// Validates and lowercases a scheme; InvalidLocation when it is not one.
std::u16string normaliseScheme(std::u16string_view scheme);
/// Appends the `/`-separated names of `names` (decoded text) to a path; InvalidLocation
/// for a NUL or an unpaired surrogate. Empty names are skipped.
void appendNames(std::u16string& path, std::u16string_view names);
/// Computes the hash once the representation is complete.
void seal(StorageIRI::Rep& rep);

} // namespace iri
} // namespace foundation::storage::provider
