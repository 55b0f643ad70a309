// The 2.5 commit of one transaction of 5 million blk_new actions (about 220 MB), made durable,
// against a raw write of the same number of bytes in 1 MiB chunks plus one fsync, in one run.
// The closing note of the run compares their MB/s.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "bm/logger.h"
#include "utils/mem.h"
#include "utils/posix.h"

namespace {

constexpr int64_t kActions = 5000000;
constexpr int64_t kRecordBytes = 4 + 5 * 8;
// The log's bytes: the head, the bracket and the records.
constexpr int64_t kLogBytes = 10 + 2 * 12 + kActions * kRecordBytes;

std::string scratch(const char* name) {
  const char* dir = getenv("TMPDIR");
  return std::string(dir != nullptr ? dir : "/tmp") + "/" + name + "." + std::to_string(getpid());
}

// The generator's list, built once per process in its "write_log" context.
const bm_logger_action_list* block_list() {
  static bm_logger_action_list* list = [] {
    MemContext* mem = mem_context_create(nullptr, "write_log");
    bm_logger_action_list* l = action_list_new(mem);
    for (int64_t i = 0; i < kActions; i++)
      action_list_append(l, bm_action_blk_new(mem, 1 + i % 64, i % 7, i, 262144, 1000 + i % 100));
    return l;
  }();
  return list;
}

double g_commit_seconds = 0, g_raw_seconds = 0;

void BM_Commit5MBlkNew(benchmark::State& state) {
  const bm_logger_action_list* list = block_list();
  const std::string path = scratch("bm_logger_bench_log");
  double total = 0;
  for (auto _ : state) {
    unlink(path.c_str());
    auto t0 = std::chrono::steady_clock::now();
    bm_logger* l = bm_logger_open(path.c_str());
    if (l == nullptr || bm_logger_commit(l, list, 0) != 1) state.SkipWithError("commit failed");
    bm_logger_close(l);
    total += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
  unlink(path.c_str());
  g_commit_seconds = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * kLogBytes);
}

void BM_RawWrite1MiBChunksAndFsync(benchmark::State& state) {
  const std::string path = scratch("bm_logger_bench_raw");
  std::vector<char> chunk(1 << 20, 'x');
  double total = 0;
  for (auto _ : state) {
    unlink(path.c_str());
    auto t0 = std::chrono::steady_clock::now();
    int fd = px_open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    for (int64_t left = kLogBytes; left > 0;) {
      size_t n =
          static_cast<size_t>(left < static_cast<int64_t>(chunk.size()) ? left : chunk.size());
      if (px_write(fd, chunk.data(), n) != static_cast<ssize_t>(n))
        state.SkipWithError("write failed");
      left -= static_cast<int64_t>(n);
    }
    if (px_fsync(fd) != 0) state.SkipWithError("fsync failed");
    px_close(fd);
    total += std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  }
  unlink(path.c_str());
  g_raw_seconds = total / static_cast<double>(state.iterations());
  state.SetBytesProcessed(state.iterations() * kLogBytes);
}

// The closing note: MB/s of both and the ratio of their average times.
void BM_ClosingNote(benchmark::State& state) {
  for (auto _ : state) {
  }
  if (g_commit_seconds > 0 && g_raw_seconds > 0) {
    const double mb = static_cast<double>(kLogBytes) / 1e6;
    state.counters["commit_MBps"] = mb / g_commit_seconds;
    state.counters["raw_MBps"] = mb / g_raw_seconds;
    state.counters["commit_over_raw"] = g_commit_seconds / g_raw_seconds;
  }
}

}  // namespace

BENCHMARK(BM_RawWrite1MiBChunksAndFsync)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(5);
BENCHMARK(BM_Commit5MBlkNew)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(5);
BENCHMARK(BM_ClosingNote)->Iterations(1);
