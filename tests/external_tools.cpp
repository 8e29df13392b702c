#include "external_tools.h"

#include <sys/wait.h>

#include <cstdio>

namespace test {

std::string ShellQuote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

bool HaveTool(const std::string& name) {
  std::string ignored;
  return RunTool("command -v " + ShellQuote(name), &ignored) == 0;
}

int RunTool(const std::string& commandLine, std::string* output) {
  output->clear();
  FILE* pipe = popen((commandLine + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  char buffer[4096];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) output->append(buffer, n);
  int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace test
