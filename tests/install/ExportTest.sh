#!/usr/bin/env bash
# Installs the build, compiles a program against the installed headers, all of them, and the
# installed libraries alone, runs it, and compares what the library shows with the checked-in list.
#
# usage: ExportTest.sh BUILD_FOLDER CMAKE COMPILER [FLAG...]
set -euo pipefail

build=$1 cmake=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
prefix=$build/tests/installed

rm -rf "$prefix"
for component in library development; do
    "$cmake" --install "$build" --component $component --prefix "$prefix" >/dev/null
done
find "$prefix/include" -name '*.h' -printf '#include "%p"\n' >"$prefix/all_headers.h"
"$@" -std=c++17 "-I$prefix/include/postwire" -include "$prefix/all_headers.h" \
    "$here/../../examples/catch_ladder.cpp" -o "$prefix/catch_ladder" \
    "-L$prefix/lib" "-Wl,-rpath,$prefix/lib" -lpostwire -lzulstream -lqorcore
[[ $("$prefix/catch_ladder" /dev/null) == '0 end of input stream' ]]

diff -u "$here/../data/exports.txt" <("$here/../../scripts/exported-symbols" "$prefix/lib/libpostwire.so") ||
    { echo 'CONTRIBUTING.md says how to renew the list after a change that was meant.'; exit 1; }
