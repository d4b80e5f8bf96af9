// Folder listings on every scheme, each also with one listing feature switched off, so
// that the provider's filtering and walking and the library's own are both exercised.

#include "harness.hpp"

#include <foundation/storage/providers/wrappers/feature_switching_provider.hpp>

#include <algorithm>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <tuple>
#include <vector>

namespace {

using namespace harness;
using p::Operation;
using vfs::ErrorCode;

std::string narrow(std::u16string const& s) { return std::string(s.begin(), s.end()); }

vfs::AbsoluteIRI locationOf(vfs::ListEntry const& entry) { return entry.getLocation(); }
vfs::AbsoluteIRI locationOf(vfs::FileOrFolderEntry const& entry) { return vfs::getLocation(entry); }

/// Which listing feature the provider under test lacks, if any.
using Setup = std::tuple<std::string, std::optional<p::ExtendedFeature>>;

class Listings : public ::testing::TestWithParam<Setup> {
protected:
  void SetUp() override {
    auto const& [scheme, off] = GetParam();
    if (auto reason = unavailable(scheme); !reason.empty()) GTEST_SKIP() << reason;
    h = make(scheme);
    features = std::make_shared<wrappers::FeatureSwitchingProvider>(h.counts);
    if (off) features->disable(*off);
    auto wrapped = features;
    h.system->registerProvider(fl::i18n::to_ustring(scheme), [wrapped](p::StorageIRI const&) { return wrapped; });
    buildTree();
  }
  void TearDown() override {
    if (h.cleanup) h.cleanup();
  }

  bool walkedByLibrary() const { return features->isDisabled(p::ExtendedFeature::RecursiveListing); }

  /// root/{a.txt, b.log, .txt, empty/, sub/{c.txt, deeper/{d.txt}}}
  void buildTree() {
    h.folder(u"tree/sub/deeper").createFolderRecursive();
    h.folder(u"tree/empty").createFolder();
    write(h.file(u"tree/a.txt"), "aaa");
    write(h.file(u"tree/b.log"), "bb");
    write(h.file(u"tree/.txt"), "");
    write(h.file(u"tree/sub/c.txt"), "cccc");
    write(h.file(u"tree/sub/deeper/d.txt"), "d");
    tree = h.folder(u"tree");
  }

  std::string relative(vfs::AbsoluteIRI const& location) const {
    return narrow(location.makePathRelativeTo(h.at(u"tree")));
  }

  /// Relative paths of a tree listing's elements in order, iterated as the header says.
  template <class T>
  std::vector<std::string> walk(vfs::FolderListing<T> const& listing) const {
    std::vector<std::string> out;
    for (auto it = listing.begin(); !it.exhausted(); ++it) out.push_back(relative(locationOf(*it)));
    return out;
  }

  Harness h;
  std::shared_ptr<wrappers::FeatureSwitchingProvider> features;
  std::optional<vfs::Folder> tree;
};

template <class Listing, class Name>
std::set<std::string> namesOf(Listing const& listing, Name name) {
  std::set<std::string> out;
  for (auto const& element : listing) out.insert(narrow(name(element)));
  return out;
}

auto const byName = [](auto const& element) { return element.getName(); };

/// Every folder is followed at once by everything below it.
void expectPreOrder(std::vector<std::string> const& paths) {
  for (std::size_t i = 0; i < paths.size(); ++i) {
    std::string const prefix = paths[i] + "/";
    std::size_t below = std::count_if(paths.begin(), paths.end(), [&](auto const& q) { return q.starts_with(prefix); });
    for (std::size_t j = i + 1; j <= i + below; ++j)
      EXPECT_TRUE(j < paths.size() && paths[j].starts_with(prefix)) << paths[i] << " is not followed by its contents";
  }
}

std::set<std::string> const wholeTree{"a.txt", "b.log",     ".txt",       "empty",
                                      "sub",   "sub/c.txt", "sub/deeper", "sub/deeper/d.txt"};

TEST_P(Listings, ListFlatInEveryElementType) {
  EXPECT_EQ(namesOf(tree->listAll(), byName), (std::set<std::string>{"a.txt", "b.log", ".txt", "empty", "sub"}));
  EXPECT_EQ(namesOf(tree->listFiles(), byName), (std::set<std::string>{"a.txt", "b.log", ".txt"}));
  EXPECT_EQ(namesOf(tree->listFolders(), byName), (std::set<std::string>{"empty", "sub"}));
  EXPECT_EQ(namesOf(tree->listFolderEntries(), byName), (std::set<std::string>{"empty", "sub"}));

  std::map<std::string, unsigned long long> sizes;
  for (auto const& entry : tree->listFileEntries()) sizes[narrow(entry.getName())] = entry.getAttributes().getSize();
  EXPECT_EQ(sizes, (std::map<std::string, unsigned long long>{{"a.txt", 3}, {"b.log", 2}, {".txt", 0}}));

  std::set<std::string> folders;
  for (auto const& entry : tree->listAllEntries())
    if (boost::get<vfs::FolderEntry>(&entry)) folders.insert(narrow(vfs::getName(entry)));
  EXPECT_EQ(folders, (std::set<std::string>{"empty", "sub"}));

  EXPECT_TRUE(h.folder(u"tree/empty").listAll().empty());
  EXPECT_FALSE(tree->listAll().empty());
}

TEST_P(Listings, BehaveAsReIterableInputRanges) {
  using Iterator = vfs::FolderListingIterator<vfs::File>;
  static_assert(std::is_same_v<std::iterator_traits<Iterator>::iterator_category, std::input_iterator_tag>);
  static_assert(std::input_iterator<Iterator>);

  auto files = tree->listFiles();
  EXPECT_EQ(std::distance(files.begin(), files.end()), 3);
  std::vector<vfs::File> copied(files.begin(), files.end());
  EXPECT_EQ(copied.size(), 3u);

  // Every begin() starts again; advancing one iteration leaves another where it was.
  auto first = files.begin();
  auto second = files.begin();
  auto const firstName = first->getName();
  ++second;
  EXPECT_EQ(first->getName(), firstName);
  EXPECT_NE(second->getName(), firstName);
  EXPECT_NE(first, second);
  EXPECT_EQ(files.begin(), first); // the same first element object
  auto copy = second;              // an independent position
  ++copy;
  EXPECT_NE(copy, second);

  auto end = files.end();
  EXPECT_THROW(*end, std::logic_error);
}

TEST_P(Listings, AdvancingPastTheEndStaysThere) {
  // Flat listings, filtered or not, and tree listings the provider makes.
  auto expectStays = [](auto const& listing) {
    auto it = listing.begin();
    while (it != listing.end()) ++it;
    EXPECT_NO_THROW(++it);
    EXPECT_EQ(it, listing.end());
    EXPECT_TRUE(it.exhausted());
    EXPECT_THROW(*it, std::logic_error);
    auto end = listing.end();
    EXPECT_NO_THROW(++end);
    EXPECT_EQ(end, listing.end());
  };
  expectStays(tree->listFiles());
  expectStays(tree->listAllEntries(u"*.txt"));
  expectStays(h.folder(u"tree/empty").listFolders());
  if (!walkedByLibrary()) expectStays(tree->listAllRecursive());

  // An empty listing made by default is such a listing too, without a folder.
  vfs::FolderListing<vfs::ListEntry> none;
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.begin(), none.end());
  EXPECT_NE(none.begin(), vfs::FolderListingIterator<vfs::ListEntry>()) << "a listing's iterators are not singular";
  EXPECT_TRUE(none.begin().exhausted());
  EXPECT_THROW(*none.begin(), std::logic_error);
  expectStays(none);
  expectStays(vfs::FolderListing<vfs::FileOrFolderEntry>());
}

TEST_P(Listings, EntriesCarryTheListingsAttributesAndNamesOnlyAskAgain) {
  auto listing = tree->listFileEntries();
  std::vector<vfs::FileEntry> entries(listing.begin(), listing.end());
  h.counts->reset();
  for (auto const& entry : entries) {
    entry.getAttributes();
    vfs::File const& file = entry.getFile();
    EXPECT_EQ(&file, &entry.getFile()); // built once
  }
  EXPECT_EQ(h.counts->total(), 0u);

  auto all = tree->listAll();
  vfs::ListEntry const sub = *std::find_if(all.begin(), all.end(), [](auto const& e) { return e.getName() == u"sub"; });
  h.counts->reset();
  EXPECT_EQ(sub.getFileOrFolder().which(), 1);
  EXPECT_EQ(sub.getFileOrFolder().which(), 1);
  EXPECT_EQ(h.counts->count(Operation::Exists), 2u); // a names-only entry knows nothing of its kind
}

TEST_P(Listings, EntriesComputeOnFirstUseAndRetryAFailure) {
  vfs::FileEntry lazy(*tree, u"a.txt");
  vfs::FileEntry copy = lazy; // made before anything was computed, it sees what lazy computes
  h.faults->failOn(Operation::GetFileAttributes, h.at(u"tree/a.txt").toStorageIRI(), p::ErrorCode::IOError, {}, 1);
  h.counts->reset();
  EXPECT_VFS_ERROR(ErrorCode::IOError, lazy.getAttributes());
  EXPECT_EQ(lazy.getAttributes().getSize(), 3u);
  EXPECT_EQ(&copy.getAttributes(), &lazy.getAttributes());
  EXPECT_EQ(&copy.getFile(), &lazy.getFile());
  EXPECT_EQ(h.counts->count(Operation::GetFileAttributes), 2u);

  vfs::FolderEntry folder(h.folder(u"tree/sub"));
  EXPECT_EQ(folder.getName(), u"sub");
  EXPECT_EQ(vfs::detail::getFolderFromEntry(vfs::FileOrFolderEntry(folder)), h.folder(u"tree/sub"));
  EXPECT_THROW(vfs::detail::getFolderFromEntry(vfs::FileOrFolderEntry(vfs::FileEntry(h.file(u"tree/a.txt")))),
               boost::bad_get);
  EXPECT_THROW(vfs::detail::getFolderFromEntry(vfs::ListEntry(*tree, u"a.txt")), boost::bad_get);
  EXPECT_EQ(vfs::detail::getFolderFromEntry(vfs::ListEntry(*tree, u"sub/deeper")), h.folder(u"tree/sub/deeper"));

  vfs::ListEntry nested(*tree, u"sub/deeper/d.txt");
  EXPECT_EQ(nested.getFilename(), u"d.txt");
  EXPECT_EQ(nested.getLocation(), h.at(u"tree/sub/deeper/d.txt"));
  EXPECT_EQ(vfs::ListEntry(*tree, u"/").getFilename(), u"/");
  EXPECT_EQ(vfs::ListEntry(*tree, u"gone").getFileOrFolder().which(), 0); // vanished: a File, no error
}

TEST_P(Listings, ListWholeTreesInPreOrder) {
  auto names = walk(tree->listAllRecursive());
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()), wholeTree);
  EXPECT_EQ(names.size(), wholeTree.size());
  expectPreOrder(names);

  auto entries = walk(tree->listAllEntriesRecursive());
  EXPECT_EQ(std::set<std::string>(entries.begin(), entries.end()), wholeTree);
  expectPreOrder(entries);

  for (auto it = tree->listAllEntriesRecursive().begin(); !it.exhausted(); ++it) {
    if (auto const* file = boost::get<vfs::FileEntry>(&*it); file && file->getName().ends_with(u"d.txt")) {
      EXPECT_EQ(file->getAttributes().getSize(), 1u);
    }
  }

  // The provider names elements by their path below the listed folder, the library walk by
  // their own name; either way the file name is the last segment.
  for (auto it = tree->listAllRecursive().begin(); !it.exhausted(); ++it) {
    if (it->getFilename() != u"d.txt") continue;
    EXPECT_EQ(narrow(it->getName()), walkedByLibrary() ? "d.txt" : "sub/deeper/d.txt");
    EXPECT_EQ(relative(it->getLocation()), "sub/deeper/d.txt");
  }
}

TEST_P(Listings, FilterTreesByTheLastNameOnly) {
  auto names = walk(tree->listAllRecursive(u"*.txt"));
  EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
            (std::set<std::string>{"a.txt", ".txt", "sub/c.txt", "sub/deeper/d.txt"}));
  auto entries = walk(tree->listAllEntriesRecursive(u"d*"));
  EXPECT_EQ(entries, (std::vector<std::string>{"sub/deeper", "sub/deeper/d.txt"}));
  EXPECT_TRUE(walk(tree->listAllRecursive(u"nothing")).empty());
}

TEST_P(Listings, FilterFlatListingsWhoeverFilters) {
  EXPECT_EQ(namesOf(tree->listFiles(u"*.txt"), byName), (std::set<std::string>{"a.txt", ".txt"}));
  EXPECT_EQ(namesOf(tree->listAll(u"?.*"), byName), (std::set<std::string>{"a.txt", "b.log"}));
  EXPECT_EQ(namesOf(tree->listFolderEntries(u"s*"), byName), (std::set<std::string>{"sub"}));
  EXPECT_EQ(namesOf(tree->listAllEntries(u"*b*"), [](auto const& e) { return vfs::getName(e); }),
            (std::set<std::string>{"b.log", "sub"}));
  EXPECT_EQ(namesOf(tree->listFileEntries(u"a.TXT"), byName), std::set<std::string>{});
  auto none = tree->listFolders(u"x*");
  EXPECT_TRUE(none.empty());
  EXPECT_EQ(none.begin(), none.end());
  EXPECT_EQ(tree->providerSupportsFlatWildcardListing(),
            !features->isDisabled(p::ExtendedFeature::FlatWildcardListing));
}

TEST_P(Listings, AcceptPatternsOfAnyContent) {
  std::u16string const unpaired{u'a', char16_t(0xD800), u'*', char16_t(0xDC00)};
  for (std::u16string const& pattern :
       {std::u16string(u"*"), std::u16string(u"**"), std::u16string(10000, u'*'), std::u16string(10000, u'?'),
        std::u16string(u"*") + std::u16string(9998, u'a') + u"*", unpaired, std::u16string(u"[a]")}) {
    std::size_t matches = 0;
    for (auto const& file : tree->listFiles(pattern)) matches += !file.getName().empty();
    bool const onlyStars = pattern.find_first_not_of(u'*') == std::u16string::npos;
    EXPECT_EQ(matches, onlyStars ? 3u : 0u) << pattern.size();
    EXPECT_NO_THROW(walk(tree->listAllRecursive(pattern)));
  }
}

TEST_P(Listings, ReportWhatCannotBeListed) {
  auto const expectFailure = [&](ErrorCode code, vfs::Folder const& folder, auto list) {
    try {
      list(folder);
      ADD_FAILURE() << "listing " << folder << " succeeded";
    } catch (vfs::Exception const& failure) {
      EXPECT_EQ(failure.getErrorCode(), code) << folder;
      EXPECT_EQ(failure.getLocation(), folder.getLocation());
    }
  };
  for (auto list : std::vector<std::function<void(vfs::Folder const&)>>{
           [](vfs::Folder const& f) { f.listAll(); }, [](vfs::Folder const& f) { f.listFileEntries(u"*.txt"); },
           [](vfs::Folder const& f) { f.listAllRecursive(); },
           [](vfs::Folder const& f) { f.listAllEntriesRecursive(u"x"); }}) {
    expectFailure(ErrorCode::ResourceNotFound, h.folder(u"tree/missing"), list);
    expectFailure(ErrorCode::ResourceNotFound, h.folder(u"tree/a.txt"), list);
    h.faults->denyListing(h.at(u"tree/sub").toStorageIRI());
    expectFailure(ErrorCode::PermissionDenied, h.folder(u"tree/sub"), list);
    h.faults->clear();
  }
}

TEST_P(Listings, WalkPastSubFoldersThatCannotBeReadOrVanish) {
  h.faults->denyListing(h.at(u"tree/sub").toStorageIRI());
  auto const expected = std::vector<std::string>{"a.txt", "b.log", ".txt", "empty", "sub"};
  auto names = walk(tree->listAllRecursive());
  auto entries = walk(tree->listAllEntriesRecursive());
  if (walkedByLibrary()) { // the provider's own walk reads the folders itself
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
              std::set<std::string>(expected.begin(), expected.end()));
    EXPECT_EQ(std::set<std::string>(entries.begin(), entries.end()),
              std::set<std::string>(expected.begin(), expected.end()));
  }

  h.faults->clear();
  h.faults->vanishAfterListing(h.at(u"tree/sub").toStorageIRI());
  names = walk(tree->listAllEntriesRecursive());
  if (walkedByLibrary()) {
    EXPECT_EQ(std::set<std::string>(names.begin(), names.end()),
              std::set<std::string>(expected.begin(), expected.end()));
  }

  // Any other failure below the root reaches the caller.
  h.faults->clear();
  h.faults->failOn(Operation::ListAll, h.at(u"tree/sub/deeper").toStorageIRI(), p::ErrorCode::IOError);
  if (walkedByLibrary()) EXPECT_VFS_ERROR(ErrorCode::IOError, walk(tree->listAllEntriesRecursive()));
}

TEST_P(Listings, AnExhaustedWalkStaysUnequalToTheEndButFailsClearly) {
  auto listing = tree->listAllRecursive();
  auto it = listing.begin();
  while (!it.exhausted()) ++it;
  if (!walkedByLibrary()) {
    EXPECT_EQ(it, listing.end());
    return;
  }
  EXPECT_NE(it, listing.end());
  auto other = listing.begin();
  while (!other.exhausted()) ++other;
  EXPECT_EQ(it, other);
  EXPECT_THROW(*it, std::logic_error);
  EXPECT_THROW(++it, std::logic_error);
  EXPECT_FALSE(h.folder(u"tree/empty").listAllRecursive().empty()); // deliberate, as stated above
  EXPECT_TRUE(h.folder(u"tree/empty").listAllRecursive().begin().exhausted());
}

std::string setupName(::testing::TestParamInfo<Setup> const& info) {
  auto const& [scheme, off] = info.param;
  static char const* const names[] = {"NativeRecursiveRemoval", "RecursiveListing", "FlatWildcardListing",
                                      "RecursiveChangeEvents", "RecursiveWildcardListing"};
  return scheme + "_" + (off ? std::string("without") + names[static_cast<int>(*off)] : "complete");
}

INSTANTIATE_TEST_SUITE_P(Providers, Listings,
                         ::testing::Combine(::testing::ValuesIn(everyScheme()),
                                            ::testing::Values(std::nullopt, p::ExtendedFeature::RecursiveListing,
                                                              p::ExtendedFeature::FlatWildcardListing,
                                                              p::ExtendedFeature::RecursiveWildcardListing)),
                         setupName);

} // namespace
