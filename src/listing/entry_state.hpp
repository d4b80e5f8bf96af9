#pragma once

#include "listing/lazy_value.hpp"

#include <vfs/folder.hpp>

#include <string>

namespace foundation::storage::vfs::detail {

/// What FileEntry and FolderEntry share: the child's name, its handle (`Handle(parent,
/// name)` on first use) and its attributes (given, or the handle's own on first use, so
/// that asking for them first also builds the handle). Never moved: the producers refer to
/// it.
template <class Handle, class Attributes>
class EntryState {
public:
  EntryState(Folder parent, std::u16string name, Attributes attributes)
      : name(std::move(name)), handle(producerOf(std::move(parent))), attributes(std::move(attributes)) {}
  EntryState(Folder parent, std::u16string name)
      : name(std::move(name)), handle(producerOf(std::move(parent))), attributes(attributesProducer()) {}
  explicit EntryState(Handle known)
      : name(known.getName()), handle(std::move(known)), attributes(attributesProducer()) {}
  EntryState(EntryState const&) = delete;
  EntryState& operator=(EntryState const&) = delete;

  std::u16string const name;
  LazyValue<Handle> const handle;
  LazyValue<Attributes> const attributes;

private:
  typename LazyValue<Handle>::Producer producerOf(Folder parent) const {
    return [this, parent = std::move(parent)] { return Handle(parent, name); };
  }
  typename LazyValue<Attributes>::Producer attributesProducer() const {
    return [this] { return handle.get().getAttributes(); };
  }
};

} // namespace foundation::storage::vfs::detail
