// Whole trees: one tree applied on another against the same updates made one by one (model
// test), copies, the scan cursor and the RID/SID translations against a plain walk of the
// entries, the key range among inserts, and the dump.
#include <cerrno>

#include "support/test_support.h"
#include "updates_test_util.h"
#include "utils/longjmp_ctx.h"
#include "utils/posix.h"

namespace {

using ut::Item;
constexpr int64_t kStable = 5000;

std::vector<Item> image_of(const pdt* t) {
  std::string why;
  std::vector<Item> img = ut::tree_image(t, kStable, &why);
  EXPECT_EQ(why, "");
  return img;
}

class PdtMerge : public testing::Test {
 protected:
  void SetUp() override { pdt_debug_checks = 0; }
  void TearDown() override { pdt_debug_checks = 1; }
};

TEST_F(PdtMerge, ApplyingATreeEqualsMakingItsUpdatesOneByOne) {
  for (int seed = 0; seed < 30; seed++) {
    std::mt19937_64 rng(seed);
    const uint32_t fan_out = seed % 2 ? 3 : PDT_DEFAULT_FAN_OUT;
    int64_t size = kStable;
    const std::vector<ut::Op> first = ut::random_ops(rng, 40 * seed, &size);
    const std::vector<ut::Op> second = ut::random_ops(rng, 40 * (30 - seed), &size);
    ut::Tree dst(fan_out, 4), src(fan_out, 4), all(fan_out, 4);
    ut::make(&dst, first);
    ut::make(&src, second);
    ut::make(&all, first);
    ut::make(&all, second);
    const int64_t held = dst.vs()->n_inserts[0];
    ASSERT_EQ(dst.t->ops.apply_other_pdt(dst.t, src.t, seed % 3 == 0), 0);
    std::string why;
    ASSERT_TRUE(pdt_check(dst.t, PDT_CHECK_SEPARATORS, &why)) << why << " seed " << seed;
    EXPECT_EQ(image_of(dst.t), image_of(all.t)) << "seed " << seed;
    EXPECT_EQ(dst.vs()->n_inserts[0], held + src.vs()->n_inserts[0]);
  }
}

TEST_F(PdtMerge, OutOfMemoryEndsTheApplyWithItsMessage) {
  ut::Tree dst, src;
  for (int64_t i = 0; i < 100000; i++) pdt_add_insert(src.t, i, src.tuple(i, "v"), nullptr, nullptr, 0);
  longjmp_env env;
  longjmp_env_init(&env, dst.mem);
  longjmp_env* penv = &env;
  for (MemContext* m : {dst.t->mem, dst.vs()->mem}) mem_context_set_exception_env(m, &penv);
  int rc = 0;
  px_fault_arm(1, ENOMEM, PX_FAULT_FAIL, true);
  const std::string err = j480test::err_of([&] { rc = dst.t->ops.apply_other_pdt(dst.t, src.t, 0); });
  px_fault_disarm();
  EXPECT_EQ(rc, -1);
  EXPECT_NE(err.find("ERROR:PDT:pdt_apply_other_pdt: out of memory\n"), std::string::npos) << err;
  for (MemContext* m : {dst.t->mem, dst.vs()->mem}) mem_context_set_exception_env(m, nullptr);
  longjmp_env_destroy(&env);
}

TEST_F(PdtMerge, ACopyHoldsOneBlockAndWorksOn) {
  std::mt19937_64 rng(3);
  int64_t size = kStable;
  const std::vector<ut::Op> ops = ut::random_ops(rng, 3000, &size), more = ut::random_ops(rng, 3000, &size);
  ut::Tree src(3, 2), ref(3, 2);
  ut::make(&src, ops);
  ut::make(&ref, ops);
  ASSERT_GT(src.t->n_data_blocks, 3u);
  pdt* copy = src.t->ops.copy(src.mem, 0, src.t);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->n_data_blocks, 1u);
  EXPECT_EQ(copy->root_idx, src.t->root_idx);
  const std::vector<ut::Entry> a = ut::chain_entries(src.t), b = ut::chain_entries(copy);
  ASSERT_EQ(a.size(), b.size());
  for (size_t i = 0; i < a.size(); i++) ASSERT_EQ(a[i].def, b[i].def) << i;
  EXPECT_EQ(image_of(copy), image_of(src.t));
  // More updates split into the copy's free nodes and then grow it; the source stays.
  std::swap(src.t, copy);
  ut::make(&src, more);
  std::swap(src.t, copy);
  ut::make(&ref, more);
  std::string why;
  ASSERT_TRUE(pdt_check(copy, PDT_CHECK_SEPARATORS, &why)) << why;
  EXPECT_EQ(image_of(copy), image_of(ref.t));
  EXPECT_EQ(ut::chain_entries(src.t).size(), a.size());
  EXPECT_EQ(pdt_unref(copy), 0);
}

// The delta ahead of the first entry at or behind `rid` along the chain, also behind the
// deletes at rid with `over_deletes`: the plain walk that the searches must agree with.
int64_t walk_delta(const pdt* t, int64_t rid, bool over_deletes) {
  int64_t d = 0;
  for (const ut::Entry& e : ut::chain_entries(t)) {
    const int64_t r = USID(e.def) + d;
    if (r > rid || (r == rid && !(over_deletes && PDT_TYPE(e.def) == PDT_DELETE))) break;
    d += PDT_EFFECT(e.def);
  }
  return d;
}

TEST_F(PdtMerge, TranslationsAndTheCursorAgreeWithAPlainWalk) {
  for (int seed = 0; seed < 10; seed++) {
    std::mt19937_64 rng(50 + seed);
    int64_t size = kStable;
    ut::Tree tree(seed % 2 ? 3 : 8, 4);
    ut::make(&tree, ut::random_ops(rng, 1500, &size));
    pdt* t = tree.t;
    int64_t zero = 0, d0;
    for (int k = 0; k < 300; k++) {
      const int64_t lo = int64_t(rng() % uint64_t(size + 1));
      const int64_t hi = lo + int64_t(rng() % uint64_t(size - lo + 1));
      const int64_t d_lo = walk_delta(t, lo, true), d_hi = lo == hi ? d_lo : walk_delta(t, hi, false);
      int64_t s_lo, s_hi;
      ASSERT_EQ(t->ops.rid_to_sid_range(t, lo, &s_lo, &s_hi), 0);
      ASSERT_EQ(s_lo, lo - walk_delta(t, lo, false)) << lo;
      ASSERT_EQ(s_hi, s_lo);
      ASSERT_EQ(t->ops.rid_range_delta(t, lo, hi, &s_lo, &s_hi), d_hi - d_lo);
      ASSERT_EQ(s_lo, lo - d_lo) << lo << " " << hi;
      ASSERT_EQ(s_hi, hi - d_hi) << lo << " " << hi;
      pdt_merge_state st;
      ASSERT_EQ(t->ops.init_merge_state(t, &st, lo, hi), 0);
      EXPECT_EQ(st.sid_lo, lo - d_lo);
      // A scan reads no more stable tuples than allowed and makes no more rows than wanted.
      const int64_t left = kStable - st.sid_lo;
      const int64_t wanted = int64_t(rng() % uint64_t(std::min(size - lo, left) + 1));
      const int64_t cmax = wanted + int64_t(rng() % uint64_t(left - wanted + 1));
      int64_t produce = wanted, consume = 0;
      ASSERT_EQ(t->ops.merge_advance(t, &st, &produce, &consume, cmax), 0);
      EXPECT_LE(produce, wanted);
      EXPECT_TRUE(consume >= 0 && consume <= cmax) << consume;
      // The rows made: the live stable tuples read and the inserts among them, from the cursor;
      // inserts in front of the first stable tuple not read may count or not.
      const std::vector<ut::Entry> es = ut::chain_entries(t);
      size_t at = 0;
      for (uint32_t leaf = pdt_find_first_leaf_by_sid(t, &zero, &d0); leaf != st.leaf.idx; leaf = t->nodes[leaf][NEXT])
        at += NODE_COUNT(t, leaf);
      const int64_t end = st.sid_lo + consume;
      int64_t rows = consume, at_end = 0;
      for (size_t i = at + size_t(st.done ? es.size() : st.within_leaf_pos); i < es.size(); i++) {
        const int64_t sid = USID(es[i].def);
        if (PDT_TYPE(es[i].def) == PDT_INSERT) (sid < end ? rows : at_end) += sid <= end;
        if (PDT_TYPE(es[i].def) == PDT_DELETE)
          rows -= std::max<int64_t>(0, std::min<int64_t>(sid + PDT_HDR(es[i].def) + 1, end) - std::max(sid, st.sid_lo));
      }
      EXPECT_TRUE(rows <= produce && produce <= rows + at_end) << lo << " " << consume;
    }
  }
}

TEST_F(PdtMerge, KeyRangeIsTheRunOfEqualKeysAmongTheInsertsAtASid) {
  ut::Tree tree(3, 4);
  const uint32_t key[1] = {0};
  tree.t->key_cols = key;
  tree.t->n_key_cols = 1;
  // Keys 10, 20, 20, 30 stand before stable row 7, at RIDs 7 to 10.
  for (int64_t k : {10, 20, 20, 30})
    pdt_add_insert(tree.t, k == 10 ? 7 : k == 20 ? 8 : 10, tree.tuple(k, "k"), nullptr, nullptr, 0);
  const int64_t cases[][4] = {{7, 20, 8, 10}, {7, 5, 7, 7}, {7, 30, 10, 11}, {7, 99, 11, 11}, {3, 20, 3, 3}, {9, 1, 13, 13}};
  for (const auto& c : cases) {
    const void* vals[1] = {&c[1]};
    int64_t lo, hi;
    ASSERT_EQ(tree.t->ops.find_key_rid_range(tree.t, c[0], vals, &lo, &hi), 0);
    EXPECT_EQ(lo, c[2]) << c[0] << "/" << c[1];
    EXPECT_EQ(hi, c[3]) << c[0] << "/" << c[1];
  }
}

TEST_F(PdtMerge, DumpPrintsEveryLeafWithItsEntries) {
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
