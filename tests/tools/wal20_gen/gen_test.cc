// The generator: its histories read back record by record with the real reader, satisfy the
// replay rules (checked by an independent model below), and its command line.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "support/test_support.h"
#include "tools/wal20_gen/bc20_gen.h"
#include "tools/wal_converter/bc20_logger.h"
#include "utils/mem.h"
#include "utils/stream.h"

namespace {

using j480test::TempDir;

// A record reduced to what a reader keeps: numbers, strings and bulk bytes in file order.
struct flat {
  uint32_t type = 0;
  std::vector<int64_t> nums;
  std::vector<std::string> strs;
  std::vector<std::string> bulks;
  bool operator==(const flat&) const = default;
};

std::ostream& operator<<(std::ostream& os, const flat& f) {
  os << "tag " << f.type << " nums";
  for (int64_t n : f.nums) os << ' ' << n;
  for (const std::string& s : f.strs) os << " '" << s << "'";
  for (const std::string& b : f.bulks) os << " [" << b.size() << " bytes]";
  return os;
}

void capture(void* ctx, const bc20_log_record* r) {
  flat f;
  f.type = r->tag;
  for (int i = 0; i < r->n_nums; i++)
    if (!(r->skipped & (1u << i))) f.nums.push_back(r->nums[i]);
  for (int i = 0; i < r->n_strs; i++)
    if (!(r->str_skipped & (1u << i))) f.strs.emplace_back(r->strs[i]);
  for (int i = 0; i < r->n_bulk; i++)
    f.bulks.emplace_back(static_cast<const char*>(r->bulk[i]),
                         static_cast<size_t>(r->bulk_size[i]));
  static_cast<std::vector<flat>*>(ctx)->push_back(std::move(f));
}

// What the reader makes of a written record: the default-file block records name file -1 (no
// block manager in a test), pdt_new arrives as pdt_new_64.
flat as_read(flat f) {
  if (f.type == bc20_blk_new_defaultfile || f.type == bc20_blk_del_defaultfile) {
    f.type = f.type == bc20_blk_new_defaultfile ? bc20_blk_new : bc20_blk_del;
    f.nums.insert(f.nums.begin() + 1, -1);
  }
  if (f.type == bc20_pdt_new) f.type = bc20_pdt_new_64;
  return f;
}

std::string bytes(const void* p, int64_t n) {
  return n == 0 ? std::string() : std::string(static_cast<const char*>(p), static_cast<size_t>(n));
}

// The reader's action as a flat record, fields in file order.
flat of_action(const bc20_action* a) {
  flat f;
  f.type = a->type;
  auto& n = f.nums;
  switch (a->type) {
    case bc20_tr_new: case bc20_tr_end: n = {a->tr_new.trid}; break;
    case bc20_cs_new: case bc20_cs_new_defaultfile: n = {a->cs_new.id, a->cs_new.blksz}; break;
    case bc20_col_new: case bc20_col_del: n = {a->col_new.colid, a->col_new.type}; break;
    case bc20_blk_new: {
      const auto& b = a->blk_new;
      n = {b.colid, b.file_nr, b.block_nr, b.bytes_used, b.num_tuples};
      break;
    }
    case bc20_blk_del: n = {a->blk_del.colid, a->blk_del.file_nr, a->blk_del.block_nr}; break;
    case bc20_cat_table_new:
      n = {a->cat_table_new.table_id, a->cat_table_new.colgroup_id};
      f.strs = {a->cat_table_new.name};
      break;
    case bc20_cat_table_del: case bc20_cat_column_del: case bc20_cat_colgroup_del:
    case bc20_cat_index_del: case bc20_cat_location_del:
    case bc20_file_del: n = {a->cat_table_del.table_id}; break;
    case bc20_cat_column_new: {
      const auto& c = a->cat_column_new;
      n = {c.colid, c.ctype, c.digits, c.scale, static_cast<int64_t>(c.flags)};
      f.strs = {c.adt, c.ltype, c.compression, c.col_name};
      break;
    }
    case bc20_cat_colgroup_new: case bc20_cat_colgroup_new_defaultfile: {
      const auto& g = a->cat_colgroup_new;
      n = {g.cg_id, g.store_id, g.parent_id, g.type, g.ncols};
      f.bulks = {bytes(g.col_ids, 8 * int64_t{g.ncols})};
      break;
    }
    case bc20_cat_index_new: {
      const auto& i = a->cat_index_new;
      n = {i.index_id, i.type, i.table_id, i.colgroup_id, i.scolgroup_id, i.key_id};
      f.strs = {i.index_name};
      break;
    }
    case bc20_minmax_size: case bc20_jis_size: {
      const auto& s = a->minmax_size;
      n = {s.index_id, s.maxgroups, s.numtuples, s.groupsize};
      break;
    }
    case bc20_minmax_data: case bc20_minmax_vardata: {
      const auto& d = a->minmax_data;
      n = {d.index_id, d.column_nr, d.datasize, d.overflow, d.overflow_datasize};
      int64_t over = a->type == bc20_minmax_data ? 2 * d.overflow_datasize : d.overflow_datasize;
      f.bulks = {bytes(d.data, d.datasize), bytes(d.overflow_data, over)};
      break;
    }
    case bc20_jis_data:
      n = {a->jis_data.index_id, a->jis_data.jis_column, a->jis_data.numgroups};
      f.bulks = {bytes(a->jis_data.groups, 8 * a->jis_data.numgroups)};
      break;
    case bc20_pdt_new_64:
      n = {a->pdt_new_64.object_id, a->pdt_new_64.size};
      f.bulks = {bytes(a->pdt_new_64.data, a->pdt_new_64.size)};
      break;
    case bc20_cat_location_new:
      n = {a->cat_location_new.location_id, a->cat_location_new.usage};
      f.strs = {a->cat_location_new.name};
      break;
    case bc20_cat_location_update:
      n = {a->cat_location_update.location_id, a->cat_location_update.usage};
      break;
    case bc20_file_new:
      n = {a->file_new.file_nr, a->file_new.location_id};
      f.strs = {a->file_new.filename};
      break;
    case bc20_colgroup_file_new: case bc20_colgroup_file_del:
      n = {a->colgroup_file_new.colgroup_id, a->colgroup_file_new.file_nr};
      break;
    default: ADD_FAILURE() << "unexpected action " << a->type;
  }
  return f;
}

struct generated {
  bc20_gen_summary sum{};
  std::vector<flat> written;
  int rc = -1;
};

generated generate(const std::string& dir, bc20_gen_options o) {
  generated g;
  o.out_dir = dir.c_str();
  o.hook = capture;
  o.hook_ctx = &g.written;
  g.rc = bc20_gen_run(&o, &g.sum);
  return g;
}

// Reads the whole log, transaction by transaction, into flat records.
std::vector<flat> read_back(const std::string& path, int64_t* transactions) {
  std::vector<flat> out;
  *transactions = 0;
  stream* s = open_binary_read_stream(path.c_str());
  EXPECT_EQ(stream_error(s), STREAM_NOERR);
  EXPECT_EQ(bc20_logger_read_version(s), BC20_LOG_VERSION_20);
  for (;;) {
    MemContext* mem = mem_context_create(nullptr, "logger_replay_tc");
    bc20_action* list = nullptr;
    int rc = bc20_logger_read_transaction(mem, s, &list);
    EXPECT_FALSE(rc == 1 && list == nullptr) << "read failure after " << out.size();
    if (rc == 1 && list != nullptr) {
      ++*transactions;
      for (bc20_action* a = list; a != nullptr; a = a->next) out.push_back(of_action(a));
    } else {
      EXPECT_EQ(list, nullptr) << "records behind the last transaction";
    }
    mem_context_remove(mem);
    if (rc == 0 || list == nullptr) break;
  }
  stream_close_destroy(s);
  return out;
}

// ---- an independent model of the replay rules, fed with the written records ----

// Checks framing, fresh ids and names, announce-before-use and that every reference names
// something live at that point. Returns empty, or the first broken rule.
class history_checker {
 public:
  explicit history_checker(bool multi) : multi_(multi) {}

  std::string check(const std::vector<flat>& recs) {
    for (size_t i = 0; i < recs.size(); i++) {
      std::string why = step(recs[i]);
      if (!why.empty())
        return "record " + std::to_string(i) + " (tag " + std::to_string(recs[i].type) +
               "): " + why;
    }
    return in_tr_ ? "log ends inside a transaction" : "";
  }

 private:
  struct group {
    int32_t type = 0;
    int64_t parent = 0, table = 0, scol = 0, file = -1;
    std::vector<int64_t> cols;
    bool live = true;
  };
  struct index {
    int32_t type = 0;
    int64_t table = 0, storage = 0, key = 0;
    std::vector<int64_t> cols;
    bool live = true;
  };

  bool multi_, in_tr_ = false, cs_seen_ = false;
  int64_t trid_ = 0, transactions_ = 0;
  std::set<int64_t> ids_, scols_ever_, files_ever_, locs_ever_, pending_, dead_columns_;
  std::set<std::string> names_;
  std::set<int64_t> columns_;
  std::map<int64_t, group> groups_;
  std::map<int64_t, int64_t> scol_group_;  // live storage column -> its group (0: unbound)
  std::map<int64_t, int64_t> files_;       // live file -> location
  std::set<int64_t> locs_;
  std::map<int64_t, int64_t> tables_;  // live table -> root group
  std::map<int64_t, index> indexes_;
  std::set<std::pair<int64_t, int64_t>> blocks_ever_;
  std::map<std::pair<int64_t, int64_t>, int64_t> blocks_;  // live (file, block) -> scol

  bool fresh_id(int64_t id) { return id != 0 && ids_.insert(id).second; }
  bool fresh_name(const std::string& n) {
    return !n.empty() && n[0] != '_' && names_.insert(n).second;
  }
  bool live_index(int64_t id) { return indexes_.count(id) && indexes_[id].live; }
  void kill_group(int64_t id) {
    group& g = groups_[id];
    g.live = false;
    if (g.scol != 0) scol_group_.erase(g.scol);
    for (auto& [cid, child] : groups_)
      if (child.live && child.parent == id) kill_group(cid);
  }

  std::string step(const flat& r) {
    const auto& n = r.nums;
    if (r.type == bc20_tr_new) {
      if (in_tr_ || n[0] != trid_ + 1) return "tr_new nested or out of sequence";
      in_tr_ = true;
      trid_ = n[0];
      pending_.clear();
      return "";
    }
    if (!in_tr_) return "record outside a transaction";
    switch (r.type) {
      case bc20_tr_end:
        if (n[0] != trid_) return "tr_end with another trid";
        for (int64_t cg : pending_)
          if (groups_[cg].type == 1 && groups_[cg].file < 0) return "storage group without file";
        in_tr_ = false;
        transactions_++;
        return "";
      case bc20_cs_new:
      case bc20_cs_new_defaultfile:
        if (cs_seen_ || transactions_ != 0 || n[0] != 0) return "columnspace not once, first, id 0";
        cs_seen_ = true;
        return (r.type == bc20_cs_new) == multi_ ? "" : "columnspace form doesn't match locations";
      case bc20_cat_location_new:
        if (!multi_ || !locs_ever_.insert(n[0]).second || !fresh_name(r.strs[0]))
          return "location not fresh";
        locs_.insert(n[0]);
        return "";
      case bc20_cat_location_del:
        for (const auto& [f, loc] : files_)
          if (loc == n[0]) return "drop of a location with files";
        return locs_.erase(n[0]) ? "" : "drop of a dead location";
      case bc20_cat_location_update: return locs_.count(n[0]) ? "" : "update of a dead location";
      case bc20_file_new:
        if (!multi_ || n[0] < 0 || !files_ever_.insert(n[0]).second || r.strs[0] == "0")
          return "file not fresh";
        if (!locs_.count(n[1])) return "file in a dead location";
        files_[n[0]] = n[1];
        return "";
      case bc20_file_del:
        for (const auto& [id, g] : groups_)
          if (g.live && g.file == n[0]) return "drop of a file in use";
        return files_.erase(n[0]) ? "" : "drop of a dead file";
      case bc20_col_new:
        if (!scols_ever_.insert(n[0]).second) return "storage column not fresh";
        scol_group_[n[0]] = 0;
        return "";
      case bc20_col_del:
        return scols_ever_.count(n[0]) && !scol_group_.count(n[0]) ? ""
                                                                   : "col_del of a live storage";
      case bc20_cat_column_new:
        if (!fresh_id(n[0]) || r.strs[3].empty()) return "column id not fresh or no name";
        columns_.insert(n[0]);
        return "";
      case bc20_cat_column_del:
        return dead_columns_.count(n[0]) ? "" : "cat_column_del of a live column";
      case bc20_cat_colgroup_new:
      case bc20_cat_colgroup_new_defaultfile: return colgroup_new(r);
      case bc20_colgroup_file_new:
        if (!pending_.count(n[0]) || groups_[n[0]].type != 1 || groups_[n[0]].file >= 0 ||
            !multi_ || !files_.count(n[1]))
          return "bad file binding";
        groups_[n[0]].file = n[1];
        return "";
      case bc20_colgroup_file_del: return n[0] != 0 && n[1] >= 0 ? "" : "colgroup_file_del content";
      case bc20_cat_table_new:
        if (!pending_.count(n[1]) || groups_[n[1]].type != 0) return "root group not pending";
        if (!fresh_id(n[0]) || !fresh_name(r.strs[0])) return "table id or name not fresh";
        tables_[n[0]] = n[1];
        groups_[n[1]].table = n[0];
        return "";
      case bc20_cat_table_del: return table_del(n[0]);
      case bc20_cat_colgroup_del: return colgroup_del(n[0]);
      case bc20_cat_index_new: return index_new(r);
      case bc20_cat_index_del: {
        if (!live_index(n[0])) return "drop of a dead index";
        for (const auto& [other, ix] : indexes_)
          if (ix.live && ix.key == n[0]) return "drop of an index a live one names";
        indexes_[n[0]].live = false;
        if (indexes_[n[0]].storage) kill_group(indexes_[n[0]].storage);
        return "";
      }
      case bc20_minmax_size:
      case bc20_minmax_data:
      case bc20_minmax_vardata:
      case bc20_jis_size:
      case bc20_jis_data: return live_index(n[0]) ? "" : "index data for a dead index";
      case bc20_pdt_new:
      case bc20_pdt_new_64: return tables_.count(n[0]) ? "" : "pdt of a dead table";
      case bc20_blk_new:
      case bc20_blk_new_defaultfile: {
        bool dflt = r.type == bc20_blk_new_defaultfile;
        if (dflt == multi_) return "block form doesn't match locations";
        int64_t file = dflt ? 0 : n[1], block = dflt ? n[1] : n[2];
        auto it = scol_group_.find(n[0]);
        if (it == scol_group_.end() || it->second == 0) return "block of an unbound storage";
        if (groups_[it->second].file != file) return "block in another file than its group's";
        if (!blocks_ever_.insert({file, block}).second) return "block number reused";
        blocks_[{file, block}] = n[0];
        return "";
      }
      case bc20_blk_del:
      case bc20_blk_del_defaultfile: {
        bool dflt = r.type == bc20_blk_del_defaultfile;
        auto it = blocks_.find(dflt ? std::pair<int64_t, int64_t>{0, n[1]} : std::pair{n[1], n[2]});
        if (it == blocks_.end() || it->second != n[0]) return "delete of a block not live";
        blocks_.erase(it);
        return "";
      }
      default: return "unknown record";
    }
  }

  std::string colgroup_new(const flat& r) {
    const auto& n = r.nums;
    int64_t id = n[0], store = n[1], parent = n[2];
    group g;
    g.type = static_cast<int32_t>(n[3]);
    g.parent = parent;
    for (size_t i = 0; i < static_cast<size_t>(n[4]); i++) {
      int64_t c;
      memcpy(&c, r.bulks[0].data() + 8 * i, 8);
      if (!columns_.count(c)) return "group over a column not announced or dead";
      g.cols.push_back(c);
    }
    if (!fresh_id(id)) return "group id not fresh";
    bool defaultfile = r.type == bc20_cat_colgroup_new_defaultfile;
    if (g.type == 0 && (parent != 0 || defaultfile)) return "logical group with parent or file";
    if (g.type == 1) {
      auto sc = scol_group_.find(store);
      if (sc == scol_group_.end() || sc->second != 0) return "storage column not free";
      if (!groups_.count(parent) || !groups_[parent].live || groups_[parent].type != 0)
        return "storage group parent not a live logical group";
      if (defaultfile == multi_) return "storage group form doesn't match locations";
      sc->second = id;
      g.scol = store;
      g.table = groups_[parent].table;
      if (defaultfile) g.file = 0;
    } else if (g.type == 2 && (!pending_.count(parent) || groups_[parent].type != 1)) {
      return "null group outside its storage group's transaction";
    } else if (g.type > 2) {
      return "unknown group type";
    }
    groups_[id] = g;
    pending_.insert(id);
    return "";
  }

  std::string index_new(const flat& r) {
    const auto& n = r.nums;
    int64_t id = n[0], table_id = n[2], cg = n[3], scg = n[4], key = n[5];
    index ix;
    ix.type = static_cast<int32_t>(n[1]);
    if (!fresh_id(id) || !fresh_name(r.strs[0])) return "index id or name not fresh";
    if (!tables_.count(table_id)) return "index of a dead table";
    if (!pending_.count(cg) || groups_[cg].type != 0) return "index group not pending";
    if (scg != 0 && (!pending_.count(scg) || groups_[scg].parent != cg)) return "index storage";
    if ((ix.type == 4 || ix.type == 6) != (key != 0) || (key != 0 && !live_index(key)))
      return "key id missing, dead or on a plain index";
    ix.table = table_id;
    ix.storage = scg;
    ix.key = key;
    ix.cols = groups_[cg].cols;
    indexes_[id] = ix;
    return "";
  }

  std::string table_del(int64_t id) {
    if (!tables_.count(id)) return "drop of a dead table";
    for (const auto& [iid, ix] : indexes_)
      if (ix.live && ix.table != id && ix.key && indexes_[ix.key].table == id)
        return "table dropped while another refers to it";
    for (const auto& [key, scol] : blocks_)
      if (groups_[scol_group_[scol]].table == id) return "table dropped with live blocks it knows";
    kill_group(tables_[id]);
    tables_.erase(id);
    for (auto& [iid, ix] : indexes_)
      if (ix.live && ix.table == id) {
        ix.live = false;
        if (ix.storage) kill_group(ix.storage);
      }
    return "";
  }

  std::string colgroup_del(int64_t id) {
    auto it = groups_.find(id);
    if (it == groups_.end() || !it->second.live || it->second.type != 1)
      return "drop of a dead storage group";
    for (const auto& [iid, ix] : indexes_)
      for (int64_t c : ix.cols)
        for (int64_t own : it->second.cols)
          if (ix.live && c == own) return "drop of columns a live index uses";
    for (const auto& [key, scol] : blocks_)
      if (scol == it->second.scol) return "group dropped with live blocks";
    for (int64_t c : it->second.cols) {
      columns_.erase(c);
      dead_columns_.insert(c);
    }
    kill_group(id);
    return "";
  }
};

struct shape {
  const char* label;
  uint64_t seed;
  int32_t tables, columns, blocks, transactions, locations;
  int big_endian, pdts;
};

const shape kShapes[] = {
    {"single-le", 1, 4, 6, 8, 60, 0, 0, 0},   {"single-be", 2, 5, 4, 4, 80, 0, 1, 1},
    {"multi-le", 3, 6, 5, 6, 120, 3, 0, 1},   {"multi-be", 4, 3, 8, 16, 60, 1, 1, 0},
    {"tiny", 5, 1, 1, 1, 3, 0, 0, 0},         {"many-tables", 6, 20, 3, 2, 200, 2, 0, 0},
    {"long-history", 7, 6, 4, 12, 1500, 0, 0, 1},
};

bc20_gen_options options_of(const shape& s, uint64_t extra_seed = 0) {
  bc20_gen_options o;
  std::tie(o.seed, o.tables, o.columns, o.blocks, o.transactions, o.locations, o.big_endian,
           o.pdts) = std::tuple(s.seed + extra_seed, s.tables, s.columns, s.blocks,
                                s.transactions, s.locations, s.big_endian, s.pdts);
  return o;
}

}  // namespace

// Every shape over several seeds: the replay rules hold, every record reads back equal, and
// together the shapes write every record kind in its form for one and for several locations.
TEST(GenRoundTrip, HistoriesObeyTheRulesAndReadBackEqualInEveryShape) {
  std::map<uint32_t, int64_t> kinds[2];  // per form: single location, several
  std::set<int64_t> index_types;
  int64_t null_groups = 0;
  for (const shape& s : kShapes) {
    for (uint64_t extra = 0; extra < 6; extra++) {
      SCOPED_TRACE(std::string(s.label) + " seed+" + std::to_string(extra));
      TempDir dir;
      generated g = generate(dir.path(), options_of(s, 1000 * extra));
      ASSERT_EQ(g.rc, 0);
      EXPECT_EQ(history_checker(s.locations > 0).check(g.written), "");
      EXPECT_EQ(g.sum.tables_created, s.tables);
      EXPECT_GE(g.sum.tables_live, 1);
      int64_t transactions = 0;
      std::vector<flat> back = read_back(dir.file("CBM/LOG"), &transactions);
      EXPECT_EQ(transactions, g.sum.transactions);
      ASSERT_EQ(back.size(), g.written.size());
      for (size_t i = 0; i < back.size(); i++)
        ASSERT_EQ(back[i], as_read(g.written[i])) << "record " << i;
      int64_t total = 0;  // the summary counts what was written
      for (uint32_t tag = 0; tag <= BC20_MAX_TAG; tag++) {
        total += g.sum.records[tag];
        kinds[s.locations > 0][tag] += g.sum.records[tag];
      }
      EXPECT_EQ(total, static_cast<int64_t>(g.written.size()));
      EXPECT_EQ(static_cast<int64_t>(j480test::read_file(dir.file("CBM/LOG")).size()),
                g.sum.log_bytes);
      // The location map has one line per live location.
      EXPECT_EQ(static_cast<int64_t>(
                    j480test::split_lines(j480test::read_file(dir.file("CBM/location_map"))).size()),
                g.sum.locations_created - g.sum.locations_dropped);
      null_groups += g.sum.null_groups;
      for (const flat& f : g.written)
        if (f.type == bc20_cat_index_new) index_types.insert(f.nums[1]);
    }
  }
  for (uint32_t tag : {bc20_cs_new_defaultfile, bc20_blk_new_defaultfile, bc20_blk_del_defaultfile,
                       bc20_cat_colgroup_new_defaultfile})
    EXPECT_GT(kinds[0][tag], 0) << tag;
  for (uint32_t tag : {bc20_cs_new, bc20_cat_location_new, bc20_cat_location_del,
                       bc20_cat_location_update, bc20_file_new, bc20_file_del, bc20_blk_new,
                       bc20_blk_del, bc20_colgroup_file_new, bc20_colgroup_file_del})
    EXPECT_GT(kinds[1][tag], 0) << tag;
  for (const auto& form : kinds)
    for (uint32_t tag :
         {bc20_col_new, bc20_col_del, bc20_cat_table_new, bc20_cat_table_del, bc20_cat_column_new,
          bc20_cat_column_del, bc20_cat_colgroup_new, bc20_cat_colgroup_del, bc20_cat_index_new,
          bc20_cat_index_del, bc20_minmax_size, bc20_minmax_data, bc20_minmax_vardata,
          bc20_jis_size, bc20_jis_data, bc20_pdt_new, bc20_pdt_new_64})
      EXPECT_GT(form.at(tag), 0) << tag;
  EXPECT_GT(null_groups, 0);
  EXPECT_EQ(index_types, (std::set<int64_t>{0, 1, 2, 3, 4, 5, 6}));
}

TEST(GenInvariants, TheCheckerRejectsHistoriesThatBreakARule) {
  TempDir dir;
  generated g = generate(dir.path(), options_of(kShapes[2]));  // multi-location
  ASSERT_EQ(history_checker(true).check(g.written), "");
  auto first = [&](uint32_t tag) {
    for (size_t i = 0; i < g.written.size(); i++)
      if (g.written[i].type == tag) return i;
    return g.written.size();
  };
  using edit = std::function<void(std::vector<flat>&)>;
  const std::pair<const char*, edit> cases[] = {
      {"storage column used before announced",
       [&](auto& h) { h.erase(h.begin() + first(bc20_col_new)); }},
      {"storage group without a file",
       [&](auto& h) { h.erase(h.begin() + first(bc20_colgroup_file_new)); }},
      {"block number twice",
       [&](auto& h) { h.insert(h.begin() + first(bc20_blk_new), h[first(bc20_blk_new)]); }},
      {"trid out of sequence", [&](auto& h) { h[first(bc20_tr_end) + 1].nums[0] += 5; }},
      {"root group unknown", [&](auto& h) { h[first(bc20_cat_table_new)].nums[1] += 1000; }},
      {"group id 0", [&](auto& h) { h[first(bc20_cat_colgroup_new)].nums[0] = 0; }},
      {"table id reused",
       [&](auto& h) {
         h[first(bc20_cat_table_new)].nums[0] = h[first(bc20_cat_column_new)].nums[0];
       }},
      {"tr_end missing", [&](auto& h) { h.erase(h.begin() + first(bc20_tr_end)); }},
      {"index of a dropped table",
       [&](auto& h) {
         h.insert(h.begin() + first(bc20_cat_index_new),
                  flat{bc20_cat_table_del, {h[first(bc20_cat_index_new)].nums[2]}, {}, {}});
       }},
  };
  for (const auto& [what, e] : cases) {
    std::vector<flat> h = g.written;
    e(h);
    EXPECT_NE(history_checker(true).check(h), "") << what;
  }
}

TEST(GenRun, TargetSizeIsReachedWithinOneTransactionAndBadOptionsAreRefused) {
  for (int32_t locations : {0, 2}) {
    TempDir dir;
    bc20_gen_options o;
    o.seed = 9;
    o.tables = 2;
    o.transactions = 10;
    o.locations = locations;
    o.target_size = 400 * 1024;
    generated g = generate(dir.path(), o);
    ASSERT_EQ(g.rc, 0);
    EXPECT_GE(g.sum.log_bytes, o.target_size);
    EXPECT_LT(g.sum.log_bytes - g.sum.last_transaction_bytes, o.target_size);
    EXPECT_EQ(history_checker(locations > 0).check(g.written), "");
  }
  bc20_gen_summary sum;
  bc20_gen_options o;
  EXPECT_EQ(bc20_gen_run(&o, &sum), -1);  // no directory
  TempDir dir;
  o.out_dir = dir.path().c_str();
  o.tables = 0;
  EXPECT_EQ(bc20_gen_run(&o, &sum), -1);
  o.tables = 1;
  std::string blocked = dir.file("file");
  j480test::write_file(blocked, "x");
  o.out_dir = blocked.c_str();
  EXPECT_EQ(bc20_gen_run(&o, &sum), -1);
}

#ifdef J480_GEN_BIN
TEST(GenCli, BadOptionsPrintUsageAndExitOne) {
  TempDir dir;
  const std::string d = dir.file("db");
  const std::vector<std::vector<std::string>> cases = {
      {}, {"--out"}, {"--bogus", "--out", d}, {"--out", d, "--tables", "0"},
      {"--out", d, "--tables", "x"}, {"--out", d, "--seed"}, {"--out", d, "--target-size", "12Q"},
      {"--out", d, "--locations", "0"}, {"--out", d, "--locations", "2", "--single-location"},
      {"--out", d, "--columns", "-3"},
  };
  for (const auto& args : cases) {
    j480test::RunResult r = j480test::run_binary(J480_GEN_BIN, args);
    EXPECT_EQ(r.status, 1) << ::testing::PrintToString(args);
    EXPECT_NE(r.err.find("Usage: "), std::string::npos);
    EXPECT_EQ(r.out, "");
  }
  EXPECT_FALSE(j480test::exists(d));
}

TEST(GenCli, WritesTheDatabaseTheSameSeedGivesTheSameBytesAndTargetSizeTakesASuffix) {
  TempDir dir;
  auto run = [&](const std::string& out, const std::string& seed) {
    return j480test::run_binary(
        J480_GEN_BIN, {"--out", dir.file(out), "--seed", seed, "--tables", "5", "--locations", "2",
                       "--transactions", "50", "--big-endian", "--pdts"});
  };
  j480test::RunResult r1 = run("a", "77"), r2 = run("b", "77");
  ASSERT_EQ(r1.status, 0) << r1.err;
  ASSERT_EQ(r2.status, 0);
  EXPECT_EQ(r1.out, r2.out);
  EXPECT_NE(r1.out.find("log_bytes "), std::string::npos);
  std::string log = j480test::read_file(dir.file("a/CBM/LOG"));
  EXPECT_EQ(log.substr(0, 2), "\x04\xD2");
  EXPECT_EQ(log, j480test::read_file(dir.file("b/CBM/LOG")));
  std::vector<std::string> map =
      j480test::split_lines(j480test::read_file(dir.file("a/CBM/location_map")));
  ASSERT_GE(map.size(), 2u);
  EXPECT_EQ(map[0], "loc1," + dir.file("a") + "/locations/loc1");
  ASSERT_EQ(run("c", "78").status, 0);
  EXPECT_NE(log, j480test::read_file(dir.file("c/CBM/LOG")));

  j480test::RunResult r = j480test::run_binary(
      J480_GEN_BIN, {"--out", dir.file("d"), "--target-size", "300K", "--single-location"});
  ASSERT_EQ(r.status, 0) << r.err;
  size_t size = j480test::read_file(dir.file("d/CBM/LOG")).size();
  EXPECT_GE(size, 300u * 1024);
  EXPECT_LT(size, 300u * 1024 + 2048 * 28 + 64 * 20 + 64);  // one bulk transaction at most
}
#endif
