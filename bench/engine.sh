# shellcheck shell=bash
# The measuring engine of bench/run.sh (sourced by it, after WORK, QUICK,
# WARMUP and RUNS are set): cases, their rows and goals, timed runs, and the
# accounting of the machine's load that is not the benchmark's own.
#
# Files it writes in WORK (tab-separated; report.sh reads them):
#   groups.tsv   group, title, bytes moved per run (0: none to speak of), chart
#   rows.tsv     group, row, kind (anchor | ours | ref), label
#   samples.tsv  group, row, wall s, client cpu s, peak rss KiB, other cpu s
#   targets.tsv  kind, group, our row, reference row, goal, text (see report.sh)
#   loads.tsv    group, 1-minute load average before, after, other load
#                (cores), seconds waited for the machine to settle

SAMPLES=$WORK/samples.tsv
GROUPS_FILE=$WORK/groups.tsv
ROWS_FILE=$WORK/rows.tsv
TARGETS_FILE=$WORK/targets.tsv
LOADS_FILE=$WORK/loads.tsv
: >"$SAMPLES"
: >"$TARGETS_FILE"
: >"$GROUPS_FILE"
: >"$ROWS_FILE"
: >"$LOADS_FILE"
# The tools read an empty file and write their output to a file: nothing
# here reads or writes a device.
EMPTY_INPUT=$WORK/empty.in
TOOL_OUTPUT=$WORK/tool.out
: >"$EMPTY_INPUT"
ELAPSED_FILE=$WORK/elapsed
# Other work using more than this many cores during a case makes it "noisy".
MAX_OTHER_LOAD=${BENCH_MAX_OTHER_LOAD:-0.25}
CLK_TCK=$(getconf CLK_TCK)

GROUP=0 SKIP=0
ROW_LABELS=() ROW_KINDS=() ROW_PREPS=() ROW_CMDS=() ROW_ROUNDS=()
CASE_WARMUP=$WARMUP CASE_RUNS=$RUNS

say() { printf '%s\n' "$*" >&2; }

# ---- whose CPU time is it ------------------------------------------------------
# cpu_snapshot prints three counts of clock ticks: the CPU time the whole
# machine has spent in user, nice, system and steal time since boot; that of
# the kernel's own threads (their work, writeback above all, cannot be told
# apart); and that of this harness's process tree: the sshd with every
# connection's processes, the relay, the measured clients, and all children
# they have reaped. Interrupt time is left out on both sides: the loopback
# traffic of the case itself is most of it.
cpu_snapshot() {
    cat /proc/stat /proc/[0-9]*/stat 2>>"$WORK/proc.err" | awk -v root=$$ '
        $1 == "cpu" { busy = $2 + $3 + $4 + $9; next }
        $1 !~ /^[0-9]+$/ { next }
        {
            pid = $1
            sub(/^[^(]*\(.*\) /, "")   # the name may hold blanks and parentheses
            parent[pid] = $2; used[pid] = $12 + $13 + $14 + $15
        }
        END {
            for (p in parent) {
                if (p + 0 == 2 || parent[p] == 2) { kernel += used[p]; continue }
                for (q = p + 0; q > 1 && q != root + 0; q = parent[q] + 0) {}
                if (q == root + 0) own += used[p]
            }
            printf "%d %d %d\n", busy, kernel, own
        }'
}
CPU_MARK=()
cpu_mark() { read -r -a CPU_MARK < <(cpu_snapshot); }
# Ticks spent since the last cpu_mark by work that is not the benchmark's.
other_ticks_since_mark() {
    local now
    read -r -a now < <(cpu_snapshot)
    local ticks=$(((now[0] - CPU_MARK[0]) - (now[1] - CPU_MARK[1]) - (now[2] - CPU_MARK[2])))
    echo $((ticks < 0 ? 0 : ticks))
}

# Waits (up to BENCH_SETTLE seconds, 30 by default) until other work uses
# at most MAX_OTHER_LOAD cores over one second; sets SETTLED_AFTER.
settle() {
    SETTLED_AFTER=0
    [ "$QUICK" = 0 ] || return 0
    local limit=${BENCH_SETTLE:-30} ticks
    while :; do
        cpu_mark
        sleep 1
        ticks=$(other_ticks_since_mark)
        awk -v t="$ticks" -v hz="$CLK_TCK" -v max="$MAX_OTHER_LOAD" 'BEGIN { exit !(t / hz <= max) }' &&
            return 0
        [ "$SETTLED_AFTER" -lt "$limit" ] || return 0
        SETTLED_AFTER=$((SETTLED_AFTER + 1))
    done
}

load1() { cut -d' ' -f1 /proc/loadavg; }

# ---- cases, rows, goals -----------------------------------------------------------
# group TITLE BYTES [CHART]: starts a case; its first row of kind "anchor" is
# what the others are compared with. CHART names the chart it goes to (main).
group() {
    SKIP=0
    if [ -n "${BENCH_CASES:-}" ] && ! [[ $1 =~ $BENCH_CASES ]]; then
        SKIP=1
        return 0
    fi
    GROUP=$((GROUP + 1))
    printf '%s\t%s\t%s\t%s\n' "$GROUP" "$1" "$2" "${3:-main}" >>"$GROUPS_FILE"
    ROW_LABELS=() ROW_KINDS=() ROW_PREPS=() ROW_CMDS=() ROW_ROUNDS=()
    CASE_WARMUP=$WARMUP CASE_RUNS=$RUNS
}
# case_rounds WARMUP RUNS: this case's rounds instead of the run's.
case_rounds() {
    [ "$QUICK" = 1 ] || CASE_WARMUP=$1 CASE_RUNS=$2
}
# row KIND LABEL PREP COMMAND [RUNS]: KIND is ours, anchor or ref (a reference
# such as the transport's ceiling); PREP runs untimed before every run. A row
# given RUNS skips the warm-up and runs in the first RUNS counted rounds only
# (for the slow references); RUNS 0 stops a row.
row() {
    [ "$SKIP" = 0 ] || return 0
    ROW_KINDS+=("$1") ROW_LABELS+=("$2") ROW_PREPS+=("$3") ROW_CMDS+=("$4") ROW_ROUNDS+=("${5:-}")
    printf '%s\t%s\t%s\t%s\n' "$GROUP" "${#ROW_LABELS[@]}" "$1" "$2" >>"$ROWS_FILE"
}
# target KIND OUR_ROW REFERENCE_ROW GOAL TEXT: a goal on the current case
# (kinds and the meaning of GOAL: see report.sh).
target() {
    [ "$SKIP" = 0 ] || return 0
    printf '%s\t%s\t%s\t%s\t%s\t%s\n' "$1" "$GROUP" "$2" "$3" "$4" "$5" >>"$TARGETS_FILE"
}

# verify MESSAGE COMMAND...: after a case, checks what the tools wrote.
verify() {
    [ "$SKIP" = 0 ] || return 0
    local message=$1
    shift
    "$@" >"$WORK/verify.out" 2>&1 || {
        say "bench: $message"
        head -20 "$WORK/verify.out" >&2
        exit 1
    }
}

# ---- running ----------------------------------------------------------------------
# A warm-up run that takes longer than this counts as the row's only run: a
# run that long gains nothing from warm caches.
SLOW_RUN_S=${BENCH_SLOW_RUN:-60}

# Runs row I once and leaves its sample in RUN_SAMPLE, its process's wall
# time in RUN_WALL and the other work's ticks in RUN_OTHER_TICKS.
run_row() {
    local i=$1 tf=$WORK/time.out ef=$WORK/stderr.out
    eval "${ROW_PREPS[$i]}"
    [ "$QUICK" = 1 ] || sync
    rm -f "$ELAPSED_FILE" "$tf"
    cpu_mark
    local t0=$EPOCHREALTIME status=0
    eval "/usr/bin/time -f '%U %S %M' -o $tf ${ROW_CMDS[$i]}" >"$TOOL_OUTPUT" 2>"$ef" <"$EMPTY_INPUT" ||
        status=$?
    local t1=$EPOCHREALTIME
    RUN_OTHER_TICKS=$(other_ticks_since_mark)
    if [ "$status" != 0 ]; then
        say "bench: FAILED (status $status): ${ROW_LABELS[$i]}"
        say "  command: ${ROW_CMDS[$i]}"
        sed 's/^/  | /' "$ef" | head -40 >&2
        exit 1
    fi
    local wall user sys rss
    RUN_WALL=$(awk -v a="$t0" -v b="$t1" 'BEGIN { printf "%.6f", b - a }')
    wall=$RUN_WALL
    # The in-memory rows time their transfer themselves, without the loading.
    [ -s "$ELAPSED_FILE" ] && wall=$(cat "$ELAPSED_FILE")
    read -r user sys rss < <(tail -1 "$tf")
    printf '   %-44s %8.3f s\n' "${ROW_LABELS[$i]}" "$wall" >&2
    RUN_SAMPLE=$(printf '%s\t%s\t%s\t%s\t%s\t%s' "$GROUP" "$((i + 1))" "$wall" \
        "$(awk -v u="$user" -v s="$sys" 'BEGIN { printf "%.3f", u + s }')" "$rss" \
        "$(awk -v t="$RUN_OTHER_TICKS" -v hz="$CLK_TCK" 'BEGIN { printf "%.2f", t / hz }')")
}

# Counts the last run: its sample, and its time and other work for the case.
count_run() {
    printf '%s\n' "$RUN_SAMPLE" >>"$SAMPLES"
    CASE_WALL=$(awk -v a="$CASE_WALL" -v b="$RUN_WALL" 'BEGIN { printf "%.6f", a + b }')
    CASE_OTHER_TICKS=$((CASE_OTHER_TICKS + RUN_OTHER_TICKS))
}

# Runs the current case once the machine has settled: warm-up rounds, then
# counted rounds, each running every row once in the same order (A B C A B C).
run_group() {
    [ "$SKIP" = 0 ] || return 0
    local title
    title=$(awk -F'\t' -v g="$GROUP" '$1 == g { print $2 }' "$GROUPS_FILE")
    settle
    local before
    before=$(load1)
    say "bench: [$GROUP] $title (load $before, settled after ${SETTLED_AFTER} s)"
    CASE_WALL=0 CASE_OTHER_TICKS=0
    local round n=${#ROW_CMDS[@]}
    for ((round = 0; round < CASE_WARMUP + CASE_RUNS; round++)); do
        local count=0 counted=$((round - CASE_WARMUP))
        [ "$counted" -ge 0 ] && count=1
        [ "$count" = 1 ] || say "  (warm-up)"
        for ((i = 0; i < n; i++)); do
            local cap=${ROW_ROUNDS[$i]}
            [ -z "$cap" ] || { [ "$counted" -ge 0 ] && [ "$counted" -lt "$cap" ]; } || continue
            run_row "$i"
            if [ "$count" = 1 ]; then
                count_run
            elif awk -v w="$RUN_WALL" -v slow="$SLOW_RUN_S" 'BEGIN { exit !(w > slow) }'; then
                say "   (slow: this run counts, and the row runs no more)"
                count_run
                ROW_ROUNDS[i]=0
            fi
        done
    done
    local other
    other=$(awk -v t="$CASE_OTHER_TICKS" -v hz="$CLK_TCK" -v w="$CASE_WALL" \
        'BEGIN { printf "%.2f", (w > 0 ? t / hz / w : 0) }')
    printf '%s\t%s\t%s\t%s\t%s\n' "$GROUP" "$before" "$(load1)" "$other" "$SETTLED_AFTER" >>"$LOADS_FILE"
    say "  other work: $other cores"
}
