#!/bin/sh
# Runs clang-tidy 14 with the tree's .clang-tidy on the library's own sources (src/), as compiled in the
# build tree given (its compile_commands.json), two files at a time. Any finding is an error
# (WarningsAsErrors in .clang-tidy), so the exit status is non-zero when there is one.
#   cmake/clang-tidy.sh build/default        or        cmake --build --preset default --target tidy
set -eu
build=${1:-build/default}
root=$(cd "$(dirname "$0")/.." && pwd)
build=$(cd "$build" && pwd)
tidy=$(command -v clang-tidy-14 || command -v clang-tidy) || {
    echo "clang-tidy 14 not found (Debian package clang-tidy)"
    exit 1
}
runner=$(command -v run-clang-tidy-14 || command -v run-clang-tidy) || {
    echo "run-clang-tidy not found (Debian package clang-tidy)"
    exit 1
}
[ -f "$build/compile_commands.json" ] || {
    echo "no compile_commands.json in $build: configure it first"
    exit 1
}
cd "$root"
exec "$runner" -clang-tidy-binary "$tidy" -p "$build" -j 2 -quiet "^$root/src/.*\.cpp\$"
