#pragma once

#include <foundation/storage/provider/folder_entry.hpp>
#include <foundation/storage/provider/storage_iri.hpp>

#include <exception>
#include <memory>
#include <vector>

namespace foundation::storage::providers::wrappers::detail {

namespace p = foundation::storage::provider;

/// A recursive listing of `root` that leaves out whatever lies inside `closed` folders, as
/// storage does for a folder it cannot read: the folder itself is named by its parent,
/// its contents are not. A failure of the listing below surfaces from `next`, as it would
/// have without the filter.
class ListingWithoutContents final : public p::IFolderEntryIterator {
public:
  ListingWithoutContents(std::unique_ptr<p::IFolderEntryIterator> inner, p::StorageIRI root,
                         std::vector<p::StorageIRI> closed);
  p::FolderEntry const& current() const override;
  bool hasNext() const override;
  void next() override;
  std::unique_ptr<p::IFolderEntryIterator> clone() const override;

private:
  struct Filter {
    p::StorageIRI root;
    std::vector<p::StorageIRI> closed;
    bool shows(p::FolderEntry const& entry) const;
  };

  ListingWithoutContents(ListingWithoutContents const& other);
  /// Reads ahead to the next entry shown, when that is not known yet.
  void lookAhead() const;

  std::shared_ptr<Filter const> filter_;
  std::unique_ptr<p::IFolderEntryIterator> inner_;
  std::unique_ptr<p::FolderEntry> current_;
  // What lies ahead, read by `hasNext`, which may not move the cursor itself.
  mutable bool aheadKnown_ = false;
  mutable std::unique_ptr<p::FolderEntry> ahead_;
  mutable std::exception_ptr aheadFailure_;
};

} // namespace foundation::storage::providers::wrappers::detail
