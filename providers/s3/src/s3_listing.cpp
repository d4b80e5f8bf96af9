#include "s3_listing.hpp"

#include "s3_objects.hpp"

#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/wildcard.hpp>

#include <fl/i18n/i18n.hpp>

#include <unordered_set>

namespace foundation::storage::providers::s3::detail {

namespace p = foundation::storage::provider;

namespace {

bool isHidden(std::string_view name) { return !name.empty() && name.front() == '.'; }

/// The text of a pattern before its first wildcard: every match starts with it.
std::string literalHead(std::u16string const& pattern) {
  auto const wildcard = pattern.find_first_of(u"*?");
  return fl::i18n::to_utf8(pattern.substr(0, wildcard));
}

std::string_view lastSegment(std::string_view path) {
  auto const slash = path.rfind('/');
  return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

bool wanted(p::ListingRequest const& request, std::string_view name) {
  return request.pattern.empty() || p::matchesWildcard(request.pattern, fl::i18n::to_ustring(name));
}

p::FolderEntry fileEntry(std::string const& name, ListedObject const& object, p::ListingRequest const& request) {
  auto text = fl::i18n::to_ustring(name);
  if (!request.withAttributes) return p::FolderEntry(std::move(text), true);
  return p::FolderEntry(std::move(text), p::FileAttributes(object.size, parseIsoTime(object.lastModified), true,
                                                           isHidden(lastSegment(name)), false));
}

p::FolderEntry folderEntry(std::string const& name, boost::posix_time::ptime modified,
                           p::ListingRequest const& request) {
  auto text = fl::i18n::to_ustring(name);
  if (!request.withAttributes) return p::FolderEntry(std::move(text), false);
  return p::FolderEntry(std::move(text), p::FolderAttributes(modified, true, isHidden(lastSegment(name)), false));
}

void requireFolder(S3Client& client, std::string const& folderKey, Site const& site) {
  if (!folderKey.empty() && !anyKeyWithPrefix(client, childPrefix(folderKey), site))
    p::fail(p::ErrorCode::ResourceNotFound, site.location, site.call, "no such folder");
}

} // namespace

std::string childPrefix(std::string const& folderKey) { return folderKey.empty() ? std::string() : folderKey + "/"; }

std::vector<p::FolderEntry> listChildren(S3Client& client, std::string const& folderKey,
                                         p::ListingRequest const& request, Site const& site) {
  std::string const base = childPrefix(folderKey);
  std::vector<p::FolderEntry> entries;
  bool sawAnything = false;
  forEachPage(
      client, base + literalHead(request.pattern), true,
      [&](ListPage const& page) {
        sawAnything = sawAnything || !page.objects.empty() || !page.prefixes.empty();
        if (request.kinds != p::EntryKinds::Folders)
          for (auto const& object : page.objects) {
            std::string const name = object.key.substr(base.size());
            if (!name.empty() && wanted(request, name)) entries.push_back(fileEntry(name, object, request));
          }
        if (request.kinds != p::EntryKinds::Files)
          for (auto const& prefix : page.prefixes) {
            std::string const name = prefix.substr(base.size(), prefix.size() - base.size() - 1);
            if (!name.empty() && wanted(request, name)) entries.push_back(folderEntry(name, unknownTime(), request));
          }
      },
      site);
  // An empty answer is an empty folder only if the folder is there (its marker may lie
  // outside the pattern's prefix).
  if (!sawAnything || !request.pattern.empty()) requireFolder(client, folderKey, site);
  return entries;
}

std::vector<p::FolderEntry> listTree(S3Client& client, std::string const& folderKey, p::ListingRequest const& request,
                                     Site const& site) {
  std::string const base = childPrefix(folderKey);
  std::vector<p::FolderEntry> entries;
  std::unordered_set<std::string> folders;
  bool sawAnything = false;
  // Keys come in byte order, so every key below a folder follows the folder's first key:
  // a folder is reported when the first key inside it shows up, before its contents.
  auto reachFolder = [&](std::string const& path, boost::posix_time::ptime modified) {
    for (std::size_t slash = path.find('/');; slash = path.find('/', slash + 1)) {
      std::string const folder = path.substr(0, slash);
      if (folders.insert(folder).second && request.kinds != p::EntryKinds::Files &&
          wanted(request, lastSegment(folder)))
        entries.push_back(folderEntry(folder, slash == std::string::npos ? modified : unknownTime(), request));
      if (slash == std::string::npos) break;
    }
  };
  forEachPage(
      client, base, false,
      [&](ListPage const& page) {
        sawAnything = sawAnything || !page.objects.empty();
        for (auto const& object : page.objects) {
          std::string const path = object.key.substr(base.size());
          if (path.empty()) continue; // the folder's own marker
          if (path.back() == '/') {
            reachFolder(path.substr(0, path.size() - 1), parseIsoTime(object.lastModified));
            continue;
          }
          if (auto slash = path.rfind('/'); slash != std::string::npos)
            reachFolder(path.substr(0, slash), unknownTime());
          if (request.kinds != p::EntryKinds::Folders && wanted(request, lastSegment(path)))
            entries.push_back(fileEntry(path, object, request));
        }
      },
      site);
  if (!sawAnything) requireFolder(client, folderKey, site);
  return entries;
}

} // namespace foundation::storage::providers::s3::detail
