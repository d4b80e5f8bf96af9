#pragma once

// The state behind an ArchiveProvider: one Archive per archive file, found by the
// archive's own location (the inner IRI of the locations inside it).

#include "archive_format.hpp"

#include <foundation/storage/provider/operation.hpp>
#include <foundation/storage/providers/archive/archive_provider.hpp>
#include <foundation/storage/providers/common/change_subscriptions.hpp>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>

namespace foundation::storage::providers::archive::detail {

/// One archive file and its change set. `lock` guards every other member (and the
/// contents of the tree's files, which streams share).
struct Archive {
  explicit Archive(p::StorageItem file) : file(std::move(file)) {}

  p::StorageItem const file;
  std::shared_ptr<std::mutex> const lock = std::make_shared<std::mutex>();
  bool loaded = false;
  bool exists = false;
  bool dirty = false;                    ///< changes wait for a commit
  std::size_t openWriters = 0;           ///< in-place write streams on the tree's contents
  std::optional<p::FileAttributes> seen; ///< the file's attributes when it was read
  std::unique_ptr<Tree> tree;
  std::shared_ptr<ArchiveReader> reader;
};

/// An archive and a path inside it, from a location.
struct Place {
  std::shared_ptr<Archive> archive;
  Segments path;
  p::StorageIRI location; ///< the location with dot segments resolved
};

struct ProviderCore {
  ProviderCore(std::u16string scheme, std::unique_ptr<ArchiveFormat> format, OuterProviderResolver resolver);

  /// Finds the archive of `location`; locations of other schemes or without an archive
  /// are InvalidLocation (UnsupportedOperation with `foreign`).
  Place locate(p::StorageIRI const& location, std::u16string const& context,
               p::ErrorCode foreign = p::ErrorCode::InvalidLocation);
  /// The archive file's attributes; none when it is missing.
  std::optional<p::FileAttributes> attributesNow(Archive const& archive, std::u16string const& context) const;
  /// Reads the archive again if its file changed and nothing is pending. Under its lock.
  void refresh(Archive& archive, std::u16string const& context);
  /// The node at `path`; null when missing or when the archive does not exist.
  static Node* find(Archive const& archive, Segments const& path);
  /// ResourceNotFound for `place`, naming why the entry there was skipped if it was.
  [[noreturn]] void missing(Place const& place, std::u16string const& context, std::string const& what) const;
  /// ReadOnlyProvider unless the format writes and every archive around this one can be
  /// written too.
  void requireWritable(p::StorageIRI const& location, p::Operation op);
  /// Why a symbolic link entry cannot be read or edited: it is never followed.
  static std::string linkHasNoData(Node const& link);
  /// The file's data as written in the change set, read from the archive when it is not
  /// there yet. A symbolic link has none (InvalidLocation).
  std::shared_ptr<Content> materialize(Archive& archive, Node& file, p::StorageIRI const& location,
                                       std::u16string const& context);
  /// Writes the archive if changes are pending. Under no lock of it.
  void commit(Archive& archive);
  /// Commits every archive with pending changes, innermost first; the first failure is
  /// thrown after the others were tried, and those others are logged.
  void commitAll();
  /// commitAll for those who cannot report a failure (a destructor): it is logged.
  void commitAllLoggingFailures() noexcept;
  /// "<scheme>.<operation>", the context key the provider's own failures carry.
  std::u16string key(p::Operation op) const;
  /// "<scheme>.<what>" for a step of no single operation ("commit").
  std::u16string key(std::u16string_view what) const { return scheme + u"." + std::u16string(what); }
  /// Forgets every archive once the provider is gone; streams still open then fail.
  void close();

  std::u16string const scheme;
  std::unique_ptr<ArchiveFormat> const format;
  OuterProviderResolver const resolver;
  std::atomic<std::uint64_t> maxEditSize{256u << 20};
  /// Where the contents written in every change set wait for their commit.
  std::shared_ptr<SpillFile> const spill = std::make_shared<SpillFile>();
  /// Changes are queued under the lock of the archive they were made in.
  common::ChangeSubscriptions subscriptions;
  /// The provider this core serves; archives inside its own archives refer to it without
  /// owning it, so that it can go.
  p::IProvider* self = nullptr;

private:
  std::mutex mutex_;
  std::map<p::StorageIRI, std::shared_ptr<Archive>> archives_;
  bool closed_ = false;
};

} // namespace foundation::storage::providers::archive::detail
