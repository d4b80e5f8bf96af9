#include "harness.hpp"

#include <foundation/log/diagnostic_logger.hpp>

#include <boost/exception/errinfo_nested_exception.hpp>
#include <boost/exception/get_error_info.hpp>

#include <filesystem>
#include <optional>
#include <unordered_set>

using namespace harness;

namespace {

/// What an InvalidIRIException carries: its text, and the provider failure nested in it
/// (its code and innermost message), rethrown as what the provider threw.
struct Invalid {
  std::u16string text;
  std::optional<p::ErrorCode> cause;
  std::string causeMessage;
  bool operator==(Invalid const&) const = default;
};

Invalid invalidIRI(std::function<void()> const& f) {
  try {
    f();
  } catch (vfs::InvalidIRIException const& e) {
    Invalid result{e.getInvalidIRIString(), std::nullopt, {}};
    auto const* boostPart = dynamic_cast<boost::exception const*>(&e);
    auto const* nested = boostPart ? boost::get_error_info<boost::errinfo_nested_exception>(*boostPart) : nullptr;
    if (!nested) return result;
    try {
      boost::rethrow_exception(*nested);
    } catch (p::Exception const& cause) {
      result.cause = cause.getErrorCode();
      result.causeMessage = cause.getAllExceptionContexts().front().getMessage();
    } catch (...) {
      result.causeMessage = "(not the provider's exception)";
    }
    return result;
  }
  return {u"(nothing thrown)", std::nullopt, {}};
}

} // namespace

TEST(AbsoluteIRI, RequiresAPathAndNestsTheProvidersFailure) {
  auto const invalid = p::ErrorCode::InvalidLocation;
  Invalid const unparsable = invalidIRI([] { vfs::AbsoluteIRI(u"not an iri"); });
  EXPECT_EQ(unparsable.text, u"not an iri");
  EXPECT_EQ(unparsable.cause, invalid);
  EXPECT_NE(unparsable.causeMessage.find("not an iri"), std::string::npos) << unparsable.causeMessage;
  EXPECT_EQ(invalidIRI([] { vfs::AbsoluteIRI(u"S3://Bucket"); }), (Invalid{u"s3://bucket", std::nullopt, {}}));
  EXPECT_NO_THROW(vfs::AbsoluteIRI(p::StorageIRI(u"s3://bucket"), false));
  EXPECT_EQ(invalidIRI([] { vfs::toAbsoluteIRI(u"file", fl::filesystem::path("relative/path")); }),
            (Invalid{u"file", invalid, "not an absolute path: \"relative/path\""}));
  // The anonymous wrapper is still a std::exception handler's business.
  EXPECT_THROW(vfs::AbsoluteIRI(u"::"), std::exception);
}

TEST(AbsoluteIRI, ForwardsToTheProvidersValueAndComparesTextExactly) {
  vfs::AbsoluteIRI iri(u"MEM:///a/./b/../c.txt");
  EXPECT_EQ(iri.getName(), u"c.txt");
  EXPECT_EQ(iri.getScheme(), u"mem");
  EXPECT_EQ(iri.getResolvedPath(), u"/a/c.txt");
  EXPECT_EQ(iri.getResolvedIRI(), vfs::AbsoluteIRI(u"mem:///a/c.txt"));
  EXPECT_EQ(iri.getParent().getPath(), u"/a/./b/..");
  EXPECT_TRUE(vfs::AbsoluteIRI(u"mem:///a").isAncestorOf(iri));
  EXPECT_EQ(iri.makePathRelativeTo(vfs::AbsoluteIRI(u"mem:///a")), u"./b/../c.txt");
  EXPECT_TRUE(iri == iri.toString());
  EXPECT_TRUE(iri.toString() == iri);
  EXPECT_EQ(vfs::AbsoluteIRI(u"mem:/x"), vfs::AbsoluteIRI(u"mem:///x"));
  EXPECT_FALSE(vfs::AbsoluteIRI(u"mem:/x") == std::u16string(u"mem:/x")); // equal values, different texts
  std::unordered_set<vfs::AbsoluteIRI> set{vfs::AbsoluteIRI(u"mem:///x")};
  EXPECT_TRUE(set.contains(vfs::AbsoluteIRI(u"MEM:/x")));
  EXPECT_EQ(vfs::hash_value(iri), iri.toStorageIRI().hashValue());

  vfs::AbsoluteIRI nested(u"zip", vfs::AbsoluteIRI(u"file:///a.zip"), u"/dir/x");
  EXPECT_EQ(nested.toString(), u"zip:file:///a.zip!/dir/x");
  EXPECT_EQ(nested.getInnerIRI(), vfs::AbsoluteIRI(u"file:///a.zip"));
  EXPECT_EQ(invalidIRI([] { vfs::AbsoluteIRI(u"zip:s3://bucket!/x").getInnerIRI(); }).text, u"s3://bucket");
  EXPECT_EQ(vfs::fromAbsoluteIRI(vfs::AbsoluteIRI(u"file:///tmp/a%20b")).string(), "/tmp/a b");
  vfs::CanonicalAbsoluteIRI canonical(u"file:///tmp/x");
  vfs::CanonicalAbsoluteIRI parent = canonical.getParent();
  EXPECT_EQ(parent, vfs::AbsoluteIRI(u"file:///tmp"));
}

TEST(AbsoluteIRI, CanonicalFormLetsProviderFailuresThrough) {
  // A name that is not UTF-8 has no location of its own; the failure names the nearest one.
  try {
    vfs::toCanonicalAbsoluteIRI(u"file", fl::filesystem::path(std::string("/tmp/bad\xFFname")));
    ADD_FAILURE() << "a path that is not UTF-8 was accepted";
  } catch (vfs::Exception const& e) {
    EXPECT_EQ(e.getErrorCode(), vfs::ErrorCode::InvalidLocation);
    EXPECT_EQ(e.getLocation(), vfs::AbsoluteIRI(u"file:///tmp/badname"));
    EXPECT_EQ(e.getExceptionContextsString(), u"iri.fromPath");
    EXPECT_NE(e.topExceptionContext()->getMessage().find("bad\\xFFname"), std::string::npos);
  }
  EXPECT_VFS_ERROR(vfs::ErrorCode::ResourceNotFound,
                   vfs::toCanonicalAbsoluteIRI(u"file", fl::filesystem::path("/no/such/place/anywhere")));
  EXPECT_VFS_ERROR(vfs::ErrorCode::ResourceNotFound,
                   vfs::toCanonicalAbsoluteIRI(u"file", fl::filesystem::path("no-such-relative")));
  EXPECT_EQ(vfs::toCanonicalAbsoluteIRI(u"file", fl::filesystem::path(".")),
            vfs::toAbsoluteIRI(u"file", fl::filesystem::path(std::filesystem::current_path()))); // as realpath
}

TEST(HasIRIPrefix, TestsOnlyTheSyntaxOfTheStart) {
  for (std::u16string yes : {u"a1:/", u"x+y.z-w:/p", u"ab:cd:/e", u"file:///x", u"zip:file:/a"})
    EXPECT_TRUE(vfs::hasIRIPrefix(yes));
  for (std::u16string no : {u"", u"a:/", u"a:/x", u"1ab:/", u"ab:", u"ab:cd", u"ab:x", u"C:\\windows", u"ab/:x"})
    EXPECT_FALSE(vfs::hasIRIPrefix(no)) << fl::i18n::to_utf8(no);
  EXPECT_TRUE(vfs::hasIRIPrefix(std::u32string(U"ab:/")));
}
