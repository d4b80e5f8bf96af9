#include "s3_xml.hpp"

#include <libxml/parser.h>
#include <libxml/tree.h>

#include <charconv>
#include <memory>
#include <stdexcept>

namespace foundation::storage::providers::s3::detail {

namespace {

using Document = std::unique_ptr<xmlDoc, decltype(&xmlFreeDoc)>;

Document parse(std::string_view body) {
  Document doc(xmlReadMemory(body.data(), static_cast<int>(body.size()), nullptr, nullptr,
                             XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING | XML_PARSE_RECOVER),
               &xmlFreeDoc);
  return doc;
}

bool named(xmlNode const* node, char const* name) {
  return node->type == XML_ELEMENT_NODE && xmlStrcmp(node->name, reinterpret_cast<xmlChar const*>(name)) == 0;
}

std::string text(xmlNode const* node) {
  std::unique_ptr<xmlChar, decltype(xmlFree)> content(xmlNodeGetContent(node), xmlFree);
  return content ? reinterpret_cast<char const*>(content.get()) : "";
}

/// The text of the first child element called `name`; empty when there is none.
std::string childText(xmlNode const* parent, char const* name) {
  for (xmlNode const* child = parent->children; child; child = child->next)
    if (named(child, name)) return text(child);
  return {};
}

/// The root element, which must be `name`: a parser that tolerates the store's stray
/// control characters would otherwise read any other document as an empty answer.
xmlNode* rootOf(Document const& doc, std::string_view body, char const* name) {
  xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
  if (!root || !named(root, name))
    throw MalformedDocument(std::string("expected <") + name + ">, received \"" + std::string(body.substr(0, 200)) +
                            "\"");
  return root;
}

std::uint64_t number(std::string const& text, char const* what) {
  std::uint64_t value = 0;
  auto const [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size())
    throw MalformedDocument(std::string(what) + " is not a number: \"" + text.substr(0, 40) + "\"");
  return value;
}

} // namespace

std::optional<StoreError> parseError(std::string_view body) {
  if (body.empty()) return std::nullopt;
  auto doc = parse(body);
  xmlNode* root = doc ? xmlDocGetRootElement(doc.get()) : nullptr;
  if (!root || !named(root, "Error")) return std::nullopt;
  return StoreError{childText(root, "Code"), childText(root, "Message"), childText(root, "RequestId")};
}

ListPage parseListPage(std::string_view body) {
  auto doc = parse(body);
  ListPage page;
  for (xmlNode const* child = rootOf(doc, body, "ListBucketResult")->children; child; child = child->next) {
    if (named(child, "Contents")) {
      auto key = childText(child, "Key");
      if (key.empty()) throw MalformedDocument("a listed object has no key");
      page.objects.push_back(
          {std::move(key), number(childText(child, "Size"), "a listed size"), childText(child, "LastModified")});
    } else if (named(child, "CommonPrefixes")) {
      page.prefixes.push_back(childText(child, "Prefix"));
    } else if (named(child, "IsTruncated")) {
      page.truncated = text(child) == "true";
    } else if (named(child, "NextContinuationToken")) {
      page.continuationToken = text(child);
    }
  }
  return page;
}

std::string parseUploadId(std::string_view body) {
  auto doc = parse(body);
  auto id = childText(rootOf(doc, body, "InitiateMultipartUploadResult"), "UploadId");
  if (id.empty()) throw MalformedDocument("the store started an upload without naming it");
  return id;
}

std::string parseETag(std::string_view body) {
  auto doc = parse(body);
  auto etag = childText(rootOf(doc, body, "CopyPartResult"), "ETag");
  if (etag.empty()) throw MalformedDocument("the store copied a part without naming it");
  return etag;
}

std::vector<std::pair<std::string, std::string>> parseDeleteFailures(std::string_view body) {
  auto doc = parse(body);
  std::vector<std::pair<std::string, std::string>> failures;
  for (xmlNode const* child = rootOf(doc, body, "DeleteResult")->children; child; child = child->next)
    if (named(child, "Error")) failures.emplace_back(childText(child, "Key"), childText(child, "Code"));
  return failures;
}

namespace {

xmlChar const* x(char const* text) { return reinterpret_cast<xmlChar const*>(text); }

/// A new document with an empty root element of that name.
Document document(char const* rootName) {
  Document doc(xmlNewDoc(x("1.0")), &xmlFreeDoc);
  xmlDocSetRootElement(doc.get(), xmlNewNode(nullptr, x(rootName)));
  return doc;
}

/// Appends <name>value</name>, escaping the value.
xmlNode* add(xmlNode* parent, char const* name, std::string const& value = {}) {
  return xmlNewTextChild(parent, nullptr, x(name), value.empty() ? nullptr : x(value.c_str()));
}

std::string serialise(Document const& doc) {
  xmlChar* bytes = nullptr;
  int size = 0;
  xmlDocDumpMemoryEnc(doc.get(), &bytes, &size, "UTF-8");
  std::unique_ptr<xmlChar, decltype(xmlFree)> owned(bytes, xmlFree);
  if (!bytes) throw std::runtime_error("could not write a request document");
  return std::string(reinterpret_cast<char const*>(bytes), static_cast<std::size_t>(size));
}

} // namespace

std::string deleteRequestBody(std::vector<std::string> const& keys) {
  auto doc = document("Delete");
  xmlNode* root = xmlDocGetRootElement(doc.get());
  add(root, "Quiet", "true");
  for (auto const& key : keys) add(add(root, "Object"), "Key", key);
  return serialise(doc);
}

std::string completeUploadBody(std::vector<std::string> const& etags) {
  auto doc = document("CompleteMultipartUpload");
  xmlNode* root = xmlDocGetRootElement(doc.get());
  for (std::size_t i = 0; i < etags.size(); ++i) {
    xmlNode* part = add(root, "Part");
    add(part, "PartNumber", std::to_string(i + 1));
    add(part, "ETag", etags[i]);
  }
  return serialise(doc);
}

} // namespace foundation::storage::providers::s3::detail
