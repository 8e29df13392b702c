// The command-line cases of tests/data/cases/*.txt (their format is in the
// README there): each sets up a folder and, maybe, kestrix-sim; runs one
// command line; and compares the exit status, everything printed and the
// files left in the folder with what the case expects.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "support.h"

namespace {

struct ExpectedFile {
  std::string name;
  std::string kind;   // "same", "sha256", "absent" or "text"
  std::string value;  // data path, digest or text
};

struct Case {
  std::string where;  // file:line, for messages
  std::string name;
  std::vector<std::string> sim;  // kestrix-sim's words, the family first
  std::vector<std::pair<std::string, std::string>> copies;  // data path, name in the folder
  std::vector<std::pair<std::string, std::string>> texts;   // name, contents
  std::vector<std::string> folders;
  std::vector<std::string> args;
  std::string input;
  long limit = 0;
  bool process = false;
  int status = 0;
  bool outGiven = false;
  std::string out;
  std::vector<ExpectedFile> files;
  int fileCount = -1;
  std::vector<std::string> varying;  // counters updated by the clock
};

void PrintTo(const Case& c, std::ostream* os) { *os << c.name; }

// Words as a shell splits them, with double quotes only; escapes in them
// (\" a quote that stays) are read as in blocks.
std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  std::string word;
  bool quoted = false, any = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (c == '\\' && i + 1 < line.size()) {
      word += line.substr(i++, 2);
      any = true;
    } else if (c == '"') {
      quoted = !quoted;
      any = true;
    } else if (c == ' ' && !quoted) {
      if (any) words.push_back(word);
      word.clear();
      any = false;
    } else {
      word += c;
      any = true;
    }
  }
  if (any) words.push_back(word);
  for (std::string& w : words) w = test::Unescape(w);
  return words;
}

// A block's lines up to "end", each unescaped with its line feed ("\c" at
// its end: none).
std::string Block(std::istream& in, int* line) {
  std::string text, row;
  while (std::getline(in, row)) {
    ++*line;
    if (row == "end") return text;
    if (row.size() >= 2 && row.compare(row.size() - 2, 2, "\\c") == 0) {
      text += test::Unescape(row.substr(0, row.size() - 2));
    } else {
      text += test::Unescape(row) + "\n";
    }
  }
  throw std::runtime_error("a block without its end");
}

std::vector<Case> ReadCases() {
  std::vector<Case> cases;
  std::vector<std::filesystem::path> paths;
  for (const auto& entry : std::filesystem::directory_iterator(test::DataFile("cases"))) {
    if (entry.path().extension() == ".txt") paths.push_back(entry.path());
  }
  std::sort(paths.begin(), paths.end());
  for (const auto& path : paths) {
    std::ifstream in(path);
    std::string row;
    int line = 0;
    while (std::getline(in, row)) {
      ++line;
      if (row.empty() || row[0] == '#') continue;
      const std::string key = row.substr(0, row.find(' '));
      const std::string rest = row.size() > key.size() ? row.substr(key.size() + 1) : "";
      if (key == "case") {
        cases.push_back(Case{});
        cases.back().name = rest;
        cases.back().where = path.filename().string() + ":" + std::to_string(line);
        continue;
      }
      if (cases.empty()) throw std::runtime_error(path.string() + ": a directive before the first case");
      Case& c = cases.back();
      std::vector<std::string> words = Words(rest);
      if (key == "sim") {
        c.sim = words;
      } else if (key == "copy") {
        c.copies.emplace_back(words.at(0), words.size() > 1 ? words[1] : std::filesystem::path(words[0]).filename().string());
      } else if (key == "folder") {
        c.folders.push_back(rest);
      } else if (key == "text") {
        c.texts.emplace_back(rest, Block(in, &line));
      } else if (key == "run") {
        c.args = words;
      } else if (key == "input") {
        c.input = test::Unescape(rest);
      } else if (key == "limit") {
        c.limit = std::stol(rest);
        c.process = true;
      } else if (key == "process") {
        c.process = true;
      } else if (key == "status") {
        c.status = std::stoi(rest);
      } else if (key == "out") {
        c.outGiven = true;
        c.out = Block(in, &line);
      } else if (key == "file") {
        ExpectedFile f{words.at(0), words.at(1), words.size() > 2 ? words[2] : ""};
        if (f.kind == "text") f.value = Block(in, &line);
        c.files.push_back(f);
      } else if (key == "vary") {
        c.varying.push_back(rest + " ");
      } else if (key == "files") {
        c.fileCount = std::stoi(rest);
      } else {
        throw std::runtime_error(path.string() + ":" + std::to_string(line) + ": unknown directive " + key);
      }
    }
  }
  return cases;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (size_t at = text.find(from); at != std::string::npos; at = text.find(from, at + to.size())) {
    text.replace(at, from.size(), to);
  }
  return text;
}

// A counter that updates by the clock shows the start and the end only:
// "Label: 0", then the backspaces and the last number.
std::string Steady(std::string out, const std::string& label) {
  for (size_t at = out.find(label + "0"); at != std::string::npos; at = out.find(label + "0", at + 1)) {
    size_t from = at + label.size() + 1, end = out.find('\n', from);
    size_t last = out.rfind('\b', end);
    if (end == std::string::npos || last == std::string::npos || last < from) continue;
    while (last > from && out[last - 1] == '\b') --last;
    out.erase(from, last - from);
  }
  return out;
}

class Cases : public testing::TestWithParam<Case> {};

TEST_P(Cases, RunAsExpected) {
  const Case& c = GetParam();
  SCOPED_TRACE(c.where);
  test::TempDir folder;
  for (const std::string& name : c.folders) std::filesystem::create_directories(folder.File(name));
  for (const auto& [from, name] : c.copies) std::filesystem::copy_file(test::DataFile(from), folder.File(name));
  for (const auto& [name, text] : c.texts) folder.Write(name, text);

  std::string port = "none";
  std::unique_ptr<test::SimProgram> sim;
  if (!c.sim.empty()) {
    REQUIRE_PORT_LINKS();
    port = test::UniquePortName();
    std::vector<std::string> words;
    for (const std::string& w : c.sim) words.push_back(Replace(w, "$DATA", KESTRIX_TEST_DATA));
    for (const char* w : {"--port", port.c_str(), "--quiet", "--flat"}) words.emplace_back(w);
    sim = std::make_unique<test::SimProgram>(words);
    ASSERT_NE(sim->greeting().find("Linked"), std::string::npos) << sim->greeting();
  }
  std::vector<std::string> args;
  for (const std::string& a : c.args) args.push_back(Replace(a, "$PORT", port));
  test::RunResult run = c.process ? test::RunKestrix(args, folder.path(), c.input, c.limit)
                                  : test::RunInProcess(args, folder.path(), c.input);
  if (sim) {
    int status = 0;
    sim->Stop(&status);
  }

  std::string out = Replace(run.out, port, "$PORT");
  for (const std::string& label : c.varying) out = Steady(out, label);
  // For writing a new case: what the run did, in this format.
  if (const char* actual = std::getenv("KESTRIX_CASES_ACTUAL")) {
    std::ofstream record(std::string(actual) + "/" + c.name + ".txt");
    record << "status " << run.status << "\nout\n" << test::Escape(out) << (out.ends_with("\n") ? "" : "\\c\n")
           << "end\n";
    for (const std::string& name : test::FilesIn(folder.path())) {
      record << "file " << name << " sha256 " << test::Sha256(test::ReadFile(folder.File(name))) << "\n";
    }
    record << "files " << test::FilesIn(folder.path()).size() << "\n";
  }
  EXPECT_EQ(run.status, c.status) << test::Escape(out);
  if (c.outGiven) {
    EXPECT_EQ(out, c.out) << "printed, as data:\n" << test::Escape(out);
  }
  for (const ExpectedFile& f : c.files) {
    const std::string path = folder.File(f.name);
    const bool exists = std::filesystem::exists(path);
    if (f.kind == "absent") {
      EXPECT_FALSE(exists) << f.name;
      continue;
    }
    ASSERT_TRUE(exists) << f.name << " is missing; the folder holds " << testing::PrintToString(test::FilesIn(folder.path()));
    const std::string bytes = test::ReadFile(path);
    if (f.kind == "same") {
      EXPECT_TRUE(bytes == test::ReadFile(test::DataFile(f.value))) << f.name << " differs from " << f.value;
    } else if (f.kind == "sha256") {
      EXPECT_EQ(test::Sha256(bytes), f.value) << f.name;
    } else {
      EXPECT_EQ(bytes, f.value) << f.name << ", as data:\n" << test::Escape(bytes);
    }
  }
  if (c.fileCount >= 0) {
    EXPECT_EQ(static_cast<int>(test::FilesIn(folder.path()).size()), c.fileCount)
        << testing::PrintToString(test::FilesIn(folder.path()));
  }
}

std::string CaseName(const testing::TestParamInfo<Case>& info) {
  std::string name = info.param.name;
  for (char& ch : name) {
    if (!std::isalnum(static_cast<unsigned char>(ch))) ch = '_';
  }
  return name;
}

INSTANTIATE_TEST_SUITE_P(Cli, Cases, testing::ValuesIn(ReadCases()), CaseName);

}  // namespace
