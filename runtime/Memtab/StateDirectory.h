// StateDirectory: where the files of a router's shared tables lie, and the rules that keep others out of them.
//
//     /dev/shm/tunnel-agent            directory, 0750                     }  nothing at or below it is a symbolic
//     /dev/shm/tunnel-agent/rib/       0750                                }  link, belongs to somebody else, or may be
//     /dev/shm/tunnel-agent/rib/system table file, 0640, one link          }  written by group or world
//
// What does not keep to them is refused and left as it is. Modes are set after creation, whatever the umask.
// Names that begin with a dot are the library's own (the doorbell).
#pragma once

#include <sys/stat.h>

#include <string>
#include <vector>

#include "runtime/Memtab/Descriptor.h"
#include "runtime/Zol/Exception.h"

namespace Memtab {

// A file or directory is not what it should be. The text names the path and the reason.
class FileRefused : public Zol::Exception {
 public:
  using Zol::Exception::Exception;
};

// There is none by that name.
class FileAbsent : public Zol::Exception {
 public:
  using Zol::Exception::Exception;
};

// Whose files are trusted: always those of the effective user.
using Owners = std::vector<uid_t>;

// Throws FileRefused unless facts are those of a regular file with one link (isTable) or a directory, of an owner
// whom we trust, and safe from others.
void refuseUnsafe(const struct stat& facts, bool isTable, const std::string& path, const Owners& owners);

// An error of the system as an exception: FileAbsent for ENOENT, else FileRefused.
[[noreturn]] void raiseError(const std::string& what, const std::string& path, int error);

// The state directory itself; what else there is as below.
Descriptor openStateDirectory(const std::string& path, bool isMade, const Owners& owners);

// A directory and a name in it.
struct PlaceInDirectory {
  Descriptor directory;
  std::string base;
};

// The directory that name, relative to stateDirectory, lies in. Several components of name make subdirectories.
// isMade: directories that are missing are made, those above stateDirectory too.
// Throws RangeException for a name that is none, FileAbsent, FileRefused.
PlaceInDirectory placeOf(const std::string& stateDirectory, const std::string& name, bool isMade, const Owners& owners);

}  // namespace Memtab
