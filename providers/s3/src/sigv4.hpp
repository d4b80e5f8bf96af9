#pragma once

// AWS Signature Version 4 with OpenSSL. The caller gives the canonical parts already
// encoded, so that what is signed is byte for byte what goes on the wire.

#include <map>
#include <string>
#include <string_view>

namespace foundation::storage::providers::s3::detail {

struct Credentials {
  std::string accessKeyId;
  std::string secretAccessKey;
};

struct SigningInput {
  std::string method;
  std::string canonicalUri;   ///< the encoded path, "/" at least
  std::string canonicalQuery; ///< "a=1&b=" with names sorted, both sides encoded
  /// Every signed header, names lowercase, values as sent.
  std::map<std::string, std::string> headers;
  std::string payloadHash; ///< hex SHA-256 of the body, or "UNSIGNED-PAYLOAD"
  std::string amzDate;     ///< "20130524T000000Z"
  std::string region;
  std::string service = "s3";
};

/// The Authorization header's value.
std::string authorization(SigningInput const& input, Credentials const& credentials);

std::string sha256Hex(std::string_view data);
/// Base64 of the MD5 digest, for Content-MD5.
std::string md5Base64(std::string_view data);
/// Percent-encodes every byte but the unreserved ones (and '/' when `keepSlash`).
std::string uriEncode(std::string_view text, bool keepSlash);

} // namespace foundation::storage::providers::s3::detail
