// The visitor's defaults: the entry forms reach the plain forms through virtual calls, so a
// visitor overrides whichever form it needs.

#include <vfs/entries.hpp>
#include <vfs/walk.hpp>

namespace foundation::storage::vfs {

FolderVisitResult FolderVisitor::visitBefore(Folder const&) { return FolderVisitResult::Continue; }

FolderVisitResult FolderVisitor::visitEntryBefore(FolderEntry const& entry) { return visitBefore(entry.getFolder()); }

FolderVisitResult FolderVisitor::visit(File const&) { return FolderVisitResult::Continue; }

FolderVisitResult FolderVisitor::visitEntry(FileEntry const& entry) { return visit(entry.getFile()); }

FolderVisitResult FolderVisitor::visitAfter(Folder const&) { return FolderVisitResult::Continue; }

FolderVisitResult FolderVisitor::visitEntryAfter(FolderEntry const& entry) { return visitAfter(entry.getFolder()); }

FolderVisitResult FolderVisitor::visitFolderFailed(Folder const&, Exception const& failure) { throw failure; }

FolderVisitResult FolderVisitor::visitFolderEntryFailed(FolderEntry const& entry, Exception const& failure) {
  return visitFolderFailed(entry.getFolder(), failure);
}

FolderVisitor::~FolderVisitor() = default;

} // namespace foundation::storage::vfs
