#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/events/kinds.hpp>
#include <foundation/storage/provider/storage_item.hpp>

#include <vfs/absolute_iri.hpp>
#include <vfs/entries.hpp>
#include <vfs/file.hpp>
#include <vfs/listing.hpp>
#include <vfs/storage_system.hpp>

#include <boost/variant.hpp>

#include <chrono>
#include <cstdint>
#include <functional>
#include <iosfwd>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace foundation::storage::vfs {

/// How `Folder::removeFolder` treats contents.
enum class FolderRemovalPolicy : std::uint32_t { NonRecursive = 0, Recursive = 1 };

/// "FolderRemovalPolicy::<name>"; any other value gives the empty text.
FOUNDATION_API std::string toString(FolderRemovalPolicy policy);
/// Writes `toString(policy)`: nothing at all for a value outside the policy.
FOUNDATION_API std::ostream& operator<<(std::ostream& os, FolderRemovalPolicy policy);

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

  // Listings of the children. A non-empty `pattern` keeps only names that match it: `*`
  // stands for any run of characters, `?` for exactly one, everything else for itself
  // (case-sensitive, no escapes). The provider filters where it can, the library
  // otherwise. Failures arrive as the library's Exception.

  /// Files and folders by name only; ask each entry for its kind.
  FolderListing<ListEntry> listAll(std::u16string pattern = {}) const;
  FolderListing<File> listFiles(std::u16string pattern = {}) const;
  FolderListing<Folder> listFolders(std::u16string pattern = {}) const;
  /// Files with the attributes the provider lists with them.
  FolderListing<FileEntry> listFileEntries(std::u16string pattern = {}) const;
  FolderListing<FolderEntry> listFolderEntries(std::u16string pattern = {}) const;
  FolderListing<FileOrFolderEntry> listAllEntries(std::u16string pattern = {}) const;
  /// The whole tree below this folder by name, each a path relative to this folder (or,
  /// where the library walks the tree itself, a single name). The pattern tests the last
  /// name of each path. Sub-folders that cannot be read or vanish meanwhile are skipped;
  /// a folder is followed by its contents. Iterate with `exhausted()`, see FolderListing.
  FolderListing<ListEntry> listAllRecursive(std::u16string pattern = {}) const;
  /// The whole tree below this folder with attributes; as listAllRecursive.
  FolderListing<FileOrFolderEntry> listAllEntriesRecursive(std::u16string pattern = {}) const;
  /// Whether the provider filters flat listings by pattern itself.
  bool providerSupportsFlatWildcardListing() const;
  /// Moves the tree: by the provider within one scheme; across schemes, or where the
  /// provider refuses, by copyFolder and then removal of what was copied. A file the copy
  /// left out (its destination kept, or a name the destination cannot hold) stays here,
  /// with the folders holding it, as `mv` leaves a file it does not replace across file
  /// systems. A failed fallback leaves what it did: the source is removed only after the
  /// whole copy succeeded.
  void moveFolder(Folder const& destination, provider::ReplacementPolicy const& policy) const;
  /// Copies the tree onto `destination` (which becomes this folder's counterpart), file by
  /// file. Existing destination folders are kept (policies 2 to 4), replaced when empty
  /// (Overwrite), or refused (FailIfExists). Existing destination files are overwritten
  /// only by ForceOverwrite and OverwriteDeferringPermissionErrors; the other policies keep
  /// them, also one that appears while the copy runs or a namesake differing in case only
  /// on a destination that ignores case (the first copied of such names wins). With
  /// OverwriteDeferringPermissionErrors a file refused for lack of permission is reported
  /// after the rest was copied. InvalidLocation for a destination inside this tree.
  void copyFolder(Folder const& destination, provider::ReplacementPolicy const& policy) const;
  /// `copyFolder` onto the folder of this folder's name in `destinationParent`.
  void copyFolderInto(Folder const& destinationParent, provider::ReplacementPolicy const& policy) const;
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

  // The provider calls behind the listings, failures translated.
  std::unique_ptr<provider::IFolderEntryIterator> doListAll(std::u16string const& pattern) const;
  std::unique_ptr<provider::IFolderEntryIterator> doListFiles(std::u16string const& pattern) const;
  std::unique_ptr<provider::IFolderEntryIterator> doListFolders(std::u16string const& pattern) const;
  std::unique_ptr<provider::IFolderEntryIterator> doListFileEntries(std::u16string const& pattern) const;
  std::unique_ptr<provider::IFolderEntryIterator> doListFolderEntries(std::u16string const& pattern) const;
  std::unique_ptr<provider::IFolderEntryIterator> doListAllEntries(std::u16string const& pattern) const;
  std::unique_ptr<provider::IFolderEntryIterator>
  doListAllRecursive_provider_specialization(std::u16string const& pattern) const;
  std::unique_ptr<provider::IFolderEntryIterator>
  doListAllEntriesRecursive_provider_specialization(std::u16string const& pattern) const;

  provider::StorageItem item_;
  StorageSystemReference system_;
  bool canonical_;
};

FOUNDATION_API std::ostream& operator<<(std::ostream& os, Folder const& folder);

/// Removes a folder and everything below it with a walk, for providers without their own
/// recursive removal. Entries that vanish meanwhile are no failure; a vanished `folder`
/// is. A link to a folder is removed, not followed.
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
/// File::moveFile or Folder::moveFolder; std::logic_error for a file onto a folder or back.
FOUNDATION_API void move(FileOrFolder const& source, FileOrFolder const& destination,
                         provider::ReplacementPolicy const& policy);
/// File::copyFile (its result) or Folder::copyFolder (Copied); std::logic_error for mixed kinds.
FOUNDATION_API provider::CopyResult copy(FileOrFolder const& source, FileOrFolder const& destination,
                                         provider::ReplacementPolicy const& policy);

/// What stands at a location: the provider's answer; not found is NotFound.
FOUNDATION_API provider::ExistsResult exists(AbsoluteIRI const& iri, StorageSystemReference const& system);
FOUNDATION_API provider::ExtendedExistsResult existsExtended(AbsoluteIRI const& iri,
                                                             StorageSystemReference const& system);
/// A File where a file is, a Folder where anything else is; ResourceNotFound where nothing is.
FOUNDATION_API FileOrFolder makeFileOrFolder(AbsoluteIRI const& iri, StorageSystemReference const& system);
FOUNDATION_API File makeFile(provider::StorageItem item, StorageSystemReference const& system);
FOUNDATION_API Folder makeFolder(provider::StorageItem item, StorageSystemReference const& system);

} // namespace foundation::storage::vfs
