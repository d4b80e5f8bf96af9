#include "harness.hpp"

#include <stdexcept>

using namespace harness;
using std::ios_base;

namespace {

unsigned int bits(ios_base::openmode mode) { return static_cast<unsigned int>(mode); }

p::ByteStreamOpenOptions options(int access, int create, int truncate, int append) {
  return {static_cast<p::ByteStreamAccess>(access), static_cast<p::ByteStreamCreate>(create),
          static_cast<p::ByteStreamTruncate>(truncate), static_cast<p::ByteStreamAppend>(append)};
}

void expectMisuse(unsigned int mode, std::string const& text) {
  try {
    vfs::OpenMode(mode).toByteStreamOpenOptions();
    ADD_FAILURE() << "mode " << mode << " was accepted";
  } catch (std::runtime_error const& misuse) {
    EXPECT_EQ(misuse.what(), text) << "mode " << mode;
    auto const* internal = dynamic_cast<foundation::core::except::IInternalException const*>(&misuse);
    ASSERT_NE(internal, nullptr);
    EXPECT_EQ(internal->throwLine(), -1);
    EXPECT_STREQ(internal->throwFile(), "");
  }
}

} // namespace

TEST(OpenModes, CanonicaliseOnlyAppendAndInputAppend) {
  vfs::OpenMode const append(bits(ios_base::app));
  EXPECT_EQ(append.getOpenMode(), bits(ios_base::out | ios_base::app));
  EXPECT_EQ(append.toByteStreamOpenOptions(), options(0, 0, 1, 0));

  vfs::OpenMode const inputAppend(bits(ios_base::in | ios_base::app));
  EXPECT_FALSE(inputAppend.isReadOnly());
  EXPECT_EQ(inputAppend.toByteStreamOpenOptions(), options(1, 0, 1, 0));

  // Only these two widen: app+trunc stays as given and is refused later.
  EXPECT_EQ(vfs::canonicalizeOpenMode(bits(ios_base::app | ios_base::trunc)), bits(ios_base::app | ios_base::trunc));
  EXPECT_EQ(vfs::canonicalizeOpenMode(0x40 | bits(ios_base::app)), 0x40 | bits(ios_base::out | ios_base::app));
  EXPECT_EQ(vfs::applyMask(0xFF), 0x39u);

  vfs::OpenMode const readAtEnd(bits(ios_base::in | ios_base::ate | ios_base::binary));
  EXPECT_TRUE(readAtEnd.isReadOnly());
  EXPECT_TRUE(readAtEnd.includesAtEnd());
  EXPECT_TRUE(readAtEnd.includesBinary());
  EXPECT_EQ(readAtEnd.getOpenMode(), bits(ios_base::in | ios_base::ate | ios_base::binary));
  EXPECT_TRUE(vfs::OpenMode(bits(ios_base::in | ios_base::trunc)).isReadOnly());
}

TEST(OpenModes, MapEveryAcceptedModeToTheProviderOptions) {
  struct Row {
    ios_base::openmode mode;
    p::ByteStreamOpenOptions expected;
  };
  Row const rows[] = {
      {ios_base::out, options(0, 1, 1, 1)},
      {ios_base::out | ios_base::trunc, options(0, 0, 0, 1)},
      {ios_base::out | ios_base::app, options(0, 0, 1, 0)},
      {ios_base::in | ios_base::out, options(1, 1, 1, 1)},
      {ios_base::in | ios_base::out | ios_base::trunc, options(1, 0, 0, 1)},
      {ios_base::in | ios_base::out | ios_base::app, options(1, 0, 1, 0)},
      // ate and binary never reach the provider
      {ios_base::out | ios_base::ate | ios_base::binary, options(0, 1, 1, 1)},
  };
  for (Row const& row : rows) {
    EXPECT_EQ(vfs::OpenMode(bits(row.mode)).toByteStreamOpenOptions(), row.expected) << bits(row.mode);
    EXPECT_EQ(vfs::doToByteStreamOpenOptions(bits(row.mode)), row.expected) << bits(row.mode);
  }
}

TEST(OpenModes, RefuseBadModesWithTheMisuseTexts) {
  std::string const access = "toByteStreamAccess called with bad openmode";
  std::string const create = "toByteStreamCreate called with bad openmode";
  expectMisuse(bits(ios_base::in), access);
  expectMisuse(0, access);
  expectMisuse(bits(ios_base::trunc), access);
  expectMisuse(bits(ios_base::app | ios_base::trunc), access);
  expectMisuse(bits(ios_base::out | ios_base::app | ios_base::trunc), create);
  expectMisuse(bits(ios_base::in | ios_base::out | ios_base::app | ios_base::trunc), create);
  // Not canonicalised, plain app has no access; through OpenMode it has.
  EXPECT_THROW(vfs::doToByteStreamOpenOptions(bits(ios_base::app)), std::runtime_error);
  EXPECT_NO_THROW(vfs::OpenMode(bits(ios_base::app)).toByteStreamOpenOptions());
}
