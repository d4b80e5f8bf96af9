#include "harness.hpp"

#include <foundation/storage/providers/memory/memory_provider.hpp>

#include <mutex>
#include <optional>

using namespace harness;

namespace {

/// The memory provider with both extensions, which records what reaches them and throws
/// what a test tells it to.
class WithExtensions final : public p::ForwardingProvider {
public:
  using ForwardingProvider::ForwardingProvider;

  void configure(p::StorageIRI const& location, boost::property_tree::ptree settings) override {
    std::lock_guard lock(mutex_);
    configured = std::move(settings);
    if (failure) std::rethrow_exception(failure);
    (void)location;
  }
  void invalidate(p::StorageIRI const& location) override {
    std::lock_guard lock(mutex_);
    invalidated.push_back(location);
    if (failure) std::rethrow_exception(failure);
  }
  void flushFilesystem() override {
    std::lock_guard lock(mutex_);
    ++flushes;
    if (failure) std::rethrow_exception(failure);
  }

  std::mutex mutex_;
  std::optional<boost::property_tree::ptree> configured;
  std::vector<p::StorageIRI> invalidated;
  int flushes = 0;
  std::exception_ptr failure;
};

/// A storage system whose "mem" locations are served by WithExtensions.
struct Administered {
  std::shared_ptr<WithExtensions> provider =
      std::make_shared<WithExtensions>(std::make_shared<foundation::storage::providers::memory::MemoryProvider>());
  std::shared_ptr<StandardStorageSystem> system = serving(provider);
  vfs::StorageSystemReference reference{std::weak_ptr<vfs::StorageSystem>(system)};
  vfs::Folder folder{vfs::AbsoluteIRI(u"mem:///f"), reference};

  static std::shared_ptr<StandardStorageSystem> serving(std::shared_ptr<WithExtensions> provider) {
    auto system = std::make_shared<StandardStorageSystem>();
    system->registerProvider(u"mem", [provider](p::StorageIRI const&) { return provider; });
    return system;
  }
};

class Administration : public OnEveryProvider {};

} // namespace

TEST(ConfigureProvider, DottedKeysBuildTheTree) {
  Administered a;
  vfs::configureProvider(a.folder, {});
  ASSERT_TRUE(a.provider->configured);
  EXPECT_TRUE(a.provider->configured->empty()) << "an empty map still reaches the provider";

  vfs::configureProvider(a.folder, {{"cache.size", "10"}, {"cache", "on"}, {"a.b.c", "deep"}});
  auto const& tree = *a.provider->configured;
  EXPECT_EQ(tree.size(), 2u);
  EXPECT_EQ(tree.get_child("cache").data(), "on");
  EXPECT_EQ(tree.get_child("cache").size(), 1u);
  EXPECT_EQ(tree.get<std::string>("cache.size"), "10");
  EXPECT_EQ(tree.get<std::string>("a.b.c"), "deep");
}

TEST_P(Administration, SettingsAndStorageInfoReachTheRealProvider) {
  vfs::Folder root(h.root, h.reference());
  EXPECT_VFS_ERROR(vfs::ErrorCode::InvalidLocation, vfs::configureProvider(root, {{"no.such.setting", "1"}}));
  h.faults->failOn(p::Operation::GetProviderStorageInfo, {}, p::ErrorCode::PermissionDenied);
  EXPECT_VFS_ERROR(vfs::ErrorCode::PermissionDenied, vfs::getStorageInfo(root));
  h.faults->failOn(p::Operation::ShutdownProvider, {}, p::ErrorCode::ResourceInUse);
  EXPECT_VFS_ERROR(vfs::ErrorCode::ResourceInUse, vfs::shutdownProvider(root));
  h.faults->clear();

  SKIP_WITHOUT(Capacity);
  if (GetParam() == "mem") {
    vfs::configureProvider(root, {{"capacity", "4096"}});
    EXPECT_EQ(vfs::getStorageInfo(root).totalBytes, 4096u);
    EXPECT_TRUE(vfs::getStorageInfo(root).details.get_optional<std::uint64_t>("memory.usedBytes"));
  } else {
    auto const info = vfs::getStorageInfo(root);
    EXPECT_GT(info.totalBytes, 0u);
    EXPECT_LE(info.availableBytes, info.totalBytes);
  }
  vfs::shutdownProvider(root);
  EXPECT_EQ(h.counts->count(p::Operation::ShutdownProvider), 2u);
}

INSTANTIATE_ON_EVERY_SCHEME(Administration);

TEST(ProviderExtensions, UsedWhenOfferedAndSkippedOtherwise) {
  Administered a;
  vfs::invalidateFolder(a.folder);
  vfs::extensions::flushFilesystem(vfs::AbsoluteIRI(u"mem:///anywhere"), a.reference);
  ASSERT_EQ(a.provider->invalidated.size(), 1u);
  EXPECT_EQ(a.provider->invalidated[0], a.folder.getLocation().toStorageIRI());
  EXPECT_EQ(a.provider->flushes, 1);

  // The bare memory provider offers neither extension.
  auto plain = std::make_shared<StandardStorageSystem>();
  vfs::StorageSystemReference const reference{std::weak_ptr<vfs::StorageSystem>(plain)};
  vfs::Folder const folder(vfs::AbsoluteIRI(u"mem:///f"), reference);
  ASSERT_EQ(
      dynamic_cast<p::extensions::IInvalidatable*>(reference.buildProvider(folder.getLocation().toStorageIRI()).get()),
      nullptr);
  vfs::invalidateFolder(folder);
  vfs::extensions::flushFilesystem(folder.getLocation(), reference);
  EXPECT_THROW(vfs::extensions::flushFilesystem(vfs::AbsoluteIRI(u"nobody:///x"), reference),
               vfs::UnsupportedIRISchemeException);
}

TEST(ProviderExtensions, OnlyProviderFailuresAreTranslated) {
  Administered a;
  a.provider->failure =
      std::make_exception_ptr(p::Exception(p::ErrorCode::ReadOnlyProvider, a.folder.getLocation().toStorageIRI()));
  EXPECT_VFS_ERROR(vfs::ErrorCode::ReadOnlyProvider, vfs::invalidateFolder(a.folder));
  EXPECT_VFS_ERROR(vfs::ErrorCode::ReadOnlyProvider,
                   vfs::extensions::flushFilesystem(a.folder.getLocation(), a.reference));
  EXPECT_VFS_ERROR(vfs::ErrorCode::ReadOnlyProvider, vfs::configureProvider(a.folder, {}));

  // A provider failure outside the general kind leaves the narrow guards as it came...
  a.provider->failure =
      std::make_exception_ptr(p::ChangeEventsSubscriptionException(a.folder.getLocation().toStorageIRI(), "odd"));
  EXPECT_THROW(vfs::invalidateFolder(a.folder), p::ChangeEventsSubscriptionException);
  EXPECT_THROW(vfs::extensions::flushFilesystem(a.folder.getLocation(), a.reference),
               p::ChangeEventsSubscriptionException);
  // ...while configuring translates every failure.
  EXPECT_THROW(vfs::configureProvider(a.folder, {}), vfs::ChangeEventsSubscriptionException);

  a.provider->failure = std::make_exception_ptr(std::logic_error("not a provider's"));
  EXPECT_THROW(vfs::invalidateFolder(a.folder), std::logic_error);
}
