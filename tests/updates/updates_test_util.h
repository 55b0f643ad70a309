// Shared by the update tests: the kernel registries, a three-column schema (slng, str and one
// increment column), the table image of a tree (stable rows merged with the leaf chain), a plain
// reference image, a reader of the serial form, and recorded random updates that can be made
// again on another tree.
#ifndef J480_TESTS_UPDATES_TEST_UTIL_H
#define J480_TESTS_UPDATES_TEST_UTIL_H

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <deque>
#include <random>
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
    return static_cast<uint32_t>(col == 0 ? value_space_append_modifies(vs(), 0, &v0, 0, nullptr, 1)
                                          : value_space_append_modifies(vs(), 1, &s, 0, nullptr, 1));
  }
};

// One item of a table image: a run of untouched stable rows [a, b), or one row with values.
// Texts point into the value space, the reader's copy, or the test's own pool.
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
// The texts of stable rows: "s<sid>".
inline const char* stable_text(int64_t sid) {
  static std::deque<std::string> names;  // texts never move
  while (int64_t(names.size()) <= sid) names.push_back("s" + std::to_string(names.size()));
  return names[size_t(sid)].c_str();
}
inline Item stable_row(int64_t sid) { return {1, sid, sid + 1, sid * 7 + 1, stable_text(sid), 0}; }
inline std::string show(const Item& i) {
  return std::to_string(i.kind) + "[" + std::to_string(i.a) + "," + std::to_string(i.b) + ") " +
         std::to_string(i.v0) + " " + i.v1 + " " + std::to_string(i.inc);
}

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

// Column arrays as a reader sees them: inserts and modifies of the slng columns 0 and 2, and
// of the str column 1.
struct Values {
  const int64_t* ins[3] = {};
  const int64_t* mod[3] = {};
  const char* const* ins_s = nullptr;
  const char* const* mod_s = nullptr;
};
inline Values values_of(const value_space* vs) {
  Values v;
  for (int c : {0, 2}) {
    v.ins[c] = reinterpret_cast<const int64_t*>(vs->inserts[c]);
    v.mod[c] = reinterpret_cast<const int64_t*>(vs->modifies[c]);
  }
  v.ins_s = reinterpret_cast<const char* const*>(vs->inserts[1]);
  v.mod_s = reinterpret_cast<const char* const*>(vs->modifies[1]);
  return v;
}

// The table image over `n_stable` rows; a fault of order makes `why` non-empty.
inline std::vector<Item> image(const std::vector<Entry>& es, const Values& v, int64_t n_stable,
                               std::string* why) {
  std::vector<Item> img;
  int64_t s = 0;
  for (const Entry& e : es) {
    const int64_t sid = USID(e.def);
    const uint32_t hdr = PDT_HDR(e.def);
    const bool same_row = PDT_TYPE(e.def) == PDT_MODIFY && !img.empty() && img.back().kind == 1 &&
                          img.back().a == sid;
    if (!same_row && sid < s) {
      *why = "entry behind its stable row at SID " + std::to_string(sid);
      return img;
    }
    if (PDT_TYPE(e.def) == PDT_MODIFY) {
      if (!same_row) {
        add_run(&img, s, sid);
        img.push_back(stable_row(sid));
        s = sid + 1;
      }
      if (hdr == 0) img.back().v0 = v.mod[0][e.offset];
      if (hdr == 1) img.back().v1 = v.mod_s[e.offset];
      if (hdr == kIncCol) img.back().inc += v.mod[2][e.offset];
      continue;
    }
    add_run(&img, s, sid);
    s = sid;
    if (PDT_TYPE(e.def) == PDT_DELETE) {
      s = sid + hdr + 1;
    } else {
      img.push_back({2, -1, -1, v.ins[0][e.offset], v.ins_s[e.offset], v.ins[2][e.offset]});
    }
  }
  add_run(&img, s, n_stable);
  return img;
}

inline std::vector<Item> tree_image(const pdt* t, int64_t n_stable, std::string* why) {
  return image(chain_entries(t), values_of(t->value_space), n_stable, why);
}

// Reads a serialised tree of this schema back: header, values and entries.
struct Serial {
  uint32_t fan_out, num_nodes;
  int64_t vs_size, n_entries;
  std::vector<int64_t> ins[3], mod[3];
  std::vector<std::string> ins_s, mod_s;
  std::vector<const char*> ins_p, mod_p;
  Values v;
  std::vector<Entry> entries;
};
inline Serial read_serial(const std::string& buf) {
  Serial s{};
  const char* p = buf.data();
  memcpy(&s.fan_out, p, 4);
  memcpy(&s.num_nodes, p + 4, 4);
  memcpy(&s.vs_size, p + 8, 8);
  memcpy(&s.n_entries, p + 16, 8);
  const char* vs = p + 24;
  uint32_t ni[3], nm[3];
  memcpy(ni, vs, 12);
  memcpy(nm, vs + 12, 12);
  const char* fixed = vs + 24;
  const char* var = fixed;
  for (int c = 0; c < 3; c++) var += (ni[c] + nm[c]) * (c == 1 ? 4 : 8);
  for (int c = 0; c < 3; c++) {
    for (int kind = 0; kind < 2; kind++) {
      const uint32_t n = kind == 0 ? ni[c] : nm[c];
      for (uint32_t i = 0; i < n; i++) {
        if (c == 1) {
          uint32_t len;
          memcpy(&len, fixed, 4);
          fixed += 4;
          (kind == 0 ? s.ins_s : s.mod_s).push_back(std::string(var, len - 1));
          var += len;
        } else {
          int64_t x;
          memcpy(&x, fixed, 8);
          fixed += 8;
          (kind == 0 ? s.ins[c] : s.mod[c]).push_back(x);
        }
      }
    }
  }
  EXPECT_EQ(var - vs, s.vs_size);
  for (const std::string& x : s.ins_s) s.ins_p.push_back(x.c_str());
  for (const std::string& x : s.mod_s) s.mod_p.push_back(x.c_str());
  for (int c : {0, 2}) {
    s.v.ins[c] = s.ins[c].data();
    s.v.mod[c] = s.mod[c].data();
  }
  s.v.ins_s = s.ins_p.data();
  s.v.mod_s = s.mod_p.data();
  for (int64_t i = 0; i < s.n_entries; i++) {
    Entry e;
    memcpy(&e.def, var + 12 * i, 8);
    memcpy(&e.offset, var + 12 * i + 8, 4);
    s.entries.push_back(e);
  }
  EXPECT_EQ(int64_t(buf.size()), 24 + s.vs_size + 12 * s.n_entries);
  return s;
}

inline std::string serialize(const pdt* t) {
  std::string buf(static_cast<size_t>(pdt_serialized_size(t)), '\0');
  EXPECT_EQ(pdt_serialize(t, buf.data(), int64_t(buf.size())), 0);
  return buf;
}

// Random updates over an image of `*size` rows (slng and str modifies, increments, inserts and
// short deletes), recorded so that they can be made again on another tree.
struct Op {
  int kind;  // 0 insert, 1 modify, 2 increment, 3 delete
  int64_t rid, n;
  uint16_t col;
  int64_t v0;
  std::string v1;
};
inline std::vector<Op> random_ops(std::mt19937_64& rng, int n, int64_t* size) {
  auto rnd = [&](int64_t k) { return k <= 0 ? 0 : int64_t(rng() % uint64_t(k)); };
  std::vector<Op> ops;
  for (int k = 0; k < n; k++) {
    const int r = int(rnd(100));
    Op op{0, rnd(*size + 1), 1, uint16_t(rnd(2)), int64_t(rng() % 100000), "x" + std::to_string(rnd(1000))};
    if (r >= 35 && op.rid == *size) continue;
    op.kind = r < 35 ? 0 : r < 60 ? 1 : r < 72 ? 2 : 3;
    if (op.kind == 2) op.v0 = rnd(201) - 100;
    if (op.kind == 3) op.n = std::min<int64_t>(1 + rnd(rnd(5) == 0 ? 100 : 3), *size - op.rid);
    *size += op.kind == 0 ? 1 : op.kind == 3 ? -op.n : 0;
    ops.push_back(op);
  }
  return ops;
}
inline void make(Tree* tree, const std::vector<Op>& ops) {
  pdt* t = tree->t;
  for (const Op& op : ops) {
    if (op.kind == 0) pdt_add_insert(t, op.rid, tree->tuple(op.v0, op.v1.c_str()), nullptr, nullptr, 0);
    if (op.kind == 1) pdt_add_modify(t, op.rid, tree->modify(op.col, op.v0, op.v1.c_str()), op.col);
    if (op.kind == 2) pdt_add_increment(t, op.rid, kIncCol, op.v0);
    if (op.kind == 3) pdt_add_delete(t, op.rid, op.n, -1);
  }
}

}  // namespace ut

#endif  // J480_TESTS_UPDATES_TEST_UTIL_H
