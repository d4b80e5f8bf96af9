#include "provider_core.hpp"

#include <foundation/log/diagnostic_logger.hpp>

#include <fl/i18n/i18n.hpp>

#include <algorithm>
#include <exception>

namespace foundation::storage::providers::archive::detail {

namespace {

foundation::log::diagnostic_logger& logger() {
  static foundation::log::diagnostic_logger instance("foundation.storage.archive");
  return instance;
}

/// How many archives enclose this location's archive.
std::size_t depthOf(p::StorageIRI iri) {
  std::size_t depth = 0;
  for (; iri.hasInnerIRI(); iri = iri.getInnerIRI()) ++depth;
  return depth;
}

} // namespace

ProviderCore::ProviderCore(std::u16string scheme, std::unique_ptr<ArchiveFormat> format, OuterProviderResolver resolver)
    : scheme(std::move(scheme)), format(std::move(format)), resolver(std::move(resolver)),
      // Locations of different archives differ in their inner IRI.
      subscriptions([](p::StorageIRI const& location) {
        return location.getInnerIRI().toString() + u"!" + location.getResolvedPath();
      }) {}

std::u16string ProviderCore::key(p::Operation op) const {
  return key(fl::i18n::to_ustring(std::string_view(p::toString(op))));
}

Place ProviderCore::locate(p::StorageIRI const& location, std::u16string const& context, p::ErrorCode foreign) {
  if (location.getScheme() != scheme || !location.hasInnerIRI() || !location.hasPath())
    p::fail(foreign, location, context, "not a location inside a " + fl::i18n::to_utf8(scheme) + " archive");
  p::StorageIRI const file = location.getInnerIRI();
  Segments path = common::namesOf(location.getResolvedPath());
  std::shared_ptr<Archive> archive;
  {
    std::lock_guard lock(mutex_);
    if (closed_) p::fail(p::ErrorCode::IOError, location, context, "the archive provider is gone");
    auto& slot = archives_[file];
    if (!slot) {
      auto provider = resolver(file);
      if (!provider)
        p::fail(p::ErrorCode::UnsupportedOperation, file, context, "no provider serves the archive's location");
      if (provider.get() == self) provider = std::shared_ptr<p::IProvider>(std::shared_ptr<p::IProvider>(), self);
      slot = std::make_shared<Archive>(p::StorageItem(std::move(provider), file));
    }
    archive = slot;
  }
  p::StorageIRI resolved = location.withPath(pathOf(path));
  return {std::move(archive), std::move(path), std::move(resolved)};
}

std::optional<p::FileAttributes> ProviderCore::attributesNow(Archive const& archive,
                                                             std::u16string const& context) const {
  try {
    return archive.file.getFileAttributes();
  } catch (p::Exception& failure) {
    if (failure.getErrorCode() != p::ErrorCode::ResourceNotFound)
      throw failure.addExceptionContext(p::ExceptionContext(context, "the archive file cannot be reached"));
  }
  return std::nullopt;
}

void ProviderCore::refresh(Archive& archive, std::u16string const& context) {
  if (archive.dirty) return;
  std::optional<p::FileAttributes> const now = attributesNow(archive, context);
  if (archive.loaded && archive.seen == now) return;
  archive.loaded = false;
  archive.reader.reset();
  archive.tree = std::make_unique<Tree>();
  archive.exists = false;
  archive.seen.reset();
  if (!now) {
    archive.loaded = true;
    return;
  }
  std::vector<RawEntry> entries;
  try {
    archive.reader = format->open(archive.file, entries);
  } catch (p::Exception& failure) {
    throw failure.addExceptionContext(p::ExceptionContext(context, "the archive cannot be read"));
  }
  archive.tree = std::make_unique<Tree>(entries);
  for (auto const& skipped : archive.tree->skipped())
    logger().log(foundation::log::Severity::Warning, "skipped the entry \"" + skipped.name + "\" of " +
                                                         archive.file.getLocation().toIRI() + ": " + skipped.reason);
  archive.exists = true;
  archive.seen = now;
  archive.loaded = true;
}

Node* ProviderCore::find(Archive const& archive, Segments const& path) {
  return archive.exists ? archive.tree->find(path) : nullptr;
}

void ProviderCore::missing(Place const& place, std::u16string const& context, std::string const& what) const {
  Archive const& archive = *place.archive;
  if (!archive.exists)
    p::fail(p::ErrorCode::ResourceNotFound, place.location, context,
            "the archive " + archive.file.getLocation().toIRI() + " does not exist");
  std::string message = "no such " + what;
  if (auto reason = archive.tree->whySkipped(place.path))
    message += " (the archive's entry was skipped: " + *reason + ")";
  p::fail(p::ErrorCode::ResourceNotFound, place.location, context, message);
}

void ProviderCore::requireWritable(p::StorageIRI const& location, p::Operation op) {
  if (!format->writable())
    p::fail(p::ErrorCode::ReadOnlyProvider, location, key(op), fl::i18n::to_utf8(scheme) + " archives are read only");
  // A change to an archive inside a read-only archive could never be committed: it is
  // refused now rather than lost later.
  ProviderCore* core = this;
  p::StorageIRI inner = location;
  for (;;) {
    p::StorageItem const& file = core->locate(inner, core->key(op)).archive->file;
    auto* around = dynamic_cast<ArchiveProvider*>(file.getProvider().get());
    if (!around) return;
    core = around->core_.get();
    if (!core->format->writable())
      p::fail(p::ErrorCode::ReadOnlyProvider, location, key(op),
              "the archive lies inside " + file.getLocation().getInnerIRI().toIRI() + ", a read-only " +
                  fl::i18n::to_utf8(core->scheme) + " archive");
    inner = file.getLocation();
  }
}

std::string ProviderCore::linkHasNoData(Node const& link) {
  return "a symbolic link to \"" + link.linkTarget + "\"; links in archives are not followed and hold no data";
}

std::shared_ptr<Content> ProviderCore::materialize(Archive& archive, Node& file, p::StorageIRI const& location,
                                                   std::u16string const& context) {
  if (file.content) return file.content;
  if (file.symlink) p::fail(p::ErrorCode::InvalidLocation, location, context, linkHasNoData(file));
  if (file.size() > maxEditSize)
    p::fail(p::ErrorCode::FileTooLarge, location, context, "the entry is larger than the edit limit (maxEditSize)");
  auto content = std::make_shared<Content>(spill);
  try {
    auto stream = archive.reader->openEntry(*file.entry);
    std::vector<char> buffer(static_cast<std::size_t>(std::min<std::uint64_t>(file.size() + 1, SpillFile::SlotSize)));
    std::uint64_t done = 0;
    for (std::streamsize got; (got = stream->read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) > 0;) {
      content->write(done, buffer.data(), static_cast<std::size_t>(got));
      done += static_cast<std::uint64_t>(got);
    }
    if (done != file.size())
      p::fail(p::ErrorCode::IOError, location, context, "the entry's data does not match its declared size");
  } catch (p::ByteStreamFailure const& failure) {
    p::fail(failure.getErrorCode(), location, context, failure.what());
  }
  file.content = content;
  file.entry.reset();
  return content;
}

void ProviderCore::commit(Archive& archive) {
  std::lock_guard lock(*archive.lock);
  if (!archive.dirty) return;
  // Another writer's archive is never overwritten with this change set: a file that
  // appeared where there was none is caught atomically as the new one lands, a file
  // changed since it was read just before.
  if (attributesNow(archive, key(u"commit")) != archive.seen)
    p::fail(p::ErrorCode::ResourceInUse, archive.file.getLocation(), key(u"commit"),
            "the archive file changed since it was read; the changes wait (invalidate drops them)");
  auto const landing = archive.seen ? p::StreamClosePolicy::Commit : p::StreamClosePolicy::CommitWithoutReplacing;
  try {
    format->write(archive.file, *archive.tree, archive.reader.get(), landing);
  } catch (p::Exception& failure) {
    throw failure.addExceptionContext(p::ExceptionContext(key(u"commit"), "the archive was left as it was"));
  }
  archive.dirty = false;
  if (archive.openWriters == 0) {
    // Read back on next use: the entries now lie where the new archive put them.
    archive.loaded = false;
    archive.seen.reset();
    return;
  }
  // Open write streams hold the tree's contents: keep the tree (its entries still read from
  // the previous archive) and take the new file as the one read.
  try {
    archive.seen = archive.file.getFileAttributes();
  } catch (p::Exception const&) {
    archive.seen.reset();
  }
}

void ProviderCore::close() {
  std::lock_guard lock(mutex_);
  closed_ = true;
  archives_.clear();
  self = nullptr;
}

void ProviderCore::commitAll() {
  std::vector<std::shared_ptr<Archive>> all;
  {
    std::lock_guard lock(mutex_);
    for (auto const& [file, archive] : archives_) all.push_back(archive);
  }
  std::stable_sort(all.begin(), all.end(), [](auto const& a, auto const& b) {
    return depthOf(a->file.getLocation()) > depthOf(b->file.getLocation());
  });
  std::exception_ptr first;
  for (auto const& archive : all) {
    try {
      commit(*archive);
    } catch (std::exception const& failure) {
      // The first failure goes to the caller; the others would be lost unless logged.
      if (!first)
        first = std::current_exception();
      else
        logger().log(foundation::log::Severity::Error, std::string("commit failed: ") + failure.what());
    }
  }
  if (first) std::rethrow_exception(first);
}

void ProviderCore::commitAllLoggingFailures() noexcept {
  try {
    commitAll();
  } catch (std::exception const& failure) {
    logger().log(foundation::log::Severity::Error, std::string("commit failed: ") + failure.what());
  } catch (...) {
    logger().log(foundation::log::Severity::Error, "commit failed");
  }
}

} // namespace foundation::storage::providers::archive::detail
