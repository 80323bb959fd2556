// TableFile: opening the file of a table, so that there is one writer, nobody sees a table half made, and nothing of
// anybody else's is touched.
//
//   writer   existing file ── safe? ── locked ── still there? ── header fits ──▶ region: take it over
//               │ none                                │ it does not fit
//               │                                     ▼ renamed to NAME.aside-N, bytes kept
//               └──────▶ unnamed file, locked ──▶ region: make a table in it ──▶ publish() gives it the name
//
// The lock belongs to the open file: it goes with the process, however that ends and in whatever namespace it runs, and
// does not go to children. An unnamed file goes with its process too, so a writer that dies before publish() leaves
// nothing behind.
//
// A file that cannot be a table of this program's is set aside by the writer, since nothing else would bring the table
// back without an operator. A reader never changes anything.
#pragma once

#include <memory>
#include <string>

#include "runtime/Memtab/FileRegion.h"
#include "runtime/Memtab/RegionCheck.h"
#include "runtime/Memtab/StateDirectory.h"

namespace Memtab {

// Another process, or another table of this one, writes the file.
class TableBusy : public Zol::Exception {
 public:
  using Zol::Exception::Exception;
};

// What both sides know of a file.
class TableFile {
 public:
  // Where it lies.
  const std::string& path() const { return path_; }
  // Whether the path names another file by now, or none. A few microseconds.
  bool isReplaced() const;
  bool isSameAs(const TableFile& other) const { return device_ == other.device_ && inode_ == other.inode_; }
  // How long the file is now.
  size_t bytes() const;

 protected:
  TableFile(const std::string& stateDirectory, const std::string& name) : path_(stateDirectory + "/" + name) {}
  int fd() const { return file_->get(); }
  void fileIs(Descriptor file);
  // Throws IncompatibleTable, NoSpace.
  std::unique_ptr<FileView> checkedView(uint64_t fingerprint, size_t collections, size_t bytesMax) const;

  std::string path_;
  std::shared_ptr<const Descriptor> file_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

class WriterFile : public TableFile {
 public:
  static constexpr unsigned asideMax = 8;  // files kept aside for one name; the oldest go

  // Opens the table file name, relative to stateDirectory, or makes one; missing directories are made.
  // fingerprint: of the records. Throws FileRefused, TableBusy, RangeException.
  WriterFile(const std::string& stateDirectory, const std::string& name, uint64_t fingerprint, size_t collections);

  // Whether there was none: then a table is to be made in region(), and published.
  bool isNew() const { return isNew_; }
  // Why the file that was there has been set aside; empty: none was.
  const std::string& asideReason() const { return asideReason_; }

  // The file's memory. Called once; it keeps the lock as long as it lives. Throws NoSpace.
  Region region(size_t bytesMax = Region::reserveDefault);
  // Gives a new file its name. Throws TableBusy when another writer was first.
  void publish();
  // Sets the file aside, because what is in it turned out to be no table; then there is a new one, as if none had been.
  // Requires: regions of it are gone.
  void setAside(const std::string& reason);

 private:
  bool openStanding();
  void makeUnnamed();
  void moveAside();
  void refuseChild() const;

  PlaceInDirectory place_;
  pid_t process_;
  bool isNew_ = false;
  std::string asideReason_;
};

class ReaderFile : public TableFile {
 public:
  // owners: whose tables are trusted beside those of root and of this process's effective user.
  // Throws FileAbsent, FileRefused, IncompatibleTable, NoSpace.
  ReaderFile(const std::string& stateDirectory, const std::string& name, uint64_t fingerprint, size_t collections,
             Owners owners = {});

  // Good as long as this file.
  View view() const { return view_->view(); }
  // Whether somebody truncated the file: what it says is not to be believed, and it is best opened again.
  bool isDamaged() const { return view_->isDamaged(); }
  // Whether a writer has it, by the kernel's word.
  bool isOwned() const;

 private:
  std::unique_ptr<FileView> view_;
};

}  // namespace Memtab
