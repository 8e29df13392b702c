#include "link/com.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/file.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/run.h"

int32_t hComPort = -1;

namespace {

const LinkStandIn* pStandIn = nullptr;

// What the terminal was set to before the program opened it.
termios tSavedSettings;
bool bSavedSettings = false;

constexpr int kReadChunk = 300;
constexpr useconds_t kPollSleep = 10000;
constexpr useconds_t kFullSleep = 100000;
// How long open and close wait for the reader thread to start or end; far
// above its 10 ms cycle.
constexpr int kThreadWaitSteps = 2000;

// Thread states besides the cleared 0 and the final -1.
constexpr int32_t kThreadRunning = 1;
constexpr int32_t kThreadEnded = -1;

int32_t NextFifoIndex(int32_t index) { return index + 1 == kComFifoSize ? 0 : index + 1; }

speed_t ToSpeed(int32_t baud) {
  switch (baud) {
    case 115200:
      return B115200;
    case 57600:
      return B57600;
    case 38400:
      return B38400;
    case 19200:
      return B19200;
    case 4800:
      return B4800;
    default:
      return B9600;
  }
}

// Raw terminal settings built from zero.
termios RawSettings(speed_t speed, tcflag_t controlFlags) {
  termios settings;
  std::memset(&settings, 0, sizeof settings);
  settings.c_iflag = IGNPAR;
  settings.c_cflag = controlFlags;
  settings.c_cc[VMIN] = 1;
  settings.c_cc[VTIME] = 0;
  cfsetispeed(&settings, speed);
  cfsetospeed(&settings, speed);
  return settings;
}

void WaitForThreadState(bool (*done)(int32_t)) {
  for (int i = 0; i < kThreadWaitSteps && !done(tGps.nComThreadState.load(std::memory_order_acquire)); ++i) {
    usleep(1000);
  }
}

}  // namespace

int32_t OpenComPort(int32_t baud) {
  if (pStandIn != nullptr) {
    pStandIn->opened(1);
    std::printf("Opened port %s\nStarting COM thread\n", tGps.szComPort);
    tGps.nFifoRead.store(0, std::memory_order_relaxed);
    tGps.nFifoWrite.store(0, std::memory_order_relaxed);
    return 0;
  }
  int fd = open(tGps.szComPort, O_RDWR | O_NONBLOCK | O_NOCTTY);
  // One program a port: a second one is turned away as if the port were not
  // there. An advisory lock holds for root too, unlike the terminal's own
  // exclusive mode, and a link in /dev leads to the same device and lock.
  // Closing the port (or the end of the process) releases it.
  if (fd >= 0 && flock(fd, LOCK_EX | LOCK_NB) != 0) {
    close(fd);
    fd = -1;
  }
  if (fd < 0) {
    if (!tGps.bSilent) std::printf("Could not open COM port %s\n", tGps.szComPort);
    return -1;
  }
  hComPort = fd;
  bSavedSettings = tcgetattr(fd, &tSavedSettings) == 0;
  std::printf("Opened port %s\n", tGps.szComPort);

  // No CREAD or CLOCAL here: SetComSpeed adds them.
  termios settings = RawSettings(ToSpeed(baud), CS8);
  tcflush(hComPort, TCIFLUSH);
  tcsetattr(hComPort, TCSANOW, &settings);

  tGps.nFifoRead.store(0, std::memory_order_relaxed);
  tGps.nFifoWrite.store(0, std::memory_order_relaxed);
  tGps.bComThreadStop.store(0, std::memory_order_relaxed);
  tGps.nComThreadState.store(0, std::memory_order_release);

  pthread_attr_t attributes;
  pthread_t thread;
  bool started = pthread_attr_init(&attributes) == 0 &&
                 pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED) == 0 &&
                 pthread_create(&thread, &attributes, ComThread, nullptr) == 0;
  pthread_attr_destroy(&attributes);
  if (!started) {
    CloseComPort();
    if (!tGps.bSilent) std::printf("Could not start COM read thread");
    return -1;
  }
  // Its greeting comes before anything the caller prints next.
  WaitForThreadState([](int32_t state) { return state != 0; });
  return 0;
}

int32_t SetComSpeed(int32_t baud) {
  if (pStandIn != nullptr) {
    pStandIn->speed(baud);
    return 0;
  }
  speed_t speed = B9600;
  if (baud == 57600 || baud == 38400 || baud == 19200 || baud == 4800) speed = ToSpeed(baud);
  termios settings = RawSettings(speed, CS8 | CREAD | CLOCAL);
  tcflush(hComPort, TCIFLUSH);
  tcsetattr(hComPort, TCSANOW, &settings);
  return 0;
}

int32_t CloseComPort() {
  if (pStandIn != nullptr) {
    pStandIn->opened(0);
    std::printf("Exiting COM thread\n");
    return 0;
  }
  tGps.bComThreadStop.store(1, std::memory_order_release);
  WaitForThreadState([](int32_t state) { return state != kThreadRunning; });
  if (bSavedSettings) tcsetattr(hComPort, TCSANOW, &tSavedSettings);
  bSavedSettings = false;
  return close(hComPort);
}

void* ComThread(void*) {
  std::printf("Starting COM thread\n");
  tGps.nComThreadState.store(kThreadRunning, std::memory_order_release);
  uint8_t buffer[kReadChunk];
  while (tGps.bComThreadStop.load(std::memory_order_acquire) == 0) {
    int fd = hComPort;
    if (fd < 0) continue;
    ssize_t count = read(fd, buffer, sizeof buffer);
    for (ssize_t i = 0; i < count; ++i) {
      int32_t head = tGps.nFifoWrite.load(std::memory_order_relaxed);
      int32_t next = NextFifoIndex(head);
      // A full FIFO waits for the reader: bytes are never dropped. Only a
      // closing port, where nobody is left to read, ends the wait.
      while (next == tGps.nFifoRead.load(std::memory_order_acquire)) {
        if (tGps.bComThreadStop.load(std::memory_order_acquire) != 0) break;
        if (!tGps.bSilent) std::printf("\nCOM FIFO full\n");
        usleep(kFullSleep);
      }
      if (next == tGps.nFifoRead.load(std::memory_order_acquire)) break;
      tGps.abComFifo[head] = buffer[i];
      tGps.nFifoWrite.store(next, std::memory_order_release);
    }
    usleep(kPollSleep);
  }
  std::printf("Exiting COM thread\n");
  std::fflush(stdout);
  tGps.nComThreadState.store(kThreadEnded, std::memory_order_release);
  return nullptr;
}

void FlushComFifo() {
  tGps.nFifoRead.store(tGps.nFifoWrite.load(std::memory_order_acquire), std::memory_order_release);
}

int32_t NonEmptyComFifo() {
  return tGps.nFifoRead.load(std::memory_order_relaxed) != tGps.nFifoWrite.load(std::memory_order_acquire)
             ? 1
             : 0;
}

int32_t NonEmptyComFifoWithSleep(int32_t milliseconds) {
  if (NonEmptyComFifo()) return 1;
  PauseLink(static_cast<uint32_t>(milliseconds) * 1000u);
  return 0;
}

uint8_t ReadComFifo() {
  int32_t tail = tGps.nFifoRead.load(std::memory_order_relaxed);
  uint8_t byte = tGps.abComFifo[tail];
  tGps.nFifoRead.store(NextFifoIndex(tail), std::memory_order_release);
  return byte;
}

int32_t WriteComString(const char* text) {
  if (pStandIn != nullptr) {
    pStandIn->sent(reinterpret_cast<const uint8_t*>(text), static_cast<int32_t>(std::strlen(text)));
    return 0;
  }
  ssize_t ignored = write(hComPort, text, std::strlen(text));
  (void)ignored;
  return 0;
}

int32_t WriteComData(const uint8_t* data, int32_t length) {
  if (length <= 0) return 0;
  if (pStandIn != nullptr) {
    pStandIn->sent(data, length);
    return 0;
  }
  ssize_t ignored = write(hComPort, data, static_cast<size_t>(length));
  (void)ignored;
  return 0;
}

void WriteComFifo(uint8_t byte) {
  int32_t head = tGps.nFifoWrite.load(std::memory_order_relaxed);
  tGps.abComFifo[head] = byte;
  tGps.nFifoWrite.store(NextFifoIndex(head), std::memory_order_release);
}

void UseLinkStandIn(const LinkStandIn* standIn) { pStandIn = standIn; }

void PauseLink(uint32_t microseconds) {
  if (pStandIn != nullptr) {
    pStandIn->waited(microseconds);
    return;
  }
  usleep(static_cast<useconds_t>(microseconds));
}
