// Fuzz target: the payload of a pdt_new_64 record through bc20_rebuild_pdt, twice, so that the
// second record stacks on the tree the first one made.
//
// The table has one column of every physical type the value space takes (str included) and two
// incoming join index slots, whose increment columns follow the table's columns. A payload is
// either refused (result -1, no tree made or changed) or replayed; a tree that stands afterwards
// must pass the invariant checker and serialise to exactly its announced size. No assertion is
// accepted: every one that fails is a crash.
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_support.h"
#include "kernel/prim_gen.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_table.h"
#include "tools/wal_converter/bc20_value_space.h"
#include "updates/pdt.h"
#include "utils/mem.h"

namespace {

constexpr int64_t kTableId = 5;
const int32_t kTypes[] = {PTYPE_SCHR, PTYPE_UCHR, PTYPE_SSHT, PTYPE_USHT, PTYPE_SINT, PTYPE_UINT,
                          PTYPE_SLNG, PTYPE_ULNG, PTYPE_S128, PTYPE_FLT,  PTYPE_DBL,  PTYPE_STR};
constexpr int32_t kCols = sizeof(kTypes) / sizeof(kTypes[0]);

int64_t g_nr = -1;

bc20_table* make_table(int64_t id, const char* name, const int32_t* types, int32_t n) {
  bc20_colgroup* root = bc20_colgroup_create(bc20_colgroup_logical, n, nullptr);
  bc20_colgroup_set_id(root, id * 100);
  for (int32_t c = 0; c < n; c++) {
    bc20_column* col = bc20_column_create(0, types[c]);
    bc20_column_set_id(col, id * 100 + 1 + c);
    bc20_colgroup_add_column(root, col, std::to_string(c).c_str());
  }
  bc20_table* t = bc20_table_create(root);
  t->table_id = id;
  bc20_catalog_add_table(bc20_catalog, t, name);
  return t;
}

// The table, and two other tables whose join indexes (ids 41 and 42) point at it.
void make_catalog() {
  bc20_catalog = bc20_catalog_create();
  bc20_table* table = make_table(kTableId, "t", kTypes, kCols);
  g_nr = bc20_catalog_table_nr_by_id(bc20_catalog, kTableId);
  for (int j = 0; j < 2; j++) {
    const std::string name = "o" + std::to_string(j), ji = "ji" + std::to_string(j);
    bc20_table* other = make_table(6 + j, name.c_str(), kTypes, 1);
    bc20_colgroup* g = bc20_colgroup_create(bc20_colgroup_logical, 1, nullptr);
    bc20_colgroup_set_id(g, 700 + j);
    bc20_colgroup_add_column(g, other->colgroup->columns[0], "k");
    bc20_index* i = bc20_index_create(bc20_idx_join, g, nullptr);
    i->id = 41 + j;
    bc20_table_add_index(other, name.c_str(), i, ji.c_str());
    bc20_table_add_incoming_joinindex(table, ji.c_str());
  }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  j480fuzz::quiet_logger();
  ptype_register_all();
  if (prim_lookup("gen_condense_slng_col", 1, 0) == nullptr) prim_register_table(prim_gen_table());
  bc20_column_register_types();
  bc20_colgroup_register_types();
  bc20_index_register_types();
  pdt_debug_checks = 0;  // checked once per input below
  make_catalog();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The payload in a buffer of its own size, so that any read past it is seen.
  std::vector<uint8_t> payload(data, data + size);
  const void* p = payload.empty() ? nullptr : payload.data();
  for (int round = 0; round < 2; round++) {
    pdt* before = bc20_catalog->write_pdts[g_nr];
    const int64_t entries_before = before != nullptr ? before->n_entries : -1;
    const int rc = bc20_rebuild_pdt(kTableId, p, int64_t(size));
    FUZZ_CHECK(rc == 0 || rc == -1);
    pdt* t = bc20_catalog->write_pdts[g_nr];
    if (rc == -1) {
      FUZZ_CHECK(t == before);
      FUZZ_CHECK(t == nullptr || t->n_entries == entries_before);
      break;
    }
    FUZZ_CHECK(t != nullptr);
    FUZZ_CHECK(pdt_check(t, 0, nullptr));
    std::vector<char> out(size_t(pdt_serialized_size(t)));
    FUZZ_CHECK(pdt_serialize(t, out.data(), int64_t(out.size())) == 0);
  }
  if (pdt* t = bc20_catalog->write_pdts[g_nr]) {
    pdt_unref(t);
    bc20_catalog->write_pdts[g_nr] = nullptr;
  }
  return 0;
}
