#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/events/kinds.hpp>
#include <foundation/storage/provider/storage_item.hpp>

#include <vfs/absolute_iri.hpp>
#include <vfs/file.hpp>
#include <vfs/storage_system.hpp>

#include <boost/variant.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <string>
#include <vector>

namespace foundation::storage::vfs {

/// How `Folder::removeFolder` treats contents.
enum class FolderRemovalPolicy : std::uint32_t { NonRecursive = 0, Recursive = 1 };

FOUNDATION_API std::string toString(FolderRemovalPolicy const& policy);
FOUNDATION_API std::ostream& operator<<(std::ostream& os, FolderRemovalPolicy const& policy);

/// Compares two names or paths under a case rule, as the provider defines it.
class FOUNDATION_API PathComparator {
public:
  using Function = std::function<bool(std::u16string const&, std::u16string const&, provider::CaseModifier)>;
  explicit PathComparator(Function function);
  bool operator()(std::u16string const& a, std::u16string const& b, provider::CaseModifier modifier) const;

private:
  Function function_;
};

/// A value handle to a folder location (the folder need not exist), the counterpart of File.
class FOUNDATION_API Folder {
public:
  Folder(AbsoluteIRI const& location, StorageSystemReference system);
  Folder(CanonicalAbsoluteIRI const& location, StorageSystemReference system);
  /// The folder `name` in `parent`.
  Folder(Folder const& parent, std::u16string const& name);
  Folder(provider::StorageItem item, StorageSystemReference system);

  /// Exchanges the locations (provider items) only, as File::swap.
  void swap(Folder& other) noexcept;

  AbsoluteIRI getLocation() const;
  AbsoluteIRI getCanonicalLocation() const;
  std::u16string getName() const;
  bool hasParent() const;
  Folder getParent() const;
  StorageSystemReference getStorageSystem() const;
  provider::FolderAttributes getAttributes() const;
  provider::ExtendedAttributes getExtendedAttributes() const;
  /// False when the provider says the folder is not found; other failures are thrown.
  bool folderExists() const;
  provider::FilenameSensitivity getFilenameSensitivity() const;
  PathComparator getPathComparator() const;

  void createFolder() const;
  /// Creates missing ancestors as well.
  void createFolderRecursive() const;
  /// Recursive removal uses the provider's own where it has one.
  void removeFolder(FolderRemovalPolicy const& policy) const;
  void setLastModified(boost::posix_time::ptime const& time) const;
  void setWritable(bool writable) const;
  /// Asks the provider to flush the file system holding the folder.
  void flushFilesystem();

  /// Asks the provider to report changes of the folder and its children (`kinds`; empty:
  /// every kind) to `publisher` until stopPublishingEvents.
  void publishEvents(EventPublisher const& publisher, std::vector<events::Kind> const& kinds) const;
  /// The same for everything below the folder, also in folders created later. A provider
  /// without recursive change events: Exception UnsupportedOperation.
  void publishEventsRecursively(RecursiveEventPublisher const& publisher, std::vector<events::Kind> const& kinds) const;
  void stopPublishingEvents() const;
  /// Reports changes of the folder's children by comparing listings every `interval`, for
  /// providers that cannot report changes themselves.
  void startChangePolling(EventPublisher const& publisher, std::vector<events::Kind> const& kinds,
                          std::chrono::milliseconds interval) const;
  void stopChangePolling() const;

  friend FOUNDATION_API bool operator==(Folder const& a, Folder const& b);
  friend FOUNDATION_API bool operator!=(Folder const& a, Folder const& b);
  friend FOUNDATION_API bool operator<(Folder const& a, Folder const& b);

private:
  friend class File;
  friend FOUNDATION_API void configureProvider(Folder& folder, std::map<std::string, std::string> settings);
  friend FOUNDATION_API void shutdownProvider(Folder& folder);
  friend FOUNDATION_API provider::StorageInfo getStorageInfo(Folder const& folder);

  provider::StorageItem item_;
  StorageSystemReference system_;
  bool canonical_;
};

FOUNDATION_API std::ostream& operator<<(std::ostream& os, Folder const& folder);

/// Removes a folder and everything below it, for providers without their own recursive
/// removal.
FOUNDATION_API void removeNonEmptyFolder(Folder const& folder);

/// A file or a folder; File is alternative 0.
using FileOrFolder = boost::variant<File, Folder>;

FOUNDATION_API AbsoluteIRI getLocation(FileOrFolder const& item);
FOUNDATION_API AbsoluteIRI getCanonicalLocation(FileOrFolder const& item);
FOUNDATION_API std::u16string getName(FileOrFolder const& item);
FOUNDATION_API bool exists(FileOrFolder const& item);
/// Always true for a file, without asking the provider: every file lives in some folder.
FOUNDATION_API bool hasParent(FileOrFolder const& item);
FOUNDATION_API Folder getParent(FileOrFolder const& item);
FOUNDATION_API StorageSystemReference getStorageSystem(FileOrFolder const& item);
FOUNDATION_API boost::posix_time::ptime getLastModified(FileOrFolder const& item);
FOUNDATION_API bool isWritable(FileOrFolder const& item);
FOUNDATION_API bool isHidden(FileOrFolder const& item);
FOUNDATION_API bool isSymlink(FileOrFolder const& item);
/// A file is removed whatever the policy.
FOUNDATION_API void remove(FileOrFolder const& item, FolderRemovalPolicy const& policy);
FOUNDATION_API void setWritable(FileOrFolder const& item, bool writable);
FOUNDATION_API void setLastModified(FileOrFolder const& item, boost::posix_time::ptime const& time);

/// What stands at a location: the provider's answer; not found is NotFound.
FOUNDATION_API provider::ExistsResult exists(AbsoluteIRI const& iri, StorageSystemReference const& system);
FOUNDATION_API provider::ExtendedExistsResult existsExtended(AbsoluteIRI const& iri, StorageSystemReference const& system);
/// A File where a file is, a Folder where anything else is; ResourceNotFound where nothing is.
FOUNDATION_API FileOrFolder makeFileOrFolder(AbsoluteIRI const& iri, StorageSystemReference const& system);
FOUNDATION_API File makeFile(provider::StorageItem item, StorageSystemReference const& system);
FOUNDATION_API Folder makeFolder(provider::StorageItem item, StorageSystemReference const& system);

} // namespace foundation::storage::vfs
