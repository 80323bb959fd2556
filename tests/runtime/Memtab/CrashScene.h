// Death at any store: an operation is run over a copy of the same bytes again and again, dying before its first,
// second, ... last store. After each death, a reader looks, a successor takes over, and what it has is compared with
// what the reader saw; and the successor dies in its turn, before each of its stores, and has successors.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <memory>

#include "tests/runtime/Memtab/Structure.h"

namespace Memtab {

struct Death {};
struct DyingStores {
  size_t* left;
  void word(Word& at, uint64_t value, std::memory_order order) const {
    if (*left == 0) {
      throw Death{};
    }
    --*left;
    at.store(value, order);
  }
};
using MortalStore = BasicStore<DyingStores>;

// Collection 0 refers to collection 1: its records are lists of keys there, each followed by a comma.
inline constexpr HashFn crashHashes[] = {spreadHash, spreadHash};
using Contents = std::array<Content, 2>;
inline Contents contentsOf(const Reader& reader) { return {walk(reader, 0), walk(reader, 1)}; }

inline bool refersToStanding(const Contents& contents) {
  for (const auto& [place, record] : contents[0]) {
    for (size_t from = 0, to = 0; (to = record.find(',', from)) != std::string::npos; from = to + 1) {
      const std::string key = record.substr(from, to - from);
      if (!contents[1].contains({spreadHash(bytesOf(key)), key})) {
        return false;
      }
    }
  }
  return true;
}

// Memory that outlives the regions made of it, as a file would.
class Memory {
 public:
  Memory() : fd_(memfd_create("table", MFD_CLOEXEC)) {}
  explicit Memory(const std::vector<std::byte>& bytes) : Memory() { bytesAre(bytes); }
  Memory(const Memory&) = delete;
  Memory& operator=(const Memory&) = delete;
  ~Memory() { close(fd_); }

  Region region() const { return Region(std::make_unique<Shared>(fd_), size_t{1} << 23); }
  std::vector<std::byte> bytes() const {
    std::vector<std::byte> bytes(sizeOf(fd_));
    EXPECT_EQ(pread(fd_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    return bytes;
  }
  void bytesAre(const std::vector<std::byte>& bytes) const {
    EXPECT_EQ(ftruncate(fd_, static_cast<off_t>(bytes.size())), 0);
    EXPECT_EQ(pwrite(fd_, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }

 private:
  static size_t sizeOf(int fd) {
    struct stat facts {};
    return fstat(fd, &facts) == 0 ? static_cast<size_t>(facts.st_size) : 0;
  }
  struct Shared final : Backing {
    explicit Shared(int file) : fd(file) {}
    size_t attach(std::byte* base, size_t bytes) override {
      void* at = mmap(base, bytes, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED, fd, 0);
      EXPECT_EQ(at, base);
      return sizeOf(fd);
    }
    bool extend(std::byte*, size_t, size_t to) override {
      return sizeOf(fd) >= to || ftruncate(fd, static_cast<off_t>(to)) == 0;
    }
    void giveBack(std::byte*, size_t from, size_t to) override {
      const int mode = FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE;
      EXPECT_EQ(fallocate(fd, mode, static_cast<off_t>(from), static_cast<off_t>(to - from)), 0);
    }
    int fd;
  };
  int fd_;
};

// A writer with a number of stores to live.
struct Life {
  explicit Life(const Memory& memory, size_t stores = ~size_t{0}) : left(stores) {
    try {
      store = std::make_unique<MortalStore>(memory.region(), 7, crashHashes,
                                            StoreOptions{.ringSlotsLog2 = 3, .referred = 2, .bytesKept = 65536},
                                            DyingStores{&left});
      store->publishedCallbackIs([this] { ++rings; });
    } catch (const Death&) {
    }
  }
  // False: died.
  template <class Op>
  bool run(const Op& op) {
    try {
      op(*store);
      return true;
    } catch (const Death&) {
      return false;
    }
  }
  // What is wrong with the table and the writer's idea of it.
  std::string faults() const { return Structure(store->view(), crashHashes).faults(*store); }

  size_t left;
  size_t rings = 0;                    // of changes
  std::unique_ptr<MortalStore> store;  // none: died while beginning
};

}  // namespace Memtab
