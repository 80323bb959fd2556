#include "runtime/Memtab/StateDirectory.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

namespace Memtab {
namespace {

constexpr mode_t directoryMode = 0750;
constexpr int directoryFlags = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

// The components of a relative name.
std::vector<std::string> componentsOf(const std::string& name) {
  std::vector<std::string> parts{""};
  for (const char c : name) {
    if (c == '/') {
      parts.emplace_back();
    } else {
      parts.back() += c;
    }
  }
  for (const std::string& part : parts) {
    if (part.empty() || part.front() == '.' || part.size() > 200 || part.find('\0') != std::string::npos) {
      throw Zol::RangeException("'" + name + "' is no name of a table: its parts are up to 200 characters long and " +
                                "do not begin with a dot");
    }
  }
  return parts;
}

// Makes the directory unless it is there. A mode that the umask spoilt is put right by who made it.
void make(int at, const std::string& component, const std::string& path) {
  if (mkdirat(at, component.c_str(), directoryMode) == 0) {
    if (fchmodat(at, component.c_str(), directoryMode, 0) != 0) {
      raiseError("mode cannot be set", path, errno);
    }
  } else if (errno != EEXIST) {
    raiseError("directory cannot be made", path, errno);
  }
}

void makeAbove(const std::string& path) {
  for (size_t slash = path.find('/', 1); slash != std::string::npos; slash = path.find('/', slash + 1)) {
    const std::string above = path.substr(0, slash);
    struct stat facts {};
    if (stat(above.c_str(), &facts) != 0 && errno == ENOENT) {
      make(AT_FDCWD, above, above);
    }
  }
}

Descriptor openDirectory(int at, const std::string& component, const std::string& path, const Owners& owners) {
  Descriptor directory(openat(at, component.c_str(), directoryFlags | O_NOFOLLOW));
  if (!directory) {
    const int error = errno;
    struct stat facts {};
    if (fstatat(at, component.c_str(), &facts, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISDIR(facts.st_mode)) {
      throw FileRefused(path + ": refused: not a directory" + (S_ISLNK(facts.st_mode) ? ", but a symbolic link" : ""));
    }
    raiseError("directory cannot be opened", path, error);
  }
  struct stat facts {};
  if (fstat(directory.get(), &facts) != 0) {
    raiseError("directory cannot be examined", path, errno);
  }
  refuseUnsafe(facts, false, path, owners);
  return directory;
}

std::string withoutSlashes(std::string path) {
  while (path.size() > 1 && path.back() == '/') {
    path.pop_back();
  }
  return path;
}

}  // namespace

void raiseError(const std::string& what, const std::string& path, int error) {
  const std::string text = path + ": " + what + ": " + std::strerror(error);
  if (error == ENOENT) {
    throw FileAbsent(text);
  }
  throw FileRefused(text);
}

void refuseUnsafe(const struct stat& facts, bool isTable, const std::string& path, const Owners& owners) {
  const auto refuse = [&path](const std::string& reason) { throw FileRefused(path + ": refused: " + reason); };
  if (isTable ? !S_ISREG(facts.st_mode) : !S_ISDIR(facts.st_mode)) {
    refuse(isTable ? "not a regular file" : "not a directory");
  }
  if (facts.st_uid != geteuid() && std::find(owners.begin(), owners.end(), facts.st_uid) == owners.end()) {
    refuse("it belongs to user " + std::to_string(facts.st_uid) + ", we are " + std::to_string(geteuid()));
  }
  if ((facts.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    std::ostringstream mode;
    mode << std::oct << (facts.st_mode & 0777U);
    refuse("group or world may write to it (mode " + mode.str() + ")");
  }
  if (isTable && facts.st_nlink != 1) {
    refuse("it has " + std::to_string(facts.st_nlink) + " links");
  }
}

Descriptor openStateDirectory(const std::string& name, bool isMade, const Owners& owners) {
  const std::string path = withoutSlashes(name);
  if (isMade) {
    makeAbove(path);
    make(AT_FDCWD, path, path);
  }
  return openDirectory(AT_FDCWD, path, path, owners);
}

PlaceInDirectory placeOf(const std::string& stateDirectory, const std::string& name, bool isMade,
                         const Owners& owners) {
  const std::vector<std::string> parts = componentsOf(name);
  Descriptor directory = openStateDirectory(stateDirectory, isMade, owners);
  std::string path = withoutSlashes(stateDirectory);
  for (size_t i = 0; i + 1 < parts.size(); ++i) {
    path += "/" + parts[i];
    if (isMade) {
      make(directory.get(), parts[i], path);
    }
    directory = openDirectory(directory.get(), parts[i], path, owners);
  }
  return {std::move(directory), parts.back()};
}

}  // namespace Memtab
