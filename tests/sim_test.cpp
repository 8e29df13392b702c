// The instrument simulator itself: line faults, port links, its file
// readers and the kestrix-sim program.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/file.h>
#include <termios.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "sim/sim.h"
#include "support.h"

namespace {

// Answers every byte with ten digits.
class Counter : public sim::Instrument {
 public:
  void Receive(uint8_t, sim::Line& line) override {
    line.BeginReply();
    line.Send("0123456789");
  }
};

// The program's end of a simulator's terminal, raw.
class ProgramEnd {
 public:
  explicit ProgramEnd(const std::string& path) {
    fd_ = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    EXPECT_GE(fd_, 0);
    termios t{};
    tcgetattr(fd_, &t);
    cfmakeraw(&t);
    tcsetattr(fd_, TCSANOW, &t);
  }
  ~ProgramEnd() { close(fd_); }
  void Send(const std::string& bytes) const {
    EXPECT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // Everything that arrives within a second and then until the line has
  // been quiet for `quietMs`.
  std::string Collect(int quietMs) const {
    std::string got;
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, got.empty() ? 1000 : quietMs) <= 0) return got;
      char buffer[512];
      ssize_t n = read(fd_, buffer, sizeof buffer);
      if (n <= 0) return got;
      got.append(buffer, static_cast<size_t>(n));
    }
  }

 private:
  int fd_ = -1;
};

TEST(Simulator, LineFaultsHitTheirReplyAndOffset) {
  std::vector<sim::LineFault> faults = {
      {sim::FaultKind::kCut, 1, 4},
      {sim::FaultKind::kFlip, 3, 3},
      {sim::FaultKind::kPause, 4, 6, 400},
      {sim::FaultKind::kCut, 0, 31},
  };
  sim::Simulator simulator(std::make_unique<Counter>(), 0, faults);
  ASSERT_EQ(simulator.Start(), 0) << simulator.error();
  ProgramEnd program(simulator.path());
  // Reply 4 pauses after six bytes and ends at the session's limit: 4 + 10 +
  // 10 + 7 bytes in all.
  const std::string expected[] = {"0123", "0123456789", "0122456789", "0123456", ""};
  for (int reply = 0; reply < 5; ++reply) {
    program.Send("?");
    EXPECT_EQ(program.Collect(reply == 3 ? 600 : 150), expected[reply]) << "reply " << reply + 1;
  }
  EXPECT_EQ(simulator.ReceivedBytes(), "?????");
}

TEST(Simulator, FaultArgumentsAndFileReaders) {
  sim::LineFault f{};
  EXPECT_TRUE(sim::ParseLineFault(sim::FaultKind::kPause, "3:120:2500", &f));
  EXPECT_EQ(f.reply, 3);
  EXPECT_EQ(f.offset, 120);
  EXPECT_EQ(f.milliseconds, 2500);
  EXPECT_TRUE(sim::ParseLineFault(sim::FaultKind::kCut, "0:0", &f));
  for (const char* bad : {"", "3", "3:x", "3:4:5", "-1:4", "3:4:"}) {
    EXPECT_FALSE(sim::ParseLineFault(sim::FaultKind::kCut, bad, &f)) << bad;
  }
  EXPECT_FALSE(sim::ParseLineFault(sim::FaultKind::kPause, "3:4", &f));

  std::vector<sim::SimWaypoint> w;
  EXPECT_TRUE(sim::ReadOziWaypoints(
      "OziExplorer Waypoint File Version 1.0\r\nWGS 84\r\nReserved 2\r\nReserved 3\r\n"
      "   1,TOP01         ,  46.504167,   7.258333,45000.0000000,0, 1, 3, 0, 65535,Launch west   , 0, 0, 0, 4101\r\n"
      "   2,LOW           , -33.500000, -70.250000,0,0, 1, 3, 0, 65535,, 0, 0, 0, -777\r\n",
      &w));
  ASSERT_EQ(w.size(), 2u);
  EXPECT_EQ(w[0].id, "TOP01");
  EXPECT_EQ(w[0].name, "Launch west");
  EXPECT_DOUBLE_EQ(w[0].latitude, 46.504167);
  EXPECT_EQ(w[0].altitude, 1250);
  EXPECT_DOUBLE_EQ(w[1].longitude, -70.25);
  EXPECT_EQ(w[1].altitude, 0);
  EXPECT_FALSE(sim::ReadOziWaypoints("$FormatGEO\r\n", &w));

  sim::FlightSummary s = sim::SummarizeFlight(test::ReadFile(test::DataFile("igc/hg-fai5-xctrack-10min.igc")));
  EXPECT_EQ(s.day, 4);
  EXPECT_EQ(s.month, 9);
  EXPECT_EQ(s.year, 20);
  s = sim::SummarizeFlight("AXXX\nHFDTE311224\nHFPLTPILOTINCHARGE:  Jo Doe  \nB2359500000000N00000000EA0000000000\n"
                           "B0001050000000N00000000EA0000000000\n");
  EXPECT_EQ(s.year, 24);
  EXPECT_EQ(s.pilot, "Jo Doe");
  EXPECT_EQ(s.firstSecond, 86390);
  EXPECT_EQ(s.lastSecond, 65);
}

std::string LinkTarget(const std::string& path) {
  char target[256];
  ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
  return n < 0 ? "" : std::string(target, static_cast<size_t>(n));
}

TEST(PortLinks, ReplaceStaleTerminalLinksOnlyAndCleanUpAfterThemselves) {
  REQUIRE_PORT_LINKS();
  std::string name = test::UniquePortName();
  std::string path = "/dev/cu." + name;
  {
    sim::PortLink first(name, "/dev/pts/9999");
    ASSERT_TRUE(first.ok()) << first.error();
    EXPECT_EQ(LinkTarget(path), "/dev/pts/9999");
    sim::PortLink second(name, "/dev/pts/9998");  // a link left by a killed run
    ASSERT_TRUE(second.ok()) << second.error();
    EXPECT_EQ(LinkTarget(path), "/dev/pts/9998");
  }
  EXPECT_EQ(LinkTarget(path), "") << "removed by the one that owns it";

  ASSERT_EQ(symlink("/tmp", path.c_str()), 0);
  {
    sim::PortLink refused(name, "/dev/pts/9999");
    EXPECT_FALSE(refused.ok());
    EXPECT_EQ(refused.error(), path + " exists and is not a simulator link");
  }
  EXPECT_EQ(LinkTarget(path), "/tmp");
  unlink(path.c_str());
}

// kestrix-sim as a user runs it: started in the background, then kestrix
// against the port it linked, then stopped with Ctrl-C or SIGTERM; a
// second kestrix on the same port while the first holds it is refused.
TEST(PortLinks, KestrixSimServesAFlightUntilStopped) {
  REQUIRE_PORT_LINKS();
  for (int signal : {SIGINT, SIGTERM}) {
    const std::string port = test::UniquePortName();
    const std::string device = "/dev/cu." + port;
    test::SimProgram simulator({"flytec", "--model", "COMPETINO+", "--flights",
                                test::DataFile("igc/pg-iqbasic-8s.igc"), "--flat", "--port", port});
    EXPECT_NE(simulator.greeting().find("Linked " + device + " -> /dev/pts/"), std::string::npos)
        << simulator.greeting();

    test::TempDir dir;
    const std::vector<std::string> args = {"-gc", "-cu." + port, "-f1", "-l"};
    {
      const int holder = open(device.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
      ASSERT_GE(holder, 0);
      ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
      EXPECT_EQ(test::RunKestrix(args, dir.path()).out, "Could not open COM port " + device + "\n");
      close(holder);
    }
    const test::RunResult r = test::RunKestrix(args, dir.path());
    EXPECT_NE(r.out.find("Product: COMPETINO+, SN00565, SW3.25\nTrack list:\n1   04.10.23   14:30:07   00:27:05\n"),
              std::string::npos)
        << r.out;
    EXPECT_NE(r.out.find("194\nExiting COM thread\n"), std::string::npos) << r.out;

    int status = -1;
    EXPECT_EQ(simulator.Stop(&status, signal),
              "<- $PBRSNP,*21\n-> product COMPETINO+ 3.25\n<- $PBRTL,*74\n-> list of 1 flights\n"
              "<- $PBRTR,00*6A\n-> flight 1 (10189 bytes)\nStopped\n");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(LinkTarget(device), "") << "the link goes with the simulator";
  }
}

}  // namespace
