// The shared-memory table engine beside LMDB, in one run: a million records of 128 bytes under random 8-byte keys, both
// in files of a tmpfs. Every put and every deletion is visible to readers of other processes when it returns, which for
// LMDB means a write transaction each. Nothing is synced.
//
//     build/release/bench/LmdbComparisonBench [RECORDS]
//
// LMDB gets what favours it: integer keys (MDB_INTEGERKEY), no look for stale readers, read transactions that are
// renewed instead of made, and of its ways of writing (MDB_NOSYNC alone, or with MDB_WRITEMAP) the faster one for each
// operation. CPU time, user and system, of this process; the best of three rounds, which take turns.
#include <lmdb.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "runtime/Memtab/Store.h"
#include "runtime/Memtab/TableFile.h"

namespace {

using Memtab::Bytes;

constexpr std::size_t recordBytes = 128;
constexpr int rounds = 3;

std::uint64_t mixed(std::uint64_t x) {
  x = (x ^ x >> 33) * 0xFF51'AFD7'ED55'8CCD;
  x = (x ^ x >> 33) * 0xC4CE'B9FE'1A85'EC53;
  return x ^ x >> 33;
}

std::uint64_t hashOf(Bytes key) {
  std::uint64_t number = 0;
  std::memcpy(&number, key.data(), std::min(key.size(), sizeof number));
  return mixed(number);
}

struct Record {
  explicit Record(std::uint64_t number) { std::memcpy(bytes, &number, sizeof number); }
  std::byte bytes[recordBytes] = {};
};

void require(bool isSo, const char* what) {
  if (!isSo) {
    std::fprintf(stderr, "%s failed\n", what);
    std::exit(1);
  }
}

class MemtabTable {
 public:
  explicit MemtabTable(const std::string& directory)
      : file_(directory, "table", 1, 1), store_(file_.region(), 1, hashes) {
    file_.publish();
  }
  void put(std::uint64_t key, std::uint64_t number) {
    const Record record(number);
    store_.put(0, mixed(key), bytesOf(key), record.bytes);
  }
  std::uint64_t get(std::uint64_t key) const { return firstOf(store_.get(0, mixed(key), bytesOf(key)).record); }
  std::uint64_t getInOneTransaction(std::uint64_t key) const { return get(key); }
  void del(std::uint64_t key) { require(store_.del(0, mixed(key), bytesOf(key)), "deletion"); }
  std::uint64_t walk() const {
    std::uint64_t sum = 0;
    for (Memtab::Cursor cursor = store_.cursor(0); cursor.next() == Memtab::Cursor::Step::entry;) {
      sum += firstOf(cursor.record());
    }
    return sum;
  }

 private:
  static constexpr Memtab::HashFn hashes[] = {hashOf};
  static Bytes bytesOf(const std::uint64_t& key) { return std::as_bytes(std::span(&key, 1)); }
  static std::uint64_t firstOf(Bytes record) {
    std::uint64_t number = 0;
    std::memcpy(&number, record.data(), record.empty() ? 0 : sizeof number);
    return number;
  }

  Memtab::WriterFile file_;
  Memtab::Store store_;
};

template <unsigned writing>
class LmdbTable {
 public:
  explicit LmdbTable(const std::string& directory) {
    constexpr std::size_t mapBytes = std::size_t{2} << 30;
    require(mdb_env_create(&env_) == 0 && mdb_env_set_mapsize(env_, mapBytes) == 0 &&
                mdb_env_open(env_, directory.c_str(), MDB_NOSYNC | MDB_NOMETASYNC | writing, 0640) == 0,
            "mdb_env_open");
    change([this](MDB_txn* txn) { return mdb_dbi_open(txn, nullptr, MDB_INTEGERKEY, &table_); });
    require(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reading_) == 0, "mdb_txn_begin");
    mdb_txn_reset(reading_);
  }
  ~LmdbTable() {
    mdb_txn_abort(reading_);
    mdb_env_close(env_);
  }
  LmdbTable(const LmdbTable&) = delete;
  LmdbTable& operator=(const LmdbTable&) = delete;

  void put(std::uint64_t key, std::uint64_t number) {
    Record record(number);
    MDB_val keyBytes{sizeof key, &key};
    MDB_val bytes{sizeof record.bytes, record.bytes};
    change([&](MDB_txn* txn) { return mdb_put(txn, table_, &keyBytes, &bytes, 0); });
  }
  std::uint64_t get(std::uint64_t key) {
    mdb_txn_renew(reading_);
    const std::uint64_t number = find(key);
    mdb_txn_reset(reading_);
    return number;
  }
  std::uint64_t getInOneTransaction(std::uint64_t key) {
    if (!isReading_) {
      mdb_txn_renew(reading_);
      isReading_ = true;
    }
    return find(key);
  }
  void del(std::uint64_t key) {
    MDB_val keyBytes{sizeof key, &key};
    change([&](MDB_txn* txn) { return mdb_del(txn, table_, &keyBytes, nullptr); });
  }
  std::uint64_t walk() {
    endReading();
    mdb_txn_renew(reading_);
    MDB_cursor* cursor = nullptr;
    require(mdb_cursor_open(reading_, table_, &cursor) == 0, "mdb_cursor_open");
    std::uint64_t sum = 0;
    MDB_val key;
    MDB_val bytes;
    while (mdb_cursor_get(cursor, &key, &bytes, MDB_NEXT) == 0) {
      sum += numberIn(bytes);
    }
    mdb_cursor_close(cursor);
    mdb_txn_reset(reading_);
    return sum;
  }

 private:
  static std::uint64_t numberIn(const MDB_val& bytes) {
    std::uint64_t number = 0;
    std::memcpy(&number, bytes.mv_data, sizeof number);
    return number;
  }
  template <class F>
  void change(F&& f) {
    endReading();
    MDB_txn* txn = nullptr;
    require(mdb_txn_begin(env_, nullptr, 0, &txn) == 0 && f(txn) == 0 && mdb_txn_commit(txn) == 0, "mdb_txn");
  }
  void endReading() {
    if (isReading_) {
      mdb_txn_reset(reading_);
      isReading_ = false;
    }
  }
  std::uint64_t find(std::uint64_t key) {
    MDB_val keyBytes{sizeof key, &key};
    MDB_val bytes;
    return mdb_get(reading_, table_, &keyBytes, &bytes) == 0 ? numberIn(bytes) : 0;
  }

  MDB_env* env_ = nullptr;
  MDB_dbi table_ = 0;
  MDB_txn* reading_ = nullptr;
  bool isReading_ = false;
};

double cpuSeconds() {
  timespec now{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

// Nanoseconds an operation, by name; the least of all rounds.
using Costs = std::map<std::string, double>;

template <class Table>
void measure(const std::vector<std::uint64_t>& keys, const std::vector<std::uint64_t>& otherOrder, Costs& costs) {
  const std::string directory = "/dev/shm/comparison-" + std::to_string(getpid());
  std::filesystem::create_directory(directory);
  std::filesystem::permissions(directory, std::filesystem::perms(0750));
  {
    Table table(directory);
    const auto timed = [&](const char* name, auto&& f) {
      const double begin = cpuSeconds();
      f();
      const double cost = (cpuSeconds() - begin) * 1e9 / static_cast<double>(keys.size());
      costs[name] = costs.contains(name) ? std::min(costs[name], cost) : cost;
    };
    std::uint64_t sum = 0;
    std::uint64_t expected = 0;
    std::for_each(keys.begin(), keys.end(), [&](std::uint64_t key) { expected += key + 1; });
    const auto addAll = [&](auto&& get) {
      sum = 0;
      std::for_each(otherOrder.begin(), otherOrder.end(), [&](std::uint64_t key) { sum += get(key); });
      require(sum == expected, "reading all");
    };
    timed("put, new", [&] { std::for_each(keys.begin(), keys.end(), [&](auto key) { table.put(key, 1); }); });
    timed("put, replaced",
          [&] { std::for_each(otherOrder.begin(), otherOrder.end(), [&](auto key) { table.put(key, key + 1); }); });
    timed("get", [&] { addAll([&](auto key) { return table.get(key); }); });
    timed("get, one transaction", [&] { addAll([&](auto key) { return table.getInOneTransaction(key); }); });
    timed("iterate", [&] { require(table.walk() == expected, "iteration"); });
    timed("delete", [&] { std::for_each(keys.begin(), keys.end(), [&](auto key) { table.del(key); }); });
  }
  std::filesystem::remove_all(directory);
}

}  // namespace

int main(int argc, char** argv) {
  const std::uint64_t count = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1'000'000;
  std::vector<std::uint64_t> keys(count);
  for (std::uint64_t i = 0; i < count; ++i) {
    keys[i] = mixed(i + 1);
  }
  std::vector<std::uint64_t> otherOrder = keys;
  std::sort(otherOrder.begin(), otherOrder.end(), [](auto a, auto b) { return mixed(a + 7) < mixed(b + 7); });
  Costs ours;
  Costs copying;
  Costs mapped;
  for (int round = 0; round < rounds; ++round) {
    measure<MemtabTable>(keys, otherOrder, ours);
    measure<LmdbTable<0>>(keys, otherOrder, copying);
    measure<LmdbTable<MDB_WRITEMAP>>(keys, otherOrder, mapped);
  }
  std::printf("%llu records of %zu bytes; ns of CPU time an operation\n", static_cast<unsigned long long>(count),
              recordBytes);
  std::printf("%-22s %8s %8s %10s %7s\n", "", "Memtab", "LMDB", "writemap", "ratio");
  for (const auto& [name, cost] : ours) {
    std::printf("%-22s %8.0f %8.0f %10.0f %7.2f\n", name.c_str(), cost, copying[name], mapped[name],
                std::min(copying[name], mapped[name]) / cost);
  }
}
