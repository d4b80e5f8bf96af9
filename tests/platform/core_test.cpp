#include <foundation/core/except/exception.hpp>
#include <foundation/log/diagnostic_logger.hpp>

#include <fl/filesystem/basic_path.hpp>
#include <fl/i18n/i18n.hpp>

#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>

namespace except = foundation::core::except;
namespace i18n = fl::i18n;

TEST(I18n, ConvertsBetweenEncodings) {
  std::u16string const text = u"Grüße \U0001F600";
  EXPECT_EQ(i18n::to_ustring(i18n::to_utf8(text)), text);
  EXPECT_EQ(i18n::to_ustring(i18n::to_u32string(text)), text);
  EXPECT_EQ(i18n::to_u32string(text).size(), 7u);
  EXPECT_EQ(i18n::codecvt_ustring_to_string(u"é", "ISO-8859-1"), "\xE9");
  EXPECT_EQ(i18n::codecvt_string_to_ustring("\xE9", "ISO-8859-1"), u"é");
  EXPECT_THROW(i18n::codecvt_ustring_to_string(u"x", "no-such-charset"), std::runtime_error);
  EXPECT_THROW(i18n::strict::utf8_to_utf16("\xC3"), std::invalid_argument);
  EXPECT_THROW(i18n::strict::utf16_to_utf8(std::u16string(1, char16_t(0xDC00))), std::invalid_argument);
  EXPECT_EQ(i18n::to_ustring(std::string_view("a\xFFz")), u"az"); // lenient form skips
}

TEST(I18n, FoldsCaseForComparisons) {
  EXPECT_EQ(i18n::fold_case(u"ReadMe.TXT"), u"readme.txt");
  EXPECT_EQ(i18n::fold_case(u"ÄÖÜ"), i18n::fold_case(u"äöü"));
  EXPECT_TRUE(i18n::lcctype::isalpha_ascii(U'z'));
  EXPECT_FALSE(i18n::lcctype::isalpha_ascii(U'ä'));
  EXPECT_TRUE(i18n::lcctype::isalnum_ascii(U'7'));
}

TEST(CoreExceptions, AnonymousInternalExceptionIsCaughtAsItsStandardType) {
  using Anonymous = except::detail::AnonymousInternalException<std::runtime_error>;
  try {
    throw Anonymous("StorageSystem has been destroyed");
  } catch (std::runtime_error const& e) {
    EXPECT_STREQ(e.what(), "StorageSystem has been destroyed");
    auto const* internal = dynamic_cast<except::IInternalException const*>(&e);
    ASSERT_NE(internal, nullptr);
    EXPECT_EQ(internal->throwLine(), -1);
    EXPECT_STREQ(internal->throwFile(), "");
    EXPECT_EQ(except::toUstring(*internal), u"StorageSystem has been destroyed");
    auto copy = internal->cloneException();
    EXPECT_THROW(copy->rethrowException(), Anonymous);
  }
}

TEST(Paths, KeepNarrowAndWideFacesInStep) {
  fl::filesystem::path wide(std::u16string(u"/tmp/ü"));
  EXPECT_EQ(wide.string(), "/tmp/\xC3\xBC");
  EXPECT_EQ((wide / fl::filesystem::path("x")).ustring(), u"/tmp/ü/x");
  EXPECT_TRUE(wide.is_absolute());
  EXPECT_EQ(fl::filesystem::path("/a/./b/../c").lexically_normal().string(), "/a/c");
}

TEST(DiagnosticLogger, FiltersBySeverityAndNamesItsChannel) {
  std::ostringstream out;
  {
    foundation::log::ScopedStreamSink sink(out);
    foundation::log::diagnostic_logger logger("test::logger", foundation::log::Severity::Warning);
    logger.log(foundation::log::Severity::Info, "dropped");
    logger.log(foundation::log::Severity::Error, "kept");
    logger.setLevel(foundation::log::Severity::Trace);
    logger.log(foundation::log::Severity::Debug, "now kept");
  }
  EXPECT_EQ(out.str(), "error test::logger: kept\ndebug test::logger: now kept\n");
}
