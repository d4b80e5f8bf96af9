// Conversions between local file-system paths and locations.

#include "storage_iri_rep.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/posix_errors.hpp>

#include <fl/i18n/i18n.hpp>

#include <filesystem>
#include <stdexcept>

namespace foundation::storage::provider {

StorageIRI toStorageIRI(std::u16string const& scheme, fl::filesystem::path const& path) {
  std::string const& text = path.std_path().native();
  if (text.find('\0') != std::string::npos)
    fail(ErrorCode::InvalidLocation, StorageIRI(), u"iri.fromPath", "a NUL character in the path");
  if (text.empty() || text[0] != '/')
    fail(ErrorCode::InvalidLocation, StorageIRI(), u"iri.fromPath", "not an absolute path: \"" + text + "\"");
  std::u16string names;
  try {
    names = fl::i18n::strict::utf8_to_utf16(text);
  } catch (std::invalid_argument const&) {
    fail(ErrorCode::InvalidLocation, StorageIRI(), u"iri.fromPath", "a path that is not UTF-8");
  }
  auto rep = std::make_shared<StorageIRI::Rep>();
  rep->scheme = iri::normaliseScheme(scheme);
  rep->hasPath = true;
  iri::appendNames(rep->path, names);
  iri::seal(*rep);
  return RepAccess::wrap(std::move(rep));
}

StorageIRI toCanonicalizedStorageIRI(std::u16string const& scheme, fl::filesystem::path const& path) {
  // As realpath: a relative path is taken from the current folder.
  std::error_code ignored;
  std::filesystem::path const absolute = std::filesystem::absolute(path.std_path(), ignored);
  StorageIRI location = toStorageIRI(scheme, fl::filesystem::path(absolute.empty() ? path.std_path() : absolute));
  std::error_code error;
  std::filesystem::path canonical = std::filesystem::canonical(path.std_path(), error);
  if (error) failWithErrno(error.value(), location, u"iri.canonical");
  return toStorageIRI(scheme, fl::filesystem::path(canonical));
}

fl::filesystem::path fromStorageIRI(StorageIRI const& iri) {
  if (iri.hasInnerIRI() || !iri.hasPath())
    fail(ErrorCode::InvalidLocation, iri, u"iri.toPath", "the location has no local path");
  return fl::filesystem::path(fl::i18n::to_utf8(iri.getPath()));
}

} // namespace foundation::storage::provider
