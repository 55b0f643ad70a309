// expected25: the 2.5 action list that a conversion must write, built from the model file that
// j480_wal20_gen writes (its format: tools/wal20_gen/bc20_gen.h), and the same one-line form of
// the actions read back from a log, so that the two compare line by line; the tables of its
// write-PDT model. Knows nothing of the converter: the order, the ids and the mapped values are
// worked out here from the models alone.
#ifndef J480_TESTS_TOOLS_WAL_CONVERTER_EXPECTED25_H
#define J480_TESTS_TOOLS_WAL_CONVERTER_EXPECTED25_H

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "bm/logger.h"
#include "kernel/ltype.h"
#include "kernel/ptype.h"
#include "utils/mem.h"
#include "utils/stream.h"

namespace j480test {

using Fields = std::vector<std::string>;

inline std::string hex(const void* data, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out = "x";
  for (size_t i = 0; i < n; i++) {
    out += kDigits[static_cast<const uint8_t*>(data)[i] >> 4];
    out += kDigits[static_cast<const uint8_t*>(data)[i] & 15];
  }
  return out;
}

template <class T>
std::string text_of(const T& v) {
  if constexpr (std::is_arithmetic_v<T>)
    return std::to_string(v);
  else
    return std::string(v);
}
inline std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(c));
  return s;
}
// "name v1 v2 ...": one action.
template <class... T>
std::string act(const std::string& name, const T&... v) {
  std::string s = name;
  ((s += ' ', s += text_of(v)), ...);
  return s;
}

// One line per action read from a log, all fields, payloads in hex but a write-PDT's.
inline std::string describe25(const bm_logger_action* a) {
  std::string list;  // what follows the fixed fields
  const bm_paxgroup_new_fields& pax = a->paxgroup_new;
  for (int64_t k = 0; a->type == BM_PAXGROUP_NEW && k < pax.ncols; k++)
    list += act("", pax.cols->nullability[k], pax.cols->adt_id[k], pax.cols->compression[k],
                pax.cols->implementation[k]);
  for (int64_t k = 0; a->type == BM_CAT_KEY_NEW && k < a->cat_key_new.ncols; k++)
    list += act("", a->cat_key_new.col_ids[k]);
  for (int64_t k = 0; a->type == BM_JIS_DATA && k < a->jis_data.numgroups; k++)
    list += act("", a->jis_data.data[k]);
  const bm_minmax_data_fields& mm = a->minmax_data;
  const int64_t over = a->type == BM_MINMAX_DATA ? 2 * mm.overflow_datasize : mm.overflow_datasize;
  if (a->type == BM_MINMAX_DATA || a->type == BM_MINMAX_VARDATA)
    list = act("", hex(mm.data, static_cast<size_t>(mm.datasize)), mm.overflow) +
           act("", mm.overflow_datasize, hex(mm.overflow_data, static_cast<size_t>(over)));
#define J480_ACTION(tag, ...) \
  case BM_##tag:              \
    return act(lower(#tag), a->id __VA_OPT__(, ) __VA_ARGS__) + list;
  switch (a->type) {
    J480_ACTION(TR_NEW)
    J480_ACTION(TR_END)
    J480_ACTION(CS_NEW, a->cs_new.blksz)
    J480_ACTION(CAT_LOCATION_NEW, a->cat_location_new.name, a->cat_location_new.usage)
    J480_ACTION(FILE_NEW, a->file_new.location_id, a->file_new.filename)
    J480_ACTION(CAT_TABLE_NEW, a->cat_table_new.name, a->cat_table_new.is_auto_pax)
    J480_ACTION(CAT_COLUMN_NEW, a->cat_column_new.name, a->cat_column_new.nullability,
                a->cat_column_new.adt_id, a->cat_column_new.ltype_code, a->cat_column_new.table_id)
    J480_ACTION(STORAGE_NEW, a->storage_new.object_id)
    J480_ACTION(SCOL_NEW, a->scol_new.type)
    J480_ACTION(PAXGROUP_NEW, pax.storage_id, pax.scol_id, pax.object_id, pax.ncols)
    J480_ACTION(PAXGROUP_FILE_NEW, a->paxgroup_file_new.file_nr, a->paxgroup_file_new.object_id)
    J480_ACTION(BLK_NEW, a->blk_new.file_nr, a->blk_new.block_nr, a->blk_new.bytes_used,
                a->blk_new.num_tuples)
    J480_ACTION(CAT_KEY_NEW, a->cat_key_new.name, a->cat_key_new.type, a->cat_key_new.table_id,
                a->cat_key_new.ref_key_id, a->cat_key_new.ncols)
    J480_ACTION(CAT_INDEX_NEW, a->cat_index_new.name, a->cat_index_new.type,
                a->cat_index_new.table_id, a->cat_index_new.ref_key_id)
    J480_ACTION(MINMAX_SIZE, a->minmax_size.maxgroups, a->minmax_size.numtuples,
                a->minmax_size.groupsize)
    J480_ACTION(MINMAX_DATA, mm.column_nr, mm.datasize)
    J480_ACTION(MINMAX_VARDATA, mm.column_nr, mm.datasize)
    J480_ACTION(JIS_SIZE, a->jis_size.maxgroups, a->jis_size.numgroups, a->jis_size.groupsize)
    J480_ACTION(JIS_DATA, a->jis_data.jis_column, a->jis_data.numgroups)
    J480_ACTION(PDT_NEW)
    default:
      return act("tag", a->type);
  }
#undef J480_ACTION
}

// Every action of a 2.5 log in file order, one line each, "unreadable" where reading fails ("not
// a 2.5 log" where the file is none); the pdt_new payloads by table id.
inline std::vector<std::string> read_log25(const std::string& path,
                                           std::map<int64_t, std::string>* payloads = nullptr) {
  std::vector<std::string> out;
  ptype_register_all();  // the reader resolves a paxgroup's types by number
  MemContext* mem = mem_context_create(nullptr, "read_log25");
  stream* s = open_binary_read_stream(path.c_str());
  if (s == nullptr || bm_logger_read_version(s) != BM_LOGGER_VERSION_25) out = {"not a 2.5 log"};
  for (int more = out.empty(); more;) {
    bm_logger_action_list* list = nullptr;
    more = bm_logger_read_transaction(mem, s, &list);
    if (list == nullptr && more) out.push_back("unreadable");
    for (bm_logger_action* a = list != nullptr ? list->head : nullptr; a != nullptr; a = a->next) {
      out.push_back(describe25(a));
      if (payloads != nullptr && a->type == BM_PDT_NEW)
        (*payloads)[a->id].assign(static_cast<const char*>(a->pdt_new.data),
                                  size_t(a->pdt_new.size));
    }
    if (list == nullptr && more) break;
  }
  if (s != nullptr) stream_close_destroy(s);
  mem_context_remove(mem);
  return out;
}

// A table of the generator's write-PDT model: its head line's fields and its image lines.
struct PdtWant {
  int64_t stable = 0, records = 0, resets = 0, kept = 0;
  std::vector<std::string> adts;
  std::vector<std::string> image;
};

inline std::map<int64_t, PdtWant> read_pdt_model(const std::string& text) {
  std::map<int64_t, PdtWant> out;
  std::istringstream in(text);
  PdtWant* cur = nullptr;
  for (std::string line, kind, adt; std::getline(in, line);) {
    std::istringstream f(line);
    int64_t id = 0;
    if (line.rfind("pdt ", 0) != 0) {
      cur->image.push_back(line);
      continue;
    }
    cur = &out[(f >> kind >> id, id)];
    for (f >> cur->stable >> cur->records >> cur->resets >> cur->kept; f >> adt;)
      cur->adts.push_back(adt);
  }
  return out;
}

struct Expected25 {
  std::vector<std::string> actions;  // tr_new 0 ... tr_end 0
  std::string location_map;
  int64_t tables = 0;
  std::set<std::string> features;  // what the model exercised, for coverage
};

// `pdt_model`: the generator's write-PDT model, whose "pdt" lines with <kept> 1 name the tables
// that hold one. `with_map`: the location map was there to give multi-location paths.
inline Expected25 expected25(const std::string& model, const std::string& pdt_model,
                             bool with_map) {
  struct Group {
    Fields head, blocks;
  };
  struct Index {
    Fields head;
    Group st;
    std::vector<Fields> data;
  };
  struct Table {
    Fields head;
    std::vector<Fields> cols;
    std::vector<Group> groups;
    std::vector<Index> idx;
    int64_t slots = 0;
  };
  ptype_register_all();
  std::vector<Fields> locs;
  Fields cs;  // columnspace <block size> <storage column type>
  std::map<std::string, Fields> files, columns;
  std::map<std::string, int> nullability;
  std::map<std::string, std::pair<std::string, size_t>> keys;  // name: id, table position
  std::vector<Table> tables;
  std::set<std::string> write_pdts;
  for (const auto& [id, w] : read_pdt_model(pdt_model))
    if (w.kept) write_pdts.insert(std::to_string(id));
  std::istringstream in(model);
  std::string line;
  bool in_index = false, default_used = false;
  while (std::getline(in, line)) {
    Fields f;
    std::istringstream ls(line);
    for (std::string w; std::getline(ls, w, ' ');) f.push_back(w == "~" ? "" : w);
    if (line.back() == ' ') f.push_back("");
    const std::string& k = f[0];
    Table* t = tables.empty() ? nullptr : &tables.back();
    if (k == "columnspace") cs = f;
    if (k == "location") locs.push_back(f);
    if (k == "file") files[f[1]] = f;
    if (k == "table") tables.push_back({f, {}, {}, {}, 0});
    if (k == "column") t->cols.push_back(columns[f[1]] = f);
    if (k == "storage") t->groups.push_back({f, {}});
    if (k == "null") nullability[f[2]] = 1, nullability[f[3]] = 2;
    if (k == "blocks") (in_index ? t->idx.back().st : t->groups.back()).blocks = f;
    if (k == "index") t->idx.push_back({f, {}, {}}), keys[f[3]] = {f[1], tables.size() - 1};
    if (k == "istorage") t->idx.back().st.head = f;
    if (k == "minmax" || k == "jis" || k == "mmcol" || k == "mmvar" || k == "jiscol" ||
        k == "mmover")
      t->idx.back().data.push_back(f);
    if (k == "incoming") t->slots = std::stoll(f[1]);
    default_used |= (k == "storage" || k == "istorage") && f[3] == "default";
    in_index = k == "istorage" || (in_index && k != "storage" && k != "table");
  }

  // Tables by descending count of foreign-key paths ending in them, ties in catalog order.
  std::vector<std::pair<size_t, size_t>> refs;  // referencing table, referenced table
  for (size_t r = 0; r < tables.size(); r++)
    for (const Index& ix : tables[r].idx)
      if (ix.head[2] == "4") refs.push_back({r, keys.at(ix.head[4]).second});
  std::vector<int64_t> refcnt(tables.size(), -1);
  std::vector<std::set<size_t>> ancestors(tables.size());
  std::function<int64_t(size_t)> count = [&](size_t t) {
    if (refcnt[t] >= 0) return refcnt[t];
    int64_t n = 0;
    for (auto [r, to] : refs)
      if (to == t) {
        n += count(r) + 1;
        ancestors[t].insert(r);
        ancestors[t].insert(ancestors[r].begin(), ancestors[r].end());
      }
    return refcnt[t] = n;
  };
  std::vector<size_t> order(tables.size());
  for (size_t p = 0; p < order.size(); p++) order[p] = p, count(p);
  std::stable_sort(order.begin(), order.end(),
                   [&](size_t a, size_t b) { return refcnt[a] > refcnt[b]; });

  Expected25 e;
  e.tables = static_cast<int64_t>(tables.size());
  auto n = [](const std::string& s) { return std::stoll(s); };
  auto feature = [&](bool on, const std::string& name) {
    if (on) e.features.insert(name);
  };
  std::vector<std::string>& out = e.actions;
  std::map<std::string, int64_t> location_id;
  auto file_nr = [&](const std::string& f) { return f == "default" ? 0 : n(f); };
  auto ptype_of = [&](const std::string& col) { return ptype_by_name(columns.at(col)[3].c_str()); };
  out.push_back(act("tr_new", 0));
  out.push_back(act("cs_new", 0, n(cs.at(1))));
  for (const Fields& l : locs) {
    // The default location of a single-location database is the first that the catalog numbers.
    const int64_t id = location_id[l[2]] = l[1] == "auto" ? 2 : n(l[1]);
    out.push_back(act("cat_location_new", id, l[2], n(l[3])));
    if (l[1] == "auto" || with_map) e.location_map += l[2] + "," + l[4] + "\n";
  }
  // The default file outlives the replay only where a group holds it.
  if (default_used)
    out.push_back(act("file_new", 0, location_id.at(files["default"][2]), files["default"][3]));

  auto paxgroup = [&](const Group& g, const std::string& storage, int64_t object) {
    const Fields& h = g.head;
    out.push_back(act("scol_new", n(h[2]), n(cs.at(2))));
    std::string descrs;
    for (size_t c = 4; c < h.size(); c++) {
      const Fields& col = columns.at(h[c]);
      static const std::map<std::string, int> kImpl = {
          {"ccolumn", 0}, {"fcolumn", 1}, {"vcolumn_8", 2}, {"vcolumn_16", 3}};
      descrs += act("", nullability[h[c]], ptype_of(h[c])->id, col[8], kImpl.at(col[4]));
    }
    out.push_back(act("paxgroup_new", n(h[1]), n(storage), n(h[2]), object, h.size() - 4) + descrs);
    if (h[3] != "default")
      out.push_back(act("file_new", n(h[3]), location_id.at(files.at(h[3])[2]), files.at(h[3])[3]));
    out.push_back(act("paxgroup_file_new", n(h[1]), file_nr(h[3]), object));
  };
  auto blocks = [&](const Group& g) {
    for (size_t b = 2; b < g.blocks.size(); b++) {
      long long nr, used, tuples;
      std::sscanf(g.blocks[b].c_str(), "%lld:%lld:%lld", &nr, &used, &tuples);
      out.push_back(act("blk_new", n(g.head[2]), file_nr(g.head[3]), nr, used, tuples));
    }
  };
  for (size_t p : order) {
    const Table& t = tables[p];
    const int64_t tid = n(t.head[1]);
    feature(refcnt[p] >= 2, "foreign-key chain");
    feature(refcnt[p] > static_cast<int64_t>(ancestors[p].size()), "foreign-key diamond");
    out.push_back(act("cat_table_new", tid, t.head[2], 1));
    for (const Fields& c : t.cols) {
      const int32_t code = static_cast<int32_t>(ltype_from_name(
          c[5].c_str(), static_cast<int32_t>(n(c[6])), static_cast<int16_t>(n(c[7]))));
      out.push_back(
          act("cat_column_new", n(c[1]), c[2], nullability[c[1]], ptype_of(c[1])->id, code, tid));
      feature(nullability[c[1]] != 0, "null group");
    }
    out.push_back(act("storage_new", n(t.head[3]), tid));
    for (const Group& g : t.groups) paxgroup(g, t.head[3], tid);
    for (const Group& g : t.groups) blocks(g);
    for (const Index& ix : t.idx) {
      const Fields& h = ix.head;
      const int code = static_cast<int>(n(h[2]));
      feature(true, "index type " + h[2]);
      if (code != 1 && code != 6) {
        static const std::map<int, int> kKeyType = {{3, 0}, {2, 1}, {4, 2}, {5, 3}};
        std::string s = act("cat_key_new", n(h[1]), h[3], kKeyType.at(code), tid,
                            code == 4 ? n(keys.at(h[4]).first) : -1, h.size() - 6);
        for (size_t c = 6; c < h.size(); c++) s += act("", n(h[c]));
        out.push_back(s);
        continue;
      }
      out.push_back(act("cat_index_new", n(h[1]), h[3], code == 6 ? 1 : 0, tid,
                        code == 6 ? n(keys.at(h[4]).first) : -1));
      if (!ix.st.head.empty()) {
        feature(true, "index storage");
        out.push_back(act("storage_new", n(h[5]), n(h[1])));
        paxgroup(ix.st, h[5], n(h[1]));
        blocks(ix.st);
      }
      std::string overflow;
      std::map<int64_t, Fields> bounds;  // a column's overflow bounds, kept from its records
      for (const Fields& d : ix.data)
        if (d[0] == "mmover") bounds[n(d[1])] = d;
      for (const Fields& d : ix.data) {
        if (d[0] == "mmover") continue;
        if (d[0] == "minmax") {
          out.push_back(act("minmax_size", n(h[1]), n(d[1]), n(d[2]), n(d[3])));
          overflow = d[4];
        } else if (d[0] == "mmcol") {
          const int64_t width = ptype_width(ptype_of(h[6 + n(d[1])]));
          out.push_back(act("minmax_data", n(h[1]), n(d[1]), (d[2].size() + d[3].size()) / 2,
                            "x" + d[2] + d[3], overflow) +
                        act("", width,
                            overflow != "0" && bounds.count(n(d[1]))
                                ? "x" + bounds[n(d[1])][2]
                                : "x" + Fields::value_type(4 * width, '0')));
          feature(overflow != "0", "minmax overflow");
        } else if (d[0] == "mmvar") {
          // Pairs of lengths, then each group's minimum and maximum.
          Fields lists[2];
          std::string blob;
          for (int side = 0; side < 2; side++)
            for (std::istringstream vs(d[2 + side]); std::getline(vs, line, ',');)
              lists[side].push_back(line.substr(1));
          for (size_t g = 0; g < lists[0].size(); g++)
            for (const Fields& side : lists) {
              const int64_t len = static_cast<int64_t>(side[g].size() / 2);
              blob += hex(&len, 8).substr(1);
            }
          for (size_t g = 0; g < lists[0].size(); g++) blob += lists[0][g] + lists[1][g];
          std::string over = " 0 x";
          if (overflow != "0") {  // lengths, then the two texts
            const Fields& b = bounds.count(n(d[1])) ? bounds[n(d[1])] : Fields{"", "", "x", "x"};
            const int64_t lo = static_cast<int64_t>(b[2].size() / 2),
                          hi = static_cast<int64_t>(b[3].size() / 2);
            over = act("", 16 + lo + hi,
                       hex(&lo, 8) + hex(&hi, 8).substr(1) + b[2].substr(1) + b[3].substr(1));
          }
          out.push_back(
              act("minmax_vardata", n(h[1]), n(d[1]), blob.size() / 2, "x" + blob, overflow) +
              over);
          feature(true, "minmax of strings");
        } else if (d[0] == "jis") {
          out.push_back(act("jis_size", n(h[1]), n(d[1]), n(d[2]), n(d[3])));
        } else {
          std::string s = act("jis_data", n(h[1]), n(d[1]), d.size() - 2);
          for (size_t w = 2; w < d.size(); w++) s += act("", n(d[w]));
          out.push_back(s);
        }
      }
    }
  }
  for (size_t p : order) {
    // The payload is the tree's own business; here only which tables have one, in which order.
    if (!write_pdts.count(tables[p].head[1])) continue;
    out.push_back(act("pdt_new", n(tables[p].head[1])));
    feature(tables[p].slots > 0, "write-PDT with join index slots");
  }
  out.push_back(act("tr_end", 0));
  return e;
}

}  // namespace j480test

#endif  // J480_TESTS_TOOLS_WAL_CONVERTER_EXPECTED25_H
