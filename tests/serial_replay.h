// A serial instrument that answers each command the program writes with the
// next piece of a script, on a clock of its own, so that a whole download
// runs in milliseconds however long its silence limits are.
//
// Script: byte 0 picks the action (a family's download or waypoint
// transfer, modulo the number of actions), byte 1 the flight number (-f:
// value % 8 - 1, so -1 means the user is asked and reads an empty line),
// then the answers, in the order of the commands, separated by kSeparator.
// An answer runs out, and the line goes silent, where its piece ends.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace replay {

inline constexpr char kSeparator[] = "#~#";

struct Action {
  const char* name;
  int32_t gpsType;
  uint32_t command;
  int32_t (*run)();
};

const std::vector<Action>& Actions();

struct Outcome {
  int32_t result;
  int opens;   // of the port
  int closes;
  size_t commands;  // writes of the program
};

// Plays the script against the program's module; with `save` a download
// runs as the dispatch runs it, saving its files in the current folder.
Outcome Replay(const uint8_t* data, size_t size, bool save = false);

// Runs action `action` against a live instrument on the terminal `device`
// (a simulator's) and returns the script that replays that conversation.
std::string Record(size_t action, uint8_t flight, const std::string& device);

}  // namespace replay
