// MLR: the identification and frame decoders without a port, the download
// against the simulated instrument in-process (with the processor clock
// replaced where a test waits for a time-out), and through the command line.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "core/clock.h"
#include "core/console.h"
#include "core/run.h"
#include "geo/time.h"
#include "family_support.h"
#include "saved_support.h"
#include "serial/mlr.h"
#include "sim/mlr.h"
#include "sim_support.h"

namespace {

using test::Flight;
using test::ProgressText;

const std::string kHead = "$PMLR,IDGPS,01,";

// "$" body "*" checksum CR LF, the checksum in upper or lower case.
std::string Sentence(const std::string& body, bool lowerCase = false) {
  uint8_t x = 0;
  for (char c : body) x ^= static_cast<uint8_t>(c);
  char tail[8];
  std::snprintf(tail, sizeof tail, lowerCase ? "*%02x\r\n" : "*%02X\r\n", x);
  return "$" + body + tail;
}

// Feeds the bytes; the first result that is not 1, or 1.
int32_t FeedProduct(mlr::ProductRecord* p, const std::string& bytes) {
  for (char c : bytes) {
    int32_t result = mlr::DecodeProductData(p, static_cast<uint8_t>(c));
    if (result != 1) return result;
  }
  return 1;
}

std::string Record(int number, uint32_t time, int32_t latitude, int32_t longitude, int32_t altitude, int flag) {
  std::string r;
  auto put = [&r](uint32_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i) r += static_cast<char>(value >> (8 * i) & 0xFFu);
  };
  put(static_cast<uint32_t>(number), 2);
  put(time, 4);
  put(static_cast<uint32_t>(latitude), 4);
  put(static_cast<uint32_t>(longitude), 4);
  put(static_cast<uint32_t>(altitude), 3);
  r += static_cast<char>(flag);
  return r;
}

std::string DataBody(const std::vector<std::string>& records) {
  std::string body(1, '\0');
  body += static_cast<char>(records.size());
  for (const std::string& r : records) body += r;
  return body;
}

// Every result of DecodeSentenceByte that is not 0.
std::vector<int32_t> FrameResults(mlr::FrameState* f, const std::string& bytes, int32_t mode = 0) {
  std::vector<int32_t> results;
  for (char c : bytes) {
    int32_t r = mlr::DecodeSentenceByte(f, static_cast<uint8_t>(c), mode);
    if (r != 0) results.push_back(r);
  }
  return results;
}

// Decodes the frames and hands each complete one on; the answers in order.
std::vector<int32_t> Handle(mlr::FrameState* f, const std::string& bytes) {
  std::vector<int32_t> answers;
  for (char c : bytes) {
    int32_t r = mlr::DecodeSentenceByte(f, static_cast<uint8_t>(c), 0);
    if (r > 0) answers.push_back(mlr::DecodeNewSentence(f, 0));
    if (r < 0) answers.push_back(100 + r);
  }
  return answers;
}

TEST(MlrDecode, TheIdentificationGivesTheProductText) {
  mlr::ProductRecord p;
  mlr::InitProductDecoder(&p);
  EXPECT_EQ(FeedProduct(&p, "noise$PMLR,IDX" + Sentence(kHead.substr(1) + " SP24XC,0304000348,VL1,2.70")), 0);
  EXPECT_STREQ(p.fields[0], "SP24XC  SW2.70");
  EXPECT_STREQ(p.fields[1], "0304000348");
  EXPECT_STREQ(p.fields[2], "VL1");
  EXPECT_STREQ(p.fields[3], "2.70");
  EXPECT_EQ(p.major, 2);
  EXPECT_EQ(p.minor, 70);
  EXPECT_EQ(p.timeCorrection, 1);

  // Lower-case checksums count; fields keep 40 characters; a fifth field
  // leaves field A as it came.
  mlr::InitProductDecoder(&p);
  const std::string longB(45, 'b');
  EXPECT_EQ(FeedProduct(&p, Sentence(kHead.substr(1) + "SP24XC  ," + longB + ",VL1,2.70,21/01/02", true)), 0);
  EXPECT_STREQ(p.fields[0], "SP24XC  ");
  EXPECT_EQ(std::string(p.fields[1]), longB.substr(0, 40));
  EXPECT_STREQ(p.fields[4], "21/01/02");
  EXPECT_EQ(p.timeCorrection, 0);
}

TEST(MlrDecode, IdentificationFormatCodes) {
  const std::string valid = Sentence(kHead.substr(1) + "A,B,C,2.70");
  std::string mismatch = valid;
  mismatch[mismatch.size() - 3] = mismatch[mismatch.size() - 3] == '0' ? '1' : '0';
  const std::pair<std::string, int32_t> cases[] = {
      {kHead + "SP24\r", -1},           {kHead + "A,B\n", -3},          {kHead + "A,B,C\r", -5},
      {kHead + "A,B,C,2.70\n", -7},     {kHead + "A,B,C,2.70,E\r", -9}, {kHead + "A,B,C,2.70*\r", -11},
      {kHead + "A,B,C,2.70*4\n", -11},  {kHead + "A,B,C,2.70*4G", -12}, {kHead + "A,B,C,2.70*41X", -13},
      {mismatch, -14},                  {valid, 0},
  };
  for (const auto& [bytes, code] : cases) {
    mlr::ProductRecord p;
    mlr::InitProductDecoder(&p);
    EXPECT_EQ(FeedProduct(&p, bytes), code) << bytes;
  }
  mlr::ProductRecord p;
  mlr::InitProductDecoder(&p);
  p.state = 8;
  EXPECT_EQ(mlr::DecodeProductData(&p, '$'), -15);
}

TEST(MlrDecode, SoftwareVersionAndTheFourteenSecondCorrection) {
  struct Case {
    const char* a;
    const char* d;
    const char* text;
    int32_t major, minor, correction;
  } cases[] = {
      {"SP24XC", "2.71", "SP24XC  SW2.71", 2, 71, 1},
      {"SP24XC", "2.72", "SP24XC  SW2.72", 2, 72, 0},
      {"SP24XC", "2.7", "SP24XC  SW2.7", 2, 70, 1},
      {"SP24XC", "2.8", "SP24XC  SW2.8", 2, 80, 0},
      {"SP24", "2.00", "SP24  SW2.00", 2, 0, 1},
      {"SP24", "1.99", "SP24  SW1.99", 1, 99, 1},
      {"SP24", "0.5", "SP24  SW0.5", 0, 50, 1},
      {"SP24", "9.89", "SP24  SW9.89", 9, 89, 0},
      {"SP24", "9.9", "SP24  SW9.9", 9, 90, 1},
      {"SP24", "12.00", "SP24  SW12.00", 12, 0, 1},
      {"SP25XC", "2.50", "SP25XC  SW2.50", 2, 50, 0},
      {"XSP24", "2.50", "XSP24  SW2.50", 2, 50, 0},
      {"SP24   XC ", "2.70 beta", "SP24 XC  SW2.70", 2, 70, 1},
      {"SP24XC", "V2", "SP24XC  SW", 0, 0, 1},
      {"SP24XC", "3", "SP24XC  SW3", 3, 0, 0},
  };
  for (const Case& c : cases) {
    mlr::ProductRecord p;
    mlr::InitProductDecoder(&p);
    std::snprintf(p.fields[0], sizeof p.fields[0], "%s", c.a);
    std::snprintf(p.fields[3], sizeof p.fields[3], "%s", c.d);
    mlr::CheckSoftwareVersion(&p);
    EXPECT_STREQ(p.fields[0], c.text) << c.a << " " << c.d;
    EXPECT_EQ(p.major, c.major) << c.d;
    EXPECT_EQ(p.minor, c.minor) << c.d;
    EXPECT_EQ(p.timeCorrection, c.correction) << c.a << " " << c.d;
  }
  // Field A keeps 40 characters: a long model leaves no room for the version.
  const std::string model = "SP24" + std::string(34, 'X');
  mlr::ProductRecord p;
  mlr::InitProductDecoder(&p);
  std::snprintf(p.fields[0], sizeof p.fields[0], "%s", model.c_str());
  std::snprintf(p.fields[3], sizeof p.fields[3], "2.70");
  mlr::CheckSoftwareVersion(&p);
  EXPECT_EQ(std::string(p.fields[0]), model + "  ");
  EXPECT_EQ(p.timeCorrection, 1);
}

TEST(MlrDecode, FramesWithTheirSumsAndCounts) {
  // 8B + 05 + 54 + 01 + 46 + 49 + 4E = 0x01C2, high byte first.
  const std::string fin = {'\x8B', '\x05', 'T', '\x01', 'F', 'I', 'N', '\x01', '\xC2', '\r', '\n'};
  EXPECT_EQ(sim::mlr::Frame(5, "FIN"), fin);
  mlr::FrameState f;
  mlr::InitDecodeSentenceByte(&f);
  EXPECT_EQ(FrameResults(&f, fin), std::vector<int32_t>{mlr::kFrameEnd});
  EXPECT_EQ(f.sequence, 5);
  EXPECT_EQ(FrameResults(&f, sim::mlr::Frame(6, "DEBUT")), std::vector<int32_t>{mlr::kFrameStart});

  std::vector<std::string> records;
  for (int i = 0; i < 27; ++i) records.push_back(Record(i + 1, 1000u + i, -5, 7, 100, 0));
  EXPECT_EQ(FrameResults(&f, sim::mlr::Frame(7, DataBody(records))), std::vector<int32_t>{mlr::kFrameData});
  EXPECT_EQ(f.count, 27);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(f.data), 27 * 18), DataBody(records).substr(2));

  records.push_back(Record(28, 0, 0, 0, 0, 0));
  EXPECT_EQ(FrameResults(&f, sim::mlr::Frame(8, DataBody(records))).front(), -1);
  mlr::InitDecodeSentenceByte(&f);
  EXPECT_EQ(FrameResults(&f, sim::mlr::Frame(8, DataBody({}))).front(), -1);

  std::string bad = fin;
  bad[8] = '\xC3';
  mlr::InitDecodeSentenceByte(&f);
  EXPECT_EQ(FrameResults(&f, bad), std::vector<int32_t>{-2});
  bad = fin;
  bad[9] = '\n';
  mlr::InitDecodeSentenceByte(&f);
  EXPECT_EQ(FrameResults(&f, bad).front(), -3);
  bad = fin;
  bad[10] = '\r';
  mlr::InitDecodeSentenceByte(&f);
  EXPECT_EQ(FrameResults(&f, bad), std::vector<int32_t>{-4});
}

TEST(MlrDecode, AByteThatDoesNotFitRestartsTheHuntWithItself) {
  mlr::FrameState f;
  mlr::InitDecodeSentenceByte(&f);
  // A start byte where "T" belongs begins the frame that follows; so does
  // one inside a broken kind word.
  std::string bytes = std::string("xyz\x8B\x01") + sim::mlr::Frame(9, "FIN");
  bytes += std::string("\x8B\x02T\x01" "DEB") + sim::mlr::Frame(10, "DEBUT");
  EXPECT_EQ(FrameResults(&f, bytes), (std::vector<int32_t>{mlr::kFrameEnd, mlr::kFrameStart}));
  EXPECT_EQ(f.sequence, 10);

  // Waypoint frames: "W", 0x02 and up to 23 records of 22 bytes.
  std::string body(1, '\0');
  body += static_cast<char>(23);
  body += std::string(23 * 22, '\x33');
  std::string frame = sim::mlr::Frame(3, body);
  frame[2] = 'W';
  frame[3] = '\x02';
  uint16_t sum = 0;
  for (size_t i = 0; i + 4 < frame.size(); ++i) sum = static_cast<uint16_t>(sum + static_cast<uint8_t>(frame[i]));
  frame[frame.size() - 4] = static_cast<char>(sum >> 8);
  frame[frame.size() - 3] = static_cast<char>(sum & 0xFF);
  mlr::InitDecodeSentenceByte(&f);
  EXPECT_EQ(FrameResults(&f, frame, 1), std::vector<int32_t>{mlr::kFrameData});
  mlr::InitDecodeSentenceByte(&f);
  EXPECT_TRUE(FrameResults(&f, frame, 0).empty()) << "not a track frame";
  frame[5] = static_cast<char>(24);
  mlr::InitDecodeSentenceByte(&f);
  EXPECT_EQ(FrameResults(&f, frame, 1).front(), -1);
}

TEST(MlrDecode, FramesBecomePointsInOrder) {
  test::FreshRunParameters();
  mlr::FrameState f;
  mlr::InitDecodeSentenceByte(&f);
  const uint32_t t0 = 600000000;
  std::string bytes = sim::mlr::Frame(9, DataBody({Record(77, 1, 1, 1, 1, 1)}));  // before the start: ignored
  bytes += sim::mlr::Frame(254, "DEBUT");
  bytes += sim::mlr::Frame(255, DataBody({Record(1, t0, -123456789, 987654321, 0xFFFFF6, 0),
                                          Record(2, t0 + 10, 2147483647, -2147483647 - 1, 0x7FFFFF, 1)}));
  bytes += sim::mlr::Frame(0, DataBody({Record(3, t0 + 20, 0, 0, 0x800000, 0)}));  // the sequence wraps
  bytes += sim::mlr::Frame(1, "FIN");
  EXPECT_EQ(Handle(&f, bytes), (std::vector<int32_t>{1, 1, 1, 1, 0}));
  ASSERT_EQ(tGps.nTrackPoints, 3);
  const TrackPoint expected[] = {
      {1, t0 - mlr::kClockOffset, -123456789, 987654321, -10, 0},
      {1, t0 + 10 - mlr::kClockOffset, 2147483647, -2147483647 - 1, 8388607, 0},
      {0, t0 + 20 - mlr::kClockOffset, 0, 0, -8388608, 0},
  };
  EXPECT_TRUE(test::SameTrack({expected, expected + 3}));

  // The same log from a clock that runs 14 s ahead.
  test::FreshRunParameters();
  mlr::InitDecodeSentenceByte(&f);
  f.timeCorrection = 1;
  EXPECT_EQ(Handle(&f, bytes), (std::vector<int32_t>{1, 1, 1, 1, 0}));
  ASSERT_EQ(tGps.nTrackPoints, 3);
  EXPECT_EQ(tGps.pTrackPoints[0].dwTime, t0 - mlr::kClockOffset - 14);
  EXPECT_EQ(tGps.pTrackPoints[2].dwTime, t0 + 20 - mlr::kClockOffset - 14);
}

TEST(MlrDecode, OrderFaultsEndTheLogWithTheirMessage) {
  const std::string start = sim::mlr::Frame(10, "DEBUT");
  const std::string one = DataBody({Record(1, 1, 0, 0, 0, 0)});
  struct Case {
    std::string frames;
    std::string message;
  } cases[] = {
      {start + sim::mlr::Frame(11, "DEBUT"), " Bad sentence type sequence\n"},
      {start + sim::mlr::Frame(12, one), " Bad sentence sequence\n"},
      {start + sim::mlr::Frame(10, one), " Bad sentence sequence\n"},
      {start + sim::mlr::Frame(11, one) + sim::mlr::Frame(13, "FIN"), " Bad sentence sequence\n"},
      {start + sim::mlr::Frame(11, DataBody({Record(0, 1, 0, 0, 0, 0)})), " Bad track point sequence\n"},
      {start + sim::mlr::Frame(11, DataBody({Record(1, 1, 0, 0, 0, 0), Record(3, 1, 0, 0, 0, 0)})),
       " Bad track point sequence\n"},
  };
  for (const Case& c : cases) {
    test::FreshRunParameters();
    mlr::FrameState f;
    mlr::InitDecodeSentenceByte(&f);
    testing::internal::CaptureStdout();
    std::vector<int32_t> answers = Handle(&f, c.frames);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(answers.back(), -1) << c.message;
    EXPECT_EQ(out, c.message);
  }
}

TEST(MlrDecode, ThePointArrayGrowsAndTheCountShowsEveryHundred) {
  test::FreshRunParameters();
  mlr::FrameState f;
  mlr::InitDecodeSentenceByte(&f);
  std::string bytes = sim::mlr::Frame(0, "DEBUT");
  int number = 0;
  for (int frame = 1; frame <= 40; ++frame) {
    std::vector<std::string> records;
    for (int i = 0; i < 27; ++i, ++number) records.push_back(Record(number + 1, 400000000u + number, number, -number, 0, 0));
    bytes += sim::mlr::Frame(static_cast<uint8_t>(frame), DataBody(records));
  }
  testing::internal::CaptureStdout();
  {
    ProgressCounter progress("Points: ", 0);
    f.progress = &progress;
    Handle(&f, bytes);
    progress.Finish(tGps.nTrackPoints);
  }
  std::string out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(tGps.nTrackPoints, 1080);
  EXPECT_EQ(tGps.nTrackCapacity, 2000);
  for (int i = 0; i < 1080; ++i) {
    ASSERT_EQ(tGps.pTrackPoints[i].lLatitude, i);
    ASSERT_EQ(tGps.pTrackPoints[i].dwTime, 400000000u + static_cast<uint32_t>(i) - mlr::kClockOffset);
  }
  EXPECT_EQ(out, ProgressText("Points: ", {100, 200, 300, 400, 500, 600, 700, 800, 900, 1000}, 1080));
}

TEST(MlrClock, SleepingCostsAlmostNoProcessorTime) {
  uint64_t wall = GetWallClockMicroseconds();
  uint64_t processor = GetProcessorMicroseconds();
  usleep(300000);
  EXPECT_GE(GetWallClockMicroseconds() - wall, 300000u);
  EXPECT_LT(GetProcessorMicroseconds() - processor, 150000u);
}

TEST(MlrDownload, ARealLogArrivesAtTheHigherSpeedAndTheInstrumentIsStopped) {
  test::FreshRunParameters();
  const std::string flight = Flight("mlr-sp24xc-7h-10s.igc");
  const std::vector<TrackPoint> expected = test::DecodedFlight(flight);
  ASSERT_EQ(expected.size(), 2577u);
  test::SimRig rig("mlr", {.flights = {flight}});
  rig.Connect(kGpsMlr);
  tGps.dwCommand = kCommandDownloadTrack;
  SystemTime now;
  GetDownloadTime(&now);
  uint32_t before = ConvertSystemTimeToGpsTime(&now);

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadMlrTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  std::vector<int> updates;
  for (int n = 100; n < 2577; n += 100) updates.push_back(n);
  EXPECT_EQ(out, test::Opened(tGps.szComPort) + "Product: SP24XC  SW2.70\n" + ProgressText("Points: ", updates, 2577) +
                     "Exiting COM thread\n");
  // The firmware's clock runs 14 s ahead; the program takes that back.
  EXPECT_TRUE(test::SameTrack(expected));
  const auto& instrument = rig.instrument<sim::mlr::MlrInstrument>();
  EXPECT_TRUE(instrument.ClockAhead());
  EXPECT_EQ(instrument.commands(),
            (std::vector<std::string>{"$PMLR,26,01,01,0339", "$PMLR,24,02,0101,0399", "$PMLR,06,00,02A9"}));
  EXPECT_EQ(instrument.speeds(), (std::vector<int32_t>{4800, 4800, 4800}));
  std::vector<std::string> trace = rig.Trace();
  EXPECT_TRUE(std::find(trace.begin(), trace.end(), "   sending at 38400 baud") != trace.end());
  EXPECT_STREQ(tGps.szProduct, "SP24XC  SW2.70");
  EXPECT_EQ(tGps.pbRawLog, nullptr);
  EXPECT_EQ(tGps.bSignature, 1);
  EXPECT_EQ(tGps.bUtc, 1);
  EXPECT_EQ(tGps.bPressureAltitude, 0);
  EXPECT_EQ(tGps.dwFirstPointTime, expected[0].dwTime);
  EXPECT_GE(tGps.dwDownloadTime, before);
  EXPECT_LE(tGps.dwDownloadTime, before + 60);
}

// Downloads the flight from an instrument whose clock is UTC whatever its firmware.
std::vector<TrackPoint> DownloadFromUtcClock(const std::string& firmware, const std::string& flight) {
  test::FreshRunParameters();
  test::SimRig rig("mlr", {.firmware = firmware, .flights = {flight}, .faults = {"utc-clock"}});
  rig.Connect(kGpsMlr);
  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadMlrTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();
  EXPECT_EQ(result, 0) << out;
  return {tGps.pTrackPoints, tGps.pTrackPoints + tGps.nTrackPoints};
}

TEST(MlrDownload, AnSp24WithFirmware271GetsTimesFourteenSecondsEarlierThanWith272) {
  const std::string flight = Flight("pg-iqbasic-8s.igc");
  const std::vector<TrackPoint> corrected = DownloadFromUtcClock("2.71", flight);
  const std::vector<TrackPoint> asSent = DownloadFromUtcClock("2.72", flight);
  test::FreshRunParameters();
  std::vector<TrackPoint> expected = test::DecodedFlight(flight);
  for (TrackPoint& p : expected) p.lPressureAltitude = 0;
  EXPECT_TRUE(test::SameTrack(asSent, expected));
  for (TrackPoint& p : expected) p.dwTime -= 14;
  EXPECT_TRUE(test::SameTrack(corrected, expected));
}

// The waits count processor time; with the wall clock in its place the
// time-outs come within seconds.
class MlrWallClock : public testing::Test {
 protected:
  void SetUp() override { previous_ = UseClockSource(&clock_); }
  void TearDown() override { UseClockSource(previous_); }

 private:
  const ClockSource clock_{SystemClock().wallMicroseconds, SystemClock().wallMicroseconds, SystemClock().utcSeconds};
  const ClockSource* previous_ = nullptr;
};

TEST_F(MlrWallClock, ASilentInstrumentTimesOutThreeSecondsAfterTheCommand) {
  test::FreshRunParameters();
  test::SimRig rig("mlr", {.faults = {"mute"}});
  rig.Connect(kGpsMlr);
  uint64_t start = GetWallClockMicroseconds();
  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadMlrTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  uint64_t took = GetWallClockMicroseconds() - start;
  rig.Stop();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(out, test::Opened(tGps.szComPort) + "Product: Timeout\nExiting COM thread\n");
  EXPECT_GE(took, 3000000u);
}

TEST_F(MlrWallClock, ALogThatStopsIsNotFollowedByTheStopCommand) {
  test::FreshRunParameters();
  test::SimRig rig("mlr", {.flights = {Flight("pg-iqbasic-8s.igc")}},
                   {{sim::FaultKind::kCut, 2, 1000}});
  rig.Connect(kGpsMlr);
  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadMlrTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();
  EXPECT_EQ(result, -1);
  EXPECT_EQ(out, test::Opened(tGps.szComPort) + "Product: SP24XC  SW2.70\nPoints: 0Transfer stopped\n" +
                     "Exiting COM thread\n");
  EXPECT_EQ(rig.instrument<sim::mlr::MlrInstrument>().commands(),
            (std::vector<std::string>{"$PMLR,26,01,01,0339", "$PMLR,24,02,0101,0399"}));
}

class MlrCommandLine : public testing::Test {
 protected:
  void SetUp() override {
    std::string problem = test::PortLinkProblem();
    if (!problem.empty()) GTEST_SKIP() << "cannot link /dev/cu.<name> to a simulator here: " << problem;
  }
};

TEST_F(MlrCommandLine, DownloadsAndFaults) {
  const std::string mlrFlight = Flight("mlr-sp24xc-7h-10s.igc"), iq = Flight("pg-iqbasic-8s.igc");
  auto with = [&iq](std::vector<std::string> faults) {
    return sim::InstrumentSettings{.flights = {iq}, .faults = std::move(faults)};
  };
  auto flip = [](int reply, int64_t at) { return sim::LineFault{sim::FaultKind::kFlip, reply, at}; };
  std::vector<test::Scenario> runs = {
      {.label = "real log", .family = "mlr", .settings = {.flights = {mlrFlight}}, .args = {"-l"}},
      {.label = "five fields", .family = "mlr", .settings = with({"five-fields"}), .args = {"-l"}},
      {.label = "stray frame", .family = "mlr", .settings = with({"stray-frame"}), .args = {"-l"}},
      {.label = "28 records", .family = "mlr", .settings = with({"count-28"}), .args = {"-l"}},
      {.label = "skipped sequence", .family = "mlr", .settings = with({"skip-sequence"}), .args = {"-l"}},
      {.label = "point 0", .family = "mlr", .settings = with({"point-zero"}), .args = {"-l"}},
      {.label = "frame sum", .family = "mlr", .settings = with({}), .faults = {flip(2, 9)}, .args = {"-l"}},
      {.label = "identification sum", .family = "mlr", .settings = with({}), .faults = {flip(1, 15)},
       .args = {"-l"}},
      {.label = "empty log", .family = "mlr", .settings = {}, .args = {"-l"}},
  };
  test::RunScenarios(&runs);

  std::vector<int> hundreds;
  for (int n = 100; n < 2577; n += 100) hundreds.push_back(n);
  const std::string product = "Product: SP24XC  SW2.70\n";
  const std::string iqPoints = ProgressText("Points: ", {100}, 194);
  // No text comes from the instrument: the program writes the IGC file.
  const std::string mlrBase = "2008-05-02_10-05", iqBase = "2023-10-04_14-30";
  const std::string savedMlr = test::SavedOutput(mlrBase, std::nullopt, true);
  const std::string savedIq = test::SavedOutput(iqBase, std::nullopt, true);
  const std::vector<std::string> stopped = {"$PMLR,26,01,01,0339", "$PMLR,24,02,0101,0399", "$PMLR,06,00,02A9"};
  struct Expected {
    std::string out;  // between the port's greeting and its farewell
    std::vector<std::string> commands;
    std::string after = "";
  } expected[] = {
      {product + ProgressText("Points: ", hundreds, 2577), stopped, savedMlr},
      {"Product: SP24XC\n" + iqPoints, stopped, savedIq},
      {product + iqPoints, stopped, savedIq},
      {product + "Points: 0 Format error 1\n", stopped},
      {product + "Points: 0 Bad sentence sequence\n", stopped},
      {product + "Points: 0 Bad track point sequence\n", stopped},
      {product + "Points: 0 Format error 2\n", stopped},
      {"Product: Format error 14\n", {"$PMLR,26,01,01,0339"}},
      {product + "Points: 0\b0\n", stopped},
  };
  ASSERT_EQ(std::size(expected), runs.size());
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    EXPECT_EQ(s.result.status, 0) << s.label;
    EXPECT_EQ(s.result.out,
              test::Opened("/dev/cu." + s.port) + expected[i].out + "Exiting COM thread\n" + expected[i].after)
        << s.label;
    EXPECT_EQ(s.commands, expected[i].commands) << s.label;
    EXPECT_EQ(s.files.size(), expected[i].after.empty() ? 0u : 2u) << s.label;
  }
  test::ExpectSavedFlight(runs[0], mlrBase, std::nullopt, 2577, true, "SP24XC SW2.70");
  test::ExpectSavedFlight(runs[1], iqBase, std::nullopt, 194, true, "SP24XC");
  if (runs[0].contents.contains(mlrBase + ".igc")) {
    EXPECT_TRUE(test::SameFixes(runs[0].contents.at(mlrBase + ".igc"), mlrFlight));
  }
  // The program went to 38400 baud for the log and back to 4800 before the stop.
  const std::vector<std::string>& trace = runs[0].trace;
  EXPECT_TRUE(std::find(trace.begin(), trace.end(), "   sending at 38400 baud") != trace.end());
  EXPECT_TRUE(std::find(trace.begin(), trace.end(), "<- $PMLR,06,00,02A9 at 4800 baud") != trace.end());
}

// kestrix-sim as a user runs it, paced at the instrument's speed.
TEST_F(MlrCommandLine, KestrixSimServesAnMlrUntilStopped) {
  std::string port = test::UniquePortName();
  std::string flight = std::string(KESTRIX_TEST_DATA) + "/igc/pg-iqbasic-8s.igc";
  int out[2];
  ASSERT_EQ(pipe2(out, O_CLOEXEC), 0);
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    dup2(out[1], STDOUT_FILENO);
    execl(KESTRIX_SIM_EXE, KESTRIX_SIM_EXE, "mlr", "--firmware", "2.72", "--flights", flight.c_str(), "--port",
          port.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(out[1]);
  std::string trace;
  auto readUntil = [&out, &trace](const std::string& marker) {
    uint64_t start = sim::NowMicros();
    while (trace.find(marker) == std::string::npos && sim::NowMicros() - start < 20000000) {
      pollfd p{out[0], POLLIN, 0};
      if (poll(&p, 1, 100) <= 0) continue;
      char buffer[512];
      ssize_t n = read(out[0], buffer, sizeof buffer);
      if (n <= 0) break;
      trace.append(buffer, static_cast<size_t>(n));
    }
  };
  readUntil("Stop with Ctrl-C\n");

  test::TempDir dir;
  test::RunResult r = test::RunKestrix({"-gm", "-cu." + port, "-l"}, dir.path());
  EXPECT_EQ(r.out, test::Opened("/dev/cu." + port) + "Product: SP24XC  SW2.72\n" + ProgressText("Points: ", {100}, 194) +
                       "Exiting COM thread\n" + test::SavedOutput("2023-10-04_14-30", std::nullopt, true));
  readUntil("   stopped\n");
  kill(pid, SIGTERM);
  readUntil("Stopped\n");
  int status = 0;
  waitpid(pid, &status, 0);
  close(out[0]);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_NE(trace.find("<- $PMLR,26,01,01,0339 at 4800 baud\n-> identification SP24XC 2.72\n"
                       "<- $PMLR,24,02,0101,0399 at 4800 baud\n   sending at 38400 baud\n-> track (3596 bytes)\n"
                       "<- $PMLR,06,00,02A9 at 4800 baud\n   stopped\nStopped\n"),
            std::string::npos)
      << trace;
}

}  // namespace
