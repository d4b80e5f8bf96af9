// Printing of the walk's result and of the folder removal policy.

#include <vfs/folder.hpp>
#include <vfs/walk.hpp>

#include <fl/i18n/i18n.hpp>

#include <ostream>

namespace foundation::storage::vfs {

std::string toString(FolderVisitResult const& result) {
  switch (result) {
  case FolderVisitResult::Continue: return "FolderVisitResult::Continue";
  case FolderVisitResult::Skip: return "FolderVisitResult::Skip";
  case FolderVisitResult::Stop: return "FolderVisitResult::Stop";
  }
  return "Unhandled FolderVisitResult";
}

std::u16string toUstring(FolderVisitResult const& result) { return fl::i18n::to_ustring(toString(result)); }

std::ostream& operator<<(std::ostream& os, FolderVisitResult const& result) { return os << toString(result); }

std::string toString(FolderRemovalPolicy policy) {
  switch (policy) {
  case FolderRemovalPolicy::NonRecursive: return "FolderRemovalPolicy::NonRecursive";
  case FolderRemovalPolicy::Recursive: return "FolderRemovalPolicy::Recursive";
  }
  return {};
}

// Unlike the other enumerations, a value outside the policy prints nothing at all.
std::ostream& operator<<(std::ostream& os, FolderRemovalPolicy policy) { return os << toString(policy); }

} // namespace foundation::storage::vfs
