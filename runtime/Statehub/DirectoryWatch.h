// DirectoryWatch: tells when files below a state directory are made, removed, or take each other's places.
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
  void answer();

 private:
  Memtab::Descriptor inotify_;
};

}  // namespace Statehub
