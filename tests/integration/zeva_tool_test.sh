#!/usr/bin/env bash
# The zeva program as a user runs it: a recording checked with ffprobe, its
# help, its exit codes for bad arguments and an output it cannot open, a
# server that never answers, and Ctrl-C and SIGTERM.
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

# Two elementary streams pushed through the packet interface, every packet kept.
ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine \
  -map 0:v -t 2 -c:v libx264 -bf 0 -f h264 "$dir/v.h264" -map 1:a -t 2 -c:a aac -f adts "$dir/a.aac"
"$zeva" push "$dir/v.h264" "$dir/a.aac" "$dir/p.mp4" --fps 25 --index "$dir/p.moov" \
  --also "$dir/p.ts" > "$dir/out.txt" 2> "$dir/err.txt" || fail "push exited $?: $(tail -3 "$dir/err.txt")"
grep -q "^zeva: pushed 50 video and 88 audio packets" "$dir/out.txt" || fail "push summary: $(cat "$dir/out.txt")"
[ "$(probe "$dir/p.mp4" v)" = "h264,320,240,50" ] || fail "pushed video: $(probe "$dir/p.mp4" v)"
[[ "$(probe "$dir/p.ts" a)" == aac,44100,88* ]] || fail "pushed audio: $(probe "$dir/p.ts" a)"
head -c 16 "$dir/p.moov" | grep -q '^## version=2' || fail "no index of the push"

# Every help names every option of its command.
record_opts='--seconds --size --fps --index --also --timeout --help'
for args in "--help" "record --help" "record x.mp4 -h" "repair --help" "push --help" "--version"; do
  "$zeva" $args > "$dir/help.txt" 2>&1 || fail "zeva $args exited $?"
done
"$zeva" --help > "$dir/help.txt"
for opt in $record_opts --version; do grep -q -- "$opt" "$dir/help.txt" || fail "--help lacks $opt"; done
"$zeva" record --help > "$dir/help.txt"
for opt in $record_opts; do grep -q -- "$opt" "$dir/help.txt" || fail "record --help lacks $opt"; done
grep -q "BROKEN INDEX OUT" <("$zeva" repair --help) || fail "repair --help lacks its arguments"
for opt in --also --index --fps --timeout --realtime --help; do
  grep -q -- "$opt" <("$zeva" push --help) || fail "push --help lacks $opt"
done
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
usage_error record "$dir/x.mp4" --timeout -1
usage_error repair a b
usage_error repair --bogus a b c
usage_error push
usage_error push a b
usage_error push a b c --fps 0
[ ! -e "$dir/x.mp4" ] || fail "a usage error still recorded"
"$zeva" record "$dir/no/such/dir.mp4" --seconds 1 > /dev/null 2> "$dir/err2.txt"
[ $? -eq 1 ] || fail "unopenable output should exit 1"
grep -q "code 11" "$dir/err2.txt" || fail "no code 11 report: $(tail -2 "$dir/err2.txt")"

# A server that accepts connections and then never answers; it logs a line
# per client.
python3 -c '
import socket, sys
s = socket.socket(); s.bind(("127.0.0.1", 0)); s.listen(8)
open(sys.argv[1], "w").write(str(s.getsockname()[1]))
held = []
while True:
    held.append(s.accept()[0])
    open(sys.argv[2], "a").write("client\n")
' "$dir/silent.port" "$dir/silent.log" &
silent_pid=$!
trap 'kill $silent_pid 2>/dev/null; rm -rf "$dir"' EXIT
# Polls for an outside event, 10 s at most: `until_true CMD...`.
until_true() { for _ in $(seq 100); do "$@" && return 0; sleep 0.1; done; return 1; }
clients() { [ "$(cat "$dir/silent.log" 2>/dev/null | wc -l)" -ge "$1" ]; }
until_true test -s "$dir/silent.port" || fail "the silent server did not start"
silent="rtmp://127.0.0.1:$(cat "$dir/silent.port")/live/x"

# Given up on within the time-out, naming the output; exit status 1.
t0=$SECONDS
timeout 60 "$zeva" record "$dir/s.mp4" --seconds 1 --size 320x240 --also "$silent" --timeout 1 \
  > /dev/null 2> "$dir/err3.txt"
rc=$?
[ $rc -eq 1 ] || fail "silent --also exited $rc, want 1"
grep -q "$silent" "$dir/err3.txt" || fail "report does not name the output: $(tail -2 "$dir/err3.txt")"
[ $((SECONDS - t0)) -lt 15 ] || fail "--timeout 1 took $((SECONDS - t0)) s"
t0=$SECONDS
timeout 60 "$zeva" push "$dir/v.h264" "$dir/a.aac" "$dir/s2.mp4" --also "$silent" --timeout 1 \
  > /dev/null 2> "$dir/err3.txt"
rc=$?
[ $rc -eq 1 ] || fail "push to a silent --also exited $rc, want 1"
grep -q "$silent" "$dir/err3.txt" || fail "push report does not name the output: $(tail -2 "$dir/err3.txt")"
[ $((SECONDS - t0)) -lt 15 ] || fail "push --timeout 1 took $((SECONDS - t0)) s"

# The first signal ends the program within seconds: SIGINT while the silent
# server holds the start without a time-out, SIGTERM while a file records.
ends_on() {  # SIGNAL STATUS: signals the running $pid and checks how it ends
  kill -"$1" $pid
  until_true eval '! kill -0 $pid 2>/dev/null' || { kill -9 $pid; fail "SIG$1 did not end zeva"; }
  wait $pid
  local rc=$?
  [ $rc -eq "$2" ] || fail "zeva ended by SIG$1 exited $rc, want $2"
}
before=$(wc -l < "$dir/silent.log")
"$zeva" record "$dir/i.mp4" --seconds 600 --size 320x240 --also "$silent" --timeout 0 \
  > /dev/null 2> "$dir/err4.txt" &
pid=$!
until_true clients $((before + 1)) || fail "zeva never connected to the silent server"
ends_on INT 130
"$zeva" record "$dir/term.mp4" --seconds 600 --size 320x240 > /dev/null 2> "$dir/err5.txt" &
pid=$!
# Past its header: a stop before the first frame leaves an empty movie.
until_true eval '[ "$(stat -c %s "$dir/term.mp4" 2>/dev/null || echo 0)" -gt 4096 ]' ||
  fail "no recording started"
ends_on TERM 143
[ -n "$(probe "$dir/term.mp4" v)" ] || fail "the interrupted recording does not play"
echo "zeva tool ok"
