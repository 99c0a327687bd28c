# shellcheck shell=bash
# The report of bench/run.sh (sourced by it): statistics of the samples, the
# markdown table, the goals and the chart.
#
# Inputs: the tab-separated files bench/engine.sh writes in WORK. The goals
# (targets.tsv: kind, group, our row, reference row, goal, text) are of these
# kinds:
#   faster   our row is at least GOAL times as fast as the reference
#   ceiling  our row takes at most GOAL % more time than the reference
#   within   our row takes at most GOAL times the reference's time
#   memory   our row's peak RSS is at most GOAL MiB
#   info     the ratio of the two times, without a goal
# A time goal is "noisy" instead of met or missed when other work used more
# than MAX_OTHER_LOAD cores during the case (loads.tsv); the quick run judges
# no time goal.

# stats.tsv: group, row, kind, label, n, median, min, max, MB/s, cpu, rss MiB,
# speed relative to the group's anchor (anchor median / row median).
compute_stats() {
    awk -F'\t' -v OFS='\t' '
        function sort(a, n,   i, j, t) {
            for (i = 2; i <= n; i++) {
                t = a[i]
                for (j = i - 1; j >= 1 && a[j] > t; j--) a[j + 1] = a[j]
                a[j + 1] = t
            }
        }
        function median(a, n) {
            sort(a, n)
            return n % 2 ? a[(n + 1) / 2] : (a[n / 2] + a[n / 2 + 1]) / 2
        }
        FILENAME ~ /groups/ { bytes[$1] = $3; next }
        FILENAME ~ /rows/ { key = $1 SUBSEP $2; kind[key] = $3; label[key] = $4; order[++nrows] = key; next }
        {
            key = $1 SUBSEP $2
            k = ++count[key]
            wall[key, k] = $3; cpu[key, k] = $4
            if ($5 + 0 > rss[key]) rss[key] = $5 + 0
        }
        END {
            for (i = 1; i <= nrows; i++) {
                key = order[i]; n = count[key]
                if (n == 0) continue
                for (k = 1; k <= n; k++) { w[k] = wall[key, k]; c[k] = cpu[key, k] }
                med[key] = median(w, n); lo[key] = w[1]; hi[key] = w[n]
                cmed[key] = median(c, n)
                split(key, gr, SUBSEP)
                if (kind[key] == "anchor") anchor[gr[1]] = med[key]
            }
            for (i = 1; i <= nrows; i++) {
                key = order[i]; n = count[key]
                if (n == 0) continue
                split(key, gr, SUBSEP); g = gr[1]
                mbs = bytes[g] > 0 && med[key] > 0 ? bytes[g] / med[key] / 1e6 : "-"
                if (mbs != "-") mbs = sprintf(mbs < 10 ? "%.1f" : "%.0f", mbs)
                rel = anchor[g] > 0 && med[key] > 0 ? sprintf("%.2f", anchor[g] / med[key]) : "-"
                print g, gr[2], kind[key], label[key], n, sprintf("%.3f", med[key]),
                      sprintf("%.3f", lo[key]), sprintf("%.3f", hi[key]), mbs,
                      sprintf("%.2f", cmed[key]), sprintf("%.1f", rss[key] / 1024), rel
            }
        }' "$WORK/groups.tsv" "$WORK/rows.tsv" "$WORK/samples.tsv" >"$WORK/stats.tsv"
}

# The table, one line per tool, the case named on its first line.
stats_table() {
    echo "| Case | Tool | Median s | Min s | Max s | MB/s | Client CPU s | Peak RSS MiB | Speed vs anchor |"
    echo "|---|---|--:|--:|--:|--:|--:|--:|--:|"
    awk -F'\t' '
        FILENAME ~ /groups/ { title[$1] = $2; next }
        {
            name = $1 == last ? "" : title[$1]; last = $1
            tool = $3 == "anchor" ? "**" $4 "** (anchor)" : $3 == "ours" ? "**" $4 "**" : $4
            rel = $3 == "anchor" ? "1.00" : $12 "×"
            printf "| %s | %s | %s | %s | %s | %s | %s | %s | %s |\n",
                   name, tool, $6, $7, $8, $9, $10, $11, rel
        }' "$WORK/groups.tsv" "$WORK/stats.tsv"
}

# One line per goal: the measured ratio and whether it is met.
targets_list() {
    awk -F'\t' -v quick="$QUICK" -v max_other="$MAX_OTHER_LOAD" '
        FILENAME ~ /groups/ { title[$1] = $2; next }
        FILENAME ~ /loads/ { other[$1] = $4; next }
        FILENAME ~ /stats/ { med[$1, $2] = $6; rss[$1, $2] = $11; label[$1, $2] = $4; next }
        function verdict(met) {
            if (quick == 1) return "not judged in a quick run"
            if (other[g] + 0 > max_other + 0) return "noisy"
            return met ? "met" : "missed"
        }
        {
            kind = $1; g = $2; o = $3; r = $4; goal = $5; text = $6
            if (med[g, o] == "" || (kind != "memory" && med[g, r] == "")) next
            ours = med[g, o]; ref = med[g, r]
            head = "- " title[g] ": " label[g, o]
            if (kind == "faster") {
                printf "%s is **%.2f×** as fast as %s (goal ≥ %.2f×: %s)\n", head, ref / ours,
                       label[g, r], goal, verdict(ref / ours >= goal)
            } else if (kind == "ceiling") {
                slower = (ours / ref - 1) * 100
                printf "%s takes %.1f %% %s time than %s (goal: at most %d %% more: %s)\n", head,
                       (slower < 0 ? -slower : slower), (slower < 0 ? "less" : "more"), label[g, r],
                       goal, verdict(slower <= goal)
            } else if (kind == "within") {
                printf "%s takes **%.2f×** the time of %s, %.2f s against %.2f s (goal ≤ %g×: %s)\n",
                       head, ours / ref, label[g, r], ours, ref, goal, verdict(ours <= goal * ref)
            } else if (kind == "memory") {
                printf "%s peaks at **%.1f MiB** (goal ≤ %d MiB: %s)\n", head, rss[g, o], goal,
                       (rss[g, o] <= goal ? "met" : "missed")
            } else if (kind == "info") {
                printf "%s takes %.2f× the time of %s (%.2f s against %.2f s)\n", head, ours / ref,
                       label[g, r], ours, ref
            }
        }' "$WORK/groups.tsv" "$WORK/loads.tsv" "$WORK/stats.tsv" "$WORK/targets.tsv"
}

# The load of each case: the 1-minute load average around it, and the cores
# that other work used while its counted runs went on.
loads_table() {
    echo "| Case | Load average before | after | Other work, cores | Waited to settle, s | |"
    echo "|---|--:|--:|--:|--:|---|"
    awk -F'\t' -v max_other="$MAX_OTHER_LOAD" '
        FILENAME ~ /groups/ { title[$1] = $2; next }
        {
            printf "| %s | %s | %s | %s | %s | %s |\n", title[$1], $2, $3, $4, $5,
                   ($4 + 0 > max_other + 0 ? "noisy" : "")
        }' "$WORK/groups.tsv" "$WORK/loads.tsv"
}

machine_lines() {
    local model
    model=$(lscpu 2>>"$WORK/report.err" | sed -n 's/^Model name: *//p' | head -1)
    echo "- Machine: ${model:-unknown CPU}, $(nproc) cores, $(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo) RAM, Linux $(uname -r), shared with other work"
    echo "- Load average when the run started: $LOAD_AT_START; when it ended: $(cut -d' ' -f1-3 /proc/loadavg); the run took $RUN_MINUTES min"
    local err=$WORK/report.err
    echo "- $(ssh -V 2>&1); $(rsync --version | head -1 | sed 's/  */ /g'); libssh $(pkg-config --modversion libssh 2>>"$err" || echo '?')"
    echo "- scpkit $(git -C "$ROOT" rev-parse --short HEAD 2>>"$err" || echo '?')$(git -C "$ROOT" diff --quiet HEAD 2>>"$err" || echo ' (with local changes)'), built in $BUILD"
}

# write_chart FILE CHART: the cases of CHART (groups.tsv's last column).
# chart.dat: position, kind (head | ours | ref), text, speed relative to the
# anchor. Each case is a heading line naming its anchor, then one bar per
# tool that is not the anchor, the cases stacked top to bottom. Returns 1
# when CHART has no case.
write_chart() {
    local out=$1
    awk -F'\t' -v OFS='\t' -v chart="$2" '
        FILENAME ~ /groups/ { title[$1] = $2; if ($4 == chart) wanted[$1] = 1; next }
        !($1 in wanted) { next }
        $3 == "anchor" { anchor[$1] = $4; next }
        $12 != "-" { rows[++n] = $0 }
        END {
            y = 0
            for (i = 1; i <= n; i++) {
                split(rows[i], f, "\t")
                if (f[1] != last) {
                    if (i > 1) y += 0.5
                    print y, "head", title[f[1]] " (vs " anchor[f[1]] ")", 1
                    y++
                }
                last = f[1]
                print y, f[3], f[4], f[12]
                y++
            }
        }' "$WORK/groups.tsv" "$WORK/stats.tsv" >"$WORK/chart.dat"
    [ -s "$WORK/chart.dat" ] || return 1
    local bars height lo hi
    bars=$(awk 'END { printf "%d", $1 + 1 }' "$WORK/chart.dat")
    height=$((110 + 20 * bars))
    # The x range: whole powers of two around every value, 1 included.
    read -r lo hi < <(awk -F'\t' '$2 != "head" {
            if (min == "" || $4 < min) min = $4; if ($4 > max) max = $4 }
        END { lo = 0.5; while (lo > min / 1.6) lo /= 2; hi = 2; while (hi < max * 1.6) hi *= 2
              print lo, hi }' "$WORK/chart.dat")
    local terminal="svg size 1000,$height dynamic font \"sans,12\" noenhanced background rgb \"white\""
    case $out in *.png) terminal="pngcairo size 1000,$height font \"sans,10\" noenhanced background rgb \"white\"" ;; esac
    gnuplot <<GP
set terminal $terminal
set output "$out"
set datafile separator "\t"
set title "Speed relative to each case's anchor (log scale): right of 1 = faster than the anchor\nblue = scpkit, grey = the other tools and references"
set logscale x 2
set xrange [$lo:$hi]
set format x "%g"
set grid xtics lc rgb "#e0e0e0"
set yrange [$bars:-1]
set ytics nomirror scale 0
set lmargin 30
set rmargin 3
set key off
set arrow from 1, graph 0 to 1, graph 1 nohead lc rgb "#333333" lw 1.5
set style textbox opaque noborder margins 2,1
bar(k) = k eq "ours" ? 0x1f77b4 : 0xa8a8a8
plot "$WORK/chart.dat" using (strcol(2) eq "head" ? NaN : sqrt(\$4)):1:(\$4 < 1 ? \$4 : 1):(\$4 < 1 ? 1 : \$4):(\$1 - 0.4):(\$1 + 0.4):(bar(strcol(2))):ytic(strcol(2) eq "head" ? "" : strcol(3)) \
         with boxxyerror fill solid 0.9 noborder lc rgb variable, \
     "" using ($lo * 1.05):(strcol(2) eq "head" ? \$1 : NaN):3 with labels left boxed font "sans,12", \
     "" using (strcol(2) eq "head" || \$4 < 1 ? NaN : \$4 * 1.04):1:(sprintf("%.2f", \$4)) with labels left font "sans,10", \
     "" using (strcol(2) eq "head" || \$4 >= 1 ? NaN : \$4 / 1.04):1:(sprintf("%.2f", \$4)) with labels right font "sans,10"
GP
}

# How the figures were taken (the report's method text).
method_lines() {
    cat <<TEXT
- A throwaway OpenSSH sshd on 127.0.0.1 serves every tool; client, sshd and the remote scp share the machine's cores.
- Each case first waits until other work uses at most $MAX_OTHER_LOAD cores over one second (for at most ${BENCH_SETTLE:-30} s; the wait is in the load table), then runs its tools in turn (A B C A B C ...): $WARMUP warm-up round(s), then $RUNS counted round(s). Before every run, warm-up included, the run's target is removed (or, for the download over an existing file, written afresh) and \`sync\` runs, both untimed. The cases over a round trip run 1 warm-up and 3 counted rounds for push and pull; scp -O -r -p skips the warm-up there and runs 3 times over 500 files and once over 10,000 files (about 35 ms a file: 6 minutes a run). A row whose warm-up run takes over ${SLOW_RUN_S} s counts that run as its only one. A full run takes about 50 minutes on a quiet machine while scpkit's tree transfers over the round trip are close to rsync's; at a round trip per file they add about 20 minutes.
- Wall time is measured around each process. The in-memory rows (UploadBinary, DownloadBinary, DownloadBd, DownloadString) time their own transfer, from connecting to the end, without loading or dropping the buffer, and check the bytes they received against the file afterwards. Client CPU is user+sys of the client process and its children (the ssh under scp and rsync) from /usr/bin/time; peak RSS is the largest of the counted runs.
- The load: the 1-minute load average is recorded before and after each case, but a case's own processes (the client, sshd and the remote scp, three busy processes on two cores) raise it by themselves, so it cannot tell whether anything else disturbed the case. The case is judged by the other work instead: the CPU time the whole machine spent (user, nice, system and steal time in /proc/stat) minus that of the harness's own process tree (the sshd and every connection's processes, the relay, the measured clients and all the children they reaped, from /proc/PID/stat) and of the kernel's threads, per second of the counted runs. Interrupt time and kernel threads count on neither side: they are mostly the case's own loopback traffic and writeback. A case where other work used more than $MAX_OTHER_LOAD cores is **noisy**: its time goals are not called met or missed.
- The transport's ceiling is \`ssh HOST discard < FILE\` up and \`ssh HOST cat FILE | discard\` down; \`bench/discard\` reads its input and drops it (nothing here writes to a device).
- The cases over a round trip go through \`bench/delay_relay\`, which sits between the client and the sshd and sends every chunk on ${ONE_WAY_MS} ms after it arrived, in each direction, without holding a chunk behind the previous one: it adds a $((2 * ONE_WAY_MS)) ms round trip and no bandwidth limit. Every tool goes through it with the first cipher: the \`scpkit\` program with its defaults, \`scp -O -r -p\` and \`rsync -a\`. Push and pull copy into a missing directory; the no-op re-syncs (\`scpkit push/pull --mode newer\`, \`rsync -a\`) run against an identical copy made beforehand.
- Every copy is checked after its case: the bytes (cmp, diff -r), and for trees the modes of every file and directory and every file's modification time to the second; the trees' files have several modes and times.
- "Speed vs anchor" is the anchor's median time divided by the tool's: above 1 the tool is faster. MB/s is 10^6 bytes per second of median time.
- Trees and re-syncs without a round trip run through a small program over the library (\`bench/scpkit_bench\`, one transfer per process); the single-file rows use the \`scpkit\` program when it is built.
TEXT
}

write_report() {
    local out=$1 charts=()
    compute_stats
    rm -f "$out/latest.svg" "$out/latest-rtt.svg"
    write_chart "$out/latest.svg" main && charts+=("![speed relative to the anchor of each case](latest.svg)")
    write_chart "$out/latest-rtt.svg" rtt &&
        charts+=("![trees over a $((2 * ONE_WAY_MS)) ms round trip, speed relative to rsync -a](latest-rtt.svg)")
    {
        echo "# scpkit benchmarks"
        echo
        echo "Measured $(date -u '+%Y-%m-%d %H:%M UTC') by \`./run bench$( [ "$QUICK" = 1 ] && echo ' --quick')\`."
        echo
        machine_lines
        method_lines
        echo
        stats_table
        echo
        echo "## Goals"
        echo
        targets_list
        echo
        echo "## Load during each case"
        echo
        loads_table
        local chart
        for chart in "${charts[@]}"; do
            echo
            echo "$chart"
        done
    } >"$out/latest.md"
    cat "$out/latest.md"
}
