// DirectoryWatch: reports when files below a state directory are made, removed, made shorter, given other rights,
// renamed, or closed by a writer. The kernel closes a dead writer's files, which wakes readers that the writer did not
// ring for. Directories that go, the state directory too, are made again and watched.
#pragma once

#include <string>
#include <vector>

#include "runtime/Memtab/Descriptor.h"

namespace Statehub {

class DirectoryWatch {
 public:
  // The subdirectories at paths, relative to stateDirectory, are made if they are not there. Raises FileRefused, and
  // InternalException when the system has no watch left.
  DirectoryWatch(const std::string& stateDirectory, const std::vector<std::string>& paths);

  // Readable when something happened since the last answer().
  int fd() const { return inotify_.get(); }
  // Watches what stands at the paths now. Raises as the constructor does, and may then be called again.
  void answer();
  // Drops what happened since: for a user that checks all places soon anyway.
  void forget();

 private:
  void watch();

  const std::string stateDirectory_;
  const std::vector<std::string> paths_;
  Memtab::Descriptor inotify_;
};

}  // namespace Statehub
