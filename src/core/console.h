// The terminal: typed input and the progress counter every transfer shows.
#pragma once

#include <cstdint>

// Reads one typed line into `buffer` (at most size - 1 characters, the line
// feed kept); an interrupt ends the wait with what was typed so far. 0, or
// -1 when standard input cannot be made non-blocking.
int GetUserInput(char* buffer, int size);

// Asks "Select: " for a flight number on a line of at most `lineSize` - 1
// characters: the leading number as strtol reads it, kept within 32 bits
// (beyond them it is out of any list's range either way). A line without a
// number prints "No flight number found" and gives false; so does input
// that cannot be read, silently where `quietWhenUnread` asks for it.
bool AskFlightNumber(int lineSize, int32_t* number, bool quietWhenUnread = false);

// The flight to fetch from a list of `count`: the -f number, or the one
// typed; "Flight number out of range" and -1 when it is not in the list,
// -1 too when none was typed.
int32_t ChooseFlightNumber(int32_t count, int lineSize, bool quietWhenUnread = false);

// "Label: 0", then the number overwritten in place by backspaces at most
// once per interval, or a full line per update with --scroll.
class ProgressCounter {
 public:
  ProgressCounter(const char* label, uint64_t intervalMicroseconds = 500000);
  void Update(int32_t count);
  void Finish(int32_t count);

 private:
  void Print(int32_t count, const char* end);

  const char* label_;
  uint64_t interval_;
  uint64_t lastPrint_;
  int digits_;
};
