// Conversions between local file-system paths and locations.

#include "storage_iri_rep.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/posix_errors.hpp>

#include <fl/i18n/i18n.hpp>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace foundation::storage::provider {

namespace {

/// The location of `names` (an absolute path as UTF-16) under `scheme`.
StorageIRI locationOf(std::u16string const& scheme, std::u16string_view names) {
  auto rep = std::make_shared<StorageIRI::Rep>();
  rep->scheme = iri::normaliseScheme(scheme);
  rep->hasPath = true;
  iri::appendNames(rep->path, names);
  iri::seal(*rep);
  return RepAccess::wrap(std::move(rep));
}

/// Fails for a path that has no location, naming the nearest one: the path with what cannot
/// be part of a name (NULs, bytes that are not UTF-8) left out; for a relative path, the
/// scheme alone, without a path. The path itself, byte for byte, is in the message.
[[noreturn]] void failForPath(std::u16string const& scheme, std::string const& text, std::string const& why) {
  StorageIRI nearest;
  if (!text.empty() && text[0] == '/') {
    std::string readable = text;
    std::erase(readable, '\0');
    nearest = locationOf(scheme, fl::i18n::to_ustring(readable));
  } else {
    auto rep = std::make_shared<StorageIRI::Rep>();
    rep->scheme = iri::normaliseScheme(scheme);
    iri::seal(*rep);
    nearest = RepAccess::wrap(std::move(rep));
  }
  std::string shown;
  for (unsigned char c : text) {
    if (c >= 0x20 && c < 0x7F && c != '\\') {
      shown += static_cast<char>(c);
    } else {
      char escaped[5];
      std::snprintf(escaped, sizeof escaped, "\\x%02X", c);
      shown += escaped;
    }
  }
  fail(ErrorCode::InvalidLocation, nearest, u"iri.fromPath", why + ": \"" + shown + "\"");
}

} // namespace

StorageIRI toStorageIRI(std::u16string const& scheme, fl::filesystem::path const& path) {
  std::string const& text = path.std_path().native();
  if (text.find('\0') != std::string::npos) failForPath(scheme, text, "a NUL character in the path");
  if (text.empty() || text[0] != '/') failForPath(scheme, text, "not an absolute path");
  std::u16string names;
  try {
    names = fl::i18n::strict::utf8_to_utf16(text);
  } catch (std::invalid_argument const&) {
    failForPath(scheme, text, "a path that is not UTF-8");
  }
  return locationOf(scheme, names);
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
