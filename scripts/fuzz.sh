#!/usr/bin/env bash
# Builds the libFuzzer targets (`fuzz` preset: clang, ASan+UBSan; installing packages when
# missing) and runs each for a while on its corpus in the repository, then merges what the run
# found into that corpus, so the corpus grows. Prints executions, coverage and corpus size per
# target; crash, leak and timeout artefacts are kept in build/fuzz/artifacts. Exits non-zero
# when any target failed.
#   scripts/fuzz.sh [seconds per target (default 60)] [target...]   (default: every target)
set -euo pipefail

cd "$(dirname "${BASH_SOURCE[0]}")/.."

seconds=60
if (($# > 0)) && [[ "$1" =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi

# clang with its sanitizer and libFuzzer runtimes (libclang-rt-14-dev), llvm for the
# symbolizer of crash reports.
packages=(cmake ninja-build clang libclang-rt-14-dev llvm pkg-config libjsoncpp-dev)
missing=()
for package in "${packages[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'install ok installed'; then
        missing+=("$package")
    fi
done
if ((${#missing[@]} > 0)); then
    echo "Installing missing packages: ${missing[*]}"
    sudo=()
    if [[ "$(id -u)" -ne 0 ]]; then
        sudo=(sudo)
    fi
    "${sudo[@]}" apt-get update
    "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends "${missing[@]}"
fi

cmake --preset fuzz -DTANDRA_WERROR=ON
cmake --build --preset fuzz

build=build/fuzz
artifacts=$build/artifacts
mkdir -p "$artifacts" "$build/logs"

# Every target the build knows, with its source folder: "name folder" a line.
declare -A folders=()
all=()
while read -r name folder; do
    [[ -n "$name" ]] || continue
    folders[$name]=$folder
    all+=("$name")
done <"$build/fuzzers.txt"
targets=("$@")
if ((${#targets[@]} == 0)); then
    targets=("${all[@]}")
fi
if ((${#targets[@]} == 0)); then
    echo "no fuzz targets found in $build/fuzzers.txt" >&2
    exit 1
fi

export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=1:strict_string_checks=1}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-halt_on_error=1:print_stacktrace=1}"

failed=0
rows=()
for target in "${targets[@]}"; do
    folder=${folders[$target]:-}
    if [[ -z "$folder" || ! -x "$build/bin/$target" ]]; then
        echo "unknown fuzz target: $target (known: ${all[*]})" >&2
        failed=1
        rows+=("$target|unknown|-|-|-|-|-")
        continue
    fi
    corpus=$folder/corpus
    finds=$build/finds/$target
    log=$build/logs/$target.log
    mkdir -p "$corpus" "$finds"
    before=$(find "$corpus" -type f | wc -l)
    echo "=== $target: ${seconds} s on $corpus ($before inputs)"
    # New inputs land in the scratch folder (the first); the repository corpus is only read.
    status=0
    "$build/bin/$target" -max_total_time="$seconds" -timeout=25 -rss_limit_mb=4096 -print_final_stats=1 \
        -artifact_prefix="$artifacts/$target-" "$finds" "$corpus" >"$log" 2>&1 || status=$?
    result=ok
    if ((status != 0)); then
        result="FAILED ($status)"
        failed=1
        grep -E '^(==[0-9]+==ERROR|SUMMARY|FuzzDevice: after|artifact_prefix|Test unit written)' "$log" | head -n 8 || true
    fi
    # The last status line holds the totals: "#<runs> DONE cov: <n> ft: <n> corp: ...".
    last=$(grep -E '^#[0-9]+' "$log" | tail -n 1 || true)
    runs=$(sed -nE 's/^stat::number_of_executed_units: *([0-9]+).*/\1/p' "$log" | tail -n 1)
    runs=${runs:-$(sed -nE 's/^#([0-9]+).*/\1/p' <<<"$last")}
    cov=$(sed -nE 's/.* cov: ([0-9]+).*/\1/p' <<<"$last")
    ft=$(sed -nE 's/.* ft: ([0-9]+).*/\1/p' <<<"$last")
    # Keep only the finds that add coverage to the repository corpus.
    if ! "$build/bin/$target" -merge=1 -timeout=25 -rss_limit_mb=4096 "$corpus" "$finds" >>"$log" 2>&1; then
        echo "merging the finds of $target failed (see $log)" >&2
        result="${result/ok/merge failed}"
        failed=1
    fi
    rm -rf "$finds"
    after=$(find "$corpus" -type f | wc -l)
    rows+=("$target|$result|${runs:--}|${cov:--}|${ft:--}|$after|+$((after - before))")
done

echo
echo "Fuzzing, ${seconds} s per target (log of each: $build/logs/<target>.log)"
printf '%-22s %-12s %12s %8s %8s %8s %6s\n' target result executions cov ft corpus new
for row in "${rows[@]}"; do
    IFS='|' read -r name result runs cov ft corpus new <<<"$row"
    printf '%-22s %-12s %12s %8s %8s %8s %6s\n' "$name" "$result" "$runs" "$cov" "$ft" "$corpus" "$new"
done
if ((failed != 0)); then
    echo "Some fuzz target failed: reproduce with $build/bin/<target> $artifacts/<artefact>" >&2
fi
exit "$failed"
