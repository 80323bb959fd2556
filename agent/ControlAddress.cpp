#include "agent/ControlAddress.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "runtime/Zol/Exception.h"

namespace Agent {

ControlAddress::ControlAddress(const std::string& stateDirectory) {
  std::string path = stateDirectory + "/" + controlSocketName;
  if (path.size() >= sizeof address_.sun_path) {
    directory_ = Memtab::Descriptor(open(stateDirectory.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory_) {
      throw Zol::InternalException(stateDirectory + ": cannot be opened: " + std::strerror(errno));
    }
    path = "/proc/self/fd/" + std::to_string(directory_.get()) + "/" + controlSocketName;
  }
  address_.sun_family = AF_UNIX;
  std::copy(path.begin(), path.end(), std::begin(address_.sun_path));
}

}  // namespace Agent
