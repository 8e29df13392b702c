// Ascent: product, list and packet decoders without a port, downloads
// against the simulated instrument in-process, and through the command line.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/run.h"
#include "geo/time.h"
#include "output/file.h"
#include "family_support.h"
#include "saved_support.h"
#include "serial/ascent.h"
#include "sim/ascent.h"
#include "sim_support.h"

namespace {

using test::Flight;
using test::Shown;

std::vector<uint8_t> Bytes(std::initializer_list<int> values) {
  std::vector<uint8_t> bytes;
  for (int v : values) bytes.push_back(static_cast<uint8_t>(v));
  return bytes;
}

// A list message: block, track id, start, date, duration in minutes.
std::vector<uint8_t> ListMessage(int block, int id, int hour = 14, int minute = 30, int duration = 27) {
  return Bytes({5, block >> 8, block & 0xFF, 0, 0, 3, id >> 8, id & 0xFF, hour, minute, 4, 10, 23, duration >> 8,
                duration & 0xFF});
}

// Feeds one packet; returns the decoder's answer to its last byte.
int32_t FeedPacket(ascent::FlightTransfer* t, int section, const std::string& text, int headByte = 3) {
  std::vector<uint8_t> packet = Bytes({headByte, section, static_cast<int>(text.size())});
  packet.insert(packet.end(), text.begin(), text.end());
  packet.resize(ascent::kPacketSize, 0xEE);
  int32_t result = 0;
  for (uint8_t b : packet) {
    result = ascent::DecodePacketByte(t, b);
    if (result < 0) return result;
  }
  return result;
}

std::string SectionText(const ascent::FlightTransfer& t, int number) {
  const ascent::Section& s = t.sections[number - 1];
  return std::string(reinterpret_cast<const char*>(s.data), static_cast<size_t>(s.length));
}

TEST(AscentDecode, SupportedFirmwareRanges) {
  const std::pair<uint32_t, bool> cases[] = {{0, false},     {1355, false}, {1356, true},  {1999, true},
                                             {2000, false},  {2367, false}, {2368, true},  {65535, true}};
  for (const auto& [firmware, supported] : cases) EXPECT_EQ(ascent::IsSupportedFirmware(firmware), supported) << firmware;
}

TEST(AscentDecode, ProductResponseFields) {
  std::vector<uint8_t> r = Bytes({2, 0x1A, 0x2B, 0x3C, 0x4D, 0x00, 0x03, 0x05, 0x4B, 0, 0x01, 0x02, 0, 0, 0, 0, 0, 0});
  ascent::Product product{};
  char text[81];
  ASSERT_TRUE(ascent::DecodeProductResponse(r.data(), &product, text, sizeof text));
  EXPECT_STREQ(text, "Ascent, SNR 1A2B3C4D, SW 1.355");
  EXPECT_EQ(product.firmware, 1355);
  EXPECT_EQ(product.valueA, 0x0102);
  EXPECT_EQ(product.valueB, 3);
  EXPECT_EQ(product.supported, 0);
  r[8] = 0x4C;  // 1356
  ASSERT_TRUE(ascent::DecodeProductResponse(r.data(), &product, text, sizeof text));
  EXPECT_EQ(product.supported, 1);
  r[7] = 0x09;  // 2380
  r[8] = 0x4C;
  ASSERT_TRUE(ascent::DecodeProductResponse(r.data(), &product, text, sizeof text));
  EXPECT_STREQ(text, "Ascent, SNR 1A2B3C4D, SW 2.380");
  EXPECT_EQ(product.supported, 1);
  r[7] = 0x07;  // 2005: the remainder is not padded
  r[8] = 0xD5;
  ASSERT_TRUE(ascent::DecodeProductResponse(r.data(), &product, text, sizeof text));
  EXPECT_STREQ(text, "Ascent, SNR 1A2B3C4D, SW 2.5");
  r[0] = 3;
  EXPECT_FALSE(ascent::DecodeProductResponse(r.data(), &product, text, sizeof text));
}

TEST(AscentDecode, ListMessagesAreCheckedInOrder) {
  ascent::Product product{};
  ascent::ListState list;
  char entry[64];
  ascent::StartList(&list, &product);
  // Before block 1 a message is ignored; then blocks count up, and 0 ends.
  EXPECT_EQ(ascent::DecodeListMessage(&list, ListMessage(2, 9).data(), &product, entry, sizeof entry),
            ascent::kListIgnored);
  EXPECT_EQ(ascent::DecodeListMessage(&list, ListMessage(0, 9).data(), &product, entry, sizeof entry),
            ascent::kListIgnored);
  EXPECT_EQ(product.flightCount, 0);
  EXPECT_EQ(ascent::DecodeListMessage(&list, ListMessage(1, 7).data(), &product, entry, sizeof entry),
            ascent::kListTaken);
  EXPECT_STREQ(entry, " 1   04.10.23   14:30:00   00:27:00\n");
  EXPECT_EQ(ascent::DecodeListMessage(&list, ListMessage(2, 300, 9, 5, 135).data(), &product, entry, sizeof entry),
            ascent::kListTaken);
  EXPECT_STREQ(entry, " 2   04.10.23   09:05:00   02:15:00\n");
  EXPECT_EQ(ascent::DecodeListMessage(&list, ListMessage(0, 301).data(), &product, entry, sizeof entry),
            ascent::kListTaken);
  ASSERT_EQ(product.flightCount, 3);
  EXPECT_EQ(product.flightIds[0], 7);
  EXPECT_EQ(product.flightIds[1], 300);
  EXPECT_EQ(product.flightIds[2], 301);

  ascent::StartList(&list, &product);
  ascent::DecodeListMessage(&list, ListMessage(1, 1).data(), &product, entry, sizeof entry);
  EXPECT_EQ(ascent::DecodeListMessage(&list, ListMessage(3, 1).data(), &product, entry, sizeof entry),
            ascent::kListBadBlock);
  std::vector<uint8_t> wrongId = ListMessage(1, 1);
  wrongId[0] = 4;
  EXPECT_EQ(ascent::DecodeListMessage(&list, wrongId.data(), &product, entry, sizeof entry), ascent::kListBadId);
  std::vector<uint8_t> empty = ListMessage(1, 1);
  empty[5] = 0;
  ascent::StartList(&list, &product);
  EXPECT_EQ(ascent::DecodeListMessage(&list, empty.data(), &product, entry, sizeof entry), ascent::kListNoTracks);

  // Block numbers wrap at 16 bits; the 256th entry is taken but not kept.
  ascent::StartList(&list, &product);
  for (int block = 1; block <= 255; ++block) {
    ASSERT_EQ(ascent::DecodeListMessage(&list, ListMessage(block, block).data(), &product, entry, sizeof entry),
              ascent::kListTaken);
  }
  EXPECT_EQ(ascent::DecodeListMessage(&list, ListMessage(256, 256).data(), &product, entry, sizeof entry),
            ascent::kListTaken);
  EXPECT_STREQ(entry, "");
  EXPECT_EQ(product.flightCount, 255);
  list.previousBlock = 0xFFFF;
  EXPECT_EQ(ascent::DecodeListMessage(&list, ListMessage(1, 1).data(), &product, entry, sizeof entry),
            ascent::kListBadBlock);
}

TEST(AscentDecode, PacketTextGetsCrLfAndEveryPacketEndsALine) {
  ascent::FlightTransfer t;
  ASSERT_EQ(ascent::AllocateSections(&t), 0);
  EXPECT_EQ(FeedPacket(&t, 1, "AXXX\nHFDTE010203"), ascent::kPacketDone);
  EXPECT_EQ(t.section, 1);
  EXPECT_EQ(FeedPacket(&t, 2, "B123"), ascent::kPacketDone);
  EXPECT_EQ(FeedPacket(&t, 2, "456\n"), ascent::kPacketDone);
  EXPECT_EQ(FeedPacket(&t, 3, "\n\n"), ascent::kPacketDone);
  EXPECT_EQ(FeedPacket(&t, 4, ""), ascent::kPacketDone);
  EXPECT_EQ(SectionText(t, 1), "AXXX\r\nHFDTE010203\r\n");
  EXPECT_EQ(SectionText(t, 2), "B123\r\n456\r\n");  // a line split over two packets is two lines
  EXPECT_EQ(SectionText(t, 3), "\r\n\r\n");
  EXPECT_EQ(SectionText(t, 4), "");
  EXPECT_EQ(t.lines, 6);
  EXPECT_EQ(FeedPacket(&t, 5, "end"), ascent::kFlightComplete);
}

TEST(AscentDecode, AnEmptyPacketStillHas297FillerBytes) {
  ascent::FlightTransfer t;
  ASSERT_EQ(ascent::AllocateSections(&t), 0);
  for (uint8_t b : Bytes({3, 5, 0})) ASSERT_EQ(ascent::DecodePacketByte(&t, b), ascent::kPacketMore);
  for (int i = 0; i < 296; ++i) ASSERT_EQ(ascent::DecodePacketByte(&t, 0), ascent::kPacketMore) << i;
  EXPECT_EQ(ascent::DecodePacketByte(&t, 0), ascent::kFlightComplete);
  EXPECT_EQ(t.lines, 0);
}

TEST(AscentDecode, BadPacketHeadsAndGrowingSections) {
  ascent::FlightTransfer t;
  ASSERT_EQ(ascent::AllocateSections(&t), 0);
  EXPECT_EQ(FeedPacket(&t, 1, "x", 2), ascent::kPacketBadStart);
  ASSERT_EQ(ascent::AllocateSections(&t), 0);
  EXPECT_EQ(FeedPacket(&t, 0, "x"), ascent::kPacketBadSection);
  ASSERT_EQ(ascent::AllocateSections(&t), 0);
  EXPECT_EQ(FeedPacket(&t, 6, "x"), ascent::kPacketBadSection);

  // Section 2 starts with room for 1000 bytes.
  ASSERT_EQ(ascent::AllocateSections(&t), 0);
  std::string expected;
  for (int i = 0; i < 40; ++i) {
    std::string line = "L" + std::string(60, static_cast<char>('a' + i % 26)) + "\n";
    ASSERT_EQ(FeedPacket(&t, 2, line + line), ascent::kPacketDone);
    expected += line.substr(0, 61) + "\r\n" + line.substr(0, 61) + "\r\n";
  }
  EXPECT_EQ(SectionText(t, 2), expected);
  EXPECT_GE(t.sections[1].capacity, static_cast<int32_t>(expected.size()));
}

TEST(AscentDecode, TheTextIsSectionsTwoToFourAndSectionOneMustHaveCome) {
  ascent::FlightTransfer t;
  ASSERT_EQ(ascent::AllocateSections(&t), 0);
  FeedPacket(&t, 1, "one");
  FeedPacket(&t, 2, "two");
  FeedPacket(&t, 3, "three");
  FeedPacket(&t, 4, "four");
  FeedPacket(&t, 5, "five");
  uint8_t* text = nullptr;
  int32_t length = 0;
  ASSERT_EQ(ascent::JoinSections(&t, &text, &length), 0);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(text), static_cast<size_t>(length)), "two\r\nthree\r\nfour\r\n");
  std::free(text);

  for (int missing = 1; missing <= 4; ++missing) {
    ascent::FlightTransfer u;
    ASSERT_EQ(ascent::AllocateSections(&u), 0);
    for (int s = 1; s <= 4; ++s) FeedPacket(&u, s, s == missing ? "" : "text");
    EXPECT_EQ(ascent::JoinSections(&u, &text, &length), -1) << missing;
  }

  uint8_t request[5];
  ascent::FormatPacketRequest(0x1234, 3, request);
  EXPECT_EQ(std::vector<uint8_t>(request, request + 5), Bytes({3, 8, 0x12, 0x34, 3}));
}

TEST(AscentDownload, TheListPositionIsSentAndTheTextKeptWithItsLengthInTheSizeOnly) {
  test::FreshRunParameters();
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  const std::vector<TrackPoint> expected = test::DecodedFlight(sky);
  // Stored ids count down: entry 1 (the Skytraxx flight) has id 2 and
  // entry 2 (the IQ flight) id 1. Asking for entry 2 sends 2 and so gets
  // entry 1's flight.
  test::SimRig rig("ascent", {.flights = {sky, iq}, .faults = {"reversed-ids"}});
  rig.Connect(kGpsAscent);
  tGps.dwCommand = kCommandDownloadTrack;
  tGps.nFlightNumber = 2;
  SystemTime now;
  GetDownloadTime(&now);
  uint32_t before = ConvertSystemTimeToGpsTime(&now);

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadAscentTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  EXPECT_EQ(out, test::Opened(tGps.szComPort) + "Product: Ascent, SNR 1A2B3C4D, SW 2.368\nTrack list:\n" +
                     " 1   06.03.21   10:34:00   00:03:00\n 2   04.10.23   14:30:00   00:27:00\n" +
                     "Lines: 0\nGot 221 points\nExiting COM thread\n");
  const auto& instrument = rig.instrument<sim::ascent::AscentInstrument>();
  ASSERT_GE(instrument.requests().size(), 5u);
  EXPECT_EQ(instrument.requests()[0], "\x01");
  EXPECT_EQ(instrument.requests()[1], "\x03\x05");
  EXPECT_EQ(instrument.requests()[2], "\x03\x05");
  EXPECT_EQ(instrument.requests()[3], std::string("\x03\x08\x00\x02\x00", 5));
  // Then one request per packet, naming the section just received.
  std::string sections;
  for (size_t i = 4; i < instrument.requests().size(); ++i) {
    const std::string& r = instrument.requests()[i];
    ASSERT_EQ(r.substr(0, 4), std::string("\x03\x08\x00\x02", 4));
    sections += static_cast<char>('0' + r[4]);
  }
  EXPECT_EQ(sections.front(), '1');
  EXPECT_EQ(sections.back(), '4');
  EXPECT_TRUE(std::is_sorted(sections.begin(), sections.end())) << sections;

  EXPECT_EQ(test::RawLog(tGps.nRawLogSize), sky);
  EXPECT_EQ(tGps.nRawLogLength, 0);
  EXPECT_TRUE(test::SameTrack(expected));
  EXPECT_EQ(tGps.dwFirstPointTime, expected[0].dwTime);
  EXPECT_EQ(tGps.bSignature, 1);
  EXPECT_EQ(tGps.bUtc, 1);
  EXPECT_EQ(tGps.bPressureAltitude, 1);
  EXPECT_STREQ(tGps.szProduct, "Ascent, SNR 1A2B3C4D, SW 2.368");
  EXPECT_GE(tGps.dwDownloadTime, before);
  EXPECT_LE(tGps.dwDownloadTime, before + 60);
}

TEST(AscentDownload, TheLineCountShowsEveryFiveHundredLinesAndNotAtTheEnd) {
  test::FreshRunParameters();
  const std::string fai = Flight("hg-fai5-xctrack-10min.igc");
  test::SimRig rig("ascent", {.flights = {fai, fai}});
  rig.Connect(kGpsAscent);
  tGps.nFlightNumber = 1;
  tGps.szPilotName[0] = 1;  // the Ascent does not take the pilot from the flight

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadAscentTrackLog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  ASSERT_EQ(result, 0) << out;
  EXPECT_TRUE(out.find("Lines: 0\b500") != std::string::npos) << out;
  EXPECT_TRUE(Shown(out).ends_with("Lines: 500\nGot 583 points\nExiting COM thread\n")) << Shown(out);
  EXPECT_EQ(test::RawLog(tGps.nRawLogSize), fai);
  EXPECT_EQ(tGps.szPilotName[0], 1);
}

TEST(AscentDownload, TheBulkWalkSendsTheStoredIdsAndReleasesEachTrack) {
  test::FreshRunParameters();
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  // The bulk walk does not look at the firmware.
  test::SimRig rig("ascent", {.firmware = "1355", .flights = {iq, sky}, .faults = {"reversed-ids"}});
  rig.Connect(kGpsAscent);
  tGps.dwCommand = kCommandDownloadAllTracks;

  testing::internal::CaptureStdout();
  int32_t result = test::RunInstrumentCommand(DownloadAscentBulkTrackLog, SaveTracklog);
  std::string out = testing::internal::GetCapturedStdout();
  rig.Stop();

  EXPECT_EQ(result, 0);
  // No file type asked for: each track goes through the checks only.
  EXPECT_EQ(out, test::Opened(tGps.szComPort) + "Product: Ascent, SNR 1A2B3C4D, SW 1.355\nTrack list:\n" +
                     " 1   04.10.23   14:30:00   00:27:00\n 2   06.03.21   10:34:00   00:03:00\n" +
                     "Getting flight number 2\nLines: 0\nGot 194 points\n" +
                     "Getting flight number 1\nLines: 0\nGot 221 points\n" + "Exiting COM thread\n");
  std::vector<std::string> firstRequests;
  for (const std::string& r : rig.instrument<sim::ascent::AscentInstrument>().requests()) {
    if (r.size() == 5 && r[4] == 0) firstRequests.push_back(r);
  }
  EXPECT_EQ(firstRequests,
            (std::vector<std::string>{std::string("\x03\x08\x00\x02\x00", 5), std::string("\x03\x08\x00\x01\x00", 5)}));
  EXPECT_EQ(tGps.pbRawLog, nullptr);
  EXPECT_EQ(tGps.pTrackPoints, nullptr);
  EXPECT_EQ(tGps.nTrackPoints, 0);
  EXPECT_EQ(tGps.nRawLogLength, 0);
}

class AscentCommandLine : public testing::Test {
 protected:
  void SetUp() override {
    std::string problem = test::PortLinkProblem();
    if (!problem.empty()) GTEST_SKIP() << "cannot link /dev/cu.<name> to a simulator here: " << problem;
  }
};

TEST_F(AscentCommandLine, ListsSelectionsAndFaults) {
  const std::string iq = Flight("pg-iqbasic-8s.igc"), sky = Flight("pg-skytraxx-13min.igc");
  const sim::InstrumentSettings two = {.flights = {iq, sky}};
  auto cut = [](int reply, int64_t at) { return sim::LineFault{sim::FaultKind::kCut, reply, at}; };
  auto flip = [](int reply, int64_t at) { return sim::LineFault{sim::FaultKind::kFlip, reply, at}; };
  auto faulty = [&](std::vector<std::string> faults) {
    sim::InstrumentSettings s = two;
    s.faults = std::move(faults);
    return s;
  };
  std::vector<test::Scenario> runs = {
      {.label = "-f2", .family = "ascent", .settings = two, .args = {"-f2", "-l"}},
      {.label = "typed", .family = "ascent", .settings = two, .args = {"-l"}, .input = "1\n"},
      {.label = "all", .family = "ascent", .settings = two, .args = {"-L"}},
      {.label = "first block 2", .family = "ascent", .settings = faulty({"first-block-2"}), .args = {"-f1", "-l"}},
      {.label = "unsupported", .family = "ascent", .settings = {.firmware = "2367", .flights = {iq, sky}},
       .args = {"-f1", "-l"}},
      {.label = "-f0", .family = "ascent", .settings = two, .args = {"-f0", "-l"}},
      {.label = "-f3", .family = "ascent", .settings = two, .args = {"-f3", "-l"}},
      {.label = "typed text", .family = "ascent", .settings = two, .args = {"-l"}, .input = "next\n"},
      {.label = "skipped block", .family = "ascent", .settings = {.flights = {iq, sky, iq}, .faults = {"skip-block"}},
       .args = {"-f1", "-l"}},
      {.label = "bad list id", .family = "ascent", .settings = two, .faults = {flip(2, 0)}, .args = {"-f1", "-l"}},
      {.label = "no tracks", .family = "ascent", .settings = {}, .args = {"-f1", "-l"}},
      {.label = "one flight", .family = "ascent", .settings = {.flights = {iq}}, .args = {"-f1", "-l"}},
      {.label = "no section 1", .family = "ascent", .settings = faulty({"no-section-1"}), .args = {"-f1", "-l"}},
      {.label = "bad packet start", .family = "ascent", .settings = two, .faults = {flip(4, 0)},
       .args = {"-f1", "-l"}},
      {.label = "bad section", .family = "ascent", .settings = two, .faults = {flip(4, 1)}, .args = {"-f1", "-l"}},
      {.label = "bad product id", .family = "ascent", .settings = two, .faults = {flip(1, 0)}, .args = {"-f1", "-l"}},
      {.label = "list stops", .family = "ascent", .settings = two, .faults = {cut(2, 5)}, .args = {"-f1", "-l"}},
      {.label = "flight stops", .family = "ascent", .settings = two, .faults = {cut(8, 100)}, .args = {"-f1", "-l"}},
  };
  test::RunScenarios(&runs);

  const std::string product = "Product: Ascent, SNR 1A2B3C4D, SW 2.368\n";
  const std::string list =
      "Track list:\n 1   04.10.23   14:30:00   00:27:00\n 2   06.03.21   10:34:00   00:03:00\n";
  // Only the raw log's allocated size holds the text's length, so the raw
  // file saved after a download is empty; the document is whole.
  const std::string iqBase = "2023-10-04_14-30", skyBase = "2021-03-06_10-34";
  const std::string savedIq = test::SavedOutput(iqBase, 0, true), savedSky = test::SavedOutput(skyBase, 0, true);
  struct Expected {
    std::string out;  // between the port's greeting and its farewell
    std::string after = "";
  } expected[] = {
      {product + list + "Lines: 0\nGot 221 points\n", savedSky},
      {product + list + "Select: Lines: 0\nGot 194 points\n", savedIq},
      {product + list + "Getting flight number 1\nLines: 0\nGot 194 points\n" + savedIq +
       "Getting flight number 2\nLines: 0\nGot 221 points\n" + savedSky},
      {product + list + "Lines: 0\nGot 194 points\n", savedIq},
      {"Product: Ascent, SNR 1A2B3C4D, SW 2.367\nUnsupported firmware version\n"},
      {product + list + "Flight number out of range\n"},
      {product + list + "Flight number out of range\n"},
      {product + list + "Select: No flight number found\n"},
      {product + "Track list:\n 1   04.10.23   14:30:00   00:27:00\nData error (bad block number)\n"},
      {product + "Track list:\nData error (bad message ID)\n"},
      {product + "Track list:\nNo tracks in list\n"},
      {product + "Track list:\nNo tracks found\n"},
      {product + list + "Lines: 0Missing IGC data block\n"},
      {product + list + "Lines: 0Bad response in state 0 (0x02)\n"},
      {product + list + "Lines: 0Bad response from GPS\n"},
      {"Product: Timeout or invalid response\n"},
      {product + "Track list:\nTimeout waiting for data\n"},
      {product + list + "Lines: 0Missing IGC data block\n"},
  };
  ASSERT_EQ(std::size(expected), runs.size());
  for (size_t i = 0; i < runs.size(); ++i) {
    const test::Scenario& s = runs[i];
    EXPECT_EQ(s.result.status, 0) << s.label;
    EXPECT_EQ(s.result.out,
              test::Opened("/dev/cu." + s.port) + expected[i].out + "Exiting COM thread\n" + expected[i].after)
        << s.label;
    EXPECT_EQ(s.files.size(), i < 4 ? (i == 2 ? 4u : 2u) : 0u) << s.label;
  }
  const std::string ascent = "Ascent, SNR 1A2B3C4D, SW 2.368";
  test::ExpectSavedFlight(runs[0], skyBase, "", 221, true, ascent);
  test::ExpectSavedFlight(runs[1], iqBase, "", 194, true, ascent);
  test::ExpectSavedFlight(runs[2], iqBase, "", 194, true, ascent);
  test::ExpectSavedFlight(runs[2], skyBase, "", 221, true, ascent);
  test::ExpectSavedFlight(runs[3], iqBase, "", 194, true, ascent);
  // The ignored first message is asked for again.
  EXPECT_EQ(std::count(runs[3].commands.begin(), runs[3].commands.end(), std::string("\x03\x05")), 3);
  EXPECT_EQ(std::count(runs[0].commands.begin(), runs[0].commands.end(), std::string("\x03\x05")), 2);
  // Nothing is asked after an unsupported firmware.
  EXPECT_EQ(runs[4].commands, std::vector<std::string>{"\x01"});
}

}  // namespace
