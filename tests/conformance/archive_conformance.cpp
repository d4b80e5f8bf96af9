#include "provider_conformance.hpp"

#include "../support/archive_tools.hpp"
#include "../support/temporary_folder.hpp"

#include <foundation/storage/systems/standard_storage_system.hpp>

using namespace conformance;
using foundation::storage::systems::StandardStorageSystem;

namespace {

/// A workspace served by a storage system of its own, with the second memory tree as the
/// foreign provider; `archive` names the archive file, `root` the folder inside it.
Workspace inSystem(std::u16string const& root,
                   testsupport::TemporaryFolder folder = testsupport::TemporaryFolder("vfs-archive")) {
  auto system = std::make_shared<StandardStorageSystem>();
  p::StorageIRI const location(root);
  Workspace w{system->buildProvider(location), location, system->buildProvider(p::StorageIRI(u"mem://elsewhere/")),
              p::StorageIRI(u"mem://elsewhere/"),
              [system, folder] { system->shutdown(); }}; // commits while the folder is there
  return w;
}

std::u16string localArchive(testsupport::TemporaryFolder const& folder, std::string const& name) {
  return u"file://" + fl::i18n::to_ustring((folder.path() / name).string());
}

ProviderUnderTest zip(std::string name, std::function<std::u16string(testsupport::TemporaryFolder const&)> archive) {
  auto make = [archive] {
    testsupport::TemporaryFolder folder("vfs-archive");
    Workspace w = inSystem(u"zip:" + archive(folder) + u"!/work", folder);
    if (w.root.getInnerIRI().hasInnerIRI())
      w.provider->createFolder(w.root.getInnerIRI().withPath(u"/")); // the outer archive
    w.provider->createFolderRecursive(w.root);
    return w;
  };
  return {std::move(name), make, Capabilities{}};
}

/// A tar archive holding the listing tree, made by the tar tool.
ProviderUnderTest tar(std::string name, std::string const& compression) {
  auto make = [compression] {
    testsupport::TemporaryFolder folder("vfs-archive");
    auto const tree = folder.path() / "tree";
    testsupport::writeLocal(tree / "work/top/a.txt", "aaa");
    testsupport::writeLocal(tree / "work/top/b.log", "b");
    testsupport::writeLocal(tree / "work/top/sub/c.txt", "cc");
    testsupport::writeLocal(tree / "work/top/sub/deeper/d.txt", "d");
    testsupport::run("tar " + compression + " -cf " + testsupport::quoted(folder.path() / "t.tar") + " -C " +
                     testsupport::quoted(tree) + " work");
    return inSystem(u"tar:" + localArchive(folder, "t.tar") + u"!/work", folder);
  };
  Capabilities readOnly;
  readOnly.readOnly = true;
  return {std::move(name), make, readOnly};
}

} // namespace

INSTANTIATE_PROVIDER_CONFORMANCE(
    Archive, ::testing::Values(zip("ZipInMemory", [](auto const&) { return std::u16string(u"mem:///t.zip"); }),
                               zip("ZipInLocal", [](auto const& folder) { return localArchive(folder, "t.zip"); }),
                               zip("ZipInZipInMemory",
                                   [](auto const&) { return std::u16string(u"zip:mem:///outer.zip!/inner.zip"); }),
                               tar("Tar", ""), tar("TarGzip", "-z"), tar("TarZstd", "--zstd")));
