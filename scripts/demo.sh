#!/usr/bin/env bash
# Builds the tool and the sample generator, generates a small 2.0 database under demo/, converts
# it with --dumplog, and shows the run's log, the files before and after, and both XML dumps.
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup.sh
cmake -S . -B build/release -G Ninja -DCMAKE_CXX_COMPILER=g++ -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build/release -j "$(nproc)" --target j480_wal20_converter j480_wal20_gen

farm="$PWD/demo/farm"
rm -rf demo
mkdir -p "$farm"
echo "== generating a sample 2.0 database: $farm/sampledb"
build/release/src/tools/wal20_gen/j480_wal20_gen --out "$farm/sampledb" --seed 7 --tables 5 \
  --transactions 40 --locations 2 | grep -v '^tag '

echo "== files before"
ls -l "$farm/sampledb/CBM"
echo "== run: j480_wal20_converter --dbfarm $farm --dbname sampledb --dumplog"
set +e
build/release/src/tools/wal_converter/j480_wal20_converter --dbfarm "$farm" --dbname sampledb \
  --dumplog 2>"$farm/run.log"
status=$?
set -e
echo "== the run's log ($farm/run.log), first and last lines"
head -n 12 "$farm/run.log"
echo "..."
tail -n 6 "$farm/run.log"
echo "== exit value: $status"
echo "== files after"
ls -l "$farm/sampledb/CBM"
echo "== the old log as XML ($farm/sampledb/CBM/_LOG_XML_20), first lines"
head -n 15 "$farm/sampledb/CBM/_LOG_XML_20"
if [ -f "$farm/sampledb/CBM/_LOG_XML" ]; then
  echo "== the new log as XML ($farm/sampledb/CBM/_LOG_XML), first lines"
  head -n 15 "$farm/sampledb/CBM/_LOG_XML"
fi
echo "== the old files are kept: LOG.j480_20 and location_map.j480_20 (see the README to go back)"
