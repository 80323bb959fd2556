#include "runtime/Memtab/Owner.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace Memtab {
namespace {

std::string lineOf(const std::string& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

// Field 22 of the process's status line; 0: it is dead. The second field, the name in parentheses, may contain
// anything.
uint64_t startOf(uint64_t pid) {
  const std::string line = lineOf("/proc/" + std::to_string(pid) + "/stat");
  const size_t name = line.rfind(')');
  if (name == std::string::npos) {
    return 0;
  }
  std::istringstream fields(line.substr(name + 1));
  std::string state;
  std::string skipped;
  fields >> state;
  for (int field = 4; field < 22; ++field) {
    fields >> skipped;
  }
  uint64_t start = 0;
  fields >> start;
  return state == "Z" || state == "X" ? 0 : start;
}

}  // namespace

Owner Owner::ofThisProcess() {
  const auto pid = static_cast<uint64_t>(getpid());
  return {pid, startOf(pid)};
}

std::string Owner::text() const {
  if (pid == 0 || start == 0 || startOf(pid) != start) {
    return "holder unknown";
  }
  timespec now{};
  clock_gettime(CLOCK_BOOTTIME, &now);
  const double nowSeconds = static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
  const double startSeconds = static_cast<double>(start) / static_cast<double>(sysconf(_SC_CLK_TCK));
  std::array<char, 40> ago{};
  (void)std::snprintf(ago.data(), ago.size(), "%.1f", std::max(nowSeconds - startSeconds, 0.0));
  return "pid " + std::to_string(pid) + " (" + lineOf("/proc/" + std::to_string(pid) + "/comm") + "), started " +
         ago.data() + " s ago";
}

}  // namespace Memtab
