// j480_wal20_gen: writes a synthetic, valid format 2.0 database directory.
//
//   j480_wal20_gen --out <dbdir> [options]
//     --out <dbdir>          database directory; <dbdir>/CBM/LOG and location_map are written
//     --seed <n>             seed of the history (default 1); equal options give equal bytes
//     --tables <n>           tables created over the history (default 4)
//     --columns <n>          average value columns per table (default 6)
//     --blocks <n>           blocks per block transaction (default 8)
//     --transactions <n>     transactions after the set-up one (default 40)
//     --target-size <bytes>  add block transactions until the log has this size; K, M, G
//                            suffixes (powers of 1024)
//     --locations <n>        multi-location database with n data locations
//     --single-location      single-location database with a default file (the default)
//     --big-endian           typed integers byte-reversed, mark 04 D2
//     --pdts                 write-PDT records of random updates after the history
//     --pdt-model <file>     writes what the write-PDT records give (see bc20_gen.h)
//     --reuse-scols          storage column ids of dropped groups are taken again
//     --model <file>         writes what a replay must hold at the end (see bc20_gen.h)
// Prints a summary on standard output. Exit 0, or 1 on a bad option or a failed write.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tools/wal20_gen/bc20_gen.h"

namespace {

const char kUsage[] =
    "Usage: %s --out <dbdir> [--seed N] [--tables N] [--columns N] [--blocks N]\n"
    "          [--transactions N] [--target-size BYTES[K|M|G]] [--locations N|--single-location]\n"
    "          [--big-endian] [--pdts] [--reuse-scols] [--model <file>] [--pdt-model <file>]\n"
    "Writes a synthetic J480 2.0 database: <dbdir>/CBM/LOG and <dbdir>/CBM/location_map.\n";

bool parse_number(const char* text, int64_t max, int64_t* out) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  long long v = strtoll(text, &end, 10);
  if (errno != 0 || end == text || v < 0) return false;
  int64_t mult = 1;
  if (*end == 'K' || *end == 'k') mult = int64_t{1} << 10;
  if (*end == 'M' || *end == 'm') mult = int64_t{1} << 20;
  if (*end == 'G' || *end == 'g') mult = int64_t{1} << 30;
  if (mult != 1) end++;
  if (*end != '\0' || v > max / mult) return false;
  *out = v * mult;
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  bc20_gen_options o;
  bool bad = false;
  bool single = false;
  for (int i = 1; i < argc && !bad; i++) {
    std::string a = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    int64_t v = 0;
    auto number = [&](int64_t max) {
      bad = !parse_number(value, max, &v);
      i++;
      return v;
    };
    if (a == "--out" && value != nullptr) {
      o.out_dir = value;
      i++;
    } else if (a == "--seed") {
      o.seed = static_cast<uint64_t>(number(INT64_MAX));
    } else if (a == "--tables") {
      o.tables = static_cast<int32_t>(number(100000));
      bad |= o.tables < 1;
    } else if (a == "--columns") {
      o.columns = static_cast<int32_t>(number(1000));
      bad |= o.columns < 1;
    } else if (a == "--blocks") {
      o.blocks = static_cast<int32_t>(number(10000000));
    } else if (a == "--transactions") {
      o.transactions = static_cast<int32_t>(number(100000000));
    } else if (a == "--target-size") {
      o.target_size = number(INT64_MAX / 2);
    } else if (a == "--locations") {
      o.locations = static_cast<int32_t>(number(100000));
      bad |= o.locations < 1;
    } else if (a == "--single-location") {
      single = true;
    } else if (a == "--big-endian") {
      o.big_endian = 1;
    } else if (a == "--pdts") {
      o.pdts = 1;
    } else if (a == "--reuse-scols") {
      o.reuse_scols = 1;
    } else if (a == "--model" && value != nullptr) {
      o.model_path = value;
      i++;
    } else if (a == "--pdt-model" && value != nullptr) {
      o.pdt_model_path = value;
      i++;
    } else {
      bad = true;
    }
  }
  if (bad || o.out_dir == nullptr || (single && o.locations > 0)) {
    fprintf(stderr, kUsage, argv[0]);
    return 1;
  }
  bc20_gen_summary s;
  if (bc20_gen_run(&o, &s) != 0) return 1;
  printf("log_bytes %lld\ntransactions %lld\ntables %lld created, %lld dropped, %lld live\n",
         static_cast<long long>(s.log_bytes), static_cast<long long>(s.transactions),
         static_cast<long long>(s.tables_created), static_cast<long long>(s.tables_dropped),
         static_cast<long long>(s.tables_live));
  printf("indexes %lld created, %lld dropped\nblocks %lld added, %lld deleted\n",
         static_cast<long long>(s.indexes_created), static_cast<long long>(s.indexes_dropped),
         static_cast<long long>(s.blocks_added), static_cast<long long>(s.blocks_deleted));
  printf("locations %lld created, %lld dropped; files %lld; map lines %lld\n",
         static_cast<long long>(s.locations_created), static_cast<long long>(s.locations_dropped),
         static_cast<long long>(s.files), static_cast<long long>(s.map_lines));
  for (uint32_t t = 0; t <= BC20_MAX_TAG; t++)
    if (s.records[t] != 0) printf("tag %u: %lld\n", t, static_cast<long long>(s.records[t]));
  return 0;
}
