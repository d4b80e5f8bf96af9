// cat and put: bytes between files and the standard streams.

#include "commands.hpp"
#include "exit_status.hpp"
#include "output.hpp"

#include <vfs/exceptions.hpp>

#include <unistd.h>

#include <cerrno>
#include <vector>

namespace vfs_tool {

namespace {

namespace provider = foundation::storage::provider;

constexpr std::size_t ChunkSize = 128 * 1024;

int cat(Tool& tool, std::vector<std::string> const& texts) {
  Output out;
  std::vector<char> buffer(ChunkSize);
  int status = Success;
  for (auto const& text : texts) {
    // Like cat: a file that cannot be read is reported, the others are still printed.
    Location const location = tool.session.resolve(text);
    try {
      auto device = vfs::File(location.iri, tool.session.system()).openReadOnly();
      for (std::streamsize n; (n = device.read(buffer.data(), static_cast<std::streamsize>(buffer.size()))) > 0;) {
        out.write({buffer.data(), static_cast<std::size_t>(n)});
      }
      device.close();
    } catch (...) {
      out.flush();
      int const failed = reportCurrentFailure(location.iriText());
      if (status == Success) status = failed;
    }
  }
  return status;
}

/// Reads standard input to its end; a read failure is an IOError.
std::streamsize readInput(char* data, std::size_t size, Location const& location) {
  for (;;) {
    auto const n = ::read(STDIN_FILENO, data, size);
    if (n >= 0) return n;
    if (errno != EINTR)
      throw ToolFailure{"IOError", "standard input (nothing written to " + location.iriText() + ")", IOFailure};
  }
}

int put(Tool& tool, std::string const& text) {
  Location const location = tool.session.resolve(text);
  tool.session.changes(location.iri);
  try {
    // Nothing reaches the file until the commit: a failure or an interruption on the way
    // leaves it as it was.
    auto device = vfs::File(location.iri, tool.session.system())
                      .openTransactionalStream(
                          {provider::ByteStreamAccess::WriteOnly, provider::ByteStreamCreate::CreateIfMissing,
                           provider::ByteStreamTruncate::Truncate, provider::ByteStreamAppend::AtPosition});
    std::vector<char> buffer(ChunkSize);
    for (std::streamsize n; (n = readInput(buffer.data(), buffer.size(), location)) > 0;)
      device.write(buffer.data(), n);
    device.close(provider::StreamClosePolicy::Commit);
  } catch (ToolFailure const&) {
    throw;
  } catch (...) {
    return reportCurrentFailure(location.iriText());
  }
  return Success;
}

} // namespace

void addStreamCommands(CLI::App& app, Tool& tool) {
  auto locations = std::make_shared<std::vector<std::string>>();
  auto* cat = app.add_subcommand("cat", "Write the contents of files to standard output");
  cat->add_option("locations", *locations, "Files, printed in order")->required();
  cat->callback([&tool, locations] { tool.status = vfs_tool::cat(tool, *locations); });

  auto location = std::make_shared<std::string>();
  auto* put = app.add_subcommand("put", "Write standard input into a file, all or nothing: the file shows the "
                                        "whole input or keeps what it held");
  put->add_option("location", *location, "File to create or replace")->required();
  put->callback([&tool, location] { tool.status = vfs_tool::put(tool, *location); });
}

} // namespace vfs_tool
