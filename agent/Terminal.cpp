#include "agent/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

namespace Agent {

void openStandardDescriptors() {
  for (int fd = STDIN_FILENO; fd <= STDERR_FILENO; ++fd) {
    if (fcntl(fd, F_GETFD) < 0) {
      // The lowest free descriptor is fd, as those below it are open.
      [[maybe_unused]] const int opened = open("/dev/null", O_RDWR);
    }
  }
}

bool isOutputColoured() {
  const char* const noColor = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) == 1 && (noColor == nullptr || *noColor == '\0');
}

bool isOutputReaderGone() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

Progress::Progress(std::string name, std::uint64_t size)
    : name_(std::move(name)), size_(size), isShown_(size >= sizeMin && isatty(STDERR_FILENO) == 1) {}

Progress::~Progress() {
  if (isShown_) {
    std::fputs("\r\x1b[K", stderr);
  }
}

void Progress::doneIs(std::uint64_t bytes) {
  const std::uint64_t percent = isShown_ ? bytes * 100 / size_ : 0;
  if (percent != percent_) {
    percent_ = percent;
    std::fprintf(stderr, "\r%s %u%%", name_.c_str(), static_cast<unsigned>(percent));
  }
}

}  // namespace Agent
