// watch: prints the changes a file or folder reports until SIGINT or SIGTERM.

#include "commands.hpp"
#include "exit_status.hpp"
#include "output.hpp"

#include <vfs/events.hpp>

#include <fl/i18n/i18n.hpp>

#include <pthread.h>
#include <signal.h>

#include <chrono>
#include <cstdio>

namespace vfs_tool {

namespace {

namespace events = foundation::storage::events;

struct WatchOptions {
  std::string location = ".";
  bool recursive = false;
  unsigned int pollMilliseconds = 0;
};

std::string kindName(events::Kind kind) {
  std::string text = events::toString(kind);
  return text.substr(text.rfind(':') + 1);
}

int watch(Tool& tool, WatchOptions const& o) {
  // Blocked before the storage system starts its threads, so that every thread inherits
  // the mask and the signals wait for sigwait below instead of killing the process.
  sigset_t endSignals;
  sigemptyset(&endSignals);
  sigaddset(&endSignals, SIGINT);
  sigaddset(&endSignals, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);

  auto const root = tool.session.resolve(o.location);
  auto const item = tool.session.existing(root);
  Output out;
  auto const connection =
      tool.session.storage()->getEventMgr()->subscribe(vfs::Event::EventType(), [&root, &out](auto const& base) {
        auto const data = static_cast<vfs::Event const&>(*base).getSimpleEventData();
        std::string where;
        try {
          where = root.display(vfs::AbsoluteIRI(data.getLocation()));
        } catch (...) {
          where = fl::i18n::to_utf8(data.getLocation()); // outside the watched tree: as reported
        }
        char const* type = data.getEntryType() == events::EntryType::Folder ? "folder" : "file";
        out.record(kindName(data.getKind()) + "\t" + type + "\t" + where);
        out.flush();
      });

  bool const polling = o.pollMilliseconds > 0;
  if (polling) {
    vfs::detail::startChangePolling(boost::get<vfs::Folder>(item), {}, std::chrono::milliseconds(o.pollMilliseconds));
  } else {
    vfs::detail::publishEventsFor(
        item, {}, o.recursive ? vfs::WithRecursiveChangeEvents::Yes : vfs::WithRecursiveChangeEvents::No);
  }
  std::fprintf(stderr, "watching %s (Ctrl-C ends)\n", root.iriText().c_str());

  int signal = 0;
  while (sigwait(&endSignals, &signal) != 0) {
  }
  if (polling) {
    vfs::unsubscribeFromChangePolling(boost::get<vfs::Folder>(item), connection);
  } else {
    vfs::unsubscribe(item, connection);
  }
  tool.session.storage()->shutdown();
  return Success;
}

} // namespace

void addWatchCommand(CLI::App& app, Tool& tool) {
  auto o = std::make_shared<WatchOptions>();
  auto* watch = app.add_subcommand("watch", "Print changes as they happen (kind, file or folder, location) until "
                                            "interrupted (Ctrl-C or SIGTERM ends it cleanly)");
  watch->add_option("location", o->location, "File or folder (default: the current folder)");
  auto* recursive =
      watch->add_flag("-r,--recursive", o->recursive, "Also everything below the folder, new folders included");
  watch
      ->add_option("--poll", o->pollMilliseconds,
                   "Compare listings every MS milliseconds instead of asking the provider to report "
                   "(the folder's own children; for providers that cannot report)")
      ->check(CLI::Range(1u, 3600000u))
      ->excludes(recursive);
  watch->callback([&tool, o] { tool.status = vfs_tool::watch(tool, *o); });
}

} // namespace vfs_tool
