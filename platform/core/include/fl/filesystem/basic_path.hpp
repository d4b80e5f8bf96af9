#pragma once

#include <fl/i18n/i18n.hpp>

#include <filesystem>
#include <string>
#include <utility>

namespace fl::filesystem {

/// A local file-system path with a narrow (UTF-8) and a wide (UTF-16) face, over
/// std::filesystem::path. The narrow face is the native one on POSIX systems.
template <class Char = char, class UChar = char16_t, class Tag = void>
class basic_path {
public:
  basic_path() = default;
  basic_path(std::filesystem::path p) : path_(std::move(p)) {}
  basic_path(std::basic_string<Char> const& s) : path_(s) {}
  basic_path(Char const* s) : path_(s) {}
  basic_path(std::basic_string<UChar> const& s) : path_(i18n::to_utf8(s)) {}
  basic_path(UChar const* s) : basic_path(std::basic_string<UChar>(s)) {}

  std::filesystem::path const& std_path() const noexcept { return path_; }
  std::basic_string<Char> string() const { return path_.string(); }
  std::basic_string<UChar> ustring() const { return i18n::to_ustring(path_.string()); }
  bool empty() const noexcept { return path_.empty(); }
  bool is_absolute() const { return path_.is_absolute(); }

  basic_path filename() const { return basic_path(path_.filename()); }
  basic_path parent_path() const { return basic_path(path_.parent_path()); }
  basic_path lexically_normal() const { return basic_path(path_.lexically_normal()); }

  basic_path& operator/=(basic_path const& p) {
    path_ /= p.path_;
    return *this;
  }
  friend basic_path operator/(basic_path lhs, basic_path const& rhs) { return lhs /= rhs; }
  friend bool operator==(basic_path const& a, basic_path const& b) { return a.path_ == b.path_; }
  friend auto operator<=>(basic_path const& a, basic_path const& b) { return a.path_ <=> b.path_; }

  template <class Stream>
  friend Stream& operator<<(Stream& os, basic_path const& p) {
    return os << p.path_.string();
  }

private:
  std::filesystem::path path_;
};

/// The path type of the storage interfaces.
using path = basic_path<char, char16_t>;

} // namespace fl::filesystem
