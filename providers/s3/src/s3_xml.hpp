#pragma once

// The XML documents of the S3 protocol, read and written with libxml2.

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace foundation::storage::providers::s3::detail {

struct StoreError {
  std::string code;
  std::string message;
  std::string requestId;
};

struct ListedObject {
  std::string key;
  std::uint64_t size = 0;
  std::string lastModified; ///< ISO 8601, "2024-01-02T03:04:05.000Z"
};

/// One page of ListObjectsV2.
struct ListPage {
  std::vector<ListedObject> objects;
  std::vector<std::string> prefixes;
  bool truncated = false;
  std::string continuationToken;
};

/// A body that is not the document its request answers with (a proxy's page, a cut or
/// garbled answer). The parsers below throw it; callers name the request that got it.
class MalformedDocument : public std::runtime_error {
public:
  using std::runtime_error::runtime_error;
};

/// The error a body describes, if its root element is <Error>.
std::optional<StoreError> parseError(std::string_view body);
ListPage parseListPage(std::string_view body);
/// The UploadId of InitiateMultipartUploadResult.
std::string parseUploadId(std::string_view body);
/// The ETag of a part copy (CopyPartResult).
std::string parseETag(std::string_view body);
/// The keys a multi-object delete could not remove, with the store's reason.
std::vector<std::pair<std::string, std::string>> parseDeleteFailures(std::string_view body);

/// The body of a quiet multi-object delete of `keys`.
std::string deleteRequestBody(std::vector<std::string> const& keys);
/// The body completing a multipart upload from its parts' ETags, in part order.
std::string completeUploadBody(std::vector<std::string> const& etags);

} // namespace foundation::storage::providers::s3::detail
