#include "harness.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <boost/make_shared.hpp>

using namespace harness;

namespace {

std::string destroyedText(std::function<void()> const& f) {
  try {
    f();
  } catch (std::runtime_error const& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

/// A system with its own event manager, to see that decorators hide it.
class WithEvents final : public vfs::StorageSystem {
public:
  void shutdown() const override { ++shutdowns; }
  std::shared_ptr<p::IProvider> buildProvider(p::StorageIRI const& iri) const override {
    p::fail(p::ErrorCode::ReadOnlyProvider, iri, u"test.build", "refused");
  }
  boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> getEventMgr() const override { return manager; }
  boost::shared_ptr<foundation::msg_svc::eventmgr::EventMgr> manager =
      boost::make_shared<foundation::msg_svc::eventmgr::EventMgr>();
  mutable int shutdowns = 0;
};

} // namespace

TEST(StorageSystemReference, FailsCleanlyOnceTheSystemIsGone) {
  auto system = std::make_shared<StandardStorageSystem>();
  // A caller's own lookup, as a function: it yields the system while the caller keeps it.
  auto registry = std::make_shared<std::shared_ptr<vfs::StorageSystem>>(system);
  vfs::StorageSystemReference reference{std::weak_ptr<vfs::StorageSystem>(system)};
  vfs::StorageSystemReference byFunction(vfs::StorageSystemReference::Source([registry] { return *registry; }));
  EXPECT_TRUE(reference == byFunction);
  vfs::File file(vfs::AbsoluteIRI(u"mem:///kept.txt"), reference);
  file.createFile();

  system.reset();
  registry->reset();
  EXPECT_EQ(destroyedText([&] { reference.lock(); }), "StorageSystem has been destroyed");
  EXPECT_EQ(destroyedText([&] { byFunction.getEventMgr(); }), "StorageSystem has been destroyed");
  EXPECT_EQ(destroyedText([&] { vfs::File(vfs::AbsoluteIRI(u"mem:///new.txt"), reference); }),
            "StorageSystem has been destroyed");
  EXPECT_NO_THROW(reference.shutdown());
  EXPECT_TRUE(reference == byFunction); // both gone
  EXPECT_TRUE(file.fileExists());       // a handle keeps its provider
  EXPECT_EQ(destroyedText([&] { file.getStorageSystem().lock(); }), "StorageSystem has been destroyed");

  vfs::StorageSystemReference empty{vfs::StorageSystemReference::Source()};
  EXPECT_THROW(empty.lock(), std::bad_function_call);
  EXPECT_THROW((void)(empty == reference), std::bad_function_call);
}

TEST(StorageSystemDecorator, ForwardsButHidesTheEventManager) {
  auto inner = std::make_shared<WithEvents>();
  vfs::StorageSystemDecorator decorator(inner);
  EXPECT_TRUE(vfs::getEventMgr(*inner));
  EXPECT_FALSE(vfs::getEventMgr(decorator));
  decorator.shutdown();
  EXPECT_EQ(inner->shutdowns, 1);
  EXPECT_VFS_ERROR(vfs::ErrorCode::ReadOnlyProvider, vfs::buildProvider(decorator, p::StorageIRI(u"x-y:///a")));
}

TEST(StandardStorageSystem, ReusesOneProviderPerSchemeAndAuthority) {
  auto system = std::make_shared<StandardStorageSystem>();
  auto a = vfs::buildProvider(*system, p::StorageIRI(u"mem:///a"));
  EXPECT_EQ(a, vfs::buildProvider(*system, p::StorageIRI(u"MEM:///b/c")));
  EXPECT_NE(a, vfs::buildProvider(*system, p::StorageIRI(u"mem://other/a")));
  EXPECT_EQ(vfs::buildProvider(*system, p::StorageIRI(u"file:///tmp")),
            vfs::buildProvider(*system, p::StorageIRI(u"file://localhost/")));
  EXPECT_VFS_ERROR(vfs::ErrorCode::InvalidLocation, vfs::buildProvider(*system, p::StorageIRI(u"file://server/share")));
  try {
    vfs::Folder(vfs::AbsoluteIRI(u"rar:file:///a.rar!/dir"),
                vfs::StorageSystemReference(std::weak_ptr<vfs::StorageSystem>(system)));
    ADD_FAILURE() << "an unknown scheme was served";
  } catch (vfs::UnsupportedIRISchemeException const& e) {
    EXPECT_EQ(e.getScheme(), u"rar");
  }
  system->registerProvider(u"RAR", [](p::StorageIRI const&) {
    return std::make_shared<foundation::storage::providers::memory::MemoryProvider>();
  });
  EXPECT_NO_THROW(vfs::buildProvider(*system, p::StorageIRI(u"rar:file:///a.rar!/dir")));
  EXPECT_TRUE(system->getEventMgr());
}

namespace {

/// A system that serves nothing: it yields no provider at all.
class WithoutProviders final : public vfs::StorageSystem {
public:
  void shutdown() const override {}
  std::shared_ptr<p::IProvider> buildProvider(p::StorageIRI const&) const override { return nullptr; }
};

} // namespace

TEST(StorageSystemReference, ComparesSystemsThatItsSourcesYieldWhileBothLive) {
  // Each call builds a new system: two of them are never the same one, even when the memory
  // of the first would be reused for the second.
  vfs::StorageSystemReference::Source const fresh = [] { return std::make_shared<WithoutProviders>(); };
  vfs::StorageSystemReference a(fresh), b(fresh);
  EXPECT_FALSE(a == b);
  EXPECT_TRUE(a != b);
}

TEST(StorageSystemReference, ASystemWithoutAProviderGivesTheLibrarysException) {
  auto system = std::make_shared<WithoutProviders>();
  vfs::StorageSystemReference reference{std::weak_ptr<vfs::StorageSystem>(system)};
  vfs::AbsoluteIRI const location(u"mem:///x");
  EXPECT_THROW(vfs::File(location, reference), vfs::UnsupportedIRISchemeException);
  EXPECT_THROW(vfs::Folder(location, reference), vfs::UnsupportedIRISchemeException);
  EXPECT_THROW(vfs::exists(location, reference), vfs::UnsupportedIRISchemeException);
}
