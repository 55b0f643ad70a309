#include "tools/wal20_gen/bc20_gen.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "kernel/prim_gen.h"
#include "kernel/primitive.h"
#include "kernel/ptype.h"
#include "updates/pdt.h"
#include "updates/value_space.h"
#include "utils/cvlog.h"
#include "utils/mem.h"
#include "utils/posix.h"

namespace {

constexpr char MODULE[] = "WAL20_GEN";
constexpr int32_t kBlksz = 512 * 1024;
constexpr int32_t kScolType = 1;
constexpr size_t kMaxRuns = 64;  // runs of live blocks remembered per storage column in bulk

// Group types and index type codes of the 2.0 catalog.
enum : int32_t { CG_LOGICAL = 0, CG_STORAGE = 1, CG_NULL = 2 };
enum : int32_t {
  IX_SORTKEY_OLD = 0,
  IX_MINMAX = 1,
  IX_UNIQUEKEY = 2,
  IX_PRIMARYKEY = 3,
  IX_FOREIGNKEY = 4,
  IX_SORTKEY = 5,
  IX_JOIN = 6,
};

struct ptype_info {
  const char* adt;
  int32_t width;
  bool fixed;
};
// The physical types by number, with the width of a minmax value.
const ptype_info kPtypes[] = {
    {"schr", 1, true}, {"uchr", 1, true}, {"ssht", 2, true}, {"usht", 2, true},  {"sint", 4, true},
    {"uint", 4, true}, {"slng", 8, true}, {"ulng", 8, true}, {"s128", 16, true}, {"uidx", 8, true},
    {"ptr", 8, true},  {"flt", 4, true},  {"dbl", 8, true},  {"str", 8, false},
};
enum : int32_t { PT_UCHR = 1, PT_SLNG = 6, PT_PTR = 10, PT_FLT = 11, PT_DBL = 12, PT_STR = 13 };

// Logical types a column may have: the text, its physical type and digit/scale ranges.
struct ltype_info {
  const char* ltype;
  int32_t pt;
  int32_t digits_lo, digits_hi, scale_hi;
};
const ltype_info kLtypes[] = {
    {"bool", 1, 0, 0, 0},        {"schr", 0, 0, 0, 0},      {"uchr", 1, 0, 0, 0},
    {"ssht", 2, 0, 0, 0},        {"usht", 3, 0, 0, 0},      {"integer", 4, 0, 0, 0},
    {"int", 4, 0, 0, 0},         {"uint", 5, 0, 0, 0},      {"slng", 6, 0, 0, 0},
    {"ulng", 7, 0, 0, 0},        {"s128", 8, 0, 0, 0},      {"uidx", 9, 0, 0, 0},
    {"ulng", 10, 0, 0, 0},       {"flt", 11, 0, 0, 0},      {"float", 12, 0, 0, 0},
    {"dbl", 12, 0, 0, 0},        {"decimal", 4, 1, 9, 4},   {"decimal", 6, 10, 18, 6},
    {"decimal", 8, 19, 38, 12},  {"money", 6, 19, 19, 4},   {"char", 13, 1, 64, 0},
    {"varchar", 13, 1, 1000, 0}, {"str", 13, 0, 0, 0},      {"date", 4, 0, 0, 0},
    {"time", 4, 0, 6, 0},        {"timestamp", 6, 0, 6, 0}, {"intervalds", 6, 0, 0, 0},
    {"intervalym", 4, 0, 0, 0},
};
const char* const kCompressions[] = {"", "", "", "pfor", "pdict", "pfordelta", "lz"};
const char* const kWords[] = {"orders", "lineitem", "customer", "part",   "supplier",
                              "nation", "region",   "events",   "clicks", "sessions"};

// "<prefix><n><suffix>"
std::string name_of(const char* prefix, int64_t n, const char* suffix) {
  char buf[96];
  snprintf(buf, sizeof buf, "%s%lld%s", prefix, static_cast<long long>(n), suffix);
  return buf;
}

// splitmix64: small, fast and the same on every platform.
struct rng {
  uint64_t s;
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ULL);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ULL;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBULL;
    return z ^ (z >> 31);
  }
  // 0 .. n-1 (n > 0)
  int64_t below(int64_t n) { return static_cast<int64_t>(next() % static_cast<uint64_t>(n)); }
  int64_t range(int64_t lo, int64_t hi) { return lo + below(hi - lo + 1); }
  bool chance(int percent) { return below(100) < percent; }
};

struct run {
  int64_t start, len;
};

struct live_block {
  int64_t nr;
  int32_t used, tuples;
};

// A storage column bound to a storage group and a file, with what is known of its blocks.
struct storage {
  int64_t cg_id = 0;
  int32_t scol = 0;
  int64_t file_nr = 0;
  int64_t next_block = 0;       // the file's block counter (multi-location: one file per storage)
  int64_t location_id = 0;      // of the file (multi-location)
  std::deque<run> runs;         // live blocks that may still be deleted, oldest first
  std::deque<live_block> live;  // every live block, when the model is written
  std::vector<std::array<int64_t, 3>> nulls;  // null groups: id, value, indicator
  int64_t remembered() const {
    int64_t n = 0;
    for (const run& r : runs) n += r.len;
    return n;
  }
};

struct column {
  int64_t id = 0;
  int32_t pt = 0;
  bool indicator = false;
  std::string name, ltype, compression;
  int32_t ctype = 0, digits = 0, scale = 0;
  uint32_t flags = 0;
};

struct sgroup {
  storage st;
  std::vector<int64_t> col_ids;  // values and indicators
  bool live = true;
};

struct index_def {
  int64_t id;
  std::string name;
  int32_t code;
  std::vector<int64_t> col_ids;
  std::vector<int32_t> col_pts;
  bool has_storage = false;
  storage st;
  int64_t key_id = 0;        // referenced key (foreign key) or foreign key (join)
  int64_t ref_table = -1;    // table number of the referenced table (foreign key, join)
  int32_t ref_key_idx = -1;  // index position in that table of the referenced key (foreign key)
  int32_t refs = 0;          // live indexes that name this one
  bool has_join = false;     // foreign key: a live join index stands on it
  bool live = true;
  int64_t cg_id = 0;
  std::string key_name;
  // The data last written (minmax: sizes, overflow, per column the model's lines; join: sizes
  // and the three arrays), for the model file.
  int64_t sizes[3] = {0, 0, 0};
  int32_t overflow = 0;
  std::vector<std::string> data_lines;
  // minmax: per column the overflow bounds of its last record that had overflow ("" while none);
  // they outlive later records without overflow.
  std::vector<std::string> over_lines;
};

// One item of a table's image under its write-PDT records: a run of untouched stable rows
// [a, b), a stable row (a = its SID) with the columns its updates set, or an inserted row
// (a = -1, every column set). Values are the bytes of a fixed-size element, or a string's text.
struct image_item {
  bool run = false;
  int64_t a = 0, b = 0;
  std::vector<std::string> vals;
  std::vector<bool> set;
  int64_t rows() const { return run ? b - a : 1; }
};

// What the write-PDT records of a table have done so far, as a plain image to compare with.
struct table_pdt {
  int32_t records = 0;
  int32_t resets = 0;  // increment columns emptied by a dropped join index
  bool kept = false;   // a write-PDT stands in the catalog after the replay
  int64_t stable = 0;  // stable rows the updates lie over
  uint32_t n_table_cols = 0;
  std::vector<int32_t> pts;  // physical type of every column, increment columns slng
  std::vector<image_item> image;
};

struct table_def {
  int64_t id;
  std::string name;
  int64_t root_cg;
  std::vector<column> cols;  // live columns, values and indicators
  std::vector<sgroup> sgs;
  std::vector<index_def> idx;
  int32_t incoming_slots = 0;         // join indexes ever registered with this table
  std::vector<std::string> incoming;  // their names, "" where dropped
  int32_t incoming_refs = 0;          // live indexes of other tables that name one of its keys
  table_pdt pdt;
  bool live = true;
  int64_t live_sgs() const {
    int64_t n = 0;
    for (const sgroup& g : sgs) n += g.live;
    return n;
  }
};

struct location_def {
  int64_t id;
  std::string name;
  int32_t usage;
  bool spare;  // holds no file and may be dropped
  bool live = true;
};

struct gen {
  const bc20_gen_options* o;
  bc20_gen_summary* sum;
  bc20_log_writer* w = nullptr;
  rng r;
  bool multi;
  int64_t next_id = 1;
  int32_t next_scol = 1;
  int64_t next_file = 1;
  int64_t next_loc = 1;
  int64_t next_trid = 1;
  int64_t default_next_block = 0;
  int64_t tr_start = 0;
  int64_t tables_made = 0;
  bool bulk_phase = false;
  bool track = false;               // the model file is asked for
  std::vector<int32_t> free_scols;  // storage column ids of dropped groups (reuse_scols)
  std::vector<table_def> tables;
  std::vector<location_def> locs;
  std::vector<uint8_t> scratch, scratch2;

  // ---- transactions ----
  void begin() {
    tr_start = bc20_log_writer_offset(w);
    bc20_log_tr_new(w, next_trid);
  }
  void end() {
    bc20_log_tr_end(w, next_trid++);
    sum->transactions++;
    sum->last_transaction_bytes = bc20_log_writer_offset(w) - tr_start;
  }

  // ---- storage ----
  int64_t* block_counter(storage& st) { return multi ? &st.next_block : &default_next_block; }

  int64_t data_location() {
    std::vector<int64_t> ids;
    for (const location_def& l : locs)
      if (l.live && !l.spare) ids.push_back(l.id);
    return ids[static_cast<size_t>(r.below(static_cast<int64_t>(ids.size())))];
  }

  // A storage column, its group under `parent` and the group's file, in this transaction.
  storage new_storage(int64_t parent, const std::vector<int64_t>& col_ids) {
    storage st;
    if (o->reuse_scols && !free_scols.empty()) {
      auto lowest = std::min_element(free_scols.begin(), free_scols.end());
      st.scol = *lowest;
      free_scols.erase(lowest);
    } else {
      st.scol = next_scol++;
    }
    st.cg_id = next_id++;
    bc20_log_col_new(w, st.scol, kScolType, 0);
    int32_t n = static_cast<int32_t>(col_ids.size());
    if (multi) {
      st.file_nr = next_file++;
      std::string fname = name_of("f", st.file_nr, "");
      st.location_id = data_location();
      bc20_log_file_new(w, st.file_nr, st.location_id, fname);
      sum->files++;
      bc20_log_cat_colgroup_new(w, false, st.cg_id, st.scol, parent, CG_STORAGE, n, col_ids.data());
      bc20_log_colgroup_file_new(w, st.cg_id, st.file_nr);
    } else {
      st.file_nr = 0;  // the default file: the first file of the columnspace
      bc20_log_cat_colgroup_new(w, true, st.cg_id, st.scol, parent, CG_STORAGE, n, col_ids.data(),
                                0);
    }
    sum->storage_groups++;
    return st;
  }

  void add_blocks(storage& st, int64_t n) {
    int64_t* counter = block_counter(st);
    for (int64_t i = 0; i < n; i++) {
      int64_t bn = (*counter)++;
      int32_t used = static_cast<int32_t>(r.range(1, kBlksz));
      int32_t tuples = static_cast<int32_t>(r.range(1, 65536));
      if (track) st.live.push_back({bn, used, tuples});
      if (multi)
        bc20_log_blk_new(w, st.scol, st.file_nr, bn, used, tuples);
      else
        bc20_log_blk_new_defaultfile(w, st.scol, bn, used, tuples, 0);
      if (!st.runs.empty() && st.runs.back().start + st.runs.back().len == bn) {
        st.runs.back().len++;
      } else {
        // In the bulk phase the oldest runs are forgotten and stay live for good, so that
        // memory doesn't grow with the log; before it every block stays known.
        if (bulk_phase && st.runs.size() == kMaxRuns) st.runs.pop_front();
        st.runs.push_back({bn, 1});
      }
    }
    sum->blocks_added += n;
  }

  void delete_blocks(storage& st, int64_t n) {
    while (n > 0 && !st.runs.empty()) {
      run& front = st.runs.front();
      int64_t bn = front.start++;
      if (--front.len == 0) st.runs.pop_front();
      if (track) {
        auto it = std::lower_bound(st.live.begin(), st.live.end(), bn,
                                   [](const live_block& b, int64_t v) { return b.nr < v; });
        if (it != st.live.end() && it->nr == bn) st.live.erase(it);
      }
      if (multi)
        bc20_log_blk_del(w, st.scol, st.file_nr, bn);
      else
        bc20_log_blk_del_defaultfile(w, st.scol, bn, 0);
      sum->blocks_deleted++;
      n--;
    }
  }

  // The records that follow the drop of a storage group: its storage column and file go.
  void release_storage(const storage& st) {
    bc20_log_colgroup_file_del(w, st.cg_id, st.file_nr);
    bc20_log_col_del(w, st.scol, kScolType, 0);
    if (multi) bc20_log_file_del(w, st.file_nr);
    free_scols.push_back(st.scol);
  }

  std::vector<storage*> live_storages() {
    std::vector<storage*> out;
    for (table_def& t : tables) {
      if (!t.live) continue;
      for (sgroup& g : t.sgs)
        if (g.live) out.push_back(&g.st);
      for (index_def& ix : t.idx)
        if (ix.live && ix.has_storage) out.push_back(&ix.st);
    }
    return out;
  }

  // ---- columns ----
  column new_column(std::vector<column>& cols, std::vector<int64_t>& ids, bool nullable,
                    int64_t* indicator_out) {
    const ltype_info& lt = kLtypes[r.below(sizeof kLtypes / sizeof kLtypes[0])];
    column c;
    c.id = next_id++;
    c.pt = lt.pt;
    c.indicator = false;
    int32_t digits = lt.digits_hi ? static_cast<int32_t>(r.range(lt.digits_lo, lt.digits_hi)) : 0;
    int32_t scale = lt.scale_hi ? static_cast<int32_t>(r.range(0, lt.scale_hi)) : 0;
    if (scale > digits) scale = digits;
    int32_t ctype;
    if (kPtypes[c.pt].fixed)
      ctype = r.chance(20) ? 3 : 0;
    else
      ctype = static_cast<int32_t>(r.below(3));
    const char* comp = kCompressions[r.below(sizeof kCompressions / sizeof kCompressions[0])];
    std::string name = name_of("c", c.id, "_") + lt.ltype;
    uint32_t flags = r.chance(25) ? 1u : 0u;
    bc20_log_cat_column_new(w, c.id, kPtypes[c.pt].adt, ctype, lt.ltype, digits, scale, comp, name,
                            flags);
    c.name = name;
    c.ltype = lt.ltype;
    c.compression = comp;
    c.ctype = ctype;
    c.digits = digits;
    c.scale = scale;
    c.flags = flags;
    cols.push_back(c);
    ids.push_back(c.id);
    sum->columns++;
    *indicator_out = 0;
    if (nullable) {
      column ind;
      ind.id = next_id++;
      ind.pt = PT_UCHR;
      ind.indicator = true;
      ind.name = name + "_null";
      ind.ltype = "bool";
      bc20_log_cat_column_new(w, ind.id, "uchr", 0, "bool", 0, 0, "", ind.name, 0);
      cols.push_back(ind);
      ids.push_back(ind.id);
      sum->columns++;
      *indicator_out = ind.id;
    }
    return c;
  }

  // New value columns (with indicators where nullable) spread over `ngroups` new storage groups
  // of table `t`, null groups included. The columns are announced here.
  void new_storage_groups(table_def& t, int32_t ncols, int32_t ngroups, bool announce_root) {
    std::vector<column> cols;
    std::vector<int64_t> all_ids;
    std::vector<std::vector<int64_t>> group_ids(static_cast<size_t>(ngroups));
    std::vector<std::vector<std::pair<int64_t, int64_t>>> group_nulls(static_cast<size_t>(ngroups));
    for (int32_t i = 0; i < ncols; i++) {
      int64_t ind = 0;
      size_t g = static_cast<size_t>(i < ngroups ? i : r.below(ngroups));
      column c = new_column(cols, all_ids, r.chance(30), &ind);
      group_ids[g].push_back(c.id);
      if (ind != 0) {
        group_ids[g].push_back(ind);
        group_nulls[g].push_back({c.id, ind});
      }
    }
    if (announce_root) {
      t.root_cg = next_id++;
      bc20_log_cat_colgroup_new(w, false, t.root_cg, 0, 0, CG_LOGICAL,
                                static_cast<int32_t>(all_ids.size()), all_ids.data());
      bc20_log_cat_table_new(w, t.id, t.name, t.root_cg);
    }
    for (size_t g = 0; g < group_ids.size(); g++) {
      sgroup sg;
      sg.col_ids = group_ids[g];
      sg.st = new_storage(t.root_cg, sg.col_ids);
      for (const auto& pair : group_nulls[g]) {
        int64_t ids[2] = {pair.first, pair.second};
        sg.st.nulls.push_back({next_id, pair.first, pair.second});
        bc20_log_cat_colgroup_new(w, false, next_id++, 0, sg.st.cg_id, CG_NULL, 2, ids);
        sum->null_groups++;
      }
      t.sgs.push_back(std::move(sg));
    }
    for (const column& c : cols) t.cols.push_back(c);
  }

  std::vector<int64_t> value_columns(const table_def& t) {
    std::vector<int64_t> out;
    for (const column& c : t.cols)
      if (!c.indicator) out.push_back(c.id);
    return out;
  }

  int32_t column_pt(const table_def& t, int64_t id) {
    for (const column& c : t.cols)
      if (c.id == id) return c.pt;
    return PT_UCHR;
  }

  // A column group for an index over `ids`, announced in this transaction.
  int64_t index_colgroup(const std::vector<int64_t>& ids) {
    int64_t cg = next_id++;
    bc20_log_cat_colgroup_new(w, false, cg, 0, 0, CG_LOGICAL, static_cast<int32_t>(ids.size()),
                              ids.data());
    return cg;
  }

  // ---- tables ----
  void create_table() {
    begin();
    table_def t;
    t.id = next_id++;
    t.name = name_of("tbl", t.id, "_") + kWords[r.below(sizeof kWords / sizeof kWords[0])];
    int32_t ncols = static_cast<int32_t>(r.range(1, 2 * o->columns - 1));
    int32_t ngroups = static_cast<int32_t>(r.range(1, ncols < 3 ? ncols : 3));
    new_storage_groups(t, ncols, ngroups, true);
    tables.push_back(std::move(t));
    tables_made++;
    sum->tables_created++;
    size_t tn = tables.size() - 1;
    if (r.chance(70)) create_key(tn, IX_PRIMARYKEY);
    if (r.chance(40)) create_key(tn, r.chance(50) ? IX_SORTKEY : IX_SORTKEY_OLD);
    if (r.chance(50)) create_key(tn, IX_FOREIGNKEY);
    end();
  }

  // True where table `tn` could get a foreign key: an older live table has a key to name.
  bool fk_possible(size_t tn) {
    size_t nvals = value_columns(tables[tn]).size();
    for (size_t k = 0; k < tn; k++) {
      if (!tables[k].live) continue;
      for (const index_def& ref : tables[k].idx)
        if (ref.live && ref.col_ids.size() <= nvals && ref.code != IX_FOREIGNKEY &&
            ref.code != IX_MINMAX && ref.code != IX_JOIN)
          return true;
    }
    return false;
  }

  // A key of `code` on table `tn`, in the open transaction. A foreign key references a live
  // primary, unique or sort key of another, older table; without one nothing is written.
  bool create_key(size_t tn, int32_t code) {
    table_def& t = tables[tn];
    std::vector<int64_t> vals = value_columns(t);
    if (vals.empty()) return false;
    index_def ix;
    ix.code = code;
    if (code == IX_FOREIGNKEY) {
      std::vector<std::pair<size_t, size_t>> cands;
      for (size_t k = 0; k < tn; k++) {
        if (!tables[k].live) continue;
        for (size_t i = 0; i < tables[k].idx.size(); i++) {
          const index_def& ref = tables[k].idx[i];
          if (ref.live && ref.col_ids.size() <= vals.size() &&
              (ref.code == IX_PRIMARYKEY || ref.code == IX_UNIQUEKEY || ref.code == IX_SORTKEY ||
               ref.code == IX_SORTKEY_OLD))
            cands.push_back({k, i});
        }
      }
      if (cands.empty()) return false;
      auto [k, i] = cands[static_cast<size_t>(r.below(static_cast<int64_t>(cands.size())))];
      index_def& ref = tables[k].idx[i];
      for (size_t c = 0; c < ref.col_ids.size(); c++) ix.col_ids.push_back(vals[c]);
      ix.key_id = ref.id;
      ix.key_name = ref.name;
      ix.ref_table = static_cast<int64_t>(k);
      ix.ref_key_idx = static_cast<int32_t>(i);
      ref.refs++;
      tables[k].incoming_refs++;
    } else {
      int64_t n = r.range(1, vals.size() < 3 ? static_cast<int64_t>(vals.size()) : 3);
      size_t first = static_cast<size_t>(r.below(static_cast<int64_t>(vals.size()) - n + 1));
      for (int64_t c = 0; c < n; c++) ix.col_ids.push_back(vals[first + static_cast<size_t>(c)]);
    }
    static const char* const kSuffix[] = {"_sk", "_mm", "_uk", "_pk", "_fk", "_sk", "_ji"};
    ix.id = next_id++;
    ix.name = t.name + name_of(kSuffix[code], ix.id, "");
    int64_t cg = index_colgroup(ix.col_ids);
    ix.cg_id = cg;
    bc20_log_cat_index_new(w, ix.id, ix.name, code, t.id, cg, 0, ix.key_id);
    t.idx.push_back(std::move(ix));
    sum->indexes_created++;
    return true;
  }

  // ---- data indexes ----
  void write_minmax(index_def& ix) {
    int64_t groupsize = int64_t{1} << r.range(6, 12);
    int64_t numgroups = r.range(0, 6);
    int64_t numtuples = numgroups == 0 ? 0 : (numgroups - 1) * groupsize + r.range(1, groupsize);
    int64_t maxgroups = numgroups + r.range(1, 4);
    bc20_log_minmax_size(w, ix.id, maxgroups, numtuples, groupsize);
    ix.sizes[0] = maxgroups;
    ix.sizes[1] = numtuples;
    ix.sizes[2] = groupsize;
    ix.data_lines.assign(ix.col_ids.size(), std::string());
    ix.over_lines.resize(ix.col_ids.size());
    for (size_t c = 0; c < ix.col_ids.size(); c++) {
      const ptype_info& pt = kPtypes[ix.col_pts[c]];
      int32_t overflow = r.chance(40) ? 1 : 0;
      ix.overflow = overflow;
      scratch.clear();
      scratch2.clear();
      if (pt.fixed) {
        // numgroups minimums, then numgroups maximums, each of the column's width.
        for (int half = 0; half < 2; half++)
          for (int64_t g = 0; g < numgroups; g++) put_value(scratch, pt, g * 100 + half * 99);
        if (overflow) {
          put_value(scratch2, pt, -1);
          put_value(scratch2, pt, numgroups * 100 + 1000);
          ix.over_lines[c] =
              "mmover " + std::to_string(c) + " " + hex(scratch2.data(), scratch2.size());
        }
        bc20_log_minmax_data(w, false, ix.id, static_cast<int32_t>(c), scratch.data(),
                             static_cast<int64_t>(scratch.size()), overflow, scratch2.data(),
                             overflow ? pt.width : 0);
        size_t half = scratch.size() / 2;
        ix.data_lines[c] = "mmcol " + std::to_string(c) + " " + hex(scratch.data(), half) + " " +
                           hex(scratch.data() + half, half);
      } else {
        std::vector<std::string> texts;
        for (int64_t g = 0; g < numgroups; g++) {
          texts.push_back(r.chance(10) ? std::string() : name_of("g", g, "_min"));
          texts.push_back(name_of("g", g, "_max").append(static_cast<size_t>(r.below(8)), 'z'));
        }
        for (const std::string& s : texts) put_raw64(scratch, static_cast<int64_t>(s.size()));
        for (const std::string& s : texts) scratch.insert(scratch.end(), s.begin(), s.end());
        if (overflow) {
          std::string lo = "", hi = "zz_overflow";
          put_raw64(scratch2, static_cast<int64_t>(lo.size()));
          put_raw64(scratch2, static_cast<int64_t>(hi.size()));
          scratch2.insert(scratch2.end(), lo.begin(), lo.end());
          scratch2.insert(scratch2.end(), hi.begin(), hi.end());
          ix.over_lines[c] = "mmover " + std::to_string(c) + " x" + hex(lo.data(), lo.size()) +
                             " x" + hex(hi.data(), hi.size());
        }
        bc20_log_minmax_data(w, true, ix.id, static_cast<int32_t>(c), scratch.data(),
                             static_cast<int64_t>(scratch.size()), overflow, scratch2.data(),
                             static_cast<int64_t>(scratch2.size()));
        std::string mins, maxs;
        for (size_t k = 0; k < texts.size(); k++) {
          std::string& out = k % 2 == 0 ? mins : maxs;
          out += (out.empty() ? "x" : ",x") + hex(texts[k].data(), texts[k].size());
        }
        ix.data_lines[c] = "mmvar " + std::to_string(c) + " " + (mins.empty() ? "~" : mins) + " " +
                           (maxs.empty() ? "~" : maxs);
      }
    }
  }

  static std::string hex(const void* data, size_t n) {
    static const char kDigits[] = "0123456789abcdef";
    std::string out;
    const uint8_t* p = static_cast<const uint8_t*>(data);
    for (size_t i = 0; i < n; i++) {
      out += kDigits[p[i] >> 4];
      out += kDigits[p[i] & 15];
    }
    return out;
  }

  // ---- the model file ----
  static const char* text(const std::string& s) { return s.empty() ? "~" : s.c_str(); }

  std::string file_of(const storage& st) {
    return multi ? std::to_string(st.file_nr) : std::string("default");
  }

  void model_storage(std::string& out, const char* kind, const storage& st,
                     const std::vector<int64_t>& col_ids) {
    out += kind;
    out += " " + std::to_string(st.cg_id) + " " + std::to_string(st.scol) + " " + file_of(st);
    for (int64_t id : col_ids) out += " " + std::to_string(id);
    out += "\n";
    for (const auto& n : st.nulls)
      out += "null " + std::to_string(n[0]) + " " + std::to_string(n[1]) + " " +
             std::to_string(n[2]) + "\n";
    out += "blocks " + std::to_string(st.live.size());
    for (const live_block& b : st.live) {
      out += ' ';
      out += std::to_string(b.nr);
      out += ':';
      out += std::to_string(b.used);
      out += ':';
      out += std::to_string(b.tuples);
    }
    out += "\n";
  }

  std::string model(const std::string& dir) {
    static const char* const kImpl[] = {"", "vcolumn_8", "vcolumn_16", "ccolumn"};
    std::string out =
        "columnspace " + std::to_string(kBlksz) + " " + std::to_string(kScolType) + "\n";
    if (!multi) {
      out += "location auto default 1 " + dir + J480_PATH_SEP + "CBM" + J480_PATH_SEP + "default\n";
      out += "file default default 0\n";
    }
    for (const location_def& l : locs)
      if (l.live)
        out += "location " + std::to_string(l.id) + " " + l.name + " " + std::to_string(l.usage) +
               " " + dir + J480_PATH_SEP + "locations" + J480_PATH_SEP + l.name + "\n";
    if (multi) {
      std::vector<std::pair<int64_t, std::string>> files;
      for (storage* st : live_storages()) files.push_back({st->file_nr, file_line_tail(*st)});
      std::sort(files.begin(), files.end());
      for (const auto& f : files) out += "file " + std::to_string(f.first) + f.second + "\n";
    }
    for (const table_def& t : tables) {
      if (!t.live) continue;
      out +=
          "table " + std::to_string(t.id) + " " + t.name + " " + std::to_string(t.root_cg) + "\n";
      for (const column& c : t.cols) {
        const ptype_info& pt = kPtypes[c.pt];
        const char* impl = c.ctype == 0 ? (pt.fixed ? "fcolumn" : "vcolumn_8") : kImpl[c.ctype];
        out += "column " + std::to_string(c.id) + " " + c.name + " " + pt.adt + " " + impl + " " +
               text(c.ltype) + " " + std::to_string(c.digits) + " " + std::to_string(c.scale) +
               " " + text(c.compression) + " " + std::to_string(c.flags & 1u) + "\n";
      }
      for (const sgroup& g : t.sgs)
        if (g.live) model_storage(out, "storage", g.st, g.col_ids);
      for (const index_def& ix : t.idx) {
        if (!ix.live) continue;
        out += "index " + std::to_string(ix.id) + " " +
               std::to_string(ix.code == IX_SORTKEY_OLD ? IX_SORTKEY : ix.code) + " " + ix.name +
               " " + text(ix.key_name) + " " + std::to_string(ix.cg_id);
        for (int64_t id : ix.col_ids) out += " " + std::to_string(id);
        out += "\n";
        if (ix.has_storage) model_storage(out, "istorage", ix.st, ix.col_ids);
        if (ix.code == IX_MINMAX)
          out += "minmax " + std::to_string(ix.sizes[0]) + " " + std::to_string(ix.sizes[1]) + " " +
                 std::to_string(ix.sizes[2]) + " " + std::to_string(ix.overflow) + "\n";
        if (ix.code == IX_JOIN)
          out += "jis " + std::to_string(ix.sizes[0]) + " " + std::to_string(ix.sizes[1]) + " " +
                 std::to_string(ix.sizes[2]) + "\n";
        for (const std::string& line : ix.data_lines) out += line + "\n";
        for (const std::string& line : ix.over_lines)
          if (!line.empty()) out += line + "\n";
      }
      if (!t.incoming.empty()) {
        out += "incoming " + std::to_string(t.incoming.size());
        for (const std::string& name : t.incoming) out += std::string(" ") + text(name);
        out += "\n";
      }
    }
    return out;
  }

  std::string file_line_tail(const storage& st) {
    for (const location_def& l : locs)
      if (l.id == st.location_id) return " " + l.name + " " + name_of("f", st.file_nr, "");
    return " ? ?";
  }

  static void put_raw64(std::vector<uint8_t>& out, int64_t v) {
    uint8_t b[8];
    memcpy(b, &v, 8);
    out.insert(out.end(), b, b + 8);
  }

  // A value of the column's type in its native form.
  static void put_value(std::vector<uint8_t>& out, const ptype_info& pt, int64_t v) {
    uint8_t b[16] = {};
    if (strcmp(pt.adt, "flt") == 0) {
      float f = static_cast<float>(v) / 4;
      memcpy(b, &f, 4);
    } else if (strcmp(pt.adt, "dbl") == 0) {
      double d = static_cast<double>(v) / 8;
      memcpy(b, &d, 8);
    } else {
      memcpy(b, &v, pt.width < 8 ? static_cast<size_t>(pt.width) : 8);
      if (pt.width == 16 && v < 0) memset(b + 8, 0xFF, 8);
    }
    out.insert(out.end(), b, b + pt.width);
  }

  void write_jis(index_def& ix) {
    int64_t numgroups = r.range(0, 8);
    int64_t maxgroups = numgroups + r.range(0, 4);
    int64_t groupsize = int64_t{1} << r.range(8, 14);
    bc20_log_jis_size(w, ix.id, maxgroups, numgroups, groupsize);
    ix.sizes[0] = maxgroups;
    ix.sizes[1] = numgroups;
    ix.sizes[2] = groupsize;
    ix.data_lines.clear();
    std::vector<int64_t> words(static_cast<size_t>(numgroups + 1));
    for (int32_t col = 0; col < 3; col++) {
      int64_t acc = 0;
      std::string line = "jiscol " + std::to_string(col);
      for (int64_t& v : words) {
        v = (acc += r.range(0, 1000));
        line += ' ';
        line += std::to_string(v);
      }
      ix.data_lines.push_back(line);
      bc20_log_jis_data(w, ix.id, col, numgroups + 1, words.data());
    }
  }

  // A minmax index on table `tn`, with data, in its own transaction.
  void create_minmax(size_t tn) {
    table_def& t = tables[tn];
    std::vector<int64_t> vals = value_columns(t);
    if (vals.empty()) return;
    begin();
    index_def ix;
    ix.code = IX_MINMAX;
    int64_t n = r.range(1, vals.size() < 3 ? static_cast<int64_t>(vals.size()) : 3);
    for (int64_t i = 0; i < n; i++) {
      int64_t id = vals[static_cast<size_t>(r.below(static_cast<int64_t>(vals.size())))];
      bool dup = false;
      for (int64_t have : ix.col_ids) dup |= have == id;
      if (dup) continue;
      ix.col_ids.push_back(id);
      ix.col_pts.push_back(column_pt(t, id));
    }
    ix.id = next_id++;
    ix.name = t.name + name_of("_mm", ix.id, "");
    int64_t cg = index_colgroup(ix.col_ids);
    ix.cg_id = cg;
    int64_t scg = 0;
    if (r.chance(50)) {
      ix.has_storage = true;
      ix.st = new_storage(cg, ix.col_ids);
      scg = ix.st.cg_id;
    }
    bc20_log_cat_index_new(w, ix.id, ix.name, IX_MINMAX, t.id, cg, scg, 0);
    write_minmax(ix);
    t.idx.push_back(std::move(ix));
    sum->indexes_created++;
    end();
  }

  // A join index over a foreign key of table `tn` that has none yet; false if there is none.
  bool create_join(size_t tn) {
    table_def& t = tables[tn];
    int32_t fk = -1;
    for (size_t i = 0; i < t.idx.size(); i++)
      if (t.idx[i].live && t.idx[i].code == IX_FOREIGNKEY && !t.idx[i].has_join) {
        fk = static_cast<int32_t>(i);
        break;
      }
    if (fk < 0) return false;
    begin();
    index_def ix;
    ix.code = IX_JOIN;
    ix.col_ids = t.idx[static_cast<size_t>(fk)].col_ids;
    for (int64_t id : ix.col_ids) ix.col_pts.push_back(column_pt(t, id));
    ix.id = next_id++;
    ix.name = t.name + name_of("_ji", ix.id, "");
    ix.key_id = t.idx[static_cast<size_t>(fk)].id;
    ix.key_name = t.idx[static_cast<size_t>(fk)].name;
    ix.ref_table = t.idx[static_cast<size_t>(fk)].ref_table;
    ix.ref_key_idx = fk;
    int64_t cg = index_colgroup(ix.col_ids);
    ix.cg_id = cg;
    int64_t scg = 0;
    if (r.chance(50)) {
      ix.has_storage = true;
      ix.st = new_storage(cg, ix.col_ids);
      scg = ix.st.cg_id;
    }
    bc20_log_cat_index_new(w, ix.id, ix.name, IX_JOIN, t.id, cg, scg, ix.key_id);
    write_jis(ix);
    t.idx[static_cast<size_t>(fk)].has_join = true;
    t.idx[static_cast<size_t>(fk)].refs++;
    tables[static_cast<size_t>(ix.ref_table)].incoming_slots++;
    tables[static_cast<size_t>(ix.ref_table)].incoming.push_back(ix.name);
    t.idx.push_back(std::move(ix));
    sum->indexes_created++;
    end();
    return true;
  }

  // ---- drops ----
  // Drops index `i` of table `tn` in the open transaction, its blocks first.
  void drop_index(size_t tn, size_t i) {
    table_def& t = tables[tn];
    index_def& ix = t.idx[i];
    if (ix.has_storage) delete_blocks(ix.st, ix.st.remembered());
    bc20_log_cat_index_del(w, ix.id);
    if (ix.has_storage) release_storage(ix.st);
    if (ix.code == IX_FOREIGNKEY) {
      table_def& rt = tables[static_cast<size_t>(ix.ref_table)];
      rt.idx[static_cast<size_t>(ix.ref_key_idx)].refs--;
      rt.incoming_refs--;
    } else if (ix.code == IX_JOIN) {
      index_def& fk = t.idx[static_cast<size_t>(ix.ref_key_idx)];
      fk.refs--;
      fk.has_join = false;
      for (std::string& name : tables[static_cast<size_t>(ix.ref_table)].incoming)
        if (name == ix.name) name.clear();
    }
    ix.live = false;
    sum->indexes_dropped++;
  }

  bool try_drop_index(size_t tn) {
    table_def& t = tables[tn];
    std::vector<size_t> cands;
    for (size_t i = 0; i < t.idx.size(); i++)
      if (t.idx[i].live && t.idx[i].refs == 0) cands.push_back(i);
    if (cands.empty()) return false;
    begin();
    drop_index(tn, cands[static_cast<size_t>(r.below(static_cast<int64_t>(cands.size())))]);
    end();
    return true;
  }

  bool try_drop_table() {
    int64_t live = 0;
    std::vector<size_t> cands;
    for (size_t k = 0; k < tables.size(); k++) {
      if (!tables[k].live) continue;
      live++;
      if (tables[k].incoming_refs == 0) cands.push_back(k);
    }
    // Tables are dropped now and then, never below half the tables asked for.
    if (live < 2 || 2 * live <= o->tables || cands.empty()) return false;
    drop_table(cands[static_cast<size_t>(r.below(static_cast<int64_t>(cands.size())))], false);
    return true;
  }

  // Drops table `tn` in a transaction of its own. With `keep_join` its first join index goes
  // with the table rather than before it, which takes the join index's increment column out of
  // the referenced table's write-PDT; any other join index is dropped first.
  void drop_table(size_t tn, bool keep_join) {
    table_def& t = tables[tn];
    begin();
    int64_t kept = -1;
    for (size_t i = 0; i < t.idx.size(); i++) {
      if (!t.idx[i].live || t.idx[i].code != IX_JOIN) continue;
      if (keep_join && kept < 0)
        kept = static_cast<int64_t>(i);
      else
        drop_index(tn, i);
    }
    for (sgroup& g : t.sgs)
      if (g.live) delete_blocks(g.st, g.st.remembered());
    for (index_def& ix : t.idx)
      if (ix.live && ix.has_storage) delete_blocks(ix.st, ix.st.remembered());
    bc20_log_cat_table_del(w, t.id);
    if (kept >= 0) {
      const index_def& ji = t.idx[static_cast<size_t>(kept)];
      table_def& rt = tables[static_cast<size_t>(ji.ref_table)];
      for (size_t s = 0; s < rt.incoming.size(); s++)
        if (rt.incoming[s] == ji.name) {
          rt.incoming[s].clear();
          if (rt.pdt.kept)
            reset_increment_column(rt.pdt, rt.pdt.n_table_cols + static_cast<uint32_t>(s));
        }
    }
    for (sgroup& g : t.sgs)
      if (g.live) release_storage(g.st);
    for (size_t i = 0; i < t.idx.size(); i++) {
      index_def& ix = t.idx[i];
      if (!ix.live) continue;
      if (ix.has_storage) release_storage(ix.st);
      if (ix.code == IX_FOREIGNKEY) {
        table_def& rt = tables[static_cast<size_t>(ix.ref_table)];
        rt.idx[static_cast<size_t>(ix.ref_key_idx)].refs--;
        rt.incoming_refs--;
      }
      ix.live = false;
    }
    t.live = false;
    sum->tables_dropped++;
    end();
  }

  bool try_drop_storage_group(size_t tn) {
    table_def& t = tables[tn];
    if (t.live_sgs() < 2) return false;
    std::vector<size_t> cands;
    for (size_t g = 0; g < t.sgs.size(); g++) {
      if (!t.sgs[g].live) continue;
      bool used = false;
      for (const index_def& ix : t.idx)
        for (int64_t id : ix.col_ids)
          for (int64_t own : t.sgs[g].col_ids) used |= ix.live && id == own;
      if (!used) cands.push_back(g);
    }
    if (cands.empty()) return false;
    sgroup& g = t.sgs[cands[static_cast<size_t>(r.below(static_cast<int64_t>(cands.size())))]];
    begin();
    delete_blocks(g.st, g.st.remembered());
    bc20_log_cat_colgroup_del(w, g.st.cg_id);
    release_storage(g.st);
    for (int64_t id : g.col_ids) {
      bc20_log_cat_column_del(w, id);
      for (size_t c = 0; c < t.cols.size(); c++)
        if (t.cols[c].id == id) {
          t.cols.erase(t.cols.begin() + static_cast<std::ptrdiff_t>(c));
          break;
        }
    }
    g.live = false;
    end();
    return true;
  }

  // ---- locations ----
  void new_location(bool spare) {
    location_def l{next_loc++, "", spare ? 2 : 1, spare};
    l.name = name_of(spare ? "spare" : "loc", l.id, "");
    bc20_log_cat_location_new(w, l.id, l.name, l.usage);
    locs.push_back(l);
    sum->locations_created++;
  }

  void location_step() {
    begin();
    int64_t pick = r.below(3);
    std::vector<size_t> spares;
    for (size_t i = 0; i < locs.size(); i++)
      if (locs[i].live && locs[i].spare) spares.push_back(i);
    if (pick == 0 || (pick == 1 && spares.empty())) {
      new_location(true);
    } else if (pick == 1) {
      location_def& l =
          locs[spares[static_cast<size_t>(r.below(static_cast<int64_t>(spares.size())))]];
      bc20_log_cat_location_del(w, l.id);
      l.live = false;
      sum->locations_dropped++;
    } else {
      std::vector<size_t> live;
      for (size_t i = 0; i < locs.size(); i++)
        if (locs[i].live) live.push_back(i);
      location_def& l = locs[live[static_cast<size_t>(r.below(static_cast<int64_t>(live.size())))]];
      int32_t bit = static_cast<int32_t>(1 << r.range(0, 3));
      l.usage |= bit;
      bc20_log_cat_location_update(w, l.id, bit);
    }
    end();
  }

  // ---- steps ----
  int64_t pick_live_table() {
    std::vector<size_t> live;
    for (size_t k = 0; k < tables.size(); k++)
      if (tables[k].live) live.push_back(k);
    if (live.empty()) return -1;
    return static_cast<int64_t>(
        live[static_cast<size_t>(r.below(static_cast<int64_t>(live.size())))]);
  }

  void block_step(int64_t n) {
    std::vector<storage*> all = live_storages();
    if (all.empty()) return;
    begin();
    int64_t k = r.range(1, all.size() < 4 ? static_cast<int64_t>(all.size()) : 4);
    int64_t first = r.below(static_cast<int64_t>(all.size()));
    for (int64_t i = 0; i < n; i++)
      add_blocks(*all[static_cast<size_t>((first + i % k) % static_cast<int64_t>(all.size()))], 1);
    end();
  }

  bool block_delete_step() {
    std::vector<storage*> cands;
    for (storage* s : live_storages())
      if (!s->runs.empty()) cands.push_back(s);
    if (cands.empty()) return false;
    storage* s = cands[static_cast<size_t>(r.below(static_cast<int64_t>(cands.size())))];
    begin();
    delete_blocks(*s, r.range(1, 1 + s->remembered() / 2));
    end();
    return true;
  }

  // One transaction of the history, chosen by weight among those possible now.
  void step(int64_t left) {
    int64_t to_make = o->tables - tables_made;
    if (to_make > 0 && (left <= to_make || r.chance(25) || pick_live_table() < 0)) {
      create_table();
      return;
    }
    for (int attempt = 0; attempt < 8; attempt++) {
      int64_t tn = pick_live_table();
      int64_t dice = r.below(100);
      if (dice < 30) {
        block_step(o->blocks);
        return;
      }
      if (dice < 38 && block_delete_step()) return;
      if (dice < 46) {
        static const int32_t kKeys[] = {IX_PRIMARYKEY, IX_UNIQUEKEY, IX_FOREIGNKEY, IX_SORTKEY};
        int32_t code = kKeys[r.below(4)];
        if (code == IX_FOREIGNKEY && !fk_possible(static_cast<size_t>(tn))) continue;
        begin();
        create_key(static_cast<size_t>(tn), code);
        end();
        return;
      }
      if (dice < 56) {
        create_minmax(static_cast<size_t>(tn));
        return;
      }
      if (dice < 62 && create_join(static_cast<size_t>(tn))) return;
      if (dice < 68) {
        table_def& t = tables[static_cast<size_t>(tn)];
        for (index_def& ix : t.idx) {
          if (!ix.live || (ix.code != IX_MINMAX && ix.code != IX_JOIN)) continue;
          begin();
          if (ix.code == IX_MINMAX)
            write_minmax(ix);
          else
            write_jis(ix);
          end();
          return;
        }
        continue;
      }
      if (dice < 74 && try_drop_index(static_cast<size_t>(tn))) return;
      if (dice < 78 && try_drop_table()) return;
      if (dice < 83 && try_drop_storage_group(static_cast<size_t>(tn))) return;
      if (dice < 90) {
        begin();
        new_storage_groups(tables[static_cast<size_t>(tn)], static_cast<int32_t>(r.range(1, 2)), 1,
                           false);
        end();
        return;
      }
      if (multi) {
        location_step();
        return;
      }
    }
    block_step(o->blocks);
  }

  // ---- write-PDTs ----
  MemContext* pdt_mem = nullptr;
  bool pdt_failed = false;
  std::map<std::string, int64_t> join_ids;  // live join indexes by name, while records are made

  std::string random_value(int32_t pt) {
    std::string v;
    if (pt == PT_STR) {
      static const char kChars[] = "abcdefghijklmnopqrstuvwxyz0123456789 _-";
      for (int64_t n = r.range(0, 12); n > 0; n--) v += kChars[r.below(sizeof kChars - 1)];
      return v;
    }
    uint8_t b[16];
    if (pt == PT_FLT) {
      float f = static_cast<float>(r.range(-100000, 100000)) / 4;
      memcpy(b, &f, 4);
    } else if (pt == PT_DBL) {
      double d = static_cast<double>(r.range(-100000, 100000)) / 8;
      memcpy(b, &d, 8);
    } else {
      uint64_t x[2] = {r.next(), r.next()};
      memcpy(b, x, 16);
    }
    return std::string(reinterpret_cast<const char*>(b), static_cast<size_t>(kPtypes[pt].width));
  }

  static std::string lng_bytes(int64_t v) {
    return std::string(reinterpret_cast<const char*>(&v), 8);
  }

  // Appends one value to a column's inserts or modifies: its position.
  static uint32_t append_value(value_space* vs, uint32_t c, int32_t pt, const std::string& v,
                               bool modify) {
    alignas(16) char element[16] = {};
    const char* text = v.c_str();
    const void* src = &text;
    if (pt != PT_STR) {
      memcpy(element, v.data(), v.size());
      src = element;
    }
    int64_t pos = modify ? value_space_append_modifies(vs, c, src, 0, nullptr, 1)
                         : value_space_append_inserts(vs, c, src, 0, nullptr, 1);
    return static_cast<uint32_t>(pos);
  }

  // Splits the image so that an item starts at row `rid` (at most the rows it has): its index.
  static size_t image_split(std::vector<image_item>& img, int64_t rid) {
    int64_t pos = 0;
    for (size_t i = 0; i < img.size(); i++) {
      if (rid == pos) return i;
      if (rid < pos + img[i].rows()) {  // only a run holds more than one row
        image_item tail = img[i];
        tail.a = img[i].a + (rid - pos);
        img[i].b = tail.a;
        img.insert(img.begin() + static_cast<std::ptrdiff_t>(i) + 1, tail);
        return i + 1;
      }
      pos += img[i].rows();
    }
    return img.size();
  }

  // The item of row `rid` alone, a stable row taken out of its run.
  static image_item& image_row(table_pdt& p, int64_t rid) {
    size_t i = image_split(p.image, rid);
    image_split(p.image, rid + 1);
    image_item& it = p.image[i];
    if (it.run) {
      it.run = false;
      it.vals.assign(p.pts.size(), std::string());
      it.set.assign(p.pts.size(), false);
    }
    return it;
  }

  static int64_t image_rows(const table_pdt& p) {
    int64_t n = 0;
    for (const image_item& it : p.image) n += it.rows();
    return n;
  }

  // The write-PDT loses the modifies of increment column `c`; with no update left it goes.
  static void reset_increment_column(table_pdt& p, uint32_t c) {
    p.resets++;
    bool updates = false;
    int64_t stable_rows = 0;
    for (image_item& it : p.image) {
      if (it.run) {
        stable_rows += it.rows();
        continue;
      }
      if (it.a < 0) {
        updates = true;
        continue;
      }
      it.set[c] = false;
      it.vals[c].clear();
      stable_rows++;
      for (bool set : it.set) updates |= set;
    }
    if (!updates && stable_rows == p.stable) p.kept = false;
  }

  // One write-PDT record of table `tn`: random updates over the image that its earlier records
  // left, made in a tree of their own through the tree's operations, written in the legacy form.
  void pdt_record(size_t tn) {
    table_def& t = tables[tn];
    table_pdt& p = t.pdt;
    if (p.records == 0) {
      p.n_table_cols = static_cast<uint32_t>(t.cols.size());
      for (const column& c : t.cols) p.pts.push_back(c.pt);
      p.pts.insert(p.pts.end(), t.incoming.size(), PT_SLNG);
      int64_t dice = r.below(10);
      p.stable = dice == 0 ? 0 : dice == 1 ? r.range(16400, 40000) : r.range(1, 3000);
      if (p.stable > 0) {
        image_item all;
        all.run = true;
        all.b = p.stable;
        p.image.push_back(all);
      }
    }
    const uint32_t ncols = static_cast<uint32_t>(p.pts.size());
    const uint32_t n_ji = ncols - p.n_table_cols;
    std::vector<const ptype*> types;
    bool has_ptr = false;  // the value space has no primitives for ptr values: no inserts
    for (uint32_t c = 0; c < p.n_table_cols; c++) {
      types.push_back(ptype_by_name(kPtypes[p.pts[c]].adt));
      has_ptr |= p.pts[c] == PT_PTR;
    }
    std::vector<int64_t> ji(n_ji + 1, 0);
    std::vector<uint32_t> live_slots;
    for (uint32_t s = 0; s < n_ji; s++) {
      if (t.incoming[s].empty()) continue;
      ji[s] = join_ids[t.incoming[s]];
      live_slots.push_back(p.n_table_cols + s);
    }
    static const uint32_t kFanOuts[] = {3, 4, 5, 8, 16, 32, 64};
    pdt* tree = pdt_create(pdt_mem, 0, kFanOuts[r.below(7)], static_cast<uint32_t>(r.range(1, 16)),
                           types.data(), p.n_table_cols, nullptr, 0, nullptr, 0, ji.data(), n_ji);
    value_space* vs = tree->value_space;
    int64_t rows = image_rows(p);
    bool ok = true;
    int64_t n_ops = r.chance(10) ? 0 : r.chance(5) ? r.range(500, 2000) : r.range(1, 80);
    for (; n_ops > 0; n_ops--) {
      int64_t dice = r.below(100);
      if (dice < 35) {
        if (has_ptr) continue;
        int64_t rid = r.range(0, rows);
        image_item row;
        row.a = -1;
        row.set.assign(ncols, true);
        uint32_t pos = 0;
        for (uint32_t c = 0; c < ncols; c++) {
          row.vals.push_back(c < p.n_table_cols ? random_value(p.pts[c])
                                                : lng_bytes(r.range(-50, 50)));
          pos = append_value(vs, c, p.pts[c], row.vals[c], false);
        }
        ok &= pdt_add_insert(tree, rid, pos, nullptr, nullptr, 0) == 0;
        const size_t at = image_split(p.image, rid);  // before begin(): the split may move it
        p.image.insert(p.image.begin() + static_cast<std::ptrdiff_t>(at), row);
        rows++;
        continue;
      }
      if (rows == 0) continue;
      int64_t rid = r.below(rows);
      if (dice < 65) {
        uint32_t c = static_cast<uint32_t>(r.below(p.n_table_cols));
        if (p.pts[c] == PT_PTR) continue;
        std::string v = random_value(p.pts[c]);
        ok &= pdt_add_modify(tree, rid, append_value(vs, c, p.pts[c], v, true),
                             static_cast<uint16_t>(c)) == 0;
        image_item& it = image_row(p, rid);
        it.vals[c] = v;
        it.set[c] = true;
      } else if (dice < 77) {
        if (live_slots.empty()) continue;
        uint32_t c =
            live_slots[static_cast<size_t>(r.below(static_cast<int64_t>(live_slots.size())))];
        int64_t v = r.range(-1000, 1000);
        ok &= pdt_add_increment(tree, rid, static_cast<uint16_t>(c), v) == 0;
        image_item& it = image_row(p, rid);
        int64_t sum = 0;
        if (it.set[c]) memcpy(&sum, it.vals[c].data(), 8);
        it.vals[c] = lng_bytes(sum + v);
        it.set[c] = true;
      } else {
        int64_t n = 1 + r.below(std::min<int64_t>(rows - rid, r.chance(10) ? 40 : 3));
        // Past one delete entry's reach now and then.
        if (rows - rid > 16400 && r.chance(20))
          n = r.range(16385, std::min<int64_t>(rows - rid, 20000));
        for (int64_t left = n; left > 0; left -= PDT_BLOCK_DELETE_MAX)  // at most this a call
          ok &= pdt_add_delete(tree, rid, std::min<int64_t>(left, PDT_BLOCK_DELETE_MAX), -1) == 0;
        size_t from = image_split(p.image, rid), to = image_split(p.image, rid + n);
        p.image.erase(p.image.begin() + static_cast<std::ptrdiff_t>(from),
                      p.image.begin() + static_cast<std::ptrdiff_t>(to));
        rows -= n;
      }
    }
    std::string form(static_cast<size_t>(pdt_serialized_size(tree)), '\0');
    ok &= pdt_serialize(tree, form.data(), static_cast<int64_t>(form.size())) == 0;
    pdt_unref(tree);
    // Today's value space opens with a count of inserts per column, the legacy one with one
    // count for all; the rest is the same.
    int64_t vs_size = 0;
    memcpy(&vs_size, form.data() + 8, 8);
    for (uint32_t c = 1; c < ncols; c++) ok &= memcmp(&form[24], &form[24 + 4 * c], 4) == 0;
    std::string legacy = form.substr(0, 24);
    int64_t legacy_vs_size = vs_size - 4 * static_cast<int64_t>(ncols) + 4;
    memcpy(&legacy[8], &legacy_vs_size, 8);
    legacy.append(form, 24, 4);
    legacy.append(form, 24 + 4 * static_cast<size_t>(ncols), std::string::npos);
    if (r.chance(50))
      bc20_log_pdt_new(w, t.id, legacy.data(), static_cast<uint32_t>(legacy.size()));
    else
      bc20_log_pdt_new_64(w, t.id, legacy.data(), static_cast<int64_t>(legacy.size()));
    p.records++;
    p.kept = true;
    if (!ok) pdt_failed = true;
  }

  // Write-PDT records of most live tables, one to three each, in a random order and a few to a
  // transaction; then up to two tables dropped together with a join index.
  void write_pdts() {
    ptype_register_all();
    if (prim_lookup("gen_condense_slng_col", 1, 0) == nullptr)
      prim_register_table(prim_gen_table());
    pdt_mem = mem_context_create(nullptr, "wal20_gen_pdts");
    for (const table_def& t : tables)
      for (const index_def& ix : t.idx)
        if (t.live && ix.live && ix.code == IX_JOIN) join_ids[ix.name] = ix.id;
    std::vector<size_t> queue;
    for (size_t k = 0; k < tables.size(); k++)
      if (tables[k].live && r.chance(85))
        for (int64_t n = r.range(1, 3); n > 0; n--) queue.push_back(k);
    for (size_t i = queue.size(); i > 1; i--)
      std::swap(queue[i - 1], queue[static_cast<size_t>(r.below(static_cast<int64_t>(i)))]);
    bool open = false;
    for (size_t k : queue) {
      if (open && r.chance(50)) {
        end();
        open = false;
      }
      if (!open) begin();
      open = true;
      pdt_record(k);
    }
    if (open) end();
    mem_context_remove(pdt_mem);
    pdt_mem = nullptr;
    for (int drops = 0; drops < 2; drops++) {
      int64_t live = 0;
      std::vector<size_t> cands;
      for (size_t k = 0; k < tables.size(); k++) {
        if (!tables[k].live) continue;
        live++;
        bool join = false;
        for (const index_def& ix : tables[k].idx) join |= ix.live && ix.code == IX_JOIN;
        if (join && tables[k].incoming_refs == 0) cands.push_back(k);
      }
      if (live < 2 || cands.empty() || !r.chance(70)) break;
      drop_table(cands[static_cast<size_t>(r.below(static_cast<int64_t>(cands.size())))], true);
    }
  }

  // The write-PDT model: see bc20_gen.h.
  std::string pdt_model() {
    std::string out;
    for (const table_def& t : tables) {
      const table_pdt& p = t.pdt;
      if (!t.live || p.records == 0) continue;
      out += "pdt " + std::to_string(t.id) + " " + std::to_string(p.stable) + " " +
             std::to_string(p.records) + " " + std::to_string(p.resets) + " " +
             std::to_string(p.kept ? 1 : 0);
      for (int32_t pt : p.pts) out += std::string(" ") + kPtypes[pt].adt;
      out += "\n";
      if (!p.kept) continue;
      int64_t keep_a = 0, keep_b = 0;  // the run of untouched stable rows not yet written
      auto flush = [&] {
        if (keep_b > keep_a)
          out += "keep " + std::to_string(keep_a) + " " + std::to_string(keep_b) + "\n";
        keep_a = keep_b = 0;
      };
      for (const image_item& it : p.image) {
        bool touched = !it.run && it.a < 0;
        for (size_t c = 0; !it.run && c < it.set.size(); c++) touched |= it.set[c];
        if (!touched) {
          int64_t b = it.run ? it.b : it.a + 1;
          if (keep_b <= keep_a || keep_b != it.a) {
            flush();
            keep_a = it.a;
          }
          keep_b = b;
          continue;
        }
        flush();
        out += it.a < 0 ? std::string("insert") : "stable " + std::to_string(it.a);
        for (size_t c = 0; c < p.pts.size(); c++) {
          out += ' ';
          if (!it.set[c])
            out += '-';
          else
            out += (p.pts[c] == PT_STR ? "s" : "") + hex(it.vals[c].data(), it.vals[c].size());
        }
        out += "\n";
      }
      flush();
    }
    return out;
  }

  void setup() {
    begin();
    if (multi) {
      bc20_log_cs_new(w, false, 0, "columnspace0", kBlksz);
      for (int32_t i = 0; i < o->locations; i++) new_location(false);
    } else {
      bc20_log_cs_new(w, true, 0, "columnspace0", kBlksz);
    }
    end();
  }

  void bulk() {
    int64_t per_tr = o->blocks > 2048 ? o->blocks : 2048;
    int64_t round = 0;
    bulk_phase = true;
    while (bc20_log_writer_offset(w) < o->target_size && !bc20_log_writer_failed(w)) {
      std::vector<storage*> all = live_storages();
      begin();
      for (int64_t i = 0; i < per_tr; i++)
        add_blocks(*all[static_cast<size_t>(i % static_cast<int64_t>(all.size()))], 1);
      if (++round % 8 == 0)
        delete_blocks(*all[static_cast<size_t>(round / 8 % static_cast<int64_t>(all.size()))], 64);
      end();
    }
  }
};

void count_hook(void* ctx, const bc20_log_record* rec) {
  auto* g = static_cast<gen*>(ctx);
  if (rec->tag <= BC20_MAX_TAG) g->sum->records[rec->tag]++;
  if (g->o->hook != nullptr) g->o->hook(g->o->hook_ctx, rec);
}

bool make_dir(const std::string& path) {
  if (px_mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) return true;
  CV_ERROR(MODULE, "cannot create directory %s: %s", path.c_str(), strerror(errno));
  return false;
}

bool write_text(const char* path, const std::string& text) {
  FILE* f = px_fopen(path, "wb");
  bool ok = f != nullptr && px_fwrite(text.data(), 1, text.size(), f) == text.size();
  if (f != nullptr && px_fclose(f) != 0) ok = false;
  if (!ok) CV_ERROR(MODULE, "cannot write the model file %s", path);
  return ok;
}

}  // namespace

int bc20_gen_run(const bc20_gen_options* options, bc20_gen_summary* summary) {
  if (options == nullptr || summary == nullptr || options->out_dir == nullptr ||
      options->out_dir[0] == '\0' || options->tables < 1 || options->columns < 1 ||
      options->blocks < 0 || options->transactions < 0 || options->locations < 0 ||
      options->target_size < 0) {
    CV_ERROR(MODULE, "bc20_gen_run: bad options");
    return -1;
  }
  *summary = bc20_gen_summary{};
  std::string dir = options->out_dir;
  while (dir.size() > 1 && dir.back() == J480_PATH_SEP) dir.pop_back();
  std::string cbm = dir + J480_PATH_SEP + "CBM";
  if (!make_dir(dir) || !make_dir(cbm)) return -1;

  gen g;
  g.o = options;
  g.sum = summary;
  g.r.s = options->seed;
  g.multi = options->locations > 0;
  g.track = options->model_path != nullptr;
  bc20_log_writer_options wo;
  wo.big_endian = options->big_endian;
  wo.hook = count_hook;
  wo.hook_ctx = &g;
  g.w = bc20_log_writer_open((cbm + J480_PATH_SEP + "LOG").c_str(), &wo);
  if (g.w == nullptr) return -1;

  g.setup();
  int64_t n = options->transactions > options->tables ? options->transactions : options->tables;
  for (int64_t left = n; left > 0 && !bc20_log_writer_failed(g.w); left--) g.step(left);
  if (options->pdts) g.write_pdts();
  if (options->target_size > 0) g.bulk();

  summary->log_bytes = bc20_log_writer_offset(g.w);
  for (const table_def& t : g.tables) summary->tables_live += t.live;
  int result = bc20_log_writer_close(g.w);

  std::vector<std::string> paths;
  std::vector<bc20_location_map_entry> entries;
  for (const location_def& l : g.locs)
    if (l.live) paths.push_back(dir + J480_PATH_SEP + "locations" + J480_PATH_SEP + l.name);
  size_t p = 0;
  for (const location_def& l : g.locs)
    if (l.live) entries.push_back({l.name, paths[p++]});
  summary->map_lines = static_cast<int64_t>(entries.size());
  if (g.pdt_failed) {
    CV_ERROR(MODULE, "bc20_gen_run: a write-PDT update failed");
    result = -1;
  }
  if (options->model_path != nullptr && !write_text(options->model_path, g.model(dir))) result = -1;
  if (options->pdt_model_path != nullptr && !write_text(options->pdt_model_path, g.pdt_model()))
    result = -1;
  if (bc20_location_map_write((cbm + J480_PATH_SEP + "location_map").c_str(), entries.data(),
                              entries.size()) != 0)
    result = -1;
  return result;
}
