#include "qvc/Base64.h"
#include "qvc/ByteArray.h"
#include "qvc/FastString.h"
#include "qvc/ParserHelpers.h"

#include <gmock/gmock.h>

#include <stdexcept>

namespace qvc {
namespace {

TEST(FastString, compareCountsACommonPartOfExactlyMaxLenAsEqual) {
  // A maxLen below the common part must not shorten the comparison.
  const std::tuple<const char*, const char*, size_t, int> limited[] = {
      {"abc", "abcd", 3, 0}, {"abcd", "abc", 3, 0}, {"abcx", "abcd", 3, 1}, {"abc", "abcd", 2, -1}};
  for (const auto& [text, other, maxLen, order] : limited)
    EXPECT_EQ(FastString(text).compare(other, true, maxLen), order) << text << " and " << other;
  EXPECT_EQ(FastString("abc").compare("abcd"), -1);
  EXPECT_EQ(FastString("").compare("a"), -1);
  EXPECT_EQ(FastString("a").compare(static_cast<const char*>(nullptr)), 1);
  EXPECT_EQ(FastString("").compare(""), 0);
  EXPECT_EQ(FastString("\xC3\xA9").compare("z", false), 1) << "bytes compare unsigned";
}

TEST(FastString, ignoresCaseOfAsciiOnly) {
  EXPECT_TRUE(FastString("abc").equals("ABC", false));
  EXPECT_FALSE(FastString("abc").equals("ABC", true));
  EXPECT_FALSE(FastString("\xC3\xA9").equals("\xC3\x89", false));
  EXPECT_TRUE(FastString("HTTP://x").startsWith("http:", false));
  EXPECT_FALSE(FastString("ab").startsWith("abc", true));
  EXPECT_TRUE(FastString("a.MPD").endsWith(".mpd", false));
  EXPECT_FALSE(FastString("mpd").endsWith(".mpd", false));
}

TEST(FastString, aZeroByteEndsTheOtherOperandOfEqualityButNotOfOrder) {
  const FastString whole(std::string("a\0b", 3));
  EXPECT_TRUE(FastString("a") == whole);
  EXPECT_FALSE(whole == FastString("a"));
  EXPECT_FALSE(whole == whole);
  EXPECT_EQ(FastString("a") == whole, FastString("a").compare(whole) == 0);
  EXPECT_TRUE(FastString("a") < whole);
  EXPECT_TRUE("a" == FastString("a") && FastString("a") != "b");
}

TEST(FastString, readsLeadingIntegers) {
  size_t consumed = 99;
  const std::tuple<const char*, uint64_t, size_t> unsignedTexts[] = {
      {"-5", 0, 0}, {" 42px", 42, 3}, {"18446744073709551615", UINT64_MAX, 20}};
  for (const auto& [text, value, length] : unsignedTexts) {
    EXPECT_EQ(FastString(text).toUInt(10, &consumed), value) << text;
    EXPECT_EQ(consumed, length) << text;
  }
  for (const auto& [text, value, length] : {std::tuple("-5", -5, 2u), std::tuple("x", 0, 0u)}) {
    EXPECT_EQ(FastString(text).toInt(10, &consumed), value) << text;
    EXPECT_EQ(consumed, length) << text;
  }
  EXPECT_EQ(FastString("0x1F").toUInt(16), 31u);
  EXPECT_EQ(FastString("").toInt(), 0);
  EXPECT_THROW(FastString("99999999999999999999").toInt(), std::out_of_range);
  EXPECT_THROW(FastString("99999999999999999999").toUInt(), std::out_of_range);
}

TEST(FastString, readsDoublesIndependentlyOfTheLocale) {
  size_t consumed = 99;
  const std::tuple<const char*, bool, double, size_t> texts[] = {{"1,5", true, 1.5, 3},
                                                                 {"1,5", false, 1.0, 1},
                                                                 {" 2.5e1;", false, 25.0, 6},
                                                                 {"abc", false, 0.0, 0},
                                                                 {"1e999", false, 0.0, 0}};
  for (const auto& [text, commas, value, length] : texts) {
    EXPECT_EQ(FastString(text).toDouble(10, commas, &consumed), value) << text;
    EXPECT_EQ(consumed, length) << text;
  }
  EXPECT_EQ(parserhelpers::_parse<float>(".5S", &consumed), 0.5f);
  EXPECT_EQ(consumed, 2u);
}

TEST(FastString, formatsBeyondItsFirstBufferAndInUtf8) {
  const std::string longText(1000, 'x');
  EXPECT_EQ(FastString::format("%s", longText.c_str()), longText.c_str());
  EXPECT_EQ(FastString::format("%d", 12345), "12345") << "five characters from a format of two";
  EXPECT_EQ(FastString::format("%ls", L"\u00e9"), "\xC3\xA9");
  EXPECT_EQ(FastString::format(L"\u00e9 %s %d", "a", 3), "\xC3\xA9 a 3");
  EXPECT_EQ(FastString::format(U"%03d", 7), "007");
  const wchar_t noText[] = {wchar_t(0xD800), 0};
  EXPECT_EQ(FastString::format("%ls", noText), "") << "an argument that printf refuses";
}

TEST(FastString, convertsFromOtherWidths) {
  EXPECT_EQ(FastString(L"a\u20ac"), "a\xE2\x82\xAC");
  EXPECT_EQ(FastString(L'\u00e9', 3).sizeU8(), 3u);
  const char16_t pair[] = {0xD83D, 0xDE00};
  EXPECT_EQ(FastString(pair, 2), "\xF0\x9F\x98\x80");
  EXPECT_ANY_THROW(FastString(pair, 1)) << "a lone surrogate";
  EXPECT_ANY_THROW(FastString(L"\xD800"));
  const uint8_t units[] = {'h', 0, 'i', 0, 0, 0};
  EXPECT_EQ(FastString(ByteArray(units, 6), true, false).size(), 2u);
  EXPECT_EQ(FastString(ByteArray(units, 6), false, false).size(), 3u);
  EXPECT_EQ(FastString("ab\0\0", 4, false).size(), 2u);
  EXPECT_EQ(FastString("a" + FastString("b") + U"\u00e9" + 'c').toStdWString(), L"ab\u00e9c");
}

TEST(FastString, trimsAndRemovesByteOrderMarksInTheirOrder) {
  const FastString withMark("\xEF\xBB\xBF \t text\r\n");
  EXPECT_EQ(withMark.trim(), "text");
  EXPECT_EQ(FastString(" \n").trim(), "");
  FastString wide(std::string("\xFF\xFE\0\0x", 5));
  EXPECT_EQ(wide.stripBOM().size(), 3u) << "taken for the UTF-16 mark";
  FastString big(std::string("\0\0\xFE\xFFx", 5));
  EXPECT_EQ(big.stripBOM(), "x");
  std::string plain = " a b ";
  EXPECT_EQ(ltrim(plain), "a b ");
  EXPECT_EQ(rtrim(plain), "a b");
}

TEST(FastString, convertsHexadecimal) {
  EXPECT_EQ(FastString::arrayToHex(ByteArray("\x0A\xFF")), "0aff");
  EXPECT_EQ(FastString::arrayToHex(ByteArray("\x0A\xFF"), true), "0AFF");
  EXPECT_TRUE("\x0A\xFF\x07" == FastString::hexToArray("0aFF7"));
  EXPECT_EQ(FastString::charToHex(5), "05");
  EXPECT_EQ(FastString::hexToChar("fe"), 0xFE);
  EXPECT_THAT([] { FastString::hexToArray("00zz"); },
              testing::ThrowsMessage<std::runtime_error>("stream decode failure"));
}

TEST(ByteArray, editsWithinItsBounds) {
  ByteArray bytes("abcabc");
  EXPECT_TRUE("bc" == bytes.subArray(1, 2) && "bc" == bytes.subArrayRange(4) && bytes.subArray(9).isEmpty());
  bytes.removeAll('b');
  bytes.pushFront('x', 2);
  bytes.pushBack('y');
  EXPECT_TRUE("xxacacy" == bytes);
  bytes.popFront(2);
  bytes.popBack();
  EXPECT_TRUE("acac" == bytes);
  bytes.shrinkToFit();
  bytes.append(bytes.data() + 1, 3);
  EXPECT_TRUE("acaccac" == bytes) << "a source inside the array that grows";
  EXPECT_TRUE("ab" == ByteArray::concat(ByteArray("a"), ByteArray("b")));
  EXPECT_EQ(ByteArray(size_t{3})[2], 0);
  bytes.popFront(99);
  EXPECT_TRUE(bytes == ByteArray());
}

TEST(Base64, roundTripsEveryRemainder) {
  const std::pair<const char*, const char*> texts[] = {
      {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {"\xFB\xFF", "+/8="}};
  for (const auto& [plain, encoded] : texts) {
    EXPECT_EQ(Base64::byteArrayToBase64(ByteArray(plain)), encoded);
    EXPECT_EQ(Base64::base64ToByteArray(encoded).toStdString(), plain);
  }
}

TEST(Base64, skipsWhatIsNotInTheAlphabet) {
  // A lone character at the end yields nothing.
  const std::pair<const char*, const char*> texts[] = {{"SGVs\nbG8=", "Hello"},
                                                       {" S-G_Vs\x80"
                                                        "bG8",
                                                        "Hello"},
                                                       {"Zm9vY", "foo"},
                                                       {"====", ""}};
  for (const auto& [encoded, plain] : texts)
    EXPECT_EQ(Base64::base64ToByteArray(encoded).toStdString(), plain) << encoded;
}

} // namespace
} // namespace qvc
