#include "archive_tree.hpp"

#include <foundation/storage/provider/wildcard.hpp>

#include <fl/i18n/i18n.hpp>

#include <utility>
#include <variant>

namespace foundation::storage::providers::archive::detail {

namespace {

bool hidden(Node const& node) { return !node.name.empty() && node.name[0] == u'.'; }

/// The path segments of a raw entry name, or why the name cannot lie inside the archive.
std::variant<Segments, std::string> checkedSegments(std::string const& raw) {
  if (raw.find('\0') != std::string::npos) return std::string("the name holds a NUL character");
  if (raw.find('\\') != std::string::npos) return std::string("the name holds a backslash");
  if (!raw.empty() && raw[0] == '/') return std::string("the name is absolute");
  if (raw.size() >= 2 && raw[1] == ':' && fl::i18n::lcctype::isalpha_ascii(static_cast<unsigned char>(raw[0])))
    return std::string("the name starts with a drive letter");
  std::u16string text;
  try {
    text = fl::i18n::to_ustring(raw);
  } catch (std::exception const&) {
    return std::string("the name is not UTF-8");
  }
  Segments segments;
  for (std::u16string const& segment : segmentsOf(text)) {
    if (segment == u"..") return std::string("the name climbs out with '..'");
    if (segment != u".") segments.push_back(segment);
  }
  return segments;
}

} // namespace

Node::~Node() {
  // Deep trees are taken apart without one call frame per level.
  std::vector<std::unique_ptr<Node>> pending;
  for (auto& [name, child] : children) pending.push_back(std::move(child));
  children.clear();
  while (!pending.empty()) {
    std::unique_ptr<Node> node = std::move(pending.back());
    pending.pop_back();
    for (auto& [name, child] : node->children) pending.push_back(std::move(child));
    node->children.clear();
  }
}

Tree::Tree() : root_(std::make_unique<Node>()) {
  root_->folder = true;
  root_->modified = boost::posix_time::second_clock::universal_time();
}

Tree::Tree(std::vector<RawEntry> const& entries) : Tree() {
  for (RawEntry const& entry : entries) add(entry);
}

void Tree::add(RawEntry const& entry) {
  auto checked = checkedSegments(entry.name);
  if (auto const* reason = std::get_if<std::string>(&checked)) {
    skipped_.push_back({entry.name, *reason});
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
  if (!slot) slot = std::make_unique<Node>();
  slot->name = segments.back();
  slot->folder = entry.folder;
  slot->symlink = entry.symlink;
  slot->writable = entry.writable;
  slot->modified = entry.modified;
  slot->mode = entry.mode;
  slot->explicitEntry = true;
  slot->index = entry.ref.index;
  placed_.push_back(entry.ref.index);
  if (!entry.folder) slot->entry = entry.ref;
}

Node* Tree::find(Segments const& path) const {
  Node* node = root_.get();
  for (auto const& segment : path) {
    if (!node->folder) return nullptr;
    auto child = node->children.find(segment);
    if (child == node->children.end()) return nullptr;
    node = child->second.get();
  }
  return node;
}

Node* Tree::findParent(Segments const& path) const {
  if (path.empty()) return nullptr;
  Node* parent = find(Segments(path.begin(), path.end() - 1));
  return parent && parent->folder ? parent : nullptr;
}

std::optional<std::string> Tree::whySkipped(Segments const& path) const {
  // Compared loosely: what a user would type to reach the entry.
  for (auto const& entry : skipped_) {
    try {
      Segments loose;
      for (auto& segment : segmentsOf(fl::i18n::to_ustring(entry.name)))
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

std::optional<std::string> refusedName(Segments const& path) {
  // Zip keeps a name in 16 bits, a folder's with its trailing '/'.
  constexpr std::size_t longestName = 0xFFFF - 1;
  std::string raw;
  try {
    raw = fl::i18n::to_utf8(pathOf(path).substr(1));
  } catch (std::exception const&) {
    return std::string("the name is not valid Unicode");
  }
  if (raw.size() > longestName) return std::string("the name is longer than an entry header holds");
  auto const checked = checkedSegments(raw);
  if (auto const* reason = std::get_if<std::string>(&checked)) return *reason;
  return std::nullopt;
}

Segments segmentsOf(std::u16string const& path) {
  Segments segments;
  std::size_t start = 0;
  while (start <= path.size()) {
    std::size_t end = path.find(u'/', start);
    if (end == std::u16string::npos) end = path.size();
    if (end > start) segments.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return segments;
}

std::u16string pathOf(Segments const& segments) {
  if (segments.empty()) return u"/";
  std::u16string path;
  for (auto const& segment : segments) path += u"/" + segment;
  return path;
}

p::FileAttributes fileAttributesOf(Node const& node) {
  return p::FileAttributes(node.size(), node.modified, node.writable, hidden(node), node.symlink);
}

p::FolderAttributes folderAttributesOf(Node const& node) {
  return p::FolderAttributes(node.modified, node.writable, hidden(node), false);
}

std::vector<p::FolderEntry> list(Node const& folder, Kinds kinds, bool withAttributes, std::u16string const& pattern,
                                 bool recursive) {
  std::vector<p::FolderEntry> out;
  // Depth first, each folder right before its contents, without recursion per level.
  struct Level {
    Node const* folder;
    std::u16string prefix;
    std::map<std::u16string, std::unique_ptr<Node>>::const_iterator next;
  };
  std::vector<Level> stack{{&folder, u"", folder.children.begin()}};
  while (!stack.empty()) {
    Level& level = stack.back();
    if (level.next == level.folder->children.end()) {
      stack.pop_back();
      continue;
    }
    Node const& child = *(level.next++)->second;
    std::u16string name = level.prefix.empty() ? child.name : level.prefix + u"/" + child.name;
    bool const kindWanted = kinds == Kinds::All || (kinds == Kinds::Files) == !child.folder;
    if (kindWanted && (pattern.empty() || p::matchesWildcard(pattern, child.name))) {
      if (!withAttributes)
        out.emplace_back(name, !child.folder);
      else if (child.folder)
        out.emplace_back(name, folderAttributesOf(child));
      else
        out.emplace_back(name, fileAttributesOf(child));
    }
    if (recursive && child.folder) stack.push_back({&child, std::move(name), child.children.begin()});
  }
  return out;
}

} // namespace foundation::storage::providers::archive::detail
