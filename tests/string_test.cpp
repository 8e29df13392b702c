// Text codecs: strictness, exact results, outputs untouched on failure.
#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "link/string.h"

namespace {

int Parse(std::string sentence, int32_t* offsets, int maximum, std::string* fields = nullptr) {
  std::vector<char> text(sentence.begin(), sentence.end());
  text.push_back('\0');
  int n = ParseNmeaString(text.data(), offsets, maximum);
  if (fields != nullptr) {
    fields->clear();
    for (int i = 0; i < n; ++i) *fields += std::string(text.data() + offsets[i]) + "|";
  }
  return n;
}

std::string WithChecksum(const std::string& body) {
  unsigned sum = 0;
  for (char c : body) sum ^= static_cast<unsigned char>(c);
  char tail[4];
  std::snprintf(tail, sizeof tail, "%02X", sum);
  return "$" + body + "*" + tail;
}

TEST(ParseNmeaString, SplitsFieldsAndChecksTheSum) {
  int32_t offsets[8];
  std::string fields;
  EXPECT_EQ(Parse(WithChecksum("GPRMC,1,2"), offsets, 8, &fields), 3);
  EXPECT_EQ(fields, "$GPRMC|1|2|");
  EXPECT_EQ(offsets[1], 7);
  EXPECT_EQ(Parse(WithChecksum("GPRMC,1,2"), offsets, 2, &fields), 2);
  EXPECT_EQ(fields, "$GPRMC|1|");
  EXPECT_EQ(Parse(WithChecksum("P,,"), offsets, 8, &fields), 3);
  EXPECT_EQ(fields, "$P|||");

  std::string lower = WithChecksum("PFMSNP,x");
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  lower[0] = '$';
  EXPECT_GT(Parse(lower, offsets, 8), 0) << lower;

  EXPECT_EQ(Parse("$A*00\r\n", offsets, 8), kNmeaTrailingText);
  EXPECT_EQ(Parse("$A", offsets, 8), kNmeaNoStar);
  EXPECT_EQ(Parse("$A*4g", offsets, 8), kNmeaBadChecksumDigit);
  EXPECT_EQ(Parse("$A*4", offsets, 8), kNmeaBadChecksumDigit);
  EXPECT_EQ(Parse("A*41", offsets, 8), kNmeaNoDollar);
  EXPECT_EQ(Parse("$A*40", offsets, 8), kNmeaChecksumMismatch);
  EXPECT_EQ(Parse("$A*41", offsets, 8), 1);
}

TEST(DecodeNumbers, UnsignedAndSignedIntegers) {
  uint32_t u = 7;
  EXPECT_EQ(DecodeUintString("  42 ", &u), 0);
  EXPECT_EQ(u, 42u);
  EXPECT_EQ(DecodeUintString("", &u), 0);
  EXPECT_EQ(u, 0u);
  EXPECT_EQ(DecodeUintString("2147483649", &u), 0);
  EXPECT_EQ(u, 2147483649u);
  EXPECT_EQ(DecodeUintString("2147483649", &u), 0);
  u = 7;
  for (const char* bad : {"4 2", "21474836490", "-1", "1x", "0x10"}) {
    EXPECT_EQ(DecodeUintString(bad, &u), -1) << bad;
    EXPECT_EQ(u, 7u) << bad;
  }
  int32_t i = 9;
  EXPECT_EQ(DecodeIntegerString("- 5", &i), 0);
  EXPECT_EQ(i, -5);
  EXPECT_EQ(DecodeIntegerString(" +17 ", &i), 0);
  EXPECT_EQ(i, 17);
  EXPECT_EQ(DecodeIntegerString("-", &i), 0);
  EXPECT_EQ(i, 0);
  i = 9;
  for (const char* bad : {"--5", "5-", "1 2", "99999999999"}) {
    EXPECT_EQ(DecodeIntegerString(bad, &i), -1) << bad;
    EXPECT_EQ(i, 9) << bad;
  }
}

TEST(DecodeNumbers, HexWrapsAndStopsAtABlank) {
  uint32_t v = 1;
  EXPECT_EQ(DecodeHexString(" 1aF", &v), 0);
  EXPECT_EQ(v, 0x1afu);
  EXPECT_EQ(DecodeHexString("123456789", &v), 0);
  EXPECT_EQ(v, 0x23456789u);
  EXPECT_EQ(DecodeHexString("FF junk", &v), 0);
  EXPECT_EQ(v, 0xffu);
  EXPECT_EQ(DecodeHexString("", &v), 0);
  EXPECT_EQ(v, 0u);
  v = 5;
  EXPECT_EQ(DecodeHexString("1G", &v), -1);
  EXPECT_EQ(v, 5u);
}

TEST(DecodeNumbers, Decimals) {
  double d = 3.0;
  EXPECT_EQ(DecodeDecimalString("-1,5", &d), 0);
  EXPECT_DOUBLE_EQ(d, -1.5);
  EXPECT_EQ(DecodeDecimalString(" + 12.25 ", &d), 0);
  EXPECT_DOUBLE_EQ(d, 12.25);
  EXPECT_EQ(DecodeDecimalString("7.", &d), 0);
  EXPECT_DOUBLE_EQ(d, 7.0);
  d = 3.0;
  for (const char* bad : {"", "  ", "+.5", ".5", "1.2.3", "1 2", "-"}) {
    EXPECT_EQ(DecodeDecimalString(bad, &d), -1) << bad;
    EXPECT_EQ(d, 3.0) << bad;
  }
}

TEST(DecodeDates, CalendarRules) {
  uint32_t y = 1, m = 1, d = 1;
  EXPECT_EQ(DecodeDateString2("29.02.24", &y, &m, &d), 0);
  EXPECT_EQ(y, 24u);
  EXPECT_EQ(m, 2u);
  EXPECT_EQ(d, 29u);
  EXPECT_EQ(DecodeDateString2("31.12.99", &y, &m, &d), 0);
  EXPECT_EQ(y, 99u);
  y = m = d = 1;
  for (const char* bad : {"29.02.23", "30.02.24", "31.04.24", "31.06.24", "31.09.24", "31.11.24",
                          "1.02.24", "00.01.24", "01.13.24", "01.00.24", "01-01-24", "01.01.24 ",
                          "01.01.2"}) {
    EXPECT_EQ(DecodeDateString2(bad, &y, &m, &d), -1) << bad;
  }
  EXPECT_EQ(y + m + d, 3u);
}

TEST(DecodeTimes, RangesAndSeparators) {
  uint32_t h = 1, m = 1, s = 1;
  EXPECT_EQ(DecodeTimeString("23:59:59", &h, &m, &s, ':'), 0);
  EXPECT_EQ(h * 3600 + m * 60 + s, 86399u);
  EXPECT_EQ(DecodeTimeString(" 7 : 5 : 3 ", &h, &m, &s, ':'), 0);
  EXPECT_EQ(h * 3600 + m * 60 + s, 7u * 3600 + 5 * 60 + 3);
  EXPECT_EQ(DecodeTimeString("12.30.00", &h, &m, &s, '.'), 0);
  EXPECT_EQ(h, 12u);
  h = m = s = 1;
  for (const char* bad : {"24:00:00", "23:60:00", "23:00:60", "12:30", "12:30:00:00", "12-30-00",
                          ":30:00", "12:30:00x", "0024:00:00"}) {
    EXPECT_EQ(DecodeTimeString(bad, &h, &m, &s, ':'), -1) << bad;
  }
  EXPECT_EQ(h + m + s, 3u);
}

TEST(DecodeWptPos, DegreesMinutesSeconds) {
  double v = 0;
  const char* text = "N 45 30 30.5 E 6";
  const char* end = DecodeWptPosString(text, 1, &v);
  ASSERT_NE(end, nullptr);
  EXPECT_NEAR(v, 45.0 + (30.0 + 30.5 / 60.0) / 60.0, 1e-12);
  EXPECT_STREQ(end, " E 6");
  EXPECT_NE(DecodeWptPosString("S 45.5", 1, &v), nullptr);
  EXPECT_DOUBLE_EQ(v, -45.5);
  EXPECT_NE(DecodeWptPosString("w 7 30,5", 0, &v), nullptr);
  EXPECT_NEAR(v, -(7.0 + 30.5 / 60.0), 1e-12);
  EXPECT_NE(DecodeWptPosString("N 89.99999", 1, &v), nullptr);
  EXPECT_NE(DecodeWptPosString("E 179 59 59,99", 0, &v), nullptr);
  v = 1.25;
  for (const char* bad : {"E 180", "N 90", "X 1", "N", "E 10 60", "E 10 5 60", "S -5", "W x"}) {
    bool latitude = bad[0] == 'N' || bad[0] == 'S';
    EXPECT_EQ(DecodeWptPosString(bad, latitude, &v), nullptr) << bad;
  }
  EXPECT_EQ(DecodeWptPosString("E 10", 1, &v), nullptr);  // wrong hemisphere letter
  EXPECT_EQ(v, 1.25);
}

TEST(EncodeDegrees, LayoutAndSigns) {
  char out[40];
  EXPECT_EQ(EncodeDegreesString(out, -1, 0), 15);
  EXPECT_STREQ(out, "W 000  00  00.01");
  EXPECT_EQ(EncodeDegreesString(out, 45 * 360000 + 30 * 6000 + 30 * 100 + 50, 1), 14);
  EXPECT_STREQ(out, "N 45  30  30.50");
  EXPECT_EQ(EncodeDegreesString(out, 0, 1), 14);
  EXPECT_STREQ(out, "N 00  00  00.00");
  EXPECT_EQ(EncodeDegreesString(out, INT32_MIN, 0), 16);
  EXPECT_STREQ(out, "W 5965  13  56.48");
}

// printf is the oracle: halfway cases (k/128 at six decimals, k/8 at two)
// round to even, tiny negatives keep their sign, and values out of reach of
// the exact path still come out whole.
TEST(EncodeDecimal, WritesWhatPrintfWrites) {
  std::vector<double> values = {0.0, -0.0, 1e-9, -1e-9, 5e-7, -5e-7, 0.125, -0.375, 2.5, 7.0078125,
                                179.9999995, -180.0, 999999999.9999999, 1e9, -1e12, 1e300, 5e-324,
                                std::numeric_limits<double>::infinity(), std::numeric_limits<double>::quiet_NaN()};
  std::mt19937_64 random(11);
  for (int k = 0; k < 20000; ++k) {
    values.push_back(static_cast<int32_t>(random()) * 1.4629180792671596e-9 * 57.29577951308);
    values.push_back(static_cast<int32_t>(random() % 2000000) / 128.0);
  }
  for (double value : values) {
    for (int decimals : {0, 1, 2, 6, 9}) {
      char expected[400], actual[400];
      const int length = std::snprintf(expected, sizeof expected, "%.*f", decimals, value);
      ASSERT_EQ(EncodeDecimalString(actual, sizeof actual, value, decimals), length) << expected;
      ASSERT_STREQ(actual, expected);
    }
  }
}

TEST(Compress, BlanksFoldAndXmlWhitespaceBecomesBlanks) {
  char a[] = "  a   b  ";
  EXPECT_EQ(CompressString(a), 3);
  EXPECT_STREQ(a, "a b");
  char b[] = "a\t\tb";
  EXPECT_EQ(CompressString(b), 4);  // only the blank counts
  char c[] = " \r\nName\t of\r\n place \n";
  EXPECT_EQ(CompressXmlString(c), 13);
  EXPECT_STREQ(c, "Name of place");
  EXPECT_EQ(CompressXmlString(nullptr), 0);
  char d[] = "   ";
  EXPECT_EQ(CompressString(d), 0);
}

TEST(AddLogTxt, GrowsByDoublingAndKeepsEveryPiece) {
  TextBuffer text;
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    text.lineLength = std::snprintf(text.line, sizeof text.line, "line %04d with some padding\r\n", i);
    expected += text.line;
    ASSERT_EQ(AddLogTxt(&text), 0);
  }
  EXPECT_EQ(text.length, static_cast<int32_t>(expected.size()));
  EXPECT_EQ(std::string(text.data, static_cast<size_t>(text.length)), expected);
  EXPECT_EQ(text.capacity, 80000);  // 58000 bytes: 10000 doubled three times
  EXPECT_EQ(text.data[text.length], '\0');
}

TEST(AddLogTxt, AnOverlongFormattingResultNeverReadsPastTheLine) {
  TextBuffer text;
  std::string big(600, 'x');
  text.lineLength = std::snprintf(text.line, sizeof text.line, "%s", big.c_str());
  ASSERT_EQ(AddLogTxt(&text), 0);
  EXPECT_EQ(text.length, 255);
}

}  // namespace
