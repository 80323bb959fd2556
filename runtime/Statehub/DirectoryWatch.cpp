#include "runtime/Statehub/DirectoryWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "runtime/Memtab/DirectoryOwner.h"
#include "runtime/Zol/Exception.h"

namespace Statehub {
namespace {

constexpr std::uint32_t placesChanged = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;

[[noreturn]] void fail(const std::string& what) {
  throw Zol::InternalException("no watch on " + what + ": " + std::strerror(errno));
}

}  // namespace

DirectoryWatch::DirectoryWatch(const std::string& stateDirectory, const std::vector<std::string>& paths)
    : inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_) {
    fail(stateDirectory);
  }
  for (const std::string& path : paths) {
    // The directory of any name in it.
    Memtab::placeOf(stateDirectory, path + "/any", true, Memtab::directoryOwner(stateDirectory));
    const std::string directory = stateDirectory + "/" + path;
    if (inotify_add_watch(inotify_.get(), directory.c_str(), placesChanged) < 0) {
      fail(directory);
    }
  }
}

void DirectoryWatch::answer() {
  std::array<char, 4096> events;
  while (read(inotify_.get(), events.data(), events.size()) > 0) {
  }
}

}  // namespace Statehub
