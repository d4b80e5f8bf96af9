// Creates, writes, lists and reads back files on the memory provider, then copies them to
// the local file system, printing each step.

#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <filesystem>
#include <stdlib.h>

#include <iostream>
#include <memory>
#include <sstream>
#include <string>

namespace p = foundation::storage::provider;
using foundation::storage::providers::local::LocalProvider;
using foundation::storage::providers::memory::MemoryProvider;

namespace {

void writeText(p::StorageItem const& file, std::string const& text) {
  // A transactional write: the file shows the new text all at once, or keeps the old.
  auto stream = file.openTransactionalStream({p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                              p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
  stream->write(text.data(), static_cast<std::streamsize>(text.size()));
  stream->close(p::StreamClosePolicy::Commit);
}

std::string readText(p::StorageItem const& file) {
  p::ByteStreamDevice device(file.openReadOnlyStream());
  std::string text;
  char buffer[4096];
  for (std::streamsize n; (n = device.read(buffer, sizeof buffer)) > 0;) text.append(buffer, static_cast<std::size_t>(n));
  device.close();
  return text;
}

} // namespace

int main() {
  auto provider = std::make_shared<MemoryProvider>();
  p::StorageItem home(provider, p::StorageIRI(u"mem:///home/demo"));
  home.createFolderRecursive();
  std::cout << "created folder " << home.getLocation() << "\n";

  p::StorageItem notes(home, u"notes");
  notes.createFolder();
  writeText(p::StorageItem(home, u"hello.txt"), "Hello, storage!\n");
  writeText(p::StorageItem(notes, u"todo.txt"), "1. list files\n2. read them back\n");
  writeText(p::StorageItem(notes, u"Grüße & 100%.txt"), "names with spaces, % and umlauts work\n");
  std::cout << "wrote 3 files\n";

  std::cout << "\nrecursive listing of " << home.getLocation() << ":\n";
  for (auto cursor = home.listAllRecursive(u""); cursor->hasNext();) {
    cursor->next();
    p::FolderEntry entry = cursor->current();
    p::StorageItem item(home, entry.getName());
    if (entry.isFile()) {
      std::cout << "  file   " << item.getLocation().toAsciiString() << "  (" << entry.getFileAttributes()->getSize()
                << " bytes)\n";
    } else {
      std::cout << "  folder " << item.getLocation().toAsciiString() << "\n";
    }
  }

  std::cout << "\n*.txt files in " << notes.getLocation() << ":\n";
  for (auto cursor = notes.listFilesNamesOnly(u"*.txt"); cursor->hasNext();) {
    cursor->next();
    p::StorageItem file(notes, cursor->current().getName());
    std::cout << "  " << file.getLocation() << ":\n";
    std::istringstream lines(readText(file));
    for (std::string line; std::getline(lines, line);) std::cout << "    " << line << "\n";
  }

  try {
    p::StorageItem(home, u"missing.txt").openReadOnlyStream();
  } catch (p::Exception const& e) {
    std::cout << "\nopening a missing file fails cleanly: " << e.what() << "\n";
  }

  // The same operations on the local file system, in a temporary folder.
  std::string scratch = (std::filesystem::temp_directory_path() / "vfs-quickstart-XXXXXX").string();
  if (!::mkdtemp(scratch.data())) return 1;
  auto local = std::make_shared<LocalProvider>();
  p::StorageItem disk(local, p::toStorageIRI(u"file", fl::filesystem::path(scratch)));
  std::cout << "\ncopying the notes to " << disk.getLocation() << ":\n";
  for (auto cursor = notes.listFiles(u""); cursor->hasNext();) {
    cursor->next();
    p::StorageItem from(notes, cursor->current().getName());
    p::StorageItem to(disk, cursor->current().getName());
    from.copyFile(to, {p::ReplacementPolicy::FailIfExists, {}}); // across providers: through streams
    std::cout << "  " << to.getLocation() << "  (" << to.getFileAttributes().getSize() << " bytes on disk)\n";
  }
  disk.removeFolderRecursively();
  std::cout << "removed " << disk.getLocation() << "\n";
  return 0;
}
