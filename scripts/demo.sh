#!/usr/bin/env bash
# Builds the tool and runs it on a sample database farm that it creates under demo/.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/release -G Ninja -DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/release -j "$(nproc)" --target j480_wal20_converter

farm="$PWD/demo/farm"
rm -rf demo
mkdir -p "$farm/sampledb/CBM"
# A sample 2.0 database: the byte-order mark of a log with no transactions yet.
printf '\xd2\x04' > "$farm/sampledb/CBM/LOG"
: > "$farm/sampledb/CBM/location_map"

echo "== files before"
ls -l "$farm/sampledb/CBM"
echo "== run: j480_wal20_converter --dbfarm $farm --dbname sampledb"
set +e
build/release/src/tools/wal_converter/j480_wal20_converter --dbfarm "$farm" --dbname sampledb
status=$?
set -e
echo "== exit value: $status"
echo "== files after"
ls -l "$farm/sampledb/CBM"
