// bc20_value_space: the legacy value space and the rebuild of a write-PDT from a pdt_new_64
// payload. The header's sizes are checked against the payload before anything is allocated, the
// value counts against the bytes that hold them before a value is read, and every entry against
// the values it names before a tree changes; a refused first record leaves no tree behind.
#include "tools/wal_converter/bc20_value_space.h"

#include <cstring>

#include "kernel/ptype.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_table.h"
#include "updates/pdt.h"
#include "updates/value_space.h"
#include "utils/cvlog.h"
#include "utils/mem.h"

namespace {

constexpr const char* kModule = "CBM";
// Nodes of more than 1.3 MB (fan_out * 20 bytes) are no tree this system makes.
constexpr uint32_t kMaxFanOut = 65536;

inline uint32_t load_u32(const char* p) {
  uint32_t v;
  memcpy(&v, p, 4);
  return v;
}

// Bytes per element in the fixed area.
inline uint64_t fixed_width(const ptype* t) { return t->fixed ? uint64_t(ptype_width(t)) : 4; }

// The places of the legacy form, once its counts have been checked against its size.
struct Layout {
  uint32_t n_ins;
  const char* modifies;  // ncols u32 counts
  const char* fixed;
  const char* var;
};

bool layout_of(const ptype* const* types, uint32_t ncols, const char* bytes, int64_t size,
               Layout* out) {
  const uint64_t head = 4 + 4ull * ncols;
  if (size < 0 || uint64_t(size) < head) return false;
  out->n_ins = load_u32(bytes);
  out->modifies = bytes + 4;
  uint64_t fixed_bytes = 0;
  for (uint32_t c = 0; c < ncols; c++)
    fixed_bytes += (uint64_t(out->n_ins) + load_u32(out->modifies + 4ull * c)) * fixed_width(types[c]);
  if (fixed_bytes > uint64_t(size) - head) return false;
  out->fixed = bytes + head;
  out->var = out->fixed + fixed_bytes;
  // Each value of a variable-size column is a string of its length, its zero included.
  const uint64_t var_size = uint64_t(size) - head - fixed_bytes;
  const char* cursor = out->fixed;
  uint64_t offset = 0;
  for (uint32_t c = 0; c < ncols; c++) {
    const uint64_t n = uint64_t(out->n_ins) + load_u32(out->modifies + 4ull * c);
    if (types[c]->fixed) {
      cursor += n * fixed_width(types[c]);
      continue;
    }
    for (uint64_t i = 0; i < n; i++, cursor += 4) {
      const uint32_t len = load_u32(cursor);
      if (len == 0 || len > var_size - offset || out->var[offset + len - 1] != '\0') return false;
      offset += len;
    }
  }
  return true;
}

// Appends one kind of a column's values from the fixed area (and the variable area): the
// cursor behind them.
const char* append_column(value_space* vs, uint32_t c, bool modifies, uint32_t n,
                          const char* cursor, const char* var, uint64_t* var_offset) {
  auto append = modifies ? value_space_append_modifies : value_space_append_inserts;
  const ptype* t = vs->coltypes[c];
  if (n == 0) return cursor;
  if (t->fixed) {
    append(vs, c, cursor, 0, nullptr, n);
    return cursor + uint64_t(n) * fixed_width(t);
  }
  for (uint32_t i = 0; i < n; i++, cursor += 4) {
    const char* value = var + *var_offset;
    append(vs, c, &value, 0, nullptr, 1);
    *var_offset += load_u32(cursor);
  }
  return cursor;
}

}  // namespace

value_space* bc20_value_space_deserialize(MemContext* mem, const ptype* const* coltypes,
                                          uint32_t n_table_cols, const uint32_t* key_cols,
                                          uint32_t n_key_cols, const int64_t* joinindex_IDs,
                                          uint32_t n_joinindex, const char* bytes, int64_t size) {
  const uint32_t ncols = n_table_cols + n_joinindex;
  // Every column as the space will type it: the increment columns are slng.
  const ptype* slng = ptype_by_id(PTYPE_SLNG);
  auto* types = static_cast<const ptype**>(mem_calloc(mem, sizeof(ptype*) * (ncols + 1ull)));
  for (uint32_t c = 0; c < ncols; c++) types[c] = c < n_table_cols ? coltypes[c] : slng;
  Layout l;
  const bool fits = layout_of(types, ncols, bytes, size, &l);
  if (!fits) {
    mem_free(mem, types);
    return nullptr;
  }
  auto* n_mod = static_cast<uint32_t*>(mem_calloc(mem, 4ull * (ncols + 1)));
  memcpy(n_mod, l.modifies, 4ull * ncols);
  value_space* vs =
      value_space_create_sized(mem, coltypes, n_table_cols, key_cols, n_key_cols, nullptr, 0,
                               joinindex_IDs, n_joinindex, l.n_ins, 0, n_mod);
  J480_ASSERT(kModule, vs);
  const char* cursor = l.fixed;
  uint64_t var_offset = 0;
  for (uint32_t c = 0; c < ncols; c++) {
    cursor = append_column(vs, c, false, l.n_ins, cursor, l.var, &var_offset);
    cursor = append_column(vs, c, true, n_mod[c], cursor, l.var, &var_offset);
  }
  mem_free(mem, n_mod);
  mem_free(mem, types);
  return vs;
}

int bc20_rebuild_pdt(int64_t object_id, const void* payload, int64_t payload_size) {
  struct bc20_catalog* mcat = bc20_catalog;
  MemContext* tmp = mem_context_create(nullptr, "tmp_logr_pdt_mem");
  const int64_t table_nr = bc20_catalog_table_nr_by_id(mcat, object_id);
  if (table_nr < 0) {
    CV_ERROR(kModule, "failed to rebuild PDT for non-existing object %lld",
             static_cast<long long>(object_id));
    mem_context_remove(tmp);
    return -1;
  }
  J480_ASSERT(kModule, mcat->tables[table_nr]);
  bc20_table* table = mcat->tables[table_nr];

  const char* bytes = static_cast<const char*>(payload);
  uint32_t fan_out = 0, num_nodes = 0;
  int64_t vs_size = -1, n_entries = -1;
  if (payload_size >= BC20_PDT_HEADER_SIZE) {
    memcpy(&fan_out, bytes, 4);
    memcpy(&num_nodes, bytes + 4, 4);
    memcpy(&vs_size, bytes + 8, 8);
    memcpy(&n_entries, bytes + 16, 8);
  }
  const int64_t room = payload_size - BC20_PDT_HEADER_SIZE;
  // The sizes first, each against what is left, so that no sum can wrap.
  const bool sized = payload_size >= BC20_PDT_HEADER_SIZE && vs_size >= 0 && vs_size <= room &&
                     n_entries >= 0 && n_entries <= (room - vs_size) / 12 &&
                     room - vs_size == 12 * n_entries;
  // A tree can't be made with fewer than three children a node, with no node, or with nodes
  // larger than any this system makes.
  const bool shaped = fan_out >= 3 && fan_out <= kMaxFanOut && num_nodes != 0;

  const int32_t n_cols = table->colgroup->n_columns;
  J480_ASSERT(kModule, n_cols);
  const ptype** types = static_cast<const ptype**>(mem_calloc(tmp, sizeof(ptype*) * (n_cols + 1ull)));
  bc20_table_column_types(table, types, nullptr, n_cols);
  int64_t n_key = 0;
  const int32_t* key_cols = bc20_catalog_sortkey_columns(mcat, tmp, table_nr, &n_key);
  const int32_t n_ji = table->n_incoming_slots;
  auto* ji_ids = static_cast<int64_t*>(mem_calloc(tmp, 8ull * (n_ji + 1)));
  for (int32_t s = 0; s < n_ji; s++) {
    const char* name = table->incoming_joinindexes[s];
    if (name == nullptr) continue;
    bc20_index* i = bc20_catalog_index_by_name(mcat, name);
    ji_ids[s] = i != nullptr ? i->id : 0;
  }

  pdt* made = nullptr;
  pdt* target = mcat->write_pdts[table_nr];
  auto deserialize = [&](MemContext* mem) {
    return bc20_value_space_deserialize(mem, types, uint32_t(n_cols),
                                        reinterpret_cast<const uint32_t*>(key_cols),
                                        uint32_t(n_key), ji_ids, uint32_t(n_ji),
                                        bytes + BC20_PDT_HEADER_SIZE, vs_size);
  };
  // A record stacked on a tree brings its values in a space of its own, merged by the replay.
  value_space* vs = sized && shaped && target != nullptr ? deserialize(tmp) : nullptr;
  if (sized && shaped && target == nullptr) {
    // The header's node count is a hint; the tree grows past it as it must. Beyond what the
    // entries can fill it would only hold memory.
    const uint64_t node_size = (uint64_t(fan_out) * 20 + 63) & ~uint64_t(63);
    const uint64_t leaf_min = ((node_size - 16) / 12) / 2 < 1 ? 1 : ((node_size - 16) / 12) / 2;
    const uint64_t enough = 2 * (uint64_t(n_entries) / leaf_min + 1) + 8;
    const uint32_t max_nodes = num_nodes < enough ? num_nodes : uint32_t(enough);
    made = pdt_create(mcat->mem, 1, fan_out, max_nodes, types, uint32_t(n_cols),
                      reinterpret_cast<const uint32_t*>(key_cols), uint32_t(n_key), nullptr, 0,
                      ji_ids, uint32_t(n_ji));
    J480_ASSERT(kModule, made);
    // The first record's values go straight into the new tree's space, read once.
    vs = deserialize(made->mem);
    if (vs != nullptr) {
      value_space_free(made->value_space);
      made->value_space = vs;
    }
    // The sort key positions die with this call: the tree keeps the space's copy.
    made->key_cols = value_space_get_key_cols(made->value_space, &made->n_key_cols);
    target = made;
  }
  const char* entries = vs != nullptr ? bytes + BC20_PDT_HEADER_SIZE + vs_size : nullptr;
  if (vs == nullptr || !pdt_serialized_entries_fit(target, entries, n_entries, vs)) {
    if (made != nullptr) pdt_unref(made);
    CV_ERROR(kModule, "corrupt PDT data detected");
    mem_context_remove(tmp);
    return -1;
  }
  if (made != nullptr) mcat->write_pdts[table_nr] = made;
  pdt_apply_serialized(target, entries, n_entries, vs);
  mem_context_remove(tmp);
  return 0;
}
