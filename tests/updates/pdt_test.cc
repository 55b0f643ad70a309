// The tree's parameters, growth, the updates that fold into existing entries, the serial form's
// limits, the assertions at the edges, small trees applied on each other, an apply out of
// memory, the key range among inserts, and the dump. Long random updates: pdt_model_test.cc.
#include <cerrno>
#include <random>

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
  EXPECT_NE(err.find("PDT:no more data blocks\n"), std::string::npos) << err;
  EXPECT_EQ(t->max_nodes, max_nodes);
  t->num_nodes = t->max_nodes;
  EXPECT_DEATH(pdt_alloc_node(t), Esc("assertion \"pdt->num_nodes < pdt->max_nodes\" failed"));
  t->n_data_blocks = 3;
}

// Updates on stable rows 0.. of a tree of fan_out 3; 'i', 'm', 'c', 'd', 'v' and 's' add an
// insert, a modify (column n), an increment, a delete by RID, one with key values (at 10 * rid,
// shown behind '@') and a delete by SID.
struct Op {
  char kind;
  int64_t at, n;
};
struct Case {
  const char* name;
  std::vector<Op> ops;
  const char* entries;
  int64_t delta;
  const char* error;  // the message of the last operation, which then returns -1
};

TEST(Pdt, UpdatesFoldIntoExistingEntries) {
  const std::vector<Case> cases = {
      {"insert behind a delete", {{'d', 5, 1}, {'i', 5, 0}}, "5/0/0 6/2/0", 0, nullptr},
      {"second modify of a column", {{'m', 3, 0}, {'m', 3, 0}}, "3/1/0", 0, nullptr},
      {"modify of an inserted row", {{'i', 2, 0}, {'m', 2, 1}}, "2/2/0", 1, nullptr},
      {"inserted rows deleted again", {{'i', 4, 0}, {'i', 5, 0}, {'d', 4, 2}}, "", 0, nullptr},
      {"delete over modifies",
       {{'m', 3, 0}, {'m', 4, 1}, {'c', 4, 5}, {'d', 2, 5}},
       "2/0/4",
       -5,
       nullptr},
      {"run continued", {{'d', 10, 3}, {'d', 10, 1}}, "10/0/3", -4, nullptr},
      {"block stops at 16384",
       {{'d', 0, 16384}, {'d', 0, 1}},
       "0/0/16383 16384/0/0",
       -16385,
       nullptr},
      {"delete behind is not grown", {{'d', 5, 1}, {'d', 4, 1}}, "4/0/0 5/0/0", -2, nullptr},
      {"deletes keep their key values",
       {{'v', 5, 1}, {'v', 2, 1}},
       "2/0/0@20 5/0/0@50",
       -2,
       nullptr},
      {"by SID grows both ways",
       {{'s', 5, 2}, {'s', 10, 1}, {'s', 7, 1}, {'s', 9, 1}},
       "5/0/2 9/0/1",
       -5,
       nullptr},
      {"SID already deleted",
       {{'s', 5, 3}, {'s', 6, 1}},
       "5/0/2",
       -3,
       "pdt_add_delete_by_sid: SID already deleted: 5"},
      {"modify in front read as a run",
       {{'c', 3, 2}, {'s', 4, 1}},
       "3/1/2",
       0,
       "pdt_add_delete_by_sid: SID already deleted: 4"},
  };
  for (const Case& c : cases) {
    ut::Tree tree(3, 4);
    pdt* t = tree.t;
    int res = 0;
    std::string err = j480test::err_of([&] {
      for (const Op& op : c.ops) {
        if (op.kind == 'i') res = t->ops.add_insert(t, op.at, tree.tuple(op.at, "new"));
        if (op.kind == 'm')
          res = t->ops.add_modify(t, op.at, tree.modify(uint16_t(op.n), 42, "mod"), uint16_t(op.n));
        if (op.kind == 'c') res = pdt_add_increment(t, op.at, ut::kIncCol, op.n);
        if (op.kind == 'd') res = t->ops.add_delete(t, op.at, op.n, -1);
        if (op.kind == 'v') res = t->ops.add_delete(t, op.at, op.n, 10 * op.at);  // key values
        if (op.kind == 's') res = t->ops.add_delete_by_sid(t, op.at, op.n, -1);
      }
    });
    EXPECT_EQ(entries_text(t), c.entries) << c.name;
    EXPECT_EQ(t->delta, c.delta) << c.name;
    EXPECT_EQ(res, c.error ? -1 : 0) << c.name;
    if (c.error) {
      EXPECT_NE(err.find(std::string(c.error) + "\n"), std::string::npos) << c.name << err;
    }
    std::string why;
    EXPECT_TRUE(pdt_check(t, PDT_CHECK_SEPARATORS, &why)) << c.name << ": " << why;
  }
}

TEST(Pdt, SerialFormOfEmptyAndBlockTreesAndTooSmallBuffer) {
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
  EXPECT_NE(err.find("pdt_serialize: buffer too small, bufsize=59, resultsize=60\n"),
            std::string::npos)
      << err;
  EXPECT_EQ(buf, std::string(59, 'x'));
  EXPECT_EQ(entries_text(t), "0/0/16383");
  EXPECT_EQ(ut::serialize(t), ut::expected_serial(t));

  // Dropped leaves keep their indexes: the record counts them.
  for (int i = 0; i < 40; i++) ASSERT_EQ(t->ops.add_modify(t, i, tree.modify(0, i, ""), 0), 0);
  ASSERT_EQ(t->ops.add_delete(t, 0, 40, -1), 0);
  EXPECT_EQ(entries_text(t), "0/0/16383 16384/0/39");
  EXPECT_GT(t->num_nodes, 1u);
  EXPECT_EQ(ut::serialize(t), ut::expected_serial(t));
}

TEST(PdtDeath, AssertionsAtTheEdges) {
  struct Row { const char* text; void (*run)(ut::Tree&); };
  const Row rows[] = {
      {"pdt->refcnt >= 0",
       [](ut::Tree& x) {
         x.t->refcnt = 0;
         pdt_unref(x.t);
       }},
      {"(colno & 0xC000) == 0", [](ut::Tree& x) { x.t->ops.add_modify(x.t, 0, 0, 0x4000); }},
      {"ntuples <= PDT_BLOCK_DELETE_MAX",
       [](ut::Tree& x) { x.t->ops.add_delete(x.t, 0, 16385, -1); }},
      {"pdt->n_inserts == 0",
       [](ut::Tree& x) {
         x.t->ops.add_insert(x.t, 0, x.tuple(0, ""));
         x.t->ops.add_delete_by_sid(x.t, 3, 1, -1);
       }},
      {"sid >= 0 && ntuples", [](ut::Tree& x) { x.t->ops.add_delete_by_sid(x.t, 3, 0, -1); }},
      {"colno >= pdt->n_table_cols", [](ut::Tree& x) { pdt_add_increment(x.t, 0, 1, 5); }},
      {"leaf[COUNT] >= LEAF_COUNT_BASE",
       [](ut::Tree& x) {
         x.t->nodes[0][COUNT] = 0;
         pdt_leaf l;
         pdt_get_leaf(x.t, 0, &l);
       }},
      {"node[COUNT] < LEAF_COUNT_BASE",
       [](ut::Tree& x) {
         pdt_node n;
         pdt_get_node(x.t, 0, &n);
       }},
  };
  for (const Row& r : rows) {
    EXPECT_DEATH(
        {
          ut::Tree x(3, 4);
          r.run(x);
        },
        Esc("assertion \"" + std::string(r.text) + "\" failed"))
        << r.text;
  }
}

// Random updates over an image of `*size` rows (slng and str modifies, increments, inserts and
// short deletes), made alike on every tree of `trees`.
void random_updates(std::mt19937_64& rng, int n, int64_t* size, std::vector<ut::Tree*> trees) {
  auto rnd = [&](int64_t k) { return k <= 0 ? 0 : int64_t(rng() % uint64_t(k)); };
  for (int k = 0; k < n; k++) {
    const int r = int(rnd(100));
    const int64_t rid = rnd(*size + 1);
    const uint16_t col = uint16_t(rnd(2));
    int64_t v = int64_t(rng() % 100000);
    const std::string s = "x" + std::to_string(rnd(1000));
    if (r >= 35 && rid == *size) continue;
    if (r >= 60 && r < 72) v = rnd(201) - 100;
    const int64_t n_del =
        r < 72 ? 0 : std::min<int64_t>(1 + rnd(rnd(5) == 0 ? 100 : 3), *size - rid);
    for (ut::Tree* tree : trees) {
      pdt* t = tree->t;
      if (r < 35) pdt_add_insert(t, rid, tree->tuple(v, s.c_str()), nullptr, nullptr, 0);
      else if (r < 60) pdt_add_modify(t, rid, tree->modify(col, v, s.c_str()), col);
      else if (r < 72) pdt_add_increment(t, rid, ut::kIncCol, v);
      else pdt_add_delete(t, rid, n_del, -1);
    }
    *size += r < 35 ? 1 : -n_del;
  }
}

// Small trees, mostly one of few updates applied on one of many or the other way round: the
// inserts of a run take the leaf of the one before as a hint (pdt_model_test.cc applies large
// trees).
TEST(PdtMerge, ApplyingATreeEqualsMakingItsUpdatesOneByOne) {
  pdt_debug_checks = 0;
  for (int seed = 0; seed < 30 && !HasFailure(); seed++) {
    std::mt19937_64 rng(seed);
    const uint32_t fan_out = seed % 2 ? 3 : PDT_DEFAULT_FAN_OUT;
    ut::Tree dst(fan_out, 4), src(fan_out, 4), all(fan_out, 4);
    int64_t size = 5000;
    random_updates(rng, 40 * seed, &size, {&dst, &all});
    random_updates(rng, 40 * (30 - seed), &size, {&src, &all});
    const int64_t held = dst.vs()->n_inserts[0];
    ASSERT_EQ(dst.t->ops.apply_other_pdt(dst.t, src.t, seed % 3 == 0), 0);
    std::string why, why_all;
    ASSERT_TRUE(pdt_check(dst.t, PDT_CHECK_SEPARATORS, &why)) << why << " seed " << seed;
    EXPECT_EQ(ut::image(dst.t, 5000, &why), ut::image(all.t, 5000, &why_all)) << "seed " << seed;
    EXPECT_EQ(dst.vs()->n_inserts[0], held + src.vs()->n_inserts[0]);
  }
  pdt_debug_checks = 1;
}

TEST(PdtMerge, OutOfMemoryEndsTheApplyWithItsMessage) {
  ut::Tree dst, src;
  pdt_debug_checks = 0;
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
  pdt_debug_checks = 1;
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

TEST(PdtMerge, DumpPrintsEveryLeafWithItsEntries) {
  ut::Tree tree(PDT_DEFAULT_FAN_OUT, 4);
  pdt* t = tree.t;
  pdt_add_insert(t, 2, tree.tuple(5, "ab"), nullptr, nullptr, 0);
  pdt_add_modify(t, 4, tree.modify(1, 0, "zz"), 1);
  pdt_add_delete(t, 6, 3, -1);
  EXPECT_EQ(j480test::out_of([&] { t->ops.dump(t, 1); }),
            "# LEAF NODE 0:\n"
            "     sid (     rid) type      hdr   offset   values\n"
            "       2 (       2)    1        0        0   5,ab,0\n"
            "       3 (       4)    0        1        0       zz\n"
            "       5 (       6)   -1        2        0\n"
            "\n");
}

}  // namespace
