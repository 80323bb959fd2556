// A state directory for one test, and what is done to its files from outside.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

#include "runtime/Memtab/TableFile.h"
#include "tests/runtime/Memtab/EngineScene.h"

namespace Memtab {

inline constexpr HashFn fileHashes[] = {spreadHash};
inline constexpr uint64_t fileFingerprint = 0x1234;

class StateDirectoryScene {
 public:
  StateDirectoryScene() {
    std::string pattern = (std::filesystem::exists("/dev/shm") ? "/dev/shm" : testing::TempDir()) + "/memtabXXXXXX";
    top_ = mkdtemp(pattern.data());
    path = top_ + "/state";
  }
  ~StateDirectoryScene() { std::filesystem::remove_all(top_); }

  std::string at(const std::string& name) const { return path + "/" + name; }
  static mode_t modeOf(const std::string& path) {
    struct stat facts {};
    return lstat(path.c_str(), &facts) == 0 ? facts.st_mode & 07777 : 0;
  }
  static void write(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
    chmod(path.c_str(), 0640);
  }
  static std::string bytesAt(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  size_t files() const {
    const std::filesystem::directory_iterator all(path);
    return static_cast<size_t>(std::distance(begin(all), end(all)));
  }

  std::string path;

 private:
  std::string top_;
};

// Runs f in a child process and gives its exit status, as waitpid() has it.
template <class F>
int inChild(F&& f) {
  const pid_t child = fork();
  if (child == 0) {
    int status = 99;
    try {
      status = f();
    } catch (const std::exception& e) {
      (void)!::write(STDERR_FILENO, e.what(), std::string(e.what()).size());
    }
    _exit(status);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return status;
}

inline void put(Store& store, const std::string& key, const std::string& record) {
  store.put(0, spreadHash(bytesOf(key)), bytesOf(key), bytesOf(record));
}
inline std::string get(const Reader& reader, const std::string& key) {
  const Lookup found = reader.get(0, spreadHash(bytesOf(key)), bytesOf(key));
  return found.state == Found::found ? textOf(found.record) : found.damage.text();
}

// The message of the exception that f throws, if it is an E.
template <class E, class F>
std::string thrown(F&& f) {
  try {
    f();
  } catch (const E& e) {
    return e.what();
  }
  return "nothing thrown";
}

}  // namespace Memtab
