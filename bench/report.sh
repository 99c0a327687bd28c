# The report of bench/run.sh (sourced by it): statistics of the samples, the
# markdown table, the goals and the chart.
#
# Inputs (tab-separated, in WORK):
#   groups.tsv   group, title, bytes moved per run (0: none to speak of)
#   rows.tsv     group, row, kind (anchor | ours | ref), label
#   samples.tsv  group, row, wall s, client cpu s, peak rss KiB
#   targets.tsv  kind (faster | ceiling | ratio | memory), group, our row,
#                reference row, text

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
    awk -F'\t' '
        FILENAME ~ /groups/ { title[$1] = $2; next }
        FILENAME ~ /stats/ { med[$1, $2] = $6; rss[$1, $2] = $11; label[$1, $2] = $4; next }
        {
            kind = $1; g = $2; o = $3; r = $4; text = $5
            if (med[g, o] == "" || (kind != "memory" && med[g, r] == "")) next
            ours = med[g, o]; ref = med[g, r]
            if (kind == "faster") {
                ratio = ref / ours
                printf "- %s, %s: %s / %s = **%.2f** (goal ≥ 1.00: %s)\n", title[g], text,
                       label[g, r], label[g, o], ratio, (ratio >= 1.0 ? "met" : "missed")
            } else if (kind == "ceiling") {
                slower = (ours / ref - 1) * 100
                printf "- %s, %s: %s takes %.1f %% %s than %s (goal: within 10 %%: %s)\n",
                       title[g], text, label[g, o], (slower < 0 ? -slower : slower),
                       (slower < 0 ? "less" : "more"), label[g, r], (slower <= 10 ? "met" : "missed")
            } else if (kind == "ratio") {
                printf "- %s, %s: %s takes **%.1f×** the time of %s (%.2f s vs %.2f s)\n",
                       title[g], text, label[g, o], ours / ref, label[g, r], ours, ref
            } else if (kind == "memory") {
                printf "- %s, %s: peak RSS of %s **%.1f MiB** (goal < 32 MiB: %s)\n", title[g],
                       text, label[g, o], rss[g, o], (rss[g, o] < 32 ? "met" : "missed")
            }
        }' "$WORK/groups.tsv" "$WORK/stats.tsv" "$WORK/targets.tsv"
}

machine_lines() {
    local model
    model=$(lscpu 2>/dev/null | sed -n 's/^Model name: *//p' | head -1)
    echo "- Machine: ${model:-unknown CPU}, $(nproc) cores, $(awk '/MemTotal/ { printf "%.0f GiB", $2 / 1048576 }' /proc/meminfo) RAM, Linux $(uname -r), shared with other work"
    echo "- Load average when the run started: $LOAD_AT_START; when it ended: $(cut -d' ' -f1-3 /proc/loadavg)"
    echo "- $(ssh -V 2>&1); $(rsync --version | head -1 | sed 's/  */ /g'); libssh $(pkg-config --modversion libssh 2>/dev/null || echo '?')"
    echo "- scpkit $(git -C "$ROOT" rev-parse --short HEAD 2>/dev/null || echo '?')$(git -C "$ROOT" diff --quiet HEAD 2>/dev/null || echo ' (with local changes)'), built in $BUILD"
}

# chart.dat: position, kind (head | ours | ref), text, speed relative to the
# anchor. Each case is a heading line naming its anchor, then one bar per
# tool that is not the anchor, the cases stacked top to bottom.
write_chart() {
    local out=$1
    awk -F'\t' -v OFS='\t' '
        FILENAME ~ /groups/ { title[$1] = $2; next }
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
set title "Speed relative to each case's anchor (log scale): right of 1 = faster than the anchor\nblue = scpkit, grey = the other references (ssh cat ceiling, rsync, round-trip floor)"
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

write_report() {
    local out=$1
    compute_stats
    {
        echo "# scpkit benchmarks"
        echo
        echo "Measured $(date -u '+%Y-%m-%d %H:%M UTC') by \`./run bench$( [ "$QUICK" = 1 ] && echo ' --quick')\`."
        echo
        machine_lines
        echo "- A throwaway OpenSSH sshd on 127.0.0.1 serves every tool; client and server share the 2 cores."
        echo "- Each case runs its tools in turn (A B C A B C ...): $WARMUP warm-up round(s), then $RUNS counted round(s). Wall time is measured around each process (the in-memory rows time their own transfer, without loading or dropping the 1 GiB buffer); client CPU is user+sys of the client process and its children (the ssh under scp and rsync) from /usr/bin/time; peak RSS is the largest of the counted runs."
        echo "- \"Speed vs anchor\" is the anchor's median time divided by the tool's: above 1 the tool is faster. MB/s is 10^6 bytes per second of median time."
        echo "- Trees and re-syncs run through a small program over the library (\`bench/scpkit_bench\`); the single-file rows use the \`scpkit\` program when it is built."
        echo
        stats_table
        echo
        echo "## Goals"
        echo
        targets_list
        echo
        echo "![speed relative to the anchor of each case](latest.svg)"
    } >"$out/latest.md"
    write_chart "$out/latest.svg"
    cat "$out/latest.md"
}
