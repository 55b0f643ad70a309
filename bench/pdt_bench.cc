// The positional delta tree under a million updates: appended inserts, random modifies and
// random short deletes on a tree of a million entries, with the tree's bytes per entry (values
// excluded). Baseline: the same number of random inserts into an ordered std::map.
#include <benchmark/benchmark.h>

#include <map>
#include <memory>
#include <random>

#include "kernel/prim_gen.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "updates/pdt.h"
#include "utils/mem.h"

namespace {

constexpr int64_t kOps = 1000000;
constexpr int64_t kStable = 20000000;  // stable rows under the tree

struct Tree {
  MemContext* mem = mem_context_create(nullptr, "pdt_bench");
  pdt* t;
  explicit Tree(uint32_t fan_out) {
    ptype_register_all();
    if (prim_lookup("gen_condense_slng_col", 1, 0) == nullptr) prim_register_table(prim_gen_table());
    const ptype* types[1] = {ptype_by_id(PTYPE_SLNG)};
    t = pdt_create(mem, 0, fan_out, PDT_DEFAULT_MAX_NODES, types, 1, nullptr, 0, nullptr, 0,
                   nullptr, 0);
  }
  ~Tree() {
    pdt_unref(t);
    mem_context_remove(mem);
  }
  // A million modifies of every 16th stable row, in order.
  void fill() {
    for (int64_t i = 0; i < kOps; i++) t->ops.add_modify(t, i * 16, uint32_t(i), 0);
  }
};

void report(benchmark::State& state, const pdt* t) {
  const double used = double(t->num_nodes) * t->node_size + double(t->max_nodes) * 8;
  int64_t held = 0;
  for (uint32_t b = 0; b < t->n_data_blocks; b++) held += t->data_block_size[b];
  state.counters["entries"] = double(t->n_entries);
  state.counters["bytes_per_entry"] = used / double(t->n_entries);
  state.counters["held_bytes_per_entry"] = (double(held) + double(t->max_nodes) * 8) / double(t->n_entries);
  state.counters["nodes"] = double(t->num_nodes);
}

void BM_appended_inserts(benchmark::State& state) {
  for (auto _ : state) {
    state.PauseTiming();
    auto tree = std::make_unique<Tree>(uint32_t(state.range(0)));
    state.ResumeTiming();
    for (int64_t i = 0; i < kOps; i++) tree->t->ops.add_insert(tree->t, kStable + i, uint32_t(i));
    state.PauseTiming();
    report(state, tree->t);
    tree.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kOps);
}

void BM_random_modifies(benchmark::State& state) {
  std::mt19937_64 rng(1);
  for (auto _ : state) {
    state.PauseTiming();
    auto tree = std::make_unique<Tree>(uint32_t(state.range(0)));
    tree->fill();
    state.ResumeTiming();
    for (int64_t i = 0; i < kOps; i++)
      tree->t->ops.add_modify(tree->t, int64_t(rng() % kStable), uint32_t(i), 0);
    state.PauseTiming();
    report(state, tree->t);
    tree.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kOps);
}

void BM_random_short_deletes(benchmark::State& state) {
  std::mt19937_64 rng(2);
  for (auto _ : state) {
    state.PauseTiming();
    auto tree = std::make_unique<Tree>(uint32_t(state.range(0)));
    tree->fill();
    int64_t size = kStable;
    state.ResumeTiming();
    for (int64_t i = 0; i < kOps; i++) {
      const int64_t n = 1 + int64_t(rng() % 8);
      tree->t->ops.add_delete(tree->t, int64_t(rng() % uint64_t(size - n)), n, -1);
      size -= n;
    }
    state.PauseTiming();
    report(state, tree->t);
    tree.reset();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kOps);
}

// Raw baseline: random inserts into an ordered map that already holds a million keys.
void BM_baseline_map_random_inserts(benchmark::State& state) {
  std::mt19937_64 rng(3);
  for (auto _ : state) {
    state.PauseTiming();
    std::map<int64_t, uint32_t> m;
    for (int64_t i = 0; i < kOps; i++) m.emplace_hint(m.end(), i * 16, uint32_t(i));
    state.ResumeTiming();
    for (int64_t i = 0; i < kOps; i++) m.emplace(int64_t(rng() % kStable), uint32_t(i));
    benchmark::DoNotOptimize(m.size());
    state.PauseTiming();
    m.clear();
    state.ResumeTiming();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * kOps);
}

BENCHMARK(BM_appended_inserts)->Arg(32)->Arg(PDT_DEFAULT_FAN_OUT)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_random_modifies)->Arg(32)->Arg(PDT_DEFAULT_FAN_OUT)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_random_short_deletes)->Arg(32)->Arg(PDT_DEFAULT_FAN_OUT)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_baseline_map_random_inserts)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
