#include "s3_objects.hpp"

#include "sigv4.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <memory>

namespace foundation::storage::providers::s3::detail {

namespace p = foundation::storage::provider;
namespace pt = boost::posix_time;

namespace {

pt::ptime const epoch(boost::gregorian::date(1970, 1, 1));

/// Parts of a multipart server-side copy.
constexpr std::uint64_t copyPartSize = 1ull << 30;

std::string copySource(S3Client const& client, std::string const& key) {
  return "/" + uriEncode(client.bucket(), false) + "/" + uriEncode(key, true);
}

/// The headers of a copy from `key` as it was when its ETag was `etag`. Ceph's gateway
/// reads that condition only under its older name, and ignores the standard one.
std::vector<std::pair<std::string, std::string>> copySourceHeaders(S3Client const& client, std::string const& key,
                                                                   std::string const& etag) {
  return {{"x-amz-copy-source", copySource(client, key)},
          {"x-amz-copy-source-if-match", etag},
          {"x-amz-copy-if-match", etag}};
}

/// A 200 answer may still carry an error document (copies, completions).
void failOnErrorDocument(std::string_view body, Site const& site) {
  if (parseError(body)) failWith({500, {}, {}, std::string(body)}, site);
}

/// A copy's answer. Its only precondition is on the source (x-amz-copy-source-if-match):
/// failing, it means the source changed, not that the destination is in the way.
HttpResponse performCopy(S3Client& client, HttpRequest const& request, Site const& site) {
  auto response = client.send(request, site);
  if (response.status == 412)
    p::fail(p::ErrorCode::IOError, site.location, site.call, "the source changed while it was copied");
  if (!response.ok()) failWith(response, site);
  return response;
}

std::string urlDecode(std::string const& text) {
  int length = 0;
  std::unique_ptr<char, decltype(&curl_free)> decoded(
      curl_easy_unescape(nullptr, text.data(), static_cast<int>(text.size()), &length), &curl_free);
  if (!decoded) throw std::bad_alloc();
  return std::string(decoded.get(), static_cast<std::size_t>(length));
}

} // namespace

std::string formatMtime(pt::ptime const& time) {
  auto const since = time - epoch;
  auto const micros = since.total_microseconds();
  auto const seconds = micros / 1'000'000;
  auto const fraction = micros % 1'000'000;
  char text[40];
  std::snprintf(text, sizeof text, "%lld.%06lld", static_cast<long long>(seconds), static_cast<long long>(fraction));
  return text;
}

std::optional<pt::ptime> parseMtime(std::string const& text) {
  long long seconds = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), seconds);
  if (error != std::errc()) return std::nullopt;
  long long micros = 0;
  if (end != text.data() + text.size()) {
    if (*end != '.') return std::nullopt;
    std::string digits(end + 1, text.data() + text.size());
    digits = (digits + "000000").substr(0, 6);
    if (std::from_chars(digits.data(), digits.data() + 6, micros).ec != std::errc()) return std::nullopt;
  }
  return epoch + pt::seconds(seconds) + pt::microseconds(micros);
}

pt::ptime parseIsoTime(std::string const& text) {
  // "2024-01-02T03:04:05.000Z"
  std::string iso = text;
  if (!iso.empty() && iso.back() == 'Z') iso.pop_back();
  if (auto t = iso.find('T'); t != std::string::npos) iso[t] = ' ';
  try {
    return pt::time_from_string(iso);
  } catch (std::exception const&) {
    return unknownTime();
  }
}

pt::ptime unknownTime() { return epoch; }

std::optional<pt::ptime> s3cmdMtime(std::string const& attributes) {
  // "atime:1795421301/ctime:.../mtime:1795421301/uid:0"
  auto const at = attributes.find("mtime:");
  if (at == std::string::npos || (at > 0 && attributes[at - 1] != '/')) return std::nullopt;
  auto const end = attributes.find('/', at);
  return parseMtime(attributes.substr(at + 6, end == std::string::npos ? end : end - at - 6));
}

std::optional<ObjectInfo> headObject(S3Client& client, std::string const& key, Site const& site) {
  auto response = client.send({"HEAD", key, {}, {}, {}}, site);
  if (response.status == 404) return std::nullopt;
  if (!response.ok()) failWith(response, site);
  ObjectInfo info;
  info.size = std::stoull("0" + response.header("content-length"));
  info.etag = response.header("etag");
  info.contentType = response.header("content-type");
  for (auto const& [name, value] : response.headers)
    if (name.starts_with("x-amz-meta-")) info.metadata[name.substr(11)] = value;
  if (auto kept = parseMtime(response.header(mtimeHeader))) {
    info.modified = *kept;
  } else if (auto s3cmd = s3cmdMtime(response.header("x-amz-meta-s3cmd-attrs"))) {
    info.modified = *s3cmd;
  } else {
    std::time_t const stored = curl_getdate(response.header("last-modified").c_str(), nullptr);
    info.modified = stored < 0 ? unknownTime() : pt::from_time_t(stored);
  }
  return info;
}

ListPage listPage(S3Client& client, std::string const& prefix, bool delimited, std::string const& token,
                  std::size_t maxKeys, Site const& site) {
  // Keys come URL-encoded: raw, a control character would make the answer invalid XML.
  HttpRequest request{
      "GET",
      "",
      {{"list-type", "2"}, {"prefix", prefix}, {"max-keys", std::to_string(maxKeys)}, {"encoding-type", "url"}},
      {},
      {}};
  if (delimited) request.query.emplace_back("delimiter", "/");
  if (!token.empty()) request.query.emplace_back("continuation-token", token);
  auto page = client.performAndRead(request, site, parseListPage);
  for (auto& object : page.objects) object.key = urlDecode(object.key);
  for (auto& common : page.prefixes) common = urlDecode(common);
  return page;
}

void forEachPage(S3Client& client, std::string const& prefix, bool delimited,
                 std::function<void(ListPage const&)> const& visit, Site const& site) {
  std::string token;
  do {
    auto page = listPage(client, prefix, delimited, token, keysPerRequest, site);
    visit(page);
    token = page.truncated ? page.continuationToken : std::string();
  } while (!token.empty());
}

bool anyKeyWithPrefix(S3Client& client, std::string const& prefix, Site const& site) {
  auto page = listPage(client, prefix, false, {}, 1, site);
  return !page.objects.empty() || !page.prefixes.empty();
}

FolderPresence folderPresence(S3Client& client, std::string const& folderKey, Site const& site) {
  auto const page = listPage(client, folderKey + "/", false, {}, 1, site);
  if (page.objects.empty()) return FolderPresence::Missing;
  return page.objects.front().key == folderKey + "/" ? FolderPresence::Marked : FolderPresence::Implied;
}

void dropRedundantMarker(S3Client& client, std::string const& markerKey, Site const& site) noexcept {
  try {
    deleteObject(client, markerKey, site);
  } catch (...) {
  }
}

std::string getRange(S3Client& client, std::string const& key, std::string const& etag, std::uint64_t offset,
                     std::uint64_t length, Site const& site) {
  if (length == 0) return {};
  auto response = client.send(
      {"GET",
       key,
       {},
       {{"range", "bytes=" + std::to_string(offset) + "-" + std::to_string(offset + length - 1)}, {"if-match", etag}},
       {}},
      site);
  if (response.status == 412)
    p::fail(p::ErrorCode::IOError, site.location, site.call, "the object was replaced while it was read");
  if (!response.ok()) failWith(response, site);
  if (response.body.size() != length)
    p::fail(p::ErrorCode::IOError, site.location, site.call,
            "asked for " + std::to_string(length) + " bytes, received " + std::to_string(response.body.size()));
  return std::move(response.body);
}

void putObject(S3Client& client, std::string const& key, std::string_view body,
               std::vector<std::pair<std::string, std::string>> headers, Site const& site) {
  client.perform({"PUT", key, {}, std::move(headers), body}, site);
}

void copyObject(S3Client& client, std::string const& from, ObjectInfo const& source, std::string const& to,
                std::optional<std::vector<std::pair<std::string, std::string>>> const& replaceMetadata,
                Site const& site, std::function<void(std::uint64_t)> const& progress) {
  std::vector<std::pair<std::string, std::string>> metadata;
  if (replaceMetadata) {
    metadata = *replaceMetadata;
  } else {
    for (auto const& [name, value] : source.metadata) metadata.emplace_back("x-amz-meta-" + name, value);
  }
  if (!source.contentType.empty()) metadata.emplace_back("content-type", source.contentType);

  if (source.size <= largestSingleCopy) {
    auto headers = metadata;
    for (auto& header : copySourceHeaders(client, from, source.etag)) headers.push_back(std::move(header));
    headers.emplace_back("x-amz-metadata-directive", replaceMetadata ? "REPLACE" : "COPY");
    failOnErrorDocument(performCopy(client, {"PUT", to, {}, std::move(headers), {}}, site).body, site);
    if (progress) progress(source.size);
    return;
  }
  // Beyond 5 GiB the store copies only in parts.
  auto const uploadId = client.performAndRead({"POST", to, {{"uploads", ""}}, metadata, {}}, site, parseUploadId);
  try {
    std::vector<std::string> etags;
    for (std::uint64_t offset = 0; offset < source.size; offset += copyPartSize) {
      std::uint64_t const last = std::min(source.size, offset + copyPartSize) - 1;
      auto headers = copySourceHeaders(client, from, source.etag);
      headers.emplace_back("x-amz-copy-source-range", "bytes=" + std::to_string(offset) + "-" + std::to_string(last));
      HttpRequest const part{"PUT",
                             to,
                             {{"partNumber", std::to_string(etags.size() + 1)}, {"uploadId", uploadId}},
                             std::move(headers),
                             {}};
      etags.push_back(readAnswer(part, performCopy(client, part, site).body, site, [&](std::string_view body) {
        failOnErrorDocument(body, site);
        return parseETag(body);
      }));
      if (progress) progress(last + 1);
    }
    failOnErrorDocument(
        client.perform({"POST", to, {{"uploadId", uploadId}}, {}, completeUploadBody(etags)}, site).body, site);
  } catch (...) {
    client.send({"DELETE", to, {{"uploadId", uploadId}}, {}, {}}, site);
    throw;
  }
}

namespace {
/// The claim's metadata name (after "x-amz-meta-").
constexpr char const* claimMetadata = "vfs-claim";
} // namespace

void claimKey(S3Client& client, std::string const& key, std::string const& token, Site const& site) {
  putObject(client, key, {}, {{"if-none-match", "*"}, {std::string("x-amz-meta-") + claimMetadata, token}}, site);
}

void releaseClaim(S3Client& client, std::string const& key, std::string const& token, Site const& site) noexcept {
  try {
    auto info = headObject(client, key, site);
    if (!info || info->size != 0) return;
    auto const claim = info->metadata.find(claimMetadata);
    if (claim != info->metadata.end() && claim->second == token) deleteObject(client, key, site);
  } catch (...) {
    // A claim left behind is an empty object where there was none: nothing old is lost.
  }
}

std::string newClaimToken() { return boost::uuids::to_string(boost::uuids::random_generator()()); }

void deleteObject(S3Client& client, std::string const& key, Site const& site) {
  auto response = client.send({"DELETE", key, {}, {}, {}}, site);
  if (!response.ok() && response.status != 404) failWith(response, site);
}

void deleteObjects(S3Client& client, std::vector<std::string> const& keys, Site const& site) {
  // XML cannot carry control characters faithfully: such keys go one request each.
  std::vector<std::string> batchable;
  for (auto const& key : keys) {
    if (std::any_of(key.begin(), key.end(), [](char c) { return static_cast<unsigned char>(c) < 0x20; }))
      deleteObject(client, key, site);
    else
      batchable.push_back(key);
  }
  for (std::size_t start = 0; start < batchable.size(); start += keysPerRequest) {
    std::vector<std::string> batch(batchable.begin() + static_cast<std::ptrdiff_t>(start),
                                   batchable.begin() +
                                       static_cast<std::ptrdiff_t>(std::min(batchable.size(), start + keysPerRequest)));
    auto const body = deleteRequestBody(batch);
    auto const failures = client.performAndRead(
        {"POST", "", {{"delete", ""}}, {{"content-md5", md5Base64(body)}, {"content-type", "application/xml"}}, body},
        site, parseDeleteFailures);
    if (!failures.empty())
      p::fail(p::ErrorCode::IOError, site.location, site.call,
              "could not delete \"" + failures.front().first + "\": " + failures.front().second);
  }
}

} // namespace foundation::storage::providers::s3::detail
