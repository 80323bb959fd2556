// Preloaded into a program, makes one kind of system call fail: FAULT=CALL:ERRNO:PART, such as "openat:13:tunnelFib".
// Calls fail whose path has that part; of a call without a path, all do. A descriptor has the path of its open file.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/mman.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

namespace {

struct Fault {
  std::string call;
  int error = 0;
  std::string part;
};

const Fault& fault() {
  static const Fault* const one = [] {
    const char* const text = getenv("FAULT");
    const std::string all = text == nullptr ? "::" : text;
    const std::size_t first = all.find(':');
    const std::size_t second = all.find(':', first + 1);
    return new Fault{all.substr(0, first), std::atoi(all.c_str() + first + 1), all.substr(second + 1)};
  }();
  return *one;
}

bool fails(const char* call, const std::string& path = "") {
  if (fault().call != call || (!path.empty() && path.find(fault().part) == std::string::npos)) {
    return false;
  }
  errno = fault().error;
  return true;
}

std::string pathOf(int fd) {
  char path[4096];
  const ssize_t size = readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), path, sizeof path);
  return std::string(path, size < 0 ? 0 : static_cast<std::size_t>(size));
}

template <class Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// Result, name, parameters, arguments, path, and the result of a failure.
#define FAULTY(Result, name, parameters, arguments, path, failure) \
  extern "C" Result faulty_##name parameters __asm__(#name);       \
  extern "C" Result faulty_##name parameters {                     \
    static auto* const real = next<Result parameters>(#name);      \
    return fails(#name, path) ? failure : real arguments;          \
  }

FAULTY(int, openat, (int at, const char* path, int flags, mode_t mode), (at, path, flags, mode), path, -1)
FAULTY(int, fstatat, (int at, const char* path, struct stat* facts, int flags), (at, path, facts, flags), path, -1)
FAULTY(int, mkdirat, (int at, const char* path, mode_t mode), (at, path, mode), path, -1)
FAULTY(int, linkat, (int from, const char* path, int at, const char* name, int flags), (from, path, at, name, flags),
       name, -1)
FAULTY(int, renameat2, (int from, const char* path, int at, const char* name, unsigned flags),
       (from, path, at, name, flags), path, -1)
FAULTY(int, fchmod, (int fd, mode_t mode), (fd, mode), pathOf(fd), -1)
FAULTY(int, fcntl, (int fd, int command, void* argument), (fd, command, argument), pathOf(fd), -1)
FAULTY(int, posix_fallocate, (int fd, off_t from, off_t size), (fd, from, size), pathOf(fd), fault().error)
FAULTY(void*, mmap, (void* at, size_t size, int access, int flags, int fd, off_t from),
       (at, size, access, flags, fd, from), fd < 0 ? "anonymous" : pathOf(fd), MAP_FAILED)
FAULTY(int, socket, (int domain, int type, int protocol), (domain, type, protocol), "", -1)
FAULTY(int, bind, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), "", -1)
FAULTY(int, listen, (int fd, int backlog), (fd, backlog), "", -1)
FAULTY(int, connect, (int fd, const sockaddr* address, socklen_t size), (fd, address, size), "", -1)
FAULTY(int, inotify_init1, (int flags), (flags), "", -1)
FAULTY(int, inotify_add_watch, (int fd, const char* path, uint32_t events), (fd, path, events), path, -1)
FAULTY(int, epoll_create1, (int flags), (flags), "", -1)
FAULTY(int, eventfd, (unsigned count, int flags), (count, flags), "", -1)
FAULTY(int, signalfd, (int fd, const sigset_t* signals, int flags), (fd, signals, flags), "", -1)
