#include "archive_tree.hpp"

#include <fl/i18n/i18n.hpp>

#include <algorithm>
#include <utility>
#include <variant>

namespace foundation::storage::providers::archive::detail {

namespace {

constexpr common::NameRule exactNames(p::FilenameSensitivity::CaseSensitive);

bool validUtf8(std::string_view bytes) {
  try {
    fl::i18n::strict::utf8_to_utf16(bytes);
    return true;
  } catch (std::exception const&) {
    return false;
  }
}

/// `raw` with every byte that is not part of valid UTF-8 shown as \xHH.
std::string printable(std::string const& raw) {
  if (validUtf8(raw)) return raw;
  std::string out;
  for (std::size_t at = 0; at < raw.size();) {
    auto const lead = static_cast<unsigned char>(raw[at]);
    std::size_t const length = lead < 0xC0 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    if (at + length <= raw.size() && validUtf8(std::string_view(raw).substr(at, length))) {
      out.append(raw, at, length);
      at += length;
      continue;
    }
    static char const digits[] = "0123456789ABCDEF";
    out += "\\x";
    out += digits[lead >> 4];
    out += digits[lead & 15];
    ++at;
  }
  return out;
}

/// The path segments of a raw entry name, or why the name cannot lie inside the archive.
std::variant<Segments, std::string> checkedSegments(std::string const& raw) {
  if (raw.empty()) return std::string("the entry has no name");
  if (raw.find('\0') != std::string::npos) return std::string("the name holds a NUL character");
  if (raw.find('\\') != std::string::npos) return std::string("the name holds a backslash");
  if (!raw.empty() && raw[0] == '/') return std::string("the name is absolute");
  if (raw.size() >= 2 && raw[1] == ':' && fl::i18n::lcctype::isalpha_ascii(static_cast<unsigned char>(raw[0])))
    return std::string("the name starts with a drive letter");
  std::u16string text;
  try {
    text = fl::i18n::strict::utf8_to_utf16(raw);
  } catch (std::exception const&) {
    return std::string("the name is not UTF-8, and the archive declares no encoding that decodes it");
  }
  Segments segments;
  for (std::u16string const& segment : common::namesOf(text)) {
    if (segment == u"..") return std::string("the name climbs out with '..'");
    if (segment != u".") segments.push_back(segment);
  }
  return segments;
}

} // namespace

Tree::Tree() : root_(std::make_unique<Node>()) {
  root_->folder = true;
  root_->modified = boost::posix_time::second_clock::universal_time();
}

Tree::Tree(std::vector<RawEntry> const& entries) : Tree() {
  for (RawEntry const& entry : entries) add(entry);
}

void Tree::add(RawEntry const& entry) {
  std::uint64_t const position = added_++;
  if (!entry.problem.empty()) {
    skipped_.push_back({printable(entry.name), entry.problem});
    return;
  }
  auto checked = checkedSegments(entry.name);
  if (auto const* reason = std::get_if<std::string>(&checked)) {
    skipped_.push_back({printable(entry.name), *reason});
    return;
  }
  Segments const& segments = std::get<Segments>(checked);
  if (segments.empty()) { // the archive's own root ("./")
    if (entry.folder) root_->modified = entry.modified;
    return;
  }
  Node* folder = root_.get();
  for (std::size_t i = 0; i + 1 < segments.size(); ++i) {
    auto& child = folder->children[segments[i]];
    if (!child) {
      child = std::make_unique<Node>();
      child->name = segments[i];
      child->folder = true;
      child->modified = entry.modified;
      child->position = position;
    } else if (!child->folder) {
      skipped_.push_back({entry.name, "a file of the archive stands where this entry needs a folder"});
      return;
    }
    folder = child.get();
  }
  auto& slot = folder->children[segments.back()];
  bool const impliedFolder = slot && slot->folder && !slot->explicitEntry && entry.folder;
  if (slot && !impliedFolder) {
    skipped_.push_back({entry.name, "an earlier entry has the same name"});
    return;
  }
  if (!slot) {
    slot = std::make_unique<Node>();
    slot->position = position;
  }
  slot->name = segments.back();
  slot->folder = entry.folder;
  slot->symlink = entry.symlink;
  slot->linkTarget = entry.linkTarget;
  slot->writable = entry.writable;
  slot->modified = entry.modified;
  slot->mode = entry.mode;
  slot->explicitEntry = true;
  slot->index = entry.ref.index;
  placed_.push_back(entry.ref.index);
  if (!entry.folder) slot->entry = entry.ref;
}

Node* Tree::find(Segments const& path) const { return common::findNode(*root_, path, exactNames); }

Node* Tree::findParent(Segments const& path) const { return common::findParentNode(*root_, path, exactNames); }

std::optional<std::string> Tree::whySkipped(Segments const& path) const {
  // Compared loosely: what a user would type to reach the entry.
  for (auto const& entry : skipped_) {
    try {
      Segments loose;
      for (auto& segment : common::namesOf(fl::i18n::strict::utf8_to_utf16(entry.name)))
        if (segment != u".") loose.push_back(std::move(segment));
      if (loose == path) return entry.reason;
    } catch (std::exception const&) {
      // a name that is not UTF-8 cannot be asked for
    }
  }
  return std::nullopt;
}

std::uint64_t Tree::count() const {
  std::uint64_t total = 0;
  std::vector<Node const*> pending{root_.get()};
  while (!pending.empty()) {
    Node const* node = pending.back();
    pending.pop_back();
    for (auto const& [name, child] : node->children) {
      ++total;
      if (child->folder) pending.push_back(child.get());
    }
  }
  return total;
}

LinkEnd Tree::resolveLink(Segments const& path) const {
  // As many links as a POSIX system follows before it gives up with ELOOP.
  constexpr int longestChain = 40;
  Segments at = path;
  for (int step = 0; step < longestChain; ++step) {
    Node const* link = find(at);
    if (!link) return LinkEnd::Nothing;
    if (!link->symlink) return link->folder ? LinkEnd::Folder : LinkEnd::File;
    if (link->linkTarget.empty() || link->linkTarget[0] == '/') return LinkEnd::Nothing;
    std::u16string target;
    try {
      target = fl::i18n::strict::utf8_to_utf16(link->linkTarget);
    } catch (std::exception const&) {
      return LinkEnd::Nothing;
    }
    at.pop_back(); // relative to the folder holding the link
    for (auto& segment : common::namesOf(target)) {
      if (segment == u".") continue;
      if (segment != u"..") {
        at.push_back(std::move(segment));
      } else if (at.empty()) {
        return LinkEnd::Nothing; // out of the archive
      } else {
        at.pop_back();
      }
    }
  }
  return LinkEnd::Nothing;
}

std::optional<std::string> refusedName(Segments const& path) {
  // Zip keeps a name in 16 bits, a folder's with its trailing '/'.
  constexpr std::size_t longestName = 0xFFFF - 1;
  std::string raw;
  try {
    raw = fl::i18n::strict::utf16_to_utf8(pathOf(path).substr(1));
  } catch (std::exception const&) {
    return std::string("the name is not valid Unicode");
  }
  if (raw.size() > longestName) return std::string("the name is longer than an entry header holds");
  auto const checked = checkedSegments(raw);
  if (auto const* reason = std::get_if<std::string>(&checked)) return *reason;
  return std::nullopt;
}

std::vector<Node const*> inArchiveOrder(Node const& folder) {
  std::vector<Node const*> children = common::inKeyOrder(folder);
  std::stable_sort(children.begin(), children.end(),
                   [](Node const* a, Node const* b) { return a->position < b->position; });
  return children;
}

} // namespace foundation::storage::providers::archive::detail
