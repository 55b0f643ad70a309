// The replay of a 2.0 log into the legacy model: generated databases of many shapes against the
// model their generator wrote down, every failure result and message of the replay frame and of
// the catalog and storage handlers, and the assertions on broken references.
#include "tools/wal_converter/bc20_replay.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bm/columnspace.h"
#include "bm/iob.h"
#include "bm/iobm.h"
#include "bm/scolumn.h"
#include "kernel/kernel.h"
#include "kernel/ptype.h"
#include "log_bytes.h"
#include "support/test_support.h"
#include "tools/wal_converter/bc20_catalog.h"
#include "tools/wal_converter/bc20_colgroup.h"
#include "tools/wal_converter/bc20_column.h"
#include "tools/wal_converter/bc20_index.h"
#include "tools/wal_converter/bc20_iobm.h"
#include "tools/wal_converter/bc20_logger.h"
#include "tools/wal_converter/bc20_table.h"
#include "utils/cvconfig.h"
#include "utils/mem.h"
#include "utils/posix.h"
#include "utils/stream.h"

namespace {

using j480test::Esc;
using j480test::LogBytes;
using j480test::split_lines;

// Records of a hand-made log, spelled from the record table.
struct Log {
  LogBytes b;
  Log() { b.head(); }
  explicit Log(int64_t version) { b.head(version); }
  Log& tr_new(int64_t t) { return put(b.i32(0).lng(t)); }
  Log& tr_end(int64_t t) { return put(b.i32(1).lng(t)); }
  Log& cs_new(bool default_file, int32_t id, int32_t blksz = 1 << 19) {
    return put(b.i32(default_file ? 2 : 35).i32(id).str("cs").i32(blksz).i32(0).i32(0).lng(0));
  }
  Log& col_new(int32_t colid) { return put(b.i32(4).i32(colid).i32(0).i32(1)); }
  Log& blk_new(int32_t colid, int64_t file, int64_t nr) {
    return put(b.i32(31).i32(colid).lng(file).lng(nr).i32(100).i32(10));
  }
  Log& blk_del(int32_t colid, int64_t file, int64_t nr) {
    return put(b.i32(32).i32(colid).lng(file).lng(nr));
  }
  Log& file_new(int64_t nr, int64_t loc, const std::string& name) {
    return put(b.i32(33).lng(nr).lng(loc).str(name));
  }
  Log& table_new(int64_t id, const std::string& name, int64_t cg) {
    return put(b.i32(13).lng(id).str(name).lng(cg));
  }
  Log& table_del(int64_t id) { return put(b.i32(14).lng(id)); }
  Log& column_new(int64_t id, const std::string& name, const std::string& adt = "sint") {
    return put(b.i32(15).lng(id).str(adt).i32(0).str("int").i32(0).i32(0).str("").str(name).i32(0));
  }
  Log& colgroup_new(int64_t cg, int64_t store, int64_t parent, int32_t type,
                    const std::vector<int64_t>& ids) {
    b.i32(38).lng(cg).lng(store).lng(parent).i32(type).i32(static_cast<int32_t>(ids.size()));
    for (int64_t id : ids) b.raw_lng(id);
    return *this;
  }
  Log& colgroup_del(int64_t cg) { return put(b.i32(18).lng(cg)); }
  Log& colgroup_file_new(int64_t cg, int64_t file) { return put(b.i32(36).lng(cg).lng(file)); }
  Log& index_new(int64_t id, const std::string& name, int32_t type, int64_t table, int64_t cg,
                 int64_t scg = 0, int64_t key = 0) {
    return put(b.i32(19).lng(id).str(name).i32(type).lng(table).lng(cg).lng(scg).lng(key));
  }
  Log& index_del(int64_t id) { return put(b.i32(20).lng(id)); }
  Log& loc_new(int64_t id, const std::string& name, int32_t usage) {
    return put(b.i32(28).lng(id).str(name).i32(usage));
  }
  Log& loc_del(int64_t id) { return put(b.i32(29).lng(id)); }
  Log& loc_update(int64_t id, int32_t usage) { return put(b.i32(30).lng(id).i32(usage)); }
  // A table `id` with one column `id`+1 in a storage group `id`+3 on storage column `scol`
  // (root group `id`+2), in the default file, as one transaction.
  Log& table(int64_t id, const std::string& name, int32_t scol, int64_t trid) {
    tr_new(trid).col_new(scol).column_new(id + 1, "c" + std::to_string(id + 1));
    colgroup_new(id + 2, 0, 0, 0, {id + 1}).table_new(id, name, id + 2);
    b.i32(17).lng(id + 3).lng(scol).lng(id + 2).i32(1).lng(0).i32(1).raw_lng(id + 1);
    return tr_end(trid);
  }
  Log& put(LogBytes&) { return *this; }
  const std::string& bytes() const { return b.bytes(); }
};

std::string hex(const void* data, size_t n) {
  static const char kDigits[] = "0123456789abcdef";
  std::string out;
  for (size_t i = 0; i < n; i++) {
    uint8_t v = static_cast<const uint8_t*>(data)[i];
    out += kDigits[v >> 4];
    out += kDigits[v & 15];
  }
  return out;
}

std::string text(const char* s) { return s == nullptr || s[0] == '\0' ? "~" : s; }

// The replayed model in the text form of the generator's model file (bc20_gen.h).
class ModelWriter {
 public:
  ModelWriter(struct bc20_catalog* cat, iobm* bm, bool single)
      : cat_(cat), cs_(iobm_get_columnspace(bm)), single_(single) {}

  std::string write() {
    std::vector<location*> locs;
    for (int64_t k = 0; k < cat_->n_locations; k++)
      if (cat_->locations[k] != nullptr) locs.push_back(cat_->locations[k]);
    std::sort(locs.begin(), locs.end(), [](location* a, location* b) { return a->id < b->id; });
    for (location* l : locs)
      out_ += "location " + (single_ ? std::string("auto") : std::to_string(l->id)) + " " +
              l->name + " " + std::to_string(l->usage) + " " + text(l->path) + "\n";
    MemContext* mem = mem_context_create(nullptr, "model_writer");
    int64_t n = 0;
    cs_file** files = cs_ != nullptr ? columnspace_list_files(cs_, mem, &n) : nullptr;
    for (int64_t k = 0; k < n; k++)
      out_ += "file " + file_of(files[k]->file_nr) + " " +
              text(bc20_catalog_location_name(cat_, files[k]->location_id)) + " " +
              columnspace_file_name(files[k]) + "\n";
    mem_context_remove(mem);
    for (uint32_t k = 0; k < cat_->n_tables; k++)
      if (cat_->tables[k] != nullptr) table(cat_->tables[k], cat_->table_names[k]);
    return out_;
  }

 private:
  std::string file_of(int64_t nr) {
    return nr == columnspace_get_default_file(cs_) ? "default" : std::to_string(nr);
  }

  void ids(const bc20_colgroup* g) {
    for (int32_t k = 0; k < g->n_columns; k++) out_ += " " + std::to_string(g->columns[k]->id);
  }

  void storage(const char* kind, const bc20_colgroup* g) {
    auto* scg = static_cast<const bc20_scg*>(g->impl);
    out_ += std::string(kind) + " " + std::to_string(g->id) + " " +
            std::to_string(scg->scol != nullptr ? scg->scol->id : -1) + " " +
            file_of(scg->file_nr);
    ids(g);
    out_ += "\n";
    for (int32_t k = 0; k < g->n_children; k++) {
      const bc20_colgroup* ng = g->children[k];
      out_ += (ng->type == bc20_colgroup_null ? "null " : "child? ") + std::to_string(ng->id);
      ids(ng);
      out_ += "\n";
    }
    const scolumn* s = scg->scol;
    out_ += "blocks " + std::to_string(s != nullptr ? s->nblocks : 0);
    for (int64_t k = 0; s != nullptr && k < s->nblocks; k++) {
      iob* b = s->blocks[k];
      out_ += " " + std::to_string(b->block_nr) + ":" + std::to_string(b->bytes_used) + ":" +
              std::to_string(b->num_tuples);
      if (iob_get_file_nr(b) != scg->file_nr) out_ += "(in file " + std::to_string(iob_get_file_nr(b)) + ")";
    }
    out_ += "\n";
  }

  void minmax(const bc20_index* i) {
    auto* mm = static_cast<const bc20_minmax*>(i->impl);
    out_ += "minmax " + std::to_string(mm->maxgroups) + " " + std::to_string(mm->numtuples) +
            " " + std::to_string(mm->groupsize) + " " + std::to_string(mm->overflow) + "\n";
    int64_t groups = mm->groupsize > 0 ? (mm->numtuples + mm->groupsize - 1) / mm->groupsize : 0;
    for (int32_t c = 0; c < mm->ncols; c++) {
      const bc20_column* col = i->colgroup->columns[c];
      if (col->type->fixed) {
        size_t half = static_cast<size_t>(groups * ptype_width(col->type));
        out_ += "mmcol " + std::to_string(c) + " " + hex(mm->mins[c], half) + " " +
                hex(mm->maxs[c], half) + "\n";
        continue;
      }
      std::string lists[2];
      for (int half = 0; half < 2; half++)
        for (int64_t g = 0; g < groups; g++) {
          const char* s = static_cast<char**>(half == 0 ? mm->mins[c] : mm->maxs[c])[g];
          lists[half] += (g == 0 ? "x" : ",x") + hex(s, strlen(s));
        }
      out_ += "mmvar " + std::to_string(c) + " " + (groups == 0 ? "~" : lists[0]) + " " +
              (groups == 0 ? "~" : lists[1]) + "\n";
    }
  }

  void jis(const bc20_index* i) {
    auto* j = static_cast<const bc20_jis*>(i->impl);
    out_ += "jis " + std::to_string(j->maxgroups) + " " + std::to_string(j->numgroups) + " " +
            std::to_string(j->groupsize) + "\n";
    for (int a = 0; a < 3; a++) {
      out_ += "jiscol " + std::to_string(a);
      for (int64_t k = 0; k <= j->numgroups; k++)
        out_ += " " + (k < j->cap ? std::to_string(j->columns[a][k]) : std::string("?"));
      out_ += "\n";
    }
  }

  void table(bc20_table* t, const char* name) {
    const bc20_colgroup* root = t->colgroup;
    out_ += "table " + std::to_string(t->table_id) + " " + name + " " + std::to_string(root->id) +
            "\n";
    for (int32_t k = 0; k < root->n_columns; k++) {
      const bc20_column* c = root->columns[k];
      out_ += "column " + std::to_string(c->id) + " " + text(root->column_names[k]) + " " +
              c->type->name + " " + c->name + " " + text(c->sqltype) + " " +
              std::to_string(c->digits) + " " + std::to_string(c->scale) + " " +
              text(c->compression) + " " + std::to_string(c->flags & 1u) + "\n";
    }
    for (int32_t k = 0; k < root->n_children; k++) storage("storage", root->children[k]);
    std::vector<int32_t> order(static_cast<size_t>(t->n_indexes));
    for (int32_t k = 0; k < t->n_indexes; k++) order[static_cast<size_t>(k)] = k;
    std::sort(order.begin(), order.end(),
              [t](int32_t a, int32_t b) { return t->indexes[a]->id < t->indexes[b]->id; });
    for (int32_t k : order) {
      const bc20_index* i = t->indexes[k];
      out_ += "index " + std::to_string(i->id) + " " + std::to_string(i->itype) + " " +
              t->index_names[k] + " " + text(i->key_name) + " " + std::to_string(i->colgroup->id);
      ids(i->colgroup);
      out_ += "\n";
      if (i->scolgroup != nullptr) storage("istorage", i->scolgroup);
      if (i->itype == bc20_idx_minmax) minmax(i);
      if (i->itype == bc20_idx_join) jis(i);
    }
    if (t->n_incoming_slots > 0) {
      out_ += "incoming " + std::to_string(t->n_incoming_slots);
      for (int32_t k = 0; k < t->n_incoming_slots; k++)
        out_ += " " + text(t->incoming_joinindexes[k]);
      out_ += "\n";
    }
  }

  struct bc20_catalog* cat_;
  columnspace* cs_;
  bool single_;
  std::string out_;
};

// One database directory and one replay of it, in this process, as the driver runs it.
class Bc20Replay : public testing::Test {
 protected:
  void SetUp() override {
    cbm_ = farm_.file("db/CBM");
    j480test::make_dirs(cbm_);
    for (const char* name : {"/LOG", "/location_map"}) std::remove((cbm_ + name).c_str());
    config_ = cvconfig_create();
    layer_ = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config_));
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm_.path().c_str());
    cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBNAME, "db");
    kernel_init(layer_);
  }
  void TearDown() override {
    bc20_catalog_destroy(bc20_catalog);
    bc20_catalog = nullptr;
    bc20_iobm_release_replay(bc20_iobm);
    iobm_destroy(bc20_iobm);
    bc20_iobm = nullptr;
    bc20_replay_reset_registry();
    bc20_set_config(nullptr);
    cvconfig_destroy(config_);
    EXPECT_EQ(iob_live_count(), 0);
  }

  // The driver's steps up to iobm_init; the lines it logged.
  std::vector<std::string> replay(const std::string& log, const char* map = nullptr) {
    j480test::write_file(cbm_ + "/LOG", log);
    if (map != nullptr) j480test::write_file(cbm_ + "/location_map", map);
    return run();
  }
  std::vector<std::string> run() {
    return split_lines(j480test::err_of([&] { run_quietly(); }));
  }
  void run_quietly() {
    bc20_set_config(layer_);
    bc20_iobm = iobm_create(layer_);
    bc20_register_types();
    bc20_catalog = bc20_catalog_create();
    rc_ = iobm_init(bc20_iobm);
  }
  // The lines that aren't INFO.
  static std::vector<std::string> problems(const std::vector<std::string>& lines) {
    std::vector<std::string> out;
    for (const std::string& l : lines)
      if (l.rfind("#", 0) != 0 || l.rfind("# WARN:", 0) == 0) out.push_back(l);
    return out;
  }
  std::string model(bool single) {
    return ModelWriter(bc20_catalog, bc20_iobm, single).write();
  }

  j480test::LogCapture log_;
  j480test::TempDir farm_;
  std::string cbm_;
  cvconfig* config_ = nullptr;
  cvconfig_layer* layer_ = nullptr;
  int rc_ = -1;
};

// ---- generated databases against their model ----

#ifdef J480_GEN_BIN
struct Shape {
  const char* name;
  std::vector<std::string> args;
};

TEST_F(Bc20Replay, GeneratedDatabasesReplayIntoTheModelTheirGeneratorWroteDown) {
  const Shape shapes[] = {
      {"single", {"--tables", "6"}},
      {"single-wide", {"--tables", "12", "--columns", "10", "--transactions", "120"}},
      {"multi", {"--locations", "3", "--tables", "8", "--transactions", "80"}},
      {"multi-reuse", {"--locations", "2", "--tables", "10", "--transactions", "150", "--reuse-scols"}},
      {"single-reuse-pdts", {"--tables", "9", "--transactions", "120", "--reuse-scols", "--pdts"}},
      {"big-endian", {"--locations", "4", "--tables", "5", "--big-endian", "--blocks", "40"}},
      {"one-table", {"--tables", "1", "--transactions", "30", "--columns", "2"}},
  };
  int checked = 0;
  for (const Shape& shape : shapes) {
    for (uint64_t seed = 1; seed <= 6; seed++) {
      SCOPED_TRACE(std::string(shape.name) + " seed " + std::to_string(seed));
      TearDown();
      SetUp();
      std::vector<std::string> args = {"--out", farm_.file("db"), "--seed", std::to_string(seed),
                                       "--model", farm_.file("model")};
      args.insert(args.end(), shape.args.begin(), shape.args.end());
      j480test::RunResult g = j480test::run_binary(J480_GEN_BIN, args);
      ASSERT_EQ(g.status, 0) << g.err;
      std::vector<std::string> lines = run();
      ASSERT_EQ(rc_, 1) << j480test::read_file(cbm_ + "/LOG").size();
      // Only the write-PDTs, which this build does not rebuild, may say anything.
      for (const std::string& l : problems(lines))
        EXPECT_NE(l.find("PDT"), std::string::npos) << l;
      bool single = std::find(shape.args.begin(), shape.args.end(), "--locations") ==
                    shape.args.end();
      ASSERT_EQ(model(single), j480test::read_file(farm_.file("model")));
      checked++;
    }
  }
  EXPECT_EQ(checked, 42);
}
#endif

// ---- the replay frame ----

TEST_F(Bc20Replay, LogsThatReplayCleanlyOrNotAtAll) {
  struct Case {
    const char* name;
    std::string log;
    bool write;  // false: no LOG
    std::vector<std::string> lines;
  };
  const std::string log_path = cbm_ + "/LOG";
  const Case cases[] = {
      {"missing", "", false, {}},
      {"one byte", "\xD2", true, {}},
      {"only the mark", std::string("\xD2\x04", 2), true, {"#LOGGER:Reading old catalog..."}},
      {"mark and version", Log().bytes(), true,
       {"#LOGGER:Reading old catalog...", "#LOGGER:Parsing 100% done."}},
      {"stray records after the last tr_end vanish",
       Log().tr_new(1).tr_end(1).loc_del(99).bytes(), true,
       {"#LOGGER:Reading old catalog...", "#LOGGER:Parsing 21% done.",
        "#LOGGER:Parsing 73% done."}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    TearDown();
    SetUp();
    if (k.write) j480test::write_file(log_path, k.log);
    EXPECT_EQ(run(), k.lines);
    EXPECT_EQ(rc_, 1);
  }
}

TEST_F(Bc20Replay, FailuresOfTheFrameAndWhatTheyLog) {
  const std::string log = cbm_ + "/LOG";
  const std::string map = cbm_ + "/location_map";
  const std::string stale = "ERROR:CBM:iobm_init: to-be-converted WAL '" + log +
                            "' not in consistent state.";
  struct Case {
    const char* name;
    std::string log;
    const char* map;
    std::vector<std::string> problems;
  };
  const Case cases[] = {
      {"a 2.5 log", Log(0x435257414C000001LL).tr_new(1).loc_new(1, "a", 1).tr_end(1).bytes(),
       nullptr,
       {"ERROR:LOGGER:Incompatible database version detected, database already converted."}},
      {"another magic", Log(0x1234).bytes(), nullptr,
       {"ERROR:LOGGER:Incompatible database version detected, database already converted."}},
      {"a handler fails", Log().tr_new(1).loc_del(9).tr_end(1).bytes(), nullptr,
       {"ERROR:CBM:failed to replay drop location: no such location_id 9"}},
      {"torn at a record boundary", Log().tr_new(1).tr_end(1).tr_new(2).loc_new(1, "a", 1).bytes(),
       nullptr,
       {"ERROR:LOGGER:reading transaction finished while still in open transaction",
        "# WARN:LOGGER:bc20_bm_logger_replay: failed reading, last known good is 34", stale}},
      {"torn inside a record", Log().tr_new(1).bytes() + std::string("\x1c\0\0\0\x01", 5), nullptr,
       {"ERROR:LOGGER:incorrect cat_location_new",
        "# WARN:LOGGER:bc20_bm_logger_replay: failed reading, last known good is 10", stale}},
      {"an unknown tag", Log().tr_new(1).tr_end(1).bytes() + std::string("\x27\0\0\0", 4),
       nullptr,
       {"ERROR:LOGGER:Unhandled log value 39",
        "# WARN:LOGGER:bc20_bm_logger_replay: failed reading, last known good is 34", stale}},
      {"a malformed map", Log().tr_new(1).loc_new(1, "a", 1).tr_end(1).bytes(), "no comma\n",
       {"ERROR:LOGGER:Error replaying map file '" + map + "'"}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    TearDown();
    SetUp();
    std::vector<std::string> p = problems(replay(k.log, k.map));
    EXPECT_EQ(rc_, 0);
    // The map reader's own line stands first; its words are that module's.
    if (k.map != nullptr) p.erase(p.begin());
    EXPECT_EQ(p, k.problems);
  }
}

TEST_F(Bc20Replay, AMapThatCantBeOpenedFailsAndAMissingOneIsNoMap) {
  replay(Log().tr_new(1).loc_new(4, "loc", 1).tr_end(1).bytes());
  EXPECT_EQ(rc_, 1);
  EXPECT_EQ(bc20_catalog_location_path(bc20_catalog, 4), nullptr);
  // No log, and a map whose open fails: the fault moves over the calls of iobm_init until it
  // hits the map's open.
  const std::string map = cbm_ + "/location_map";
  const std::vector<std::string> expected = {
      "ERROR:LOGGER:Could not open location map file " + map + ".",
      "ERROR:LOGGER:Error replaying map file '" + map + "'"};
  bool hit = false;
  for (int k = 1; k <= 8 && !hit; k++) {
    TearDown();
    SetUp();
    j480test::write_file(map, "loc,/there\n");
    std::string err = j480test::err_of([&] {
      bc20_set_config(layer_);
      bc20_iobm = iobm_create(layer_);
      bc20_register_types();
      bc20_catalog = bc20_catalog_create();
      px_fault_arm(k, EACCES);
      rc_ = iobm_init(bc20_iobm);
      px_fault_disarm();
    });
    if (err.find("Could not open") == std::string::npos) continue;
    hit = true;
    EXPECT_EQ(rc_, 0);
    EXPECT_EQ(problems(split_lines(err)), expected);
  }
  EXPECT_TRUE(hit);
}

TEST_F(Bc20Replay, ProgressLinesEveryTenPerCentOfTheFile) {
  // Four transactions of 24 bytes behind the 10-byte head: they start at 9, 32, 54 and 77 per
  // cent of the 106 bytes; the end of the file, where the last read starts, is 100.
  Log log;
  for (int t = 1; t <= 4; t++) log.tr_new(t).tr_end(t);
  std::vector<std::string> lines = replay(log.bytes());
  EXPECT_EQ(rc_, 1);
  EXPECT_EQ(lines, (std::vector<std::string>{"#LOGGER:Reading old catalog...",
                                             "#LOGGER:Parsing 32% done.", "#LOGGER:Parsing 54% done.",
                                             "#LOGGER:Parsing 77% done.",
                                             "#LOGGER:Parsing 100% done."}));
}

// A failing handler doesn't keep the later handlers from the same action, but the next action
// of the list is never offered.
TEST_F(Bc20Replay, AFailingHandlerStopsTheListAfterEveryHandlerSawTheAction) {
  static std::vector<std::string> seen;
  seen.clear();
  bc20_register_types();
  bc20_bm_logger_add_handler(
      [](void*, bc20_action* a) {
        seen.push_back("first " + std::to_string(a->type));
        return a->type == 29 ? 0 : 1;
      },
      nullptr);
  bc20_bm_logger_add_handler(
      [](void*, bc20_action* a) {
        seen.push_back("second " + std::to_string(a->type));
        return 1;
      },
      nullptr);
  j480test::write_file(cbm_ + "/LOG", Log().tr_new(1).loc_del(3).loc_del(4).tr_end(1).bytes());
  stream* s = open_binary_read_stream((cbm_ + "/LOG").c_str());
  int32_t fatal = 0;
  bc20_catalog = bc20_catalog_create();
  j480test::err_of([&] { EXPECT_EQ(bc20_bm_logger_replay(s, &fatal), 10); });
  stream_close_destroy(s);
  EXPECT_EQ(fatal, 1);
  EXPECT_EQ(seen, (std::vector<std::string>{"first 0", "second 0", "first 29", "second 29"}));
}

// ---- the catalog and storage handlers ----

TEST_F(Bc20Replay, HandlerFailuresAndTheirMessages) {
  auto with_cs = [](bool default_file) { return Log().tr_new(1).cs_new(default_file, 0).tr_end(1); };
  struct Case {
    const char* name;
    std::string log;
    std::vector<std::string> problems;
  };
  const Case cases[] = {
      {"a second columnspace", Log().tr_new(1).cs_new(false, 1, 4096).tr_end(1).bytes(),
       {"ERROR:CBM:Encountered non-initial columnspace. Columnspaces are deprecated. Aborting."}},
      {"a storage column twice", with_cs(false).tr_new(2).col_new(5).col_new(5).tr_end(2).bytes(),
       {"ERROR:CBM:col_new: unable to create scolumn (colid=5)"}},
      {"a storage column id 0", with_cs(false).tr_new(2).col_new(0).tr_end(2).bytes(),
       {"ERROR:CBM:iobm_register_scolumn: no id for a storage column during replay",
        "ERROR:CBM:col_new: unable to create scolumn (colid=0)"}},
      {"a block past the file's end where files may not grow",
       with_cs(true).tr_new(2).col_new(5).blk_new(5, -1, 200).tr_end(2).bytes(),
       {"ERROR:CBM:columnspace_mark_used: could not grow columnspace to desired size 200 (is now "
        "128).",
        "ERROR:CBM:blk_new: unable to create block (file_nr=0 block_nr=200, scolid=5)"}},
      {"a block of an unknown storage column", with_cs(true).tr_new(2).blk_new(6, -1, 3).tr_end(2).bytes(),
       {"ERROR:CBM:blk_new: bad scolumn id: 6"}},
      {"a delete in an unknown storage column",
       with_cs(true).tr_new(2).col_new(5).blk_new(5, -1, 3).blk_del(6, -1, 3).tr_end(2).bytes(),
       {"ERROR:CBM:blk_del: bad scolumn id: 6"}},
      {"a delete of a free block",
       with_cs(true).tr_new(2).col_new(5).blk_new(5, 0, 3).blk_del(5, 0, 4).tr_end(2).bytes(),
       {"ERROR:CBM:blk_del: unable to find block (file_nr=0 block_nr=4)"}},
      {"a delete in an unknown file",
       with_cs(true).tr_new(2).col_new(5).blk_del(5, 9, 4).tr_end(2).bytes(),
       {"ERROR:CBM:blk_del: unable to find block (file_nr=9 block_nr=4)"}},
      {"a drop of an unknown location", Log().tr_new(1).loc_new(2, "a", 1).loc_del(3).tr_end(1).bytes(),
       {"ERROR:CBM:failed to replay drop location: no such location_id 3"}},
      {"an update of an unknown location", Log().tr_new(1).loc_update(3, 2).tr_end(1).bytes(), {}},
      {"a location twice", Log().tr_new(1).loc_new(2, "a", 1).loc_new(2, "b", 1).tr_end(1).bytes(),
       {"ERROR:CATALOG:location already exists: b"}},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    TearDown();
    SetUp();
    cvconfig_set_bool(layer_, CVGROUP_CBM, CVPROP_COLUMNSPACE_GROW, 0);
    EXPECT_EQ(problems(replay(k.log)), k.problems);
    EXPECT_EQ(rc_, 0);
  }
}

TEST_F(Bc20Replay, AColumnspaceThatCantBeMadeSaysSoAtInfoThenError) {
  cvconfig_set_str(layer_, CVGROUP_SERVER, CVPROP_DBLOCATION, "");  // no default location
  std::vector<std::string> lines = replay(Log().tr_new(1).cs_new(true, 0, 4096).tr_end(1).bytes());
  EXPECT_EQ(rc_, 0);
  const std::vector<std::string> tail = {
      "#CBM:Detected single location database. Creating default location and default file.",
      "#CBM:columnspace_create: nrblks 128", "#CBM:cs_new: trying to create columnspace with blksz=4096",
      "ERROR:CBM:cs_new: unable to create columnspace"};
  ASSERT_GE(lines.size(), tail.size());
  EXPECT_EQ(std::vector<std::string>(lines.end() - 4, lines.end()), tail);
  EXPECT_EQ(iobm_get_columnspace(bc20_iobm), nullptr);
}

// Broken references inside a log end the process by assertion.
TEST_F(Bc20Replay, BrokenReferencesAreAssertions) {
  Log cs;
  cs.tr_new(1).cs_new(true, 0).tr_end(1);
  struct Case {
    const char* name;
    std::string log;
    const char* assertion;
  };
  const Case cases[] = {
      {"a table on an unknown group", Log().tr_new(1).table_new(1, "t", 9).tr_end(1).bytes(), "cg"},
      {"a group with an unknown column", Log().tr_new(1).colgroup_new(2, 0, 0, 0, {7}).tr_end(1).bytes(), "c"},
      {"a drop of an unknown table", Log().tr_new(1).table_del(5).tr_end(1).bytes(), "t"},
      {"an index on an unknown group", Log().tr_new(1).index_new(5, "i", 3, 1, 9).tr_end(1).bytes(),
       "icg && j"},
      {"an index of an unknown table",
       Log(cs).table(10, "t", 5, 2).tr_new(3).colgroup_new(20, 0, 0, 0, {11}).index_new(21, "i", 3, 99, 20).tr_end(3).bytes(),
       "table"},
      {"a join index without a foreign key",
       Log(cs).table(10, "t", 5, 2).tr_new(3).colgroup_new(20, 0, 0, 0, {11}).index_new(21, "j", 6, 10, 20, 0, 0).tr_end(3).bytes(),
       "reftable"},
      {"a drop of an unknown index", Log().tr_new(1).index_del(5).tr_end(1).bytes(), "i && t"},
      {"a file for an unknown group", Log(cs).tr_new(2).colgroup_file_new(4, 0).tr_end(2).bytes(), "cg"},
      {"a file of a group of an earlier transaction",
       Log(cs).table(10, "t", 5, 2).tr_new(3).colgroup_file_new(13, 0).tr_end(3).bytes(), "cg"},
      {"a drop of a group no table has",
       Log(cs).table(10, "t", 5, 2).tr_new(3).colgroup_del(99).tr_end(3).bytes(), "cg && cg->logical"},
      {"a second columnspace", Log(cs).tr_new(2).cs_new(false, 0).tr_end(2).bytes(),
       "!iobm_get_columnspace(bm)"},
      {"a second default file", Log(cs).tr_new(2).file_new(4, 1, "0").tr_end(2).bytes(),
       "cs->default_file_nr == kNoFile || file_nr == kNoFile"},
      {"a block of an unknown file", Log(cs).tr_new(2).col_new(5).blk_new(5, 7, 3).tr_end(2).bytes(),
       "cs_file"},
      {"a block twice", Log(cs).tr_new(2).col_new(5).blk_new(5, -1, 3).blk_new(5, -1, 3).tr_end(2).bytes(),
       "cs_file->block_map[nr] == NULL"},
      {"a file without a columnspace", Log().tr_new(1).file_new(4, 1, "f").tr_end(1).bytes(), "cs_file"},
      {"a storage column without a columnspace", Log().tr_new(1).col_new(4).tr_end(1).bytes(), "bm && cs"},
  };
  for (const Case& k : cases) {
    SCOPED_TRACE(k.name);
    j480test::write_file(cbm_ + "/LOG", k.log);
    EXPECT_DEATH(run_quietly(), Esc(std::string("assertion \"") + k.assertion + "\" failed"));
  }
}

}  // namespace
