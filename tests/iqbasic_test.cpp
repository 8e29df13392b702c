// IQ Basic: the answer and list decoders without a port, the download
// against the simulated instrument in-process, and through the command line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/time.h"
#include "family_support.h"
#include "saved_support.h"
#include "serial/iqbasic.h"
#include "sim/iqbasic.h"
#include "sim_support.h"

namespace {

using test::Flight;
using test::Shown;

TEST(IqBasicDecode, PAdataValuesAreLittleEndianHexPairs) {
  struct Case {
    const char* text;
    int32_t result;
    uint32_t value;
  } cases[] = {
      {"0A0B", 0, 0x0B0A},       {"0a0b", 0, 0x0B0A},         {"  411D", 0, 7489},
      {"", 0, 0},                {"   ", 0, 0},               {"01020304", 0, 0x04030201},
      {"FFFFFFFF", 0, 0xFFFFFFFF}, {"0102030405", 0, 0x04030201},  // a fifth byte is checked, not kept
      {"0A0", -1, 99},           {"0", -1, 99},               {"0G", -1, 99},
      {"0A 0B", -1, 99},         {"0A0B ", -1, 99},           {"x1", -1, 99},
  };
  for (const Case& c : cases) {
    uint32_t value = 99;
    EXPECT_EQ(iqbasic::DecodePAdata(c.text, &value), c.result) << c.text;
    EXPECT_EQ(value, c.value) << c.text;
  }
}

TEST(IqBasicDecode, AnAnswerLineEndsItsTextAtCrAndItselfAtLf) {
  char text[iqbasic::kAnswerSize];
  iqbasic::LineBuilder line;
  iqbasic::StartLine(&line, text, iqbasic::kAnswerSize - 1);
  std::string bytes = "RPA_00_0A0B\rjunk after the CR\n";
  std::vector<bool> complete;
  for (char c : bytes) complete.push_back(iqbasic::TakeLineByte(&line, static_cast<uint8_t>(c)));
  EXPECT_STREQ(text, "RPA_00_0A0B");
  EXPECT_EQ(std::count(complete.begin(), complete.end(), true), 1);
  EXPECT_TRUE(complete.back());

  iqbasic::StartLine(&line, text, iqbasic::kAnswerSize - 1);
  for (int i = 0; i < 250; ++i) iqbasic::TakeLineByte(&line, static_cast<uint8_t>('a' + i % 26));
  EXPECT_TRUE(iqbasic::TakeLineByte(&line, '\n'));
  EXPECT_EQ(std::strlen(text), 199u);
}

TEST(IqBasicDecode, ProductTextNamesTheModelVersionAndSerial) {
  char text[81];
  iqbasic::FormatProduct(1, 1234, 2826, text, sizeof text);
  EXPECT_STREQ(text, "IQ-BASIC, SW 1.2.34, S/N 2826");
  iqbasic::FormatProduct(0, 1307, 7489, text, sizeof text);
  EXPECT_STREQ(text, "6015, SW 1.3.07, S/N 7489");
  iqbasic::FormatProduct(7, 20005, 0, text, sizeof text);
  EXPECT_STREQ(text, "IQ-BASIC, SW 20.0.05, S/N 0");
}

TEST(IqBasicDecode, ListLinesAreRenumberedFromOneInTheirOwnWidth) {
  const std::string longTail(47, 'x');
  struct Case {
    std::string line;
    std::string shown;
  } cases[] = {
      {"0;04.10.23;14:30:07", "1;04.10.23;14:30:07"},
      {"12;x", "13;x"},
      {"  3 ;x", "   4;x"},
      {"5", "6"},
      {"x;y", "x;y"},
      {"1 2;x", "1 2;x"},
      {"-1;x", "-1;x"},
      {"   ;x", "   ;x"},
      {";x", ";x"},
      // A wider number pushes the rest along, within the line's 49 characters.
      {"9;x", "10;x"},
      {"9;" + longTail, "10;" + longTail.substr(0, 46)},
  };
  for (const Case& c : cases) {
    char line[iqbasic::kListLineSize];
    std::snprintf(line, sizeof line, "%s", c.line.c_str());
    iqbasic::RenumberListLine(line);
    EXPECT_EQ(std::string(line), c.shown) << c.line;
  }
}

TEST(IqBasicDecode, AFlightMatchesTheLineWhoseFirstFieldIsItsNumber) {
  EXPECT_TRUE(iqbasic::MatchesFlight("13;04.10.23", 13));
  EXPECT_TRUE(iqbasic::MatchesFlight(" 13 ;04.10.23", 13));
  EXPECT_TRUE(iqbasic::MatchesFlight("7", 7));
  EXPECT_FALSE(iqbasic::MatchesFlight("13;04.10.23", 1));
  EXPECT_FALSE(iqbasic::MatchesFlight("x;04.10.23", 1));
  EXPECT_FALSE(iqbasic::MatchesFlight("1x;04.10.23", 1));

  char command[16];
  iqbasic::FormatFlightCommand(1, command);
  EXPECT_STREQ(command, "ACT_21_00\r\n");
  iqbasic::FormatFlightCommand(16, command);
  EXPECT_STREQ(command, "ACT_21_0F\r\n");
  iqbasic::FormatFlightCommand(99, command);
  EXPECT_STREQ(command, "ACT_21_62\r\n");
}

TEST(IqBasicDownload, TheChosenFlightArrivesAsItCameAndIsDecoded) {
  test::FreshRunParameters();
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  const std::vector<TrackPoint> expected = test::DecodedFlight(iq);
  ASSERT_EQ(expected.size(), 194u);
  test::SimRig rig("iqbasic", {.flights = {sky, iq}});
  rig.Connect(kGpsIqBasic);
  tGps.dwCommand = kCommandDownloadTrack;
  tGps.nFlightNumber = 2;
  tGps.szPilotName[0] = 1;  // take the name from the flight
  SystemTime now;
  GetDownloadTime(&now);
  uint32_t before = ConvertSystemTimeToGpsTime(&now);

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadIqBasicTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(Shown(out), test::Opened(tGps.szComPort) + "Product: IQ-BASIC, SW 1.3.07, S/N 7489\nTrack list:\n" +
                            "1;06.03.21;10:34:11;00:03:40\n2;04.10.23;14:30:07;00:27:05\n" +
                            "Match in flight list for flight 2\nBytes: 10189\nExiting COM thread\n");
  EXPECT_TRUE(out.find("Bytes: 0") != std::string::npos);
  EXPECT_EQ(rig.instrument<sim::iqbasic::IqBasicInstrument>().commands(),
            (std::vector<std::string>{"RPA_00", "RPA_01", "RPA_02", "ACT_20_  ", "ACT_21_01"}));
  EXPECT_EQ(test::RawLog(tGps.nRawLogLength), iq);
  EXPECT_TRUE(test::SameTrack(expected));
  EXPECT_STREQ(tGps.szProduct, "IQ-BASIC, SW 1.3.07, S/N 7489");
  EXPECT_STREQ(tGps.szPilotName, "HFPLTPILOT:Michael Hollauf");
  EXPECT_EQ(tGps.bSignature, 0);
  EXPECT_EQ(tGps.bUtc, 1);
  EXPECT_EQ(tGps.bPressureAltitude, 1);
  EXPECT_EQ(tGps.dwFirstPointTime, expected[0].dwTime);
  EXPECT_GE(tGps.dwDownloadTime, before);
  EXPECT_LE(tGps.dwDownloadTime, before + 60);
}

TEST(IqBasicDownload, APilotNameOfTheUserStaysAsItIs) {
  test::FreshRunParameters();
  const std::string iq = Flight("pg-iqbasic-8s.igc");
  test::SimRig rig("iqbasic", {.flights = {iq}});
  rig.Connect(kGpsIqBasic);
  tGps.nFlightNumber = 1;
  std::strcpy(tGps.szPilotName, "Jane Doe");
  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadIqBasicTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();
  ASSERT_EQ(result, 0) << out;
  EXPECT_STREQ(tGps.szPilotName, "Jane Doe");
  EXPECT_EQ(tGps.nTrackPoints, 194);
}

class IqBasicCommandLine : public testing::Test {
 protected:
  void SetUp() override {
    std::string problem = test::PortLinkProblem();
    if (!problem.empty()) GTEST_SKIP() << "cannot link /dev/cu.<name> to a simulator here: " << problem;
  }
};

TEST_F(IqBasicCommandLine, SelectionsAnswersAndFaults) {
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  const sim::InstrumentSettings two = {.flights = {iq, sky}};
  auto cut = [](int reply, int64_t at) { return sim::LineFault{sim::FaultKind::kCut, reply, at}; };
  auto flip = [](int reply, int64_t at) { return sim::LineFault{sim::FaultKind::kFlip, reply, at}; };
  std::vector<test::Scenario> runs = {
      {.label = "-f2", .family = "iqbasic", .settings = two, .args = {"-f2", "-l"}},
      {.label = "typed", .family = "iqbasic", .settings = two, .args = {"-l"}, .input = "1\n"},
      {.label = "list only", .family = "iqbasic", .settings = two, .args = {"-f0", "-l"}},
      {.label = "-f100", .family = "iqbasic", .settings = two, .args = {"-f100", "-l"}},
      {.label = "typed 0", .family = "iqbasic", .settings = two, .args = {"-l"}, .input = "0\n"},
      {.label = "typed text", .family = "iqbasic", .settings = two, .args = {"-l"}, .input = "first\n"},
      {.label = "no such line", .family = "iqbasic", .settings = two, .args = {"-f3", "-l"}},
      {.label = "empty list", .family = "iqbasic", .settings = {}, .args = {"-f1", "-l"}},
      {.label = "6015", .family = "iqbasic",
       .settings = {.model = "6015", .firmware = "1.2.34", .serial = "2826", .flights = {sky}},
       .args = {"-f1", "-l"}},
      {.label = "odd serial", .family = "iqbasic", .settings = {.flights = {iq}, .faults = {"odd-serial"}},
       .args = {"-f1", "-l"}},
      {.label = "odd type", .family = "iqbasic", .settings = {.flights = {iq}, .faults = {"odd-type"}},
       .args = {"-f1", "-l"}},
      {.label = "odd version", .family = "iqbasic", .settings = {.flights = {iq}, .faults = {"odd-version"}},
       .args = {"-f1", "-l"}},
      {.label = "mute", .family = "iqbasic", .settings = two, .faults = {cut(1, 0)}, .args = {"-f1", "-l"}},
      {.label = "wrong type prefix", .family = "iqbasic", .settings = two, .faults = {flip(2, 4)},
       .args = {"-f1", "-l"}},
      {.label = "wrong version prefix", .family = "iqbasic", .settings = two, .faults = {flip(3, 5)},
       .args = {"-f1", "-l"}},
      {.label = "no version", .family = "iqbasic", .settings = two, .faults = {cut(3, 0)}, .args = {"-f1", "-l"}},
      {.label = "silent flight", .family = "iqbasic", .settings = two, .faults = {cut(5, 0)},
       .args = {"-f1", "-l"}},
      {.label = "not a flight", .family = "iqbasic", .settings = {.flights = {"hello\r\n"}}, .args = {"-f1", "-l"}},
  };
  test::RunScenarios(&runs);

  const std::string product = "Product: IQ-BASIC, SW 1.3.07, S/N 7489\n";
  const std::string list = "Track list:\n1;04.10.23;14:30:07;00:27:05\n2;06.03.21;10:34:11;00:03:40\n";
  // The instrument's own text is saved as it came, unsigned.
  const std::string iqBase = "2023-10-04_14-30", skyBase = "2021-03-06_10-34";
  const std::string savedIq = test::SavedOutput(iqBase, iq.size(), false);
  const std::string savedSky = test::SavedOutput(skyBase, sky.size(), false);
  const std::vector<std::string> all = {"RPA_00", "RPA_01", "RPA_02", "ACT_20_  "};
  auto with = [&all](const std::string& flight) {
    std::vector<std::string> commands = all;
    commands.push_back(flight);
    return commands;
  };
  struct Expected {
    std::string out;  // between the port's greeting and its farewell
    std::vector<std::string> commands;
    std::string after = "";
  } expected[] = {
      {product + list + "Match in flight list for flight 2\nBytes: 8689\n", with("ACT_21_01"), savedSky},
      {product + list + "Select: Match in flight list for flight 1\nBytes: 10189\n", with("ACT_21_00"), savedIq},
      {product + list, all},
      {product + list + "Flight number out of range\n", all},
      {product + list + "Select: Flight number out of range\n", all},
      {product + list + "Select: No flight number found\n", all},
      {product + list + "No match in flight list for selected flight number\n", all},
      {product + "Track list:\nNo entry in the flightlist found\n", all},
      {"Product: 6015, SW 1.2.34, S/N 2826\nTrack list:\n1;06.03.21;10:34:11;00:03:40\n"
       "Match in flight list for flight 1\nBytes: 8689\n",
       with("ACT_21_00"), savedSky},
      {"Product: Bad PAdata response (serial number)\n", {"RPA_00"}},
      {"Product: Bad PAdata response (device type format error)\n", {"RPA_00", "RPA_01"}},
      {"Product: Bad PAdata response (software version format error)\n", {"RPA_00", "RPA_01", "RPA_02"}},
      {"Product: Bad/missing PAdata response (serial number)\n", {"RPA_00"}},
      {"Product: Bad PAdata response (device type)\n", {"RPA_00", "RPA_01"}},
      {"Product: Bad PAdata response (software version)\n", {"RPA_00", "RPA_01", "RPA_02"}},
      {"Product: Bad/missing PAdata response (software version)\n", {"RPA_00", "RPA_01", "RPA_02"}},
      {product + list + "Match in flight list for flight 1\nBytes: 0\n", with("ACT_21_00")},
      {product + "Track list:\n1;00.00.00;00:00:00;00:00:00\nMatch in flight list for flight 1\nBytes: 7\n"
                 "No A-record found\n",
       with("ACT_21_00")},
  };
  ASSERT_EQ(std::size(expected), runs.size());
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    EXPECT_EQ(s.result.status, 0) << s.label;
    EXPECT_EQ(Shown(s.result.out), test::Opened("/dev/cu." + s.port) + expected[i].out + "Exiting COM thread\n" +
                                       expected[i].after)
        << s.label;
    EXPECT_EQ(s.commands, expected[i].commands) << s.label;
    EXPECT_EQ(s.files.size(), expected[i].after.empty() ? 0u : 2u) << s.label;
  }
  test::ExpectSavedFlight(runs[0], skyBase, sky, 221, false, "IQ-BASIC, SW 1.3.07, S/N 7489");
  test::ExpectSavedFlight(runs[1], iqBase, iq, 194, false, "IQ-BASIC, SW 1.3.07, S/N 7489");
  test::ExpectSavedFlight(runs[8], skyBase, sky, 221, false, "6015, SW 1.2.34, S/N 2826");
}

TEST(FamiliesCommandLineNoPort, EachFamilyReportsAMissingPort) {
  test::TempDir dir;
  for (const char* type : {"-giq", "-gas", "-gm"}) {
    test::RunResult r = test::RunKestrix({type, "-cu.kestrix-none", "-f1", "-l"}, dir.path());
    EXPECT_EQ(r.out, "Could not open COM port /dev/cu.kestrix-none\n") << type;
    EXPECT_EQ(r.status, 0) << type;
  }
}

}  // namespace
