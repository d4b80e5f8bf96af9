#pragma once

// Acting on a file or a folder without knowing which.

#include <vfs/folder.hpp>

#include <boost/variant/apply_visitor.hpp>
#include <boost/variant/static_visitor.hpp>

#include <utility>

namespace foundation::storage::vfs::detail {

/// Calls `onFile` or `onFolder` for the alternative held.
template <class OnFile, class OnFolder>
decltype(auto) dispatch(FileOrFolder const& item, OnFile&& onFile, OnFolder&& onFolder) {
  struct Visitor : boost::static_visitor<decltype(onFile(std::declval<File const&>()))> {
    OnFile& file;
    OnFolder& folder;
    Visitor(OnFile& f, OnFolder& d) : file(f), folder(d) {}
    auto operator()(File const& f) const { return file(f); }
    auto operator()(Folder const& d) const { return folder(d); }
  };
  return boost::apply_visitor(Visitor(onFile, onFolder), item);
}

} // namespace foundation::storage::vfs::detail
