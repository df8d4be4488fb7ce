#!/usr/bin/env bash
# The zeva program as a user runs it: a recording checked with ffprobe, its
# help, and its exit codes for bad arguments and an output it cannot open.
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

# Every help names every option of its command.
record_opts='--seconds --size --fps --index --also --help'
for args in "--help" "record --help" "record x.mp4 -h" "repair --help" "--version"; do
  "$zeva" $args > "$dir/help.txt" 2>&1 || fail "zeva $args exited $?"
done
"$zeva" --help > "$dir/help.txt"
for opt in $record_opts --version; do grep -q -- "$opt" "$dir/help.txt" || fail "--help lacks $opt"; done
"$zeva" record --help > "$dir/help.txt"
for opt in $record_opts; do grep -q -- "$opt" "$dir/help.txt" || fail "record --help lacks $opt"; done
grep -q "BROKEN INDEX OUT" <("$zeva" repair --help) || fail "repair --help lacks its arguments"
[[ "$("$zeva" --version)" =~ ^zeva\ [0-9]+\.[0-9]+\.[0-9]+$ ]] || fail "--version: $("$zeva" --version)"

# Usage errors: one line on standard error, exit status 2, nothing started.
set +e
usage_error() {
  "$zeva" "$@" > "$dir/out2.txt" 2> "$dir/err2.txt"
  local rc=$?
  [ $rc -eq 2 ] || fail "zeva $* exited $rc, want 2"
  [ "$(wc -l < "$dir/err2.txt")" -eq 1 ] || fail "zeva $* printed: $(cat "$dir/err2.txt")"
}
usage_error
usage_error frobnicate
usage_error --frobnicate
usage_error record
usage_error record "$dir/x.mp4" --size 12
usage_error record "$dir/x.mp4" --bogus 1
usage_error record "$dir/x.mp4" --fps
usage_error repair a b
usage_error repair --bogus a b c
[ ! -e "$dir/x.mp4" ] || fail "a usage error still recorded"
"$zeva" record "$dir/no/such/dir.mp4" --seconds 1 > /dev/null 2> "$dir/err2.txt"
[ $? -eq 1 ] || fail "unopenable output should exit 1"
grep -q "code 11" "$dir/err2.txt" || fail "no code 11 report: $(tail -2 "$dir/err2.txt")"
echo "zeva tool ok"
