// Programs run as processes of their own, as operators and service managers do.
#pragma once

#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace Support {

// A directory in memory, gone at the end.
class ScratchDirectory {
 public:
  ScratchDirectory() {
    const bool hasMemory = std::filesystem::is_directory("/dev/shm");
    std::string pattern = (hasMemory ? "/dev/shm" : std::filesystem::temp_directory_path().string()) + "/testXXXXXX";
    path_ = mkdtemp(pattern.data());
  }
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;
  ~ScratchDirectory() { std::filesystem::remove_all(path_); }

  std::string operator/(const std::string& name) const { return path_ + "/" + name; }
  std::string fileWith(const std::string& name, const std::string& text) const {
    std::ofstream(*this / name) << text;
    return *this / name;
  }

 private:
  std::string path_;
};

inline std::string contentsOf(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  return text.str();
}

// Asks until it is so, or the time is over.
template <class F>
bool becomes(F&& isSo, double seconds = 20) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (!isSo()) {
    if (std::chrono::steady_clock::now() > end) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

// One process; both its outputs go to a file. Killed at the end of its life here.
class Process {
 public:
  Process(std::vector<std::string> command, std::string outputFile) : outputFile_(std::move(outputFile)) {
    std::array<int, 2> input{};
    if (pipe2(input.data(), O_CLOEXEC) != 0) {
      std::abort();
    }
    pid_ = fork();
    if (pid_ == 0) {
      const int output = open(outputFile_.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      dup2(input[0], 0);
      dup2(output, 1);
      dup2(output, 2);
      std::vector<char*> arguments;
      for (std::string& word : command) {
        arguments.push_back(word.data());
      }
      arguments.push_back(nullptr);
      execv(arguments[0], arguments.data());
      _exit(127);
    }
    close(input[0]);
    input_ = input[1];
  }
  Process(Process&& other) noexcept
      : pid_(std::exchange(other.pid_, -1)), input_(std::exchange(other.input_, -1)), outputFile_(other.outputFile_) {}
  Process& operator=(Process&&) = delete;
  ~Process() {
    if (pid_ > 0) {
      stop(SIGKILL);
    }
    if (input_ >= 0) {
      close(input_);
    }
  }

  pid_t pid() const { return pid_; }
  std::string output() const { return contentsOf(outputFile_); }
  bool says(const std::string& text, double seconds = 20) const {
    return becomes([&] { return output().find(text) != std::string::npos; }, seconds);
  }
  void tell(const std::string& text) const {
    [[maybe_unused]] const auto written = write(input_, text.data(), text.size());
  }
  void signal(int number) const { kill(pid_, number); }

  // The exit status, or 128 and the signal that ended it.
  int wait() {
    int status = 0;
    waitpid(std::exchange(pid_, -1), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  int stop(int number = SIGTERM) {
    signal(number);
    return wait();
  }
  // Processor seconds used so far.
  double cpuSeconds() const {
    std::ifstream stat("/proc/" + std::to_string(pid_) + "/stat");
    std::string field;
    double ticks = 0;
    for (int i = 1; stat >> field && i <= 15; ++i) {
      ticks += i >= 14 ? std::stod(field) : 0;
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
  }

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  const std::string outputFile_;
};

}  // namespace Support
