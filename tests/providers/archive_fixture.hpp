#pragma once

// A storage system with the archive providers, a local folder for archive files, and
// shortcuts for the archive tests.

#include "../support/archive_tools.hpp"
#include "../support/item_io.hpp"
#include "../support/temporary_folder.hpp"

#include <foundation/storage/systems/standard_storage_system.hpp>

#include <fl/i18n/i18n.hpp>

#include <gtest/gtest.h>

#include <algorithm>

namespace archivetest {

namespace p = foundation::storage::provider;

class ArchiveTest : public ::testing::Test {
protected:
  /// The item at `iri`, served by this test's storage system.
  p::StorageItem item(std::u16string const& iri) const {
    p::StorageIRI const location(iri);
    return p::StorageItem(system_->buildProvider(location), location);
  }
  /// The `file://` IRI of `name` in the test's folder.
  std::u16string local(std::string const& name) const {
    return u"file://" + fl::i18n::to_ustring((folder_.path() / name).string());
  }
  std::filesystem::path path(std::string const& name) const { return folder_.path() / name; }
  /// Commits every pending change set of the zip provider.
  void commit() const {
    auto provider = system_->buildProvider(p::StorageIRI(u"zip:mem:///any.zip!/"));
    dynamic_cast<p::extensions::IFlushableFilesystem&>(*provider).flushFilesystem();
  }
  /// Every name below `folder`, "name/" for folders, sorted.
  static std::vector<std::string> tree(p::StorageItem const& folder) {
    std::vector<std::string> names;
    for (auto cursor = folder.listAllRecursiveNamesOnly(u""); cursor->hasNext();) {
      cursor->next();
      names.push_back(fl::i18n::to_utf8(cursor->current().getName()) + (cursor->current().isFile() ? "" : "/"));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  testsupport::TemporaryFolder folder_{"vfs-archive"};
  std::shared_ptr<foundation::storage::systems::StandardStorageSystem> system_ =
      std::make_shared<foundation::storage::systems::StandardStorageSystem>();
};

/// Lines of text, sorted, without empty ones.
inline std::vector<std::string> sortedLines(std::string const& text) {
  std::vector<std::string> lines;
  std::size_t start = 0;
  while (start < text.size()) {
    auto end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) lines.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

} // namespace archivetest
