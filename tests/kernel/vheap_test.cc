// Variable heap: buffer growth, caps, oversize requests and slot extension.
#include "kernel/vheap.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "utils/mem.h"

namespace {
struct Managed {
  MemContext* mem = mem_context_create(nullptr, "vheap_test");
  ~Managed() { mem_context_remove(mem); }
};
}  // namespace

TEST(Vheap, BuffersDoubleUpToTheCapAndValuesNeverMove) {
  Managed m;
  vheap* h = vheap_create(m.mem, nullptr, 4096, 65536);
  EXPECT_STREQ(h->name, "VHeap");
  std::vector<std::pair<char*, int>> values;
  for (int i = 0; i < 5000; i++) {
    char* p = static_cast<char*>(vheap_alloc(h, 100));
    ASSERT_NE(p, nullptr);
    memset(p, i & 0xFF, 100);
    values.push_back({p, i & 0xFF});
  }
  EXPECT_EQ(h->buffers_sizes[0], 4096);
  EXPECT_EQ(h->buffers_sizes[1], 8192);
  EXPECT_EQ(h->buffers_sizes[2], 16384);
  EXPECT_EQ(h->buffers_sizes[4], 65536);
  EXPECT_EQ(h->buffers_sizes[5], 65536);
  for (auto& [p, v] : values)
    for (int j = 0; j < 100; j++) ASSERT_EQ(static_cast<unsigned char>(p[j]), v);
  EXPECT_GE(h->n_slots, 16);  // more than eight buffers doubled the arrays
  EXPECT_GE(h->last_allocated, h->current);
  vheap_destroy(h);
}

TEST(Vheap, LargeFirstRequestAndOversizeRequest) {
  Managed m;
  vheap* h = vheap_create(m.mem, "big", 4096, 524288);
  ASSERT_NE(vheap_alloc(h, 100000), nullptr);
  EXPECT_EQ(h->buffers_sizes[0], 131072);
  ASSERT_NE(vheap_alloc(h, 600000), nullptr);  // bigger than the cap: a warning, a multiple of it
  EXPECT_EQ(h->buffers_sizes[h->current], 1048576);
  vheap_destroy(h);
}

TEST(Vheap, ZeroSizedRequestsAndTheNinthBuffer) {
  vheap* h = vheap_create_unmanaged(4096, 4096);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(vheap_alloc(h, 0), nullptr);  // nothing allocated yet
  EXPECT_EQ(h->buffers[0], nullptr);
  char* a = static_cast<char*>(vheap_alloc(h, 10));
  EXPECT_EQ(vheap_alloc(h, 0), a + 10);
  for (int i = 0; i < 8; i++) ASSERT_NE(vheap_alloc(h, 4096), nullptr);
  EXPECT_EQ(h->n_slots, 16);
  EXPECT_EQ(h->current, 8);
  vheap_destroy(h);
  vheap_destroy(nullptr);
}
