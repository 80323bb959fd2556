#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/syscall.h>

#include <cstdarg>
#include <utility>

#include "tests/runtime/Memtab/FileScene.h"

namespace {
std::function<void()> beforeNextLock;
}  // namespace

// Takes the place of the C library's, so that a test can act between the opening of a file and its lock.
extern "C" int fcntl(int fd, int command, ...) {
  va_list rest;
  va_start(rest, command);
  void* const argument = va_arg(rest, void*);
  va_end(rest);
  if (command == F_OFD_SETLK && beforeNextLock) {
    std::exchange(beforeNextLock, nullptr)();
  }
  return static_cast<int>(syscall(SYS_fcntl, fd, command, argument));
}

namespace Memtab {
namespace {

using Scene = StateDirectoryScene;

WriterFile writerOf(const Scene& scene, const std::string& name = "rib/system") {
  return WriterFile(scene.path, name, fileFingerprint, 1);
}
ReaderFile readerOf(const Scene& scene, const std::string& name = "rib/system") {
  return ReaderFile(scene.path, name, fileFingerprint, 1);
}

// A published table, and a writer that has closed it.
void makeTable(const Scene& scene) {
  WriterFile file = writerOf(scene);
  Store store(file.region(), fileFingerprint, fileHashes);
  put(store, "key", "record");
  file.publish();
}

// Fails if a table shows before it is complete, if readers do not see it grow, or if the umask decides on modes.
TEST(MemtabFile, writerPublishesReaderFollows) {
  Scene scene;
  for (const mode_t mask : {0777u, 0u}) {
    const mode_t before = umask(mask);
    WriterFile file = writerOf(scene);
    umask(before);
    EXPECT_TRUE(file.isNew());
    Store store(file.region(), fileFingerprint, fileHashes);
    EXPECT_THROW(readerOf(scene), FileAbsent);
    file.publish();
    EXPECT_EQ(Scene::modeOf(scene.path), 0750u);
    EXPECT_EQ(Scene::modeOf(scene.at("rib")), 0750u);
    EXPECT_EQ(Scene::modeOf(scene.at("rib/system")), 0640u);

    const ReaderFile readerFile = readerOf(scene);
    const Reader reader(readerFile.view(), fileHashes);
    const size_t sizeBefore = readerFile.view().size();
    for (int i = 0; i < 20000; ++i) {
      put(store, std::to_string(i), std::to_string(i * i));
    }
    for (int i = 0; i < 20000; ++i) {
      ASSERT_EQ(get(reader, std::to_string(i)), std::to_string(i * i));
    }
    EXPECT_GT(readerFile.view().size(), sizeBefore);
    EXPECT_TRUE(readerFile.isOwned());
    EXPECT_FALSE(readerFile.isReplaced() || file.isReplaced());
    unlink(scene.at("rib/system").c_str());
    EXPECT_TRUE(readerFile.isReplaced() && file.isReplaced());
    EXPECT_EQ(get(reader, "7"), "49");  // the old view stays readable
    std::filesystem::remove_all(scene.path);
  }
}

// Fails if two writers get one table, if a dead one keeps it, or if the second is not told who has it.
TEST(MemtabFile, oneWriter) {
  Scene scene;
  makeTable(scene);
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    WriterFile file = writerOf(scene);
    const Region region = file.region();
    auto* header = reinterpret_cast<Word*>(region.base());
    std::ifstream stat("/proc/self/stat");
    std::string field;
    for (int i = 0; i < 22; ++i) {
      stat >> field;
    }
    header[ownerAt / 8] = static_cast<uint64_t>(getpid());
    header[ownerStartAt / 8] = std::stoul(field);
    (void)!::write(ready[1], "r", 1);
    pause();
  }
  char byte = 0;
  ASSERT_EQ(::read(ready[0], &byte, 1), 1);
  const ReaderFile reader = readerOf(scene);
  EXPECT_TRUE(reader.isOwned());
  kill(child, SIGSTOP);  // stopped is not dead
  const std::string busy = thrown<TableBusy>([&] { writerOf(scene); });
  EXPECT_NE(busy.find("pid " + std::to_string(child) + " ("), std::string::npos) << busy;
  EXPECT_NE(busy.find(" s ago"), std::string::npos) << busy;
  EXPECT_EQ(busy.find("started -"), std::string::npos) << "a fraction of a second is lost: " << busy;
  kill(child, SIGKILL);
  waitid(P_PID, static_cast<id_t>(child), nullptr, WEXITED | WNOWAIT);  // a zombie holds nothing
  EXPECT_FALSE(reader.isOwned());
  const WriterFile next = writerOf(scene);
  EXPECT_FALSE(next.isNew());
  EXPECT_NE(thrown<TableBusy>([&] { writerOf(scene); }).find("holder unknown"), std::string::npos);
  waitpid(child, nullptr, 0);
}

// Fails if a writer continues in a file that lost its name between opening and lock: no reader would see its changes.
TEST(MemtabFile, aFileReplacedBeforeItsLockIsLeft) {
  Scene scene;
  makeTable(scene);
  beforeNextLock = [&] {
    std::filesystem::rename(scene.at("rib/system"), scene.at("rib/other"));
    makeTable(scene);
  };
  const WriterFile file = writerOf(scene);
  EXPECT_FALSE(file.isReplaced());
  EXPECT_FALSE(beforeNextLock);
}

// Fails if a child of the writer can write, keeps the lock after its parent's end, or unmaps what is not its own.
TEST(MemtabFile, childrenGetNothing) {
  struct Answer {
    pid_t grandchild;
    int isRefused;
  } answer{};
  Scene scene;
  makeTable(scene);
  int answers[2];
  ASSERT_EQ(pipe(answers), 0);
  inChild([&] {
    WriterFile file = writerOf(scene);
    auto region = std::make_unique<Region>(file.region());
    if (fork() != 0) {
      return 0;
    }
    const auto isRefused = [](auto&& f) { return thrown<Zol::InternalException>(f) != "nothing thrown"; };
    answer = {getpid(), isRefused([&] { region->extendTo(size_t{1} << 20); }) && isRefused([&] { file.region(); })};
    region.reset();
    (void)!::write(answers[1], &answer, sizeof answer);
    return pause();
  });
  ASSERT_EQ(::read(answers[0], &answer, sizeof answer), static_cast<ssize_t>(sizeof answer));
  EXPECT_TRUE(answer.isRefused);
  EXPECT_FALSE(writerOf(scene).isNew());  // the lock is free though the grandchild lives
  kill(answer.grandchild, SIGKILL);
}

// Fails if somebody's file is touched, or a table is made through it.
TEST(MemtabFile, plantedFilesAreRefused) {
  struct Case {
    const char* reason;
    std::function<void(const Scene&)> plant;
  };
  const std::string secret = "somebody's";
  const auto victim = [](const Scene& scene) { return scene.path + "/../victim"; };
  const Case cases[] = {
      {"not a regular file", [&](const Scene& s) { symlink(victim(s).c_str(), s.at("rib/system").c_str()); }},
      {"not a regular file", [](const Scene& s) { mkfifo(s.at("rib/system").c_str(), 0640); }},
      {"not a regular file", [](const Scene& s) { mkdir(s.at("rib/system").c_str(), 0750); }},
      {"has 2 links", [&](const Scene& s) { link(victim(s).c_str(), s.at("rib/system").c_str()); }},
      {"group or world may write",
       [](const Scene& s) {
         Scene::write(s.at("rib/system"), "x");
         chmod(s.at("rib/system").c_str(), 0660);
       }},
      {"group or world may write", [](const Scene& s) { chmod(s.at("rib").c_str(), 0757); }},
      {"not a directory",
       [](const Scene& s) {
         std::filesystem::rename(s.at("rib"), s.at("other"));
         symlink("other", s.at("rib").c_str());
       }},
      {"not a directory",
       [](const Scene& s) {
         std::filesystem::rename(s.path, s.path + "2");
         symlink("state2", s.path.c_str());
       }},
      {"belongs to user 12345",
       [](const Scene& s) {
         Scene::write(s.at("rib/system"), "x");
         ASSERT_EQ(chown(s.at("rib/system").c_str(), 12345, 12345), 0);
       }},
  };
  for (const Case& c : cases) {
    if (geteuid() != 0 && std::string(c.reason).starts_with("belongs")) {
      continue;
    }
    Scene scene;
    makeTable(scene);
    unlink(scene.at("rib/system").c_str());
    Scene::write(victim(scene), secret);
    c.plant(scene);
    EXPECT_NE(thrown<FileRefused>([&] { writerOf(scene); }).find(c.reason), std::string::npos) << c.reason;
    EXPECT_NE(thrown<FileRefused>([&] { readerOf(scene); }).find(c.reason), std::string::npos) << c.reason;
    EXPECT_EQ(Scene::bytesAt(victim(scene)), secret);
  }
  Scene scene;
  for (const char* name : {"", "/a", "a/", "a//b", "../a", "a/.b", "."}) {
    EXPECT_THROW(writerOf(scene, name), Zol::RangeException) << name;
  }
  if (geteuid() == 0) {  // another user's table, by leave
    makeTable(scene);
    for (const std::string& path : {scene.path, scene.at("rib"), scene.at("rib/system")}) {
      ASSERT_EQ(chown(path.c_str(), 12345, 12345), 0);
    }
    EXPECT_THROW(readerOf(scene), FileRefused);
    EXPECT_EQ(get(Reader(ReaderFile(scene.path, "rib/system", fileFingerprint, 1, {12345}).view(), fileHashes), ""),
              "collection 0: no damage");
  }
}

// Fails if an incompatible file blocks the start, loses its bytes, is taken for an empty table, or fills the disk.
TEST(MemtabFile, misfitsAreSetAside) {
  Scene scene;
  makeTable(scene);
  const std::string good = Scene::bytesAt(scene.at("rib/system"));
  const auto with = [&](size_t offset, uint64_t word) {
    std::string bytes = good;
    std::memcpy(bytes.data() + offset, &word, sizeof word);
    return bytes;
  };
  struct Case {
    std::string bytes;
    const char* reason;
  };
  const Case cases[] = {{"", "0 bytes"},
                        {good.substr(0, 4095), "4095 bytes are too few"},
                        {good.substr(0, 8192), "truncated from"},
                        {std::string(70000, 'g'), "magic number"},
                        {with(versionAt, 77), "format version is 0x000000000000004d"},
                        {with(fingerprintAt, 0x9999), "0x0000000000009999, not 0x0000000000001234"},
                        {with(allocatedAt, 65537), "65537 bytes"},
                        {with(allocatedAt, ~uint64_t{0}), "bytes"}};
  unsigned n = 0;
  for (const Case& c : cases) {
    Scene::write(scene.at("rib/system"), c.bytes);
    EXPECT_NE(thrown<IncompatibleTable>([&] { readerOf(scene); }).find(c.reason), std::string::npos) << c.reason;
    EXPECT_EQ(Scene::bytesAt(scene.at("rib/system")), c.bytes);
    WriterFile file = writerOf(scene);
    EXPECT_TRUE(file.isNew());
    EXPECT_NE(file.asideReason().find(c.reason), std::string::npos) << file.asideReason();
    EXPECT_EQ(Scene::bytesAt(scene.at("rib/system.aside-" + std::to_string(++n))), c.bytes);
    Store store(file.region(), fileFingerprint, fileHashes);
    file.publish();
    EXPECT_EQ(get(Reader(readerOf(scene).view(), fileHashes), "key"), "collection 0: no damage");
  }
  for (unsigned i = 0; i < 2 * WriterFile::asideMax; ++i) {
    Scene::write(scene.at("rib/system"), "garbage");
    writerOf(scene);
  }
  const std::filesystem::directory_iterator left(scene.at("rib"));
  EXPECT_EQ(std::distance(begin(left), end(left)), WriterFile::asideMax);
  EXPECT_FALSE(std::filesystem::exists(scene.at("rib/system")));  // the last one was never published
}

// Fails if a bit of the size in the header costs the records behind it without a word.
TEST(MemtabFile, aWrongSizeCostsNothing) {
  const StateDirectoryScene files;
  std::optional<WriterFile> file;
  std::optional<Store> store;
  const auto open = [&] {
    store.reset();
    file.reset();
    file.emplace(files.path, "table", fileFingerprint, 1);
    store.emplace(file->region(), fileFingerprint, fileHashes);
  };
  open();
  constexpr unsigned records = 3000;
  for (unsigned i = 0; i < records; ++i) {
    const std::string key = std::to_string(i);
    store->put(0, spreadHash(bytesOf(key)), bytesOf(key), bytesOf(std::string(100, 'x')));
  }
  file->publish();
  const uint64_t allocated = store->bytesMapped();
  unsigned kept = 0;
  for (uint64_t bit = headerBytes; bit < allocated; bit *= 2) {
    if ((allocated & bit) == 0) {
      continue;
    }
    reinterpret_cast<Word*>(const_cast<std::byte*>(store->view().base))[allocatedAt / 8] = allocated ^ bit;
    open();
    if (!file->asideReason().empty()) {
      break;  // what is left is no table
    }
    EXPECT_EQ(store->entries(0), records) << (allocated ^ bit);
    EXPECT_TRUE(store->takeOver().damages.empty());
    ++kept;
  }
  EXPECT_GT(kept, 0U);
}

// Fails if of two writers that start together both, or none, end up with the table, or the loser breaks the winner's.
TEST(MemtabFile, firstToPublishWins) {
  Scene scene;
  WriterFile one = writerOf(scene);
  WriterFile two = writerOf(scene);
  Store first(one.region(), fileFingerprint, fileHashes);
  Store second(two.region(), fileFingerprint, fileHashes);
  put(second, "who", "second");
  two.publish();
  EXPECT_THROW(one.publish(), TableBusy);
  EXPECT_EQ(get(Reader(readerOf(scene).view(), fileHashes), "who"), "second");
}

// Fails if a writer that dies before it publishes leaves anything behind.
TEST(MemtabFile, unpublishedLeavesNothing) {
  Scene scene;
  inChild([&] {
    WriterFile file = writerOf(scene, "system");
    Store store(file.region(), fileFingerprint, fileHashes);
    return raise(SIGKILL);
  });
  EXPECT_EQ(scene.files(), 0u);
}

// Fails if a reader could spoil the table: what it maps is for reading alone.
TEST(MemtabFile, aReadersStoreFaults) {
  Scene scene;
  makeTable(scene);
  const std::string before = Scene::bytesAt(scene.at("rib/system"));
  const int status = inChild([&] {
    signal(SIGSEGV, SIG_DFL);
    const ReaderFile file = readerOf(scene);
    *reinterpret_cast<volatile char*>(const_cast<std::byte*>(file.view().base) + headerBytes) = 'x';
    return 0;
  });
  EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
  EXPECT_EQ(Scene::bytesAt(scene.at("rib/system")), before);
}

// Fails if a full file system is a fault at some store, or more than a refused insertion; if it leaves a file longer
// than its table, at small pages or huge ones; or if the reserve's memory is taken by others.
TEST(MemtabFile, fullFileSystem) {
  Scene scene;
  std::filesystem::create_directory(scene.path);
  const auto isRight = [&](const char* size) {
    if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", scene.path.c_str(), "tmpfs", 0, size) != 0) {
      return 77;
    }
    WriterFile file = writerOf(scene);
    Store store(file.region(), fileFingerprint, fileHashes);
    file.publish();
    int n = 0;
    const bool isRefused = thrown<NoSpace>([&] {
                             for (;; ++n) {
                               put(store, std::to_string(n), std::string(1000, 'x'));
                             }
                           }) != "nothing thrown";
    const bool isAsLong = std::filesystem::file_size(file.path()) == store.bytesMapped();
    Scene::write(scene.at("others"), std::string(size_t{8} << 20, 'x'));  // until all is full
    for (int i = 0; i < n; ++i) {
      put(store, std::to_string(i), std::string(1000, 'y'));
    }
    const ReaderFile readerFile = readerOf(scene);
    const size_t seen = walk(Reader(readerFile.view(), fileHashes), 0).size();
    const bool isSecondRefused = thrown<NoSpace>([&] { writerOf(scene, "b").region(); }) != "nothing thrown";
    return isRefused && isAsLong && isSecondRefused && n > 500 && seen == static_cast<size_t>(n) ? 0 : 1;
  };
  for (const char* size : {"size=1m,mode=750", "size=5m,mode=750"}) {
    const int status = inChild([&] { return isRight(size); });
    if (WEXITSTATUS(status) == 77) {
      GTEST_SKIP() << "no right to mount";
    }
    EXPECT_EQ(status, 0) << size;
  }
}

// Fails if a table that cannot grow loses what it has, or if little address space is no space.
TEST(MemtabFile, limits) {
  Scene scene;
  WriterFile file = writerOf(scene);
  Store store(file.region(size_t{1} << 20), fileFingerprint, fileHashes);
  file.publish();
  int n = 0;
  EXPECT_THROW(
      for (;; ++n) { put(store, std::to_string(n), std::string(1000, 'x')); }, NoSpace);
  EXPECT_GT(n, 500);
  const ReaderFile readerFile = readerOf(scene);
  EXPECT_EQ(walk(Reader(readerFile.view(), fileHashes), 0).size(), static_cast<size_t>(n));
  const FileView narrow(std::make_shared<const Descriptor>(open(file.path().c_str(), O_RDONLY | O_CLOEXEC)),
                        file.path(), 0);
  EXPECT_EQ(walk(Reader(narrow.view(), fileHashes), 0).size(), static_cast<size_t>(n));
}

}  // namespace
}  // namespace Memtab
