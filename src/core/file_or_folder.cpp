#include <vfs/exceptions.hpp>
#include <vfs/folder.hpp>

#include "core/dispatch.hpp"
#include "errors/guard.hpp"

namespace foundation::storage::vfs {

using detail::dispatch;

AbsoluteIRI getLocation(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getLocation(); }, [](Folder const& d) { return d.getLocation(); });
}

AbsoluteIRI getCanonicalLocation(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getCanonicalLocation(); },
      [](Folder const& d) { return d.getCanonicalLocation(); });
}

std::u16string getName(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getName(); }, [](Folder const& d) { return d.getName(); });
}

bool exists(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.fileExists(); }, [](Folder const& d) { return d.folderExists(); });
}

bool hasParent(FileOrFolder const& item) {
  return dispatch(
      item, [](File const&) { return true; }, [](Folder const& d) { return d.hasParent(); });
}

Folder getParent(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getParent(); }, [](Folder const& d) { return d.getParent(); });
}

StorageSystemReference getStorageSystem(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getStorageSystem(); }, [](Folder const& d) { return d.getStorageSystem(); });
}

boost::posix_time::ptime getLastModified(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getAttributes().getLastModified(); },
      [](Folder const& d) { return d.getAttributes().getLastModified(); });
}

bool isWritable(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getAttributes().isWritable(); },
      [](Folder const& d) { return d.getAttributes().isWritable(); });
}

bool isHidden(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getAttributes().isHidden(); },
      [](Folder const& d) { return d.getAttributes().isHidden(); });
}

bool isSymlink(FileOrFolder const& item) {
  return dispatch(
      item, [](File const& f) { return f.getAttributes().isSymlink(); },
      [](Folder const& d) { return d.getAttributes().isSymlink(); });
}

void remove(FileOrFolder const& item, FolderRemovalPolicy const& policy) {
  dispatch(
      item, [](File const& f) { f.removeFile(); }, [&](Folder const& d) { d.removeFolder(policy); });
}

void setWritable(FileOrFolder const& item, bool writable) {
  dispatch(
      item, [&](File const& f) { f.setWritable(writable); }, [&](Folder const& d) { d.setWritable(writable); });
}

void setLastModified(FileOrFolder const& item, boost::posix_time::ptime const& time) {
  dispatch(
      item, [&](File const& f) { f.setLastModified(time); }, [&](Folder const& d) { d.setLastModified(time); });
}

namespace {

/// Asks the provider for `iri` what stands there; its not-found failure is `nothing`.
template <class Answer>
Answer askWhatIsThere(AbsoluteIRI const& iri, StorageSystemReference const& system,
                      Answer (provider::IProvider::*query)(provider::StorageIRI const&), Answer nothing) {
  auto const provider = buildProvider(system, iri.toStorageIRI());
  try {
    return ((*provider).*query)(iri.toStorageIRI());
  } catch (provider::Exception const& failure) {
    if (failure.getErrorCode() == provider::ErrorCode::ResourceNotFound) return nothing;
    handleException();
  }
}

} // namespace

provider::ExistsResult exists(AbsoluteIRI const& iri, StorageSystemReference const& system) {
  return askWhatIsThere(iri, system, &provider::IProvider::exists, provider::ExistsResult::NotFound);
}

provider::ExtendedExistsResult existsExtended(AbsoluteIRI const& iri, StorageSystemReference const& system) {
  return askWhatIsThere(iri, system, &provider::IProvider::existsExtended, provider::ExtendedExistsResult::NotFound);
}

FileOrFolder makeFileOrFolder(AbsoluteIRI const& iri, StorageSystemReference const& system) {
  switch (exists(iri, system)) {
  case provider::ExistsResult::File: return File(iri, system);
  case provider::ExistsResult::NotFound: throw Exception(ErrorCode::ResourceNotFound, iri);
  default: return Folder(iri, system); // every other answer is a folder
  }
}

File makeFile(provider::StorageItem item, StorageSystemReference const& system) {
  return File(std::move(item), system);
}

Folder makeFolder(provider::StorageItem item, StorageSystemReference const& system) {
  return Folder(std::move(item), system);
}

} // namespace foundation::storage::vfs
