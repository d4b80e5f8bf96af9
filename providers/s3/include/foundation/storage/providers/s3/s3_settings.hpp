#pragma once

#include <foundation/core/visibility.hpp>

#include <boost/property_tree/ptree_fwd.hpp>

#include <chrono>
#include <cstdint>
#include <string>

namespace foundation::storage::providers::s3 {

/// Where and how the s3 provider talks to its object store.
struct S3Settings {
  /// "http(s)://host[:port]"; empty means the public AWS endpoint of `region`.
  std::string endpoint;
  std::string region = "us-east-1";
  std::string accessKeyId;
  std::string secretAccessKey;
  /// Temporary credentials add a session token.
  std::string sessionToken;
  /// "endpoint/bucket/key" rather than "bucket.endpoint/key"; on for a custom endpoint.
  bool pathStyle = false;
  std::chrono::milliseconds connectTimeout{10'000};
  /// Longest silence on a connection before a request is abandoned (and retried).
  std::chrono::milliseconds requestTimeout{60'000};
  /// Further attempts after a throttled, failed (5xx) or dropped request.
  unsigned retries = 4;
  /// Bytes per part of multipart uploads, per ranged GET of large reads; at least 5 MiB.
  std::uint64_t partSize = 8ull << 20;
  /// Parts uploaded or ranges fetched at the same time by one stream.
  unsigned parallelism = 4;

  /// The settings command-line users already have: AWS_ACCESS_KEY_ID,
  /// AWS_SECRET_ACCESS_KEY, AWS_SESSION_TOKEN, AWS_REGION (or AWS_DEFAULT_REGION) and
  /// AWS_ENDPOINT_URL.
  FOUNDATION_API static S3Settings fromEnvironment();
  /// Applies the keys of `configure`: "endpoint", "region", "accessKeyId",
  /// "secretAccessKey", "sessionToken", "pathStyle", "connectTimeoutMs",
  /// "requestTimeoutMs", "retries", "partSize", "parallelism". An unknown key or a bad
  /// value throws std::invalid_argument naming it.
  FOUNDATION_API void apply(boost::property_tree::ptree const& settings);
};

} // namespace foundation::storage::providers::s3
