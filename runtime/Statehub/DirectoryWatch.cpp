#include "runtime/Statehub/DirectoryWatch.h"

#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "runtime/Memtab/Bell.h"
#include "runtime/Memtab/DirectoryOwner.h"
#include "runtime/Statehub/Attempts.h"
#include "runtime/Zol/Exception.h"

namespace Statehub {
namespace {

constexpr std::uint32_t placesChanged =
    IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;

[[noreturn]] void fail(const std::string& what) {
  throw Zol::InternalException(what + ": cannot be watched by inotify: " + std::strerror(errno));
}

}  // namespace

DirectoryWatch::DirectoryWatch(const std::string& stateDirectory, const std::vector<std::string>& paths)
    : stateDirectory_(stateDirectory), paths_(paths), inotify_(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
  if (!inotify_) {
    fail(stateDirectory);
  }
  watch();
}

// The state directory itself has the FIFOs of the doorbell, each byte in which would count as a change of contents.
void DirectoryWatch::watch() {
  const auto watchOne = [this](const std::string& directory, std::uint32_t events) {
    if (inotify_add_watch(inotify_.get(), directory.c_str(), events) < 0) {
      fail(directory);
    }
  };
  Attempts all;
  for (const std::string& path : paths_) {
    all.attempt([&] {
      // The directory of any name in it.
      Memtab::placeOf(stateDirectory_, path + "/any", true, Memtab::directoryOwner(stateDirectory_));
      watchOne(stateDirectory_ + "/" + path, placesChanged | IN_MODIFY | IN_CLOSE_WRITE);
    });
  }
  all.attempt([&] { watchOne(stateDirectory_, placesChanged); });
  // Cut short by somebody; its users store to it through mappings, which is no event. Its coming and going is one
  // above.
  const std::string bell = stateDirectory_ + "/" + Memtab::Bell::fileName;
  (void)inotify_add_watch(inotify_.get(), bell.c_str(), IN_MODIFY);
  all.raise();
}

void DirectoryWatch::answer() {
  forget();
  watch();
}

void DirectoryWatch::forget() {
  std::array<char, 4096> events;
  while (read(inotify_.get(), events.data(), events.size()) > 0) {
  }
}

}  // namespace Statehub
