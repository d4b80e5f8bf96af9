// A corpus of archives of every kind the standard tools meet (made by make_archive_corpus.py
// with zip, tar, bsdtar and python), read through our providers and compared with what
// bsdtar lists (-tv) and extracts (-x). Where we differ on purpose, the difference is
// written down below with its reason; any other difference fails.

#include "archive_fixture.hpp"

#include <foundation/storage/provider/exceptions.hpp>

#include <cstdio>
#include <iostream>
#include <map>
#include <set>
#include <sstream>

using namespace archivetest;
using testsupport::quoted;
using testsupport::readLocal;

namespace {

namespace fs = std::filesystem;

struct Output {
  std::string text;
  int status;
};

/// Standard output and exit status of `command`; standard error is dropped.
Output capture(std::string const& command) {
  Output out{{}, -1};
  FILE* pipe = ::popen(("LC_ALL=C.UTF-8 " + command + " 2>/dev/null").c_str(), "r");
  if (!pipe) return out;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) out.text.append(buffer, n);
  out.status = ::pclose(pipe);
  return out;
}

/// Kinds as ls shows them: 'd' folder, '-' file, 'l' symbolic link, 'p' pipe, 'c'/'b' device.
using Listing = std::map<std::string, std::string>; // name -> kind, and " -> target" for links

std::string withoutDotPrefix(std::string name) {
  while (name.rfind("./", 0) == 0) name.erase(0, 2);
  while (!name.empty() && name.back() == '/') name.pop_back();
  return name;
}

/// What bsdtar -tv lists, as a tree: folders that entry paths imply included, later entries
/// of a name replacing earlier ones, hard links as the files they are.
Listing referenceListing(std::string const& text) {
  Listing listing;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream fields(line);
    std::string field;
    for (int i = 0; i < 8; ++i) fields >> field; // mode, links, owner, group, size, date
    if (field.empty()) continue;
    std::string name;
    std::getline(fields, name);
    name = name.substr(1);
    char kind = line[0] == 'h' ? '-' : line[0];
    std::string target;
    if (kind == 'l') {
      auto const arrow = name.rfind(" -> ");
      target = name.substr(arrow + 4);
      name.resize(arrow);
    } else if (line[0] == 'h') {
      name.resize(name.rfind(" link to "));
    }
    name = withoutDotPrefix(name);
    if (name.empty()) continue;
    bool const inside = name[0] != '/' && name.rfind("../", 0) != 0 && name.find("/../") == std::string::npos;
    for (auto slash = name.find('/'); inside && slash != std::string::npos; slash = name.find('/', slash + 1))
      listing.try_emplace(name.substr(0, slash), "d");
    listing[name] = kind == 'l' ? "l -> " + target : std::string(1, kind);
  }
  return listing;
}

/// Our tree, in the same form.
Listing ourListing(p::StorageItem const& root, std::u16string const& rootIri, std::string const& scheme) {
  Listing listing;
  for (auto cursor = root.listAllRecursive(u""); cursor->hasNext();) {
    cursor->next();
    auto const& entry = cursor->current();
    std::string const name = fl::i18n::to_utf8(entry.getName());
    if (!entry.isFile()) {
      listing[name] = "d";
    } else if (entry.getFileAttributes()->isSymlink()) {
      auto const location = p::StorageIRI(rootIri + entry.getName());
      auto const attributes = p::StorageItem(root.getProvider(), location).getExtendedAttributes();
      listing[name] = "l -> " + attributes.get<std::string>(scheme + ".linkTarget", "?");
    } else {
      listing[name] = "-";
    }
  }
  return listing;
}

/// Every way our view differs from the reference: "-name (kind)" missing here, "+name
/// (kind)" only here, "name: reference kind / ours", "name: contents ..." for file data.
std::vector<std::string> differences(Listing const& reference, Listing const& ours) {
  std::vector<std::string> found;
  for (auto const& [name, kind] : reference) {
    auto const mine = ours.find(name);
    if (mine == ours.end())
      found.push_back("-" + name + " (" + kind + ")");
    else if (mine->second != kind)
      found.push_back(name + ": " + kind + " / " + mine->second);
  }
  for (auto const& [name, kind] : ours)
    if (!reference.count(name)) found.push_back("+" + name + " (" + kind + ")");
  return found;
}

/// An archive where we differ from bsdtar on purpose: each expected difference, and why.
struct Deliberate {
  std::vector<std::string> differences;
  std::string why;
};

std::map<std::string, Deliberate> const expectedDifferences{
    {"names-cp437.zip",
     {{"-\\377\\376.txt (-)", "-cp437-\\201ber.txt (-)", "-dos-\\201ber.txt (-)",
       "-koi8-\\360\\322\\311\\327\\305\\324.txt (-)", "+\u00A0■.txt (-)", "+cp437-über.txt (-)", "+dos-über.txt (-)",
       "+koi8-≡╥╔╫┼╘.txt (-)", "\u00A0■.txt: read here, not extracted by bsdtar",
       "cp437-über.txt: read here, not extracted by bsdtar", "dos-über.txt: read here, not extracted by bsdtar",
       "koi8-≡╥╔╫┼╘.txt: read here, not extracted by bsdtar"},
      "names that are neither flagged nor valid UTF-8 are decoded as code page 437, the format's own (as unzip "
      "does for DOS entries); bsdtar shows their raw bytes"}},
    {"duplicates.zip",
     {{"dup.txt: contents differ"},
      "of two zip entries of one name the first is shown, the one a zip reader finds by name; bsdtar -x "
      "extracts both, the last one staying"}},
    {"unix-kinds.zip",
     {{"-fifo (-)"},
      "an entry whose Unix mode says pipe is no file, so it is skipped and reported; bsdtar ignores the mode"}},
    {"odd-names.zip",
     {{"-../up.txt (-)", "-/abs.txt (-)", "-a/b.txt (-)", "-a (d)"},
      "names that climb out or are absolute are skipped and reported (bsdtar -x refuses or strips them too); "
      "a backslash may be a DOS separator or part of a Unix name, so that entry is skipped and reported "
      "where bsdtar guesses a separator"}},
    {"odd-names.tar",
     {{"-../up.txt (-)", "-/abs.txt (-)"}, "names that climb out or are absolute are skipped and reported"}},
    {"names-not-utf8.tar",
     {{"-\\377\\376.txt (-)", "-koi8-\\360\\322.txt (-)"},
      "tar declares no encoding for these names and they are not UTF-8: skipped and reported (names are "
      "Unicode here), where bsdtar shows raw bytes"}},
    {"names-not-utf8-pax.tar",
     {{"-\\377\\376.txt (-)"}, "the pax header declares the name binary and it is not UTF-8: skipped and reported"}},
    {"links.tar",
     {{"-hard-to-nothing (-)", "-fifo (p)"},
      "a hard link to no earlier file has no data, and a pipe is no file: both are skipped and reported"}},
};

} // namespace

class ArchiveCorpus : public ArchiveTest {};

TEST_F(ArchiveCorpus, ReadsAsBsdtarListsAndExtractsExceptWhereWeDifferOnPurpose) {
  testsupport::run("python3 " + quoted(ARCHIVE_CORPUS_SCRIPT) + " " + quoted(path("corpus")));
  std::ostringstream table;
  for (auto const& file : fs::directory_iterator(path("corpus"))) {
    if (!file.is_regular_file()) continue;
    std::string const name = file.path().filename().string();
    SCOPED_TRACE(name);
    std::string const scheme = name.find(".zip") != std::string::npos ? "zip" : "tar";
    std::u16string const root = fl::i18n::to_ustring(scheme) + u":" + local("corpus/" + name) + u"!/";

    Output const listed = capture("bsdtar -tvf " + quoted(file.path()));
    Listing const reference = referenceListing(listed.text);
    Listing ours;
    bool ourFailure = false;
    try {
      ours = ourListing(item(root), root, scheme);
    } catch (p::Exception const& failure) {
      EXPECT_EQ(failure.getErrorCode(), p::ErrorCode::IOError) << failure.what();
      ourFailure = true;
    }
    if (reference.empty() && listed.status != 0) {
      EXPECT_TRUE(ourFailure) << "bsdtar cannot read it, we can";
      table << "  " << name << ": clean error where the reference also fails\n";
      continue;
    }
    if (ourFailure) {
      ADD_FAILURE() << "bsdtar reads it, we cannot";
      table << "  " << name << ": DIFFERS: cannot be read here\n";
      continue;
    }

    std::vector<std::string> found = differences(reference, ours);
    auto const extracted = path("extracted") / name;
    fs::create_directories(extracted);
    capture("bsdtar -xf " + quoted(file.path()) + " -C " + quoted(extracted));
    for (auto const& [entry, kind] : ours) {
      if (kind != "-") continue;
      auto const theirs = extracted / entry;
      bool const theyRead = fs::is_regular_file(fs::symlink_status(theirs));
      try {
        std::string const data = testsupport::readFile(item(root + fl::i18n::to_ustring(entry)));
        if (!theyRead)
          found.push_back(entry + ": read here, not extracted by bsdtar");
        else if (data != readLocal(theirs))
          found.push_back(entry + ": contents differ");
      } catch (p::ByteStreamFailure const& failure) {
        if (theyRead) found.push_back(entry + ": unreadable here: " + failure.what());
      }
    }

    std::sort(found.begin(), found.end());
    auto const expected = expectedDifferences.find(name);
    std::vector<std::string> wanted =
        expected == expectedDifferences.end() ? std::vector<std::string>{} : expected->second.differences;
    std::sort(wanted.begin(), wanted.end());
    EXPECT_EQ(found, wanted);
    if (found.empty())
      table << "  " << name << ": OK\n";
    else if (found == wanted)
      table << "  " << name << ": differs deliberately: " << expected->second.why << "\n";
    else {
      table << "  " << name << ": DIFFERS:";
      for (auto const& line : found) table << " [" << line << "]";
      table << "\n";
    }
  }
  std::cout << "archive corpus against bsdtar:\n" << table.str();
}
