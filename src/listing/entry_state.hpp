#pragma once

#include "listing/lazy_value.hpp"

#include <vfs/folder.hpp>

#include <boost/optional.hpp>

#include <string>

namespace foundation::storage::vfs::detail {

/// What FileEntry and FolderEntry share: the child's name, its handle (`Handle(parent,
/// name)` on first use) and its attributes (given, or the handle's own on first use, so
/// that asking for them first also builds the handle). Never moved: the producers refer to
/// it.
///
/// The parent waits here, not in the handle's producer: a producer that captures only `this`
/// fits into std::function without a heap allocation, and listings build an entry per child.
/// It is dropped once the handle exists, as a captured parent would be.
template <class Handle, class Attributes>
class EntryState {
public:
  EntryState(Folder parent, std::u16string name, Attributes attributes)
      : name(std::move(name)), handle(handleProducer()), attributes(std::move(attributes)), parent_(std::move(parent)) {
  }
  EntryState(Folder parent, std::u16string name)
      : name(std::move(name)), handle(handleProducer()), attributes(attributesProducer()), parent_(std::move(parent)) {}
  explicit EntryState(Handle known)
      : name(known.getName()), handle(std::move(known)), attributes(attributesProducer()) {}
  EntryState(EntryState const&) = delete;
  EntryState& operator=(EntryState const&) = delete;

  std::u16string const name;
  LazyValue<Handle> const handle;
  LazyValue<Attributes> const attributes;

private:
  /// Runs under the handle's lock, the only place that touches `parent_` after construction.
  typename LazyValue<Handle>::Producer handleProducer() const {
    return [this] {
      Handle built(*parent_, name);
      parent_.reset();
      return built;
    };
  }
  typename LazyValue<Attributes>::Producer attributesProducer() const {
    return [this] { return handle.get().getAttributes(); };
  }

  mutable boost::optional<Folder> parent_; ///< until the handle is built
};

} // namespace foundation::storage::vfs::detail
