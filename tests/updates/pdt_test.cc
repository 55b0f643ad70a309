// The tree's parameters, growth, the updates that fold into existing entries, the serial form's
// limits, the assertions at the edges, an apply out of memory and the key range among inserts.
// Long random updates, copies and applied trees: pdt_model_test.cc.
#include <cerrno>
#include <sstream>

#include "support/test_support.h"
#include "updates_test_util.h"
#include "utils/longjmp_ctx.h"
#include "utils/posix.h"

namespace {

using j480test::Esc;

std::string entries_text(const pdt* t) {
  std::string out;
  for (const ut::Entry& e : ut::chain_entries(t))
    out += (out.empty() ? "" : " ") + std::to_string(USID(e.def)) + "/" +
           std::to_string(PDT_TYPE(e.def)) + "/" + std::to_string(PDT_HDR(e.def)) +
           (PDT_TYPE(e.def) == PDT_DELETE && e.offset ? "@" + std::to_string(e.offset) : "");
  return out;
}

TEST(Pdt, AnEmptyTreeIsOneRootLeafAndGrowsByBlocksWithoutMovingNodesUpToSixtyFour) {
  EXPECT_EQ(ut::Tree(2, 8).t, nullptr);  // bad parameters
  EXPECT_EQ(ut::Tree(3, 0).t, nullptr);
  ut::Tree tree(PDT_DEFAULT_FAN_OUT, 1000);
  pdt* t = tree.t;
  int64_t sid = 0, delta = -1;
  EXPECT_EQ(pdt_find_first_leaf_by_sid(t, &sid, &delta), t->root_idx);
  EXPECT_EQ(delta, 0);
  EXPECT_EQ(t->nodes[t->root_idx][NEXT], LLIST_END);
  EXPECT_EQ(t->nodes[t->root_idx][PREV], LLIST_END);
  uint32_t* first = t->nodes[0];
  ASSERT_EQ(pdt_grow(t), 0);
  ASSERT_EQ(pdt_grow(t), 0);
  EXPECT_EQ(t->nodes[0], first);
  const uint32_t max_nodes = t->max_nodes;
  t->n_data_blocks = PDT_MAX_DATA_BLOCKS;
  std::string err = j480test::err_of([&] { EXPECT_EQ(pdt_grow(t), -1); });
  EXPECT_EQ(err, "ERROR:PDT:no more data blocks\n");
  EXPECT_EQ(t->max_nodes, max_nodes);
  t->num_nodes = t->max_nodes;
  EXPECT_DEATH(pdt_alloc_node(t), Esc("assertion \"pdt->num_nodes < pdt->max_nodes\" failed"));
  t->n_data_blocks = 3;
}

// Updates on stable rows 0.. of a tree of fan_out 3, written "<kind><at>[,<n>]": 'i' an insert,
// 'm' a modify of column n, 'c' an increment by n, 'd' a delete of n rows by RID, 'v' one with key
// values (10 * at, shown behind '@') and 's' a delete by SID. With `error`, the last operation
// returns -1 and logs it.
TEST(Pdt, UpdatesFoldIntoExistingEntries) {
  struct Case {
    const char *ops, *entries;
    int64_t delta;
    const char* error;
  };
  const Case cases[] = {
      {"d5,1 i5", "5/0/0 6/2/0", 0, nullptr},                     // insert behind a delete
      {"m3,0 m3,0", "3/1/0", 0, nullptr},                         // second modify of a column
      {"i2 m2,1", "2/2/0", 1, nullptr},                           // modify of an inserted row
      {"i4 i5 d4,2", "", 0, nullptr},                             // inserted rows deleted again
      {"m3,0 m4,1 c4,5 d2,5", "2/0/4", -5, nullptr},              // delete over modifies
      {"d10,3 d10,1", "10/0/3", -4, nullptr},                     // run continued
      {"d0,16384 d0,1", "0/0/16383 16384/0/0", -16385, nullptr},  // a block stops at 16384
      {"d5,1 d4,1", "4/0/0 5/0/0", -2, nullptr},                  // delete behind is not grown
      {"v5,1 v2,1", "2/0/0@20 5/0/0@50", -2, nullptr},            // key values never merge
      {"s5,2 s10,1 s7,1 s9,1", "5/0/2 9/0/1", -5, nullptr},       // by SID grows both ways
      {"s0,1 s2,1 s4,1 s6,1 s8,1 s10,1 s12,1 s14,1",  // by SID into the right half of a split
       "0/0/0 2/0/0 4/0/0 6/0/0 8/0/0 10/0/0 12/0/0 14/0/0", -8, nullptr},
      {"s5,3 s6,1", "5/0/2", -3, "pdt_add_delete_by_sid: SID already deleted: 5"},
      {"c3,2 s4,1", "3/1/2", 0, "pdt_add_delete_by_sid: SID already deleted: 4"},  // modify ahead
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.ops);
    ut::Tree tree(3, 4);
    pdt* t = tree.t;
    int res = 0;
    std::string err = j480test::err_of([&] {
      std::istringstream in(c.ops);
      char kind;
      for (int64_t at, n = 0; in >> kind >> at; n = 0) {
        if (in.peek() == ',') in.ignore() >> n;
        if (kind == 'i') res = t->ops.add_insert(t, at, tree.tuple(at, "new"));
        if (kind == 'm') res = t->ops.add_modify(t, at, tree.modify(uint16_t(n), 42, "mod"), n);
        if (kind == 'c') res = pdt_add_increment(t, at, ut::kIncCol, n);
        if (kind == 'd') res = t->ops.add_delete(t, at, n, -1);
        if (kind == 'v') res = t->ops.add_delete(t, at, n, 10 * at);
        if (kind == 's') res = t->ops.add_delete_by_sid(t, at, n, -1);
      }
    });
    EXPECT_EQ(entries_text(t), c.entries);
    EXPECT_EQ(t->delta, c.delta);
    EXPECT_EQ(res, c.error ? -1 : 0);
    EXPECT_EQ(err, c.error ? "ERROR:PDT:" + std::string(c.error) + "\n" : "");
    std::string why;
    EXPECT_TRUE(pdt_check(t, PDT_CHECK_SEPARATORS, &why)) << why;
  }
}

TEST(Pdt, SerialFormOfAnEmptyTreeAndATooSmallBuffer) {
  ut::Tree tree(3, 4);
  pdt* t = tree.t;
  const uint32_t head[2] = {3, 1};  // fan-out and nodes, then the sizes: 24 and no entries
  const int64_t sizes[2] = {24, 0};
  EXPECT_EQ(ut::serialize(t), std::string(reinterpret_cast<const char*>(head), 8) +
                                  std::string(reinterpret_cast<const char*>(sizes), 16) +
                                  std::string(24, '\0'));

  ASSERT_EQ(t->ops.add_delete(t, 0, PDT_BLOCK_DELETE_MAX, -1), 0);
  std::string buf(size_t(pdt_serialized_size(t)) - 1, 'x');
  std::string err =
      j480test::err_of([&] { EXPECT_EQ(pdt_serialize(t, buf.data(), int64_t(buf.size())), -1); });
  EXPECT_EQ(err, "ERROR:PDT:pdt_serialize: buffer too small, bufsize=59, resultsize=60\n");
  EXPECT_EQ(buf, std::string(59, 'x'));
}

TEST(PdtDeath, AssertionsAtTheEdges) {
  struct Row {
    const char* text;
    void (*run)(ut::Tree&);
  };
  const Row rows[] = {
      {"pdt->refcnt >= 0", [](ut::Tree& x) { x.t->refcnt = 0, pdt_unref(x.t); }},
      {"(colno & 0xC000) == 0", [](ut::Tree& x) { x.t->ops.add_modify(x.t, 0, 0, 0x4000); }},
      {"ntuples <= PDT_BLOCK_DELETE_MAX", [](ut::Tree& x) { pdt_add_delete(x.t, 0, 16385, -1); }},
      {"pdt->n_inserts == 0",
       [](ut::Tree& x) {
         x.t->ops.add_insert(x.t, 0, x.tuple(0, ""));
         x.t->ops.add_delete_by_sid(x.t, 3, 1, -1);
       }},
      {"sid >= 0 && ntuples", [](ut::Tree& x) { x.t->ops.add_delete_by_sid(x.t, 3, 0, -1); }},
      {"colno >= pdt->n_table_cols", [](ut::Tree& x) { pdt_add_increment(x.t, 0, 1, 5); }},
      {"leaf[COUNT] >= LEAF_COUNT_BASE",
       [](ut::Tree& x) { pdt_leaf l; x.t->nodes[0][COUNT] = 0, pdt_get_leaf(x.t, 0, &l); }},
      {"node[COUNT] < LEAF_COUNT_BASE", [](ut::Tree& x) { pdt_node n; pdt_get_node(x.t, 0, &n); }},
  };
  for (const Row& r : rows) {
    ut::Tree x(3, 4);
    EXPECT_DEATH(r.run(x), Esc("assertion \"" + std::string(r.text) + "\" failed")) << r.text;
  }
}

TEST(PdtMerge, OutOfMemoryEndsTheApplyWithItsMessage) {
  ut::Tree dst, src;
  ut::NoDebugChecks quiet;
  for (int64_t i = 0; i < 100000; i++)
    pdt_add_insert(src.t, i, src.tuple(i, "v"), nullptr, nullptr, 0);
  longjmp_env env;
  longjmp_env_init(&env, dst.mem);
  longjmp_env* penv = &env;
  for (MemContext* m : {dst.t->mem, dst.vs()->mem}) mem_context_set_exception_env(m, &penv);
  int rc = 0;
  px_fault_arm(1, ENOMEM, PX_FAULT_FAIL, true);
  const std::string err =
      j480test::err_of([&] { rc = dst.t->ops.apply_other_pdt(dst.t, src.t, 0); });
  px_fault_disarm();
  EXPECT_EQ(rc, -1);
  EXPECT_NE(err.find("ERROR:PDT:pdt_apply_other_pdt: out of memory\n"), std::string::npos) << err;
  for (MemContext* m : {dst.t->mem, dst.vs()->mem}) mem_context_set_exception_env(m, nullptr);
  longjmp_env_destroy(&env);
}

TEST(PdtMerge, KeyRangeIsTheRunOfEqualKeysAmongTheInsertsAtASid) {
  ut::Tree tree(3, 4);
  const uint32_t key[1] = {0};
  tree.t->key_cols = key;
  tree.t->n_key_cols = 1;
  // Keys 10, 20, 20, 30 stand before stable row 7, at RIDs 7 to 10.
  for (int64_t k : {10, 20, 20, 30})
    pdt_add_insert(tree.t, k == 10 ? 7 : k == 20 ? 8 : 10, tree.tuple(k, "k"), nullptr, nullptr, 0);
  const int64_t cases[][4] = {{7, 20, 8, 10},  {7, 5, 7, 7},  {7, 30, 10, 11},
                              {7, 99, 11, 11}, {3, 20, 3, 3}, {9, 1, 13, 13}};
  for (const auto& c : cases) {
    const void* vals[1] = {&c[1]};
    int64_t lo, hi;
    ASSERT_EQ(tree.t->ops.find_key_rid_range(tree.t, c[0], vals, &lo, &hi), 0);
    EXPECT_EQ(std::make_pair(lo, hi), std::make_pair(c[2], c[3])) << c[0] << "/" << c[1];
  }
}

}  // namespace
