#include "sigv4.hpp"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <array>
#include <stdexcept>

namespace foundation::storage::providers::s3::detail {

namespace {

std::string hex(unsigned char const* bytes, std::size_t n) {
  static char const digits[] = "0123456789abcdef";
  std::string out(2 * n, '0');
  for (std::size_t i = 0; i < n; ++i) {
    out[2 * i] = digits[bytes[i] >> 4];
    out[2 * i + 1] = digits[bytes[i] & 15];
  }
  return out;
}

std::string digest(EVP_MD const* md, std::string_view data) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> out{};
  unsigned int n = 0;
  if (EVP_Digest(data.data(), data.size(), out.data(), &n, md, nullptr) != 1) throw std::runtime_error("digest failed");
  return std::string(reinterpret_cast<char const*>(out.data()), n);
}

std::string hmac(std::string_view key, std::string_view data) {
  std::array<unsigned char, EVP_MAX_MD_SIZE> out{};
  unsigned int n = 0;
  if (!HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), reinterpret_cast<unsigned char const*>(data.data()),
            data.size(), out.data(), &n))
    throw std::runtime_error("HMAC failed");
  return std::string(reinterpret_cast<char const*>(out.data()), n);
}

} // namespace

std::string sha256Hex(std::string_view data) {
  auto d = digest(EVP_sha256(), data);
  return hex(reinterpret_cast<unsigned char const*>(d.data()), d.size());
}

std::string md5Base64(std::string_view data) {
  auto d = digest(EVP_md5(), data);
  std::array<unsigned char, 32> out{};
  int n = EVP_EncodeBlock(out.data(), reinterpret_cast<unsigned char const*>(d.data()), static_cast<int>(d.size()));
  return std::string(reinterpret_cast<char const*>(out.data()), static_cast<std::size_t>(n));
}

std::string uriEncode(std::string_view text, bool keepSlash) {
  static char const digits[] = "0123456789ABCDEF";
  std::string out;
  out.reserve(text.size());
  for (unsigned char c : text) {
    bool const unreserved = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
                            c == '_' || c == '.' || c == '~' || (keepSlash && c == '/');
    if (unreserved) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += digits[c >> 4];
      out += digits[c & 15];
    }
  }
  return out;
}

std::string authorization(SigningInput const& input, Credentials const& credentials) {
  std::string canonicalHeaders, signedHeaders;
  for (auto const& [name, value] : input.headers) {
    canonicalHeaders += name + ':' + value + '\n';
    if (!signedHeaders.empty()) signedHeaders += ';';
    signedHeaders += name;
  }
  std::string const canonicalRequest = input.method + '\n' + input.canonicalUri + '\n' + input.canonicalQuery + '\n' +
                                       canonicalHeaders + '\n' + signedHeaders + '\n' + input.payloadHash;
  std::string const day = input.amzDate.substr(0, 8);
  std::string const scope = day + '/' + input.region + '/' + input.service + "/aws4_request";
  std::string const stringToSign =
      "AWS4-HMAC-SHA256\n" + input.amzDate + '\n' + scope + '\n' + sha256Hex(canonicalRequest);
  std::string key = hmac("AWS4" + credentials.secretAccessKey, day);
  key = hmac(key, input.region);
  key = hmac(key, input.service);
  key = hmac(key, "aws4_request");
  auto const signature = hmac(key, stringToSign);
  return "AWS4-HMAC-SHA256 Credential=" + credentials.accessKeyId + '/' + scope + ", SignedHeaders=" + signedHeaders +
         ", Signature=" + hex(reinterpret_cast<unsigned char const*>(signature.data()), signature.size());
}

} // namespace foundation::storage::providers::s3::detail
