#pragma once

// The S3 endpoint the s3 tests run against: the one the AWS_* variables name, as
// `eval "$(scripts/ceph-s3.sh start)"` sets them for a local Ceph gateway.

#include <foundation/storage/providers/s3/s3_provider.hpp>

#include <atomic>
#include <memory>
#include <string>
#include <unistd.h>

namespace testsupport {

namespace s3 = foundation::storage::providers::s3;

/// The bucket the tests work in.
inline std::u16string const s3TestBucket = u"vfs-tests";

inline std::shared_ptr<s3::S3Provider> makeS3Provider(s3::S3Settings settings = s3::S3Settings::fromEnvironment()) {
  settings.retries = 2; // a test gateway that fails keeps failing; do not wait long for it
  return std::make_shared<s3::S3Provider>(s3TestBucket, std::move(settings));
}

/// Why the s3 tests cannot run (no endpoint configured or none answering); empty when
/// they can. Creates the test bucket on first use.
inline std::string s3Unavailable() {
  static std::string const reason = []() -> std::string {
    if (s3::S3Settings::fromEnvironment().endpoint.empty())
      return "no S3 endpoint: run `eval \"$(scripts/ceph-s3.sh start)\"` (or set AWS_ENDPOINT_URL and the keys)";
    try {
      makeS3Provider()->createBucket();
      return {};
    } catch (std::exception const& e) {
      return std::string("the S3 endpoint does not answer (start it with scripts/ceph-s3.sh start): ") + e.what();
    }
  }();
  return reason;
}

/// A folder name no other test process uses.
inline std::u16string uniqueS3FolderName(std::u16string const& stem) {
  static std::atomic<int> counter{0};
  auto text = std::to_string(::getpid()) + "-" + std::to_string(counter++);
  return stem + u"-" + std::u16string(text.begin(), text.end());
}

} // namespace testsupport

/// Skips the test when no S3 endpoint answers.
#define SKIP_WITHOUT_S3()                                                                                              \
  do {                                                                                                                 \
    if (auto reason = ::testsupport::s3Unavailable(); !reason.empty()) GTEST_SKIP() << reason;                         \
  } while (false)
