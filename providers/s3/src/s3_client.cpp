#include "s3_client.hpp"

#include "s3_xml.hpp"
#include "sigv4.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <fl/i18n/i18n.hpp>

#include <curl/curl.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <stdexcept>
#include <thread>

namespace foundation::storage::providers::s3::detail {

namespace p = foundation::storage::provider;

struct S3Client::Handle {
  CURL* curl;
  Handle() : curl(curl_easy_init()) {
    if (!curl) throw std::runtime_error("libcurl could not make a handle");
  }
  ~Handle() { curl_easy_cleanup(curl); }
};

namespace {

void initialiseCurlOnce() {
  static bool const initialised = [] { return curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK; }();
  if (!initialised) throw std::runtime_error("libcurl failed to initialise");
}

std::string lowercase(std::string text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

std::string amzDateNow() {
  std::time_t const now = std::time(nullptr);
  std::tm utc{};
  gmtime_r(&now, &utc);
  char text[17];
  std::strftime(text, sizeof text, "%Y%m%dT%H%M%SZ", &utc);
  return text;
}

std::size_t appendBody(char* data, std::size_t size, std::size_t count, void* target) {
  static_cast<std::string*>(target)->append(data, size * count);
  return size * count;
}

std::size_t collectHeader(char* data, std::size_t size, std::size_t count, void* target) {
  auto& response = *static_cast<HttpResponse*>(target);
  std::string_view line(data, size * count);
  if (line.starts_with("HTTP/")) {
    response.headers.clear(); // a new answer (after 100 Continue or a redirect)
    auto const code = line.find(' ');
    auto const text = code == std::string_view::npos ? code : line.find(' ', code + 1);
    response.reason = text == std::string_view::npos ? "" : std::string(line.substr(text + 1));
    while (!response.reason.empty() && (response.reason.back() == '\r' || response.reason.back() == '\n'))
      response.reason.pop_back();
  } else if (auto colon = line.find(':'); colon != std::string_view::npos) {
    auto value = line.substr(colon + 1);
    while (!value.empty() && (value.front() == ' ' || value.front() == '\t')) value.remove_prefix(1);
    while (!value.empty() && (value.back() == '\r' || value.back() == '\n' || value.back() == ' '))
      value.remove_suffix(1);
    response.headers[lowercase(std::string(line.substr(0, colon)))] = std::string(value);
  }
  return size * count;
}

bool retryableStatus(long status) {
  return status == 429 || status == 500 || status == 502 || status == 503 || status == 504;
}

bool isQuotaError(std::string const& code) { return code == "QuotaExceeded" || code == "InsufficientCapacity"; }

} // namespace

std::string HttpResponse::header(std::string const& lowercaseName) const {
  auto found = headers.find(lowercaseName);
  return found == headers.end() ? std::string() : found->second;
}

S3Client::S3Client(S3Settings settings, std::string bucket, std::shared_ptr<std::atomic<std::uint64_t>> requests)
    : settings_(std::move(settings)), bucket_(std::move(bucket)), requests_(std::move(requests)) {
  initialiseCurlOnce();
  std::string endpoint =
      settings_.endpoint.empty() ? "https://s3." + settings_.region + ".amazonaws.com" : settings_.endpoint;
  auto schemeEnd = endpoint.find("://");
  if (schemeEnd == std::string::npos)
    throw std::invalid_argument("the endpoint needs http:// or https://: " + endpoint);
  scheme_ = lowercase(endpoint.substr(0, schemeEnd));
  if (scheme_ != "http" && scheme_ != "https")
    throw std::invalid_argument("the endpoint needs http:// or https://: " + endpoint);
  host_ = endpoint.substr(schemeEnd + 3);
  host_ = lowercase(host_.substr(0, host_.find('/')));
  if (settings_.pathStyle) {
    basePath_ = "/" + uriEncode(bucket_, false);
  } else {
    host_ = bucket_ + "." + host_;
  }
}

S3Client::~S3Client() = default;

std::unique_ptr<S3Client::Handle> S3Client::acquire() {
  {
    std::lock_guard lock(poolMutex_);
    if (!pool_.empty()) {
      auto handle = std::move(pool_.back());
      pool_.pop_back();
      return handle;
    }
  }
  return std::make_unique<Handle>();
}

void S3Client::release(std::unique_ptr<Handle> handle) {
  std::lock_guard lock(poolMutex_);
  pool_.push_back(std::move(handle));
}

HttpResponse S3Client::attempt(Handle& handle, HttpRequest const& request, std::string& transportError) {
  CURL* curl = handle.curl;
  curl_easy_reset(curl); // keeps the handle's open connection for reuse

  std::string const path = basePath_ + "/" + uriEncode(request.key, true);
  std::vector<std::pair<std::string, std::string>> query;
  for (auto const& [name, value] : request.query) query.emplace_back(uriEncode(name, false), uriEncode(value, false));
  std::sort(query.begin(), query.end());
  std::string canonicalQuery;
  for (auto const& [name, value] : query) canonicalQuery += (canonicalQuery.empty() ? "" : "&") + name + "=" + value;

  SigningInput signing;
  signing.method = request.method;
  signing.canonicalUri = path;
  signing.canonicalQuery = canonicalQuery;
  signing.amzDate = amzDateNow();
  signing.region = settings_.region;
  // Over TLS the transport protects the body; over plain HTTP its hash is signed too.
  signing.payloadHash = scheme_ == "https" ? "UNSIGNED-PAYLOAD" : sha256Hex(request.body);
  signing.headers["host"] = host_;
  signing.headers["x-amz-date"] = signing.amzDate;
  signing.headers["x-amz-content-sha256"] = signing.payloadHash;
  if (!settings_.sessionToken.empty()) signing.headers["x-amz-security-token"] = settings_.sessionToken;
  for (auto const& [name, value] : request.headers) signing.headers[lowercase(name)] = value;
  bool const hasBody = request.method == "PUT" || request.method == "POST";
  if (hasBody && !signing.headers.count("content-type")) signing.headers["content-type"] = "application/octet-stream";

  curl_slist* headers = nullptr;
  for (auto const& [name, value] : signing.headers) headers = curl_slist_append(headers, (name + ": " + value).c_str());
  headers = curl_slist_append(
      headers,
      ("Authorization: " + authorization(signing, {settings_.accessKeyId, settings_.secretAccessKey})).c_str());
  headers = curl_slist_append(headers, "Expect:");
  std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> ownedHeaders(headers, &curl_slist_free_all);

  std::string const url = scheme_ + "://" + host_ + path + (canonicalQuery.empty() ? "" : "?" + canonicalQuery);
  HttpResponse response;
  char errorText[CURL_ERROR_SIZE] = {};
  curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
  curl_easy_setopt(curl, CURLOPT_HTTPHEADER, headers);
  curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(curl, CURLOPT_ERRORBUFFER, errorText);
  curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings_.connectTimeout.count()));
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
  curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME,
                   std::max(1L, static_cast<long>(settings_.requestTimeout.count() / 1000)));
  curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &appendBody);
  curl_easy_setopt(curl, CURLOPT_WRITEDATA, &response.body);
  curl_easy_setopt(curl, CURLOPT_HEADERFUNCTION, &collectHeader);
  curl_easy_setopt(curl, CURLOPT_HEADERDATA, &response);
  if (request.method == "HEAD") {
    curl_easy_setopt(curl, CURLOPT_NOBODY, 1L);
  } else if (hasBody) {
    curl_easy_setopt(curl, CURLOPT_POSTFIELDS, request.body.data());
    curl_easy_setopt(curl, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  } else if (request.method != "GET") {
    curl_easy_setopt(curl, CURLOPT_CUSTOMREQUEST, request.method.c_str());
  }

  ++*requests_;
  CURLcode const code = curl_easy_perform(curl);
  if (code != CURLE_OK) {
    transportError = std::string(curl_easy_strerror(code)) + (errorText[0] ? std::string(": ") + errorText : "");
    return {};
  }
  curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &response.status);
  return response;
}

HttpResponse S3Client::send(HttpRequest const& request, Site const& site) {
  auto handle = acquire();
  std::string transportError;
  HttpResponse response;
  for (unsigned attemptNumber = 0;; ++attemptNumber) {
    transportError.clear();
    response = attempt(*handle, request, transportError);
    bool const retry = !transportError.empty() || retryableStatus(response.status);
    if (!retry || attemptNumber >= settings_.retries) break;
    // Bounded exponential backoff: 50 ms, 100 ms, ... at most 2 s.
    std::this_thread::sleep_for(std::chrono::milliseconds(std::min(2000u, 50u << std::min(attemptNumber, 6u))));
    if (!transportError.empty()) handle = std::make_unique<Handle>(); // a fresh connection
  }
  release(std::move(handle));
  if (!transportError.empty())
    p::fail(p::ErrorCode::IOError, site.location, site.call,
            request.method + " failed after " + std::to_string(settings_.retries + 1) + " attempts: " + transportError);
  return response;
}

HttpResponse S3Client::perform(HttpRequest const& request, Site const& site) {
  auto response = send(request, site);
  if (!response.ok()) failWith(response, site);
  return response;
}

void failWith(HttpResponse const& response, Site const& site) {
  auto const error = parseError(response.body).value_or(StoreError{});
  auto const requestId = error.requestId.empty() ? response.header("x-amz-request-id") : error.requestId;
  p::ErrorCode code = p::ErrorCode::IOError;
  if (isQuotaError(error.code))
    code = p::ErrorCode::NoSpaceLeft;
  else if (error.code == "EntityTooLarge")
    code = p::ErrorCode::FileTooLarge;
  else if (response.status == 404)
    code = p::ErrorCode::ResourceNotFound;
  else if (response.status == 403)
    code = p::ErrorCode::PermissionDenied;
  else if (response.status == 412)
    code = p::ErrorCode::ResourceAlreadyExists;
  else if (response.status == 400 && error.code == "InvalidArgument")
    code = p::ErrorCode::InvalidLocation;
  std::string message = "HTTP " + std::to_string(response.status);
  if (!response.reason.empty()) message += " " + response.reason;
  if (!error.code.empty()) message += " " + error.code;
  if (!error.message.empty()) message += ": " + error.message;
  if (!requestId.empty()) message += " (request id " + requestId + ")";
  p::fail(code, site.location, site.call, message);
}

void failUnreadable(HttpRequest const& request, std::string const& why, Site const& site) {
  std::string line = request.method + " /" + request.key;
  for (std::size_t i = 0; i < request.query.size(); ++i)
    line += (i == 0 ? "?" : "&") + request.query[i].first +
            (request.query[i].second.empty() ? "" : "=" + request.query[i].second);
  p::fail(p::ErrorCode::IOError, site.location, site.call, "the answer to " + line + " cannot be read: " + why);
}

} // namespace foundation::storage::providers::s3::detail
