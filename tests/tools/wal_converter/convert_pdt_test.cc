// Whole-tool conversions of generated databases with write-PDTs: each pdt_new payload of the new
// log, replayed into an empty tree, gives the table image that the generator's updates give,
// with several records stacked on one table and increment columns emptied by dropped join indexes.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "bm/logger.h"
#include "expected25.h"
#include "support/test_support.h"
#include "tools/wal_converter/bc20_value_space.h"
#include "updates/updates_test_util.h"
#include "utils/stream.h"

#ifdef J480_GEN_BIN
namespace {

using j480test::read_file;
using Lines = std::vector<std::string>;

// A table of the write-PDT model: its head line's fields and the image lines behind it.
struct Want {
  int64_t stable = 0, records = 0, resets = 0, kept = 0;
  std::vector<std::string> adts;
  Lines image;
};

std::map<int64_t, Want> read_pdt_model(const std::string& path) {
  std::map<int64_t, Want> out;
  std::istringstream in(read_file(path));
  Want* cur = nullptr;
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

// The pdt_new payloads of a 2.5 log by table id.
std::map<int64_t, std::string> payloads_of(const std::string& path) {
  std::map<int64_t, std::string> out;
  MemContext* mem = mem_context_create(nullptr, "convert_pdt_test");
  stream* s = open_binary_read_stream(path.c_str());
  EXPECT_EQ(bm_logger_read_version(s), BM_LOGGER_VERSION_25);
  for (int more = 1; more;) {
    bm_logger_action_list* list = nullptr;
    more = bm_logger_read_transaction(mem, s, &list);
    for (bm_logger_action* a = list ? list->head : nullptr; a; a = a->next)
      if (a->type == BM_PDT_NEW)
        out[a->id].assign(static_cast<const char*>(a->pdt_new.data), size_t(a->pdt_new.size));
    if (list == nullptr) break;
  }
  stream_close_destroy(s);
  mem_context_remove(mem);
  return out;
}

std::string hex(const void* p, size_t n) { return j480test::hex(p, n).substr(1); }

// The image lines of a payload in today's form, replayed into an empty tree over `w.stable` rows.
// Every column is replayed as a table column of its type: in an empty tree an increment stands
// as the modify of its sum, which is what the image shows.
Lines replayed_image(const std::string& payload, const Want& w) {
  const uint32_t ncols = uint32_t(w.adts.size());
  std::vector<const ptype*> types;
  for (const std::string& adt : w.adts) types.push_back(ptype_by_name(adt.c_str()));
  uint32_t fan_out;
  int64_t vs_size, n_entries;
  memcpy(&fan_out, payload.data(), 4);
  memcpy(&vs_size, payload.data() + 8, 8);
  memcpy(&n_entries, payload.data() + 16, 8);
  EXPECT_EQ(int64_t(payload.size()), 24 + vs_size + 12 * n_entries);
  // Today's form has an insert count per column, all equal; the legacy reader takes one.
  for (uint32_t c = 1; c < ncols; c++)
    EXPECT_EQ(payload.substr(24, 4), payload.substr(24 + 4 * c, 4));
  const std::string legacy =
      payload.substr(24, 4) + payload.substr(24 + 4 * size_t(ncols), size_t(vs_size) - 4 * ncols);
  MemContext* mem = mem_context_create(nullptr, "convert_pdt_replay");
  value_space* vs = bc20_value_space_deserialize(mem, types.data(), ncols, nullptr, 0, nullptr, 0,
                                                 legacy.data(), int64_t(legacy.size()));
  EXPECT_NE(vs, nullptr);
  pdt* t = pdt_create(mem, 0, fan_out, 16, types.data(), ncols, nullptr, 0, nullptr, 0, nullptr, 0);
  pdt_apply_serialized(t, payload.data() + 24 + vs_size, n_entries, vs);
  const value_space* own = t->value_space;
  auto value = [&](char* const* arrays, uint32_t c, uint32_t pos) {
    const char* p = arrays[c] + size_t(pos) * own->colsizes[c];
    if (own->coltypes[c]->fixed) return hex(p, own->colsizes[c]);
    const char* text;
    memcpy(&text, p, sizeof text);
    return "s" + hex(text, strlen(text));
  };
  Lines img;
  int64_t s = 0;  // the first stable row not yet shown
  auto keep = [&](int64_t to) {
    if (to > s) img.push_back("keep " + std::to_string(s) + " " + std::to_string(to));
  };
  std::vector<std::string> row;  // the values of the stable row s - 1, while its modifies come
  auto stable_row = [&] {
    if (!row.empty()) img.push_back("stable " + std::to_string(s - 1));
    for (const std::string& v : row) img.back() += " " + v;
    row.clear();
  };
  for (const ut::Entry& e : ut::chain_entries(t)) {
    const int64_t sid = USID(e.def);
    const uint32_t type = PDT_TYPE(e.def), hdr = PDT_HDR(e.def);
    if (type == PDT_MODIFY && (row.empty() || sid != s - 1)) {  // a stable row's first modify
      stable_row();
      keep(sid);
      row.assign(ncols, "-");
      s = sid + 1;
    }
    if (type == PDT_MODIFY) {
      row[hdr] = value(own->modifies, hdr, e.offset);
      continue;
    }
    stable_row();
    keep(sid);
    s = type == PDT_DELETE ? sid + hdr + 1 : std::max(s, sid);
    if (type == PDT_INSERT) img.push_back("insert");
    for (uint32_t c = 0; type == PDT_INSERT && c < ncols; c++)
      img.back() += " " + value(own->inserts, c, e.offset);
  }
  stable_row();
  keep(w.stable);
  pdt_unref(t);
  mem_context_remove(mem);
  return img;
}

TEST(ConvertPdt, EveryWritePdtOfTheNewLogReplaysIntoTheImageTheGeneratorsUpdatesGive) {
  ut::kernel_up();
  const std::vector<std::vector<std::string>> shapes = {
      {"--tables", "6", "--transactions", "80"},
      {"--tables", "10", "--transactions", "200", "--locations", "2"},
      {"--tables", "8", "--columns", "10", "--transactions", "160", "--big-endian"},
  };
  std::map<std::string, int64_t> seen;  // what the runs exercised
  std::set<std::string> adts;
  for (const auto& shape : shapes) {
    for (int seed = 1; seed <= 8; seed++) {
      SCOPED_TRACE(::testing::PrintToString(shape) + " seed " + std::to_string(seed));
      j480test::TempDir farm;
      std::vector<std::string> args = {
          "--out",  farm.file("db"), "--seed",         std::to_string(seed),
          "--pdts", "--pdt-model",   farm.file("pdts")};
      args.insert(args.end(), shape.begin(), shape.end());
      ASSERT_EQ(j480test::run_binary(J480_GEN_BIN, args).status, 0);
      j480test::RunResult r =
          j480test::run_binary(J480_CONVERTER_BIN, {"--dbfarm", farm.path(), "--dbname", "db"});
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(r.err.find("ERROR"), std::string::npos) << r.err;
      const std::map<int64_t, std::string> got = payloads_of(farm.file("db/CBM/LOG"));
      const std::map<int64_t, Want> want = read_pdt_model(farm.file("pdts"));
      for (const auto& [id, p] : got) EXPECT_EQ(want.count(id) ? want.at(id).kept : 0, 1) << id;
      for (const auto& [id, w] : want) {
        SCOPED_TRACE("table " + std::to_string(id));
        seen["write-PDTs"]++, seen["stacked"] += w.records > 1,
            seen["increment columns reset"] += w.resets;
        adts.insert(w.adts.begin(), w.adts.end());
        ASSERT_EQ(got.count(id), size_t(w.kept));
        if (!w.kept) continue;
        seen["kept"]++;
        EXPECT_EQ(replayed_image(got.at(id), w), w.image);
      }
    }
  }
  for (const auto& [what, n] : seen)
    std::printf("%s: %lld\n", what.c_str(), static_cast<long long>(n));
  EXPECT_GT(seen["write-PDTs"], 40);
  EXPECT_GT(seen["stacked"], 10);
  EXPECT_GT(seen["increment columns reset"], 0);
  // Every physical type that the value space takes, ptr being the one it does not.
  for (const char* adt : {"schr", "uchr", "ssht", "usht", "sint", "uint", "slng", "ulng", "s128",
                          "uidx", "flt", "dbl", "str"})
    EXPECT_TRUE(adts.count(adt)) << adt;
}

}  // namespace
#endif  // J480_GEN_BIN
