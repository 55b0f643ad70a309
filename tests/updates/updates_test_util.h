// Shared by the update tests: the kernel registries, a three-column schema (slng, str and one
// increment column), the table image of a tree (stable rows merged with the leaf chain) and the
// serial form built from its parts.
#ifndef J480_TESTS_UPDATES_TEST_UTIL_H
#define J480_TESTS_UPDATES_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <ostream>
#include <string>
#include <vector>

#include "kernel/prim_gen.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "updates/pdt.h"
#include "updates/value_space.h"
#include "utils/mem.h"

namespace ut {

inline void kernel_up() {
  ptype_register_all();
  if (prim_lookup("gen_condense_slng_col", 1, 0) == nullptr) prim_register_table(prim_gen_table());
}

// The tree's own checks off for a scope that checks itself, also when an assertion leaves early.
struct NoDebugChecks {
  NoDebugChecks() { pdt_debug_checks = 0; }
  ~NoDebugChecks() { pdt_debug_checks = 1; }
};

constexpr uint16_t kIncCol = 2;
constexpr int64_t kJoinIndex = 77;

struct Tree {
  bool up = (kernel_up(), true);
  MemContext* mem = mem_context_create(nullptr, "pdt_test");
  const ptype* types[2] = {ptype_by_id(PTYPE_SLNG), ptype_by_id(PTYPE_STR)};
  int64_t ji[1] = {kJoinIndex};
  pdt* t = nullptr;
  explicit Tree(uint32_t fan_out = PDT_DEFAULT_FAN_OUT, uint32_t max_nodes = 64) {
    t = pdt_create(mem, 0, fan_out, max_nodes, types, 2, nullptr, 0, nullptr, 0, ji, 1);
  }
  ~Tree() {
    if (t) pdt_unref(t);
    mem_context_remove(mem);
  }
  value_space* vs() const { return t->value_space; }
  // Appends an inserted tuple and returns its position.
  uint32_t tuple(int64_t v0, const char* s) {
    int64_t zero = 0;
    int64_t p = value_space_append_inserts(vs(), 0, &v0, 0, nullptr, 1);
    value_space_append_inserts(vs(), 1, &s, 0, nullptr, 1);
    value_space_append_inserts(vs(), kIncCol, &zero, 0, nullptr, 1);
    return static_cast<uint32_t>(p);
  }
  uint32_t modify(uint16_t col, int64_t v0, const char* s) {
    return static_cast<uint32_t>(col == 0
                                     ? value_space_append_modifies(vs(), 0, &v0, 0, nullptr, 1)
                                     : value_space_append_modifies(vs(), 1, &s, 0, nullptr, 1));
  }
};

// One item of a table image: a run of untouched stable rows [a, b), or one row with values.
// Texts point into the value space or the test's own pool.
struct Item {
  int kind;  // 0 run, 1 stable row with modifies, 2 inserted row
  int64_t a, b;
  int64_t v0 = 0;
  const char* v1 = "";
  int64_t inc = 0;
  bool operator==(const Item& o) const {
    return kind == o.kind && a == o.a && b == o.b && v0 == o.v0 && strcmp(v1, o.v1) == 0 &&
           inc == o.inc;
  }
};
inline void PrintTo(const Item& i, std::ostream* os) {
  *os << i.kind << "[" << i.a << "," << i.b << ") " << i.v0 << " " << i.v1 << " " << i.inc;
}
// The texts of stable rows: "s<sid>".
inline const char* stable_text(int64_t sid) {
  static std::deque<std::string> names;  // texts never move
  while (int64_t(names.size()) <= sid) names.push_back("s" + std::to_string(names.size()));
  return names[size_t(sid)].c_str();
}
inline Item stable_row(int64_t sid) { return {1, sid, sid + 1, sid * 7 + 1, stable_text(sid), 0}; }

// Appends stable rows [from, to) as a run, merging with a run that ends at `from`.
inline void add_run(std::vector<Item>* img, int64_t from, int64_t to) {
  if (from >= to) return;
  if (!img->empty() && img->back().kind == 0 && img->back().b == from)
    img->back().b = to;
  else
    img->push_back({0, from, to, 0, "", 0});
}

// A tree's entries as (def, offset) pairs along the chain.
struct Entry {
  uint64_t def;
  uint32_t offset;
};
inline std::vector<Entry> chain_entries(const pdt* t) {
  std::vector<Entry> out;
  int64_t sid0 = 0, d;
  for (uint32_t leaf = pdt_find_first_leaf_by_sid(t, &sid0, &d); leaf != LLIST_END;) {
    pdt_leaf l;
    pdt_get_leaf(t, leaf, &l);
    for (uint32_t i = 0; i < NODE_COUNT(t, leaf); i++) out.push_back({l.def[i], l.offset[i]});
    leaf = *l.next;
  }
  return out;
}

// Walks a tree as the image of a table over `n_stable` rows: `keep(from, to)` for each run of
// stable rows no entry touches, `row(sid)` where the modifies of stable row `sid` begin and
// `modify(col, offset)` for each of them, `insert(offset)` for each insert. Returns -1, or the
// SID of an entry that stands behind its stable row, where the walk stops.
template <class Keep, class Row, class Modify, class Insert>
int64_t walk_image(const pdt* t, int64_t n_stable, Keep keep, Row row, Modify modify,
                   Insert insert) {
  int64_t s = 0, row_sid = -1;  // the first stable row not yet shown; the row being modified
  for (const Entry& e : chain_entries(t)) {
    const int64_t sid = USID(e.def);
    const uint32_t hdr = PDT_HDR(e.def), type = PDT_TYPE(e.def);
    const bool same_row = type == PDT_MODIFY && sid == row_sid;
    if (!same_row && sid < s) return sid;
    if (!same_row && sid > s) keep(s, sid);
    if (type == PDT_MODIFY) {
      if (!same_row) row(row_sid = sid), s = sid + 1;
      modify(hdr, e.offset);
      continue;
    }
    row_sid = -1;
    s = type == PDT_DELETE ? sid + hdr + 1 : sid;
    if (type == PDT_INSERT) insert(e.offset);
  }
  if (n_stable > s) keep(s, n_stable);
  return -1;
}

// The table image of a tree over `n_stable` rows; a fault of order makes `why` non-empty.
inline std::vector<Item> image(const pdt* t, int64_t n_stable, std::string* why) {
  const value_space* vs = t->value_space;
  auto lng = [](void* col, uint32_t i) { return static_cast<const int64_t*>(col)[i]; };
  auto str = [](void* col, uint32_t i) { return static_cast<const char* const*>(col)[i]; };
  std::vector<Item> img;
  const int64_t behind = walk_image(
      t, n_stable, [&](int64_t from, int64_t to) { add_run(&img, from, to); },
      [&](int64_t sid) { img.push_back(stable_row(sid)); },
      [&](uint32_t col, uint32_t at) {
        if (col == 0) img.back().v0 = lng(vs->modifies[0], at);
        if (col == 1) img.back().v1 = str(vs->modifies[1], at);
        if (col == kIncCol) img.back().inc += lng(vs->modifies[2], at);
      },
      [&](uint32_t at) {
        img.push_back({2, -1, -1, lng(vs->inserts[0], at), str(vs->inserts[1], at),
                       lng(vs->inserts[2], at)});
      });
  if (behind >= 0) *why = "entry behind its stable row at SID " + std::to_string(behind);
  return img;
}

inline std::string serialize(const pdt* t) {
  std::string buf(static_cast<size_t>(pdt_serialized_size(t)), '\0');
  EXPECT_EQ(pdt_serialize(t, buf.data(), int64_t(buf.size())), 0);
  return buf;
}
// The serial form from its parts: fan-out, nodes, value space size and entry count, the value
// space's own serial form, then the chain's entries as (def, offset).
inline std::string expected_serial(const pdt* t) {
  std::string vs(size_t(value_space_serialized_size(t->value_space)), '\0');
  value_space_serialize(t->value_space, vs.data(), int64_t(vs.size()));
  auto raw = [](const auto& v) { return std::string(reinterpret_cast<const char*>(&v), sizeof v); };
  const std::vector<Entry> es = chain_entries(t);
  std::string out = raw(t->fan_out) + raw(t->num_nodes) + raw(int64_t(vs.size())) +
                    raw(int64_t(es.size())) + vs;
  for (const Entry& e : es) out += raw(e.def) + raw(e.offset);
  return out;
}

}  // namespace ut

#endif  // J480_TESTS_UPDATES_TEST_UTIL_H
