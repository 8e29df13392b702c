// The serial port and its receive FIFO, on a pseudo-terminal.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "core/run.h"
#include "driver/families.h"
#include "link/com.h"
#include "support.h"

namespace {

// The far end of a pseudo-terminal; the port under test opens the near end.
class FarEnd {
 public:
  FarEnd() {
    fd_ = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    EXPECT_GE(fd_, 0);
    EXPECT_EQ(grantpt(fd_), 0);
    EXPECT_EQ(unlockpt(fd_), 0);
    char name[64] = "";
    EXPECT_EQ(ptsname_r(fd_, name, sizeof name), 0);
    path_ = name;
  }
  ~FarEnd() { close(fd_); }
  const std::string& path() const { return path_; }
  void Send(const std::string& bytes) const {
    ASSERT_EQ(write(fd_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // Whatever the port wrote, waiting up to a second for `count` bytes.
  std::string Take(size_t count) const {
    std::string got;
    for (int i = 0; i < 100 && got.size() < count; ++i) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 10) > 0 && (p.revents & POLLIN)) {
        char buffer[256];
        ssize_t n = read(fd_, buffer, sizeof buffer);
        if (n > 0) got.append(buffer, static_cast<size_t>(n));
      }
    }
    return got;
  }
  termios Settings() const {
    termios t{};
    tcgetattr(fd_, &t);
    return t;
  }

 private:
  int fd_ = -1;
  std::string path_;
};

void UsePort(const FarEnd& far, int32_t type) {
  test::FreshRunParameters();
  std::snprintf(tGps.szComPort, sizeof tGps.szComPort, "%s", far.path().c_str());
  tGps.dwGpsType = type;
}

// Reads what arrives in the FIFO, waiting up to a second for `count` bytes.
std::string Drain(size_t count) {
  std::string got;
  for (int i = 0; i < 100 && got.size() < count;) {
    if (NonEmptyComFifoWithSleep(10)) {
      got += static_cast<char>(ReadComFifo());
    } else {
      ++i;
    }
  }
  return got;
}

TEST(ComPort, OpensRawAtTheSpeedOfTheInstrumentTypeAndReconfigures) {
  FarEnd far;
  struct Case {
    int32_t type;
    int32_t configured;
    speed_t speed;
  } opens[] = {
      {1, 0, B57600}, {5, 0, B57600}, {7, 0, B57600},   {4, 0, B57600},     {6, 0, B38400},
      {12, 0, B38400}, {13, 0, B115200}, {3, 0, B4800}, {2, 0, B9600},     {8, 0, B9600},
      {8, 19200, B19200}, {10, 0, B9600}, {11, 0, B9600}, {9, 0, B9600},
  };
  const termios found = far.Settings();
  for (const Case& c : opens) {
    UsePort(far, c.type);
    tGps.nComSpeed = c.configured;
    testing::internal::CaptureStdout();
    ASSERT_EQ(OpenComPort(GetComSpeedForType(tGps.dwGpsType)), 0) << c.type;
    termios t = far.Settings();
    EXPECT_EQ(cfgetispeed(&t), c.speed) << c.type;
    EXPECT_EQ(cfgetospeed(&t), c.speed) << c.type;
    EXPECT_EQ(t.c_cflag & CSIZE, static_cast<tcflag_t>(CS8));
    EXPECT_EQ(t.c_cflag & (CLOCAL | PARENB | CSTOPB), 0u) << "CLOCAL waits for SetComSpeed";
    EXPECT_EQ(t.c_iflag, static_cast<tcflag_t>(IGNPAR));
    EXPECT_EQ(t.c_oflag, 0u);
    EXPECT_EQ(t.c_lflag, 0u);
    EXPECT_EQ(t.c_cc[VMIN], 1);
    EXPECT_EQ(t.c_cc[VTIME], 0);
    EXPECT_EQ(CloseComPort(), 0);
    // Closing puts back what the port had before it was opened.
    const termios left = far.Settings();
    EXPECT_EQ(left.c_iflag, found.c_iflag);
    EXPECT_EQ(left.c_oflag, found.c_oflag);
    EXPECT_EQ(left.c_cflag, found.c_cflag);
    EXPECT_EQ(left.c_lflag, found.c_lflag);
    EXPECT_EQ(cfgetospeed(&left), cfgetospeed(&found));
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "Opened port " + far.path() + "\nStarting COM thread\nExiting COM thread\n");
  }

  struct Reconfigure {
    int32_t baud;
    speed_t speed;
  } speeds[] = {{57600, B57600}, {38400, B38400}, {19200, B19200}, {4800, B4800},
                {115200, B9600}, {9600, B9600},   {1200, B9600}};
  UsePort(far, kGpsMlr);
  testing::internal::CaptureStdout();
  ASSERT_EQ(OpenComPort(GetComSpeedForType(tGps.dwGpsType)), 0);
  for (const Reconfigure& r : speeds) {
    EXPECT_EQ(SetComSpeed(r.baud), 0);
    termios t = far.Settings();
    EXPECT_EQ(cfgetispeed(&t), r.speed) << r.baud;
    EXPECT_EQ(t.c_cflag & (CLOCAL | CREAD | CSIZE), static_cast<tcflag_t>(CLOCAL | CREAD | CS8)) << r.baud;
  }
  CloseComPort();
  testing::internal::GetCapturedStdout();
}

TEST(ComPort, OpenFailureSaysWhichPortUnlessSilent) {
  for (int silent : {0, 1}) {
    test::FreshRunParameters();
    tGps.bSilent = silent;
    std::snprintf(tGps.szComPort, sizeof tGps.szComPort, "/dev/cu.kestrix-missing");
    testing::internal::CaptureStdout();
    EXPECT_EQ(OpenComPort(GetComSpeedForType(tGps.dwGpsType)), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              silent ? "" : "Could not open COM port /dev/cu.kestrix-missing\n");
  }
}

TEST(ComPort, BytesTravelBothWaysAndAFlushForgetsWhatCame) {
  FarEnd far;
  UsePort(far, kGpsGalileo);
  testing::internal::CaptureStdout();
  ASSERT_EQ(OpenComPort(GetComSpeedForType(tGps.dwGpsType)), 0);

  EXPECT_EQ(WriteComString("\x11$PBRSNP,*21\r\n"), 0);
  const uint8_t binary[] = {0x00, 0xFF, 0x13, '\n', 0x80};
  EXPECT_EQ(WriteComData(binary, sizeof binary), 0);
  EXPECT_EQ(far.Take(19), std::string("\x11$PBRSNP,*21\r\n") + std::string("\x00\xFF\x13\n\x80", 5));

  std::string incoming("line one\r\n\x00\x11\xFE", 13);
  far.Send(incoming);
  EXPECT_EQ(Drain(incoming.size()), incoming);
  EXPECT_EQ(NonEmptyComFifo(), 0);

  far.Send("stale");
  for (int i = 0; i < 100 && NonEmptyComFifo() == 0; ++i) usleep(10000);
  EXPECT_EQ(NonEmptyComFifo(), 1);
  usleep(50000);  // let the whole of it arrive
  FlushComFifo();
  EXPECT_EQ(NonEmptyComFifo(), 0);
  far.Send("x");
  EXPECT_EQ(Drain(1), "x");

  CloseComPort();
  testing::internal::GetCapturedStdout();
}

TEST(ComPort, SleepingPollDoesNotLookAgainAfterItsSleep) {
  test::FreshRunParameters();
  EXPECT_EQ(NonEmptyComFifoWithSleep(10), 0);
  WriteComFifo('a');
  EXPECT_EQ(NonEmptyComFifoWithSleep(200), 1);
  EXPECT_EQ(ReadComFifo(), 'a');

  // A byte that arrives during the sleep is left for the next call.
  std::thread late([] {
    usleep(20000);
    WriteComFifo('b');
  });
  EXPECT_EQ(NonEmptyComFifoWithSleep(150), 0);
  late.join();
  EXPECT_EQ(NonEmptyComFifoWithSleep(10), 1);
  EXPECT_EQ(ReadComFifo(), 'b');
}

// The FIFO is put at its full mark while the line is idle, across the end
// of the ring, so that both indices wrap on the way out.
TEST(ComPort, AFullFifoMakesTheThreadWaitWithoutLosingAByte) {
  const std::string pattern = "0123456789abcdefghijklmnopqrstuv";
  for (int silent : {0, 1}) {
    FarEnd far;
    UsePort(far, kGpsGalileo);
    tGps.bSilent = silent;
    testing::internal::CaptureStdout();
    ASSERT_EQ(OpenComPort(GetComSpeedForType(tGps.dwGpsType)), 0);
    tGps.nFifoRead = kComFifoSize - 5;
    tGps.nFifoWrite = kComFifoSize - 6;  // 99999 bytes held

    far.Send(pattern);
    usleep(450000);
    EXPECT_EQ(tGps.nFifoWrite, kComFifoSize - 6) << "nothing may be stored into a full FIFO";

    for (int i = 0; i < kComFifoSize - 1; ++i) ReadComFifo();
    EXPECT_EQ(tGps.nFifoRead, kComFifoSize - 6);
    EXPECT_EQ(Drain(pattern.size()), pattern);
    EXPECT_EQ(tGps.nFifoRead, static_cast<int32_t>(pattern.size()) - 6);
    EXPECT_EQ(tGps.nFifoWrite, tGps.nFifoRead);
    CloseComPort();

    std::string out = testing::internal::GetCapturedStdout();
    size_t warnings = 0;
    for (size_t at = out.find("\nCOM FIFO full\n"); at != std::string::npos; at = out.find("\nCOM FIFO full\n", at + 1)) {
      ++warnings;
    }
    if (silent) {
      EXPECT_EQ(warnings, 0u);
    } else {
      EXPECT_GE(warnings, 2u) << "repeated every 100 ms while full";
      EXPECT_LE(warnings, 8u);
    }
  }
}

}  // namespace
