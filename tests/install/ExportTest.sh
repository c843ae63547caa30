#!/usr/bin/env bash
# Installs the build, compiles a program against the installed headers, all of them, and the
# installed libraries alone, runs it, and compares what each library shows with its checked-in list.
#
# usage: ExportTest.sh BUILD_FOLDER CMAKE COMPILER [FLAG...]
set -euo pipefail

build=$1 cmake=$2
shift 2
here=$(cd "$(dirname "$0")" && pwd)
prefix=$build/tests/installed

rm -rf "$prefix"
for component in {,service_}{library,development}; do
    "$cmake" --install "$build" --component $component --prefix "$prefix" >/dev/null
done
find "$prefix/include" -name '*.h' -printf '#include "%p"\n' >"$prefix/all_headers.h"
"$@" -std=c++17 "-I$prefix/include/postwire" -include "$prefix/all_headers.h" \
    "$here/../../examples/catch_ladder.cpp" -o "$prefix/catch_ladder" \
    "-L$prefix/lib" "-Wl,-rpath,$prefix/lib" -lpostwire -lzulstream -lqorcore
[[ $("$prefix/catch_ladder" /dev/null) == '0 end of input stream' ]]

check_exports() {
    diff -u "$here/../data/$1.txt" <("$here/../../scripts/exported-symbols" "$prefix/lib/$2") ||
        { echo 'CONTRIBUTING.md says how to renew the list after a change that was meant.'; exit 1; }
}
check_exports exports libpostwire.so
check_exports exports-service libpostwire-service.so
