#include <foundation/storage/provider/exceptions.hpp>
#include <foundation/storage/provider/storage_iri.hpp>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <unordered_set>

namespace p = foundation::storage::provider;
using p::StorageIRI;

namespace {

std::string utf8(std::u16string const& s) { return fl::i18n::to_utf8(s); }

p::ErrorCode codeOf(std::function<void()> const& f) {
  try {
    f();
  } catch (p::Exception const& e) {
    return e.getErrorCode();
  }
  return static_cast<p::ErrorCode>(-1);
}

} // namespace

TEST(StorageIRI, NormalisesTheTextForms) {
  struct Case {
    std::u16string input, text;
    std::string ascii;
  };
  for (auto const& c : std::vector<Case>{
           {u"file:///home/a/x.txt", u"file:///home/a/x.txt", "file:///home/a/x.txt"},
           {u"FILE:/home//a/", u"file:///home/a", "file:///home/a"},
           {u"file://localhost/etc", u"file:///etc", "file:///etc"},
           {u"S3://Bucket/Key", u"s3://bucket/Key", "s3://bucket/Key"},
           {u"mem:///a%20b/%C3%BC", u"mem:///a b/ü", "mem:///a%20b/%C3%BC"},
           {u"mem:///100%25/%3F%23", u"mem:///100%25/%3F%23", "mem:///100%25/%3F%23"},
           {u"zip:file:///data/a.zip!/dir/x.txt", u"zip:file:///data/a.zip!/dir/x.txt",
            "zip:file:///data/a.zip!/dir/x.txt"},
           {u"zip:file:///a!b.zip!/c%21d", u"zip:file:///a!b.zip!/c%21d", "zip:file:///a!b.zip!/c%21d"},
           {u"s3://bucket", u"s3://bucket", "s3://bucket"},
           {u"mem:", u"mem://", "mem://"},
       }) {
    StorageIRI iri(c.input);
    EXPECT_EQ(iri.toString(), c.text) << utf8(c.input);
    EXPECT_EQ(iri.toAsciiString(), c.ascii) << utf8(c.input);
    EXPECT_EQ(StorageIRI(iri.toString()), iri) << utf8(c.input);
    EXPECT_EQ(StorageIRI::fromUtf8(iri.toAsciiString()), iri) << utf8(c.input);
  }
}

TEST(StorageIRI, RejectsMalformedText) {
  for (std::u16string bad : std::vector<std::u16string>{
           u"", u"a:/x", u"C:/windows", u"1ab:/x", u"ab:cd", u"mem:///a?b", u"mem:///a#b", u"mem:///a%2",
           u"mem:///a%zz", u"mem:///a%2Fb", u"mem:///a%00", u"mem:///%C3", u"/no/scheme",
           std::u16string(u"mem:///a\0b", 10), std::u16string(1, char16_t(0xD800))}) {
    EXPECT_EQ(codeOf([&] { StorageIRI{bad}; }), p::ErrorCode::InvalidLocation) << utf8(bad);
  }
}

TEST(StorageIRI, AnswersPathQueries) {
  StorageIRI file(u"file:///home/a/x.txt");
  EXPECT_TRUE(file.hasPath());
  EXPECT_EQ(file.getPath(), u"/home/a/x.txt");
  EXPECT_EQ(file.getName(), u"x.txt");
  EXPECT_EQ(file.getParent(), StorageIRI(u"file:///home/a"));
  EXPECT_EQ(StorageIRI(u"file:///home").getParent(), StorageIRI(u"file:///"));
  EXPECT_FALSE(StorageIRI(u"file:///").hasParent());
  EXPECT_TRUE(StorageIRI(u"file:///").hasPath());
  EXPECT_EQ(StorageIRI(u"file:///").getName(), u"");
  EXPECT_FALSE(StorageIRI(u"file://").hasPath());
  EXPECT_FALSE(StorageIRI(u"s3://bucket").hasPath());
  EXPECT_EQ(codeOf([] { StorageIRI(u"file:///").getParent(); }), p::ErrorCode::InvalidLocation);

  StorageIRI nested(u"zip:file:///data/a.zip!/dir/x.txt");
  ASSERT_TRUE(nested.hasInnerIRI());
  EXPECT_EQ(nested.getInnerIRI(), StorageIRI(u"file:///data/a.zip"));
  EXPECT_EQ(nested.getScheme(), u"zip");
  EXPECT_EQ(nested.getParent(), StorageIRI(u"zip:file:///data/a.zip!/dir"));
  EXPECT_EQ(StorageIRI(u"zip", StorageIRI(u"file:///data/a.zip"), u"/dir/x.txt"), nested);
  EXPECT_EQ(codeOf([] { StorageIRI(u"mem:///a").getInnerIRI(); }), p::ErrorCode::InvalidLocation);
  EXPECT_EQ(nested.withPath(u"/other/y"), StorageIRI(u"zip:file:///data/a.zip!/other/y"));
  EXPECT_FALSE(nested.withPath(u"").hasPath());
  EXPECT_EQ(codeOf([&] { nested.withPath(u"relative"); }), p::ErrorCode::InvalidLocation);
}

TEST(StorageIRI, BuildsChildrenKeepingDotSegmentsUntilResolved) {
  StorageIRI base(u"mem:///a");
  EXPECT_EQ(StorageIRI(base, u"b/c.txt"), StorageIRI(u"mem:///a/b/c.txt"));
  EXPECT_EQ(StorageIRI(base, u""), base);
  EXPECT_EQ(StorageIRI(base, u"/"), base);
  EXPECT_EQ(StorageIRI(base, u"100% #1?"), StorageIRI(u"mem:///a/100%25 %231%3F"));
  EXPECT_EQ(StorageIRI(StorageIRI(u"s3://bucket"), u"key").toString(), u"s3://bucket/key");
  EXPECT_EQ(codeOf([&] { StorageIRI(base, std::u16string(u"x\0y", 3)); }), p::ErrorCode::InvalidLocation);

  StorageIRI dotted(base, u"b/./c/../../d");
  EXPECT_EQ(dotted.getPath(), u"/a/b/./c/../../d");
  EXPECT_EQ(dotted.getResolvedPath(), u"/a/d");
  EXPECT_EQ(StorageIRI(u"mem:///../..").getResolvedPath(), u"/");
}

TEST(StorageIRI, RelatesLocationsSegmentBySegment) {
  StorageIRI a(u"mem:///a"), ab(u"mem:///a/b"), abc(u"mem:///a/b/c"), aDash(u"mem:///a-");
  EXPECT_TRUE(a.isAncestorOf(abc));
  EXPECT_FALSE(a.isAncestorOf(a));
  EXPECT_FALSE(a.isAncestorOf(aDash));
  EXPECT_FALSE(a.isAncestorOf(StorageIRI(u"mem://other/a/b")));
  EXPECT_TRUE(StorageIRI(u"mem:///").isAncestorOf(a));
  EXPECT_EQ(abc.makePathRelativeTo(a), u"b/c");
  EXPECT_EQ(a.makePathRelativeTo(abc), u"../..");
  EXPECT_EQ(aDash.makePathRelativeTo(ab), u"../../a-");
  EXPECT_EQ(a.makePathRelativeTo(a), u"");
  EXPECT_EQ(codeOf([&] { a.makePathRelativeTo(StorageIRI(u"file:///a")); }), p::ErrorCode::InvalidLocation);

  // A folder sorts right before its contents, whatever characters follow its name.
  std::vector<StorageIRI> sorted{aDash, abc, StorageIRI(u"mem:///"), ab, a};
  std::sort(sorted.begin(), sorted.end());
  std::vector<StorageIRI> expected{StorageIRI(u"mem:///"), a, ab, abc, aDash};
  EXPECT_EQ(sorted, expected);
}

TEST(StorageIRI, EqualValuesHashAlikeAndShareTheirRepresentation) {
  StorageIRI x(u"MEM:///a//b/"), y(u"mem:/a/b");
  EXPECT_EQ(x, y);
  EXPECT_EQ(hash_value(x), hash_value(y));
  std::unordered_set<StorageIRI> set{x};
  EXPECT_TRUE(set.contains(y));
  StorageIRI copy = x;
  EXPECT_EQ(copy.getPathView().data(), x.getPathView().data()); // no string copy
  StorageIRI moved = std::move(copy);
  EXPECT_TRUE(copy.empty());
  EXPECT_EQ(moved, x);
}

TEST(StorageIRI, ConvertsLocalPaths) {
  EXPECT_EQ(p::toStorageIRI(u"file", fl::filesystem::path("/tmp/a b/ü#1.txt")),
            StorageIRI(u"file:///tmp/a b/ü%231.txt"));
  EXPECT_EQ(p::fromStorageIRI(StorageIRI(u"file:///tmp/a%20b/x%3F")).string(), "/tmp/a b/x?");
  EXPECT_EQ(codeOf([] { p::toStorageIRI(u"file", fl::filesystem::path("relative/x")); }),
            p::ErrorCode::InvalidLocation);
  EXPECT_EQ(codeOf([] { p::toStorageIRI(u"file", fl::filesystem::path(std::string("/a\0b", 4))); }),
            p::ErrorCode::InvalidLocation);
  EXPECT_EQ(codeOf([] { p::fromStorageIRI(StorageIRI(u"zip:file:///a.zip!/x")); }), p::ErrorCode::InvalidLocation);

  auto dir = std::filesystem::temp_directory_path() / "storage_iri_test";
  std::filesystem::create_directories(dir / "real");
  std::filesystem::remove(dir / "link");
  std::filesystem::create_directory_symlink(dir / "real", dir / "link");
  EXPECT_EQ(p::toCanonicalizedStorageIRI(u"file", fl::filesystem::path(dir / "link" / ".." / "link")),
            p::toStorageIRI(u"file", fl::filesystem::path(std::filesystem::canonical(dir / "real"))));
  EXPECT_EQ(codeOf([&] { p::toCanonicalizedStorageIRI(u"file", fl::filesystem::path(dir / "missing")); }),
            p::ErrorCode::ResourceNotFound);
  std::filesystem::remove_all(dir);
}
