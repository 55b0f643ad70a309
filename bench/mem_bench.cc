// Small allocations from a memory context against the process heap, and the cost of a context.
#include <benchmark/benchmark.h>

#include <cstdlib>
#include <vector>

#include "utils/mem.h"

namespace {

constexpr uint64_t kSizes[8] = {16, 24, 32, 48, 64, 80, 100, 128};
constexpr int kBatch = 4096;

// Allocations only; the context is removed outside the timing after each batch.
void BM_ContextAlloc(benchmark::State& state) {
  MemContext* root = mem_context_create(nullptr, "bench");
  for (auto _ : state) {
    state.PauseTiming();
    MemContext* ctx = mem_context_create(root, "batch");
    state.ResumeTiming();
    for (int i = 0; i < kBatch; i++) benchmark::DoNotOptimize(mem_malloc(ctx, kSizes[i & 7]));
    state.PauseTiming();
    mem_context_remove(ctx);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  mem_context_remove(root);
}
BENCHMARK(BM_ContextAlloc);

// Allocations with the context's creation and removal counted.
void BM_ContextAllocWithRemove(benchmark::State& state) {
  MemContext* root = mem_context_create(nullptr, "bench");
  for (auto _ : state) {
    MemContext* ctx = mem_context_create(root, "batch");
    for (int i = 0; i < kBatch; i++) benchmark::DoNotOptimize(mem_malloc(ctx, kSizes[i & 7]));
    mem_context_remove(ctx);
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  mem_context_remove(root);
}
BENCHMARK(BM_ContextAllocWithRemove);

// Each block freed at once: the heap's best case.
void BM_MallocFree(benchmark::State& state) {
  for (auto _ : state) {
    for (int i = 0; i < kBatch; i++) {
      void* p = malloc(kSizes[i & 7]);
      benchmark::DoNotOptimize(p);
      free(p);
    }
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_MallocFree);

// Allocations only; the blocks are freed outside the timing after each batch.
void BM_MallocNoFree(benchmark::State& state) {
  std::vector<void*> blocks(kBatch);
  for (auto _ : state) {
    for (int i = 0; i < kBatch; i++) {
      blocks[i] = malloc(kSizes[i & 7]);
      benchmark::DoNotOptimize(blocks[i]);
    }
    state.PauseTiming();
    for (void* p : blocks) free(p);
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(BM_MallocNoFree);

// Allocation and free of every block through the context.
void BM_ContextMallocFree(benchmark::State& state) {
  MemContext* root = mem_context_create(nullptr, "bench");
  MemContext* ctx = mem_context_create(root, "pairs");
  for (auto _ : state) {
    for (int i = 0; i < kBatch; i++) {
      void* p = mem_malloc(ctx, kSizes[i & 7]);
      benchmark::DoNotOptimize(p);
      mem_free(ctx, p);
    }
  }
  state.SetItemsProcessed(state.iterations() * kBatch);
  mem_context_remove(root);
}
BENCHMARK(BM_ContextMallocFree);

void BM_ContextCreateRemove(benchmark::State& state) {
  MemContext* root = mem_context_create(nullptr, "bench");
  for (auto _ : state) {
    MemContext* ctx = mem_context_create(root, "child");
    benchmark::DoNotOptimize(mem_malloc(ctx, 64));
    mem_context_remove(ctx);
  }
  mem_context_remove(root);
}
BENCHMARK(BM_ContextCreateRemove);

}  // namespace
