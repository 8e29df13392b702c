#include "core/console.h"

#include <fcntl.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>

#include "core/clock.h"
#include "core/run.h"

int GetUserInput(char* buffer, int size) {
  int flags = fcntl(STDIN_FILENO, F_GETFL);
  if (flags == -1 || fcntl(STDIN_FILENO, F_SETFL, flags | O_NONBLOCK) == -1) {
    std::printf("Could not set STDIN non-blocking\n");
    return -1;
  }
  std::fflush(stdout);
  int stored = 0;
  while (tGps.bAbort == 0 && stored < size - 1) {
    char c;
    ssize_t got = read(STDIN_FILENO, &c, 1);
    if (got == 1) {
      buffer[stored++] = c;
      if (c == '\n') break;
    } else if (got == 0) {
      break;  // end of input: nobody is left to type the rest
    } else {
      usleep(10000);
    }
  }
  if (size > 0) buffer[stored] = '\0';
  // Give the shell its terminal back as it was.
  fcntl(STDIN_FILENO, F_SETFL, flags);
  return 0;
}

bool AskFlightNumber(int lineSize, int32_t* number, bool quietWhenUnread) {
  std::printf("Select: ");
  std::fflush(stdout);
  char line[128] = "";
  if (lineSize > static_cast<int>(sizeof line)) lineSize = sizeof line;
  const bool unread = GetUserInput(line, lineSize) < 0;
  char* end = nullptr;
  const long value = std::strtol(line, &end, 10);
  if (end == line) {
    if (!(unread && quietWhenUnread)) std::printf("No flight number found\n");
    return false;
  }
  *number = static_cast<int32_t>(value > INT32_MAX ? INT32_MAX : value < INT32_MIN ? INT32_MIN : value);
  return true;
}

int32_t ChooseFlightNumber(int32_t count, int lineSize, bool quietWhenUnread) {
  int32_t number = tGps.nFlightNumber;
  if (number < 0 && !AskFlightNumber(lineSize, &number, quietWhenUnread)) return -1;
  if (number < 1 || number > count) {
    std::printf("Flight number out of range\n");
    return -1;
  }
  return number;
}

ProgressCounter::ProgressCounter(const char* label, uint64_t intervalMicroseconds)
    : label_(label), interval_(intervalMicroseconds), lastPrint_(GetWallClockMicroseconds()), digits_(1) {
  std::printf(tGps.bScroll ? "%s0\n" : "%s0", label_);
  std::fflush(stdout);
}

void ProgressCounter::Update(int32_t count) {
  uint64_t now = GetWallClockMicroseconds();
  if (now - lastPrint_ < interval_) return;
  lastPrint_ = now;
  Print(count, "");
}

void ProgressCounter::Finish(int32_t count) { Print(count, "\n"); }

void ProgressCounter::Print(int32_t count, const char* end) {
  static constexpr char kBackspaces[] = "\b\b\b\b\b\b\b\b";
  if (tGps.bScroll) {
    std::printf("%s%d\n", label_, count);
  } else {
    int back = digits_ < 8 ? digits_ : 8;
    char number[16];
    digits_ = std::snprintf(number, sizeof number, "%d", count);
    std::printf("%s%s%s", kBackspaces + 8 - back, number, end);
  }
  std::fflush(stdout);
}
