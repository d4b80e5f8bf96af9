#pragma once

// Real archive tools (zip, unzip, tar, bsdtar) as the other side of archive tests.

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace testsupport {

/// Runs `command` in a shell; its standard output, or std::runtime_error when it fails.
inline std::string run(std::string const& command) {
  std::string output;
  FILE* pipe = ::popen((command + " 2>&1").c_str(), "r");
  if (!pipe) throw std::runtime_error("cannot run: " + command);
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) output.append(buffer, n);
  if (::pclose(pipe) != 0) throw std::runtime_error("failed: " + command + "\n" + output);
  return output;
}

/// Writes a local file, creating its folders.
inline void writeLocal(std::filesystem::path const& path, std::string const& bytes) {
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string readLocal(std::filesystem::path const& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

/// Quotes a path for the shell.
inline std::string quoted(std::filesystem::path const& path) { return "'" + path.string() + "'"; }

} // namespace testsupport
