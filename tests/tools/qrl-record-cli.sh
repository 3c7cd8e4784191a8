#!/usr/bin/env bash
# End-to-end checks of qrl-record: bad options fail with status 2 and leave
# no movie behind; a good run writes a constant-rate movie whose frame count
# matches the time line, and one timeline row per arrival; the GPU path and
# the CPU path write the same movie of the simulated display.
set -u
prog=$1
work=$(mktemp -d)
trap 'chmod -R u+w "$work"; rm -rf "$work"' EXIT
# Preferences (the stored log options) and log files stay in the scratch folder.
export XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data
fail() { echo "FAIL: $*" >&2; exit 1; }

expect_usage_error() {
  local out=$work/bad
  "$prog" --out "$out" "$@" >/dev/null 2>"$work/err"
  local rc=$?
  [ $rc -eq 2 ] || fail "qrl-record $* exited $rc, expected 2"
  grep -q "qrl-record: " "$work/err" || fail "qrl-record $* printed no reason"
  [ ! -e "$out/movie.y4m" ] || fail "qrl-record $* left a movie"
}
expect_usage_error --fps 0
expect_usage_error --fps -5
expect_usage_error --fps abc
expect_usage_error --fps nan
expect_usage_error --fps 30x
expect_usage_error --seconds 0
expect_usage_error --platform wayland
expect_usage_error --gpu maybe
expect_usage_error --platform x11 --size 64x36
DISPLAY= expect_usage_error --platform x11
expect_usage_error --size 17x9
expect_usage_error --bogus
expect_usage_error --fps

mkdir -p "$work/locked" && chmod a-w "$work/locked"
if [ "$(id -u)" -ne 0 ]; then
  "$prog" --out "$work/locked/out" >/dev/null 2>"$work/err"; rc=$?
  [ $rc -eq 2 ] || fail "unwritable folder: exited $rc, expected 2"
fi
# A start that fails leaves no folder it made behind.
DISPLAY= "$prog" --platform x11 --out "$work/a/b" >/dev/null 2>&1
[ ! -e "$work/a" ] || fail "a refused start made its folder"
DISPLAY=:9999 "$prog" --platform x11 --out "$work/c/d" >/dev/null 2>&1; rc=$?
[ $rc -eq 1 ] || fail "a missing X server: exited $rc, expected 1"
[ ! -e "$work/c" ] || fail "a failed start left its folder behind"
# Two recordings into one folder: the second refuses, the first is whole.
"$prog" --platform sim --seconds 2 --realtime --size 64x36 --out "$work/busy" >/dev/null 2>&1 &
first=$!
for _ in $(seq 50); do [ -e "$work/busy/.qrl-record.lock" ] && break; sleep 0.1; done
"$prog" --platform sim --seconds 1 --size 64x36 --out "$work/busy" >/dev/null 2>"$work/err"; rc=$?
[ $rc -eq 2 ] && grep -q "another recording" "$work/err" || fail "a second recording into a busy folder: exited $rc"
wait $first || fail "the first recording into the busy folder failed"
[ -s "$work/busy/movie.y4m" ] || fail "the first recording lost its movie"

# A run prints only what was asked for: no notices of the framework on the
# terminal (they go to the system log; --verbose shows them).
"$prog" --help >/dev/null 2>"$work/err" || fail "--help failed"
[ ! -s "$work/err" ] || fail "--help printed on standard error: $(cat "$work/err")"
"$prog" --platform sim --seconds 1 --size 64x36 --gpu off --out "$work/quiet" >/dev/null 2>"$work/err" || fail "quiet run failed"
! grep -q "Logging now" "$work/err" || fail "a run printed the framework's notices"

touch "$work/file"
"$prog" --out "$work/file" >/dev/null 2>"$work/err"; rc=$?
[ $rc -eq 2 ] || fail "output path that is a file: exited $rc, expected 2"

for fps in 15 29.97 59.94; do
  out=$work/run-$fps
  "$prog" --platform sim --seconds 3 --fps $fps --size 64x36 --out "$out" --seed 7 >"$work/summary" 2>/dev/null || fail "run at $fps failed"
  [ -s "$out/movie.y4m" ] || fail "no movie at $fps"
  ! compgen -G "$out/.movie.y4m.*" >/dev/null || fail "temporary movie left at $fps"
  header=$(head -c 200 "$out/movie.y4m" | head -n 1)
  case "$header" in YUV4MPEG2\ W64\ H36\ F*) ;; *) fail "bad header '$header'";; esac
  frame=$((64 * 36 * 3 / 2 + 6))
  size=$(stat -c %s "$out/movie.y4m")
  frames=$(( (size - ${#header} - 1) / frame ))
  [ $(( (size - ${#header} - 1) % frame )) -eq 0 ] || fail "movie size is not whole frames at $fps"
  steps=$(awk -F, 'NR > 1 && $3 == 1 { s += $5 } END { print s }' "$out/timeline.csv")
  [ "$frames" -eq "$steps" ] || fail "movie has $frames frames, time line $steps steps at $fps"
  arrived=$(awk '/arrived/ { print $2 }' "$work/summary")
  rows=$(( $(wc -l < "$out/timeline.csv") - 1 ))
  [ "$arrived" -eq "$rows" ] || fail "$arrived arrivals, $rows rows at $fps"
  # Kept frames abut: each starts where the previous one ended.
  awk -F, -v fps=$fps 'NR > 1 && $3 == 1 { if (n++ && $4 != end) { print "gap at row " NR; exit 1 } end = $4 + $5 * d }
       BEGIN { d = (fps == 29.97) ? 1001 : (fps == 59.94 ? 99 : 100) }' "$out/timeline.csv" || fail "time line has a gap at $fps"
done
# The pattern through the GPU (EGL, where it can be had) and through the CPU,
# at an even size and at an odd one (chroma planes of 33 x 19).
for size in 96x54 65x37; do
  "$prog" --platform sim --seconds 1 --size $size --out "$work/gpu$size" >/dev/null 2>"$work/gpu.err" || fail "GPU run at $size failed"
  "$prog" --platform sim --seconds 1 --size $size --out "$work/cpu$size" --gpu off >/dev/null 2>&1 || fail "CPU run at $size failed"
  cmp -s "$work/gpu$size/movie.y4m" "$work/cpu$size/movie.y4m" || fail "the GPU and CPU paths wrote different movies at $size"
  grep -q "converting on the" "$work/gpu.err" || fail "the GPU run did not say how it converts"
done
# A private X server: a recording lasts the wall time asked for, and one
# whose server dies ends with a whole movie of what it recorded and says why.
frames_of() { # movie width height
  local header size frame
  header=$(head -c 200 "$1" | head -n 1); size=$(stat -c %s "$1")
  frame=$(( $2 * $3 + 2 * (($2 + 1) / 2) * (($3 + 1) / 2) + 6 ))
  [ $(( (size - ${#header} - 1) % frame )) -eq 0 ] || fail "$1 is not whole frames"
  echo $(( (size - ${#header} - 1) / frame ))
}
if command -v Xvfb >/dev/null; then
  Xvfb -displayfd 3 -screen 0 321x241x24 -nolisten tcp 3>"$work/xdisplay" 2>/dev/null &
  xvfb=$!
  trap 'kill $xvfb 2>/dev/null; chmod -R u+w "$work"; rm -rf "$work"' EXIT
  for _ in $(seq 100); do [ -s "$work/xdisplay" ] && break; sleep 0.1; done
  export DISPLAY=:$(cat "$work/xdisplay")
  begun=$(date +%s%N)
  "$prog" --platform x11 --gpu off --seconds 2 --fps 20 --out "$work/x11" >/dev/null 2>&1 || fail "X11 recording failed"
  took=$(( ($(date +%s%N) - begun) / 1000000 ))
  [ $took -lt 3500 ] || fail "a 2 s recording took $took ms"
  frames=$(frames_of "$work/x11/movie.y4m" 321 241)
  [ "$frames" -ge 39 ] && [ "$frames" -le 40 ] || fail "a 2 s recording at 20 fps has $frames frames"

  "$prog" --platform x11 --gpu off --seconds 30 --fps 20 --out "$work/x11-lost" >/dev/null 2>"$work/lost.err" &
  recorder=$!
  sleep 1.5; kill $xvfb; wait $xvfb 2>/dev/null
  wait $recorder; rc=$?
  [ $rc -eq 1 ] || fail "a recording whose X server died exited $rc, expected 1"
  grep -q "the recording ends here" "$work/lost.err" || fail "a lost X server was not explained: $(cat "$work/lost.err")"
  [ "$(frames_of "$work/x11-lost/movie.y4m" 321 241)" -ge 10 ] || fail "the recording before the loss is missing"
fi
echo "qrl-record CLI: all checks passed"
