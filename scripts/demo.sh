#!/usr/bin/env bash
# The two-device demo: two Tandra devices on this machine (two tandrad daemons, each with its
# own state folder and socket), linked over loopback, or over a real veth link in two network
# namespaces when run as root. They pair, then device A takes photos with device B's camera
# application, saves them under ./demo-photos/, and prints both devices' behaviour events as
# one timeline (also written as demo-photos/timeline.html and .svg).
#
#   scripts/demo.sh [--keep] [--camera] [--count N] [--loopback]
#     --keep      leave both devices running and print commands to try by hand
#     --camera    B's camera application uses the real camera (/dev/video*) when there is one
#     --count N   photos to take (default 3)
#     --loopback  do not use network namespaces even as root
# Exits non-zero, saying why, when any step fails; leaves no process behind (unless --keep).
set -euo pipefail

repo="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
cd "$repo"

keep=no
camera=no
count=3
loopback=no
while (($# > 0)); do
    case "$1" in
        --keep) keep=yes ;;
        --camera) camera=yes ;;
        --count) count="$2"; shift ;;
        --loopback) loopback=yes ;;
        -h|--help) sed -n '2,13p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
        *) echo "demo.sh: unknown option $1 (see --help)" >&2; exit 2 ;;
    esac
    shift
done

step() { printf '\n== %s\n' "$*"; }
fail() { echo "demo.sh: FAILED: $*" >&2; exit 1; }

step "Checking packages"
source scripts/lib/packages.sh
packages=("${tandra_build_packages[@]}")
tandra_install_packages

step "Building (release preset)"
cmake --preset release >/dev/null || fail "cmake could not configure the build (see above)"
cmake --build --preset release --target tandrad tandra-photo tandra-camera tandra-timeline tandra_camera \
    || fail "the build failed (see above)"
bin="$repo/build/release/bin"

work="$(mktemp -d /tmp/tandra-demo.XXXXXX)"
netns=no
if [[ "$(id -u)" -eq 0 && "$loopback" == no ]] && command -v ip >/dev/null && ip netns list >/dev/null 2>&1; then
    netns=yes
fi
ns_a="tandra-demo-a-$$"
ns_b="tandra-demo-b-$$"
ns_m="tandra-demo-m-$$"
pids=()

cleanup() {
    local status=$?
    if [[ "$keep" == yes && $status -eq 0 ]]; then
        return
    fi
    for pid in "${pids[@]}"; do
        kill -TERM "$pid" 2>/dev/null || true
    done
    for pid in "${pids[@]}"; do
        for _ in $(seq 100); do
            kill -0 "$pid" 2>/dev/null || break
            sleep 0.1
        done
        kill -KILL "$pid" 2>/dev/null || true
        wait "$pid" 2>/dev/null || true
    done
    # Camera applications the daemons started and that outlived them.
    pkill -KILL -f "$bin/tandra-camera" 2>/dev/null || true
    if [[ "$netns" == yes ]]; then
        ip netns del "$ns_a" 2>/dev/null || true
        ip netns del "$ns_b" 2>/dev/null || true
        ip netns del "$ns_m" 2>/dev/null || true
    fi
    if [[ $status -eq 0 ]]; then
        rm -rf "$work"
    else
        echo "demo.sh: logs kept in $work (A/tandrad.log, B/tandrad.log)" >&2
    fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

in_a() { if [[ "$netns" == yes ]]; then ip netns exec "$ns_a" "$@"; else "$@"; fi; }
in_b() { if [[ "$netns" == yes ]]; then ip netns exec "$ns_b" "$@"; else "$@"; fi; }

port_a=$((20000 + RANDOM % 20000))
port_b=$((port_a + 1))
port_discovery=$((port_a + 2))
if [[ "$netns" == yes ]]; then
    step "Making two network namespaces joined through a bridge (device A: 10.77.0.1, device B: 10.77.0.2)"
    ip netns add "$ns_a"; ip netns add "$ns_b"; ip netns add "$ns_m"
    ip -n "$ns_m" link add br0 type bridge
    ip -n "$ns_m" link set br0 up
    for side in a b; do
        ns_var="ns_$side"
        ip link add "veth-$side-$$" type veth peer name "port-$side-$$"
        ip link set "veth-$side-$$" netns "${!ns_var}"
        ip link set "port-$side-$$" netns "$ns_m"
        ip -n "$ns_m" link set "port-$side-$$" master br0 up
        ip -n "${!ns_var}" link set lo up
    done
    ip -n "$ns_a" link set "veth-a-$$" name wlan0
    ip -n "$ns_b" link set "veth-b-$$" name wlan0
    ip -n "$ns_a" addr add 10.77.0.1/24 broadcast 10.77.0.255 dev wlan0
    ip -n "$ns_b" addr add 10.77.0.2/24 broadcast 10.77.0.255 dev wlan0
    ip -n "$ns_a" link set wlan0 up
    ip -n "$ns_b" link set wlan0 up
    addr_a=10.77.0.1; addr_b=10.77.0.2; broadcast=10.77.0.255; iface=(--interface wlan0)
    port_b=$port_a
else
    step "Linking the two devices over loopback (ports $port_a and $port_b)"
    addr_a=127.0.0.1; addr_b=127.0.0.1; broadcast=127.255.255.255; iface=()
fi

camera_args='"--countdown", "1", "--source", "generated"'
if [[ "$camera" == yes ]]; then
    camera_args='"--countdown", "3", "--source", "auto"'
fi
for device in A B; do
    mkdir -p "$work/$device/abilities" "$work/$device/state"
    cat >"$work/$device/abilities/tandra-photo.json" <<JSON
{ "bundle": "com.tandra.photo", "ability": "MainAbility", "module": "entry",
  "exec": { "path": "$bin/tandra-photo", "args": [] } }
JSON
    cat >"$work/$device/abilities/tandra-camera.json" <<JSON
{ "bundle": "com.tandra.camera", "ability": "CameraAbility", "module": "entry",
  "action": "tandra.CameraAbility.TakePhoto", "type": "tandra.CameraAbility.TakePhoto",
  "exec": { "path": "$bin/tandra-camera", "args": [$camera_args, "--device-name", "$device"] } }
JSON
done

start_daemon() {  # name namespace port peer-address peer-port bind-address
    local name=$1 ns=$2 port=$3 peer=$4 peer_port=$5 bind=$6
    local runner=()
    if [[ "$netns" == yes ]]; then
        runner=(ip netns exec "$ns")  # execs tandrad: the pid below is the daemon's own
    fi
    "${runner[@]}" "$bin/tandrad" --name "$name" --state-dir "$work/$name/state" --socket "$work/$name/tandrad.sock" \
        --abilities "$work/$name/abilities" --plugin "$repo/build/release/lib/libtandra_camera.so" \
        --bind "$bind" --port "$port" --discovery-port "$port_discovery" --broadcast "$broadcast" \
        --peer "$peer:$peer_port" "${iface[@]}" >"$work/$name/tandrad.log" 2>&1 &
    pids+=($!)
}

step "Starting device A and device B"
start_daemon A "$ns_a" "$port_a" "$addr_b" "$port_b" "$addr_a"
start_daemon B "$ns_b" "$port_b" "$addr_a" "$port_a" "$addr_b"
for device in A B; do
    for _ in $(seq 200); do
        grep -q "tandrad: ready" "$work/$device/tandrad.log" 2>/dev/null && break
        if ! kill -0 "${pids[0]}" 2>/dev/null || ! kill -0 "${pids[1]}" 2>/dev/null; then
            cat "$work/$device/tandrad.log" >&2
            fail "device $device's daemon stopped at start (its log is above)"
        fi
        sleep 0.1
    done
    grep -q "tandrad: ready" "$work/$device/tandrad.log" || fail "device $device's daemon did not get ready in 20 s"
    grep "tandrad: ready" "$work/$device/tandrad.log"
done

photo_a() { in_a "$bin/tandra-photo" --socket "$work/A/tandrad.sock" "$@"; }
photo_b() { in_b "$bin/tandra-photo" --socket "$work/B/tandrad.sock" "$@"; }

step "Waiting for A to find B"
for _ in $(seq 200); do
    photo_a devices --json 2>/dev/null | grep -q '"name":"B"' && break
    sleep 0.1
done
photo_a devices || fail "A cannot list devices"
photo_a devices --json | grep -q '"name":"B"' || fail "A did not find B in 20 s (broadcast and the static peer both failed; see $work/A/tandrad.log)"

step "Pairing A with B (both show the same code; each side confirms)"
photo_a pair B --yes || fail "A could not ask B to pair"
for _ in $(seq 100); do
    photo_b devices --json 2>/dev/null | grep -q '"name":"A"' && break
    sleep 0.1
done
photo_b pair --accept A --yes || fail "B could not accept A's pairing"
for _ in $(seq 200); do
    photo_a devices --json | grep '"name":"B"' | grep -q '"camera":true' && break
    sleep 0.1
done
photo_a devices
photo_a devices --json | grep '"name":"B"' | grep -q '"camera":true' || fail "B is not linked with a camera after pairing"

step "A takes $count photos with B's camera"
rm -rf "$repo/demo-photos"
photo_a take --device B --count "$count" --out "$repo/demo-photos" || fail "the collaboration did not finish (exit status $?)"

step "The two devices' behaviour events as one timeline"
"$bin/tandra-timeline" "$work/A/state/events.jsonl" "$work/B/state/events.jsonl" --text || true
"$bin/tandra-timeline" "$work/A/state/events.jsonl" "$work/B/state/events.jsonl" \
    --html "$repo/demo-photos/timeline.html" --svg "$repo/demo-photos/timeline.svg" \
    || fail "the timeline could not be written"

step "Done"
echo "Photos:   $repo/demo-photos/"
ls -l "$repo/demo-photos/"
echo "Timeline: $repo/demo-photos/timeline.html (and timeline.svg)"

if [[ "$keep" == yes ]]; then
    cat <<TEXT

Both devices keep running (pids ${pids[*]}). Try:
  $( [[ "$netns" == yes ]] && echo "ip netns exec $ns_a ")$bin/tandra-photo --socket $work/A/tandrad.sock devices
  $( [[ "$netns" == yes ]] && echo "ip netns exec $ns_a ")$bin/tandra-photo --socket $work/A/tandrad.sock take --device B --count 2 --out /tmp/photos
Stop them with: kill ${pids[*]}$( [[ "$netns" == yes ]] && echo "; ip netns del $ns_a; ip netns del $ns_b; ip netns del $ns_m")
TEXT
fi
