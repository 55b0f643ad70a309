// Fill and condense primitives against memcpy and a plain loop, per width, with and without a
// selection vector; string condensing into a vheap.
#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

#include "kernel/prim_gen.h"
#include "kernel/primitive.h"
#include "kernel/vheap.h"

namespace {

constexpr int64_t kN = 1024;  // one vector

struct Setup {
  Setup() {
    prim_registry_free();
    prim_register_table(prim_gen_table());
  }
};
const Setup setup;

std::vector<int64_t> make_sel() {
  std::vector<int64_t> sel;
  for (int64_t i = 0; i < kN; i += 2) sel.push_back(i);  // every other row
  return sel;
}

const char* type_of_width(int64_t w) {
  switch (w) {
    case 1: return "uchr";
    case 2: return "usht";
    case 4: return "uint";
    case 8: return "ulng";
    default: return "s128";
  }
}

void BM_condense(benchmark::State& state) {
  int64_t w = state.range(0);
  bool with_sel = state.range(1) != 0;
  std::vector<char> src(kN * w, 1), dst(kN * w);
  std::vector<int64_t> sel = make_sel();
  auto fn = prim_cast<prim_condense_col_fn>(
      GetPrimDesc((std::string("gen_condense_") + type_of_width(w) + "_col").c_str()));
  int64_t n = with_sel ? static_cast<int64_t>(sel.size()) : kN;
  for (auto _ : state) {
    fn(n, dst.data(), src.data(), with_sel ? sel.data() : nullptr);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * n * w);
}
BENCHMARK(BM_condense)->ArgsProduct({{1, 2, 4, 8, 16}, {0, 1}});

void BM_fill(benchmark::State& state) {
  int64_t w = state.range(0);
  bool with_sel = state.range(1) != 0;
  std::vector<char> dst(kN * w), value(w, 7);
  std::vector<int64_t> sel = make_sel();
  auto fn = prim_cast<prim_fill_val_fn>(
      GetPrimDesc((std::string("gen_fill_") + type_of_width(w) + "_val").c_str()));
  int64_t n = with_sel ? static_cast<int64_t>(sel.size()) : kN;
  for (auto _ : state) {
    fn(n, dst.data(), value.data(), with_sel ? sel.data() : nullptr);
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * n * w);
}
BENCHMARK(BM_fill)->ArgsProduct({{1, 2, 4, 8, 16}, {0, 1}});

void BM_memcpy(benchmark::State& state) {
  int64_t w = state.range(0);
  std::vector<char> src(kN * w, 1), dst(kN * w);
  for (auto _ : state) {
    memcpy(dst.data(), src.data(), static_cast<size_t>(kN * w));
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * kN * w);
}
BENCHMARK(BM_memcpy)->Arg(1)->Arg(2)->Arg(4)->Arg(8)->Arg(16);

// The plain selective gather loop a caller would write by hand (8-byte values).
void BM_plain_gather_loop(benchmark::State& state) {
  std::vector<uint64_t> src(kN, 1), dst(kN);
  std::vector<int64_t> sel = make_sel();
  int64_t n = static_cast<int64_t>(sel.size());
  for (auto _ : state) {
    for (int64_t i = 0; i < n; i++) dst[i] = src[sel[i]];
    benchmark::DoNotOptimize(dst.data());
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * n * 8);
}
BENCHMARK(BM_plain_gather_loop);

void BM_condense_str_vheap(benchmark::State& state) {
  std::vector<std::string> strings;
  for (int64_t i = 0; i < kN; i++) strings.push_back("value-" + std::to_string(i * 7919));
  std::vector<const char*> src;
  int64_t bytes = 0;
  for (auto& s : strings) {
    src.push_back(s.c_str());
    bytes += static_cast<int64_t>(s.size()) + 1;
  }
  std::vector<const char*> dst(kN);
  auto fn = prim_cast<prim_str_vheap_fn>(GetPrimDesc("gen_condense_str_col_vheap_val"));
  vheap* heap = vheap_create_unmanaged(1 << 16, 1 << 20);
  int64_t rounds = 0;
  for (auto _ : state) {
    fn(kN, dst.data(), src.data(), heap, nullptr, nullptr);
    benchmark::DoNotOptimize(dst.data());
    if (++rounds % 512 == 0) {  // keep the heap bounded
      state.PauseTiming();
      vheap_destroy(heap);
      heap = vheap_create_unmanaged(1 << 16, 1 << 20);
      state.ResumeTiming();
    }
  }
  vheap_destroy(heap);
  state.SetBytesProcessed(state.iterations() * bytes);
  state.SetItemsProcessed(state.iterations() * kN);
}
BENCHMARK(BM_condense_str_vheap);

}  // namespace
