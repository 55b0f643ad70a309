// Throughput of the 2.0 record reader on a block-heavy log of about 200 MB, against a raw
// sequential read of the same file in 1 MiB chunks. Each transaction is read into its own
// context, freed once read, so the peak resident size stays near that of one transaction.
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/wal_converter/bc20_logger.h"
#include "utils/mem.h"
#include "utils/stream.h"

namespace {

constexpr int kBlocksPerTransaction = 1000;
constexpr int64_t kTargetBytes = 200LL * 1000 * 1000;

// A little-endian byte writer over a buffered file: just enough to lay down the records.
class Writer {
 public:
  explicit Writer(const char* path) : f_(fopen(path, "wb")) {
    if (f_ != nullptr) setvbuf(f_, nullptr, _IOFBF, 1 << 20);
  }
  ~Writer() {
    if (f_ != nullptr) fclose(f_);
  }
  bool ok() const { return f_ != nullptr; }
  void i16(int16_t v) { put(&v, 2); }
  void i32(int32_t v) { put(&v, 4); }
  void lng(int64_t v) { put(&v, 8); }
  void str(const char* text) {
    i32(static_cast<int32_t>(strlen(text)));
    put(text, strlen(text));
  }
  int64_t written() const { return written_; }

 private:
  void put(const void* p, size_t n) {
    fwrite(p, 1, n, f_);
    written_ += static_cast<int64_t>(n);
  }
  FILE* f_;
  int64_t written_ = 0;
};

struct LogFile {
  std::string path;
  int64_t size = 0;
};

// Writes the log once per process.
const LogFile& log_file() {
  static LogFile file = [] {
    LogFile lf;
    const char* dir = getenv("TMPDIR");
    lf.path = std::string(dir != nullptr ? dir : "/tmp") + "/bc20_reader_bench_" +
              std::to_string(getpid()) + ".LOG";
    Writer w(lf.path.c_str());
    if (!w.ok()) return lf;
    w.i16(1234);
    w.lng(BC20_LOG_VERSION_20);
    int64_t trid = 0, block = 0;
    while (w.written() < kTargetBytes) {
      trid++;
      w.i32(bc20_tr_new);
      w.lng(trid);
      // A few catalog records per transaction, then its blocks.
      w.i32(bc20_cat_table_new);
      w.lng(trid);
      w.str("lineitem");
      w.lng(trid * 10);
      w.i32(bc20_cat_column_new);
      w.lng(trid * 10 + 1);
      w.str("sint");
      w.i32(5);
      w.str("integer");
      w.i32(10);
      w.i32(0);
      w.str("pfor");
      w.str("l_orderkey");
      w.i32(0);
      w.i32(bc20_file_new);
      w.lng(trid);
      w.lng(1);
      w.str("data/file.dat");
      for (int i = 0; i < kBlocksPerTransaction; i++) {
        w.i32(bc20_blk_new);
        w.i32(static_cast<int32_t>(trid % 100));
        w.lng(trid);
        w.lng(block++);
        w.i32(524288);
        w.i32(65536);
      }
      w.i32(bc20_tr_end);
      w.lng(trid);
    }
    lf.size = w.written();
    return lf;
  }();
  return file;
}

struct Cleanup {
  ~Cleanup() {
    if (!log_file().path.empty()) unlink(log_file().path.c_str());
  }
} g_cleanup;

double maxrss_mib() {
  struct rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return static_cast<double>(ru.ru_maxrss) / 1024.0;
}

void BM_ReadTransactions(benchmark::State& state) {
  const LogFile& lf = log_file();
  if (lf.size == 0) {
    state.SkipWithError("could not write the log");
    return;
  }
  int64_t actions = 0, transactions = 0;
  uint64_t largest = 0;
  for (auto _ : state) {
    stream* s = open_binary_read_stream(lf.path.c_str());
    bc20_logger_read_version(s);
    for (;;) {
      MemContext* tc = mem_context_create(nullptr, "logger_replay_tc");
      bc20_action* list = nullptr;
      int rc = bc20_logger_read_transaction(tc, s, &list);
      if (rc == 1 && list == nullptr) state.SkipWithError("read failed");
      for (bc20_action* a = list; a != nullptr; a = a->next) actions++;
      if (mem_context_used(tc) > largest) largest = mem_context_used(tc);
      mem_context_remove(tc);
      if (rc != 1 || list == nullptr) break;
      transactions++;
    }
    stream_close_destroy(s);
  }
  state.SetBytesProcessed(state.iterations() * lf.size);
  state.counters["actions"] = static_cast<double>(actions) / static_cast<double>(state.iterations());
  state.counters["transactions"] =
      static_cast<double>(transactions) / static_cast<double>(state.iterations());
  state.counters["largest_tx_MiB"] = static_cast<double>(largest) / (1024.0 * 1024.0);
  state.counters["maxrss_MiB"] = maxrss_mib();
  state.counters["file_MB"] = static_cast<double>(lf.size) / 1e6;
}

void BM_RawRead(benchmark::State& state) {
  const LogFile& lf = log_file();
  if (lf.size == 0) {
    state.SkipWithError("could not write the log");
    return;
  }
  std::vector<char> chunk(1 << 20);
  int64_t total = 0;
  for (auto _ : state) {
    FILE* f = fopen(lf.path.c_str(), "rb");
    size_t n;
    while ((n = fread(chunk.data(), 1, chunk.size(), f)) > 0) total += static_cast<int64_t>(n);
    fclose(f);
    benchmark::DoNotOptimize(total);
  }
  state.SetBytesProcessed(state.iterations() * lf.size);
  state.counters["maxrss_MiB"] = maxrss_mib();
}

BENCHMARK(BM_RawRead)->Unit(benchmark::kMillisecond)->MinTime(2.0);
BENCHMARK(BM_ReadTransactions)->Unit(benchmark::kMillisecond)->MinTime(2.0);

}  // namespace
