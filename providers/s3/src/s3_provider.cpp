#include <foundation/storage/providers/s3/s3_provider.hpp>

#include "s3_listing.hpp"
#include "s3_objects.hpp"
#include "s3_streams.hpp"

#include <fl/i18n/i18n.hpp>

#include <boost/property_tree/ptree.hpp>

#include <stdexcept>

namespace foundation::storage::providers::s3 {

namespace p = foundation::storage::provider;
using namespace detail;
using p::ErrorCode;
using p::Operation;

namespace {

using Headers = std::vector<std::pair<std::string, std::string>>;

/// The object key of a location: its path without the leading "/", dot segments resolved.
std::string keyOf(p::StorageIRI const& location) {
  auto path = fl::i18n::to_utf8(location.getResolvedPath());
  while (!path.empty() && path.front() == '/') path.erase(0, 1);
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

std::string parentKey(std::string const& key) {
  auto const slash = key.rfind('/');
  return slash == std::string::npos ? std::string() : key.substr(0, slash);
}

bool isHidden(std::string const& key) {
  auto const slash = key.rfind('/');
  return key.size() > (slash == std::string::npos ? 0 : slash + 1) &&
         key[slash == std::string::npos ? 0 : slash + 1] == '.';
}

/// Whether the options need the old contents or random access beyond one part: those
/// opens go through a temporary file.
bool needsTemporaryFile(p::ByteStreamOpenOptions const& options) {
  return options.access == p::ByteStreamAccess::ReadWrite || options.truncate == p::ByteStreamTruncate::Keep;
}

/// Operations on one location: its key and the calls every operation repeats.
class Object {
public:
  Object(S3Client& client, std::u16string const& bucket, p::StorageIRI const& location, std::u16string call)
      : client_(client), location_(location), site_{location, std::move(call)}, key_(keyOf(location)) {
    if (location.getAuthority() != bucket || location.hasInnerIRI())
      refuse(ErrorCode::UnsupportedOperation, "the location is not in this provider's bucket");
  }

  std::string const& key() const noexcept { return key_; }
  Site const& site() const noexcept { return site_; }
  bool isRoot() const noexcept { return key_.empty(); }

  std::optional<ObjectInfo> file() const { return isRoot() ? std::nullopt : headObject(client_, key_, site_); }
  bool isFolder() const { return isRoot() || anyKeyWithPrefix(client_, key_ + "/", site_); }
  p::ExistsResult kind() const {
    if (file()) return p::ExistsResult::File;
    return isFolder() ? p::ExistsResult::Folder : p::ExistsResult::NotFound;
  }

  ObjectInfo requireFile() const {
    auto info = file();
    if (!info) refuse(ErrorCode::ResourceNotFound, "no such file");
    return *info;
  }
  void requireFolder() const {
    if (!isFolder()) refuse(ErrorCode::ResourceNotFound, "no such folder");
  }
  /// The folder a new item goes into must exist. Its marker, if it has one, is noted: the
  /// new item makes it redundant (`dropParentMarker`).
  void requireParentFolder() {
    if (isRoot()) refuse(ErrorCode::InvalidLocation, "the bucket's root has no parent");
    std::string const parent = parentKey(key_);
    if (parent.empty()) return;
    switch (folderPresence(client_, parent, site_)) {
    case FolderPresence::Missing: refuse(ErrorCode::ResourceNotFound, "the parent folder is missing");
    case FolderPresence::Marked: parentMarker_ = parent + "/"; break;
    case FolderPresence::Implied: break;
    }
  }
  /// The parent's marker that `requireParentFolder` found, if any.
  std::optional<std::string> const& parentMarker() const noexcept { return parentMarker_; }
  /// Once the new item is there, the parent exists through it: its marker goes.
  void dropParentMarker() const {
    if (parentMarker_) dropRedundantMarker(client_, *parentMarker_, site_);
  }
  /// Keeps the parent folder in existence when its last item goes: a folder that only
  /// existed through its items gets a marker.
  void keepParentFolder() const {
    std::string const parent = parentKey(key_);
    if (parent.empty() || anyKeyWithPrefix(client_, parent + "/", site_)) return;
    putObject(client_, parent + "/", {}, {}, site_);
  }
  /// Writes the object unless one is there already (If-None-Match: *).
  void putNew(std::string const& key, Headers headers = {}) const {
    headers.emplace_back("if-none-match", "*");
    auto response = client_.send({"PUT", key, {}, std::move(headers), {}}, site_);
    if (response.status == 412) refuse(ErrorCode::ResourceAlreadyExists, "the item exists already");
    if (!response.ok()) failWith(response, site_);
  }

  [[noreturn]] void refuse(ErrorCode code, std::string message) const {
    p::fail(code, location_, site_.call, std::move(message));
  }

private:
  S3Client& client_;
  p::StorageIRI const& location_;
  Site site_;
  std::string key_;
  std::optional<std::string> parentMarker_;
};

} // namespace

S3Provider::S3Provider(std::u16string bucket, S3Settings settings)
    : ProviderBase(u"s3", {.sensitivity = p::FilenameSensitivity::CaseSensitive,
                           .filtersNames = true,
                           .listsRecursively = true,
                           .removesRecursively = true,
                           .reportsRecursiveChanges = false}),
      bucket_(std::move(bucket)), settings_(std::move(settings)),
      requests_(std::make_shared<std::atomic<std::uint64_t>>(0)) {
  client_ = std::make_shared<S3Client>(settings_, fl::i18n::to_utf8(bucket_), requests_);
}

S3Provider::~S3Provider() { stopChangePolling(); }

std::shared_ptr<S3Client> S3Provider::client() const {
  std::lock_guard lock(mutex_);
  return client_;
}

std::uint64_t S3Provider::requestCount() const { return requests_->load(); }

void S3Provider::createBucket() {
  auto client = this->client();
  p::StorageIRI const root(u"s3://" + bucket_ + u"/");
  Site const site{root, u"s3.createBucket"};
  auto response = client->send({"PUT", "", {}, {}, {}}, site);
  if (response.ok()) return;
  auto error = parseError(response.body);
  if (error && error->code == "BucketAlreadyOwnedByYou") return;
  failWith(response, site);
}

// --- existence and attributes -----------------------------------------------------------

p::StorageIRI S3Provider::getCanonicalLocation(p::StorageIRI const& location) {
  auto client = this->client();
  Object object(*client, bucket_, location, contextKey(Operation::GetCanonicalLocation));
  if (object.kind() == p::ExistsResult::NotFound) object.refuse(ErrorCode::ResourceNotFound, "no such file or folder");
  return location.withPath(u"/" + fl::i18n::to_ustring(object.key()));
}

p::ExistsResult S3Provider::exists(p::StorageIRI const& location) {
  auto client = this->client();
  return Object(*client, bucket_, location, contextKey(Operation::Exists)).kind();
}

bool S3Provider::fileExists(p::StorageIRI const& location) {
  auto client = this->client();
  return Object(*client, bucket_, location, contextKey(Operation::FileExists)).file().has_value();
}

p::FileAttributes S3Provider::getFileAttributes(p::StorageIRI const& file) {
  auto client = this->client();
  Object object(*client, bucket_, file, contextKey(Operation::GetFileAttributes));
  auto info = object.requireFile();
  return p::FileAttributes(info.size, info.modified, true, isHidden(object.key()), false);
}

p::FolderAttributes S3Provider::getFolderAttributes(p::StorageIRI const& folder) {
  auto client = this->client();
  Object object(*client, bucket_, folder, contextKey(Operation::GetFolderAttributes));
  if (object.isRoot()) return p::FolderAttributes(unknownTime(), true, false, false);
  if (object.file()) object.refuse(ErrorCode::ResourceNotFound, "a file, not a folder");
  if (auto marker = headObject(*client, object.key() + "/", object.site()))
    return p::FolderAttributes(marker->modified, true, isHidden(object.key()), false);
  object.requireFolder();
  return p::FolderAttributes(unknownTime(), true, isHidden(object.key()), false);
}

p::ExtendedAttributes S3Provider::getExtendedAttributes(p::StorageIRI const& location) {
  auto client = this->client();
  Object object(*client, bucket_, location, contextKey(Operation::GetExtendedAttributes));
  boost::property_tree::ptree attributes;
  auto describe = [&](std::string const& key, ObjectInfo const& info) {
    attributes.put("s3.key", key);
    attributes.put("s3.etag", info.etag);
    attributes.put("s3.contentType", info.contentType);
    for (auto const& [name, value] : info.metadata)
      attributes.put(boost::property_tree::path("s3.metadata|" + name, '|'), value);
  };
  if (auto info = object.file()) {
    describe(object.key(), *info);
  } else if (auto marker = object.isRoot() ? std::nullopt : headObject(*client, object.key() + "/", object.site())) {
    describe(object.key() + "/", *marker);
  } else {
    object.requireFolder();
    attributes.put("s3.key", childPrefix(object.key()));
    attributes.put("s3.implicitFolder", true);
  }
  return attributes;
}

void S3Provider::setLastModified(p::StorageIRI const& location, boost::posix_time::ptime const& time) {
  auto client = this->client();
  Object object(*client, bucket_, location, contextKey(Operation::SetLastModified));
  Headers const metadata{{mtimeHeader, formatMtime(time)}};
  if (auto info = object.file()) {
    // Metadata changes only by rewriting the object: a server-side copy onto itself.
    Headers replaced = metadata;
    for (auto const& [name, value] : info->metadata)
      if (name != "mtime") replaced.emplace_back("x-amz-meta-" + name, value);
    copyObject(*client, object.key(), *info, object.key(), replaced, object.site());
    return;
  }
  object.requireFolder();
  if (object.isRoot()) object.refuse(ErrorCode::UnsupportedOperation, "the bucket's root keeps no time");
  // A folder without a marker has the unknown time already (tree copies within the bucket
  // carry it over): that time needs no marker.
  if (time == unknownTime() && !headObject(*client, object.key() + "/", object.site())) return;
  putObject(*client, object.key() + "/", {}, metadata, object.site());
}

void S3Provider::setWritable(p::StorageIRI const& location, bool) {
  if (exists(location) == p::ExistsResult::NotFound)
    fail(ErrorCode::ResourceNotFound, location, Operation::SetWritable, "no such file or folder");
  fail(ErrorCode::UnsupportedOperation, location, Operation::SetWritable, "objects have no read-only flag");
}

// --- files ------------------------------------------------------------------------------

void S3Provider::createFile(p::StorageIRI const& file) {
  auto client = this->client();
  Object object(*client, bucket_, file, contextKey(Operation::CreateFile));
  object.requireParentFolder();
  if (object.isFolder()) object.refuse(ErrorCode::ResourceAlreadyExists, "a folder is there");
  object.putNew(object.key());
  object.dropParentMarker();
}

void S3Provider::removeFile(p::StorageIRI const& file) {
  auto client = this->client();
  Object object(*client, bucket_, file, contextKey(Operation::RemoveFile));
  object.requireFile();
  deleteObject(*client, object.key(), object.site());
  object.keepParentFolder();
}

void S3Provider::truncateToSize(p::StorageIRI const& file, std::uint64_t size) {
  auto client = this->client();
  Object object(*client, bucket_, file, contextKey(Operation::TruncateToSize));
  auto info = object.requireFile();
  TempFileStream stream(client, file, object.key(),
                        {p::ByteStreamAccess::ReadWrite, p::ByteStreamCreate::MustExist, p::ByteStreamTruncate::Keep,
                         p::ByteStreamAppend::AtPosition},
                        info, false, std::nullopt);
  stream.resize(size);
  stream.close(p::StreamClosePolicy::Commit);
}

namespace {

/// The checks every writable open makes, then the stream that fits the options.
std::unique_ptr<p::TransactionalStream> openWritable(std::shared_ptr<S3Client> const& client,
                                                     std::u16string const& bucket, p::StorageIRI const& file,
                                                     p::ByteStreamOpenOptions const& options, bool commitWhenDestroyed,
                                                     std::u16string call) {
  Object object(*client, bucket, file, std::move(call));
  object.requireParentFolder();
  auto existing = object.file();
  if (!existing) {
    if (object.isFolder()) object.refuse(ErrorCode::ResourceNotFound, "a folder, not a file");
    if (options.create == p::ByteStreamCreate::MustExist) object.refuse(ErrorCode::ResourceNotFound, "no such file");
  }
  if (needsTemporaryFile(options) && existing)
    return std::make_unique<TempFileStream>(client, file, object.key(), options, existing, commitWhenDestroyed,
                                            object.parentMarker());
  if (options.access == p::ByteStreamAccess::ReadWrite)
    return std::make_unique<TempFileStream>(client, file, object.key(), options, std::nullopt, commitWhenDestroyed,
                                            object.parentMarker());
  return std::make_unique<UploadStream>(client, file, object.key(), options.append == p::ByteStreamAppend::Append,
                                        commitWhenDestroyed, object.parentMarker());
}

} // namespace

std::unique_ptr<p::ByteStream> S3Provider::doOpenStream(p::StorageIRI const& file,
                                                        p::ByteStreamOpenOptions const& options) {
  return openWritable(client(), bucket_, file, options, true, contextKey(Operation::OpenStream));
}

std::unique_ptr<p::ByteStream> S3Provider::openReadOnlyStream(p::StorageIRI const& file) {
  auto client = this->client();
  Object object(*client, bucket_, file, contextKey(Operation::OpenReadOnlyStream));
  return std::make_unique<ReadStream>(client, file, object.key(), object.requireFile());
}

std::unique_ptr<p::TransactionalStream> S3Provider::doOpenTransactionalStream(p::StorageIRI const& file,
                                                                              p::ByteStreamOpenOptions const& options) {
  return openWritable(client(), bucket_, file, options, false, contextKey(Operation::OpenTransactionalStream));
}

// --- copies and moves -------------------------------------------------------------------

namespace {

/// What to do about an existing destination file: true to go on, false to skip.
bool mayReplace(Object& destination, p::ReplacementPolicy policy) {
  switch (destination.kind()) {
  case p::ExistsResult::Folder:
    if (policy == p::ReplacementPolicy::KeepExisting) return false;
    destination.refuse(ErrorCode::ResourceAlreadyExists, "a folder is in the way");
  case p::ExistsResult::File:
    if (policy == p::ReplacementPolicy::KeepExisting) return false;
    if (policy == p::ReplacementPolicy::FailIfExists)
      destination.refuse(ErrorCode::ResourceAlreadyExists, "the destination exists");
    return true;
  case p::ExistsResult::NotFound: break;
  }
  destination.requireParentFolder();
  return true;
}

/// Copies the file `from` (as `info` tells) to `to`. Unless `policy` replaces (Overwrite,
/// ForceOverwrite), the copy lands over a claim, so that a destination appearing meanwhile
/// is kept: then false for KeepExisting, ResourceAlreadyExists otherwise.
bool copyOver(S3Client& client, Object const& from, ObjectInfo const& info, Object const& to,
              p::ReplacementPolicy policy, std::function<void(std::uint64_t)> const& progress) {
  std::string token;
  if (!p::replaces(policy)) {
    token = newClaimToken();
    try {
      claimKey(client, to.key(), token, to.site());
    } catch (p::Exception const& e) {
      if (e.getErrorCode() == ErrorCode::ResourceAlreadyExists && policy == p::ReplacementPolicy::KeepExisting)
        return false;
      throw;
    }
  }
  try {
    copyObject(client, from.key(), info, to.key(), std::nullopt, to.site(), progress);
  } catch (...) {
    if (!token.empty()) releaseClaim(client, to.key(), token, to.site());
    throw;
  }
  return true;
}

} // namespace

p::CopyResult S3Provider::doCopyFile(p::StorageIRI const& source, p::StorageItem const& destination,
                                     p::CopyFileOptions const& options) {
  if (destination.getProvider().get() != this) return ProviderBase::doCopyFile(source, destination, options);
  auto client = this->client();
  Object from(*client, bucket_, source, contextKey(Operation::CopyFile));
  auto info = from.requireFile();
  Object to(*client, bucket_, destination.getLocation(), contextKey(Operation::CopyFile));
  if (!mayReplace(to, options.policy)) return p::CopyResult::Skipped;
  if (to.key() == from.key()) return p::CopyResult::Copied; // onto itself: nothing to do
  auto const progress = [&](std::uint64_t done) {
    if (options.progress) options.progress(done, info.size);
  };
  progress(0); // the copy starts; whatever appears at the destination from now on is kept
  if (!copyOver(*client, from, info, to, options.policy, progress)) return p::CopyResult::Skipped;
  to.dropParentMarker();
  return p::CopyResult::Copied;
}

void S3Provider::doMoveFile(p::StorageIRI const& source, p::StorageIRI const& destination,
                            p::ReplacementPolicy policy) {
  auto client = this->client();
  Object from(*client, bucket_, source, contextKey(Operation::MoveFile));
  auto info = from.requireFile();
  Object to(*client, bucket_, destination, contextKey(Operation::MoveFile));
  if (to.key() == from.key() || !mayReplace(to, policy)) return;
  // Copy first: until the copy is complete the source is untouched.
  if (!copyOver(*client, from, info, to, policy, {})) return;
  to.dropParentMarker();
  deleteObject(*client, from.key(), from.site());
  from.keepParentFolder();
}

void S3Provider::doMoveFolder(p::StorageIRI const& source, p::StorageIRI const& destination,
                              p::ReplacementPolicy policy) {
  auto client = this->client();
  Object from(*client, bucket_, source, contextKey(Operation::MoveFolder));
  Object to(*client, bucket_, destination, contextKey(Operation::MoveFolder));
  if (from.isRoot()) from.refuse(ErrorCode::InvalidLocation, "the bucket's root cannot move");
  if (from.file()) from.refuse(ErrorCode::ResourceNotFound, "a file, not a folder");
  from.requireFolder();
  if (to.key() == from.key() || to.key().starts_with(from.key() + "/"))
    to.refuse(ErrorCode::InvalidLocation, "a folder cannot move into itself");
  bool destinationExisted = false;
  switch (to.kind()) {
  case p::ExistsResult::File: to.refuse(ErrorCode::ResourceAlreadyExists, "a file is in the way");
  case p::ExistsResult::Folder:
    if (policy == p::ReplacementPolicy::FailIfExists || policy == p::ReplacementPolicy::KeepExisting)
      to.refuse(ErrorCode::ResourceAlreadyExists, "the destination folder exists");
    if (listChildren(*client, to.key(), {}, to.site()).size() > 0)
      to.refuse(ErrorCode::FolderNotEmpty, "the destination folder is not empty");
    destinationExisted = true;
    break;
  case p::ExistsResult::NotFound: to.requireParentFolder(); break;
  }

  std::string const fromPrefix = from.key() + "/", toPrefix = to.key() + "/";
  std::vector<std::string> sources;
  forEachPage(
      *client, fromPrefix, false,
      [&](ListPage const& page) {
        for (auto const& object : page.objects) sources.push_back(object.key);
      },
      from.site());
  std::vector<std::string> copies;
  try {
    if (sources.empty() && !destinationExisted) { // emptied meanwhile: it arrives as an empty folder
      putObject(*client, toPrefix, {}, {}, to.site());
      copies.push_back(toPrefix);
    }
    for (std::size_t i = 0; i < sources.size(); ++i) {
      std::string const& key = sources[i];
      // Keys come in order, so a marker followed by a key below it marks a folder that has
      // contents: it moves with them and needs no marker.
      if (key.ends_with('/') && i + 1 < sources.size() && sources[i + 1].starts_with(key)) continue;
      auto info = headObject(*client, key, from.site());
      if (!info) continue; // removed meanwhile
      std::string const target = toPrefix + key.substr(fromPrefix.size());
      copyObject(*client, key, *info, target, std::nullopt, to.site());
      if (target != toPrefix || !destinationExisted) copies.push_back(target);
    }
  } catch (...) {
    // Undo the partial copy; the source was never touched.
    try {
      deleteObjects(*client, copies, to.site());
    } catch (...) {
    }
    throw;
  }
  // The destination, or the folder it went into, now holds items: its marker is redundant.
  if (!destinationExisted)
    to.dropParentMarker();
  else if (!copies.empty())
    dropRedundantMarker(*client, toPrefix, to.site());
  deleteObjects(*client, sources, from.site());
  from.keepParentFolder();
}

// --- folders ----------------------------------------------------------------------------

void S3Provider::createFolder(p::StorageIRI const& folder) {
  auto client = this->client();
  Object object(*client, bucket_, folder, contextKey(Operation::CreateFolder));
  object.requireParentFolder();
  if (object.kind() != p::ExistsResult::NotFound)
    object.refuse(ErrorCode::ResourceAlreadyExists, "the item exists already");
  object.putNew(object.key() + "/");
  object.dropParentMarker();
}

void S3Provider::createFolderRecursive(p::StorageIRI const& folder) {
  auto client = this->client();
  Object object(*client, bucket_, folder, contextKey(Operation::CreateFolderRecursive));
  if (object.isRoot()) return;
  // Walk up to the first existing ancestor. Only the folder asked for needs a marker: the
  // missing ones between exist through it, and the ancestor's own marker is redundant then.
  std::optional<std::string> ancestorMarker;
  std::string key = object.key();
  for (; !key.empty(); key = parentKey(key)) {
    if (headObject(*client, key, object.site()))
      object.refuse(ErrorCode::ResourceAlreadyExists, "a file is in the way: " + key);
    auto const presence = folderPresence(*client, key, object.site());
    if (presence == FolderPresence::Missing) continue;
    if (presence == FolderPresence::Marked) ancestorMarker = key + "/";
    break;
  }
  if (key == object.key()) return; // there already
  auto response = client->send({"PUT", object.key() + "/", {}, {{"if-none-match", "*"}}, {}}, object.site());
  if (!response.ok() && response.status != 412) failWith(response, object.site()); // 412: a racing creator won
  if (ancestorMarker) dropRedundantMarker(*client, *ancestorMarker, object.site());
}

void S3Provider::removeFolder(p::StorageIRI const& folder) {
  auto client = this->client();
  Object object(*client, bucket_, folder, contextKey(Operation::RemoveFolder));
  if (object.isRoot()) object.refuse(ErrorCode::InvalidLocation, "the bucket's root cannot be removed");
  if (object.file()) object.refuse(ErrorCode::ResourceNotFound, "a file, not a folder");
  auto page = listPage(*client, object.key() + "/", false, {}, 2, object.site());
  if (page.objects.empty()) object.refuse(ErrorCode::ResourceNotFound, "no such folder");
  if (page.objects.size() > 1 || page.objects.front().key != object.key() + "/")
    object.refuse(ErrorCode::FolderNotEmpty, "the folder is not empty");
  deleteObject(*client, object.key() + "/", object.site());
  object.keepParentFolder();
}

void S3Provider::removeFolderRecursively(p::StorageIRI const& folder) {
  auto client = this->client();
  Object object(*client, bucket_, folder, contextKey(Operation::RemoveFolderRecursively));
  if (object.file()) object.refuse(ErrorCode::ResourceNotFound, "a file, not a folder");
  std::vector<std::string> keys;
  forEachPage(
      *client, childPrefix(object.key()), false,
      [&](ListPage const& page) {
        for (auto const& listed : page.objects) keys.push_back(listed.key);
      },
      object.site());
  if (keys.empty() && !object.isRoot()) object.refuse(ErrorCode::ResourceNotFound, "no such folder");
  deleteObjects(*client, keys, object.site());
  if (!object.isRoot()) object.keepParentFolder();
}

// --- listings ---------------------------------------------------------------------------

std::unique_ptr<p::IFolderEntryIterator> S3Provider::list(p::StorageIRI const& folder,
                                                          p::ListingRequest const& request) {
  auto client = this->client();
  Object object(*client, bucket_, folder, contextKey(request.operation));
  auto entries = request.recursive ? listTree(*client, object.key(), request, object.site())
                                   : listChildren(*client, object.key(), request, object.site());
  return std::make_unique<p::SnapshotFolderEntryIterator>(std::move(entries));
}

// --- administration ---------------------------------------------------------------------

void S3Provider::configure(p::StorageIRI const& location, boost::property_tree::ptree settings) {
  std::lock_guard lock(mutex_);
  S3Settings changed = settings_;
  try {
    changed.apply(settings);
    client_ = std::make_shared<S3Client>(changed, fl::i18n::to_utf8(bucket_), requests_);
  } catch (std::invalid_argument const& e) {
    fail(ErrorCode::InvalidLocation, location, Operation::Configure, e.what());
  }
  settings_ = std::move(changed);
}

p::StorageInfo S3Provider::getProviderStorageInfo(p::StorageIRI const&) {
  p::StorageInfo info; // an object store has no fixed capacity to tell
  info.details.put("s3.bucket", fl::i18n::to_utf8(bucket_));
  info.details.put("s3.endpoint", client()->settings().endpoint);
  return info;
}

} // namespace foundation::storage::providers::s3
