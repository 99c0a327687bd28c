#!/usr/bin/env bash
# Installs the build tree into a temporary prefix and moves that prefix (an
# installed tree must not depend on where it was put), then uses it as an
# application developer would: builds examples/quickstart.cpp with pkg-config
# and with CMake's find_package and runs both, runs the installed program, and
# checks the headers: exactly those the public header reaches, each compiling
# on its own.
#   install_test.sh BUILD_DIR SOURCE_DIR LIBDIR shared|static
set -euo pipefail
build=$1 source=$(cd "$2" && pwd) libdir=$3 kind=$4
cmake=${CMAKE:-cmake} cxx=${CXX:-c++} pkg_config=${PKG_CONFIG:-pkg-config}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
log=$work/log

fail() {
    echo "package test: $*" >&2
    tail -40 "$log" >&2
    exit 1
}
# quiet CMD...: runs CMD with its output in the log.
quiet() { "$@" >>"$log" 2>&1 || fail "failed: $*"; }
# expect_usage PROGRAM: the example prints its usage and exits 2 without arguments.
expect_usage() {
    local status=0
    "$@" 2>"$work/usage" || status=$?
    [ "$status" -eq 2 ] && grep -q '^usage: quickstart' "$work/usage" ||
        fail "$* gave status $status and: $(cat "$work/usage")"
}

quiet "$cmake" --install "$build" --prefix "$work/staged"
mv "$work/staged" "$work/prefix"
prefix=$work/prefix

# The program finds the library next to it, not in the build tree.
"$prefix/bin/scpkit" --version >"$work/version" 2>&1 || fail "scpkit --version: $(cat "$work/version")"
grep -q '^scpkit [0-9]' "$work/version" || fail "scpkit --version printed: $(cat "$work/version")"
if [ "$kind" = shared ]; then
    ldd "$prefix/bin/scpkit" >"$work/ldd"
    grep -q "libscpkit.so.* => $prefix/" "$work/ldd" || fail "libscpkit not found in the prefix: $(cat "$work/ldd")"
fi

for doc in doc/scpkit.1:share/man/man1/scpkit.1 doc/scpkit.bash-completion:share/bash-completion/completions/scpkit; do
    if [ -f "$source/${doc%%:*}" ] && [ ! -f "$prefix/${doc#*:}" ]; then fail "${doc#*:} not installed"; fi
done

# pkg-config, as the README shows it.
static=()
[ "$kind" = static ] && static=(--static)
flags=$(PKG_CONFIG_PATH="$prefix/$libdir/pkgconfig" "$pkg_config" "${static[@]}" --cflags --libs scpkit) ||
    fail "pkg-config found no scpkit"
[[ "$flags" == *"-I$prefix/"* ]] || fail "pkg-config flags outside the prefix: $flags"
# shellcheck disable=SC2086  # the flags are words
quiet "$cxx" -std=c++17 "$source/examples/quickstart.cpp" $flags -o "$work/quickstart-pc"
LD_LIBRARY_PATH="$prefix/$libdir" expect_usage "$work/quickstart-pc"

# CMake's find_package.
mkdir "$work/app"
cat >"$work/app/CMakeLists.txt" <<CMAKE
cmake_minimum_required(VERSION 3.20)
project(app LANGUAGES CXX)
find_package(scpkit REQUIRED)
add_executable(quickstart $source/examples/quickstart.cpp)
target_link_libraries(quickstart PRIVATE scpkit::scpkit)
CMAKE
quiet "$cmake" -S "$work/app" -B "$work/app/build" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" \
    -DCMAKE_CXX_COMPILER="$cxx"
quiet "$cmake" --build "$work/app/build"
expect_usage "$work/app/build/quickstart"

# Installed headers: those the public header reaches, as the compiler sees it.
(cd "$prefix/include" && find . -type f | sed 's|^\./||' | sort) >"$work/installed"
quiet "$cxx" -std=c++17 -MM -MF "$work/deps" -I"$prefix/include" "$prefix/include/scpkit/scpkit.h"
tr ' \\' '\n\n' <"$work/deps" | sed -n "s|^$prefix/include/||p" | sort -u >"$work/reached"
if ! diff "$work/reached" "$work/installed" >"$work/header-diff"; then
    fail "installed headers (>) differ from those scpkit.h reaches (<): $(cat "$work/header-diff")"
fi
while read -r header; do
    echo "#include <$header>" >"$work/one.cpp"
    quiet "$cxx" -std=c++17 -Wall -Wextra -Werror -fsyntax-only -I"$prefix/include" "$work/one.cpp"
done <"$work/installed"
echo "package test: $(wc -l <"$work/installed") headers, pkg-config and CMake builds passed"
