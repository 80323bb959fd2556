// fastlog: prints the lines of trace files, also those of processes that have died, and follows the file of a living
// one.
//
// Exit status: 0 all was read, 1 something was not (standard error says what), 2 the command line is wrong.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "runtime/Fastlog/RingReader.h"
#include "runtime/Zol/Exception.h"

namespace {

constexpr const char* usage =
    "usage: fastlog FILE...\n"
    "       fastlog --follow FILE\n";
constexpr const char* help =
    "Prints the lines of trace files, the oldest first: time, source, level, function and text.\n"
    "\n"
    "  -f, --follow   print new lines as they are written, until interrupted; continue with\n"
    "                 the file of the next process that writes under this name\n"
    "  -h, --help     print this help\n"
    "\n"
    "The file of a tunnel agent is trace/Tunnel.fl in its state directory; Tunnel.fl.1 is that\n"
    "of the process before.\n"
    "Exit status: 0 all was read, 1 something was not, 2 the command line is wrong.\n";

constexpr int exitDone = 0;
constexpr int exitFailed = 1;
constexpr int exitUsage = 2;

constexpr auto pollInterval = std::chrono::milliseconds(100);

void complain(const std::string& problem) {
  std::cout.flush();
  std::cerr << "fastlog: " << problem << '\n';
}

void complainOfDamage(const std::string& path, std::size_t damaged) {
  complain(path + ": is damaged: " + std::to_string(damaged) + (damaged == 1 ? " line" : " lines") +
           " cannot be read and " + (damaged == 1 ? "is" : "are") + " left out");
}

// Raises InternalException for a file that cannot be read. False: a part of it is damaged.
bool print(const std::string& path) {
  const Fastlog::RingContents contents = Fastlog::RingReader(path).read();
  for (const Fastlog::RingLine& line : contents.lines) {
    std::cout << Fastlog::textOf(line) << '\n';
  }
  if (contents.damaged != 0) {
    complainOfDamage(path, contents.damaged);
  }
  return contents.damaged == 0;
}

// Prints the lines of one file, each once and in order. A line appears one poll after it was read: by then all lines
// before it have been written.
class Follower {
 public:
  explicit Follower(const std::string& path) : path_(path), reader_(path) {}

  void poll() { printUpTo(newest_); }
  // After the file was replaced: its writer writes no more.
  void finish() { printUpTo(UINT64_MAX); }
  bool isReplaced() const { return reader_.isReplaced(); }

 private:
  void printUpTo(std::uint64_t last) {
    const Fastlog::RingContents contents = reader_.read();
    for (const Fastlog::RingLine& line : contents.lines) {
      if (line.sequence > printed_ && line.sequence <= last) {
        if (printed_ != 0 && line.sequence != printed_ + 1) {
          complain(path_ + ": " + std::to_string(line.sequence - printed_ - 1) +
                   " lines were overwritten before they were read");
        }
        std::cout << Fastlog::textOf(line) << '\n';
        printed_ = line.sequence;
      }
      newest_ = std::max(newest_, line.sequence);
    }
    std::cout.flush();
    if (contents.damaged > damaged_) {
      complainOfDamage(path_, contents.damaged);
    }
    damaged_ = std::max(damaged_, contents.damaged);
  }

  const std::string path_;
  const Fastlog::RingReader reader_;
  std::uint64_t newest_ = 0;
  std::uint64_t printed_ = 0;
  std::size_t damaged_ = 0;
};

void follow(const std::string& path) {
  std::optional<Follower> follower(path);
  while (std::cout) {
    const bool isReplaced = follower->isReplaced();
    follower->poll();
    if (isReplaced) {
      follower->finish();
      complain(path + ": was replaced; waiting for the next file of this name");
      follower.reset();
    }
    while (!follower) {
      std::this_thread::sleep_for(pollInterval);
      try {
        follower.emplace(path);
        follower->poll();
      } catch (const Zol::Exception&) {  // not there yet, or not complete
        follower.reset();
      }
    }
    std::this_thread::sleep_for(pollInterval);
  }
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> files;
  bool follows = false;
  bool takesOptions = true;
  for (int i = 1; i < argc; ++i) {
    const std::string_view word = argv[i];
    if (takesOptions && (word == "-h" || word == "--help")) {
      std::cout << usage << '\n' << help;
      return exitDone;
    }
    if (takesOptions && (word == "-f" || word == "--follow")) {
      follows = true;
    } else if (takesOptions && word == "--") {
      takesOptions = false;
    } else if (takesOptions && word.size() > 1 && word.front() == '-') {
      std::cerr << "fastlog: unknown option " << word << '\n' << usage;
      return exitUsage;
    } else {
      files.emplace_back(word);
    }
  }
  if (files.empty() || (follows && files.size() > 1)) {
    std::cerr << (files.empty() ? "fastlog: no file is named\n" : "fastlog: --follow takes one file\n") << usage;
    return exitUsage;
  }
  int status = exitDone;
  for (const std::string& path : files) {
    try {
      if (follows) {
        follow(path);
      } else if (!print(path)) {
        status = exitFailed;
      }
    } catch (const Zol::Exception& error) {
      complain(error.what());
      status = exitFailed;
    }
  }
  errno = 0;
  if (!std::cout.flush()) {
    complain(std::string("standard output: cannot be written") +
             (errno == 0 ? "" : std::string(": ") + std::strerror(errno)));
    status = exitFailed;
  }
  return status;
}
