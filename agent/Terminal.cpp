#include "agent/Terminal.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
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

OutputSize outputSize() {
  OutputSize size;
  winsize terminal{};
  if (isatty(STDOUT_FILENO) == 1 && ioctl(STDOUT_FILENO, TIOCGWINSZ, &terminal) == 0) {
    size.columns = terminal.ws_col > 0 ? terminal.ws_col : size.columns;
    size.lines = terminal.ws_row > 0 ? terminal.ws_row : size.lines;
  }
  const auto take = [](const char* name, std::size_t& value) {
    const char* const text = std::getenv(name);
    const unsigned long number = text == nullptr ? 0 : std::strtoul(text, nullptr, 10);
    value = number > 0 ? number : value;
  };
  take("COLUMNS", size.columns);
  take("LINES", size.lines);
  return size;
}

// Bytes that do not continue a UTF-8 sequence.
std::size_t widthOf(const std::string& text) {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0) != 0x80; }));
}

std::vector<std::string> folded(const std::string& text, std::size_t width) {
  std::vector<std::string> lines(1);
  std::size_t used = 0;
  for (std::size_t begin = 0; begin <= text.size();) {
    const std::size_t end = std::min(text.find(' ', begin), text.size());
    const std::string word = text.substr(begin, end - begin);
    const std::size_t size = widthOf(word);
    if (begin > 0 && used + 1 + size > width) {
      lines.push_back(word);
      used = size;
    } else {
      lines.back() += (begin > 0 ? " " : "") + word;
      used += (begin > 0 ? 1 : 0) + size;
    }
    begin = end + 1;
  }
  return lines;
}

bool isOutputReaderGone() {
  pollfd output{STDOUT_FILENO, POLLOUT, 0};
  return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

// The second try is for the system's reason: other calls may have come after the one that failed.
std::string outputTrouble() {
  if (std::cout.flush() || isOutputReaderGone()) {
    return "";
  }
  std::cout.clear();
  errno = 0;
  std::cout.flush();
  return std::string("standard output: cannot be written") +
         (errno == 0 ? "" : std::string(": ") + std::strerror(errno));
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
