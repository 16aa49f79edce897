#!/usr/bin/env bash
# The large-file figures of the README: for generated files of 1,000,000 and 10,000,000 records
# (about 100 MB and 1 GB, see bench/bench_csv.h), the time `gzl fit` takes to read the file, the
# time of the whole run and its peak resident memory. Needs a build with the benchmarks:
#   cmake -S . -B build -DCMAKE_BUILD_TYPE=Release -DGZL_BUILD_BENCH=ON
#   cmake --build build -j2 --target gzl_cli make_bench_csv
#   scripts/bench_large_files.sh [BUILD_DIR] [DATA_DIR]
# The files are written to DATA_DIR (default $TMPDIR, else /tmp) once and kept for later runs.
set -euo pipefail
build=${1:-build}
data=${2:-${TMPDIR:-/tmp}}
for records in 1000000 10000000; do
  file="$data/gzl_bench_$records.csv"
  [ -f "$file" ] || "$build/bench/make_bench_csv" "$records" "$file"
  log=$(mktemp)
  /usr/bin/time -v "$build/tools/gzl" fit "$file" -y y -d poisson -f a,b -c x1,x2,x3,x4,x5,x6,x7,x8,x9,x10 \
    --progress > /dev/null 2> "$log"
  echo "$records records ($(du -m "$file" | cut -f1) MB):"
  grep "gzl: read " "$log" | sed 's/^gzl: /  /'
  grep -E "Elapsed|Maximum resident" "$log" | sed 's/^\s*/  /'
  rm -f "$log"
done
