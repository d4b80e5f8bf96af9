#pragma once

// Each command family adds its sub-commands to the tool. A command's callback stores its
// exit status in `status`; failures it does not handle itself propagate to main.

#include "session.hpp"

#include <CLI/CLI.hpp>

namespace vfs_tool {

struct Tool {
  Session session;
  int status = 0;
};

/// ls, stat
void addListingCommands(CLI::App& app, Tool& tool);
/// find, du
void addWalkCommands(CLI::App& app, Tool& tool);
/// cat, put
void addStreamCommands(CLI::App& app, Tool& tool);
/// cp, mv, rm, mkdir
void addTransferCommands(CLI::App& app, Tool& tool);
/// watch
void addWatchCommand(CLI::App& app, Tool& tool);
/// mount, umount
void addMountCommands(CLI::App& app, Tool& tool);

/// A modification time as "YYYY-MM-DD HH:MM:SS" (UTC).
std::string formatTime(boost::posix_time::ptime const& time);

} // namespace vfs_tool
