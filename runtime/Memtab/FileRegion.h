// The two sides of a region in a file, best one of tmpfs.
//
//   writer   FileBacking   the whole reserved range is mapped once, for reading and writing; growing allocates the
//                          file's next piece, so that a full file system is refused then and is no fault later
//   reader   FileView      a range longer than the file is mapped once, for reading alone; as the file grows, more of
//                          it may be touched
//
// Nothing is ever mapped anew, so no pointer goes stale. Both are guarded against files that somebody truncates.
//
// A child process does not get the writer's mapping: it cannot write to its parent's table.
#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

#include "runtime/Memtab/Addresses.h"
#include "runtime/Memtab/BusGuard.h"
#include "runtime/Memtab/Descriptor.h"
#include "runtime/Memtab/Region.h"

namespace Memtab {

class FileBacking final : public Backing {
 public:
  // path: of the file, for messages. bytes: of the file that are in use already, whole pages.
  FileBacking(std::shared_ptr<const Descriptor> file, std::string path, size_t bytes);

  size_t attach(std::byte* base, size_t bytes) override;
  bool isAttached() const override;
  const std::atomic<bool>* damaged() const override { return guard_ ? guard_->damaged() : nullptr; }
  // Throws NoSpace with the file's path and the system's error, and InternalException in a child process.
  bool extend(std::byte* base, size_t from, size_t to) override;
  void giveBack(std::byte* base, size_t from, size_t to) override;

 private:
  void takeHugePages(std::byte* base, size_t from, size_t to);

  std::shared_ptr<const Descriptor> file_;
  const std::string path_;
  size_t bytes_;
  bool hasHugePages_ = true;  // as far as is known
  pid_t process_;
  std::optional<BusGuard> guard_;
};

class FileView : private Extent {
 public:
  // Requires: the file is open for reading and has a header page. bytesMax: how far it may be seen to grow.
  // Throws NoSpace when there are not even addresses for the file as it is.
  // path: of the file, for messages.
  FileView(std::shared_ptr<const Descriptor> file, const std::string& path, size_t bytesMax = Region::reserveDefault);
  FileView(const FileView&) = delete;
  FileView& operator=(const FileView&) = delete;

  View view() const { return {addresses_.base(), this}; }
  using Extent::isDamaged;

 private:
  static bool look(const Extent& extent, size_t end);
  uint64_t allocated() const;
  void refresh() const;

  std::shared_ptr<const Descriptor> file_;
  Addresses addresses_;
  std::optional<BusGuard> guard_;
};

}  // namespace Memtab
