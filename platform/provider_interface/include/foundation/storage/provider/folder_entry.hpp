#pragma once

#include <foundation/core/visibility.hpp>
#include <foundation/storage/provider/attributes.hpp>

#include <boost/optional.hpp>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace foundation::storage::provider {

/// One child in a listing: its name (a relative "a/b" path in recursive listings), its
/// kind, and its attributes when the listing call delivers them.
class FolderEntry {
public:
  /// An entry of a names-only listing.
  FolderEntry(std::u16string name, bool isFile) : name_(std::move(name)), isFile_(isFile) {}
  FolderEntry(std::u16string name, FileAttributes attributes)
      : name_(std::move(name)), isFile_(true), fileAttributes_(attributes) {}
  FolderEntry(std::u16string name, FolderAttributes attributes)
      : name_(std::move(name)), isFile_(false), folderAttributes_(attributes) {}

  std::u16string const& getName() const noexcept { return name_; }
  bool isFile() const noexcept { return isFile_; }
  boost::optional<FileAttributes> const& getFileAttributes() const noexcept { return fileAttributes_; }
  boost::optional<FolderAttributes> const& getFolderAttributes() const noexcept { return folderAttributes_; }

  /// Refills this entry for another child, reusing the name's storage: a cursor that
  /// keeps one entry and refills it allocates nothing per child once the name fits.
  void assign(std::u16string_view name, bool isFile) {
    name_.assign(name);
    isFile_ = isFile;
    fileAttributes_.reset();
    folderAttributes_.reset();
  }
  void assign(std::u16string_view name, FileAttributes attributes) {
    assign(name, true);
    fileAttributes_ = attributes;
  }
  void assign(std::u16string_view name, FolderAttributes attributes) {
    assign(name, false);
    folderAttributes_ = attributes;
  }
  /// Refills this entry as `child` with the name "prefix/child-name" (recursive listings).
  void assignBelow(std::u16string_view prefix, FolderEntry const& child) {
    name_.assign(prefix);
    name_ += u'/';
    name_ += child.name_;
    isFile_ = child.isFile_;
    fileAttributes_ = child.fileAttributes_;
    folderAttributes_ = child.folderAttributes_;
  }

private:
  std::u16string name_;
  bool isFile_;
  boost::optional<FileAttributes> fileAttributes_;
  boost::optional<FolderAttributes> folderAttributes_;
};

/// A listing cursor. A fresh cursor stands before its first entry: `hasNext` tells whether
/// another entry follows, `next` moves onto it, `current` returns the entry under the
/// cursor, lent: the reference stays valid until the cursor moves or is destroyed, so a
/// cursor can refill one entry instead of building one per child. Used by one thread at a
/// time; `clone` gives an independent cursor at the same position. `next` and `hasNext`
/// may fail with the provider Exception (a folder read lazily).
class FOUNDATION_API IFolderEntryIterator {
public:
  virtual ~IFolderEntryIterator();
  /// The entry under the cursor; std::logic_error before the first `next`.
  virtual FolderEntry const& current() const = 0;
  virtual bool hasNext() const = 0;
  virtual void next() = 0;
  virtual std::unique_ptr<IFolderEntryIterator> clone() const = 0;
};

/// A cursor over entries gathered when the listing was made. Clones share the entries.
class FOUNDATION_API SnapshotFolderEntryIterator final : public IFolderEntryIterator {
public:
  explicit SnapshotFolderEntryIterator(std::vector<FolderEntry> entries);
  FolderEntry const& current() const override;
  bool hasNext() const override;
  void next() override;
  std::unique_ptr<IFolderEntryIterator> clone() const override;

private:
  std::shared_ptr<std::vector<FolderEntry> const> entries_;
  std::size_t position_ = 0; ///< index of the current entry plus one; 0 before the first
};

} // namespace foundation::storage::provider
