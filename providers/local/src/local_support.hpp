#pragma once

// What every local operation needs: the path of a location, failures from errno, the
// current user (for "writable"), and attributes from one stat.

#include <foundation/storage/provider/attributes.hpp>
#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/operation.hpp>

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/optional.hpp>

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace foundation::storage::providers::local::detail {

namespace p = foundation::storage::provider;

/// A `file:///` location with a path (no host, not nested).
bool isLocalLocation(p::StorageIRI const& location) noexcept;

/// The local path of a `file:///` location, dot segments resolved; InvalidLocation for any
/// other location.
std::string pathOf(p::StorageIRI const& location, p::Operation op);
/// The same for a member of an extension interface ("flushFilesystem").
std::string pathOf(p::StorageIRI const& location, char const* member);

/// Throws the provider Exception for `error` with the context "local.<operation>". A folder
/// where a file is needed (EISDIR) is ResourceNotFound, as for every provider.
[[noreturn]] void failErrno(int error, p::StorageIRI const& location, p::Operation op);
/// The same with the context "local.<member>", for a member of an extension interface.
[[noreturn]] void failErrno(int error, p::StorageIRI const& location, char const* member);

/// Throws `code` with the context "local.<operation>" and `message`.
[[noreturn]] void refuse(p::ErrorCode code, p::StorageIRI const& location, p::Operation op, std::string message);

/// The effective user and groups, to tell whether an item is writable without asking the
/// kernel once more per item.
struct UserIdentity {
  uid_t uid = 0;
  gid_t gid = 0;
  std::vector<gid_t> groups;

  static UserIdentity current();
  bool canWrite(struct stat const& st) const noexcept;
};

boost::posix_time::ptime toPtime(timespec const& t);
timespec toTimespec(boost::posix_time::ptime const& time);

bool isHiddenName(std::string_view name) noexcept;

p::FileAttributes fileAttributes(struct stat const& st, std::string_view name, bool symlink, UserIdentity const& user);
p::FolderAttributes folderAttributes(struct stat const& st, std::string_view name, bool symlink,
                                     UserIdentity const& user);
p::ExtendedAttributes extendedAttributes(struct stat const& st, bool symlink);

/// Appends a file name as UTF-16 to `out`; false, with `out` unchanged, when the name is not
/// valid UTF-8 (such names cannot be written as locations). Listings call it per entry, so
/// ASCII names are copied in place without a decoder or a temporary string.
bool appendNameAsUtf16(std::u16string& out, std::string_view name);

/// The last segment of a path.
std::string_view baseName(std::string const& path) noexcept;

} // namespace foundation::storage::providers::local::detail
