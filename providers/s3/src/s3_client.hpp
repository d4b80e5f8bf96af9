#pragma once

// Signed S3 requests over pooled libcurl handles, retried with bounded exponential
// backoff when the store throttles, fails (5xx) or drops the connection.

#include "s3_xml.hpp"

#include <foundation/storage/providers/s3/s3_settings.hpp>

#include <foundation/storage/provider/storage_iri.hpp>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::storage::providers::s3::detail {

struct HttpRequest {
  std::string method = "GET";
  /// The object key (UTF-8, unencoded); empty addresses the bucket.
  std::string key;
  /// Names and values unencoded; an empty value is sent as "name=".
  std::vector<std::pair<std::string, std::string>> query;
  std::vector<std::pair<std::string, std::string>> headers;
  std::string_view body;
};

struct HttpResponse {
  long status = 0;
  std::string reason;                         ///< the status line's text ("Forbidden")
  std::map<std::string, std::string> headers; ///< names lowercase
  std::string body;

  bool ok() const noexcept { return status >= 200 && status < 300; }
  /// The header's value; empty when absent.
  std::string header(std::string const& lowercaseName) const;
};

/// Where a request was made for, so that its failure names the location and the call.
struct Site {
  provider::StorageIRI const& location;
  std::u16string call; ///< the context key, "s3.listAll"
};

/// Throws IOError for an answer to `request` that could not be read (`why`).
[[noreturn]] void failUnreadable(HttpRequest const& request, std::string const& why, Site const& site);

/// What `read` makes of the answer `body` to `request`; a body it finds malformed is
/// IOError naming the request, so that a garbled answer never passes for an empty one.
template <class Read>
auto readAnswer(HttpRequest const& request, std::string_view body, Site const& site, Read const& read) {
  try {
    return read(body);
  } catch (MalformedDocument const& e) {
    failUnreadable(request, e.what(), site);
  }
}

class S3Client {
public:
  /// Counts every request it sends in `requests`.
  S3Client(S3Settings settings, std::string bucket, std::shared_ptr<std::atomic<std::uint64_t>> requests);
  ~S3Client();
  S3Client(S3Client const&) = delete;
  S3Client& operator=(S3Client const&) = delete;

  /// Any HTTP answer after retries; a connection that keeps failing is IOError.
  HttpResponse send(HttpRequest const& request, Site const& site);
  /// A 2xx answer; anything else is the provider Exception mapped from the status.
  HttpResponse perform(HttpRequest const& request, Site const& site);
  /// What `read` makes of a 2xx answer's body (see `readAnswer`).
  template <class Read>
  auto performAndRead(HttpRequest const& request, Site const& site, Read const& read) {
    return readAnswer(request, perform(request, site).body, site, read);
  }

  S3Settings const& settings() const noexcept { return settings_; }
  std::string const& bucket() const noexcept { return bucket_; }

private:
  struct Handle;
  std::unique_ptr<Handle> acquire();
  void release(std::unique_ptr<Handle> handle);
  HttpResponse attempt(Handle& handle, HttpRequest const& request, std::string& transportError);

  S3Settings const settings_;
  std::string const bucket_;
  std::string scheme_;   ///< "http" or "https"
  std::string host_;     ///< as sent in Host:
  std::string basePath_; ///< "/bucket" in path style, else ""
  std::mutex poolMutex_;
  std::vector<std::unique_ptr<Handle>> pool_;
  std::shared_ptr<std::atomic<std::uint64_t>> requests_;
};

/// Throws the provider Exception for a failed answer: 404 ResourceNotFound, 403
/// PermissionDenied, quota errors NoSpaceLeft, 412 ResourceAlreadyExists, others IOError;
/// the context carries the status, the store's code and message and the request id.
[[noreturn]] void failWith(HttpResponse const& response, Site const& site);

} // namespace foundation::storage::providers::s3::detail
