// A write-PDT of the old log: a legacy payload of a million entries over 20 columns (a quarter
// inserted rows, half modifies, a quarter short deletes; slng, sint, dbl and str columns) rebuilt
// through bc20_rebuild_pdt into the catalog and written again in today's form. Reports entries per
// second and the peak resident memory. Baseline: copying the payload's bytes once.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "kernel/prim_gen.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_table.h"
#include "tools/wal_converter/bc20_value_space.h"
#include "updates/pdt.h"
#include "utils/mem.h"

namespace {

constexpr int64_t kEntries = 1000000;
constexpr uint32_t kCols = 20;

int32_t type_of(uint32_t c) {
  const int32_t kinds[4] = {PTYPE_SLNG, PTYPE_SINT, PTYPE_DBL, PTYPE_STR};
  return kinds[c % 4];
}

double peak_rss_mib() {
  rusage ru;
  getrusage(RUSAGE_SELF, &ru);
  return double(ru.ru_maxrss) / 1024.0;
}

// The legacy payload, built once.
const std::string& payload() {
  static std::string out;
  if (!out.empty()) return out;
  ptype_register_all();
  std::mt19937_64 rng(1);
  std::vector<std::string> fixed(kCols * 2), var(kCols * 2);
  uint32_t n_ins = 0, n_mod[kCols] = {};
  std::string entries;
  auto put = [](std::string* s, const void* p, size_t n) { s->append(static_cast<const char*>(p), n); };
  auto value = [&](uint32_t c, int kind) {
    std::string& f = fixed[c * 2 + kind];
    if (type_of(c) == PTYPE_STR) {
      char text[32];
      const uint32_t len = uint32_t(snprintf(text, sizeof text, "value %llu",
                                             static_cast<unsigned long long>(rng() % 100000)) + 1);
      put(&f, &len, 4);
      var[c * 2 + kind].append(text, len);
    } else {
      const uint64_t v = rng();
      put(&f, &v, size_t(ptype_width(ptype_by_id(type_of(c)))));
    }
  };
  int64_t sid = 0;
  for (int64_t i = 0; i < kEntries; i++) {
    const uint32_t r = uint32_t(rng() % 4);
    uint64_t def;
    uint32_t offset = 0;
    if (r == 0) {
      for (uint32_t c = 0; c < kCols; c++) value(c, 0);
      def = PDT_DEF(uint64_t(sid), PDT_INSERT, 0);
      offset = n_ins++;
    } else if (r == 3) {
      const uint32_t k = 1 + uint32_t(rng() % 4);
      def = PDT_DEF(uint64_t(sid), PDT_DELETE, k - 1);
      sid += k + 1;
    } else {
      const uint32_t c = uint32_t(rng() % kCols);
      value(c, 1);
      def = PDT_DEF(uint64_t(sid), PDT_MODIFY, c);
      offset = n_mod[c]++;
      sid += 1 + int64_t(rng() % 3);
    }
    put(&entries, &def, 8);
    put(&entries, &offset, 4);
  }
  std::string vs;
  put(&vs, &n_ins, 4);
  put(&vs, n_mod, 4 * kCols);
  for (const std::string& f : fixed) vs += f;
  for (const std::string& v : var) vs += v;
  const uint32_t fan_out = PDT_DEFAULT_FAN_OUT, num_nodes = 40000;
  const int64_t vs_size = int64_t(vs.size()), n = kEntries;
  put(&out, &fan_out, 4);
  put(&out, &num_nodes, 4);
  put(&out, &vs_size, 8);
  put(&out, &n, 8);
  out += vs;
  out += entries;
  return out;
}

void setup_catalog() {
  ptype_register_all();
  if (prim_lookup("gen_condense_slng_col", 1, 0) == nullptr) prim_register_table(prim_gen_table());
  static bool types_done = false;
  if (!types_done) {
    bc20_column_register_types();
    bc20_colgroup_register_types();
    bc20_index_register_types();
    types_done = true;
  }
  bc20_catalog = bc20_catalog_create();
  bc20_colgroup* root = bc20_colgroup_create(bc20_colgroup_logical, kCols, nullptr);
  bc20_colgroup_set_id(root, 100);
  for (uint32_t c = 0; c < kCols; c++) {
    bc20_column* col = bc20_column_create(0, type_of(c));
    bc20_column_set_id(col, 101 + c);
    char name[16];
    snprintf(name, sizeof name, "c%u", c);
    bc20_colgroup_add_column(root, col, name);
  }
  bc20_table* t = bc20_table_create(root);
  t->table_id = 1;
  bc20_catalog_add_table(bc20_catalog, t, "t");
}

void BM_rebuild_and_serialize(benchmark::State& state) {
  const std::string& p = payload();
  pdt_debug_checks = 0;
  int64_t out_bytes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    setup_catalog();
    state.ResumeTiming();
    if (bc20_rebuild_pdt(1, p.data(), int64_t(p.size())) != 0) state.SkipWithError("refused");
    pdt* t = bc20_catalog->write_pdts[0];
    // As the conversion does: a buffer of the announced size, written once, not cleared first.
    out_bytes = pdt_serialized_size(t);
    std::unique_ptr<char[]> out(new char[size_t(out_bytes)]);
    pdt_serialize(t, out.get(), out_bytes);
    benchmark::DoNotOptimize(out.get());
    state.PauseTiming();
    bc20_catalog_destroy(bc20_catalog);
    bc20_catalog = nullptr;
    state.ResumeTiming();
  }
  state.counters["entries_per_s"] =
      benchmark::Counter(double(kEntries) * double(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["payload_MiB"] = double(p.size()) / 1048576.0;
  state.counters["out_MiB"] = double(out_bytes) / 1048576.0;
  state.counters["peak_rss_MiB"] = peak_rss_mib();
}
BENCHMARK(BM_rebuild_and_serialize)->Unit(benchmark::kMillisecond)->MinTime(2.0);

// The raw baseline: one copy of the payload's bytes.
void BM_baseline_copy_payload(benchmark::State& state) {
  const std::string& p = payload();
  std::vector<char> out(p.size());
  for (auto _ : state) {
    memcpy(out.data(), p.data(), p.size());
    benchmark::DoNotOptimize(out.data());
  }
  state.counters["entries_per_s"] =
      benchmark::Counter(double(kEntries) * double(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(BM_baseline_copy_payload)->Unit(benchmark::kMillisecond);

}  // namespace
