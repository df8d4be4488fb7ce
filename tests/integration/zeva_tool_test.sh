#!/usr/bin/env bash
# The zeva program as a user runs it: a recording checked with ffprobe, and
# its exit codes for bad arguments and an output it cannot open.
# Usage: zeva_tool_test.sh path/to/zeva
set -euo pipefail
zeva=$1
dir=$(mktemp -d)
trap 'rm -rf "$dir"' EXIT
fail() { echo "FAIL: $*"; exit 1; }

"$zeva" record "$dir/t.mp4" --seconds 2 --size 320x240 --fps 25 --index "$dir/t.moov" \
  --also "$dir/t.flv" > "$dir/out.txt" 2> "$dir/err.txt" || fail "record exited $?: $(tail -3 "$dir/err.txt")"
grep -q "^zeva: wrote $dir/t.mp4" "$dir/out.txt" || fail "no summary: $(cat "$dir/out.txt")"

probe() { ffprobe -v error -select_streams "$2" -count_packets \
  -show_entries stream=codec_name,width,height,sample_rate,nb_read_packets -of csv=p=0 "$1"; }
[ "$(probe "$dir/t.mp4" v)" = "h264,320,240,50" ] || fail "video: $(probe "$dir/t.mp4" v)"
[[ "$(probe "$dir/t.mp4" a)" == aac,48000,* ]] || fail "audio: $(probe "$dir/t.mp4" a)"
[[ "$(probe "$dir/t.flv" v)" == h264,320,240,50 ]] || fail "further flv: $(probe "$dir/t.flv" v)"
head -c 16 "$dir/t.moov" | grep -q '^## version=2' || fail "no index"

set +e
"$zeva" record > /dev/null 2>&1; [ $? -eq 2 ] || fail "missing OUT should exit 2"
"$zeva" record "$dir/x.mp4" --size 12 > /dev/null 2>&1; [ $? -eq 2 ] || fail "bad --size should exit 2"
"$zeva" record "$dir/no/such/dir.mp4" --seconds 1 > /dev/null 2> "$dir/err2.txt"
[ $? -eq 1 ] || fail "unopenable output should exit 1"
grep -q "code 11" "$dir/err2.txt" || fail "no code 11 report: $(tail -2 "$dir/err2.txt")"
echo "zeva tool ok"
