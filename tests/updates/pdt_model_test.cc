// The randomized model test of the tree: long random sequences of updates applied both to a
// tree and to a plain reference image, compared with the checker's verdict after every step.
// J480_PDT_LONG=<k> runs k times as many steps per seed.
#include <cstdlib>
#include <deque>
#include <memory>
#include <random>

#include "support/test_support.h"
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
  const char* keep(std::string text) {
    pool.push_back(std::move(text));
    return pool.back().c_str();
  }
  explicit Model(int64_t n) : size(n) { ut::add_run(&items, 0, n); }
  size_t split_at(int64_t rid) {
    int64_t pos = 0;
    for (size_t i = 0; i < items.size(); i++) {
      const int64_t len = items[i].kind == 0 ? items[i].b - items[i].a : 1;
      if (rid == pos) return i;
      if (rid < pos + len) {
        Item right = items[i];
        right.a = items[i].a + (rid - pos);
        items[i].b = right.a;
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
    if (i > 0 && i < items.size() && items[i - 1].kind == 0 && items[i].kind == 0 &&
        items[i - 1].b == items[i].a) {
      items[i - 1].b = items[i].b;
      items.erase(items.begin() + i);
    }
  }
  Item& row(int64_t rid) {
    const size_t i = split_at(rid);
    split_at(rid + 1);
    if (items[i].kind == 0) items[i] = ut::stable_row(items[i].a);
    return items[i];
  }
  int64_t rid_of_sid(int64_t sid) const {
    int64_t pos = 0;
    for (const Item& i : items) {
      if (i.kind == 0 && sid >= i.a && sid < i.b) return pos + sid - i.a;
      if (i.kind == 1 && i.a == sid) return pos;
      pos += i.kind == 0 ? i.b - i.a : 1;
    }
    return -1;
  }
};

struct Config {
  uint32_t fan_out;
  int64_t n_stable;
  int64_t max_entries;  // deletes win above this
  bool by_sid;          // deletes only, by SID and by RID
  int seeds, steps;
};

void run(const Config& cfg, int seed) {
  std::mt19937_64 rng(uint64_t(seed) * 7919 + cfg.fan_out);
  auto rnd = [&](int64_t n) { return n <= 0 ? 0 : int64_t(rng() % uint64_t(n)); };
  auto tree = std::make_unique<ut::Tree>(cfg.fan_out, 16);
  pdt* t = tree->t;
  Model m(cfg.n_stable);
  int lives = 1;
  int64_t last = 0;
  int flags = PDT_CHECK_SEPARATORS;
  bool incs_on = true;
  auto check = [&](int step) {
    std::string why;
    ASSERT_TRUE(pdt_check(t, flags, &why)) << why << " seed " << seed << " step " << step;
    std::vector<Item> img = ut::tree_image(t, cfg.n_stable, &why);
    ASSERT_EQ(why, "") << "seed " << seed << " step " << step;
    ASSERT_EQ(img.size(), m.items.size()) << "seed " << seed << " step " << step;
    size_t i = 0;
    while (i < img.size() && img[i] == m.items[i]) i++;
    if (i < img.size())
      FAIL() << ut::show(img[i]) << " vs " << ut::show(m.items[i]) << " item " << i << " seed "
             << seed << " step " << step;
  };
  auto one_step = [&](int step) {
    const int64_t size = m.size;
    const int r = int(rnd(100));
    const bool shrink = t->n_entries > cfg.max_entries;
    int64_t rid = rnd(4) == 0 ? std::min(last, size) : rnd(size + 1);
    int64_t span = 1;  // rows from rid over a few entries
    if (shrink && !cfg.by_sid) {  // aim at the row of an entry, so that deletes take entries out
      const std::vector<ut::Entry> es = ut::chain_entries(t);
      const size_t k = size_t(rnd(int64_t(es.size()))), j = std::min(es.size() - 1, k + 1 + size_t(rnd(4)));
      int64_t d = 0;
      for (size_t i = 0; i < j; i++) {
        if (i == k) rid = USID(es[k].def) + d;
        d += PDT_EFFECT(es[i].def);
      }
      // An inserted or modified row goes alone; from a delete the run reaches a few entries on.
      if (PDT_TYPE(es[k].def) == PDT_DELETE) span = std::max<int64_t>(1, USID(es[j].def) + d - rid + 1);
    }
    const int grow = size < cfg.n_stable ? 15 : 0;  // a smaller table takes more inserts
    if (cfg.by_sid && r < 60 && size > 0) {
      const int64_t sid = rnd(cfg.n_stable), n = 1 + rnd(std::min<int64_t>(20, cfg.n_stable - sid));
      bool present = true;
      for (int64_t s = sid; s < sid + n && present; s++) present = m.rid_of_sid(s) >= 0;
      if (!present && rnd(20) != 0) return;
      int res = 0;
      std::string err = j480test::err_of([&] { res = pdt_add_delete_by_sid(t, sid, n, -1); });
      ASSERT_EQ(res, present ? 0 : -1) << "seed " << seed << " step " << step;
      if (present) m.erase(m.rid_of_sid(sid), n);
      else
        EXPECT_NE(err.find("pdt_add_delete_by_sid: SID already deleted: "), std::string::npos);
    } else if (!cfg.by_sid && !shrink && r < 30 + grow) {  // insert, often just behind the last one
      const int64_t at = rnd(3) == 0 ? std::min(last + 1, size) : rid;
      const int64_t v0 = int64_t(rng() % 1000000000);
      const char* v1 = m.keep("i" + std::to_string(rng() % 100000));
      ASSERT_EQ(t->ops.add_insert(t, at, tree->tuple(v0, v1)), 0);
      m.insert(at, {2, -1, -1, v0, v1, 0});
      last = at;
    } else if (!cfg.by_sid && !shrink && r < 55 + grow && size > 0) {  // modify
      const int64_t at = std::min(rid, size - 1);
      const uint16_t col = uint16_t(rnd(2));
      const int64_t v0 = int64_t(rng() % 1000000000);
      const char* v1 = m.keep("m" + std::to_string(rng() % 100000));
      ASSERT_EQ(t->ops.add_modify(t, at, tree->modify(col, v0, v1), col), 0);
      Item& row = m.row(at);
      if (col == 0) row.v0 = v0;
      else row.v1 = v1;
      last = at;
    } else if (!cfg.by_sid && !shrink && r < 65 + grow && size > 0 && incs_on) {  // increment
      const int64_t at = std::min(rid, size - 1), inc = rnd(2001) - 1000;
      ASSERT_EQ(pdt_add_increment(t, at, ut::kIncCol, inc), 0);
      m.row(at).inc += inc;
      last = at;
    } else if (size > 0) {  // delete by RID: one row, a short run, or several blocks
      const int64_t at = std::min(rid, size - 1);
      const int kind = int(rnd(20));
      int64_t n = shrink ? std::min<int64_t>(span, 64)
                  : kind < 10 || size < cfg.n_stable / 2 ? 1
                  : kind < 19 || size < 3 * PDT_BLOCK_DELETE_MAX ? 2 + rnd(19)
                                                                 : 2 * PDT_BLOCK_DELETE_MAX + rnd(20000);
      n = std::min(n, size - at);
      const int64_t values = rnd(8) == 0 ? rnd(1000) : -1;  // deletes with key values never merge
      for (int64_t left = n; left > 0;) {
        const int64_t chunk = std::min<int64_t>(left, PDT_BLOCK_DELETE_MAX);
        ASSERT_EQ(t->ops.add_delete(t, at, chunk, values), 0);
        left -= chunk;
      }
      m.erase(at, n);
      last = at;
    }
    check(step);
  };
  const char* long_env = getenv("J480_PDT_LONG");
  const int steps = cfg.steps * (long_env ? std::max(1, atoi(long_env)) : 1) / kSanitizerShare;
  for (int step = 0; step < steps && !::testing::Test::HasFatalFailure(); step++) {
    one_step(step);
    if (m.size < cfg.n_stable / 2 && !cfg.by_sid && step + 500 < steps) {  // a new life
      tree = std::make_unique<ut::Tree>(cfg.fan_out, 16);
      t = tree->t;
      m = Model(cfg.n_stable);
      lives++;
    }
  }
  if (getenv("J480_PDT_LONG"))
    fprintf(stderr, "fan_out %u seed %d: %d steps in %d trees, %lld entries, %u nodes at the end\n",
            cfg.fan_out, seed, steps, lives, (long long)t->n_entries, t->num_nodes);
  if (::testing::Test::HasFatalFailure()) return;

  // The serial form read back gives the same entries and image.
  const ut::Serial s = ut::read_serial(ut::serialize(t));
  EXPECT_EQ(s.fan_out, cfg.fan_out);
  EXPECT_EQ(s.num_nodes, t->num_nodes);
  const std::vector<ut::Entry> es = ut::chain_entries(t);
  ASSERT_EQ(s.entries.size(), es.size());
  for (size_t i = 0; i < es.size(); i++) {
    ASSERT_EQ(s.entries[i].def, es[i].def);
    ASSERT_EQ(s.entries[i].offset, es[i].offset);
  }
  std::string why;
  EXPECT_EQ(ut::image(s.entries, s.v, cfg.n_stable, &why), m.items) << why;
  if (cfg.by_sid) return;

  // Dropping the increment column takes its modifies out, packing the leaves (the last may end
  // under the minimum); the tree keeps working after it.
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
  check(-1);
  for (int step = 0; step < steps / 10 && !::testing::Test::HasFatalFailure(); step++)
    one_step(steps + step);
}

class PdtModel : public ::testing::TestWithParam<Config> {};

TEST_P(PdtModel, ImageAndInvariantsHoldAfterEveryStep) {
  pdt_debug_checks = 0;  // the test checks after every step itself
  for (int seed = 0; seed < GetParam().seeds && !HasFatalFailure(); seed++) run(GetParam(), seed);
  pdt_debug_checks = 1;
}

INSTANTIATE_TEST_SUITE_P(
    Shapes, PdtModel,
    ::testing::Values(Config{3, 20000, 150, false, 24, 15000},
                      Config{4, 20000, 200, false, 24, 15000},
                      Config{3, 200000, 200, false, 8, 12000},
                      Config{PDT_DEFAULT_FAN_OUT, 200000, 1500, false, 3, 15000},
                      Config{3, 5000, 300, true, 12, 6000},
                      Config{PDT_DEFAULT_FAN_OUT, 100000, 1500, true, 3, 8000}));

}  // namespace
