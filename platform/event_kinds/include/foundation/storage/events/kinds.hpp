#pragma once

#include <cstdint>
#include <ostream>

namespace foundation::storage::events {

/// What happened to a watched file or folder.
enum class Kind : std::uint32_t {
  Created = 0,
  Removed = 1,
  Modified = 2,
  AttributesChanged = 3,
  /// The item now has the reported location; the old one is in the extended data under
  /// "renamedFrom".
  Renamed = 4,
};

/// Whether the changed item is a file or a folder.
enum class EntryType : std::uint32_t { File = 0, Folder = 1 };

inline char const* toString(Kind k) noexcept {
  switch (k) {
  case Kind::Created: return "Kind::Created";
  case Kind::Removed: return "Kind::Removed";
  case Kind::Modified: return "Kind::Modified";
  case Kind::AttributesChanged: return "Kind::AttributesChanged";
  case Kind::Renamed: return "Kind::Renamed";
  }
  return "Unhandled Kind";
}

inline char const* toString(EntryType t) noexcept {
  switch (t) {
  case EntryType::File: return "EntryType::File";
  case EntryType::Folder: return "EntryType::Folder";
  }
  return "Unhandled EntryType";
}

inline std::ostream& operator<<(std::ostream& os, Kind k) { return os << toString(k); }
inline std::ostream& operator<<(std::ostream& os, EntryType t) { return os << toString(t); }

} // namespace foundation::storage::events
