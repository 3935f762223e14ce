#!/usr/bin/env bash
# End-to-end photo benchmark: photos go from tandra-camera's files on device B to tandra-photo's
# saved files on device A, through two tandrad daemons linked over loopback, for each photo
# size and batch; in the same run and on the same sizes, the machine's own loopback stream
# (raw TCP and TLS 1.3, reused buffers) and rsync over loopback. Prints a table with ratios and
# the peak RSS of the four processes, then the latency of a 1-photo collaboration's stages.
#
#   bench/e2e/run.sh [--sizes "1 8 32 128"] [--batches "1 10"] [--runs 3] [--latency-runs 5] [--no-build]
#
# MB/s end to end = bytes of the batch / (last saved photo renamed - last camera photo renamed):
# from the moment the camera application's last photo is complete on disk to the moment the
# requesting application's last photo has its final name. Both applications write a temporary
# and rename it; a preloaded probe (bench/e2e/rename_stamp_preload.cpp) stamps each rename with
# the real-time clock, because the files' ctimes tick only every 4 ms here. Nothing is warmed up,
# every run is a new collaboration. The median of --runs runs is shown, and the first run on its own.
# Peak RSS: the daemons' VmHWM read from /proc before they stop; the two applications write
# theirs as they exit (bench/e2e/peak_rss_preload.cpp, preloaded). Largest over the runs.
# For 1-photo batches a second table splits each photo's time into its hops, from I/O stamps
# preloaded into the daemons and tandra-photo (bench/e2e/io_stamp_preload.cpp), and gives the CPU
# time per photo of each daemon's busiest thread (its link I/O thread), from /proc schedstat.
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)"
cd "$repo"

sizes="1 8 32 128"
batches="1 10"
runs=3
latency_runs=5
build=yes
while (($# > 0)); do
    case "$1" in
        --sizes) sizes="$2"; shift ;;
        --batches) batches="$2"; shift ;;
        --runs) runs="$2"; shift ;;
        --latency-runs) latency_runs="$2"; shift ;;
        --no-build) build=no ;;
        -h|--help) sed -n '2,15p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "run.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
    esac
    shift
done

fail() { echo "run.sh: FAILED: $*" >&2; exit 1; }

if [[ "$build" == yes ]]; then
    cmake --preset release >/dev/null || fail "cmake could not configure the release build"
    cmake --build --preset release --target tandrad tandra-photo tandra-camera tandra_camera benchmarks >/dev/null \
        || fail "the release build failed (run the build command by hand to see why)"
fi
bin="$repo/build/release/bin"
lib="$repo/build/release/lib"
for file in "$bin/tandrad" "$bin/tandra-photo" "$bin/tandra-camera" "$bin/e2e_stream_baseline" \
    "$lib/libtandra_camera.so" "$lib/libe2e_peak_rss.so" "$lib/libe2e_rename_stamp.so" "$lib/libe2e_io_stamp.so"; do
    [[ -e "$file" ]] || fail "$file is missing: build the release preset's tandrad, tandra-photo, tandra-camera, tandra_camera and benchmarks targets"
done
probes="$lib/libe2e_peak_rss.so:$lib/libe2e_rename_stamp.so:$lib/libe2e_io_stamp.so"

work="$(mktemp -d /tmp/tandra-e2e.XXXXXX)"
daemon_pids=()
rsync_pid=""
stop_daemons() {
    for pid in "${daemon_pids[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${daemon_pids[@]}"; do
        for _ in $(seq 100); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.05
        done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    daemon_pids=()
}
cleanup() {
    local status=$?
    stop_daemons
    if [[ -n "$rsync_pid" ]]; then
        kill -TERM "$rsync_pid" 2>/dev/null || true
        wait "$rsync_pid" 2>/dev/null || true
    fi
    if [[ $status -eq 0 && -z "${TANDRA_BENCH_KEEP:-}" ]]; then
        rm -rf "$work"
    else
        echo "run.sh: logs kept in $work" >&2
    fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

port_base=$((20000 + RANDOM % 20000))
port_serial=0

# Starts both devices with B's camera application making photos of $1 bytes; waits until A
# sees B linked with a camera.
start_devices() {
    local target=$1
    rm -rf "$work/A" "$work/B"
    for device in A B; do
        mkdir -p "$work/$device/abilities" "$work/$device/state" "$work/$device/rss" "$work/$device/stamps" "$work/$device/io"
        cat >"$work/$device/abilities/tandra-photo.json" <<JSON
{ "bundle": "com.tandra.photo", "ability": "MainAbility", "module": "entry",
  "exec": { "path": "$bin/tandra-photo", "args": [] } }
JSON
        local target_args=""
        if [[ -n "$target" ]]; then
            target_args=", \"--target-size\", \"$target\""
        fi
        cat >"$work/$device/abilities/tandra-camera.json" <<JSON
{ "bundle": "com.tandra.camera", "ability": "CameraAbility", "module": "entry",
  "action": "tandra.CameraAbility.TakePhoto", "type": "tandra.CameraAbility.TakePhoto",
  "exec": { "path": "$bin/tandra-camera",
            "args": ["--countdown", "0", "--source", "generated", "--out", "$work/$device/camera"$target_args] } }
JSON
    done
    local port_a=$((port_base + port_serial * 3)) port_b=$((port_base + port_serial * 3 + 1))
    local discovery=$((port_base + port_serial * 3 + 2))
    port_serial=$((port_serial + 1))
    for side in A:$port_a:$port_b B:$port_b:$port_a; do
        IFS=: read -r name port peer <<<"$side"
        E2E_PEAK_RSS_DIR="$work/$name/rss" E2E_STAMP_DIR="$work/$name/stamps" E2E_IO_STAMP_DIR="$work/$name/io" \
            LD_PRELOAD="${NO_PRELOAD:-$probes}" \
            ${TANDRAD_WRAP:-} "$bin/tandrad" --name "$name" --state-dir "$work/$name/state" --socket "$work/$name/tandrad.sock" \
            --abilities "$work/$name/abilities" --plugin "$lib/libtandra_camera.so" --bind 127.0.0.1 \
            --port "$port" --discovery-port "$discovery" --broadcast 127.255.255.255 --peer "127.0.0.1:$peer" \
            --trust-on-first-use >"$work/$name/tandrad.log" 2>&1 &
        daemon_pids+=($!)
    done
    for device in A B; do
        for _ in $(seq 400); do
            grep -q "tandrad: ready" "$work/$device/tandrad.log" 2>/dev/null && break
            sleep 0.05
        done
        grep -q "tandrad: ready" "$work/$device/tandrad.log" || fail "device $device's daemon did not get ready (see $work/$device/tandrad.log)"
    done
    for _ in $(seq 400); do
        "$bin/tandra-photo" --socket "$work/A/tandrad.sock" devices --json 2>/dev/null | grep '"name":"B"' \
            | grep -q '"camera":true' && return 0
        sleep 0.05
    done
    fail "A did not see B linked with a camera (see $work/A/tandrad.log and $work/B/tandrad.log)"
}

vm_hwm_mib() {  # pid
    awk '/^VmHWM:/ { printf "%.0f", $2 / 1024 }' "/proc/$1/status" 2>/dev/null || echo "?"
}

max_rss_file_mib() {  # folder name-prefix
    local best=0 value
    for file in "$1"/"$2".*; do
        [[ -e "$file" ]] || continue
        value=$(cat "$file")
        ((value > best)) && best=$value
    done
    if ((best == 0)); then echo "?"; else echo $(((best + 512) / 1024)); fi
}

# The last rename of a photo into the folder $2 by the application whose stamps are in $1/$3.*
# (seconds since the epoch); the folder's latest ctime when the probe was not preloaded.
last_photo_moment() {  # stamp-folder folder application
    local stamp
    stamp=$(cat "$1/$3".* 2>/dev/null | awk -v dir="$2/" 'index($2, dir) == 1 && substr($2, length(dir) + 1) !~ /^\./ { print $1 }' \
        | sort -n | tail -1)
    if [[ -n "$stamp" ]]; then
        echo "$stamp"
    else
        find "$2" -maxdepth 1 -type f ! -name '.*' -printf '%C@\n' | sort -n | tail -1
    fi
}

median() {  # numbers...
    printf '%s\n' "$@" | sort -g | awk '{ v[NR] = $1 } END { if (NR == 0) print "?"; else print v[int((NR + 1) / 2)] }'
}

# One collaboration of $1 photos; prints its MB/s. The requester's JSON lines go to $2.
take_batch() {
    local count=$1 log=$2
    rm -rf "$work/B/camera" "$work/out" "$work/A/stamps"/* "$work/B/stamps"/*
    E2E_PEAK_RSS_DIR="$work/A/rss" E2E_STAMP_DIR="$work/A/stamps" E2E_IO_STAMP_DIR="$work/A/io" LD_PRELOAD="$probes" \
        "$bin/tandra-photo" --socket "$work/A/tandrad.sock" take --device B --count "$count" --out "$work/out" \
        --json >"$log" 2>&1 || fail "the collaboration did not finish: $(tail -3 "$log")"
    local saved
    saved=$(find "$work/out" -maxdepth 1 -type f ! -name '.*' | wc -l)
    ((saved == count)) || fail "$saved of $count photos were saved"
    local bytes start end
    bytes=$(find "$work/out" -maxdepth 1 -type f ! -name '.*' -printf '%s\n' | awk '{ s += $1 } END { print s }')
    local sent
    sent=$(find "$work/B/camera" -maxdepth 1 -type f ! -name '.*' -printf '%s\n' | awk '{ s += $1 } END { print s }')
    ((bytes == sent)) || fail "the camera made $sent bytes of photos but $bytes were saved"
    start=$(last_photo_moment "$work/B/stamps" "$work/B/camera" tandra-camera)
    end=$(last_photo_moment "$work/A/stamps" "$work/out" tandra-photo)
    echo "$start $end" >>"$work/moments"
    awk -v b="$bytes" -v s="$start" -v e="$end" 'BEGIN { printf "%.1f", b / 1048576 / (e - s) }'
}

# CPU nanoseconds of each thread of a process, "tid ns" per line.
thread_cpu() {  # pid
    local task
    for task in /proc/"$1"/task/*; do
        [[ -r "$task/schedstat" ]] && echo "${task##*/} $(cut -d' ' -f1 "$task/schedstat")"
    done
}

# CPU ms per photo of the thread of $1 that used the most since the snapshot $2.
busiest_thread_ms() {  # pid snapshot-file photos
    thread_cpu "$1" | awk -v photos="$3" 'NR == FNR { before[$1] = $2; next }
        { used = $2 - before[$1]; if (used > best) best = used }
        END { printf "%.1f", best / 1e6 / photos }' "$2" -
}

# The hops of each 1-photo run (its moments in $work/moments), medians, from the I/O stamps:
# the camera's file renamed -> the serving daemon's first read of it -> the requesting daemon's
# last write into shared memory -> tandra-photo starts saving -> the saved file renamed.
hops() {
    cat "$work"/B/io/tandrad.* | awk '$3 >= 65536 && $2 == "pread" { print $1, "read" }' >"$work/hop-stamps"
    cat "$work"/A/io/tandrad.* | awk '$2 == "pwrite" { print $1, "write" }' >>"$work/hop-stamps"
    cat "$work"/A/io/tandra-photo.* 2>/dev/null | awk '$2 == "sendfile-start" { print $1, "save" }' >>"$work/hop-stamps"
    awk 'NR == FNR { t[NR] = $1; kind[NR] = $2; n = NR; next }
        {
            start = $1; end = $2; first = 0; written = 0; save = 0
            for (i = 1; i <= n; i++) {
                if (t[i] <= start || t[i] >= end) continue
                if (kind[i] == "read" && (first == 0 || t[i] < first)) first = t[i]
                if (kind[i] == "write" && t[i] > written) written = t[i]
                if (kind[i] == "save" && (save == 0 || t[i] < save)) save = t[i]
            }
            if (first == 0 || written == 0) next
            if (save == 0 || save < written) save = end
            printf "%.1f %.1f %.1f %.1f\n", (first - start) * 1000, (written - first) * 1000, (save - written) * 1000, (end - save) * 1000
        }' "$work/hop-stamps" "$work/moments" >"$work/hop-rows"
    local column column_values
    for column in 1 2 3 4; do
        mapfile -t column_values < <(cut -d' ' -f"$column" "$work/hop-rows")
        median "${column_values[@]}"
    done
}

# rsync over loopback through an rsync daemon (plain TCP, no ssh): the batch's files to a
# fresh folder, the client's whole run timed.
rsync_port=$((port_base + 1000))
start_rsync() {
    mkdir -p "$work/rsync-dst"
    cat >"$work/rsyncd.conf" <<CONF
use chroot = no
uid = $(id -u)
gid = $(id -g)
pid file = $work/rsyncd.pid
[dst]
path = $work/rsync-dst
read only = no
CONF
    rsync --daemon --no-detach --address=127.0.0.1 --port="$rsync_port" --config="$work/rsyncd.conf" \
        >"$work/rsyncd.log" 2>&1 &
    rsync_pid=$!
    for _ in $(seq 100); do
        rsync "rsync://127.0.0.1:$rsync_port/" >/dev/null 2>&1 && return 0
        sleep 0.05
    done
    echo "note: the rsync daemon did not start; rsync column skipped" >&2
    kill "$rsync_pid" 2>/dev/null || true
    rsync_pid=""
}

rsync_rate() {  # folder
    [[ -n "$rsync_pid" ]] || { echo "n/a"; return; }
    local src=$1 rates=() r
    for _ in $(seq "$runs"); do
        rm -rf "$work/rsync-dst"/*
        local t0 t1 bytes
        bytes=$(find "$src" -maxdepth 1 -type f -printf '%s\n' | awk '{ s += $1 } END { print s }')
        t0=$(date +%s.%N)
        rsync -a --whole-file "$src"/ "rsync://127.0.0.1:$rsync_port/dst/" >/dev/null 2>&1 || { echo "n/a"; return; }
        t1=$(date +%s.%N)
        r=$(awk -v b="$bytes" -v s="$t0" -v e="$t1" 'BEGIN { printf "%.1f", b / 1048576 / (e - s) }')
        rates+=("$r")
    done
    median "${rates[@]}"
}

echo "Machine: $(lscpu | sed -n 's/^Model name:[[:space:]]*//p' | head -1), $(nproc) cores, $(free -g | awk '/^Mem:/ { print $2 }') GiB RAM; load average $(cut -d' ' -f1-3 /proc/loadavg)"
start_rsync
scp_note="scp: skipped (no sshd on this machine)"
if command -v sshd >/dev/null || [[ -x /usr/sbin/sshd ]]; then
    scp_note="scp: not measured (sshd is installed but the benchmark does not start one)"
fi

rows=()
hop_rows=()
for size in $sizes; do
    for batch in $batches; do
        bytes=$((size * 1048576))
        start_devices "${size}MiB"
        : >"$work/moments"
        thread_cpu "${daemon_pids[0]}" >"$work/cpu-a"
        thread_cpu "${daemon_pids[1]}" >"$work/cpu-b"
        rates=()
        first=""
        for run in $(seq "$runs"); do
            rate=$(take_batch "$batch" "$work/take-$run.jsonl")
            rates+=("$rate")
            [[ -n "$first" ]] || first=$rate
        done
        e2e=$(median "${rates[@]}")
        rss_a=$(vm_hwm_mib "${daemon_pids[0]}")
        rss_b=$(vm_hwm_mib "${daemon_pids[1]}")
        cpu_a=$(busiest_thread_ms "${daemon_pids[0]}" "$work/cpu-a" $((runs * batch)))
        cpu_b=$(busiest_thread_ms "${daemon_pids[1]}" "$work/cpu-b" $((runs * batch)))
        stop_daemons
        if ((batch == 1)); then
            read -r -d '' handoff link delivery save < <(hops; printf '\0') || true
            hop_rows+=("$(printf '%5d MiB %9s %9s %9s %9s %9s %9s' "$size" "$handoff" "$link" "$delivery" "$save" \
                "$cpu_b" "$cpu_a")")
        fi
        rss_photo=$(max_rss_file_mib "$work/A/rss" tandra-photo)
        rss_camera=$(max_rss_file_mib "$work/B/rss" tandra-camera)
        rsync=$(rsync_rate "$work/out")
        tls=$("$bin/e2e_stream_baseline" --mode tls --size "$bytes" --count "$batch" --runs "$runs")
        tcp=$("$bin/e2e_stream_baseline" --mode tcp --size "$bytes" --count "$batch" --runs "$runs")
        rows+=("$(awk -v s="$size" -v n="$batch" -v e="$e2e" -v f="$first" -v tls="$tls" -v tcp="$tcp" -v rs="$rsync" \
            -v ra="$rss_a" -v rb="$rss_b" -v rp="$rss_photo" -v rc="$rss_camera" 'BEGIN {
                lim = s >= 8 ? 1 : 0.5
                ok = (e / tls >= 0.8 * lim && e / tcp >= 0.5 * lim) ? "yes" : "NO"
                rssok = (ra + 0 <= s + 32 && rb + 0 <= s + 32) ? "yes" : "NO"
                printf "%5d MiB %5d %9.0f %9.0f %9.0f %9.0f %9s %7.2fx %7.2fx %7s %7s %7s %7s %7s %5s %5s",
                    s, n, e, f, tls, tcp, rs, e / tls, e / tcp, ra, rb, rp, rc, s + 32, ok, rssok }')")
        printf '%s\n' "${rows[-1]}" >&2
    done
done

echo
echo "Photos from tandra-camera's files to tandra-photo's saved files across two tandrad on loopback"
echo "(MB/s = MiB/s; median of $runs runs, each a new collaboration; baselines in the same run; peak RSS in MiB)"
printf '%9s %5s %9s %9s %9s %9s %9s %8s %8s %7s %7s %7s %7s %7s %5s %5s\n' photo batch e2e first TLS TCP rsync \
    "vs TLS" "vs TCP" "A rss" "B rss" "photo" camera "limit" speed rss
printf '%s\n' "${rows[@]}"
echo "targets: 8-128 MiB >= 0.80x TLS and >= 0.50x TCP (1 MiB: half of that); daemon peak RSS <= photo + 32 MiB"
if ((${#hop_rows[@]} > 0)); then
    echo
    echo "Where a 1-photo batch's time goes (ms, median of $runs): camera file renamed -> B reads it (hand-over)"
    echo "-> A has written its last byte (link) -> tandra-photo starts saving (delivery) -> saved file renamed (save);"
    echo "and the CPU ms per photo of each daemon's busiest thread (its link I/O thread)"
    printf '%9s %9s %9s %9s %9s %9s %9s\n' photo hand-over link delivery save "B cpu" "A cpu"
    printf '%s\n' "${hop_rows[@]}"
fi
echo "$scp_note; rsync runs through an rsync daemon on loopback (plain TCP), its client's start-up included"

# ---- stage latency of a 1-photo collaboration, camera answering at once ----
((latency_runs > 0)) || exit 0
start_devices ""
ms_of() {  # file event -> time_ms of the first line with "event":"<event>"
    grep -m1 "\"event\":\"$2\"" "$1" | sed -n 's/.*"time_ms":\([0-9]*\).*/\1/p'
}
granted=(); started=(); saved=(); finished=()
for run in $(seq "$latency_runs"); do
    : >"$work/A/state/events.jsonl.mark"
    a_lines=$(wc -l <"$work/A/state/events.jsonl" 2>/dev/null || echo 0)
    b_lines=$(wc -l <"$work/B/state/events.jsonl" 2>/dev/null || echo 0)
    log="$work/latency-$run.jsonl"
    take_batch 1 "$log" >/dev/null
    t_request=$(ms_of "$log" requesting)
    t_granted=$(ms_of "$log" granted)
    t_saved=$(ms_of "$log" photo_saved)
    t_finished=$(ms_of "$log" finished)
    # The camera application has started when B's framework reports its ability started.
    t_started=$(tail -n +"$((b_lines + 1))" "$work/B/state/events.jsonl" \
        | grep '"BIZ_STAGE":5' | grep '"STAGE_RES":1' | head -1 | sed -n 's/.*"time_ms":\([0-9]*\).*/\1/p')
    granted+=($((t_granted - t_request)))
    started+=($((${t_started:-0} - t_request)))
    saved+=($((t_saved - t_request)))
    finished+=($((t_finished - t_request)))
    : "$a_lines"
done
stop_daemons
echo
echo "Stages of a 1-photo collaboration (camera application with --countdown 0; ms from the request; median of $latency_runs)"
printf '%-34s %8s %8s\n' stage median max
for stage in granted started saved finished; do
    declare -n values=$stage
    label=$(case $stage in
        granted) echo "request -> resources granted" ;;
        started) echo "request -> camera application started" ;;
        saved) echo "request -> first photo saved" ;;
        finished) echo "request -> finished" ;;
    esac)
    printf '%-34s %8s %8s\n' "$label" "$(median "${values[@]}")" "$(printf '%s\n' "${values[@]}" | sort -n | tail -1)"
done
echo "target: request -> camera application started < 300 ms"
