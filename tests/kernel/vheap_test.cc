// Variable heap: buffer growth, caps, oversize requests and slot extension.
#include "kernel/vheap.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "utils/mem.h"
#include "utils/posix.h"

namespace {
struct Managed {
  MemContext* mem = mem_context_create(nullptr, "vheap_test");
  ~Managed() { mem_context_remove(mem); }
};
}  // namespace

TEST(Vheap, BuffersDoubleUpToTheCapAndValuesNeverMove) {
  Managed m;
  vheap* h = vheap_create(m.mem, nullptr, 4096, 65536);
  std::vector<std::pair<char*, int>> values;
  for (int i = 0; i < 5000; i++) {
    char* p = static_cast<char*>(vheap_alloc(h, 100));
    ASSERT_NE(p, nullptr);
    memset(p, i & 0xFF, 100);
    values.push_back({p, i & 0xFF});
  }
  EXPECT_EQ(std::vector<int64_t>(h->buffers_sizes, h->buffers_sizes + 6),
            (std::vector<int64_t>{4096, 8192, 16384, 32768, 65536, 65536}));
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

// The slot arrays grow one after the other; when a later one can't, the heap keeps the old slot
// count, so no slot beyond an array that didn't grow is ever used.
TEST(Vheap, FailedSlotExtensionKeepsTheSlotCount) {
  Managed m;
  m.mem->chunksize = 1 << 20;  // areas are maps, which the seam can fail
  vheap* h = vheap_create(m.mem, "ext", 16, 16);
  for (int i = 0; i < 8; i++) ASSERT_NE(vheap_alloc(h, 16), nullptr);
  mem_area* area = m.mem->areas;
  ASSERT_EQ(area->next, nullptr);
  // Room for the grown `buffers` array (128 bytes and a header), none for the next one.
  ASSERT_NE(mem_mallocex(m.mem, area->size - area->used - 160 - 32, 0), nullptr);
  px_fault_arm(1, ENOMEM, PX_FAULT_FAIL, true);
  EXPECT_EQ(vheap_alloc(h, 16), nullptr);
  px_fault_disarm();
  EXPECT_EQ(h->n_slots, 8);
  ASSERT_NE(vheap_alloc(h, 16), nullptr);
  EXPECT_EQ(h->n_slots, 16);
  EXPECT_EQ(h->current, 8);
  std::string why;
  EXPECT_TRUE(mem_context_check(m.mem, &why)) << why;
  vheap_destroy(h);
}
