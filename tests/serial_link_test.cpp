// The link layer without a device: the receive loop driven by a clock of
// the test's own, NMEA framing, and the text helpers no data table covers.
#include <gtest/gtest.h>

#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "core/clock.h"
#include "core/run.h"
#include "link/com.h"
#include "link/receive.h"
#include "link/string.h"
#include "support.h"

namespace {

// A clock that moves only when the program waits; bytes arrive at the
// moments (microseconds) the script says.
struct Script {
  std::vector<std::pair<uint64_t, uint8_t>> arrivals;
  size_t next = 0;
};
uint64_t gNow = 0;
Script* gScript = nullptr;

uint64_t Now() { return gNow; }
uint64_t Half() { return gNow / 2; }  // the processor clock: half the pace
void Waited(uint32_t microseconds) {
  gNow += microseconds;
  for (; gScript->next < gScript->arrivals.size() && gScript->arrivals[gScript->next].first <= gNow; ++gScript->next) {
    WriteComFifo(gScript->arrivals[gScript->next].second);
  }
}

struct Listened {
  int32_t result;
  std::string taken;
  uint64_t endedAt;
};

// `cost`: the microseconds the decoder spends on each byte.
Listened Listen(Script script, Listening listening, int32_t doneAfter, uint64_t cost) {
  test::FreshRunParameters();
  gNow = 0;
  gScript = &script;
  const LinkStandIn standIn{[](const uint8_t*, int32_t) {}, Waited, [](int32_t) {}, [](int32_t) {}};
  const ClockSource clock{Now, Half, SystemClock().utcSeconds};
  UseLinkStandIn(&standIn);
  const ClockSource* previous = UseClockSource(&clock);
  Listened l{0, "", 0};
  l.result = ReceiveUntilSilent(listening, [&](uint8_t byte) {
    l.taken.push_back(static_cast<char>(byte));
    gNow += cost;
    return doneAfter > 0 && static_cast<int32_t>(l.taken.size()) == doneAfter ? 7 : 1;
  });
  l.endedAt = gNow;
  UseClockSource(previous);
  UseLinkStandIn(nullptr);
  return l;
}

TEST(SerialLink, ReceiveUntilSilenceByTheClock) {
  const Script bytes{{{0, 'a'}, {5000, 'b'}, {300000, 'c'}, {900000, 'd'}}};
  const struct {
    const char* label;
    Listening listening;
    int32_t doneAfter;
    uint64_t cost;
    int32_t result;
    const char* taken;
    uint64_t endedAt;
  } cases[] = {
      // Each byte starts the count again: 'd' comes 600 ms after 'c'.
      {"silence of 500 ms", {500000}, 0, 0, 1, "abc", 810000},
      {"silence of 600 ms", {600000}, 0, 0, 1, "abcd", 1510000},
      {"the decoder is done", {500000}, 2, 0, 7, "ab", 10000},
      {"a deadline from the start", {400000, true}, 0, 0, 1, "abc", 400000},
      {"a deadline reached exactly", {300000, true}, 0, 0, 1, "ab", 300000},
      {"a deadline passed while bytes wait", {15000, true}, 0, 10000, 1, "a", 20000},
      {"the processor clock", {500000, false, true}, 0, 0, 1, "abcd", 1910000},
  };
  for (const auto& c : cases) {
    Listened l = Listen(bytes, c.listening, c.doneAfter, c.cost);
    EXPECT_EQ(l.result, c.result) << c.label;
    EXPECT_EQ(l.taken, c.taken) << c.label;
    EXPECT_EQ(l.endedAt, c.endedAt) << c.label;
  }
}

TEST(SerialLink, NmeaSentencesAreFramedWithTheirChecksum) {
  EXPECT_EQ(NmeaChecksum("PFMNME,x", 7), 0x31);
  char out[40];
  EXPECT_EQ(FormatNmeaSentence(out, sizeof out, "PBRWPR,A"), 14);
  EXPECT_STREQ(out, "$PBRWPR,A*78\r\n");
  EXPECT_EQ(FormatNmeaSentence(out, sizeof out, "PFMWPL,A", true), 14);
  EXPECT_STREQ(out, "$PFMWPL,A*7d\r\n");
  // What is framed parses back into its fields.
  int32_t offsets[4];
  EXPECT_EQ(ParseNmeaString(out, offsets, 4), kNmeaTrailingText);
  out[9] = '*';  // the parse ends the text at the star
  out[12] = '\0';
  ASSERT_EQ(ParseNmeaString(out, offsets, 4), 2);
  EXPECT_STREQ(out + offsets[1], "A");
}

// A pseudo-terminal stands in for the device: the line speed the program
// sets, bytes both ways, and the settings found there put back on closing.
// printf is the oracle: halfway cases (k/128 at six decimals, k/8 at two)
// round to even, tiny negatives keep their sign, and values out of reach of
// the exact path still come out whole.
TEST(SerialLink, DecimalsAreWrittenAsPrintfWritesThem) {
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

TEST(SerialLink, TheLogTextGrowsByDoublingAndCutsOverlongLines) {
  TextBuffer text;
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    text.lineLength = std::snprintf(text.line, sizeof text.line, "line %04d with some padding\r\n", i);
    expected += text.line;
    ASSERT_EQ(AddLogTxt(&text), 0);
  }
  EXPECT_EQ(std::string(text.data, static_cast<size_t>(text.length)), expected);
  EXPECT_EQ(text.capacity, 80000);  // 58000 bytes: 10000 doubled three times
  EXPECT_EQ(text.data[text.length], '\0');
  TextBuffer overlong;
  overlong.lineLength = std::snprintf(overlong.line, sizeof overlong.line, "%s", std::string(600, 'x').c_str());
  ASSERT_EQ(AddLogTxt(&overlong), 0);
  EXPECT_EQ(overlong.length, 255);
}

}  // namespace
