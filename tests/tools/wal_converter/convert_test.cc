// The whole tool on generated databases: a run converts, keeps the old files byte for byte, writes
// a 2.5 log whose every action is the one that the generator's model calls for and whose
// write-PDTs replay into the generator's images, writes the location map, dumps both logs and
// logs its steps in order; a failed or killed call anywhere loses nothing.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "expected25.h"
#include "kernel/ptype.h"
#include "log_bytes.h"
#include "support/test_support.h"
#include "tools/wal_converter/bc20_value_space.h"
#include "updates/updates_test_util.h"
#include "utils/mem.h"

#ifdef J480_GEN_BIN
namespace {

using j480test::read_file;
using j480test::RunResult;
using Lines = std::vector<std::string>;

std::string hex(const void* p, size_t n) { return j480test::hex(p, n).substr(1); }

// The image lines of a payload in today's form, replayed into an empty tree over `w.stable` rows.
// Every column is replayed as a table column of its type: in an empty tree an increment stands
// as the modify of its sum, which is what the image shows.
Lines replayed_image(const std::string& payload, const j480test::PdtWant& w) {
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
  std::vector<std::pair<size_t, Lines>> rows;  // a stable row's line and its values
  const int64_t behind = ut::walk_image(
      t, w.stable,
      [&](int64_t from, int64_t to) {
        img.push_back("keep " + std::to_string(from) + " " + std::to_string(to));
      },
      [&](int64_t sid) {
        img.push_back("stable " + std::to_string(sid));
        rows.push_back({img.size() - 1, Lines(ncols, "-")});
      },
      [&](uint32_t c, uint32_t at) { rows.back().second[c] = value(own->modifies, c, at); },
      [&](uint32_t at) {
        img.push_back("insert");
        for (uint32_t c = 0; c < ncols; c++) img.back() += " " + value(own->inserts, c, at);
      });
  EXPECT_EQ(behind, -1);
  for (const auto& [line, values] : rows)
    for (const std::string& v : values) img[line] += " " + v;
  pdt_unref(t);
  mem_context_remove(mem);
  return img;
}

// The lines of `all` from the first that equals `from` up to and with the first that equals `to`.
Lines span(const Lines& all, const std::string& from, const std::string& to) {
  auto b = std::find(all.begin(), all.end(), from);
  auto e = std::find(b, all.end(), to);
  return Lines(b, e == all.end() ? e : e + 1);
}

// Each generated shape runs with three seeds; "empty" ones are written here: a set-up
// transaction with a columnspace (and a location where multi) and no table.
struct Shape {
  std::vector<std::string> gen;
  bool drop_map = false;   // location_map removed before the run
  bool leftovers = false;  // LOG.new, location_map.new and LOG.j480_20 of an earlier run
};

TEST(Convert, TheNewLogHoldsTheGeneratorsModelActionByAction) {
  ut::kernel_up();
  const Shape shapes[] = {
      {{"--tables", "4", "--transactions", "60", "--single-location"}},
      {{"--tables", "6", "--transactions", "120", "--locations", "3"}, false, true},
      {{"--tables", "5", "--transactions", "80", "--big-endian", "--pdts"}, true},
      {{"--tables", "8", "--transactions", "150", "--locations", "2", "--reuse-scols"}, true},
      {{"--tables", "1", "--transactions", "3", "--single-location", "--pdts"}, false, true},
      {{"--tables", "12", "--transactions", "200", "--columns", "3", "--locations", "2", "--pdts"}},
      {{"--tables", "10", "--transactions", "300", "--columns", "2", "--blocks", "3"}},
      {{"--tables", "10", "--transactions", "200", "--locations", "2", "--pdts"}},
      {{"--tables", "8", "--columns", "10", "--transactions", "160", "--big-endian", "--pdts"}},
      {{"--tables", "40", "--transactions", "900", "--columns", "3", "--locations", "4", "--pdts",
        "--reuse-scols"}},
      {{"empty", "single"}},
      {{"empty", "multi"}, false, true},
  };
  std::set<std::string> seen;  // features that the runs exercised
  for (const Shape& shape : shapes) {
    for (int seed = 1; seed <= (shape.gen[0] == "empty" ? 1 : 3); seed++) {
      SCOPED_TRACE(::testing::PrintToString(shape.gen) + " seed " + std::to_string(seed));
      j480test::TempDir tmp;
      // A farm path longer than 512 bytes is legal and must not be cut; it can't hold a location,
      // whose map line has 512 bytes at most.
      const std::string farm = shape.gen[1] != "multi"
                                   ? tmp.path()
                                   : tmp.file(std::string(250, 'a') + "/" + std::string(250, 'b'));
      const std::string cbm = farm + "/db/CBM", model = tmp.file("model");
      const std::string pdt_model = tmp.file("pdt_model");
      j480test::make_dirs(farm);
      int64_t transactions = 1;
      if (shape.gen[0] == "empty") {
        const bool multi = shape.gen[1] == "multi";
        j480test::LogBytes b;
        b.head().i32(0).lng(1).i32(multi ? 35 : 2).i32(0).str("cs0").i32(65536);
        b.i32(0).i32(0).lng(0);
        if (multi) b.i32(28).lng(1).str("l1").i32(1);
        j480test::make_dirs(cbm);
        j480test::write_file(cbm + "/LOG", b.i32(1).lng(1).bytes());
        j480test::write_file(cbm + "/location_map", multi ? "l1,/p/l1\n" : "");
        j480test::write_file(model, "columnspace 65536 1\n" +
                                        (multi ? "location 1 l1 1 /p/l1\n"
                                               : "location auto default 1 " + cbm +
                                                     "/default\nfile default default 0\n"));
        seen.insert("empty catalog");
      } else {
        std::vector<std::string> args = {
            "--out",       farm + "/db",
            "--model",     model,
            "--pdt-model", pdt_model,
            "--seed",      std::to_string(seed * 7919 + shape.gen.size())};
        args.insert(args.end(), shape.gen.begin(), shape.gen.end());
        RunResult gen = j480test::run_binary(J480_GEN_BIN, args);
        ASSERT_EQ(gen.status, 0) << gen.err;
        for (const std::string& line : j480test::split_lines(gen.out)) {
          int tag = 0;
          long long n = 0;
          if (std::sscanf(line.c_str(), "tag %d: %lld", &tag, &n) == 2)
            seen.insert("2.0 record " + std::to_string(tag));
          if (std::sscanf(line.c_str(), "transactions %lld", &n) == 1) transactions = n;
        }
      }
      if (shape.drop_map) unlink((cbm + "/location_map").c_str());
      if (shape.leftovers) {
        j480test::write_file(cbm + "/LOG.new", "a stale transaction");
        j480test::write_file(cbm + "/location_map.new", "gone,/x\n");
        j480test::write_file(cbm + "/LOG.j480_20", "an earlier conversion");
      }
      const std::string old_log = read_file(cbm + "/LOG");
      const bool has_map = j480test::exists(cbm + "/location_map");
      const std::string old_map = has_map ? read_file(cbm + "/location_map") : "";
      const std::string pdts = j480test::exists(pdt_model) ? read_file(pdt_model) : "";
      const j480test::Expected25 want = j480test::expected25(read_file(model), pdts, has_map);
      seen.insert(want.features.begin(), want.features.end());

      RunResult r = j480test::run_binary(J480_CONVERTER_BIN,
                                         {"--dbfarm", farm, "--dbname", "db", "--dumplog"});
      ASSERT_EQ(r.status, 0) << r.err;
      EXPECT_EQ(r.err.find("ERROR"), std::string::npos) << r.err;
      std::map<int64_t, std::string> payloads;
      const Lines got = j480test::read_log25(cbm + "/LOG", &payloads);
      for (size_t k = 0; k < std::max(got.size(), want.actions.size()); k++)
        ASSERT_EQ(k < got.size() ? got[k] : "(none)",
                  k < want.actions.size() ? want.actions[k] : "(none)")
            << "action " << k;
      // Each write-PDT kept, replayed into an empty tree, gives the image of the generator's
      // updates, with several records stacked on one table and increment columns emptied by
      // dropped join indexes.
      for (const auto& [id, w] : j480test::read_pdt_model(pdts)) {
        SCOPED_TRACE("table " + std::to_string(id));
        if (w.records > 1) seen.insert("stacked write-PDT records");
        if (w.resets > 0) seen.insert("increment columns reset");
        for (const std::string& adt : w.adts) seen.insert("write-PDT column " + adt);
        if (!w.kept) continue;
        EXPECT_EQ(replayed_image(payloads[id], w), w.image);
      }
      EXPECT_EQ(read_file(cbm + "/LOG.j480_20"), old_log);
      EXPECT_EQ(j480test::exists(cbm + "/location_map.j480_20"), has_map);
      EXPECT_EQ(has_map ? read_file(cbm + "/location_map.j480_20") : "", old_map);
      EXPECT_EQ(read_file(cbm + "/location_map"), want.location_map);
      for (const char* gone : {"/LOG.new", "/location_map.new"})
        EXPECT_FALSE(j480test::exists(cbm + gone)) << gone;

      // The dumps, of the new log (an element per action; their form is the dump's own business)
      // and of the old one (a transaction element per transaction).
      const Lines xml = j480test::split_lines(read_file(cbm + "/_LOG_XML"));
      ASSERT_EQ(xml.size(), want.actions.size() + 2);
      EXPECT_EQ(xml[0], "<wal base_version=\"4851035686591004672\" cur_version=\"1\">");
      const Lines xml20 = j480test::split_lines(read_file(cbm + "/_LOG_XML_20"));
      EXPECT_EQ(xml20.front(), "<wal base_version=\"4851035686591004672\" cur_version=\"0\">");
      EXPECT_EQ(xml20.back(), "</wal>");
      EXPECT_EQ(std::count_if(xml20.begin(), xml20.end(),
                              [](const std::string& l) { return l.rfind("<tr trid=", 0) == 0; }),
                transactions);

      // The run's log: banner, database, the old dump, replay, then the conversion's own steps.
      const Lines log = j480test::split_lines(r.err);
      ASSERT_GE(log.size(), 2u);
      EXPECT_EQ(log[0].rfind("#WAL_CONVERTER:J480 WAL 2.0 converter version ", 0), 0u);
      EXPECT_EQ(log[1], "#WAL_CONVERTER:Converting WAL for database 'db' in '" + farm + "'");
      Lines dump20 = span(log, "#LOGGER:bc20_bm_logger_print start", "#LOGGER:bm_logger_print end");
      Lines want_dump20 = {"#LOGGER:bc20_bm_logger_print start"};
      for (const std::string& l : xml20) want_dump20.push_back("#LOGGER:" + l);
      want_dump20.push_back("#LOGGER:bm_logger_print end");
      EXPECT_EQ(dump20, want_dump20);
      Lines replay = span(log, "#LOGGER:bm_logger_print end", "#LOGGER:Analyzing catalog...");
      EXPECT_EQ(replay.at(1), "#LOGGER:Reading old catalog...");
      EXPECT_EQ(std::count(replay.begin(), replay.end(),
                           "#CBM:Detected single location database. Creating default location "
                           "and default file."),
                want.location_map.rfind("default,", 0) == 0 ? 1 : 0);
      Lines tail = {"#LOGGER:Analyzing catalog...", "#LOGGER:Generating new catalog..."};
      for (int64_t done = 100, reported = 0; done <= 200 * want.tables; done += 100)
        if (done / (2 * want.tables) - reported >= 10)
          tail.push_back("#LOGGER:New catalog " +
                         std::to_string(reported = done / (2 * want.tables)) + "% done.");
      tail.insert(tail.end(), {"#LOGGER:Writing new catalog...", "#LOGGER:bm_logger_print start"});
      for (const std::string& l : xml) tail.push_back("#LOGGER:" + l);
      tail.insert(tail.end(),
                  {"#LOGGER:bm_logger_print end", "#WAL_CONVERTER:Done converting. Exiting."});
      EXPECT_EQ(span(log, tail[0], ""), tail);
    }
  }
  // The shapes must reach every kind of record, index and reference the conversion handles.
  std::istringstream required(
      "empty catalog|foreign-key chain|foreign-key diamond|null group|index storage|"
      "minmax overflow|minmax of strings|write-PDT with join index slots|index type 1|"
      "index type 2|index type 3|index type 4|index type 5|index type 6|2.0 record 8|"
      "2.0 record 14|2.0 record 18|2.0 record 20|2.0 record 26|2.0 record 27|2.0 record 29|"
      "2.0 record 30|2.0 record 32|stacked write-PDT records|increment columns reset");
  // Every physical type that the value space takes, ptr being the one it does not.
  for (const char* adt : {"schr", "uchr", "ssht", "usht", "sint", "uint", "slng", "ulng", "s128",
                          "uidx", "flt", "dbl", "str"})
    EXPECT_EQ(seen.count(std::string("write-PDT column ") + adt), 1u) << adt;
  for (std::string f; std::getline(required, f, '|');)
    EXPECT_EQ(seen.count(f), 1u) << "never exercised: " << f;
}

// What stands in a CBM directory, by file name.
using Files = std::map<std::string, std::string>;

Files files_of(const std::string& cbm) {
  Files f;
  for (const char* name : {"LOG", "location_map", "LOG.new", "location_map.new", "LOG.j480_20",
                           "location_map.j480_20"})
    if (j480test::exists(cbm + "/" + name)) f[name] = j480test::read_file(cbm + "/" + name);
  return f;
}

void put_files(const std::string& cbm, const Files& files) {
  for (const char* name : {"LOG", "location_map", "LOG.new", "location_map.new", "LOG.j480_20",
                           "location_map.j480_20", "_LOG_XML", "_LOG_XML_20"})
    unlink((cbm + "/" + name).c_str());
  for (const auto& [name, bytes] : files) j480test::write_file(cbm + "/" + name, bytes);
}

void move(const std::string& cbm, const char* from, const char* to) {
  ASSERT_EQ(rename((cbm + "/" + from).c_str(), (cbm + "/" + to).c_str()), 0) << from;
}

// Every system call of a conversion of a multi-location database, failed once (EIO), failed with
// every later call (ENOSPC), or ended by a kill. After each run the old files stand byte for byte
// under their own or their kept name, a failed run ends with its last line and names the failed
// step and its reason, exit 0 comes only with the files of a clean conversion, and what the
// README says to do for the state left ends in those same files.
TEST(Convert, AFailedOrKilledCallAnywhereLosesNothingAndTheReadmeRecoveryCompletes) {
#ifndef J480_FAULT_INJECTION
  GTEST_SKIP() << "the tool reads J480_FAULT_AT only when built with -DJ480_FAULT_INJECTION=ON";
#endif
  j480test::TempDir farm;
  const std::string cbm = farm.file("db/CBM");
  ASSERT_EQ(
      j480test::run_binary(J480_GEN_BIN, {"--out", farm.file("db"), "--seed", "11", "--tables", "1",
                                          "--transactions", "3", "--locations", "2"})
          .status,
      0);
  const Files before = files_of(cbm);
  const std::vector<std::string> args = {"--dbfarm", farm.path(), "--dbname", "db", "--dumplog"};
  RunResult clean = j480test::run_binary(J480_CONVERTER_BIN, args);
  ASSERT_EQ(clean.status, 0) << clean.err;
  const Files after = files_of(cbm);
  ASSERT_EQ(after.at("LOG.j480_20"), before.at("LOG"));

  std::set<std::string> failures;  // the exchange's failed steps, the CBM path cut
  bool past_the_end = false;
  for (int k = 1; k <= 1000 && !past_the_end; k++) {
    for (const char* mode : {":5", ":28:sticky", ":kill"}) {
      const std::string fault = std::to_string(k) + mode;
      SCOPED_TRACE(fault);
      put_files(cbm, before);
      RunResult r = j480test::run_binary(J480_CONVERTER_BIN, args, {{"J480_FAULT_AT", fault}});
      Files now = files_of(cbm);
      std::string state;
      for (const auto& [name, bytes] : now) state += name + " ";
      for (const std::string old : {"LOG", "location_map"}) {
        Files any = now;  // a missing name reads as ""
        ASSERT_TRUE(any[old] == before.at(old) || any[old + ".j480_20"] == before.at(old))
            << old << ": " << state << r.err;
      }
      for (std::string line : j480test::split_lines(r.err)) {
        if (line.find("write_new25_log: ") == std::string::npos) continue;
        // The reason is the failed call's.
        EXPECT_TRUE(line.find("moving") == std::string::npos ||
                    line.ends_with(strerror(mode[1] == '5' ? EIO : ENOSPC)))
            << line;
        for (size_t at; (at = line.find(cbm)) != std::string::npos;)
          line.replace(at, cbm.size(), "CBM");
        failures.insert(line.substr(0, line.find(" failed")));
      }
      if (r.status != 0 && std::string(mode) != ":kill") {
        EXPECT_EQ(r.status, 255);
        EXPECT_EQ(j480test::split_lines(r.err).back(), "#WAL_CONVERTER:Done converting. Exiting.");
      }
      if (r.status == 0) {
        EXPECT_TRUE(now == after) << state << r.err;
        past_the_end |= std::string(mode) == ":28:sticky" && r.err == clean.err;
        continue;
      }
      // The README's recovery for the state left.
      if (now.count("LOG") && now["LOG"] == before.at("LOG")) {
        // Not exchanged yet: run again.
      } else if (!now.count("LOG")) {
        move(cbm, "LOG.j480_20", "LOG");
        if (!now.count("location_map")) move(cbm, "location_map.j480_20", "location_map");
      } else {
        ASSERT_EQ(now["LOG"], after.at("LOG")) << state;
        if (now.count("location_map.new")) {
          if (now.count("location_map")) unlink((cbm + "/location_map").c_str());
          move(cbm, "location_map.new", "location_map");
        }
        unlink((cbm + "/LOG.new").c_str());
      }
      if (files_of(cbm).at("LOG") == before.at("LOG")) {
        RunResult again = j480test::run_binary(J480_CONVERTER_BIN, args);
        ASSERT_EQ(again.status, 0) << state << again.err;
      }
      EXPECT_TRUE(files_of(cbm) == after) << state;
    }
  }
  EXPECT_TRUE(past_the_end);
  const std::string pre = "ERROR:LOGGER:write_new25_log: ";
  EXPECT_EQ(failures,
            (std::set<std::string>{pre + "moving 'CBM/LOG' to 'CBM/LOG.j480_20'",
                                   pre + "moving 'CBM/location_map' to 'CBM/location_map.j480_20'",
                                   pre + "moving 'CBM/LOG.new' to 'CBM/LOG'",
                                   pre + "moving 'CBM/location_map.new' to 'CBM/location_map'",
                                   pre + "syncing directory 'CBM'"}));
}

}  // namespace
#endif  // J480_GEN_BIN
