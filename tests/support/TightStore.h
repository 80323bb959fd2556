// Space that a test can use up: stores in private memory, or in files of a tmpfs of the test's own.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>

#include "runtime/Memtab/SharedStore.h"

namespace Memtab {

// A store in private memory that grows until the test says that there is no more.
class TightStore final : public SharedStore {
 public:
  explicit TightStore(const StoreLayout& layout, std::shared_ptr<bool> isFull)
      : SharedStore(std::make_unique<Store>(Region(std::make_unique<Memory>(std::move(isFull)), bytesMax),
                                            layout.fingerprint, layout.hashes,
                                            StoreOptions{.referred = layout.referred})) {}

 private:
  static constexpr std::size_t bytesMax = std::size_t{64} << 20;

  class Memory final : public Backing {
   public:
    explicit Memory(std::shared_ptr<bool> isFull) : isFull_(std::move(isFull)) {}
    bool extend(std::byte* base, std::size_t from, std::size_t to) override {
      return !*isFull_ && mprotect(base + from, to - from, PROT_READ | PROT_WRITE) == 0;
    }
    void giveBack(std::byte* base, std::size_t from, std::size_t to) override {
      madvise(base + from, to - from, MADV_DONTNEED);
    }

   private:
    const std::shared_ptr<bool> isFull_;
  };
};

// Where mounting is not allowed, a tmpfs is replaced by private memory, and the test runs all the same. Its stores
// must be destroyed before it.
class TightSpace {
 public:
  explicit TightSpace(bool isTmpfs) : directory_(isTmpfs ? mounted() : "") {
    if (isTmpfs && directory_.empty()) {
      std::printf("no right to mount: the stores are in private memory\n");
    }
  }
  TightSpace(const TightSpace&) = delete;
  TightSpace& operator=(const TightSpace&) = delete;
  ~TightSpace() {
    if (!directory_.empty()) {
      umount2(directory_.c_str(), MNT_DETACH);
      std::filesystem::remove(directory_);
    }
  }

  Zol::Ptr<SharedStore> store(const std::string& name, const StoreLayout& layout) const {
    if (directory_.empty()) {
      return Zol::make<TightStore>(layout, isFull_);
    }
    return Zol::make<FileStore>(directory_, name, layout);
  }
  void isFullIs(bool isFull) const {
    *isFull_ = isFull;
    struct statvfs facts {};
    if (!directory_.empty() && statvfs(directory_.c_str(), &facts) == 0) {
      const std::size_t used = (facts.f_blocks - facts.f_bfree) * facts.f_frsize;
      const std::string size = "size=" + std::to_string(isFull ? used : bytesPlenty);
      EXPECT_EQ(mount("tmpfs", directory_.c_str(), "tmpfs", MS_REMOUNT, size.c_str()), 0);
    }
  }

 private:
  static constexpr std::size_t bytesPlenty = std::size_t{64} << 20;

  static std::string mounted() {
    std::string pattern = testing::TempDir() + "tightXXXXXX";
    const std::string directory = mkdtemp(pattern.data());
    const std::string options = "mode=750,size=" + std::to_string(bytesPlenty);
    if (unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
        mount("tmpfs", directory.c_str(), "tmpfs", 0, options.c_str()) == 0) {
      return directory;
    }
    std::filesystem::remove(directory);
    return "";
  }

  const std::string directory_;  // empty: private memory
  const std::shared_ptr<bool> isFull_ = std::make_shared<bool>(false);
};

}  // namespace Memtab
