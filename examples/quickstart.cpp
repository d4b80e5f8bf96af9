// The main job: files and folders on the memory provider and on the local file system,
// through the same File and Folder handles, and the changes a watched folder reports,
// printing each step.

#include <foundation/storage/systems/standard_storage_system.hpp>
#include <vfs/vfs.hpp>

#include <condition_variable>
#include <filesystem>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>

namespace p = foundation::storage::provider;
namespace vfs = foundation::storage::vfs;

namespace {

void writeText(vfs::File const& file, std::string const& text) {
  // A transactional write: the file shows the new text all at once, or keeps the old.
  auto device = file.openTransactionalStream({p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                              p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
  device.write(text.data(), static_cast<std::streamsize>(text.size()));
  device.close(p::StreamClosePolicy::Commit);
}

std::string readText(vfs::File const& file) {
  auto device = file.openReadOnly();
  std::string text;
  char buffer[4096];
  for (std::streamsize n; (n = device.read(buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(n));
  device.close();
  return text;
}

void printIndented(std::string const& text) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) std::cout << "      " << line << "\n";
}

/// The names in a folder, from the provider that serves it.
void listFolder(vfs::StorageSystem const& system, vfs::Folder const& folder) {
  auto provider = vfs::buildProvider(system, folder.getLocation().toStorageIRI());
  for (auto cursor = provider->listAllRecursive(folder.getLocation().toStorageIRI(), u""); cursor->hasNext();) {
    cursor->next();
    auto entry = cursor->current();
    vfs::AbsoluteIRI location(folder.getLocation(), entry.getName());
    if (entry.isFile()) {
      std::cout << "    file   " << location << "  (" << entry.getFileAttributes()->getSize() << " bytes)\n";
    } else {
      std::cout << "    folder " << location << "\n";
    }
  }
}

} // namespace

int main() {
  auto system = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  vfs::StorageSystemReference reference{std::weak_ptr<vfs::StorageSystem>(system)};

  std::cout << "== in memory\n";
  vfs::Folder home(vfs::AbsoluteIRI(u"mem:///home/demo"), reference);
  home.createFolderRecursive();
  vfs::Folder notes(home, u"notes");
  notes.createFolder();
  std::cout << "  created " << home << " and " << notes << "\n";
  writeText(vfs::File(home, u"hello.txt"), "Hello, storage!\n");
  writeText(vfs::File(notes, u"todo.txt"), "1. write files\n2. read them back\n");
  writeText(vfs::File(notes, u"Grüße & 100%.txt"), "names with spaces, % and umlauts work\n");
  std::cout << "  wrote 3 files; the tree now:\n";
  listFolder(*system, home);
  vfs::File todo(notes, u"todo.txt");
  std::cout << "  " << todo << " (extension " << fl::i18n::to_utf8(todo.getExtension()) << ") reads:\n";
  printIndented(readText(todo));
  try {
    vfs::File(home, u"missing.txt").openReadOnly();
  } catch (vfs::Exception const& e) {
    std::cout << "  opening a missing file fails cleanly: " << foundation::core::except::toString(e) << "\n";
  }

  std::cout << "\n== on the local file system\n";
  std::string scratch = (std::filesystem::temp_directory_path() / "vfs-quickstart-XXXXXX").string();
  if (!::mkdtemp(scratch.data())) return 1;
  vfs::Folder disk(vfs::toAbsoluteIRI(u"file", fl::filesystem::path(scratch)), reference);
  for (auto const& name : {u"todo.txt", u"Grüße & 100%.txt"}) {
    vfs::File from(notes, name), to(disk, name);
    from.copyFile(to, p::ReplacementPolicy::FailIfExists); // across providers
    std::cout << "  copied " << from << "\n      to " << to << " (" << to.getAttributes().getSize() << " bytes)\n";
  }
  vfs::File moved(disk, u"done.txt");
  vfs::File(disk, u"todo.txt").moveFile(moved, p::ReplacementPolicy::FailIfExists);
  std::cout << "  renamed todo.txt to " << fl::i18n::to_utf8(moved.getName()) << "; the folder now:\n";
  listFolder(*system, disk);
  std::cout << "  kind of " << disk.getLocation() << ": "
            << (vfs::makeFileOrFolder(disk.getLocation(), reference).which() == 1 ? "folder" : "file") << "\n";

  std::cout << "\n== change events\n";
  // Listeners subscribe to the storage system's event manager; the folder's provider
  // (inotify here) reports what another thread does, also in folders created meanwhile.
  std::mutex mutex;
  std::condition_variable arrived;
  vfs::File const report(vfs::Folder(disk, u"new"), u"report.txt");
  bool reportSeen = false;
  auto connection = system->getEventMgr()->subscribe(vfs::Event::EventType(), [&](auto const& base) {
    auto const& event = static_cast<vfs::Event const&>(*base);
    auto const data = event.getSimpleEventData();
    std::lock_guard lock(mutex);
    std::cout << "  " << data.getKind() << " " << fl::i18n::to_utf8(data.getLocation()) << " (" << data.getEntryType()
              << ")\n";
    reportSeen |= data.getLocation() == report.getLocation().toString();
    arrived.notify_all();
  });
  vfs::detail::publishEventsFor(disk, {foundation::storage::events::Kind::Created},
                                vfs::WithRecursiveChangeEvents::Yes);
  std::thread([&] {
    report.getParent().createFolder();
    writeText(report, "written by another thread\n");
  }).join();
  bool seen = false;
  {
    std::unique_lock lock(mutex);
    seen = arrived.wait_for(lock, std::chrono::seconds(10), [&] { return reportSeen; });
  }
  vfs::unsubscribe(disk, connection); // the provider's watch and the listener both end
  if (!seen) return 1;
  std::cout << "  unsubscribed from " << disk << "\n";

  disk.removeFolder(vfs::FolderRemovalPolicy::Recursive);
  std::cout << "  removed " << disk << " (exists: " << std::boolalpha << disk.folderExists() << ")\n";
  return 0;
}
