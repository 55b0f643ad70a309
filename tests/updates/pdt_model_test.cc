// The randomized model test of the tree: long random sequences of updates applied both to a
// tree and to a plain reference image, compared with the checker's verdict after every step; a
// copy taken before the last steps, with those steps made on a tree of their own and applied to
// it; the RID/SID translations and the scan cursor against a plain walk of the entries; the
// serial form. J480_PDT_LONG=<k> runs k times as many steps per seed.
#include <cstdlib>
#include <deque>
#include <memory>
#include <random>

#include "updates_test_util.h"

namespace {

using ut::Item;

// The sanitizer build runs a fifth of the steps, to stay within a minute.
#ifdef J480_SANITIZE
constexpr int kSanitizerShare = 5;
#else
constexpr int kSanitizerShare = 1;
#endif

// The reference: the table image as items (runs of untouched stable rows and explicit rows).
struct Model {
  std::vector<Item> items;
  int64_t size;
  std::deque<std::string> pool;  // the texts of the reference
  explicit Model(int64_t n) : size(n) { ut::add_run(&items, 0, n); }
  const char* keep(std::string text) { return pool.emplace_back(std::move(text)).c_str(); }
  // The index of the item at `rid`, a run split there.
  size_t split_at(int64_t rid) {
    int64_t pos = 0;
    for (size_t i = 0; i < items.size(); i++) {
      const int64_t len = items[i].kind == 0 ? items[i].b - items[i].a : 1;
      if (rid == pos) return i;
      if (rid < pos + len) {
        Item right = items[i];
        right.a = items[i].b = items[i].a + (rid - pos);
        items.insert(items.begin() + i + 1, right);
        return i + 1;
      }
      pos += len;
    }
    return items.size();
  }
  void normalize() {
    std::vector<Item> out;
    for (const Item& i : items) {
      if (i.kind == 0) ut::add_run(&out, i.a, i.b);
      else out.push_back(i);
    }
    items.swap(out);
  }
  void insert(int64_t rid, const Item& row) {
    const size_t i = split_at(rid);  // before begin(): the split may move the items
    items.insert(items.begin() + i, row);
    size++;
  }
  void erase(int64_t rid, int64_t n) {
    const size_t i = split_at(rid), j = split_at(rid + n);
    items.erase(items.begin() + i, items.begin() + j);
    size -= n;
    normalize();
  }
  Item& row(int64_t rid) {
    const size_t i = split_at(rid);
    split_at(rid + 1);
    if (items[i].kind == 0) items[i] = ut::stable_row(items[i].a);
    return items[i];
  }
};

struct Config {
  uint32_t fan_out;
  int64_t n_stable;
  int64_t max_entries;  // deletes win above this
  int seeds, steps;
};

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

// Random RID ranges of a table of `size` rows over `n_stable`, translated and scanned.
void check_translations(pdt* t, int64_t size, int64_t n_stable, std::mt19937_64& rng) {
  int64_t zero = 0, d0;
  for (int k = 0; k < 300 && !::testing::Test::HasFatalFailure(); k++) {
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
    const int64_t left = n_stable - st.sid_lo;
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
    for (uint32_t leaf = pdt_find_first_leaf_by_sid(t, &zero, &d0); leaf != st.leaf.idx;
         leaf = t->nodes[leaf][NEXT])
      at += NODE_COUNT(t, leaf);
    const int64_t end = st.sid_lo + consume;
    int64_t rows = consume, at_end = 0;
    for (size_t i = at + size_t(st.done ? es.size() : st.within_leaf_pos); i < es.size(); i++) {
      const int64_t sid = USID(es[i].def);
      if (PDT_TYPE(es[i].def) == PDT_INSERT) (sid < end ? rows : at_end) += sid <= end;
      if (PDT_TYPE(es[i].def) == PDT_DELETE)
        rows -= std::max<int64_t>(
            0, std::min<int64_t>(sid + PDT_HDR(es[i].def) + 1, end) - std::max(sid, st.sid_lo));
    }
    EXPECT_TRUE(rows <= produce && produce <= rows + at_end) << lo << " " << consume;
  }
}

void run(const Config& cfg, int seed) {
  std::mt19937_64 rng(uint64_t(seed) * 7919 + cfg.fan_out);
  auto rnd = [&](int64_t n) { return n <= 0 ? 0 : int64_t(rng() % uint64_t(n)); };
  auto tree = std::make_unique<ut::Tree>(cfg.fan_out, 16);
  pdt* t = tree->t;
  Model m(cfg.n_stable);
  std::unique_ptr<ut::Tree> side;  // the last steps' updates, on a tree of their own
  pdt* base = nullptr;             // a copy of the tree from before them
  std::string base_bytes;
  int64_t last = 0;
  int flags = PDT_CHECK_SEPARATORS;
  bool incs_on = true;
  auto check = [&](const pdt* x, int step) {
    std::string why;
    ASSERT_TRUE(pdt_check(x, flags, &why)) << why << " seed " << seed << " step " << step;
    ASSERT_EQ(ut::image(x, cfg.n_stable, &why), m.items)
        << why << " seed " << seed << " step " << step;
  };
  auto both = [&](auto update) {  // on the tree and on `side`
    ASSERT_EQ(update(*tree), 0);
    if (side) {
      EXPECT_EQ(update(*side), 0);
    }
  };
  auto one_step = [&](int step) {
    const int64_t size = m.size;
    const int r = int(rnd(100));
    const bool shrink = t->n_entries > cfg.max_entries;
    int64_t rid = rnd(4) == 0 ? std::min(last, size) : rnd(size + 1);
    int64_t span = 1;  // rows from rid over a few entries
    // Aim at the row of an entry: deletes then take entries out, and updates meet the entries of
    // their row, whose modifies may run on into the next leaf.
    if (t->n_entries > 0 && (shrink || rnd(3) == 0)) {
      const std::vector<ut::Entry> es = ut::chain_entries(t);
      const size_t k = size_t(rnd(int64_t(es.size()))),
                   j = std::min(es.size() - 1, k + 1 + size_t(rnd(4)));
      int64_t d = 0;
      for (size_t i = 0; i < j; i++) {
        if (i == k) rid = USID(es[k].def) + d;
        d += PDT_EFFECT(es[i].def);
      }
      // An inserted or modified row goes alone; from a delete the run reaches a few entries on.
      if (PDT_TYPE(es[k].def) == PDT_DELETE)
        span = std::max<int64_t>(1, USID(es[j].def) + d - rid + 1);
    }
    const int grow = size < cfg.n_stable ? 15 : 0;  // a smaller table takes more inserts
    if (!shrink && r < 30 + grow) {  // insert, often just behind the last one
      const int64_t at = rnd(3) == 0 ? std::min(last + 1, size) : rid;
      const int64_t v0 = int64_t(rng() % 1000000000);
      const char* v1 = m.keep("i" + std::to_string(rng() % 100000));
      both([&](ut::Tree& x) { return x.t->ops.add_insert(x.t, at, x.tuple(v0, v1)); });
      m.insert(at, {2, -1, -1, v0, v1, 0});
      last = at;
    } else if (!shrink && r < 55 + grow && size > 0) {  // modify
      const int64_t at = std::min(rid, size - 1);
      const uint16_t col = uint16_t(rnd(2));
      const int64_t v0 = int64_t(rng() % 1000000000);
      const char* v1 = m.keep("m" + std::to_string(rng() % 100000));
      both([&](ut::Tree& x) { return x.t->ops.add_modify(x.t, at, x.modify(col, v0, v1), col); });
      Item& row = m.row(at);
      if (col == 0) row.v0 = v0;
      else row.v1 = v1;
      last = at;
    } else if (!shrink && r < 65 + grow && size > 0 && incs_on) {  // increment
      const int64_t at = std::min(rid, size - 1), inc = rnd(2001) - 1000;
      both([&](ut::Tree& x) { return pdt_add_increment(x.t, at, ut::kIncCol, inc); });
      m.row(at).inc += inc;
      last = at;
    } else if (size > 0) {  // delete by RID: one row, a short run, or several blocks
      const int64_t at = std::min(rid, size - 1);
      const int kind = int(rnd(20));
      int64_t n = shrink                                 ? std::min<int64_t>(span, 64)
                  : kind < 10 || size < cfg.n_stable / 2 ? 1
                  : kind < 19 || size < 3 * PDT_BLOCK_DELETE_MAX
                      ? 2 + rnd(19)
                      : 2 * PDT_BLOCK_DELETE_MAX + rnd(20000);
      n = std::min(n, size - at);
      const int64_t values = rnd(8) == 0 ? rnd(1000) : -1;  // deletes with key values never merge
      for (int64_t left = n; left > 0; left -= PDT_BLOCK_DELETE_MAX) {
        const int64_t chunk = std::min<int64_t>(left, PDT_BLOCK_DELETE_MAX);
        both([&](ut::Tree& x) { return x.t->ops.add_delete(x.t, at, chunk, values); });
      }
      m.erase(at, n);
      last = at;
    }
    check(t, step);
  };
  const char* long_env = getenv("J480_PDT_LONG");
  const int steps = cfg.steps * (long_env ? std::max(1, atoi(long_env)) : 1) / kSanitizerShare;
  for (int step = 0; step < steps && !::testing::Test::HasFatalFailure(); step++) {
    if (step == steps - 400) {  // past the last new life
      base = t->ops.copy(tree->mem, 0, t);
      ASSERT_NE(base, nullptr);
      EXPECT_EQ(base->n_data_blocks, 1u);
      EXPECT_EQ(base->root_idx, t->root_idx);
      EXPECT_EQ(base_bytes = ut::serialize(base), ut::serialize(t));
      side = std::make_unique<ut::Tree>(cfg.fan_out, 4);
    }
    one_step(step);
    if (m.size < cfg.n_stable / 2 && step + 500 < steps) {  // a new life
      tree = std::make_unique<ut::Tree>(cfg.fan_out, 16);
      t = tree->t;
      m = Model(cfg.n_stable);
    }
  }
  if (::testing::Test::HasFatalFailure()) return;
  if (side) {  // the copy kept its bytes; applying the last steps' tree to it gives the same image
    EXPECT_EQ(ut::serialize(base), base_bytes);
    const int64_t held = base->value_space->n_inserts[0];
    ASSERT_EQ(base->ops.apply_other_pdt(base, side->t, seed % 3 == 0), 0);
    check(base, -2);
    EXPECT_EQ(base->value_space->n_inserts[0], held + side->vs()->n_inserts[0]);
    EXPECT_EQ(pdt_unref(base), 0);
  }
  check_translations(t, m.size, cfg.n_stable, rng);
  EXPECT_EQ(ut::serialize(t), ut::expected_serial(t));

  // Dropping the increment column takes its modifies out, packing the leaves (the last may end
  // under the minimum); the tree keeps working after it.
  const std::vector<ut::Entry> es = ut::chain_entries(t);
  const int64_t incs = std::count_if(es.begin(), es.end(), [](const ut::Entry& e) {
    return PDT_TYPE(e.def) == PDT_MODIFY && PDT_HDR(e.def) == ut::kIncCol;
  });
  ASSERT_EQ(pdt_drop_increment_column(t, ut::kJoinIndex), incs);
  for (Item& i : m.items) {
    if (i.kind != 1) continue;
    i.inc = 0;
    if (i.v0 == ut::stable_row(i.a).v0 && strcmp(i.v1, ut::stable_text(i.a)) == 0)
      i = {0, i.a, i.a + 1, 0, "", 0};
  }
  m.normalize();
  flags = PDT_CHECK_SEPARATORS | PDT_CHECK_LAST_LEAF_LOW;
  incs_on = false;
  check(t, -1);
  for (int step = 0; step < steps / 10 && !::testing::Test::HasFatalFailure(); step++)
    one_step(steps + step);
}

class PdtModel : public ::testing::TestWithParam<Config> {};

TEST_P(PdtModel, ImageAndInvariantsHoldAfterEveryStep) {
  ut::NoDebugChecks quiet;
  for (int seed = 0; seed < GetParam().seeds && !HasFatalFailure(); seed++) run(GetParam(), seed);
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, PdtModel,
    ::testing::Values(Config{3, 20000, 150, 24, 15000}, Config{4, 20000, 200, 24, 15000},
                      Config{3, 200000, 200, 8, 12000},
                      Config{PDT_DEFAULT_FAN_OUT, 200000, 1500, 3, 15000}));

}  // namespace
