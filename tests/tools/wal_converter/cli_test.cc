// The command line and run sequence of the built tool: standard output, the log on standard
// error, and the exit value as a shell sees it.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "bm/iobm.h"
#include "support/test_support.h"
#include "tools/wal_converter/log_bytes.h"
#include "utils/cvconfig.h"

using j480test::RunResult;
using j480test::split_lines;

namespace {

const std::string kBin = J480_CONVERTER_BIN;

const char kUsageTail[] =
    " [OPTIONS]\n"
    "Converts J480 2.0 metadata to 2.5 format.\n\n"
    "Options:\n"
    "  --version                      prints server version end exits\n"
    "  --dbfarm <storage location>    sets storage filesystem location\n"
    "  --dbname <database name>       sets database name\n"
    "  --dumplog                      dumps old and new metadata as XML file\n";

std::string usage_text() { return "J480 WAL 2.0 converter\n\nUsage: " + kBin + kUsageTail; }

RunResult run(const std::vector<std::string>& args) { return j480test::run_binary(kBin, args); }

// The version text, as the tool prints it for --version.
std::string version_text() {
  RunResult r = run({"--version"});
  std::vector<std::string> lines = split_lines(r.out);
  return lines.size() == 2 ? lines[1] : "";
}

std::string banner() { return "#WAL_CONVERTER:J480 WAL 2.0 converter version " + version_text(); }

const char kTail[] = "#WAL_CONVERTER:Done converting. Exiting.";

}  // namespace

// The name the tool was started by, then the version; under its own name in the table below.
TEST(CommandLine, VersionPrintsArgv0AndVersionAndExitsZeroAfterTheBanner) {
  std::string argv0 = "converter-under-another-name";
  RunResult r = j480test::run_binary(kBin, {"--version"}, {}, "", &argv0);
  EXPECT_EQ(r.status, 0);
  std::vector<std::string> out = split_lines(r.out);
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0], argv0);
  EXPECT_EQ(out[1].rfind("j480-vs9-OPTXPROF-64(", 0), 0u) << out[1];
  EXPECT_NE(out[1].find(") built on "), std::string::npos);
  EXPECT_NE(out[1].find(" with Microsoft Compiler version "), std::string::npos);
  // The revision piece is overwritten by the branch piece.
  EXPECT_EQ(out[1].find("-r"), std::string::npos);
  EXPECT_EQ(split_lines(r.err), std::vector<std::string>{banner()});
}

// Every way the options end a run before the database is touched: the version, the usage, a
// missing farm or name, a farm without the database. A value is taken unseen and the last one wins.
TEST(CommandLine, OptionsEndTheRunWithTheirOwnOutput) {
  j480test::TempDir farm;
  j480test::make_dirs(farm.file("db1"));  // the database exists, its CBM does not
  const std::string usage = usage_text(), version = kBin + "\n" + version_text() + "\n";
  const std::vector<std::string> alone = {banner()};
  auto failed = [](const std::string& why) {
    return std::vector<std::string>{banner(), "ERROR:WAL_CONVERTER:" + why, kTail};
  };
  auto missing = [&](const std::string& name, const std::string& dbfarm) {
    return failed("Database '" + name + "' in path '" + dbfarm +
                  "' does not exist or is invalid. Aborting.");
  };
  const std::vector<std::string> no_farm = failed("No database farm and/or name.");
  const struct {
    std::vector<std::string> args;
    int status;
    std::string out;
    std::vector<std::string> err;
  } cases[] = {
      {{"--dbfarm", "/nowhere", "--dumplog", "--version", "--bogus", "--dbname"}, 0, version,
       alone},
      {{"--help"}, 255, usage, alone},
      {{"-h"}, 255, usage, alone},
      {{"--dbfarm=/x"}, 255, usage, alone},
      {{"--DBFARM", "/x"}, 255, usage, alone},
      {{"--dbfarm"}, 255, usage, alone},
      {{"--dbname", "db", "--dbfarm"}, 255, usage, alone},
      {{"--dbname"}, 255, usage, alone},
      {{"--bogus", "--version"}, 255, usage, alone},  // --version is never reached
      {{""}, 255, usage, alone},
      {{}, 255, "", no_farm},
      {{"--dbfarm", "/x"}, 255, "", no_farm},
      {{"--dbname", "db"}, 255, "", no_farm},
      {{"--dbfarm", "", "--dbname", "db"}, 255, "", no_farm},
      {{"--dbfarm", "/x", "--dbname", ""}, 255, "", no_farm},
      {{"--dumplog"}, 255, "", no_farm},
      {{"--dbfarm", farm.path(), "--dbname", "db1"}, 255, "", missing("db1", farm.path())},
      {{"--dbfarm", "/a", "--dbname", "x", "--dbfarm", "/b", "--dbname", "y"}, 255, "",
       missing("y", "/b")},
      {{"--dbfarm", "--dumplog", "--dbname", "--version"}, 255, "",
       missing("--version", "--dumplog")},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    RunResult r = run(c.args);
    EXPECT_EQ(r.status, c.status);
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(split_lines(r.err), c.err);
  }
}

// Runs that fail a stage: the last lines say why, the log stays as it was, nothing is dumped
// where the dump refuses the log.
TEST(RunSequence, AFailedStageSaysWhyAndLeavesTheLogAlone) {
  const struct {
    std::string log;
    bool dumplog;
    std::vector<std::string> last;
  } cases[] = {
      {std::string("\xD2\x04", 2),
       false,
       {"# WARN:LOGGER:Empty catalog, not converting.",
        "ERROR:WAL_CONVERTER:Failed writing 2.5 WAL", kTail}},
      // tr_new 7, cat_location_del 9, tr_end 7
      {j480test::LogBytes().head().i32(0).lng(7).i32(29).lng(9).i32(1).lng(7).bytes(),
       false,
       {"ERROR:CBM:failed to replay drop location: no such location_id 9",
        "ERROR:WAL_CONVERTER:Failed replaying 2.0 WAL", kTail}},
      {j480test::LogBytes().head(0x435257414C000001LL).bytes(),
       true,  // format 2.5
       {"ERROR:LOGGER:Incompatible database version detected, database already converted.", kTail}},
  };
  for (const auto& c : cases) {
    j480test::TempDir farm;
    std::string cbm = farm.file("db/CBM");
    j480test::make_dirs(cbm);
    j480test::write_file(cbm + "/LOG", c.log);
    j480test::write_file(cbm + "/location_map", "");
    std::vector<std::string> args = {"--dbname", "db", "--dbfarm", farm.path()};
    if (c.dumplog) args.push_back("--dumplog");
    RunResult r = run(args);
    SCOPED_TRACE(c.last[0]);
    EXPECT_EQ(r.status, 255);
    std::vector<std::string> lines = split_lines(r.err);
    ASSERT_GE(lines.size(), 2 + c.last.size());
    EXPECT_EQ(lines[0], banner());
    EXPECT_EQ(lines[1], "#WAL_CONVERTER:Converting WAL for database 'db' in '" + farm.path() + "'");
    EXPECT_EQ(std::vector<std::string>(lines.end() - c.last.size(), lines.end()), c.last);
    EXPECT_EQ(j480test::read_file(cbm + "/LOG"), c.log);
    for (const char* name : {"/LOG.new", "/LOG.j480_20", "/_LOG_XML_20"})
      EXPECT_FALSE(j480test::exists(cbm + name)) << name;
  }
}

// Two processes on one database: a holder of the block manager's lock in a child process, and
// the tool. The tool is refused with the lock file's bytes unchanged; once the holder is gone,
// by exit or by SIGKILL, the tool runs to its end again.
TEST(RunSequence, ARunOnADatabaseInUseIsRefusedUntilTheHolderIsGone) {
  j480test::TempDir farm;
  const std::string cbm = farm.file("db/CBM");
  j480test::make_dirs(cbm);
  for (bool kill_it : {false, true}) {
    int ready[2], go[2];
    ASSERT_EQ(pipe(ready), 0);
    ASSERT_EQ(pipe(go), 0);
    pid_t holder = fork();
    ASSERT_GE(holder, 0);
    if (holder == 0) {
      cvconfig* config = cvconfig_create();
      cvconfig_layer* layer = cvconfig_layer_create(nullptr, "cmdline", cvconfig_defaults(config));
      cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBFARM_PATH, farm.path().c_str());
      cvconfig_set_str(layer, CVGROUP_SERVER, CVPROP_DBNAME, "db");
      char c = iobm_create(layer) != nullptr ? 'y' : 'n';
      if (write(ready[1], &c, 1) != 1 || read(go[0], &c, 1) != 1) _exit(3);
      _exit(0);  // without iobm_destroy: the lock goes with the process
    }
    char c = 0;
    ASSERT_EQ(read(ready[0], &c, 1), 1);
    ASSERT_EQ(c, 'y');
    const std::string held = j480test::read_file(cbm + "/lock");
    EXPECT_EQ(held, "48130\n" + std::to_string(holder) + "\n");
    RunResult r = run({"--dbfarm", farm.path(), "--dbname", "db"});
    EXPECT_EQ(r.status, 255);
    std::vector<std::string> lines = split_lines(r.err);
    ASSERT_GE(lines.size(), 3u);
    const std::vector<std::string> last = {
        "ERROR:CBM:iobm_create: database " + cbm + " already in use",
        "ERROR:WAL_CONVERTER:Failed to initialize 2.0 storage structures", kTail};
    EXPECT_EQ(std::vector<std::string>(lines.end() - 3, lines.end()), last);
    EXPECT_EQ(j480test::read_file(cbm + "/lock"), held);
    if (kill_it) kill(holder, SIGKILL);
    ASSERT_EQ(write(go[1], "x", 1), 1);
    int status = 0;
    ASSERT_EQ(waitpid(holder, &status, 0), holder);
    EXPECT_TRUE(kill_it ? WIFSIGNALED(status) : WIFEXITED(status) && WEXITSTATUS(status) == 0);
    for (int fd : {ready[0], ready[1], go[0], go[1]}) close(fd);
    r = run({"--dbfarm", farm.path(), "--dbname", "db"});
    EXPECT_EQ(r.err.find("already in use"), std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Empty catalog, not converting."), std::string::npos) << r.err;
  }
}
