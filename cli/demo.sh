#!/usr/bin/env bash
# The scpkit program at work against a throwaway OpenSSH server on 127.0.0.1:
# push a tree, push only what changed, pull it back, compare, and pipe single
# files through standard output and input.
#
#   bash cli/demo.sh BUILD_DIR      (./run demo builds first, then calls this)
set -euo pipefail

BUILD=${1:?usage: demo.sh BUILD_DIR}
SCPKIT=$(cd "$BUILD" && pwd)/scpkit
[ -x "$SCPKIT" ] || { echo "demo: $SCPKIT is missing; run ./run build first" >&2; exit 1; }
if [ "$(id -u)" -ne 0 ]; then
    echo "demo: the throwaway sshd must run as root (it logs you in as yourself on" >&2
    echo "demo: 127.0.0.1 with a key made for the demo); run ./run demo as root." >&2
    exit 1
fi
[ -x /usr/sbin/sshd ] || { echo "demo: /usr/sbin/sshd is missing; run ./run setup" >&2; exit 1; }

bold='' plain=''
if [ -t 1 ] && [ -n "${TERM:-}" ] && [ "$TERM" != dumb ]; then
    bold=$(tput bold || true)
    plain=$(tput sgr0 || true)
fi
step() { printf '\n%s== %s%s\n' "$bold" "$*" "$plain"; }
ok() { printf '   ok: %s\n' "$*"; }
die() { printf 'demo: FAILED: %s\n' "$*" >&2; exit 1; }

# shellcheck source=../tests/support/loopback_sshd.sh
. "$(dirname "${BASH_SOURCE[0]}")/../tests/support/loopback_sshd.sh"

WORK=$(mktemp -d /tmp/scpkit-demo.XXXXXX)
cleanup() {
    loopback_sshd_stop
    rm -rf "$WORK"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

# ---- a throwaway sshd -------------------------------------------------------
step "Starting a throwaway OpenSSH server on 127.0.0.1"
mkdir "$WORK/sshd"
loopback_sshd_start "$WORK/sshd" || die "sshd did not start"
PORT=$SSHD_PORT
ok "sshd (pid $SSHD_PID) listens on 127.0.0.1 port $PORT with a fresh ed25519 host key"

USER_NAME=$(id -un)
HOST="$USER_NAME@127.0.0.1"
COMMON=(-P "$PORT" -i "$SSHD_CLIENT_KEY" --known-hosts "$SSHD_KNOWN_HOSTS" --no-ssh-config)

# Shows the command line, then runs the program with the bar forced on.
scpkit() {
    printf '%s$ scpkit %s%s\n' "$bold" "$*" "$plain" >&2
    "$SCPKIT" "${COMMON[@]}" --progress "$@"
}

# ---- a sample tree ----------------------------------------------------------
step "Making a sample tree"
SRC=$WORK/site
REMOTE=$WORK/remote/site
mkdir -p "$SRC/css" "$SRC/img/2024" "$SRC/docs" "$WORK/remote"
printf '<h1>Hello</h1>\n' >"$SRC/index.html"
printf 'body { margin: 0 }\n' >"$SRC/css/main.css"
printf '# Notes\n\nFirst draft.\n' >"$SRC/docs/notes.md"
head -c $((48 * 1024 * 1024)) /dev/urandom >"$SRC/img/2024/video.bin"
head -c $((16 * 1024 * 1024)) /dev/urandom >"$SRC/img/2024/photo.raw"
head -c $((300 * 1024)) /dev/urandom >"$SRC/img/logo.png"
# An hour old, so that a change made now counts as newer.
find "$SRC" -exec touch -d '1 hour ago' {} +
FILES=$(find "$SRC" -type f | wc -l)
SIZE=$(du -sh "$SRC" | cut -f1)
ok "$FILES files, $SIZE in $SRC"

# ---- push, change, push what changed ----------------------------------------
step "push: copy the whole tree (the files copied are listed on standard output)"
start=${EPOCHREALTIME/./}
scpkit push "$SRC" "$HOST:$REMOTE" | sed 's/^/   /'
elapsed_ms=$(((${EPOCHREALTIME/./} - start) / 1000))
PUSH_TIME=$(printf '%d.%02d' $((elapsed_ms / 1000)) $((elapsed_ms % 1000 / 10)))
diff -r "$SRC" "$REMOTE" >"$WORK/diff.out" || die "the remote tree differs after push"
ok "the remote tree matches the local one"

step "Changing two files"
printf 'Second draft.\n' >>"$SRC/docs/notes.md"
head -c $((8 * 1024 * 1024)) /dev/urandom >>"$SRC/img/2024/photo.raw"
ok "docs/notes.md and img/2024/photo.raw changed"

step "push --mode newer: only what changed travels"
CHANGED=$(scpkit push --mode newer "$SRC" "$HOST:$REMOTE")
printf '%s\n' "$CHANGED" | sed 's/^/   /'
[ "$(printf '%s\n' "$CHANGED" | sort)" = "$(printf 'docs/notes.md\nimg/2024/photo.raw\n')" ] ||
    die "expected exactly the two changed files"
ok "exactly the two changed files were sent"

# ---- pull into a new directory and compare ----------------------------------
step "pull: copy the remote tree into a new directory"
PULLED=$WORK/pulled
scpkit pull "$HOST:$REMOTE" "$PULLED" | sed 's/^/   /'
diff -r "$SRC" "$PULLED" || die "the pulled tree differs"
ok "diff -r finds no difference between $SRC and $PULLED"

# ---- single files through pipes ---------------------------------------------
step "get to standard output"
want=$(sha256sum <"$SRC/img/2024/video.bin" | cut -d' ' -f1)
got=$(scpkit get "$HOST:$REMOTE/img/2024/video.bin" - | sha256sum | cut -d' ' -f1)
[ "$want" = "$got" ] || die "checksums differ"
ok "sha256 of the piped bytes: ${got:0:16}... (same as the local file)"

step "put from standard input"
tar -C "$WORK" -cf - site | scpkit put - "$HOST:$WORK/remote/site.tar"
cmp <(tar -C "$WORK" -cf - site) "$WORK/remote/site.tar" || die "the uploaded archive differs"
ok "the archive arrived byte for byte ($(du -h "$WORK/remote/site.tar" | cut -f1))"

step "A failure, as a script sees it"
set +e
"$SCPKIT" "${COMMON[@]}" get "$HOST:$WORK/no/such/file" "$WORK/x"
status=$?
set -e
ok "exit status $status (1: the transfer failed) and one line on standard error"

step "Summary"
cat <<SUMMARY
   server      OpenSSH sshd on 127.0.0.1:$PORT (stopped and removed when the demo ends)
   push        $FILES files, $SIZE, in ${PUSH_TIME} s
   push newer  2 changed files listed and sent, nothing else
   pull        tree copied into a new directory, identical (diff -r)
   pipes       get ... - and put - ... moved the bytes unchanged
SUMMARY
