// Parsing and printing of IRI text: the grammar, percent-encoding and normalisation.

#include "storage_iri_rep.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <stdexcept>

namespace foundation::storage::provider::iri {

namespace {

using fl::i18n::lcctype::isalnum_ascii;
using fl::i18n::lcctype::isalpha_ascii;

[[noreturn]] void reject(std::u16string_view text, std::string const& reason) {
  fail(ErrorCode::InvalidLocation, StorageIRI(), u"iri.parse", reason + " in \"" + fl::i18n::to_utf8(text) + "\"");
}

bool isSchemeChar(char16_t c) { return isalnum_ascii(c) || c == u'+' || c == u'-' || c == u'.'; }

/// Length of the scheme that `s` starts with (followed by ':'), or 0. A scheme has at
/// least two characters, so a drive letter ("C:/") is never one.
std::size_t schemeLength(std::u16string_view s) {
  if (s.empty() || !isalpha_ascii(s[0])) return 0;
  std::size_t i = 1;
  while (i < s.size() && isSchemeChar(s[i])) ++i;
  if (i < 2 || i >= s.size() || s[i] != u':') return 0;
  return i;
}

std::u16string lowerAscii(std::u16string_view s) {
  std::u16string out(s);
  for (auto& c : out) c = static_cast<char16_t>(fl::i18n::lcctype::tolower_ascii(c));
  return out;
}

int hexValue(char16_t c) {
  if (c >= u'0' && c <= u'9') return c - u'0';
  if (c >= u'a' && c <= u'f') return c - u'a' + 10;
  if (c >= u'A' && c <= u'F') return c - u'A' + 10;
  return -1;
}

bool isHighSurrogate(char16_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(char16_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

void checkUtf16(std::u16string_view s, std::u16string_view whole) {
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (isHighSurrogate(s[i]) && i + 1 < s.size() && isLowSurrogate(s[i + 1])) {
      ++i;
    } else if (isHighSurrogate(s[i]) || isLowSurrogate(s[i])) {
      reject(whole, "unpaired surrogate");
    }
  }
}

/// Decodes one name or authority: percent escapes are UTF-8 bytes, other characters are
/// taken as they are. The result must be valid UTF-16 without NUL.
std::u16string decodeComponent(std::u16string_view s, std::u16string_view whole) {
  checkUtf16(s, whole);
  if (s.find(u'%') == std::u16string_view::npos) return std::u16string(s);
  std::string bytes;
  bytes.reserve(s.size());
  for (std::size_t i = 0; i < s.size(); ++i) {
    if (s[i] == u'%') {
      bool complete = i + 2 < s.size();
      int hi = complete ? hexValue(s[i + 1]) : -1;
      int lo = complete ? hexValue(s[i + 2]) : -1;
      if (hi < 0 || lo < 0) reject(whole, "malformed percent escape");
      bytes.push_back(static_cast<char>(hi * 16 + lo));
      i += 2;
    } else {
      std::size_t len = (isHighSurrogate(s[i])) ? 2 : 1;
      bytes += fl::i18n::to_utf8(s.substr(i, len));
      i += len - 1;
    }
  }
  std::u16string decoded;
  try {
    decoded = fl::i18n::strict::utf8_to_utf16(bytes);
  } catch (std::invalid_argument const&) {
    reject(whole, "percent escapes that are not UTF-8");
  }
  if (decoded.find(u'\0') != std::u16string::npos) reject(whole, "NUL in a name");
  return decoded;
}

void parsePath(StorageIRI::Rep& rep, std::u16string_view p, std::u16string_view whole) {
  rep.hasPath = true;
  std::size_t start = 0;
  while (start <= p.size()) {
    std::size_t end = p.find(u'/', start);
    if (end == std::u16string_view::npos) end = p.size();
    if (end > start) {
      std::u16string name = decodeComponent(p.substr(start, end - start), whole);
      if (name.find(u'/') != std::u16string::npos) reject(whole, "an escaped '/' inside a name");
      rep.path += u'/';
      rep.path += name;
    }
    start = end + 1;
  }
  if (rep.path.empty()) rep.path = u"/";
}

void parseInto(StorageIRI::Rep& rep, std::u16string_view s, std::u16string_view whole) {
  std::size_t n = schemeLength(s);
  if (n == 0) reject(whole, "a missing or invalid scheme");
  rep.scheme = lowerAscii(s.substr(0, n));
  std::u16string_view rest = s.substr(n + 1);
  if (rest.starts_with(u"//")) {
    std::size_t end = rest.find(u'/', 2);
    std::u16string authority = decodeComponent(rest.substr(2, end == rest.npos ? rest.npos : end - 2), whole);
    if (authority.find(u'/') != std::u16string::npos) reject(whole, "an escaped '/' in the authority");
    rep.authority = lowerAscii(authority);
    if (rep.scheme == u"file" && rep.authority == u"localhost") rep.authority.clear();
    if (end != rest.npos) parsePath(rep, rest.substr(end), whole);
  } else if (rest.empty()) {
    // A scheme alone: no authority, no path.
  } else if (rest[0] == u'/') {
    parsePath(rep, rest, whole);
  } else if (schemeLength(rest) != 0) {
    // Nested: the outer path follows the last '!' that is followed by '/' or ends the text.
    std::size_t bang = rest.npos;
    for (std::size_t i = rest.size(); i-- > 0;) {
      if (rest[i] == u'!' && (i + 1 == rest.size() || rest[i + 1] == u'/')) {
        bang = i;
        break;
      }
    }
    auto inner = std::make_shared<StorageIRI::Rep>();
    parseInto(*inner, bang == rest.npos ? rest : rest.substr(0, bang), whole);
    seal(*inner);
    rep.inner = std::move(inner);
    if (bang != rest.npos && bang + 1 < rest.size()) parsePath(rep, rest.substr(bang + 1), whole);
  } else {
    reject(whole, "neither '/', '//' nor a nested IRI after the scheme");
  }
}

constexpr char16_t hexDigits[] = u"0123456789ABCDEF";

void appendEscape(std::u16string& out, unsigned char byte) {
  out += u'%';
  out += hexDigits[byte >> 4];
  out += hexDigits[byte & 0xF];
}

bool isUriSafe(unsigned char b, bool encodeBang) {
  if (isalnum_ascii(b)) return true;
  switch (b) {
  case '-':
  case '.':
  case '_':
  case '~': // unreserved
  case '$':
  case '&':
  case '\'':
  case '(':
  case ')':
  case '*': // sub-delims
  case '+':
  case ',':
  case ';':
  case '=':
  case ':':
  case '@': return true;
  case '!': return !encodeBang;
  default: return false;
  }
}

/// Appends one decoded name. The IRI form keeps non-ASCII and spaces raw and escapes only
/// what would change the meaning; the URI form escapes everything outside the safe set.
void appendComponent(std::u16string& out, std::u16string_view name, bool ascii, bool encodeBang) {
  if (!ascii) {
    for (char16_t c : name) {
      if (c == u'%' || c == u'?' || c == u'#' || c < 0x20 || c == 0x7F || (encodeBang && c == u'!')) {
        appendEscape(out, static_cast<unsigned char>(c));
      } else {
        out += c;
      }
    }
    return;
  }
  for (unsigned char b : fl::i18n::to_utf8(name)) {
    if (isUriSafe(b, encodeBang)) {
      out += static_cast<char16_t>(b);
    } else {
      appendEscape(out, b);
    }
  }
}

void appendPath(std::u16string& out, std::u16string_view path, bool ascii, bool encodeBang) {
  if (path == u"/") {
    out += u'/';
    return;
  }
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t end = path.find(u'/', start);
    if (end == path.npos) end = path.size();
    out += u'/';
    appendComponent(out, path.substr(start, end - start), ascii, encodeBang);
    start = end + 1;
  }
}

} // namespace

RepPtr parse(std::u16string_view text) {
  for (char16_t c : text) {
    if (c == u'?' || c == u'#') reject(text, "a raw '?' or '#' (write %3F or %23)");
    if (c == u'\0') reject(text, "a NUL character");
  }
  auto rep = std::make_shared<StorageIRI::Rep>();
  parseInto(*rep, text, text);
  seal(*rep);
  return rep;
}

void print(StorageIRI::Rep const& rep, bool ascii, std::u16string& out) {
  out += rep.scheme;
  out += u':';
  if (rep.inner) {
    print(*rep.inner, ascii, out);
    out += u'!';
    if (rep.hasPath) appendPath(out, rep.path, ascii, true);
    return;
  }
  out += u"//";
  appendComponent(out, rep.authority, ascii, false);
  if (rep.hasPath) appendPath(out, rep.path, ascii, false);
}

std::u16string normaliseScheme(std::u16string_view scheme) {
  std::u16string text(scheme);
  text += u':';
  if (schemeLength(text) != scheme.size()) reject(scheme, "an invalid scheme");
  return lowerAscii(scheme);
}

void appendNames(std::u16string& path, std::u16string_view names) {
  checkUtf16(names, names);
  if (names.find(u'\0') != names.npos) reject(names, "a NUL character in a name");
  if (path == u"/") path.clear();
  std::size_t start = 0;
  while (start <= names.size()) {
    std::size_t end = names.find(u'/', start);
    if (end == names.npos) end = names.size();
    if (end > start) {
      path += u'/';
      path += names.substr(start, end - start);
    }
    start = end + 1;
  }
  if (path.empty()) path = u"/";
}

} // namespace foundation::storage::provider::iri
