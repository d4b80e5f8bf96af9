// Parse, print, parse again: the value and the text must survive unchanged, in both the
// IRI and the ASCII (URI) forms; every derived location must print and parse alike.

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/storage_iri.hpp>

#include <cstdint>
#include <cstdlib>
#include <iostream>

namespace p = foundation::storage::provider;

namespace {

void check(bool condition, char const* what, p::StorageIRI const& iri) {
  if (condition) return;
  std::cerr << "invariant broken: " << what << " for " << iri.toAsciiString() << "\n";
  std::abort();
}

void checkRoundTrip(p::StorageIRI const& iri) {
  std::u16string const text = iri.toString();
  p::StorageIRI const again(text);
  check(again == iri, "parse(toString()) == value", iri);
  check(again.toString() == text, "toString() is stable", iri);
  check(hash_value(again) == hash_value(iri), "equal values hash alike", iri);
  check(!(again < iri) && !(iri < again), "equal values are unordered", iri);
  check(p::StorageIRI::fromUtf8(iri.toAsciiString()) == iri, "parse(toAsciiString()) == value", iri);
  check(p::StorageIRI::fromUtf8(iri.toIRI()) == iri, "parse(toIRI()) == value", iri);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
  // Two code units per input pair: the parser sees arbitrary UTF-16, surrogates included.
  std::u16string text;
  for (std::size_t i = 0; i + 1 < size; i += 2) text.push_back(static_cast<char16_t>(data[i] | (data[i + 1] << 8)));
  p::StorageIRI iri;
  try {
    iri = p::StorageIRI(text);
  } catch (p::Exception const& e) {
    check(e.getErrorCode() == p::ErrorCode::InvalidLocation, "parse failures are InvalidLocation", iri);
    return 0;
  }
  checkRoundTrip(iri);
  if (iri.hasParent()) {
    p::StorageIRI parent = iri.getParent();
    checkRoundTrip(parent);
    check(parent.isAncestorOf(iri), "a parent is an ancestor", iri);
    check(parent < iri, "a parent sorts first", iri);
    check(p::StorageIRI(parent, iri.getName()) == iri, "parent + name == value", iri);
  }
  if (iri.hasInnerIRI()) checkRoundTrip(iri.getInnerIRI());
  if (iri.hasPath()) checkRoundTrip(p::StorageIRI(iri, iri.getResolvedPath()));
  return 0;
}
