#!/bin/sh
# run_e2e.sh BUILD_DIRECTORY [SECONDS [REPETITIONS [SERVERS]]]: loopback POST runs with wrk
# against every echo server that was built, with 1 and 8 connections. On a machine with two or
# more processors the server runs on processor 0 and wrk on processor 1. Each server is first
# checked for right answers; it is skipped with a message when one is wrong. Next to wrk's
# figures each line gives the server's processor time per request and its load (1.00: one
# processor busy; far below that at 8 connections means that wrk was the bottleneck).
set -eu
build=$1; seconds=${2:-5}; repetitions=${3:-5}; servers=${4:-raw beast poco httplib}
here=$(cd "$(dirname "$0")" && pwd)
REQUEST_FILE=$build/bench/peers/corpus/small.http; export REQUEST_FILE
request_bytes=$(wc -c < "$REQUEST_FILE")
body_bytes=1024
ticks=$(getconf CLK_TCK)
on_server=; on_client=
if [ "$(nproc)" -ge 2 ] && command -v taskset > /dev/null; then
    on_server='taskset -c 0'; on_client='taskset -c 1'
fi
port=18080
load() {    # load CONNECTIONS SECONDS
    $on_client wrk -t1 -c"$1" -d"${2}s" -s "$here/post.lua" "http://127.0.0.1:$port/" | grep RESULT
}
cpu() { awk '{ print $14 + $15 }' "/proc/$pid/stat"; }
for rep in $(seq "$repetitions"); do
    for server in $servers; do
        program=$build/bin/echo_$server
        [ -x "$program" ] || { echo "server=$server not built, skipped"; continue; }
        expect=$body_bytes
        [ "$server" = raw ] && expect=$request_bytes
        for connections in 1 8; do
            port=$((port + 1))
            $on_server "$program" $port "$expect" & pid=$!
            sleep 0.5
            check=$(CHECK=1 load $connections 1 || true)
            case $check in
            *' bad=0 errors=0')
                before=$(cpu)
                result=$(load $connections "$seconds" || echo 'RESULT requests=0 failed')
                used=$(( $(cpu) - before ))
                echo "rep=$rep server=$server connections=$connections ${result#RESULT }" |
                    awk -v used=$used -v ticks="$ticks" -v s="$seconds" '{
                        split($4, r, "=")
                        printf "%s cpu_us_per_req=%.1f load=%.2f\n", $0,
                            (r[2] ? used / ticks * 1e6 / r[2] : 0), used / ticks / s }' ;;
            *) echo "server=$server connections=$connections WRONG ANSWERS: $check" ;;
            esac
            kill $pid; wait $pid 2> /dev/null || true
        done
    done
done
