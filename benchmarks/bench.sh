#!/usr/bin/env bash
# Builds the benchmarks optimised, runs each subject next to its peer, prints one table and writes it to
# build/bench/bench.json. With --update-docs also rewrites the figures of docs/performance.md.
# Fails when a benchmark cannot be run. A missed target is only reported.
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."
me=bench
source tools/need.sh
folder=build/bench
export HOSTDEVICE_DATA=$PWD/$folder/device
docs=no
case "${1-}" in
    "") ;;
    --update-docs) docs=yes ;;
    *) failure=2; die 'usage: bench.sh [--update-docs]' ;;
esac

need g++ make cmake binutils python3 libbenchmark-dev libspdlog-dev libyuv-dev libboost-dev zlib1g-dev ffmpeg

build bench
strip -o "$folder/libzyttools.stripped.so" "$folder/common/tools/libzyttools.so"

# The user's properties could turn the logs on.
unset HOSTDEVICE_PROPERTIES
rm -f "$folder"/round-*.json
# Several processes, each with several repetitions in random order, because a result depends on chance, such as a
# process's memory addresses. One process per area, so that a subject and its peer run close together in time.
for round in 1 2 3 4 5 6 7 8 9; do
    for area in pool/ manager log_site offline copy_nv12 copy_p010 dump tasks signal \
        kit_plain kit_dmabuf kit_gralloc kit_access kit_rows kit_unpack kit_pack; do
        "$folder/benchmarks/zytbench" --benchmark_filter="^$area" --benchmark_min_time=0.015 \
            --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
            --benchmark_out="$folder/round-$round-${area%/}.json" >"$folder/run.log" 2>&1 ||
            { tail -n 30 "$folder/run.log" >&2; exit 1; }
    done
    "$folder/benchmarks/zytmemory" >"$folder/round-$round-memory.json"
    python3 benchmarks/viewbench.py "$folder/tools/zytview/zytview" "$folder" >"$folder/round-$round-view.json"
done

python3 benchmarks/report.py "$folder" "$docs"
