#include "harness.hpp"

#include <boost/exception/errinfo_nested_exception.hpp>
#include <boost/exception/get_error_info.hpp>

using namespace harness;
using vfs::ErrorCode;
using wrappers::Operation;

TEST(ErrorCodes, PrintEveryValueAndMapProviderCodesByTheTable) {
  std::vector<std::string> const names{
      "FolderNotEmpty",   "InvalidLocation",      "PermissionDenied", "ResourceAlreadyExists", "ResourceNotFound",
      "ReadOnlyProvider", "FileTooLarge",         "ResourceInUse",    "NoSpaceLeft",           "IOError",
      "InternalError",    "UnsupportedOperation", "Unknown"};
  for (std::uint32_t i = 0; i < names.size(); ++i) {
    EXPECT_EQ(vfs::toString(static_cast<ErrorCode>(i)), "ErrorCode::" + names[i]);
    EXPECT_EQ(vfs::toUstring(static_cast<ErrorCode>(i)), fl::i18n::to_ustring("ErrorCode::" + names[i]));
  }
  EXPECT_EQ(vfs::toString(static_cast<ErrorCode>(13)), "Unhandled ErrorCode");
  std::ostringstream text;
  text << ErrorCode::NoSpaceLeft << " " << vfs::FolderRemovalPolicy::Recursive;
  EXPECT_EQ(text.str(), "ErrorCode::NoSpaceLeft FolderRemovalPolicy::Recursive");
  EXPECT_EQ(vfs::toString(vfs::FolderRemovalPolicy::NonRecursive), "FolderRemovalPolicy::NonRecursive");

  EXPECT_EQ(vfs::getConvertedCode(p::ErrorCode::FileTooLarge), ErrorCode::FileTooLarge);
  EXPECT_EQ(vfs::getConvertedCode(p::ErrorCode::ResourceInUse), ErrorCode::ResourceInUse);
  EXPECT_EQ(vfs::getConvertedCode(p::ErrorCode::ReadOnlyProvider), ErrorCode::ReadOnlyProvider);
  EXPECT_EQ(static_cast<int>(vfs::getConvertedCode(static_cast<p::ErrorCode>(5))), 6);
  for (std::uint32_t same : {0u, 1u, 2u, 3u, 4u, 8u, 9u, 10u, 11u})
    EXPECT_EQ(static_cast<std::uint32_t>(vfs::getConvertedCode(static_cast<p::ErrorCode>(same))), same);
  for (std::uint32_t unknown : {12u, 13u, 0xFFFFFFFFu})
    EXPECT_EQ(vfs::getConvertedCode(static_cast<p::ErrorCode>(unknown)), ErrorCode::Unknown);
}

TEST(Exceptions, ShowTheirClassNameAndTheirDataInTheirTexts) {
  vfs::AbsoluteIRI const location(u"mem:///a b");
  vfs::Exception e(ErrorCode::ResourceNotFound, location);
  EXPECT_STREQ(e.what(), "foundation::storage::vfs::Exception");
  EXPECT_EQ(e.ToUstringImpl(),
            u"foundation::storage::vfs::Exception{Location=\"mem:///a b\", ErrorCode=\"ErrorCode::ResourceNotFound\"}");
  EXPECT_EQ(*boost::get_error_info<vfs::ErrorCodeInfo>(e), ErrorCode::ResourceNotFound);
  EXPECT_EQ(*boost::get_error_info<vfs::LocationInfo>(e), location);

  vfs::ChangeEventsNotSupportedException notSupported(location);
  vfs::ChangeEventsSubscriptionException subscription(location);
  EXPECT_STREQ(notSupported.what(), "foundation::storage::vfs::ChangeEventsNotSupportedException");
  EXPECT_EQ(notSupported.ToUstringImpl(),
            u"foundation::storage::vfs::ChangeEventsNotSupportedException{Location=\"mem:///a b\"}");
  EXPECT_STREQ(subscription.what(), "foundation::storage::vfs::ChangeEventsSubscriptionException");
  EXPECT_EQ(subscription.ToUstringImpl(),
            u"foundation::storage::vfs::ChangeEventsSubscriptionException{Location=\"mem:///a b\"}");
  EXPECT_STREQ(vfs::InvalidIRIException(u"x").what(), "foundation::storage::vfs::InvalidIRIException");
  EXPECT_STREQ(vfs::UnsupportedIRISchemeException(u"zip").what(),
               "foundation::storage::vfs::UnsupportedIRISchemeException");
  EXPECT_EQ(vfs::UnsupportedIRISchemeException(u"zip").getScheme(), u"zip");

  vfs::IOReadException byCode(ErrorCode::IOError);
  EXPECT_NE(std::string(byCode.what()).find("IOReadException"), std::string::npos);
  EXPECT_EQ(byCode.code(), std::make_error_code(std::io_errc::stream));
  vfs::IOCloseException byMessage("disk gone", ErrorCode::NoSpaceLeft);
  EXPECT_NE(std::string(byMessage.what()).find("disk gone"), std::string::npos);
  EXPECT_EQ(byMessage.getErrorCode(), ErrorCode::NoSpaceLeft);
  EXPECT_THROW(byMessage.cloneException()->rethrowException(), vfs::IOCloseException);

  bool caught = false;
  try {
    throw notSupported;
  } catch (vfs::Exception const&) {
    ADD_FAILURE() << "a change-event failure is not an Exception";
  } catch (vfs::ChangeEventsNotSupportedException const&) {
    caught = true;
  }
  EXPECT_TRUE(caught);
}

TEST(Exceptions, LetHandlersWalkTheContextChain) {
  vfs::Exception e(ErrorCode::IOError, vfs::AbsoluteIRI(u"mem:///x"));
  EXPECT_FALSE(e.topExceptionContext());
  EXPECT_EQ(e.getExceptionContextsString(), u"");
  e.withExceptionContexts({p::ExceptionContext(u"a"), p::ExceptionContext(u"b"), p::ExceptionContext(u"c")});
  EXPECT_EQ(e.getExceptionContextsString(), u"a:b:c");
  vfs::Exception const& caught = e;
  auto copy = caught.cloneException();
  EXPECT_EQ(caught.topExceptionContext()->getExceptionContextKey(), u"a");
  caught.popExceptionContext();
  EXPECT_EQ(caught.topExceptionContext()->getExceptionContextKey(), u"b");
  caught.popExceptionContext();
  caught.popExceptionContext();
  EXPECT_FALSE(caught.topExceptionContext());
  caught.popExceptionContext();                                                           // harmless
  EXPECT_EQ(dynamic_cast<vfs::Exception&>(*copy).getExceptionContextsString(), u"a:b:c"); // copies keep their own
}

class Translation : public OnEveryProvider {};

namespace {
/// Runs `thrower` inside the library's translation.
void translated(std::function<void()> const& thrower) {
  try {
    thrower();
  } catch (...) {
    vfs::handleException();
  }
}
} // namespace

TEST_P(Translation, TurnsEveryProviderCodeIntoTheLibrarysWithLocationAndContexts) {
  auto file = h.file(u"f.txt");
  for (std::uint32_t code : {0u, 1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u, 42u}) {
    h.faults->failOn(Operation::CreateFile, file.getLocation().toStorageIRI(), static_cast<p::ErrorCode>(code),
                     {p::ExceptionContext(u"inner", "first"), p::ExceptionContext(u"outer", "second")}, 1);
    try {
      file.createFile();
      ADD_FAILURE() << "code " << code << " did not fail";
    } catch (vfs::Exception const& e) {
      EXPECT_EQ(e.getErrorCode(), vfs::getConvertedCode(static_cast<p::ErrorCode>(code)));
      EXPECT_EQ(e.getLocation(), file.getLocation());
      EXPECT_EQ(e.getExceptionContextsString(), u"inner:outer");
    }
  }
  EXPECT_EQ(h.faults->getInner()->exists(file.getLocation().toStorageIRI()), p::ExistsResult::NotFound);
}

TEST_P(Translation, TurnsChangeEventFailuresIntoSiblingsWithTheProvidersNested) {
  h.faults->failChangeEvents(p::StorageIRI(), wrappers::ChangeEventsFailure::NotSupported);
  auto folder = h.folder(u"");
  try {
    translated([&] {
      h.counts->publishFolderEvents(
          folder.getLocation().toStorageIRI(), [](auto const&, auto const&, auto const&, auto const&, auto) {}, {},
          p::RecursiveWatching::No);
    });
    ADD_FAILURE() << "the subscription did not fail";
  } catch (vfs::ChangeEventsNotSupportedException const& e) {
    EXPECT_EQ(e.getLocation(), folder.getLocation());
    auto const* nested = boost::get_error_info<boost::errinfo_nested_exception>(e);
    ASSERT_NE(nested, nullptr);
    EXPECT_THROW(boost::rethrow_exception(*nested), p::ChangeEventsNotSupportedException);
  }
}

TEST_P(Translation, TurnsStreamFailuresIntoIOExceptionsAndLetsOthersPass) {
  write(h.file(u"f.txt"), "data");
  h.faults->failStream(h.file(u"f.txt").getLocation().toStorageIRI(), wrappers::StreamOperation::Read,
                       p::ErrorCode::ResourceInUse, "locked by another process");
  auto device = h.file(u"f.txt").openReadOnly();
  char buffer[8];
  try {
    translated([&] { device.read(buffer, sizeof buffer); });
    ADD_FAILURE() << "the read did not fail";
  } catch (vfs::IOReadException const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::ResourceInUse);
    EXPECT_NE(std::string(e.what()).find("locked by another process"), std::string::npos);
  }
  // Every stream failure becomes its IO exception with the converted code.
  EXPECT_THROW(translated([] { throw p::ByteStreamWriteFailure("w", p::ErrorCode::NoSpaceLeft); }),
               vfs::IOWriteException);
  EXPECT_THROW(translated([] { throw p::ByteStreamSeekFailure("s", p::ErrorCode::InvalidLocation); }),
               vfs::IOSeekException);
  try {
    translated([] { throw p::ByteStreamCloseFailure("c", p::ErrorCode::ReadOnlyProvider); });
  } catch (vfs::IOCloseException const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::ReadOnlyProvider);
  }
  try {
    translated([&] { throw p::ChangeEventsSubscriptionException(h.at(u"f.txt").toStorageIRI(), "watch limit"); });
  } catch (vfs::ChangeEventsSubscriptionException const& e) {
    EXPECT_EQ(e.getLocation(), h.at(u"f.txt"));
    EXPECT_NE(boost::get_error_info<boost::errinfo_nested_exception>(e), nullptr);
  }
  EXPECT_THROW(translated([] { throw std::logic_error("a programming error"); }), std::logic_error);
  EXPECT_THROW(translated([] { throw std::bad_alloc(); }), std::bad_alloc);
  EXPECT_THROW(translated([] { throw vfs::Exception(ErrorCode::IOError, vfs::AbsoluteIRI(u"mem:///x")); }),
               vfs::Exception);
}

TEST_P(Translation, NamesALocationForEveryProviderFailure) {
  // The forwarding base asks for a feature without a location; the item that asked is named.
  h.folder(u"d").createFolder();
  h.faults->failOn(Operation::HasFeature, p::StorageIRI(), p::ErrorCode::IOError,
                   {p::ExceptionContext(u"probe", "down")}, 1);
  try {
    h.folder(u"d").removeFolder(vfs::FolderRemovalPolicy::Recursive);
    ADD_FAILURE() << "the failing feature question was not reported";
  } catch (vfs::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), ErrorCode::IOError);
    EXPECT_EQ(e.getLocation(), h.at(u"d"));
    EXPECT_EQ(e.getExceptionContextsString(), u"probe");
  }
  EXPECT_TRUE(h.folder(u"d").folderExists());

  // A failure that names no location still says what failed and carries it.
  try {
    translated([] { p::fail(p::ErrorCode::NoSpaceLeft, p::StorageIRI(), u"probe", "disk full"); });
    ADD_FAILURE() << "nothing thrown";
  } catch (vfs::InvalidIRIException const& e) {
    std::string const text = fl::i18n::to_utf8(e.getInvalidIRIString());
    EXPECT_NE(text.find("disk full"), std::string::npos) << text;
    auto const* boostPart = dynamic_cast<boost::exception const*>(&e);
    ASSERT_NE(boostPart, nullptr);
    auto const* nested = boost::get_error_info<boost::errinfo_nested_exception>(*boostPart);
    ASSERT_NE(nested, nullptr);
    try {
      boost::rethrow_exception(*nested);
    } catch (p::Exception const& cause) {
      EXPECT_EQ(cause.getErrorCode(), p::ErrorCode::NoSpaceLeft);
    }
  }
}

INSTANTIATE_ON_EVERY_SCHEME(Translation);
