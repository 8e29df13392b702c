// Running independent command-line tools (xmllint, gpsbabel) from tests.
#pragma once

#include <string>

namespace test {

// True when `name` can be found on the PATH.
bool HaveTool(const std::string& name);

// Quotes `text` for the shell.
std::string ShellQuote(const std::string& text);

// Runs `commandLine` with the shell, collecting standard output and standard
// error into `output`; returns the exit status, or -1 when it did not exit.
int RunTool(const std::string& commandLine, std::string* output);

}  // namespace test

// Skips the running test when an external tool is missing.
#define REQUIRE_TOOL(name, package)                                                                                 \
  do {                                                                                                              \
    if (!test::HaveTool(name)) {                                                                                    \
      GTEST_SKIP() << name << " is not installed (Debian package " << package << "; scripts/setup.sh installs it)"; \
    }                                                                                                               \
  } while (false)
