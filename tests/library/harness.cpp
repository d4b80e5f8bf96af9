#include "harness.hpp"

#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>


namespace harness {

Harness make(std::string const& scheme) {
  Harness h;
  h.system = std::make_shared<StandardStorageSystem>();
  std::shared_ptr<p::IProvider> real;
  if (scheme == "mem") {
    real = std::make_shared<foundation::storage::providers::memory::MemoryProvider>();
  } else {
    real = std::make_shared<foundation::storage::providers::local::LocalProvider>();
  }
  h.faults = std::make_shared<wrappers::FaultInjectingProvider>(real);
  h.counts = std::make_shared<wrappers::CallCountingProvider>(h.faults);
  auto counts = h.counts;
  h.system->registerProvider(fl::i18n::to_ustring(scheme), [counts](p::StorageIRI const&) { return counts; });
  if (scheme == "mem") {
    h.root = vfs::AbsoluteIRI(u"mem:///work");
    real->createFolder(h.root.toStorageIRI());
  } else {
    testsupport::TemporaryFolder folder("vfs-library");
    h.root = vfs::toAbsoluteIRI(u"file", fl::filesystem::path(folder.path()));
    h.cleanup = [folder] {}; // the folder goes with the last copy of this
  }
  return h;
}

std::string read(vfs::File const& file) {
  auto device = file.openReadOnly();
  std::string bytes;
  char buffer[4096];
  for (std::streamsize n; (n = device.read(buffer, sizeof buffer)) > 0;) bytes.append(buffer, static_cast<std::size_t>(n));
  device.close();
  return bytes;
}

void write(vfs::File const& file, std::string const& bytes) {
  auto device = file.openTransactionalStream({p::ByteStreamAccess::WriteOnly, p::ByteStreamCreate::CreateIfMissing,
                                              p::ByteStreamTruncate::Truncate, p::ByteStreamAppend::AtPosition});
  device.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  device.close(p::StreamClosePolicy::Commit);
}

} // namespace harness
