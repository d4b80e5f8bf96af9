#include "local_support.hpp"

#include "posix_calls.hpp"

#include <foundation/storage/provider/posix_errors.hpp>
#include <foundation/storage/provider/provider_base.hpp>

#include <fl/i18n/i18n.hpp>

#include <boost/date_time/posix_time/posix_time.hpp>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace foundation::storage::providers::local::detail {

bool isLocalLocation(p::StorageIRI const& location) noexcept {
  return location.getScheme() == u"file" && location.getAuthority().empty() && !location.hasInnerIRI() &&
         location.hasPath();
}

namespace {

std::u16string memberKey(char const* member) { return u"local." + fl::i18n::to_ustring(std::string_view(member)); }

[[noreturn]] void refuseOther(p::StorageIRI const& location, std::u16string key) {
  p::fail(p::ErrorCode::InvalidLocation, location, std::move(key), "not a location of the local file system");
}

} // namespace

std::string pathOf(p::StorageIRI const& location, char const* member) {
  if (!isLocalLocation(location)) refuseOther(location, memberKey(member));
  return fl::i18n::to_utf8(location.getResolvedPath());
}

std::string pathOf(p::StorageIRI const& location, p::Operation op) {
  if (!isLocalLocation(location)) refuseOther(location, p::contextKey(u"local", op));
  // Dot segments are resolved by name, as every provider does, so an operation acts on the
  // folder the location names and never on "x/." as the kernel would read it.
  return fl::i18n::to_utf8(location.getResolvedPath());
}

void refuse(p::ErrorCode code, p::StorageIRI const& location, p::Operation op, std::string message) {
  p::fail(code, location, p::contextKey(u"local", op), std::move(message));
}

void failErrno(int error, p::StorageIRI const& location, p::Operation op) {
  if (error == EISDIR) refuse(p::ErrorCode::ResourceNotFound, location, op, "a folder, not a file");
  p::failWithErrno(error, location, p::contextKey(u"local", op));
}

void failErrno(int error, p::StorageIRI const& location, char const* member) {
  p::failWithErrno(error, location, memberKey(member));
}

UserIdentity UserIdentity::current() {
  UserIdentity user;
  user.uid = ::geteuid();
  user.gid = ::getegid();
  int count = ::getgroups(0, nullptr);
  if (count > 0) {
    user.groups.resize(static_cast<std::size_t>(count));
    count = ::getgroups(count, user.groups.data());
    user.groups.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  }
  return user;
}

bool UserIdentity::canWrite(struct stat const& st) const noexcept {
  if (uid == 0) return true; // the superuser writes whatever the mode says
  if (st.st_uid == uid) return (st.st_mode & S_IWUSR) != 0;
  if (st.st_gid == gid || std::find(groups.begin(), groups.end(), st.st_gid) != groups.end())
    return (st.st_mode & S_IWGRP) != 0;
  return (st.st_mode & S_IWOTH) != 0;
}

boost::posix_time::ptime toPtime(timespec const& t) {
  return boost::posix_time::from_time_t(t.tv_sec) + boost::posix_time::microseconds(t.tv_nsec / 1000);
}

timespec toTimespec(boost::posix_time::ptime const& time) {
  static boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
  auto const since = time - epoch;
  long long const micros = since.total_microseconds();
  long long seconds = micros / 1000000, rest = micros % 1000000;
  if (rest < 0) {
    rest += 1000000;
    --seconds;
  }
  return timespec{static_cast<time_t>(seconds), static_cast<long>(rest * 1000)};
}

bool isHiddenName(std::string_view name) noexcept { return !name.empty() && name[0] == '.'; }

p::FileAttributes fileAttributes(struct stat const& st, std::string_view name, bool symlink, UserIdentity const& user) {
  return p::FileAttributes(static_cast<std::uint64_t>(st.st_size), toPtime(modificationTime(st)), user.canWrite(st),
                           isHiddenName(name), symlink);
}

p::FolderAttributes folderAttributes(struct stat const& st, std::string_view name, bool symlink,
                                     UserIdentity const& user) {
  return p::FolderAttributes(toPtime(modificationTime(st)), user.canWrite(st), isHiddenName(name), symlink);
}

p::ExtendedAttributes extendedAttributes(struct stat const& st, bool symlink) {
  p::ExtendedAttributes attributes;
  char mode[16];
  std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
  attributes.put("posix.mode", mode);
  attributes.put("posix.uid", st.st_uid);
  attributes.put("posix.gid", st.st_gid);
  attributes.put("posix.inode", st.st_ino);
  attributes.put("posix.links", st.st_nlink);
  attributes.put("posix.device", st.st_dev);
  attributes.put("posix.size", st.st_size);
  attributes.put("posix.symlink", symlink);
  attributes.put("posix.accessTime", boost::posix_time::to_iso_extended_string(toPtime(accessTime(st))));
  attributes.put("posix.changeTime", boost::posix_time::to_iso_extended_string(toPtime(changeTime(st))));
  return attributes;
}

bool appendNameAsUtf16(std::u16string& out, std::string_view name) {
  std::size_t const start = out.size();
  out.resize(start + name.size());
  char16_t* to = out.data() + start;
  for (char c : name) {
    if (static_cast<unsigned char>(c) >= 0x80) { // not ASCII: the decoder takes the whole name
      out.resize(start);
      try {
        out += fl::i18n::strict::utf8_to_utf16(name);
        return true;
      } catch (std::invalid_argument const&) {
        return false;
      }
    }
    *to++ = static_cast<char16_t>(c);
  }
  return true;
}

std::string_view baseName(std::string const& path) noexcept {
  std::string_view view(path);
  auto slash = view.rfind('/');
  return slash == std::string_view::npos ? view : view.substr(slash + 1);
}

} // namespace foundation::storage::providers::local::detail
