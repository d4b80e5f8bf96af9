#include <foundation/storage/systems/standard_storage_system.hpp>
#include <vfs/vfs.hpp>

#include <filesystem>
#include <iostream>

namespace vfs = foundation::storage::vfs;

int main() {
  auto system = std::make_shared<foundation::storage::systems::StandardStorageSystem>();
  vfs::StorageSystemReference reference{std::weak_ptr<vfs::StorageSystem>(system)};
  vfs::Folder memory(vfs::AbsoluteIRI(u"mem:///consumer"), reference);
  memory.createFolder();
  vfs::File note(memory, u"note.txt");
  note.createFile();
  vfs::Folder disk(vfs::toAbsoluteIRI(u"file", std::filesystem::temp_directory_path().string()), reference);
  bool const ok = note.fileExists() && disk.folderExists();
  std::cout << (ok ? "consumer ok: " : "consumer FAILED: ") << note << " and " << disk << "\n";
  return ok ? 0 : 1;
}
