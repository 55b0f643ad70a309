// Block storage at the size of a large database: 10 million blocks of 1,000 storage columns in 16
// files, made as the replay of blk_new records makes them (block manager, columnspace, storage
// column) and released again, against a raw baseline that only stores the same records in
// plain arrays. Peak resident memory per block is reported from getrusage.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "bm/columnspace.h"
#include "bm/iob.h"
#include "bm/iobm.h"
#include "bm/scolumn.h"
#include "utils/cvconfig.h"

namespace {

constexpr int64_t kBlocks = 10'000'000;
constexpr int32_t kColumns = 1000;
constexpr int64_t kFiles = 16;

int64_t peak_rss_bytes() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return static_cast<int64_t>(usage.ru_maxrss) * 1024;
}

// The order of a log: each record names a column at random; the column's file is fixed.
struct Pick {
  uint64_t state = 88172645463325252ULL;
  int32_t next() {
    state ^= state << 13;
    state ^= state >> 7;
    state ^= state << 17;
    return static_cast<int32_t>(state % kColumns);
  }
};

void BM_ReplayAndReleaseBlocks(benchmark::State& state) {
  char farm[] = "/tmp/j480bench.XXXXXX";
  if (mkdtemp(farm) == nullptr) {
    state.SkipWithError("no temporary directory");
    return;
  }
  cvconfig* config = cvconfig_create();
  cvconfig_layer* layer = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
  cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm);
  cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBNAME, "db");
  iobm* bm = iobm_create(layer);
  const int64_t rss_before = peak_rss_bytes();
  for (auto _ : state) {
    auto start = std::chrono::steady_clock::now();
    columnspace* cs = columnspace_create(512 * 1024, 8, 128, 1);
    bm->cs = cs;
    for (int64_t f = 0; f < kFiles; f++) columnspace_register_file(cs, nullptr, nullptr, "f", 0, f);
    std::vector<scolumn*> columns(kColumns);
    for (int32_t c = 0; c < kColumns; c++) columns[c] = scolumn_create(bm, cs, c + 1, 1, 3);
    std::vector<int64_t> next_block(kFiles, 0);
    Pick pick;
    for (int64_t i = 0; i < kBlocks; i++) {
      int32_t id = pick.next() + 1;
      int64_t file = id % kFiles;
      iob* b = iobm_new_block(bm, file, id, next_block[file]++);
      b->bytes_used = 512 * 1024;
      b->num_tuples = 65536;
      scolumn_add_block(iobm_get_scolumn(bm, id), b, nullptr, nullptr);
    }
    state.counters["peak_rss_per_block"] =
        static_cast<double>(peak_rss_bytes() - rss_before) / kBlocks;
    auto made = std::chrono::steady_clock::now();
    for (scolumn* c : columns) scolumn_destroy(c);
    columnspace_destroy(cs);
    bm->cs = nullptr;
    auto released = std::chrono::steady_clock::now();
    state.counters["make_s"] = std::chrono::duration<double>(made - start).count();
    state.counters["release_s"] = std::chrono::duration<double>(released - made).count();
  }
  state.counters["blocks"] = kBlocks;
  state.counters["peak_rss_per_block_total"] = static_cast<double>(peak_rss_bytes()) / kBlocks;
  iobm_destroy(bm);
  cvconfig_destroy(config);
  std::string lock = std::string(farm) + "/db/CBM/lock";
  remove(lock.c_str());
  remove((std::string(farm) + "/db/CBM").c_str());
  remove((std::string(farm) + "/db").c_str());
  remove(farm);
}
BENCHMARK(BM_ReplayAndReleaseBlocks)->Iterations(1)->Unit(benchmark::kMillisecond);

// The raw baseline: the same records stored as 56-byte records in one array and their pointers
// appended to per-column vectors, then freed.
struct RawBlock {
  int64_t block_nr, file_nr, owner;
  uint32_t bytes_used, num_tuples;
  int64_t pad[3];
};

void BM_RawBaseline(benchmark::State& state) {
  for (auto _ : state) {
    std::vector<RawBlock> blocks(kBlocks);
    std::vector<std::vector<RawBlock*>> columns(kColumns);
    std::vector<int64_t> next_block(kFiles, 0);
    Pick pick;
    for (int64_t i = 0; i < kBlocks; i++) {
      int32_t id = pick.next() + 1;
      int64_t file = id % kFiles;
      RawBlock* b = &blocks[i];
      b->block_nr = next_block[file]++;
      b->file_nr = file;
      b->owner = id;
      b->bytes_used = 512 * 1024;
      b->num_tuples = 65536;
      columns[id - 1].push_back(b);
    }
    benchmark::DoNotOptimize(columns.data());
  }
}
BENCHMARK(BM_RawBaseline)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
