#pragma once

// Listing entries: what a listing says about each child of a folder, with the child's
// handle and attributes built only when asked for.

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/attributes.hpp>

#include <vfs/absolute_iri.hpp>
#include <vfs/file.hpp>

#include <boost/variant.hpp>

#include <memory>
#include <string>

namespace foundation::storage::vfs {

class Folder;

/// A file child of a folder: its name, its File handle (built on first use) and its
/// attributes (as the listing delivered them, or fetched on first use). Copies share one
/// state, so what one copy has computed every copy sees; safe to read from several
/// threads. A failed computation throws and is tried again on the next call.
class FOUNDATION_API FileEntry {
public:
  /// Attributes known from the listing: `getAttributes` asks nobody.
  FileEntry(Folder parent, std::u16string name, provider::FileAttributes attributes);
  /// Attributes fetched from the provider on first use.
  FileEntry(Folder parent, std::u16string name);
  explicit FileEntry(File file);

  /// The name as listed, without asking the provider.
  std::u16string const& getName() const noexcept;
  File const& getFile() const;
  provider::FileAttributes const& getAttributes() const;
  AbsoluteIRI getLocation() const;
  AbsoluteIRI getCanonicalLocation() const;

  class Impl;

private:
  std::shared_ptr<Impl> impl_;
};

/// A folder child of a folder; the counterpart of FileEntry.
class FOUNDATION_API FolderEntry {
public:
  FolderEntry(Folder parent, std::u16string name, provider::FolderAttributes attributes);
  FolderEntry(Folder parent, std::u16string name);
  explicit FolderEntry(Folder folder);

  std::u16string const& getName() const noexcept;
  Folder const& getFolder() const;
  provider::FolderAttributes const& getAttributes() const;
  AbsoluteIRI getLocation() const;
  AbsoluteIRI getCanonicalLocation() const;

  class Impl;

private:
  std::shared_ptr<Impl> impl_;
};

/// An entry of a listing with attributes: a file or a folder; FileEntry is alternative 0.
using FileOrFolderEntry = boost::variant<FileEntry, FolderEntry>;

FOUNDATION_API std::u16string getName(FileOrFolderEntry const& entry);
FOUNDATION_API AbsoluteIRI getLocation(FileOrFolderEntry const& entry);
FOUNDATION_API AbsoluteIRI getCanonicalLocation(FileOrFolderEntry const& entry);

/// A child known only by name (from a names-only listing): a single name in flat listings,
/// a "/"-separated path below the listed folder in a provider's tree listing. Caches
/// nothing: its kind is asked of the provider on every `getFileOrFolder`.
class FOUNDATION_API ListEntry {
public:
  ListEntry(Folder parent, std::u16string name);

  /// The name as listed (possibly a relative path).
  std::u16string const& getName() const noexcept;
  /// The last "/" segment of the name; the name "/" itself stays "/".
  std::u16string getFilename() const;
  AbsoluteIRI getLocation() const;
  /// A Folder where the provider finds a folder, a File otherwise: also where nothing is
  /// any more (no error here; the File's own operations will tell).
  boost::variant<File, Folder> getFileOrFolder() const;

  bool operator==(ListEntry const& other) const;
  bool operator<(ListEntry const& other) const;

  class Impl;

private:
  std::shared_ptr<Impl const> impl_;
};

namespace detail {

/// The folder an entry stands for; boost::bad_get when it is not a folder.
FOUNDATION_API Folder getFolderFromEntry(ListEntry const& entry);
FOUNDATION_API Folder getFolderFromEntry(FileOrFolderEntry const& entry);

} // namespace detail

} // namespace foundation::storage::vfs
