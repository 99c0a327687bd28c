#!/usr/bin/env bash
# scpkit against OpenSSH scp, ssh and rsync over a throwaway loopback sshd.
#
#   bash bench/run.sh BUILD_DIR [--quick]      (./run bench [--quick] builds first)
#
# Every case runs its tools side by side in turn (A B C A B C ...): a warm-up
# round, then the counted rounds. Wall time is measured around each process,
# client CPU (user+sys, the process and its children) and peak RSS come from
# /usr/bin/time. The table goes to standard output and, with a chart, to
# bench/results/latest.md and latest.svg.
#
# --quick: tiny data sets, one run of each tool, results under BUILD_DIR/bench-quick.
# It checks that the harness works; it says nothing about speed.
#
# Environment: BENCH_RUNS (counted rounds, default 5), BENCH_CIPHERS (space-
# separated), BENCH_CASES (a regular expression: only the cases whose title
# matches run; the results then go to BUILD_DIR/bench-partial), BENCH_TMP (where the data sets go, default /tmp), BENCH_KEEP=1
# (keep the work directory with the data sets and raw samples).
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
[ -x "$BENCH_PROG" ] || { echo "bench: $BENCH_PROG is missing (build first)" >&2; exit 1; }
for tool in /usr/bin/time scp ssh rsync gnuplot; do
    command -v "$tool" >/dev/null || { echo "bench: $tool is missing (./run setup)" >&2; exit 1; }
done

MiB=$((1024 * 1024))
if [ "$QUICK" = 1 ]; then
    WARMUP=0 RUNS=1
    BIG_BYTES=$((4 * MiB))
    LARGE_FILES=10 LARGE_FILE_BYTES=$((256 * 1024))
    SMALL_DIRS=10 SMALL_PER_DIR=20
    OUT=$BUILD/bench-quick
else
    WARMUP=1 RUNS=${BENCH_RUNS:-5}
    BIG_BYTES=$((1024 * MiB))
    LARGE_FILES=100 LARGE_FILE_BYTES=$((10 * MiB))
    SMALL_DIRS=100 SMALL_PER_DIR=100
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
CIPHERS=(${BENCH_CIPHERS:-aes128-gcm@openssh.com chacha20-poly1305@openssh.com})

LOAD_AT_START=$(cut -d' ' -f1-3 /proc/loadavg)
WORK=$(mktemp -d "${BENCH_TMP:-/tmp}/scpkit-bench.XXXXXX")
cleanup() {
    loopback_sshd_stop
    if [ -n "${BENCH_KEEP:-}" ]; then say "bench: kept $WORK"; else rm -rf "$WORK"; fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

say() { printf '%s\n' "$*" >&2; }

# ---- the server and the data sets --------------------------------------------
mkdir -p "$WORK/sshd" "$WORK/data" "$WORK/remote" "$WORK/local"
loopback_sshd_start "$WORK/sshd"
say "bench: sshd pid $SSHD_PID on 127.0.0.1:$SSHD_PORT, work in $WORK"
HOST=127.0.0.1
DATA=$WORK/data
R=$WORK/remote   # what the tools write on the server side
L=$WORK/local    # what the tools write on the client side

# Random bytes: nothing compresses, nothing is sparse. Every file gets the
# same old time, so that a change made later is strictly newer.
say "bench: making the data sets"
head -c "$BIG_BYTES" /dev/urandom >"$DATA/big.bin"
mkdir -p "$DATA/large"
head -c "$LARGE_BYTES" /dev/urandom |
    split -b "$LARGE_FILE_BYTES" -d -a 3 - "$DATA/large/file"
mkdir -p "$DATA/small"
for d in $(seq -w 1 "$SMALL_DIRS"); do
    mkdir -p "$DATA/small/dir$d"
    head -c $((SMALL_PER_DIR * 1024)) /dev/urandom |
        split -b 1024 -d -a 3 - "$DATA/small/dir$d/file"
done
touch -h -d '2 hours ago' "$DATA/big.bin"
find "$DATA/large" "$DATA/small" -exec touch -h -d '2 hours ago' {} +
[ "$(find "$DATA/small" -type f | wc -l)" = "$SMALL_FILES" ] || { say "bench: small tree wrong"; exit 1; }

# ---- the tools -----------------------------------------------------------------
# ours CIPHER: the library program with the cipher; cli CIPHER: the scpkit program.
ours() {
    printf '%q ' "$BENCH_PROG" --port "$SSHD_PORT" --key "$SSHD_CLIENT_KEY" \
        --known-hosts "$SSHD_KNOWN_HOSTS" --cipher "$1"
}
# The scpkit program chooses its cipher from ~/.ssh/config, so it runs with
# a HOME whose config asks for the case's cipher.
cli_home() {
    local home=$WORK/home-${1%%@*}
    if [ ! -d "$home" ]; then
        mkdir -p "$home/.ssh"
        printf 'Host %s\n    Ciphers %s\n' "$HOST" "$1" >"$home/.ssh/config"
    fi
    printf '%s' "$home"
}
cli() {
    printf 'env HOME=%q %q -P %s -i %q --known-hosts %q -q ' "$(cli_home "$1")" "$CLI_PROG" \
        "$SSHD_PORT" "$SSHD_CLIENT_KEY" "$SSHD_KNOWN_HOSTS"
}
scp_O() { printf 'scp -O -F %q -c %s ' "$SSHD_SSH_CONFIG" "$1"; }
ssh_c() { printf 'ssh -F %q -c %s %s ' "$SSHD_SSH_CONFIG" "$1" "$HOST"; }
rsync_a() { printf 'rsync -a -e %q ' "ssh -F $SSHD_SSH_CONFIG -c $1"; }

USE_CLI=0
if [ -x "$CLI_PROG" ]; then
    USE_CLI=1
    # The program must take its cipher from the config it is given: a cipher
    # the server refuses has to fail, the case's cipher has to work.
    if eval "$(cli 3des-cbc) put $DATA/large/file000 $HOST:$R/probe" >/dev/null 2>&1 ||
        ! eval "$(cli "${CIPHERS[0]}") put $DATA/large/file000 $HOST:$R/probe" >/dev/null 2>&1; then
        say "bench: the scpkit program does not take its cipher from ~/.ssh/config;" \
            "the single-file rows use the library program"
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

# ---- the measuring engine --------------------------------------------------------
SAMPLES=$WORK/samples.tsv   # group, row, wall s, cpu s, rss KiB
GROUPS_FILE=$WORK/groups.tsv  # group, title, bytes
ROWS_FILE=$WORK/rows.tsv    # group, row, kind, label
TARGETS_FILE=$WORK/targets.tsv
: >"$SAMPLES"
: >"$TARGETS_FILE"
: >"$GROUPS_FILE"
: >"$ROWS_FILE"
GROUP=0 SKIP=0
ROW_LABELS=() ROW_KINDS=() ROW_PREPS=() ROW_CMDS=()

# group TITLE BYTES: starts a case; its first row of kind "anchor" is what
# the others are compared with.
group() {
    SKIP=0
    if [ -n "${BENCH_CASES:-}" ] && ! [[ $1 =~ $BENCH_CASES ]]; then
        SKIP=1
        return 0
    fi
    GROUP=$((GROUP + 1))
    printf '%s\t%s\t%s\n' "$GROUP" "$1" "$2" >>"$GROUPS_FILE"
    ROW_LABELS=() ROW_KINDS=() ROW_PREPS=() ROW_CMDS=()
}
# row KIND LABEL PREP COMMAND: KIND is ours, anchor or ref (a reference such
# as the transport ceiling); PREP runs untimed before every run.
row() {
    [ "$SKIP" = 0 ] || return 0
    ROW_KINDS+=("$1") ROW_LABELS+=("$2") ROW_PREPS+=("$3") ROW_CMDS+=("$4")
    printf '%s\t%s\t%s\t%s\n' "$GROUP" "${#ROW_LABELS[@]}" "$1" "$2" >>"$ROWS_FILE"
}

# target KIND OUR_ROW REFERENCE_ROW TEXT: a goal on the current case
# (kinds: faster, ceiling, ratio, memory; see report.sh).
target() {
    [ "$SKIP" = 0 ] || return 0
    printf '%s\t%s\t%s\t%s\t%s\n' "$1" "$GROUP" "$2" "$3" "$4" >>"$TARGETS_FILE"
}

# verify MESSAGE COMMAND...: after a case, checks what the tools wrote.
verify() {
    [ "$SKIP" = 0 ] || return 0
    local message=$1
    shift
    "$@" >/dev/null || { say "bench: $message"; exit 1; }
}

ELAPSED_FILE=$WORK/elapsed
# Runs one row once, appending its sample when COUNT is 1.
run_row() {
    local i=$1 count=$2 tf=$WORK/time.out ef=$WORK/stderr.out
    eval "${ROW_PREPS[$i]}"
    [ "$QUICK" = 1 ] || sync
    rm -f "$ELAPSED_FILE" "$tf"
    local t0=$EPOCHREALTIME status=0
    eval "/usr/bin/time -f '%U %S %M' -o $tf ${ROW_CMDS[$i]}" >/dev/null 2>"$ef" </dev/null || status=$?
    local t1=$EPOCHREALTIME
    if [ "$status" != 0 ]; then
        say "bench: FAILED (status $status): ${ROW_LABELS[$i]}"
        say "  command: ${ROW_CMDS[$i]}"
        sed 's/^/  | /' "$ef" | head -40 >&2
        exit 1
    fi
    local wall user sys rss
    wall=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.6f", b - a }')
    # The in-memory rows time their transfer themselves, without the loading.
    [ -s "$ELAPSED_FILE" ] && wall=$(cat "$ELAPSED_FILE")
    read -r user sys rss < <(tail -1 "$tf")
    printf '   %-44s %8.3f s\n' "${ROW_LABELS[$i]}" "$wall" >&2
    [ "$count" = 1 ] || return 0
    printf '%s\t%s\t%s\t%s\t%s\n' "$GROUP" "$((i + 1))" "$wall" \
        "$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.3f", u + s }')" "$rss" >>"$SAMPLES"
}

# Runs the current case: warm-up rounds, then counted rounds, each running
# every row once in the same order.
run_group() {
    [ "$SKIP" = 0 ] || return 0
    local title
    title=$(awk -F'\t' -v g="$GROUP" '$1 == g { print $2 }' "$GROUPS_FILE")
    say "bench: [$GROUP] $title"
    local round n=${#ROW_CMDS[@]}
    for ((round = 0; round < WARMUP + RUNS; round++)); do
        local count=0
        [ "$round" -ge "$WARMUP" ] && count=1
        [ "$count" = 1 ] || say "  (warm-up)"
        for ((i = 0; i < n; i++)); do run_row "$i" "$count"; done
    done
}

human() {  # BYTES -> short size
    awk -v b="$1" 'BEGIN { if (b >= 1073741824) printf "%g GiB", b / 1073741824;
                            else if (b >= 1048576) printf "%g MiB", b / 1048576;
                            else printf "%g KiB", b / 1024 }'
}

# ---- 1, 2, 5: one big file, both ways -------------------------------------------
BIG=$DATA/big.bin
BIGNAME=$(human "$BIG_BYTES")
for c in "${CIPHERS[@]}"; do
    group "$BIGNAME file up, ${c%%@*}" "$BIG_BYTES"
    row anchor "scp -O" "rm -f $R/big.scp" "$(scp_O "$c") $BIG $HOST:$R/big.scp"
    row ours "$PUT_NAME" "rm -f $R/big.put" "$(single_up "$c" "$BIG" "$R/big.put")"
    row ours "UploadBinary" "rm -f $R/big.mem" \
        "$(ours "$c") --elapsed-file $ELAPSED_FILE put-memory $BIG $R/big.mem"
    row ref "ssh cat > /dev/null (ceiling)" "" "$(ssh_c "$c") 'cat > /dev/null' < $BIG"
    target faster 2 1 "at least as fast as scp -O"
    target ceiling 2 4 "close to the transport's ceiling"
    target memory 2 0 "memory"
    run_group
    verify "uploaded bytes differ" cmp "$BIG" "$R/big.put"
    verify "uploaded bytes differ" cmp "$BIG" "$R/big.mem"

    group "$BIGNAME file down, ${c%%@*}" "$BIG_BYTES"
    row anchor "scp -O" "rm -f $L/big.scp" "$(scp_O "$c") $HOST:$BIG $L/big.scp"
    row ours "$GET_NAME" "rm -f $L/big.get" "$(single_down "$c" "$BIG" "$L/big.get")"
    row ours "DownloadBinary" "" "$(ours "$c") --elapsed-file $ELAPSED_FILE get-memory $BIG"
    row ref "ssh cat > /dev/null (ceiling)" "" "$(ssh_c "$c") 'cat $BIG' > /dev/null"
    target faster 2 1 "at least as fast as scp -O"
    target ceiling 2 4 "close to the transport's ceiling"
    target memory 2 0 "memory"
    run_group
    verify "downloaded bytes differ" cmp "$BIG" "$L/big.get"
    rm -f "$R"/big.* "$L"/big.*
done

# ---- 3: whole trees, mode 0 (copy everything) -------------------------------------
tree_cases() {  # CIPHER SHORT-NAME TITLE SOURCE BYTES
    local c=$1 t=$2 name=$3 src=$4 bytes=$5
    group "$name up, ${c%%@*}" "$bytes"
    row anchor "scp -O -r -p" "rm -rf $R/$t.scp" "$(scp_O "$c") -r -p $src $HOST:$R/$t.scp"
    row ours "SyncTreeUpload mode 0" "rm -rf $R/$t.ours; mkdir -p $R/$t.ours" \
        "$(ours "$c") tree-up 0 $src $R/$t.ours"
    row ref "rsync -a" "rm -rf $R/$t.rsync" "$(rsync_a "$c") $src/ $HOST:$R/$t.rsync/"
    target faster 2 1 "at least as fast as scp -O -r -p"
    run_group
    verify "uploaded tree differs" diff -r "$src" "$R/$t.ours"

    group "$name down, ${c%%@*}" "$bytes"
    row anchor "scp -O -r -p" "rm -rf $L/$t.scp" "$(scp_O "$c") -r -p $HOST:$src $L/$t.scp"
    row ours "SyncTreeDownload mode 0" "rm -rf $L/$t.ours" "$(ours "$c") tree-down 0 $src $L/$t.ours"
    row ref "rsync -a" "rm -rf $L/$t.rsync" "$(rsync_a "$c") $HOST:$src/ $L/$t.rsync/"
    target faster 2 1 "at least as fast as scp -O -r -p"
    run_group
    verify "downloaded tree differs" diff -r "$src" "$L/$t.ours"
    rm -rf "$R/$t".* "$L/$t".*
}
for c in "${CIPHERS[@]}"; do
    tree_cases "$c" large "$LARGE_FILES x $(human "$LARGE_FILE_BYTES") tree" "$DATA/large" "$LARGE_BYTES"
    tree_cases "$c" small "$SMALL_FILES x 1 KiB tree" "$DATA/small" "$SMALL_BYTES"
done

# ---- 4: re-syncs of the small tree -------------------------------------------------
c=${CIPHERS[0]}
SMALL=$DATA/small
copy_of_small() { rm -rf "$1"; cp -a "$SMALL" "$1"; }
# The floor of any protocol that spends one round trip per file.
FLOOR="$(ours "$c") round-trips $SMALL_FILES"

for d in m2 m6 rsync; do copy_of_small "$L/noop.$d"; done
group "no-op re-sync down, $SMALL_FILES files, ${c%%@*}" 0
row anchor "rsync -a" "" "$(rsync_a "$c") $HOST:$SMALL/ $L/noop.rsync/"
row ours "SyncTreeDownload mode 2" "" "$(ours "$c") tree-down 2 $SMALL $L/noop.m2"
row ours "SyncTreeDownload mode 6" "" "$(ours "$c") tree-down 6 $SMALL $L/noop.m6"
row ref "$SMALL_FILES round trips (floor)" "" "$FLOOR"
target ratio 2 1 "against rsync"
target ratio 3 1 "against rsync"
target ratio 2 4 "against the floor of one round trip per file"
run_group

for d in m2 m5 rsync; do copy_of_small "$R/noop.$d"; done
group "no-op re-sync up, $SMALL_FILES files, ${c%%@*}" 0
row anchor "rsync -a" "" "$(rsync_a "$c") $SMALL/ $HOST:$R/noop.rsync/"
row ours "SyncTreeUpload mode 2" "" "$(ours "$c") tree-up 2 $SMALL $R/noop.m2"
row ours "SyncTreeUpload mode 5" "" "$(ours "$c") tree-up 5 $SMALL $R/noop.m5"
row ref "$SMALL_FILES round trips (floor)" "" "$FLOOR"
target ratio 2 1 "against rsync"
target ratio 3 1 "against rsync"
target ratio 2 4 "against the floor of one round trip per file"
run_group
for d in m2 m5 rsync; do
    verify "no-op upload changed the tree" diff -r "$SMALL" "$R/noop.$d"
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
row anchor "rsync -a" "change_small" "$(rsync_a "$c") $HOST:$SMALL/ $L/noop.rsync/"
row ours "SyncTreeDownload mode 2" "change_small" "$(ours "$c") tree-down 2 $SMALL $L/noop.m2"
target ratio 2 1 "against rsync"
run_group
verify "changed files not downloaded" diff -r "$SMALL" "$L/noop.m2"

group "re-sync of $CHANGED changed files up, ${c%%@*}" $((CHANGED * 1024))
row anchor "rsync -a" "change_small" "$(rsync_a "$c") $SMALL/ $HOST:$R/noop.rsync/"
row ours "SyncTreeUpload mode 2" "change_small" "$(ours "$c") tree-up 2 $SMALL $R/noop.m2"
target ratio 2 1 "against rsync"
run_group
verify "changed files not uploaded" diff -r "$SMALL" "$R/noop.m2"

# ---- the report ---------------------------------------------------------------------
mkdir -p "$OUT"
write_report "$OUT"
say "bench: wrote $OUT/latest.md and $OUT/latest.svg"
