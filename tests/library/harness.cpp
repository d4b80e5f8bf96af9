#include "harness.hpp"

#include "../support/s3_endpoint.hpp"
#include "../support/temporary_folder.hpp"

#include <foundation/storage/providers/archive/archive_provider.hpp>
#include <foundation/storage/providers/local/local_provider.hpp>
#include <foundation/storage/providers/memory/memory_provider.hpp>

namespace harness {

namespace {

using foundation::storage::providers::memory::MemoryProvider;

/// The real provider of a scheme, and the empty folder the harness works in.
struct Storage {
  std::shared_ptr<p::IProvider> provider;
  vfs::AbsoluteIRI root;
  std::function<void()> cleanup;
  std::map<Capability, std::string> lacking;
};

Storage memory() {
  auto provider = std::make_shared<MemoryProvider>();
  vfs::AbsoluteIRI root(u"mem:///work");
  provider->createFolder(root.toStorageIRI());
  return {provider, root};
}

Storage local() {
  testsupport::TemporaryFolder folder("vfs-library");
  return {std::make_shared<foundation::storage::providers::local::LocalProvider>(),
          vfs::toAbsoluteIRI(u"file", fl::filesystem::path(folder.path())),
          [folder] {}}; // the folder goes with the last copy
}

/// A zip archive on a memory tree of its own, which the system serves as "mem" too.
Storage zip(StandardStorageSystem& system) {
  auto outer = std::make_shared<MemoryProvider>();
  system.registerProvider(u"mem", [outer](p::StorageIRI const&) { return outer; });
  auto provider = std::make_shared<foundation::storage::providers::archive::ZipProvider>(
      [outer](p::StorageIRI const&) -> std::shared_ptr<p::IProvider> { return outer; });
  vfs::AbsoluteIRI root(u"zip:mem:///library.zip!/work");
  provider->createFolderRecursive(root.toStorageIRI());
  return {provider, root, {}, {{Capability::Capacity, "an archive has no capacity of its own"}}};
}

Storage s3() {
  auto provider = testsupport::makeS3Provider();
  vfs::AbsoluteIRI root(u"s3://" + testsupport::s3TestBucket + u"/" + testsupport::uniqueS3FolderName(u"library"));
  provider->createFolder(root.toStorageIRI());
  auto cleanup = [provider, root] {
    try {
      provider->removeFolderRecursively(root.toStorageIRI());
    } catch (p::Exception const&) { // a row that fails may leave anything behind; the next uses a new folder
    }
  };
  return {provider,
          root,
          cleanup,
          {{Capability::WritableFlags, "an object store has no read-only flags"},
           {Capability::NativeChangeEvents, "an object store reports no changes itself: polling only"},
           {Capability::Capacity, "an object store tells no capacity"},
           {Capability::ExclusiveNames, "an object store keeps a file and a folder of one name as two keys, and no "
                                        "conditional write spans both"}}};
}

} // namespace

std::vector<std::string> const& everyScheme() {
  static std::vector<std::string> const schemes{"mem", "file", "zip", "s3"};
  return schemes;
}

std::string unavailable(std::string const& scheme) {
  return scheme == "s3" ? testsupport::s3Unavailable() : std::string();
}

Harness make(std::string const& scheme) {
  Harness h;
  h.system = std::make_shared<StandardStorageSystem>();
  Storage storage = scheme == "mem"    ? memory()
                    : scheme == "file" ? local()
                    : scheme == "zip"  ? zip(*h.system)
                    : scheme == "s3"   ? s3()
                                       : throw std::invalid_argument("no harness for the scheme " + scheme);
  h.faults = std::make_shared<wrappers::FaultInjectingProvider>(storage.provider);
  h.counts = std::make_shared<wrappers::CallCountingProvider>(h.faults);
  auto counts = h.counts;
  h.system->registerProvider(fl::i18n::to_ustring(scheme), [counts](p::StorageIRI const&) { return counts; });
  h.root = storage.root;
  h.cleanup = storage.cleanup;
  h.lacking = storage.lacking;
  return h;
}

std::string read(vfs::File const& file) {
  auto device = file.openReadOnly();
  std::string bytes;
  char buffer[4096];
  for (std::streamsize n; (n = device.read(buffer, sizeof buffer)) > 0;)
    bytes.append(buffer, static_cast<std::size_t>(n));
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
