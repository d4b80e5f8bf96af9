#pragma once

// Small helpers for tests that drive programs through the shell and look at files.

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

namespace testsupport {

/// `text` as one single-quoted shell word.
inline std::string quote(std::string const& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

inline std::string readFile(std::filesystem::path const& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

inline void writeFile(std::filesystem::path const& path, std::string const& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

} // namespace testsupport
