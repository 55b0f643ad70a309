// The replay of a 2.0 database into the legacy model, as the converter runs it (iobm_create,
// the type tables, the catalog, iobm_init, the tail), against a raw read of the same log.
//
// Logs come from j480_wal20_gen (found beside this benchmark in the build tree, or named by
// J480_GEN_BIN), made once per process into /tmp/j480_replay_bench.<pid>:
//   catalog/<n>: n tables with keys, foreign keys, minmax and join indexes, few blocks, in a
//                single-location database (a multi-location one adds a file per storage group,
//                whose cost is the columnspace's);
//   blocks/<n>: a single-location database grown with block transactions to about n blocks.
// Counters: MB/s of log, peak resident memory (the high-water mark is reset before each
// replay), and per table or per block the rate and the peak (the process's base included).
#include <benchmark/benchmark.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "bm/iobm.h"
#include "kernel/kernel.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_replay.h"
#include "utils/cvconfig.h"
#include "utils/cvlog.h"

namespace {

std::string bench_dir() {
  static std::string dir = "/tmp/j480_replay_bench." + std::to_string(getpid());
  return dir;
}

std::string gen_bin() {
  if (const char* env = getenv("J480_GEN_BIN")) return env;
  std::filesystem::path self = std::filesystem::read_symlink("/proc/self/exe");
  return (self.parent_path().parent_path() / "src/tools/wal20_gen/j480_wal20_gen").string();
}

// Makes the database once; its directory (the farm) and the log's size.
struct Db {
  std::string farm;
  int64_t log_bytes = 0;
};

Db make_db(const std::string& kind, int64_t n) {
  static std::map<std::string, Db> made;
  std::string key = kind + "/" + std::to_string(n);
  auto it = made.find(key);
  if (it != made.end()) return it->second;
  Db db;
  db.farm = bench_dir() + "/" + kind + "_" + std::to_string(n);
  std::filesystem::create_directories(db.farm);
  std::string args;
  if (kind == "catalog") {
    args = " --tables " + std::to_string(n) + " --transactions " + std::to_string(2 * n) +
           " --columns 4 --blocks 2";
  } else {
    // About 28 bytes a block in the log.
    args = " --tables 8 --transactions 40 --blocks 4096 --target-size " + std::to_string(28 * n);
  }
  std::string cmd = gen_bin() + " --out " + db.farm + "/db --seed 7" + args + " > /dev/null";
  if (std::system(cmd.c_str()) != 0) {
    fprintf(stderr, "cannot run: %s\n", cmd.c_str());
    abort();
  }
  db.log_bytes = static_cast<int64_t>(std::filesystem::file_size(db.farm + "/db/CBM/LOG"));
  made[key] = db;
  return db;
}

int64_t rss_kb(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind(field, 0) == 0) return std::atoll(line.c_str() + strlen(field));
  return 0;
}

void reset_peak() {
  std::ofstream clear("/proc/self/clear_refs");
  clear << "5";
}

// One replay as the driver runs it; the replay's result.
int replay_once(const std::string& farm) {
  cvconfig* config = cvconfig_create();
  cvconfig_layer* layer = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
  cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm.c_str());
  cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBNAME, "db");
  kernel_init(layer);
  bc20_set_config(layer);
  bc20_iobm = iobm_create(layer);
  bc20_replay_reset_registry();
  bc20_register_types();
  bc20_catalog = bc20_catalog_create();
  int rc = iobm_init(bc20_iobm);
  bc20_catalog_destroy(bc20_catalog);
  bc20_catalog = nullptr;
  bc20_iobm_release_replay(bc20_iobm);
  iobm_destroy(bc20_iobm);
  bc20_iobm = nullptr;
  bc20_set_config(nullptr);
  cvconfig_destroy(config);
  return rc;
}

void quiet() {
  static bool done = false;
  if (done) return;
  done = true;
  setenv("CVLOG", "default=error:stderr\n", 1);  // the progress lines stay out of the figures
  cv_log_reset_for_tests();
  atexit([] { std::filesystem::remove_all(bench_dir()); });
}

void run_replay(benchmark::State& state, const char* kind, const char* unit) {
  quiet();
  Db db = make_db(kind, state.range(0));
  int64_t peak = 0;
  for (auto _ : state) {
    reset_peak();
    if (replay_once(db.farm) != 1) state.SkipWithError("replay failed");
    peak = std::max(peak, rss_kb("VmHWM:"));
  }
  state.SetBytesProcessed(state.iterations() * db.log_bytes);
  state.counters["log_MB"] = static_cast<double>(db.log_bytes) / 1e6;
  state.counters["peak_RSS_MB"] = static_cast<double>(peak) / 1024;
  state.counters[std::string("bytes_per_") + unit] =
      benchmark::Counter(static_cast<double>(peak) * 1024 / static_cast<double>(state.range(0)));
  state.counters[std::string(unit) + "s_per_s"] = benchmark::Counter(
      static_cast<double>(state.range(0)) * static_cast<double>(state.iterations()),
      benchmark::Counter::kIsRate);
}

// The raw baseline: the same log read once in 1 MiB pieces.
void run_read(benchmark::State& state, const char* kind) {
  Db db = make_db(kind, state.range(0));
  std::vector<char> buffer(1 << 20);
  for (auto _ : state) {
    FILE* f = fopen((db.farm + "/db/CBM/LOG").c_str(), "rb");
    size_t n, total = 0;
    while ((n = fread(buffer.data(), 1, buffer.size(), f)) > 0) total += n;
    fclose(f);
    benchmark::DoNotOptimize(total);
  }
  state.SetBytesProcessed(state.iterations() * db.log_bytes);
}

void BM_ReplayCatalog(benchmark::State& state) { run_replay(state, "catalog", "table"); }
void BM_ReplayBlocks(benchmark::State& state) { run_replay(state, "blocks", "block"); }
void BM_ReadCatalogLog(benchmark::State& state) { run_read(state, "catalog"); }
void BM_ReadBlocksLog(benchmark::State& state) { run_read(state, "blocks"); }

BENCHMARK(BM_ReadCatalogLog)->Arg(10000)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReplayCatalog)->Arg(10000)->Arg(20000)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_ReadBlocksLog)->Arg(5000000)->Arg(10000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ReplayBlocks)->Arg(5000000)->Arg(10000000)->Unit(benchmark::kMillisecond)->Iterations(2);

}  // namespace
