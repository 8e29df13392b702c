// What each switch stores in the run parameters: the table is
// tests/data/arguments/switches.txt; the long names are made here.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "core/run.h"
#include "driver/cmd.h"
#include "support.h"

namespace {

// Parses like the program does: fresh parameters, output captured.
int Parse(std::vector<std::string> args, std::string* out) {
  test::FreshRunParameters();
  std::vector<char*> argv;
  for (std::string& a : args) argv.push_back(a.data());
  testing::internal::CaptureStdout();
  const int result = ParseArguments(static_cast<int>(argv.size()), argv.data());
  std::fflush(stdout);
  *out = testing::internal::GetCapturedStdout();
  return result;
}

// The field `name` of the run parameters as text.
std::string Field(const std::string& name, int result, const std::string& out) {
  const std::map<std::string, std::string> fields = {
      {"result", std::to_string(result)},           {"out", out},
      {"type", std::to_string(tGps.dwGpsType)},     {"port", tGps.szComPort},
      {"name", tGps.szFileName},                    {"types", std::to_string(tGps.dwFileTypes)},
      {"command", std::to_string(tGps.dwCommand)},  {"gap", std::to_string(tGps.nGapSeconds)},
      {"flight", std::to_string(tGps.nFlightNumber)}, {"noana", std::to_string(tGps.bNoAnalysis)},
      {"trim", std::to_string(tGps.bTrim)},         {"debug", std::to_string(tGps.bDebug)},
      {"silent", std::to_string(tGps.bSilent)},     {"skip", std::to_string(tGps.bSkipExisting)},
      {"scroll", std::to_string(tGps.bScroll)}};
  const auto found = fields.find(name);
  return found == fields.end() ? "unknown field " + name : found->second;
}

TEST(ParseArguments, EveryCaseOfTheTable) {
  std::ifstream file(test::DataFile("arguments/switches.txt"));
  std::string line;
  int cases = 0;
  while (std::getline(file, line)) {
    const size_t arrow = line.find("=>");
    if (line.empty() || line[0] == '#' || arrow == std::string::npos) continue;
    SCOPED_TRACE(line);
    std::vector<std::string> args;
    std::istringstream words(line.substr(0, arrow)), expected(line.substr(arrow + 2));
    for (std::string word; words >> word;) args.push_back(test::Unescape(word));
    std::string out;
    const int result = Parse(args, &out);
    if (line.find("result=") == std::string::npos) {
      EXPECT_EQ(result, 0);
    }
    for (std::string pair; expected >> pair;) {
      const size_t equals = pair.find('=');
      EXPECT_EQ(Field(pair.substr(0, equals), result, out), test::Unescape(pair.substr(equals + 1))) << pair;
    }
    ++cases;
  }
  EXPECT_EQ(cases, 50);
}

TEST(ParseArguments, LongNamesAreCut) {
  std::string out;
  EXPECT_EQ(Parse({"-l" + std::string(400, 'a') + ".igc"}, &out), 0);
  EXPECT_EQ(std::string(tGps.szFileName), std::string(300, 'a'));
  EXPECT_EQ(tGps.dwFileTypes, 2u);
  // An overlong switch is cut before it is classified.
  EXPECT_EQ(Parse({"-q" + std::string(2000, 'z')}, &out), -1);
  EXPECT_EQ(out, "Unrecognized command: q" + std::string(1022, 'z') + "\n");
}

}  // namespace
