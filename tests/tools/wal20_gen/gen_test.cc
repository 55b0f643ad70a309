// The generator: its histories read back record by record with the real reader, satisfy the
// replay rules (checked by an independent model below), and its command line.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
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

flat of_action(const bc20_action* a) {
  flat f;
  f.type = a->type;
  auto& n = f.nums;
  switch (a->type) {
    case bc20_tr_new:
    case bc20_tr_end: n = {a->tr_new.trid}; break;
    case bc20_cs_new:
    case bc20_cs_new_defaultfile: n = {a->cs_new.id, a->cs_new.blksz}; break;
    case bc20_col_new:
    case bc20_col_del: n = {a->col_new.colid, a->col_new.type}; break;
    case bc20_blk_new:
      n = {a->blk_new.colid, a->blk_new.file_nr, a->blk_new.block_nr, a->blk_new.bytes_used,
           a->blk_new.num_tuples};
      break;
    case bc20_blk_del: n = {a->blk_del.colid, a->blk_del.file_nr, a->blk_del.block_nr}; break;
    case bc20_cat_table_new:
      n = {a->cat_table_new.table_id, a->cat_table_new.colgroup_id};
      f.strs = {a->cat_table_new.name};
      break;
    case bc20_cat_table_del:
    case bc20_cat_column_del:
    case bc20_cat_colgroup_del:
    case bc20_cat_index_del:
    case bc20_cat_location_del:
    case bc20_file_del: n = {a->cat_table_del.table_id}; break;
    case bc20_cat_column_new: {
      const auto& c = a->cat_column_new;
      n = {c.colid, c.ctype, c.digits, c.scale, static_cast<int64_t>(c.flags)};
      f.strs = {c.adt, c.ltype, c.compression, c.col_name};
      break;
    }
    case bc20_cat_colgroup_new:
    case bc20_cat_colgroup_new_defaultfile: {
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
    case bc20_minmax_size:
    case bc20_jis_size: {
      const auto& s = a->minmax_size;
      n = {s.index_id, s.maxgroups, s.numtuples, s.groupsize};
      break;
    }
    case bc20_minmax_data:
    case bc20_minmax_vardata: {
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
    case bc20_colgroup_file_new:
    case bc20_colgroup_file_del:
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

int32_t adt_width(const std::string& adt) {
  static const std::map<std::string, int32_t> w = {
      {"schr", 1}, {"uchr", 1}, {"ssht", 2}, {"usht", 2}, {"sint", 4}, {"uint", 4}, {"flt", 4},
      {"slng", 8}, {"ulng", 8}, {"uidx", 8}, {"ptr", 8},  {"dbl", 8},  {"s128", 16}, {"str", 0}};
  auto it = w.find(adt);
  return it == w.end() ? -1 : it->second;
}

class history_checker {
 public:
  explicit history_checker(bool multi) : multi_(multi) {}

  // Empty, or the first broken rule.
  std::string check(const std::vector<flat>& recs) {
    for (size_t i = 0; i < recs.size(); i++) {
      std::string why = step(recs[i]);
      if (!why.empty()) return "record " + std::to_string(i) + " (tag " +
                               std::to_string(recs[i].type) + "): " + why;
    }
    if (in_tr_) return "log ends inside a transaction";
    return "";
  }

 private:
  struct group {
    int32_t type = 0;
    int64_t parent = 0;
    int64_t table = 0;  // owning table for roots and storage groups
    int64_t scol = 0;
    int64_t file = -1;
    std::vector<int64_t> cols;
    bool live = true;
  };
  struct index {
    int32_t type = 0;
    int64_t table = 0;
    int64_t key_id = 0;
    int64_t storage = 0;
    std::vector<int64_t> cols;
    int64_t groups = -1;  // minmax or jis numgroups once sized
    bool live = true;
  };
  struct table {
    int64_t root = 0;
    bool live = true;
  };

  bool multi_;
  bool in_tr_ = false;
  int64_t trid_ = 0;
  int64_t transactions_ = 0;
  bool cs_seen_ = false;
  std::set<int64_t> ids_, scols_ever_, files_ever_, locs_ever_;
  std::set<std::string> names_;
  std::map<int64_t, std::string> columns_;  // live columns and their adt
  std::set<int64_t> dead_columns_;
  std::map<int64_t, group> groups_;
  std::set<int64_t> pending_;
  std::map<int64_t, int64_t> scol_group_;  // live storage column -> its group (0: unbound)
  std::map<int64_t, int64_t> files_;       // live file -> location
  std::map<int64_t, bool> locs_;           // location -> live
  std::map<int64_t, table> tables_;
  std::map<int64_t, index> indexes_;
  std::set<std::pair<int64_t, int64_t>> blocks_ever_;
  std::map<std::pair<int64_t, int64_t>, int64_t> blocks_;  // live (file, block) -> scol

  bool fresh_id(int64_t id) { return id != 0 && ids_.insert(id).second; }
  bool fresh_name(const std::string& n) { return !n.empty() && n[0] != '_' && names_.insert(n).second; }
  int64_t live_tables() const {
    int64_t n = 0;
    for (const auto& [id, t] : tables_) n += t.live;
    return n;
  }
  bool named_by_live_index(int64_t id) const {
    for (const auto& [other, ix] : indexes_)
      if (ix.live && ix.key_id == id) return true;
    return false;
  }
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
      if (in_tr_) return "tr_new inside a transaction";
      if (n[0] != trid_ + 1) return "trids don't count up";
      in_tr_ = true;
      trid_ = n[0];
      pending_.clear();
      return "";
    }
    if (!in_tr_) return "record outside a transaction";
    if (transactions_ == 0 && r.type != bc20_cs_new && r.type != bc20_cs_new_defaultfile &&
        r.type != bc20_cat_location_new && r.type != bc20_tr_end)
      return "set-up transaction holds more than the columnspace and locations";
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
        if ((r.type == bc20_cs_new) != multi_) return "columnspace form doesn't match locations";
        cs_seen_ = true;
        return "";
      case bc20_cat_location_new:
        if (!multi_ || !locs_ever_.insert(n[0]).second || !fresh_name(r.strs[0]))
          return "location id or name not fresh";
        locs_[n[0]] = true;
        return "";
      case bc20_cat_location_del:
        if (!locs_[n[0]]) return "drop of a dead location";
        for (const auto& [f, loc] : files_)
          if (loc == n[0]) return "drop of a location with files";
        locs_[n[0]] = false;
        return "";
      case bc20_cat_location_update:
        return locs_[n[0]] ? "" : "update of a dead location";
      case bc20_file_new:
        if (!multi_ || !files_ever_.insert(n[0]).second || n[0] < 0) return "file not fresh";
        if (!locs_[n[1]]) return "file in a dead location";
        if (r.strs[0] == "0") return "file named 0";
        files_[n[0]] = n[1];
        return "";
      case bc20_file_del:
        if (!files_.count(n[0])) return "drop of a dead file";
        for (const auto& [id, g] : groups_)
          if (g.live && g.file == n[0]) return "drop of a file in use";
        files_.erase(n[0]);
        return "";
      case bc20_col_new:
        if (!scols_ever_.insert(n[0]).second) return "storage column not fresh";
        scol_group_[n[0]] = 0;
        return "";
      case bc20_col_del:
        if (!scols_ever_.count(n[0]) || scol_group_.count(n[0])) return "col_del of a live storage";
        return "";
      case bc20_cat_column_new:
        if (!fresh_id(n[0]) || adt_width(r.strs[0]) < 0) return "column id not fresh or bad adt";
        if (r.strs[3].empty()) return "column without a name";
        columns_[n[0]] = r.strs[0];
        return "";
      case bc20_cat_column_del:
        return dead_columns_.count(n[0]) ? "" : "cat_column_del of a live column";
      case bc20_cat_colgroup_new:
      case bc20_cat_colgroup_new_defaultfile: return colgroup_new(r);
      case bc20_colgroup_file_new: {
        if (!pending_.count(n[0]) || groups_[n[0]].type != 1) return "file bound outside its tr";
        if (!multi_ || !files_.count(n[1]) || groups_[n[0]].file >= 0) return "bad file binding";
        groups_[n[0]].file = n[1];
        return "";
      }
      case bc20_colgroup_file_del:
        return n[0] != 0 && n[1] >= 0 ? "" : "colgroup_file_del content";
      case bc20_cat_table_new: {
        if (!pending_.count(n[1]) || groups_[n[1]].type != 0) return "root group not pending";
        if (!fresh_id(n[0]) || !fresh_name(r.strs[0])) return "table id or name not fresh";
        tables_[n[0]].root = n[1];
        groups_[n[1]].table = n[0];
        return "";
      }
      case bc20_cat_table_del: return table_del(n[0]);
      case bc20_cat_colgroup_del: return colgroup_del(n[0]);
      case bc20_cat_index_new: return index_new(r);
      case bc20_cat_index_del: {
        auto it = indexes_.find(n[0]);
        if (it == indexes_.end() || !it->second.live) return "drop of a dead index";
        if (named_by_live_index(n[0])) return "drop of an index that a live one names";
        it->second.live = false;
        if (it->second.storage) kill_group(it->second.storage);
        return "";
      }
      case bc20_minmax_size:
      case bc20_jis_size: {
        auto it = indexes_.find(n[0]);
        int32_t want = r.type == bc20_minmax_size ? 1 : 6;
        if (it == indexes_.end() || !it->second.live || it->second.type != want)
          return "sizes for a dead or wrong index";
        int64_t groups = r.type == bc20_minmax_size ? (n[2] + n[3] - 1) / n[3] : n[2];
        if (groups > n[1] || n[3] <= 0) return "more groups than maxgroups";
        it->second.groups = groups;
        return "";
      }
      case bc20_minmax_data:
      case bc20_minmax_vardata: {
        auto it = indexes_.find(n[0]);
        if (it == indexes_.end() || !it->second.live || it->second.groups < 0)
          return "data for a dead or unsized index";
        const index& ix = it->second;
        if (n[1] < 0 || n[1] >= static_cast<int64_t>(ix.cols.size())) return "bad column_nr";
        int32_t width = adt_width(columns_[ix.cols[static_cast<size_t>(n[1])]]);
        if ((width == 0) != (r.type == bc20_minmax_vardata)) return "data form doesn't fit type";
        if (width > 0 && (n[2] != 2 * width * ix.groups || (n[3] && n[4] != width)))
          return "fixed data size";
        if (width == 0 && (n[2] < 16 * ix.groups || (n[3] && n[4] < 16))) return "var data size";
        return "";
      }
      case bc20_jis_data: {
        auto it = indexes_.find(n[0]);
        if (it == indexes_.end() || !it->second.live || it->second.groups < 0)
          return "jis data for a dead or unsized index";
        return n[1] >= 0 && n[1] <= 2 && n[2] == it->second.groups + 1 ? "" : "jis data shape";
      }
      case bc20_pdt_new:
      case bc20_pdt_new_64: {
        if (!tables_.count(n[0]) || !tables_[n[0]].live) return "pdt of a dead table";
        const std::string& p = r.bulks[0];
        int64_t vs, entries;
        if (p.size() < 24) return "short pdt";
        memcpy(&vs, p.data() + 8, 8);
        memcpy(&entries, p.data() + 16, 8);
        return static_cast<int64_t>(p.size()) == 24 + vs + 12 * entries ? "" : "pdt size";
      }
      case bc20_blk_new:
      case bc20_blk_new_defaultfile: {
        bool dflt = r.type == bc20_blk_new_defaultfile;
        if (dflt == multi_) return "block form doesn't match locations";
        int64_t file = dflt ? 0 : n[1];
        int64_t block = dflt ? n[1] : n[2];
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
        std::pair<int64_t, int64_t> key = dflt ? std::pair<int64_t, int64_t>{0, n[1]}
                                               : std::pair<int64_t, int64_t>{n[1], n[2]};
        auto it = blocks_.find(key);
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
    int32_t type = static_cast<int32_t>(n[3]);
    group g;
    g.type = type;
    g.parent = parent;
    for (size_t i = 0; i < static_cast<size_t>(n[4]); i++) {
      int64_t c;
      memcpy(&c, r.bulks[0].data() + 8 * i, 8);
      if (!columns_.count(c)) return "group over a column not announced or dead";
      g.cols.push_back(c);
    }
    if (!fresh_id(id)) return "group id not fresh";
    bool defaultfile = r.type == bc20_cat_colgroup_new_defaultfile;
    if (type == 0) {
      if (parent != 0 || defaultfile) return "logical group with parent or file";
    } else if (type == 1) {
      auto sc = scol_group_.find(store);
      if (sc == scol_group_.end() || sc->second != 0) return "storage column not free";
      bool root_parent = false;
      for (const auto& [tid, t] : tables_) root_parent |= t.live && t.root == parent;
      if (!pending_.count(parent) && !root_parent) return "storage group parent unknown";
      if (groups_[parent].type != 0) return "storage group under a non-logical group";
      if (defaultfile == multi_) return "storage group form doesn't match locations";
      for (int64_t c : g.cols) {
        // A column is in at most one live storage group of a table.
        for (const auto& [oid, o] : groups_)
          if (o.live && o.type == 1 && o.parent == parent)
            for (int64_t oc : o.cols)
              if (oc == c) return "column in two storage groups";
      }
      sc->second = id;
      g.scol = store;
      g.table = groups_[parent].table;
      if (defaultfile) g.file = 0;
    } else if (type == 2) {
      if (!pending_.count(parent) || groups_[parent].type != 1 || g.cols.size() != 2)
        return "null group shape";
      for (int64_t c : g.cols) {
        bool in_parent = false;
        for (int64_t pc : groups_[parent].cols) in_parent |= pc == c;
        if (!in_parent) return "null group column not in its storage group";
      }
    } else {
      return "unknown group type";
    }
    groups_[id] = g;
    pending_.insert(id);
    return "";
  }

  std::string index_new(const flat& r) {
    const auto& n = r.nums;
    int64_t id = n[0], table_id = n[2], cg = n[3], scg = n[4], key = n[5];
    int32_t type = static_cast<int32_t>(n[1]);
    if (!fresh_id(id) || !fresh_name(r.strs[0])) return "index id or name not fresh";
    if (!tables_.count(table_id) || !tables_[table_id].live) return "index of a dead table";
    if (!pending_.count(cg) || groups_[cg].type != 0) return "index group not pending";
    if (scg != 0 && (!pending_.count(scg) || groups_[scg].parent != cg)) return "index storage";
    if (type < 0 || type > 6) return "index type";
    if (type == 4 || type == 6) {
      auto it = indexes_.find(key);
      if (it == indexes_.end() || !it->second.live) return "names a dead key";
      const index& ref = it->second;
      if (type == 4 && (ref.table >= table_id ||
                        !(ref.type == 0 || ref.type == 2 || ref.type == 3 || ref.type == 5)))
        return "foreign key not to an older table's key";
      if (type == 6 && (ref.type != 4 || ref.table != table_id)) return "join not on own fk";
    } else if (key != 0) {
      return "key id on a plain index";
    }
    index ix;
    ix.type = type;
    ix.table = table_id;
    ix.key_id = key;
    ix.storage = scg;
    ix.cols = groups_[cg].cols;
    indexes_[id] = ix;
    return "";
  }

  std::string table_del(int64_t id) {
    auto it = tables_.find(id);
    if (it == tables_.end() || !it->second.live) return "drop of a dead table";
    if (live_tables() < 2) return "drop of the last table";
    for (const auto& [iid, ix] : indexes_) {
      if (!ix.live) continue;
      if (ix.table == id && ix.type == 6) return "table dropped with a live join index";
      if (ix.table != id && indexes_.count(ix.key_id) && indexes_[ix.key_id].table == id)
        return "table dropped while another refers to it";
    }
    for (const auto& [key, scol] : blocks_) {
      int64_t g = scol_group_[scol];
      if (groups_[g].table == id) return "table dropped with live blocks it knows";
    }
    it->second.live = false;
    kill_group(it->second.root);
    for (auto& [iid, ix] : indexes_)
      if (ix.live && ix.table == id) {
        ix.live = false;
        if (ix.storage) kill_group(ix.storage);
      }
    return "";
  }

  std::string colgroup_del(int64_t id) {
    auto it = groups_.find(id);
    if (it == groups_.end() || !it->second.live || it->second.type != 1 || it->second.table == 0)
      return "drop of a group that isn't a live storage group of a table";
    group& g = it->second;
    int64_t others = 0;
    for (const auto& [oid, o] : groups_)
      others += oid != id && o.live && o.type == 1 && o.parent == g.parent;
    if (others == 0) return "drop of the last storage group";
    for (const auto& [iid, ix] : indexes_)
      for (int64_t c : ix.cols)
        for (int64_t own : g.cols)
          if (ix.live && c == own) return "drop of columns a live index uses";
    for (int64_t c : g.cols) {
      columns_.erase(c);
      dead_columns_.insert(c);
    }
    for (const auto& [key, scol] : blocks_)
      if (scol == g.scol) return "group dropped with live blocks";
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

bc20_gen_options options_of(const shape& s) {
  bc20_gen_options o;
  o.seed = s.seed;
  o.tables = s.tables;
  o.columns = s.columns;
  o.blocks = s.blocks;
  o.transactions = s.transactions;
  o.locations = s.locations;
  o.big_endian = s.big_endian;
  o.pdts = s.pdts;
  return o;
}

}  // namespace

TEST(GenRoundTrip, EveryWrittenRecordReadsBackEqualInEveryShape) {
  for (const shape& s : kShapes) {
    for (uint64_t extra = 0; extra < 3; extra++) {
      SCOPED_TRACE(std::string(s.label) + " seed+" + std::to_string(extra));
      TempDir dir;
      bc20_gen_options o = options_of(s);
      o.seed += 100 * extra;
      generated g = generate(dir.path(), o);
      ASSERT_EQ(g.rc, 0);
      int64_t transactions = 0;
      std::vector<flat> back = read_back(dir.file("CBM/LOG"), &transactions);
      EXPECT_EQ(transactions, g.sum.transactions);
      ASSERT_EQ(back.size(), g.written.size());
      for (size_t i = 0; i < back.size(); i++)
        ASSERT_EQ(back[i], as_read(g.written[i])) << "record " << i;
      // The summary counts what was written.
      int64_t total = 0;
      for (int64_t c : g.sum.records) total += c;
      EXPECT_EQ(total, static_cast<int64_t>(g.written.size()));
      EXPECT_EQ(g.sum.records[bc20_tr_new], g.sum.transactions);
      EXPECT_EQ(static_cast<int64_t>(j480test::read_file(dir.file("CBM/LOG")).size()),
                g.sum.log_bytes);
    }
  }
}

TEST(GenInvariants, HistoriesObeyTheReplayRulesForManySeeds) {
  for (const shape& s : kShapes) {
    for (uint64_t extra = 0; extra < 8; extra++) {
      SCOPED_TRACE(std::string(s.label) + " seed+" + std::to_string(extra));
      TempDir dir;
      bc20_gen_options o = options_of(s);
      o.seed += 1000 * extra;
      generated g = generate(dir.path(), o);
      ASSERT_EQ(g.rc, 0);
      EXPECT_EQ(history_checker(s.locations > 0).check(g.written), "");
      EXPECT_EQ(g.sum.tables_created, s.tables);
      EXPECT_GE(g.sum.tables_live, 1);
    }
  }
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
  auto broken = [&](const std::function<void(std::vector<flat>&)>& edit) {
    std::vector<flat> h = g.written;
    edit(h);
    return history_checker(true).check(h);
  };
  // A storage column used before it is announced.
  EXPECT_NE(broken([&](auto& h) { h.erase(h.begin() + first(bc20_col_new)); }), "");
  // A storage group left without a file.
  EXPECT_NE(broken([&](auto& h) { h.erase(h.begin() + first(bc20_colgroup_file_new)); }), "");
  // A block number given out twice.
  EXPECT_NE(broken([&](auto& h) {
    size_t i = first(bc20_blk_new);
    h.insert(h.begin() + i, h[i]);
  }), "");
  // A trid out of sequence, and a table's root group from another transaction.
  EXPECT_NE(broken([&](auto& h) { h[first(bc20_tr_end) + 1].nums[0] += 5; }), "");
  EXPECT_NE(broken([&](auto& h) {
    size_t i = first(bc20_cat_table_new);
    h[i].nums[1] += 1000;
  }), "");
  // A column group id of 0.
  EXPECT_NE(broken([&](auto& h) { h[first(bc20_cat_colgroup_new)].nums[0] = 0; }), "");
}

TEST(GenInvariants, ShapesCoverTheRecordKindsTheyPromise) {
  TempDir single_dir, multi_dir;
  bc20_gen_options o = options_of(kShapes[1]);
  o.transactions = 400;
  generated single = generate(single_dir.path(), o);
  o = options_of(kShapes[2]);
  o.transactions = 400;
  generated multi = generate(multi_dir.path(), o);
  for (uint32_t tag : {bc20_cs_new_defaultfile, bc20_blk_new_defaultfile,
                       bc20_blk_del_defaultfile, bc20_cat_colgroup_new_defaultfile})
    EXPECT_GT(single.sum.records[tag], 0) << tag;
  for (uint32_t tag : {bc20_cs_new, bc20_cat_location_new, bc20_cat_location_del,
                       bc20_cat_location_update, bc20_file_new, bc20_file_del, bc20_blk_new,
                       bc20_blk_del, bc20_colgroup_file_new, bc20_colgroup_file_del})
    EXPECT_GT(multi.sum.records[tag], 0) << tag;
  for (const generated* g : {&single, &multi}) {
    for (uint32_t tag :
         {bc20_col_new, bc20_col_del, bc20_cat_table_new, bc20_cat_table_del,
          bc20_cat_column_new, bc20_cat_column_del, bc20_cat_colgroup_new, bc20_cat_colgroup_del,
          bc20_cat_index_new, bc20_cat_index_del, bc20_minmax_size, bc20_minmax_data,
          bc20_minmax_vardata, bc20_jis_size, bc20_jis_data, bc20_pdt_new, bc20_pdt_new_64})
      EXPECT_GT(g->sum.records[tag], 0) << tag;
    EXPECT_GT(g->sum.null_groups, 0);
    EXPECT_EQ(history_checker(g == &multi).check(g->written), "");
  }
  // Every index type code appears.
  std::set<int64_t> types;
  for (const flat& f : multi.written)
    if (f.type == bc20_cat_index_new) types.insert(f.nums[1]);
  for (const flat& f : single.written)
    if (f.type == bc20_cat_index_new) types.insert(f.nums[1]);
  EXPECT_EQ(types, (std::set<int64_t>{0, 1, 2, 3, 4, 5, 6}));
  // The location map has one line per live location.
  EXPECT_EQ(static_cast<int64_t>(
                j480test::split_lines(j480test::read_file(multi_dir.file("CBM/location_map")))
                    .size()),
            multi.sum.locations_created - multi.sum.locations_dropped);
  EXPECT_EQ(j480test::read_file(single_dir.file("CBM/location_map")), "");
}

TEST(GenTargetSize, StopsWithinOneTransactionOfTheTargetWithoutDroppingTheRules) {
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
}

TEST(GenRun, RefusesBadOptionsAndUnwritableDirectories) {
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
namespace {
j480test::RunResult gen_cli(const std::vector<std::string>& args) {
  return j480test::run_binary(J480_GEN_BIN, args);
}
}  // namespace

TEST(GenCli, BadOptionsPrintUsageAndExitOne) {
  TempDir dir;
  const std::string d = dir.file("db");
  const std::vector<std::vector<std::string>> cases = {
      {},
      {"--out"},
      {"--bogus", "--out", d},
      {"--out", d, "--tables", "0"},
      {"--out", d, "--tables", "x"},
      {"--out", d, "--seed"},
      {"--out", d, "--target-size", "12Q"},
      {"--out", d, "--locations", "0"},
      {"--out", d, "--locations", "2", "--single-location"},
      {"--out", d, "--columns", "-3"},
  };
  for (const auto& args : cases) {
    j480test::RunResult r = gen_cli(args);
    EXPECT_EQ(r.status, 1) << ::testing::PrintToString(args);
    EXPECT_NE(r.err.find("Usage: "), std::string::npos);
    EXPECT_EQ(r.out, "");
  }
  EXPECT_FALSE(j480test::exists(d));
}

TEST(GenCli, WritesTheDatabaseAndTheSameSeedGivesTheSameBytes) {
  TempDir dir;
  std::vector<std::string> args = {"--seed", "77", "--tables", "5", "--locations", "2",
                                   "--transactions", "50", "--big-endian", "--pdts"};
  auto with_out = [&](const std::string& out) {
    std::vector<std::string> a = args;
    a.insert(a.begin(), {"--out", out});
    return a;
  };
  j480test::RunResult r1 = gen_cli(with_out(dir.file("a")));
  j480test::RunResult r2 = gen_cli(with_out(dir.file("b")));
  ASSERT_EQ(r1.status, 0) << r1.err;
  ASSERT_EQ(r2.status, 0);
  EXPECT_EQ(r1.out, r2.out);
  EXPECT_NE(r1.out.find("log_bytes "), std::string::npos);
  std::string log = j480test::read_file(dir.file("a/CBM/LOG"));
  EXPECT_EQ(log.substr(0, 2), "\x04\xD2");
  EXPECT_EQ(log, j480test::read_file(dir.file("b/CBM/LOG")));
  std::vector<std::string> map = j480test::split_lines(j480test::read_file(dir.file("a/CBM/location_map")));
  ASSERT_GE(map.size(), 2u);
  EXPECT_EQ(map[0], "loc1," + dir.file("a") + "/locations/loc1");

  args[1] = "78";
  ASSERT_EQ(gen_cli(with_out(dir.file("c"))).status, 0);
  EXPECT_NE(log, j480test::read_file(dir.file("c/CBM/LOG")));
}

TEST(GenCli, TargetSizeWithSuffixIsReached) {
  TempDir dir;
  j480test::RunResult r =
      gen_cli({"--out", dir.file("db"), "--target-size", "300K", "--single-location"});
  ASSERT_EQ(r.status, 0) << r.err;
  size_t size = j480test::read_file(dir.file("db/CBM/LOG")).size();
  EXPECT_GE(size, 300u * 1024);
  EXPECT_LT(size, 300u * 1024 + 2048 * 28 + 64 * 20 + 64);  // one bulk transaction at most
}
#endif
