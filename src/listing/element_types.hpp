#pragma once

// The seven element types a listing yields; every listing template is instantiated for
// each of them (the tree walk for the two that tree listings yield).

#include <vfs/entries.hpp>
#include <vfs/folder.hpp>

/// Expands `X(T)` for every element type.
#define VFS_FOR_EACH_ELEMENT_TYPE(X)                                                                                   \
  X(File)                                                                                                              \
  X(Folder)                                                                                                            \
  X(FileOrFolder)                                                                                                      \
  X(FileEntry)                                                                                                         \
  X(FolderEntry)                                                                                                       \
  X(FileOrFolderEntry)                                                                                                 \
  X(ListEntry)

/// Expands `X(T)` for the element types of tree listings.
#define VFS_FOR_EACH_TREE_ELEMENT_TYPE(X)                                                                              \
  X(FileOrFolderEntry)                                                                                                 \
  X(ListEntry)
