// The IGC reader on small hand-made texts: structure, syntax and its messages.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/time.h"
#include "igc/igc.h"
#include "support.h"

namespace {

struct Decoded {
  int32_t result;
  std::string out;
};

// The text goes in a buffer of exactly its length, so that the sanitizer
// sees any read past the end.
Decoded Decode(const std::string& text, char* pilotField = nullptr, int32_t pilotFieldSize = 0) {
  std::vector<uint8_t> bytes(text.begin(), text.end());
  testing::internal::CaptureStdout();
  const int32_t result =
      DecodeIgcBuffer(bytes.data(), static_cast<int32_t>(bytes.size()), pilotField, pilotFieldSize);
  return {result, testing::internal::GetCapturedStdout()};
}

uint32_t Midnight(uint32_t y, uint32_t mo, uint32_t d) {
  const SystemTime t{y, mo, d, 0, 0, 0};
  return ConvertSystemTimeToGpsTime(&t);
}

class IgcReader : public testing::Test {
 protected:
  void SetUp() override { test::FreshRunParameters(); }
  void TearDown() override { test::FreshRunParameters(); }
};

constexpr const char* kFix1 = "B1200004630123N00701500EA0151001523\r\n";
constexpr const char* kFix2 = "B1200014630123S00701500WV-0012-0003\r\n";

TEST_F(IgcReader, MinimalFileFillsEveryField) {
  const Decoded d = Decode(std::string("AXKX 1\r\nHFDTE090724\r\n") + kFix1 + kFix2 + "GABCD\r\nGEF\r\n");
  ASSERT_EQ(d.result, 2) << d.out;
  EXPECT_EQ(d.out, "");
  ASSERT_EQ(tGps.nTrackPoints, 2);
  EXPECT_GE(tGps.nTrackCapacity, 2);
  const TrackPoint& a = tGps.pTrackPoints[0];
  const TrackPoint& b = tGps.pTrackPoints[1];
  EXPECT_EQ(a.dwFlags, 1u);
  EXPECT_EQ(b.dwFlags, 0u);
  EXPECT_EQ(a.dwTime, Midnight(2024, 7, 9) + 12 * 3600);
  EXPECT_EQ(b.dwTime, a.dwTime + 1);
  // Thousandths of minutes x 198.8410785185, half away from zero.
  EXPECT_EQ(a.lLatitude, 554791067);   // 2790123 x 198.84... = 554791066.52
  EXPECT_EQ(a.lLongitude, 83811515);   // 421500 x 198.84... = 83811514.60
  EXPECT_EQ(b.lLatitude, -554791067);  // the same magnitudes, negated
  EXPECT_EQ(b.lLongitude, -83811515);
  EXPECT_EQ(a.lPressureAltitude, 1510);
  EXPECT_EQ(a.lGpsAltitude, 15230);
  EXPECT_EQ(b.lPressureAltitude, -12);
  EXPECT_EQ(b.lGpsAltitude, -30);
}

TEST_F(IgcReader, LineEnds) {
  const std::string body = std::string("AXKX\nHFDTE090724\n") + "B1200004630123N00701500EA0151001523\n";
  EXPECT_EQ(Decode(body).result, 0);
  EXPECT_EQ(tGps.nTrackPoints, 1);
  // Carriage returns alone end no line at all.
  const Decoded crOnly = Decode("AXKX\rHFDTE090724\rB1200004630123N00701500EA0151001523\r");
  EXPECT_EQ(crOnly.result, -1);
  EXPECT_EQ(crOnly.out, "No A-record found\n");
  // A carriage return ends the line's text; what follows it on the line is dropped.
  EXPECT_EQ(Decode(std::string("AXKX\r\r\nHFDTE090724\rjunk\r\n") + kFix1).result, 0);
  EXPECT_EQ(tGps.nTrackPoints, 1);
}

TEST_F(IgcReader, StructuralErrorsPrintTheirMessage) {
  const std::string date = "HFDTE090724\r\n";
  struct Case {
    std::string text;
    const char* message;
  } cases[] = {
      {"", "No A-record found\n"},
      {"LXXX before\r\nCnothing\r\n\r\n", "No A-record found\n"},
      {"AXKX\r\nAXKX\r\n", "Multiple A-records\n"},
      {"AXK\r\n", "Too short A-record\n"},
      {"A\r\n", "Too short A-record\n"},
      {"AX-K\r\n", "Bad IGC manufacturer found in the A-record\n"},
      {"AXK \r\n", "Bad IGC manufacturer found in the A-record\n"},
      {"A\xC3\xA9K\r\n", "Bad IGC manufacturer found in the A-record\n"},
      {"HFDTE090724\r\nAXKX\r\n", "Missing A-record\n"},
      {"HFPLTPILOT:x\r\n", "Missing A-record\n"},
      {"I013638TAS\r\nAXKX\r\n", "Missing A-record\n"},
      {std::string(kFix1) + "AXKX\r\n", "Missing A-record\n"},
      {"GABC\r\nAXKX\r\n", "Missing A-record\n"},
      {"AXKX\r\n" + date + date, "Multiple date lines\n"},
      {"AXKX\r\nHFDTE320199\r\n", "Date error 15 on line 2(HFDTE320199)\n"},
      {"AXKX\r\nHFDTEDATE:1508x6\r\n", "Date error 5 on line 2(HFDTEDATE:1508x6)\n"},
      {"AXKX\r\n" + std::string(kFix1), "Missing date line\n"},
      {"AXKX\r\n" + date + kFix1 + kFix1 + "B2400004630123N00701500EA0151001523\r\n", "Pos. error 2 on line 5\n"},
      {"AXKX\r\n" + date + "LXKX\r\n", "No positions found\n"},
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    const Decoded d = Decode(c.text);
    EXPECT_EQ(d.result, -1) << c.text;
    EXPECT_EQ(d.out, c.message) << c.text;
    EXPECT_EQ(tGps.pTrackPoints, nullptr) << c.text;
    EXPECT_EQ(tGps.nTrackPoints, 0) << c.text;
  }
}

TEST_F(IgcReader, LinesOtherThanAHIBGAreIgnoredBeforeAndAfterTheARecord) {
  const Decoded d = Decode(std::string("LXKX first\r\nCtask\r\n\r\nAXKXabc\r\nEevent\r\nFsat\r\nKk\r\nHFDTE090724\r\n") +
                           "I013638TAS\r\nHFGTYGLIDERTYPE:x\r\n" + kFix1 + "Jj\r\n");
  EXPECT_EQ(d.result, 0) << d.out;
  EXPECT_EQ(tGps.nTrackPoints, 1);
}

TEST_F(IgcReader, MidnightRule) {
  struct Case {
    const char* second;
    uint32_t expectedOffset;  // from the first fix's midnight
  } cases[] = {
      {"235959", 86399},          // same second again: no step back
      {"000001", 86400 + 1},      // over midnight
      {"225959", 86400 + 82799},  // exactly one hour back: taken as a new day
      {"230000", 82800},          // 59 min 59 s back: the same day
      {"235958", 86398},
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    const std::string text = std::string("AXKX\r\nHFDTE311224\r\nB2359594630123N00701500EA0151001523\r\nB") + c.second +
                             "4630123N00701500EA0151001523\r\n";
    ASSERT_EQ(Decode(text).result, 0) << c.second;
    ASSERT_EQ(tGps.nTrackPoints, 2);
    EXPECT_EQ(tGps.pTrackPoints[0].dwTime, Midnight(2024, 12, 31) + 86399);
    EXPECT_EQ(tGps.pTrackPoints[1].dwTime, Midnight(2024, 12, 31) + c.expectedOffset) << c.second;
  }
  // Each crossing adds a day, measured against the previous fix only.
  test::FreshRunParameters();
  std::string text = "AXKX\r\nHFDTE311224\r\n";
  for (const char* t : {"230000", "010000", "230000", "005959"}) text += std::string("B") + t + "4630123N00701500EA0151001523\r\n";
  ASSERT_EQ(Decode(text).result, 0);
  const uint32_t base = Midnight(2024, 12, 31);
  EXPECT_EQ(tGps.pTrackPoints[1].dwTime, base + 86400 + 3600);
  EXPECT_EQ(tGps.pTrackPoints[2].dwTime, base + 86400 + 82800);
  EXPECT_EQ(tGps.pTrackPoints[3].dwTime, base + 2 * 86400 + 3599);
}

TEST_F(IgcReader, LongLinesAreCutTo102Characters) {
  const std::string longDate = "HFDTE090724" + std::string(139, 'x');
  const Decoded d = Decode("AXKX\r\n" + longDate + "\r\n");
  EXPECT_EQ(d.out, "Date error 14 on line 2(" + longDate.substr(0, 102) + ")\n");
  // A fix with a long extension still decodes from its first columns.
  test::FreshRunParameters();
  EXPECT_EQ(Decode("AXKX\r\nHFDTE090724\r\nB1200004630123N00701500EA0151001523" + std::string(200, '7') + "\r\n").result, 0);
  EXPECT_EQ(tGps.nTrackPoints, 1);
}

TEST_F(IgcReader, TheLastLineWithoutLineFeedIsNeverRead) {
  const std::string head = std::string("AXKX\r\nHFDTE090724\r\n") + kFix1;
  Decoded d = Decode(head + "B1200014630123N00701500EA0151001523");
  EXPECT_EQ(d.result, 0);
  EXPECT_EQ(tGps.nTrackPoints, 1);
  d = Decode(head + "G808b66d4d764229");
  EXPECT_EQ(d.result, 0);
  d = Decode(head + "B1200014630123N00701500EA0151001523\r");
  EXPECT_EQ(tGps.nTrackPoints, 1);
  // Even a broken one.
  d = Decode(head + "Bgarbage");
  EXPECT_EQ(d.result, 0);
  EXPECT_EQ(d.out, "");
}

TEST_F(IgcReader, PointArrayStartsAt2000AndDoubles) {
  std::string text = "AXKX\r\nHFDTE090724\r\n";
  char line[64];
  for (int i = 0; i < 4001; ++i) {
    snprintf(line, sizeof line, "B%02d%02d%02d4630123N00701500EA%05d01523\r\n", i / 3600, i / 60 % 60, i % 60, i);
    text += line;
  }
  ASSERT_EQ(Decode(text).result, 0);
  ASSERT_EQ(tGps.nTrackPoints, 4001);
  EXPECT_EQ(tGps.nTrackCapacity, 8000);
  for (int i = 0; i < 4001; ++i) {
    ASSERT_EQ(tGps.pTrackPoints[i].lPressureAltitude, i);
    ASSERT_EQ(tGps.pTrackPoints[i].dwTime, Midnight(2024, 7, 9) + static_cast<uint32_t>(i));
  }
  // A second decoding replaces the first log.
  ASSERT_EQ(Decode(std::string("AXKX\r\nHFDTE090724\r\n") + kFix1).result, 0);
  EXPECT_EQ(tGps.nTrackPoints, 1);
  EXPECT_EQ(tGps.nTrackCapacity, 2000);
}

TEST_F(IgcReader, PilotFieldTakesTheWholePilotLineWhenMarked) {
  const std::string head = "AXKX\r\nHFDTE090724\r\n";
  struct Case {
    std::string pilotLine;
    char marker;
    std::string expected;
  } cases[] = {
      {"HFPLTPILOT:  Jane   Doe  ", 1, "HFPLTPILOT: Jane Doe"},
      {"HFPLTPILOT:Michael Hollauf ", 1, "HFPLTPILOT:Michael Hollauf"},
      {"HFPLTPILOT:" + std::string(60, 'n'), 1, "HFPLTPILOT:" + std::string(39, 'n')},  // 50 kept
      {"HFPLTPILOTINCHARGE:Jane", 1, "\x01keep"},  // another label
      {"HFPLTPILOT:Jane", 'X', "Xkeep"},           // not marked
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    char field[51] = {};
    std::strcpy(field, "?keep");
    field[0] = c.marker;
    const Decoded d = Decode(head + c.pilotLine + "\r\n" + kFix1, field, 50);
    EXPECT_EQ(d.result, 0) << d.out;
    EXPECT_EQ(std::string(field), c.expected) << c.pilotLine;
  }
  // The copy clears the marker, so the first pilot line wins.
  char field[51] = "\x01";
  ASSERT_EQ(Decode(head + "HFPLTPILOT:First\r\nHFPLTPILOT:Second\r\n" + kFix1, field, 50).result, 0);
  EXPECT_STREQ(field, "HFPLTPILOT:First");
  // Without a field the line is simply read past.
  EXPECT_EQ(Decode(head + "HFPLTPILOT:Jane\r\n" + kFix1).result, 0);
}

TEST(DecodeDateSentence, FormsAndErrorCodes) {
  struct Case {
    const char* text;
    int result;
    uint32_t y, m, d;
  } cases[] = {
      {"DATE:010100", 0, 2000, 1, 1},     {"DATE:150826,01", 0, 2026, 8, 15},
      {"DATE:   311299", 0, 2099, 12, 31}, {"DATE:310224,", 0, 2024, 2, 31},  // day not checked against the month
      {"150826", 0, 2026, 8, 15},          {"DATE:x50826", -1, 0, 0, 0},
      {"DATE:1x0826", -2, 0, 0, 0},        {"DATE:15x826", -3, 0, 0, 0},
      {"DATE:150x26", -4, 0, 0, 0},        {"DATE:1508x6", -5, 0, 0, 0},
      {"DATE:15082", -6, 0, 0, 0},         {"DATE:150826 ", -7, 0, 0, 0},
      {"DATE:150826:01", -7, 0, 0, 0},     {"DATE:1508267", -7, 0, 0, 0},
      {"x50826", -8, 0, 0, 0},             {"1x0826", -9, 0, 0, 0},
      {"15x826", -10, 0, 0, 0},            {"150x26", -11, 0, 0, 0},
      {"1508x6", -12, 0, 0, 0},            {"15082", -13, 0, 0, 0},
      {"150826,01", -14, 0, 0, 0},         {"150826 ", -14, 0, 0, 0},
      {"", -8, 0, 0, 0},                   {":150826", -8, 0, 0, 0},
      {"001299", -15, 0, 0, 0},            {"DATE:320199", -15, 0, 0, 0},
      {"010099", -16, 0, 0, 0},            {"DATE:011399", -16, 0, 0, 0},
  };
  for (const Case& c : cases) {
    uint32_t gps = 77;
    EXPECT_EQ(DecodeDateSentence(c.text, &gps), c.result) << c.text;
    if (c.result == 0) {
      EXPECT_EQ(gps, Midnight(c.y, c.m, c.d)) << c.text;
    } else {
      EXPECT_EQ(gps, 77u) << c.text;
    }
  }
}

TEST(DecodePosSentence, ColumnsAndErrorCodes) {
  const std::string good = "1234564630123N00701500EA0151001523";
  struct Case {
    std::string text;
    int result;
  } cases[] = {
      {good, 0},
      {"x234564630123N00701500EA0151001523", -1},
      {"2434564630123N00701500EA0151001523", -2},
      {"12x4564630123N00701500EA0151001523", -3},
      {"1260564630123N00701500EA0151001523", -4},
      {"12345x4630123N00701500EA0151001523", -5},
      {"1234604630123N00701500EA0151001523", -6},
      {"123456x630123N00701500EA0151001523", -7},
      {"1234569030123N00701500EA0151001523", -8},
      {"123456463012xN00701500EA0151001523", -9},
      {"1234564660001N00701500EA0151001523", -10},
      {"1234564630123n00701500EA0151001523", -11},
      {"1234564630123N0x701500EA0151001523", -12},
      {"1234564630123N18001500EA0151001523", -13},
      {"1234564630123N007015 0EA0151001523", -14},
      {"1234564630123N00760001EA0151001523", -15},
      {"1234564630123N00701500XA0151001523", -16},
      {"1234564630123N00701500E", -17},
      {"1234564630123N00701500EA", -18},
      {"1234564630123N00701500EA01510", -18},
      {"1234564630123N00701500EA0151001 23", -18},
      {"1234564630123N00701500EA--15101523", -18},
      {"1234564630123N00701500EA 151001523", -18},
      {"12345", -5},
      {"", -1},
  };
  for (const Case& c : cases) {
    TrackPoint p{9, 9, 9, 9, 9, 9};
    EXPECT_EQ(DecodePosSentence(c.text.c_str(), &p), c.result) << c.text;
    EXPECT_EQ(p.dwFlags, 9u) << c.text;
    if (c.result != 0) {
      EXPECT_EQ(p.dwTime, 9u) << c.text;
    }
  }
}

TEST(DecodePosSentence, LimitsKeptAsTheyAre) {
  TrackPoint p{};
  // 60.000 minutes pass; so does any validity letter and extension data.
  ASSERT_EQ(DecodePosSentence("2359598960000S17960000W?-9999-9999EXTRA", &p), 0);
  EXPECT_EQ(p.dwTime, 86399u);
  EXPECT_EQ(p.lLatitude, -1073741824);  // 90 degrees south, reached through 89 degrees 60 minutes
  EXPECT_EQ(p.lLongitude, INT32_MIN);   // 180 degrees is -2^31 arcs
  EXPECT_EQ(p.lPressureAltitude, -9999);
  EXPECT_EQ(p.lGpsAltitude, -99990);
  ASSERT_EQ(DecodePosSentence("0000000000000N00000000EA9999999999", &p), 0);
  EXPECT_EQ(p.lLatitude, 0);
  EXPECT_EQ(p.lPressureAltitude, 99999);
  EXPECT_EQ(p.lGpsAltitude, 999990);
  // Fractions below one half round toward zero.
  ASSERT_EQ(DecodePosSentence("0000004630124S00701501WA0000000000", &p), 0);
  EXPECT_EQ(p.lLatitude, -554791265);  // 2790124 x 198.84... = 554791265.36
  EXPECT_EQ(p.lLongitude, -83811713);  // 421501 x 198.84... = 83811713.44
}

TEST_F(IgcReader, GarbageFailsCleanly) {
  std::mt19937 rng(4242);
  static const char kAlphabet[] = "ABHIGLC0123456789NSEW-:,DATE \r\n\n\n\x00\xFF";
  const std::string alphabet(kAlphabet, sizeof kAlphabet - 1);
  for (int round = 0; round < 600; ++round) {
    std::string text;
    if (round % 3 == 2) {
      // A valid text with a few bytes replaced, to reach deep into the records.
      text = std::string("AXKX\r\nHFDTEDATE:090724,01\r\n") + kFix1 + kFix2 + kFix1 + "GAB\r\n";
      for (int k = 0; k < 3; ++k) text[rng() % text.size()] = alphabet[rng() % alphabet.size()];
    } else {
      if (round % 3 == 0) text = "AXKX\r\nHFDTE090724\r\n";
      const size_t size = rng() % 400;
      for (size_t i = 0; i < size; ++i) {
        text += round % 2 == 0 ? static_cast<char>(rng() % 256) : alphabet[rng() % alphabet.size()];
      }
    }
    const Decoded d = Decode(text);
    if (d.result < 0) {
      EXPECT_EQ(tGps.pTrackPoints, nullptr);
      EXPECT_FALSE(d.out.empty());
    } else {
      EXPECT_GT(tGps.nTrackPoints, 0);
    }
  }
}

}  // namespace
