#!/usr/bin/env bash
# scpkit against OpenSSH scp, ssh and rsync over a throwaway loopback sshd,
# directly and through a relay that adds a 10 ms round trip.
#
#   bash bench/run.sh BUILD_DIR [--quick]      (./run bench [--quick] builds first)
#
# Every case waits for the machine to settle, then runs its tools side by side
# in turn (A B C A B C ...): warm-up rounds, then the counted rounds, each run
# after a sync and with its target removed. Wall time is measured around each
# process, client CPU (user+sys, the process and its children) and peak RSS
# come from /usr/bin/time, and the CPU time other work took during the case is
# recorded (bench/engine.sh). The table goes to standard output and, with the
# charts, to bench/results/latest.md, latest.svg and latest-rtt.svg.
#
# --quick: tiny data sets, one run of each tool and one relay case, results
# under BUILD_DIR/bench-quick. It checks that the harness works; it says
# nothing about speed.
#
# Environment: BENCH_RUNS (counted rounds, default 5), BENCH_CIPHERS (space-
# separated), BENCH_CASES (a regular expression: only the cases whose title
# matches run; the results then go to BUILD_DIR/bench-partial), BENCH_TMP
# (where the data sets go, default /tmp), BENCH_KEEP=1 (keep the work
# directory with the data sets and raw samples), BENCH_MAX_OTHER_LOAD (cores
# of other work above which a case is noisy, 0.25), BENCH_SETTLE (seconds a
# case waits at most for the machine to settle, 30).
set -euo pipefail

usage() { echo "usage: bench/run.sh BUILD_DIR [--quick]" >&2; exit 2; }
[ $# -ge 1 ] || usage
BUILD=$(cd "$1" && pwd)
shift
QUICK=0
for arg in "$@"; do
    case $arg in
        --quick) QUICK=1 ;;
        *) usage ;;
    esac
done

HERE=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
ROOT=$(dirname "$HERE")
# shellcheck source=../tests/support/loopback_sshd.sh
. "$ROOT/tests/support/loopback_sshd.sh"
# shellcheck source=report.sh
. "$HERE/report.sh"

BENCH_PROG=$BUILD/bench/scpkit_bench
CLI_PROG=$BUILD/scpkit
RELAY_PROG=$BUILD/bench/delay_relay
DISCARD_PROG=$BUILD/bench/discard
for prog in "$BENCH_PROG" "$RELAY_PROG" "$DISCARD_PROG"; do
    [ -x "$prog" ] || { echo "bench: $prog is missing (build first)" >&2; exit 1; }
done
for tool in /usr/bin/time scp ssh rsync gnuplot; do
    [ -n "$(command -v "$tool")" ] || { echo "bench: $tool is missing (./run setup)" >&2; exit 1; }
done

MiB=$((1024 * 1024))
# The relay's delay each way: a 10 ms round trip.
ONE_WAY_MS=5
if [ "$QUICK" = 1 ]; then
    WARMUP=0 RUNS=1
    BIG_BYTES=$((4 * MiB))
    LARGE_FILES=10 LARGE_FILE_BYTES=$((256 * 1024))
    SMALL_DIRS=10 SMALL_PER_DIR=20
    RTT_TREES=("2 5")  # directories, files in each
    OUT=$BUILD/bench-quick
else
    WARMUP=1 RUNS=${BENCH_RUNS:-5}
    BIG_BYTES=$((1024 * MiB))
    LARGE_FILES=100 LARGE_FILE_BYTES=$((10 * MiB))
    SMALL_DIRS=100 SMALL_PER_DIR=100
    RTT_TREES=("10 50" "$SMALL_DIRS $SMALL_PER_DIR")
    OUT=$HERE/results
fi
[ -z "${BENCH_CASES:-}" ] || OUT=$BUILD/bench-partial
SMALL_FILES=$((SMALL_DIRS * SMALL_PER_DIR))
SMALL_BYTES=$((SMALL_FILES * 1024))
LARGE_BYTES=$((LARGE_FILES * LARGE_FILE_BYTES))
# One changed file per directory of the small tree.
CHANGED=$SMALL_DIRS
# OpenSSH's own default cipher is chacha20-poly1305; both sides of every
# comparison are given the same one.
read -r -a CIPHERS <<<"${BENCH_CIPHERS:-aes128-gcm@openssh.com chacha20-poly1305@openssh.com}"

LOAD_AT_START=$(cut -d' ' -f1-3 /proc/loadavg)
STARTED_AT=$SECONDS
WORK=$(mktemp -d "${BENCH_TMP:-/tmp}/scpkit-bench.XXXXXX")
RELAY_PID=
cleanup() {
    if [ -n "$RELAY_PID" ]; then
        kill "$RELAY_PID" 2>>"$WORK/cleanup.err" || true
        wait "$RELAY_PID" 2>>"$WORK/cleanup.err" || true
    fi
    loopback_sshd_stop
    if [ -n "${BENCH_KEEP:-}" ]; then echo "bench: kept $WORK" >&2; else rm -rf "$WORK"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# shellcheck source=engine.sh
. "$HERE/engine.sh"

# ---- the server, the relay and the data sets -------------------------------------------
mkdir -p "$WORK/sshd" "$WORK/data" "$WORK/remote" "$WORK/local"
loopback_sshd_start "$WORK/sshd"
say "bench: sshd pid $SSHD_PID on 127.0.0.1:$SSHD_PORT, work in $WORK"
HOST=127.0.0.1
DATA=$WORK/data
R=$WORK/remote   # what the tools write on the server side
L=$WORK/local    # what the tools write on the client side

# The relay listens on a free port and forwards to the sshd; the OpenSSH
# tools reach it through their own config, everyone through its known_hosts.
relay_start() {
    local port i
    for _ in $(seq 1 20); do
        port=$((20000 + RANDOM % 40000))
        [ "$port" != "$SSHD_PORT" ] || continue
        "$RELAY_PROG" "$port" "$SSHD_PORT" "$ONE_WAY_MS" >"$WORK/relay.out" 2>"$WORK/relay.err" &
        RELAY_PID=$!
        for i in $(seq 1 50); do
            grep -q '^listening' "$WORK/relay.out" && { RELAY_PORT=$port; return 0; }
            kill -0 "$RELAY_PID" 2>>"$WORK/relay.err" || break
            sleep 0.1
        done
        wait "$RELAY_PID" 2>>"$WORK/relay.err" || true
        RELAY_PID=
    done
    cat "$WORK/relay.err" >&2
    say "bench: the relay did not start"
    exit 1
}
relay_start
RELAY_KNOWN_HOSTS=$WORK/relay_known_hosts
printf '[127.0.0.1]:%s %s\n' "$RELAY_PORT" "$(cut -d' ' -f1,2 "$WORK/sshd/host_key.pub")" \
    >"$RELAY_KNOWN_HOSTS"
RELAY_SSH_CONFIG=$WORK/relay_ssh_config
sed -e "s|^\( *Port\) .*|\1 $RELAY_PORT|" \
    -e "s|^\( *UserKnownHostsFile\) .*|\1 $RELAY_KNOWN_HOSTS|" "$SSHD_SSH_CONFIG" >"$RELAY_SSH_CONFIG"
say "bench: relay pid $RELAY_PID on 127.0.0.1:$RELAY_PORT, $ONE_WAY_MS ms each way"

# make_tree DIR DIRS FILES: DIRS directories of FILES random 1 KiB files.
# Every tenth file is private and every tenth executable, and each directory
# has its own old time, so that the copies' modes and times can be checked.
make_tree() {
    local root=$1 dirs=$2 per=$3 d old
    old=$(($(date +%s) - 7200))
    for d in $(seq -w 1 "$dirs"); do
        mkdir -p "$root/dir$d"
        head -c $((per * 1024)) /dev/urandom | split -b 1024 -d -a 3 - "$root/dir$d/file"
        find "$root/dir$d" -name 'file*3' -exec chmod 600 {} +
        find "$root/dir$d" -name 'file*7' -exec chmod 755 {} +
        touch -d "@$((old - 10#$d * 60))" "$root/dir$d"/file*
    done
}

# make_data NAME: makes a data set the first time a case that runs needs it.
# Random bytes: nothing compresses, nothing is sparse. The files get an old
# time, so that a change made later is strictly newer.
make_data() {
    local path=$DATA/$1
    [ -e "$path" ] && return 0
    say "bench: making $1"
    case $1 in
        big.bin) head -c "$BIG_BYTES" /dev/urandom >"$path" ;;
        # What the overwriting downloads find in their place: other bytes,
        # and longer, so that a copy that keeps any of it fails the check.
        old.bin) head -c $((BIG_BYTES + MiB)) /dev/urandom >"$path" ;;
        # Printable ASCII in lines, for the download into a string.
        text.txt)
            head -c $((BIG_BYTES * 3 / 4)) /dev/urandom | base64 -w 99 >"$path"
            truncate -s "$BIG_BYTES" "$path"
            ;;
        large)
            mkdir -p "$path"
            head -c "$LARGE_BYTES" /dev/urandom | split -b "$LARGE_FILE_BYTES" -d -a 3 - "$path/file"
            ;;
        small) make_tree "$path" "$SMALL_DIRS" "$SMALL_PER_DIR" ;;
        tree*) make_tree "$path" "$TREE_DIRS" "$TREE_PER_DIR" ;;
    esac
    [ -d "$path" ] || touch -d '2 hours ago' "$path"
    [ "$1" != large ] || find "$path" -exec touch -h -d '2 hours ago' {} +
}
# needs NAME...: the data sets the current case reads.
needs() {
    [ "$SKIP" = 0 ] || return 0
    local name
    for name in "$@"; do make_data "$name"; done
}

# tree_listing DIR: every directory with its mode, every file with its mode,
# size and modification time in whole seconds (what scp -p keeps).
tree_listing() {
    (cd "$1" && find . \( -type d -printf 'd %m %P\n' \) -o \( -type f -printf 'f %m %s %T@ %P\n' \)) |
        sed -E 's/^(f [0-7]+ [0-9]+ [0-9]+)\.[0-9]* /\1 /' | LC_ALL=C sort
}
# same_tree SOURCE COPY: the same bytes, modes and times.
same_tree() {
    diff -r "$1" "$2" && diff <(tree_listing "$1") <(tree_listing "$2")
}

# ---- the tools -----------------------------------------------------------------
# ours CIPHER: the library program with the cipher; cli CIPHER: the scpkit program.
ours() {
    printf '%q ' "$BENCH_PROG" --port "$SSHD_PORT" --key "$SSHD_CLIENT_KEY" \
        --known-hosts "$SSHD_KNOWN_HOSTS" --cipher "$1"
}
# The scpkit program is given its cipher with -c when it has that option;
# before that, it took it from ~/.ssh/config, so it runs with a HOME whose
# config asks for the case's cipher.
CLI_HAS_CIPHER_OPTION=0
if [ -x "$CLI_PROG" ] && "$CLI_PROG" --help >"$WORK/cli-help.out" 2>&1 &&
    grep -qE '^ *-c[, ]' "$WORK/cli-help.out"; then
    CLI_HAS_CIPHER_OPTION=1
fi
cli_home() {
    local home=$WORK/home-${1%%@*}
    [ "$CLI_HAS_CIPHER_OPTION" = 1 ] && home=$WORK/home-empty
    if [ ! -d "$home" ]; then
        mkdir -p "$home/.ssh"
        [ "$CLI_HAS_CIPHER_OPTION" = 1 ] || printf 'Host %s\n    Ciphers %s\n' "$HOST" "$1" >"$home/.ssh/config"
    fi
    printf '%s' "$home"
}
# cli_at PORT KNOWN_HOSTS CIPHER
cli_at() {
    printf 'env HOME=%q %q -P %s -i %q --known-hosts %q -q ' "$(cli_home "$3")" "$CLI_PROG" \
        "$1" "$SSHD_CLIENT_KEY" "$2"
    [ "$CLI_HAS_CIPHER_OPTION" = 0 ] || printf -- '-c %s ' "$3"
}
cli() { cli_at "$SSHD_PORT" "$SSHD_KNOWN_HOSTS" "$1"; }
cli_relay() { cli_at "$RELAY_PORT" "$RELAY_KNOWN_HOSTS" "$1"; }
scp_O() { printf 'scp -O -F %q -c %s ' "$SSHD_SSH_CONFIG" "$1"; }
scp_relay() { printf 'scp -O -F %q -c %s ' "$RELAY_SSH_CONFIG" "$1"; }
ssh_c() { printf 'ssh -F %q -c %s %s ' "$SSHD_SSH_CONFIG" "$1" "$HOST"; }
rsync_a() { printf 'rsync -a -e %q ' "ssh -F $SSHD_SSH_CONFIG -c $1"; }
rsync_relay() { printf 'rsync -a -e %q ' "ssh -F $RELAY_SSH_CONFIG -c $1"; }

USE_CLI=0
if [ -x "$CLI_PROG" ]; then
    USE_CLI=1
    # The program must use the cipher it is given: a cipher the server
    # refuses has to fail, the case's cipher has to work.
    probe=$WORK/probe.bin
    head -c 1024 /dev/urandom >"$probe"
    if eval "$(cli 3des-cbc) put $probe $HOST:$R/probe" >"$WORK/probe.out" 2>&1 ||
        ! eval "$(cli "${CIPHERS[0]}") put $probe $HOST:$R/probe" >"$WORK/probe.out" 2>&1; then
        say "bench: the scpkit program does not use the cipher it is given;" \
            "the single-file rows use the library program, the relay cases are left out"
        USE_CLI=0
    fi
fi
single_up() {  # CIPHER LOCAL REMOTE
    if [ "$USE_CLI" = 1 ]; then echo "$(cli "$1") put $2 $HOST:$3"; else echo "$(ours "$1") put $2 $3"; fi
}
single_down() {  # CIPHER REMOTE LOCAL
    if [ "$USE_CLI" = 1 ]; then echo "$(cli "$1") get $HOST:$2 $3"; else echo "$(ours "$1") get $2 $3"; fi
}
if [ "$USE_CLI" = 1 ]; then PUT_NAME="scpkit put" GET_NAME="scpkit get"
else PUT_NAME="UploadFile (library program)" GET_NAME="DownloadFile (library program)"; fi
# In-memory rows: the library program timing its own transfer, checking
# what it received against the file.
memory() { printf '%s--elapsed-file %q --verify ' "$(ours "$1")" "$ELAPSED_FILE"; }
DISCARD=$(printf '%q' "$DISCARD_PROG")

human() {  # BYTES -> short size
    awk -v b="$1" 'BEGIN { if (b >= 1073741824) printf "%g GiB", b / 1073741824;
                            else if (b >= 1048576) printf "%g MiB", b / 1048576;
                            else printf "%g KiB", b / 1024 }'
}

# Memory goals, in MiB: a transfer through a file, and one that holds the data.
STREAM_MIB=16
HOLD_MIB=$((BIG_BYTES / MiB + 16))

# ---- one big file, both ways ------------------------------------------------
BIG=$DATA/big.bin
OLD=$DATA/old.bin
TEXT=$DATA/text.txt
BIGNAME=$(human "$BIG_BYTES")
for c in "${CIPHERS[@]}"; do
    cn=${c%%@*}
    group "$BIGNAME file up, $cn" "$BIG_BYTES"
    needs big.bin
    row anchor "scp -O" "rm -f $R/big.scp" "$(scp_O "$c") $BIG $HOST:$R/big.scp"
    row ours "$PUT_NAME" "rm -f $R/big.put" "$(single_up "$c" "$BIG" "$R/big.put")"
    row ours "UploadBinary" "rm -f $R/big.mem" "$(memory "$c") put-memory $BIG $R/big.mem"
    row ref "ssh to discard (ceiling)" "" "$(ssh_c "$c") $DISCARD < $BIG"
    target faster 2 1 1.10 "scp -O"
    target faster 3 1 1.00 "scp -O"
    target info 2 4 "" "the transport's ceiling"
    target memory 2 0 "$STREAM_MIB" "peak RSS"
    target memory 3 0 "$HOLD_MIB" "peak RSS (the data + 16 MiB)"
    run_group
    verify "uploaded bytes differ (put)" cmp "$BIG" "$R/big.put"
    verify "uploaded bytes differ (UploadBinary)" cmp "$BIG" "$R/big.mem"
    verify "uploaded bytes differ (scp -O)" cmp "$BIG" "$R/big.scp"

    group "$BIGNAME file down, $cn" "$BIG_BYTES"
    needs big.bin
    row anchor "scp -O" "rm -f $L/big.scp" "$(scp_O "$c") $HOST:$BIG $L/big.scp"
    row ours "$GET_NAME" "rm -f $L/big.get" "$(single_down "$c" "$BIG" "$L/big.get")"
    row ours "DownloadBinary" "" "$(memory "$c") get-memory $BIG"
    row ours "DownloadBd" "" "$(memory "$c") get-bd $BIG"
    row ref "ssh cat (ceiling)" "" "$(ssh_c "$c") 'cat $BIG' | $DISCARD"
    target faster 2 1 1.10 "scp -O"
    target ceiling 2 5 15 "the transport's ceiling"
    target faster 3 1 1.00 "scp -O"
    target faster 4 1 1.00 "scp -O"
    target memory 2 0 "$STREAM_MIB" "peak RSS"
    target memory 3 0 "$HOLD_MIB" "peak RSS (the data + 16 MiB)"
    target memory 4 0 "$HOLD_MIB" "peak RSS (the data + 16 MiB)"
    run_group
    verify "downloaded bytes differ (get)" cmp "$BIG" "$L/big.get"
    verify "downloaded bytes differ (scp -O)" cmp "$BIG" "$L/big.scp"
    rm -f "$R"/big.* "$L"/big.*
done

# Writing over a file and downloading text do not depend on the cipher: the
# first one only.
c=${CIPHERS[0]} cn=${CIPHERS[0]%%@*}
group "$BIGNAME file down over an existing file, $cn" "$BIG_BYTES"
needs big.bin old.bin
row anchor "scp -O" "cp $OLD $L/over.scp" "$(scp_O "$c") $HOST:$BIG $L/over.scp"
row ours "$GET_NAME" "cp $OLD $L/over.get" "$(single_down "$c" "$BIG" "$L/over.get")"
target faster 2 1 1.10 "scp -O"
target memory 2 0 "$STREAM_MIB" "peak RSS"
run_group
verify "downloaded bytes differ (get over a file)" cmp "$BIG" "$L/over.get"
verify "downloaded bytes differ (scp -O over a file)" cmp "$BIG" "$L/over.scp"
rm -f "$L"/over.*

group "$BIGNAME text file down, $cn" "$BIG_BYTES"
needs text.txt
row anchor "scp -O" "rm -f $L/text.scp" "$(scp_O "$c") $HOST:$TEXT $L/text.scp"
row ours "DownloadString (utf-8)" "" "$(memory "$c") get-string $TEXT utf-8"
target faster 2 1 1.00 "scp -O"
target memory 2 0 "$HOLD_MIB" "peak RSS (the data + 16 MiB)"
run_group
verify "downloaded text differs (scp -O)" cmp "$TEXT" "$L/text.scp"
rm -f "$L"/text.*

# ---- whole trees, mode 0 (copy everything) -------------------------------------
tree_cases() {  # CIPHER DATA-SET TITLE BYTES
    local c=$1 t=$2 name=$3 src=$DATA/$2 bytes=$4
    group "$name up, ${c%%@*}" "$bytes"
    needs "$t"
    row anchor "scp -O -r -p" "rm -rf $R/$t.scp" "$(scp_O "$c") -r -p $src $HOST:$R/$t.scp"
    row ours "SyncTreeUpload mode 0" "rm -rf $R/$t.ours; mkdir -p $R/$t.ours" \
        "$(ours "$c") tree-up 0 $src $R/$t.ours"
    row ref "rsync -a" "rm -rf $R/$t.rsync" "$(rsync_a "$c") $src/ $HOST:$R/$t.rsync/"
    target faster 2 1 1.00 "scp -O -r -p"
    run_group
    local tool
    for tool in ours scp rsync; do
        verify "uploaded tree differs ($tool)" same_tree "$src" "$R/$t.$tool"
    done

    group "$name down, ${c%%@*}" "$bytes"
    needs "$t"
    row anchor "scp -O -r -p" "rm -rf $L/$t.scp" "$(scp_O "$c") -r -p $HOST:$src $L/$t.scp"
    row ours "SyncTreeDownload mode 0" "rm -rf $L/$t.ours" "$(ours "$c") tree-down 0 $src $L/$t.ours"
    row ref "rsync -a" "rm -rf $L/$t.rsync" "$(rsync_a "$c") $HOST:$src/ $L/$t.rsync/"
    target faster 2 1 1.00 "scp -O -r -p"
    run_group
    for tool in ours scp rsync; do
        verify "downloaded tree differs ($tool)" same_tree "$src" "$L/$t.$tool"
    done
    rm -rf "$R/$t".* "$L/$t".*
}
for c in "${CIPHERS[@]}"; do
    tree_cases "$c" large "$LARGE_FILES x $(human "$LARGE_FILE_BYTES") tree" "$LARGE_BYTES"
    tree_cases "$c" small "$SMALL_FILES x 1 KiB tree" "$SMALL_BYTES"
done

# ---- re-syncs of the small tree -------------------------------------------------
c=${CIPHERS[0]}
SMALL=$DATA/small
# copy_of SOURCE COPY...: identical copies, made untimed before a no-op case.
copy_of() {
    [ "$SKIP" = 0 ] || return 0
    local src=$1 copy
    shift
    for copy in "$@"; do rm -rf "$copy"; cp -a "$src" "$copy"; done
}
# The floor of any protocol that spends one round trip per file.
FLOOR="$(ours "$c") round-trips $SMALL_FILES"

group "no-op re-sync down, $SMALL_FILES files, ${c%%@*}" 0
needs small
copy_of "$SMALL" "$L"/noop.{m2,m6,rsync}
row anchor "rsync -a" "" "$(rsync_a "$c") $HOST:$SMALL/ $L/noop.rsync/"
row ours "SyncTreeDownload mode 2" "" "$(ours "$c") tree-down 2 $SMALL $L/noop.m2"
row ours "SyncTreeDownload mode 6" "" "$(ours "$c") tree-down 6 $SMALL $L/noop.m6"
row ref "$SMALL_FILES round trips (floor)" "" "$FLOOR"
target info 2 1 "" "rsync"
target info 3 1 "" "rsync"
target info 2 4 "" "the floor of one round trip per file"
run_group

group "no-op re-sync up, $SMALL_FILES files, ${c%%@*}" 0
needs small
copy_of "$SMALL" "$R"/noop.{m2,m5,rsync}
row anchor "rsync -a" "" "$(rsync_a "$c") $SMALL/ $HOST:$R/noop.rsync/"
row ours "SyncTreeUpload mode 2" "" "$(ours "$c") tree-up 2 $SMALL $R/noop.m2"
row ours "SyncTreeUpload mode 5" "" "$(ours "$c") tree-up 5 $SMALL $R/noop.m5"
row ref "$SMALL_FILES round trips (floor)" "" "$FLOOR"
target info 2 1 "" "rsync"
target info 3 1 "" "rsync"
target info 2 4 "" "the floor of one round trip per file"
run_group
for d in m2 m5 rsync; do
    verify "no-op upload changed the tree ($d)" same_tree "$SMALL" "$R/noop.$d"
done

# Before every run the first file of each directory gets new bytes and a
# newer time, so each tool finds exactly CHANGED files to copy.
STAMP=$(date +%s)
change_small() {
    STAMP=$((STAMP + 1))
    local d
    for d in "$SMALL"/dir*; do
        head -c 1024 /dev/urandom >"$d/file000"
        touch -d "@$STAMP" "$d/file000"
    done
}
group "re-sync of $CHANGED changed files down, ${c%%@*}" $((CHANGED * 1024))
needs small
copy_of "$SMALL" "$L"/noop.{m2,rsync}
row anchor "rsync -a" "change_small" "$(rsync_a "$c") $HOST:$SMALL/ $L/noop.rsync/"
row ours "SyncTreeDownload mode 2" "change_small" "$(ours "$c") tree-down 2 $SMALL $L/noop.m2"
target info 2 1 "" "rsync"
run_group
verify "changed files not downloaded" same_tree "$SMALL" "$L/noop.m2"

group "re-sync of $CHANGED changed files up, ${c%%@*}" $((CHANGED * 1024))
needs small
copy_of "$SMALL" "$R"/noop.{m2,rsync}
row anchor "rsync -a" "change_small" "$(rsync_a "$c") $SMALL/ $HOST:$R/noop.rsync/"
row ours "SyncTreeUpload mode 2" "change_small" "$(ours "$c") tree-up 2 $SMALL $R/noop.m2"
target info 2 1 "" "rsync"
run_group
verify "changed files not uploaded" same_tree "$SMALL" "$R/noop.m2"
rm -rf "$L"/noop.* "$R"/noop.*

# ---- trees over a 10 ms round trip --------------------------------------------------
# Everything goes through the relay: the scpkit program with its defaults,
# scp -O -r -p and rsync -a, with the first cipher. scp spends about 35 ms a
# file at this latency, so it runs in fewer rounds (a single one over 10,000
# files: about 6 minutes each way).
rtt_cases() {  # DIRS FILES-PER-DIR
    local files=$(($1 * $2)) c=${CIPHERS[0]}
    local data=tree$files scp_rounds=3 title="$files files" tool
    # The 10,000-file tree is the small tree of the cases above.
    [ "$1" = "$SMALL_DIRS" ] && [ "$2" = "$SMALL_PER_DIR" ] && data=small
    local src=$DATA/$data
    TREE_DIRS=$1 TREE_PER_DIR=$2
    [ "$files" -le 1000 ] || scp_rounds=1
    [ "$QUICK" = 0 ] || scp_rounds=
    local up=$R/rtt down=$L/rtt rtt="$((2 * ONE_WAY_MS)) ms RTT, ${c%%@*}"

    group "$title push, $rtt" $((files * 1024)) rtt
    needs "$data"
    case_rounds 1 3
    row anchor "rsync -a" "rm -rf $up.rsync" "$(rsync_relay "$c") $src/ $HOST:$up.rsync/"
    row ours "scpkit push" "rm -rf $up.cli" "$(cli_relay "$c") push $src $HOST:$up.cli"
    row ref "scp -O -r -p" "rm -rf $up.scp" "$(scp_relay "$c") -r -p $src $HOST:$up.scp" "$scp_rounds"
    target within 2 1 2 "rsync"
    run_group
    for tool in cli scp rsync; do
        verify "pushed tree differs ($tool)" same_tree "$src" "$up.$tool"
    done
    rm -rf "$up".*
    # The quick run checks the relay with this one case.
    [ "$QUICK" = 0 ] || return 0

    group "$title pull, $rtt" $((files * 1024)) rtt
    needs "$data"
    case_rounds 1 3
    row anchor "rsync -a" "rm -rf $down.rsync" "$(rsync_relay "$c") $HOST:$src/ $down.rsync/"
    row ours "scpkit pull" "rm -rf $down.cli" "$(cli_relay "$c") pull $HOST:$src $down.cli"
    row ref "scp -O -r -p" "rm -rf $down.scp" "$(scp_relay "$c") -r -p $HOST:$src $down.scp" "$scp_rounds"
    target within 2 1 2 "rsync"
    run_group
    for tool in cli scp rsync; do
        verify "pulled tree differs ($tool)" same_tree "$src" "$down.$tool"
    done
    rm -rf "$down".*

    group "$title no-op push, $rtt" 0 rtt
    needs "$data"
    copy_of "$src" "$up".{cli,rsync}
    row anchor "rsync -a" "" "$(rsync_relay "$c") $src/ $HOST:$up.rsync/"
    row ours "scpkit push --mode newer" "" "$(cli_relay "$c") push --mode newer $src $HOST:$up.cli"
    target within 2 1 3 "rsync"
    run_group
    for tool in cli rsync; do
        verify "no-op push changed the tree ($tool)" same_tree "$src" "$up.$tool"
    done
    rm -rf "$up".*

    group "$title no-op pull, $rtt" 0 rtt
    needs "$data"
    copy_of "$src" "$down".{cli,rsync}
    row anchor "rsync -a" "" "$(rsync_relay "$c") $HOST:$src/ $down.rsync/"
    row ours "scpkit pull --mode newer" "" "$(cli_relay "$c") pull --mode newer $HOST:$src $down.cli"
    target within 2 1 3 "rsync"
    run_group
    for tool in cli rsync; do
        verify "no-op pull changed the tree ($tool)" same_tree "$src" "$down.$tool"
    done
    rm -rf "$down".*
}
if [ "$USE_CLI" = 1 ]; then
    for shape in "${RTT_TREES[@]}"; do
        # shellcheck disable=SC2086
        rtt_cases $shape
    done
fi

# ---- the report ---------------------------------------------------------------------
mkdir -p "$OUT"
RUN_MINUTES=$(((SECONDS - STARTED_AT + 59) / 60))
write_report "$OUT"
say "bench: wrote $OUT/latest.md, latest.svg and latest-rtt.svg"
