#!/usr/bin/env bash
# Boxlane beside FFmpeg, side by side in one run, printing ratios:
#   1. `boxlane mux` against `ffmpeg -c copy`, the same job: ten minutes of
#      720p H.264 with B-frames plus AAC, elementary streams into MP4; and
#      the same with ten minutes of 720p H.265 (Main, B-frames). Both
#      outputs are decoded and must give the same frames.
#   2. Reading the index of a one-hour MP4: `boxlane probe --json` and
#      boxlane_parse_index (the parser only) against avformat_open (only
#      avformat_open_input, which reads the moov and builds libavformat's
#      index).
#   3. Peak memory of each (/usr/bin/time).
#   4. `boxlane mux --fragment 1` against `ffmpeg -c copy -movflags
#      frag_keyframe+empty_moov+default_base_moof` on the job of 1.
#   5. Peak memory of `boxlane mux --fragment 1` recording from pipes: one
#      minute and one hour of the same 720p30 stream and its AAC.
#   6. Every sample of a one-hour fragmented MP4 (moof + mdat every two
#      seconds): `boxlane probe --json --samples` against
#      `ffprobe -show_packets -of json`.
#   7. Remuxing the one-hour MP4 into fragments (`boxlane remux --fragment 2`
#      against `ffmpeg -c copy -movflags frag_keyframe+empty_moov+
#      default_base_moof`) and the one-hour fragmented MP4 into one file with
#      the moov first (`boxlane remux --faststart` against `ffmpeg -c copy
#      -movflags +faststart`), with the packets of both outputs compared.
# Runs alternate between the contenders so that both see the same machine,
# and the median of RUNS runs is taken.
#
# Environment: BUILD (default build/bench), WORK (default $BUILD/compare),
# RUNS (default 5), CHECK_FRAMES (video frames decoded and compared, default
# 1800; 0 decodes all), PARTS (default "mux fragments live index samples remux": which
# of the comparisons to run). Installs what is missing with apt-get when run as root.
set -euo pipefail

ROOT=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
BUILD=${BUILD:-$ROOT/build/bench}
WORK=${WORK:-$BUILD/compare}
RUNS=${RUNS:-5}
CHECK_FRAMES=${CHECK_FRAMES:-1800}
PARTS=${PARTS:-mux fragments live index samples remux}

say() { printf '%s\n' "$*"; }
die() { printf 'compare.sh: %s\n' "$*" >&2; exit 1; }

install_missing() {
  local missing=() pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || missing+=("$pkg")
  done
  ((${#missing[@]})) || return 0
  [[ $(id -u) == 0 ]] || die "missing packages: ${missing[*]} (run as root to install them)"
  say "installing ${missing[*]}"
  apt-get update -qq
  DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

build() {
  {
    cmake -S "$ROOT" -B "$BUILD" -G Ninja -DCMAKE_BUILD_TYPE=Release -DBOXLANE_BUILD_BENCH=ON \
      -DBOXLANE_BUILD_TESTS=OFF -DBOXLANE_BUILD_EXAMPLES=OFF &&
      ninja -C "$BUILD" boxlane_tool boxlane_parse_index boxlane_bench_parse
  } >"$WORK/build.log" 2>&1 || { tail -n 30 "$WORK/build.log" >&2; die "the build failed (log: $WORK/build.log)"; }
  cc -O2 -std=c99 -Wall -Wextra "$ROOT/bench/avformat_open.c" -o "$WORK/avformat_open" \
    $(pkg-config --cflags --libs libavformat libavutil)
  BOXLANE=$BUILD/boxlane
  PARSE_INDEX=$BUILD/bench/boxlane_parse_index
  AVFORMAT_OPEN=$WORK/avformat_open
}

ff() { ffmpeg -hide_banner -nostdin -loglevel error -y "$@"; }

# Ten minutes are a 20-second clip repeated: each copy starts with its
# parameter sets and an IDR picture, so the concatenation is one valid
# stream, and generation stays cheap.
make_media() {
  if [[ ! -s $WORK/video.h264 ]]; then
    say "making 10 minutes of 720p H.264 (B-frames) and AAC ..."
    ff -f lavfi -i testsrc2=size=1280x720:rate=30 -t 20 -c:v libx264 -preset ultrafast -bf 2 -g 60 -crf 28 \
      -pix_fmt yuv420p -f h264 "$WORK/clip.h264"
    for _ in $(seq 30); do cat "$WORK/clip.h264"; done >"$WORK/video.h264.part"
    mv "$WORK/video.h264.part" "$WORK/video.h264"
  fi
  if [[ ! -s $WORK/video.h265 ]]; then
    say "making 10 minutes of 720p H.265 (B-frames) ..."
    ff -f lavfi -i testsrc2=size=1280x720:rate=30 -t 20 -c:v libx265 -preset ultrafast -x265-params \
      log-level=error:bframes=3:keyint=60:crf=28 -pix_fmt yuv420p -f hevc "$WORK/clip.h265"
    for _ in $(seq 30); do cat "$WORK/clip.h265"; done >"$WORK/video.h265.part"
    mv "$WORK/video.h265.part" "$WORK/video.h265"
  fi
  if [[ ! -s $WORK/audio.aac ]]; then
    ff -f lavfi -i sine=frequency=440:sample_rate=48000 -t 600 -ac 2 -c:a aac -b:a 128k -f adts "$WORK/audio.aac"
  fi
  if [[ ! -s $WORK/hour.mp4 ]]; then
    say "making a one-hour MP4 (30 fps with B-frames, 48 kHz AAC) ..."
    ff -f lavfi -i testsrc2=size=160x120:rate=30 -f lavfi -i sine=frequency=440:sample_rate=48000 -t 20 \
      -c:v libx264 -preset ultrafast -bf 2 -g 60 -pix_fmt yuv420p -c:a aac -b:a 64k "$WORK/hour_clip.mp4"
    ff -stream_loop 179 -i "$WORK/hour_clip.mp4" -c copy -movflags +faststart "$WORK/hour.mp4"
  fi
  if [[ ! -s $WORK/hour_fragmented.mp4 ]]; then
    say "making a one-hour fragmented MP4 (a moof at every key frame, two seconds apart) ..."
    ff -stream_loop 179 -i "$WORK/hour_clip.mp4" -c copy -movflags frag_keyframe+empty_moov "$WORK/hour_fragmented.mp4"
  fi
}

# One run of a command, output discarded: "wall_ms cpu_ms". Called in a
# subshell, whose only child is the command, so `times` gives its CPU time.
measure() {
  local start=$EPOCHREALTIME
  "$@" >/dev/null
  local end=$EPOCHREALTIME
  times >"$WORK/times.$BASHPID"
  awk -v s="$start" -v e="$end" '
    function sec(t, m) { m = t; sub(/m.*/, "", m); sub(/^[0-9]+m/, "", t); sub(/s$/, "", t); return m * 60 + t }
    NR == 2 { printf "%.1f %.1f\n", (e - s) * 1000, (sec($1) + sec($2)) * 1000 }' "$WORK/times.$BASHPID"
  rm -f "$WORK/times.$BASHPID"
}

median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

peak_kib() {
  /usr/bin/time -f %M -o "$WORK/time.out" "$@" >/dev/null
  tail -n 1 "$WORK/time.out"
}

# Runs the commands held in the named arrays RUNS times each, taking turns,
# and sets WALL, CPU (medians in ms), RUNS_WALL (every wall time) and PEAK
# (KiB) for each, in the order given. When PREPARE names a command, it runs
# untimed before every run.
contest() {
  local names=("$@") walls=() cpus=() cmd=() i r w c
  WALL=() CPU=() RUNS_WALL=() PEAK=()
  for ((r = 0; r < RUNS; r++)); do
    for i in "${!names[@]}"; do
      eval "cmd=(\"\${${names[i]}[@]}\")"
      [[ -z ${PREPARE:-} ]] || $PREPARE
      read -r w c < <(measure "${cmd[@]}")
      walls[i]+="$w " cpus[i]+="$c "
    done
  done
  for i in "${!names[@]}"; do
    eval "cmd=(\"\${${names[i]}[@]}\")"
    WALL[i]=$(printf '%s\n' ${walls[i]} | median)
    CPU[i]=$(printf '%s\n' ${cpus[i]} | median)
    RUNS_WALL[i]=${walls[i]% }
    PEAK[i]=$(peak_kib "${cmd[@]}")
  done
}

# The "N ms" that a program reports for its own index work, median of RUNS.
inner_ms() {
  local i
  for ((i = 0; i < RUNS; i++)); do "$@" | sed -n 's/.* \([0-9.]*\) ms$/\1/p'; done | median
}

ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", (b > 0) ? a / b : 0 }'; }

# TARGET line: what, value, limit, at_least (1) or at_most (0).
target() {
  awk -v what="$1" -v v="$2" -v lim="$3" -v up="$4" 'BEGIN {
    holds = up ? (v >= lim) : (v <= lim)
    printf "TARGET %-62s %10.2f %s %-6g %s\n", what, v, up ? ">=" : "<=", lim, holds ? "HOLDS" : "DOES NOT HOLD" }'
}

md5_column() { grep -v '^#' | awk -F, '{ gsub(/ /, "", $NF); print $NF }'; }

# MD5 of each decoded video frame, into a file. FFmpeg's -c copy of a raw
# H.264 stream with B-frames has no composition times, so it writes an edit
# list that hides its first two pictures; decoding with -ignore_editlist
# compares the pictures each file holds, whatever the edit list shows.
decoded_frames() {
  local input=$1 out=$2 limit=()
  shift 2
  ((CHECK_FRAMES > 0)) && limit=(-frames:v "$CHECK_FRAMES")
  ffmpeg -hide_banner -nostdin -loglevel error "$@" -i "$input" -map 0:v:0 "${limit[@]}" -fps_mode passthrough \
    -f framemd5 - | md5_column >"$out"
}

audio_packets() { ffmpeg -hide_banner -nostdin -loglevel error -i "$1" -map 0:a:0 -c copy -f framemd5 - | md5_column; }

video_packets() {
  ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$1"
}

# The movie header that bench_parse times is read by ffprobe as well, with
# the sample counts it was built with.
check_synthetic_movie() {
  "$BUILD/bench/boxlane_bench_parse" --movie_out="$WORK/synthetic_moov.mp4"
  local counts
  counts=$(ffprobe -v error -show_entries stream=codec_name,nb_frames -of csv=p=0 "$WORK/synthetic_moov.mp4" | tr '\n' ' ')
  if [[ $counts == "h264,108000 aac,168750 " ]]; then
    say "CHECK  ffprobe reads bench_parse's one-hour movie header: 108000 H.264 and 168750 AAC samples: PASSED"
  else
    say "CHECK  ffprobe reads bench_parse's movie header as: $counts: FAILED"
  fi
}

fresh_mux_outputs() {
  rm -f "$WORK/boxlane.mp4" "$WORK/ffmpeg.mp4" "$WORK/boxlane_frag.mp4" "$WORK/ffmpeg_frag.mp4"
  sync
}

# compare_mux VIDEO CODEC PREFIX: the mux job on one video stream (and the
# AAC); sets PREFIX_SPEED, PREFIX_CPU and PREFIX_MEMORY.
compare_mux() {
  local video=$1 codec=$2 prefix=$3
  local out_b=$WORK/boxlane.mp4 out_f=$WORK/ffmpeg.mp4
  MUX_BOXLANE=("$BOXLANE" mux --video "$video" --audio "$WORK/audio.aac" --fps 30 -q -o "$out_b")
  MUX_FFMPEG=(ffmpeg -hide_banner -nostdin -loglevel error -y -framerate 30 -i "$video"
    -i "$WORK/audio.aac" -map 0:v -map 1:a -c copy "$out_f")
  say
  say "== mux: $(du -m "$video" | cut -f1) MB of $codec and $(du -m "$WORK/audio.aac" | cut -f1) MB of AAC into MP4, $RUNS runs each"
  "${MUX_BOXLANE[@]}" || die "boxlane mux failed"
  "${MUX_FFMPEG[@]}" || die "ffmpeg -c copy failed"
  # Every run writes a new file into an empty page cache: the output of the
  # run before is removed and the disk brought up to date untimed, so that
  # neither program waits for the other's writeback or pays for freeing a
  # previous output (which boxlane frees only when it renames its finished
  # file over it, FFmpeg when it truncates it).
  PREPARE=fresh_mux_outputs contest MUX_BOXLANE MUX_FFMPEG
  say "boxlane mux      wall ${WALL[0]} ms (runs: ${RUNS_WALL[0]})  CPU ${CPU[0]} ms  peak ${PEAK[0]} KiB"
  say "ffmpeg -c copy   wall ${WALL[1]} ms (runs: ${RUNS_WALL[1]})  CPU ${CPU[1]} ms  peak ${PEAK[1]} KiB"
  printf -v "${prefix}_SPEED" '%s' "$(ratio "${WALL[1]}" "${WALL[0]}")"
  printf -v "${prefix}_CPU" '%s' "$(ratio "${CPU[1]}" "${CPU[0]}")"
  printf -v "${prefix}_MEMORY" '%s' "$(ratio "${PEAK[0]}" "${PEAK[1]}")"

  local frames_b frames_f
  frames_b=$(video_packets "$out_b")
  frames_f=$(video_packets "$out_f")
  if [[ $frames_b == "$frames_f" ]]; then
    say "CHECK  both files hold $frames_b video samples: PASSED"
  else
    say "CHECK  video sample counts differ: boxlane $frames_b, ffmpeg $frames_f: FAILED"
  fi
  local shown=$CHECK_FRAMES
  ((CHECK_FRAMES > 0)) || shown=all
  decoded_frames "$video" "$WORK/source.md5"
  decoded_frames "$out_b" "$WORK/boxlane.md5"
  decoded_frames "$out_b" "$WORK/boxlane_all.md5" -ignore_editlist 1
  decoded_frames "$out_f" "$WORK/ffmpeg_all.md5" -ignore_editlist 1
  if cmp -s "$WORK/boxlane.md5" "$WORK/source.md5"; then
    say "CHECK  boxlane.mp4 as played (edit list applied): the first $shown frames are the source's: PASSED"
  else
    say "CHECK  boxlane.mp4 as played (edit list applied) differs from the source: FAILED"
  fi
  if cmp -s "$WORK/boxlane_all.md5" "$WORK/source.md5" && cmp -s "$WORK/ffmpeg_all.md5" "$WORK/source.md5"; then
    say "CHECK  both files hold the same pictures (edit lists ignored), the first $shown as decoded: PASSED"
  else
    say "CHECK  the pictures in the two files differ (edit lists ignored): FAILED"
  fi
  audio_packets "$out_b" >"$WORK/boxlane_audio.md5"
  audio_packets "$out_f" >"$WORK/ffmpeg_audio.md5"
  if cmp -s "$WORK/boxlane_audio.md5" "$WORK/ffmpeg_audio.md5"; then
    say "CHECK  every AAC frame is identical in both files: PASSED"
  else
    say "CHECK  AAC frames differ between the two files: FAILED"
  fi
}

compare_fragments() {
  local out_b=$WORK/boxlane_frag.mp4 out_f=$WORK/ffmpeg_frag.mp4
  FRAG_BOXLANE=("$BOXLANE" mux --video "$WORK/video.h264" --audio "$WORK/audio.aac" --fps 30 --fragment 1 -q -o "$out_b")
  FRAG_FFMPEG=(ffmpeg -hide_banner -nostdin -loglevel error -y -framerate 30 -i "$WORK/video.h264"
    -i "$WORK/audio.aac" -map 0:v -map 1:a -c copy -bsf:a aac_adtstoasc -movflags frag_keyframe+empty_moov+default_base_moof "$out_f")
  say
  say "== fragmented mux: the same job, fragments of 1 s (boxlane) and at every key frame (ffmpeg), $RUNS runs each"
  "${FRAG_BOXLANE[@]}" || die "boxlane mux --fragment failed"
  "${FRAG_FFMPEG[@]}" || die "ffmpeg -movflags frag_keyframe failed"
  PREPARE=fresh_mux_outputs contest FRAG_BOXLANE FRAG_FFMPEG
  say "boxlane mux --fragment 1   wall ${WALL[0]} ms (runs: ${RUNS_WALL[0]})  CPU ${CPU[0]} ms  peak ${PEAK[0]} KiB"
  say "ffmpeg frag_keyframe       wall ${WALL[1]} ms (runs: ${RUNS_WALL[1]})  CPU ${CPU[1]} ms  peak ${PEAK[1]} KiB"
  FRAG_SPEED=$(ratio "${WALL[1]}" "${WALL[0]}")
  FRAG_CPU=$(ratio "${CPU[1]}" "${CPU[0]}")
  FRAG_MEMORY=$(ratio "${PEAK[0]}" "${PEAK[1]}")
  local shown=$CHECK_FRAMES
  ((CHECK_FRAMES > 0)) || shown=all
  decoded_frames "$WORK/video.h264" "$WORK/source_h264.md5"
  decoded_frames "$out_b" "$WORK/boxlane_frag.md5"
  if cmp -s "$WORK/boxlane_frag.md5" "$WORK/source_h264.md5"; then
    say "CHECK  boxlane_frag.mp4 as played: the first $shown frames are the source's: PASSED"
  else
    say "CHECK  boxlane_frag.mp4 as played differs from the source: FAILED"
  fi
  audio_packets "$out_b" >"$WORK/boxlane_frag_audio.md5"
  if cmp -s "$WORK/boxlane_frag_audio.md5" "$WORK/boxlane_audio.md5"; then
    say "CHECK  every AAC frame of boxlane_frag.mp4 is the one in boxlane.mp4: PASSED"
  else
    say "CHECK  AAC frames of boxlane_frag.mp4 differ: FAILED"
  fi
  rm -f "$out_b" "$out_f"
}

# The stream of `copies` 20-second clips and as much AAC, from two pipes:
# sets LIVE_PEAK (KiB) and LIVE_FRAMES.
record_from_pipes() {
  local copies=$1 out=$WORK/live.mp4
  rm -f "$out"
  /usr/bin/time -f %M -o "$WORK/time.out" "$BOXLANE" mux -q --fps 30 --fragment 1 -o "$out" \
    --video <(for ((i = 0; i < copies; i++)); do cat "$WORK/clip.h264"; done) \
    --audio <(ffmpeg -hide_banner -nostdin -loglevel error -stream_loop -1 -i "$WORK/audio.aac" -t $((copies * 20)) \
      -c copy -f adts -) || die "boxlane mux from pipes failed"
  LIVE_FRAMES=$(ffprobe -v error -select_streams v:0 -count_packets -show_entries stream=nb_read_packets -of csv=p=0 "$out")
  LIVE_PEAK=$(tail -n 1 "$WORK/time.out")
  rm -f "$out"
}

compare_live_memory() {
  say
  say "== peak memory of boxlane mux --fragment 1 recording 720p30 H.264 and AAC from two pipes"
  record_from_pipes 3
  LIVE_MINUTE=$LIVE_PEAK
  local minute_frames=$LIVE_FRAMES
  record_from_pipes 180
  LIVE_HOUR=$LIVE_PEAK
  say "one minute ($minute_frames frames): peak $LIVE_MINUTE KiB;  one hour ($LIVE_FRAMES frames): peak $LIVE_HOUR KiB"
  LIVE_GROWTH=$(ratio "$LIVE_HOUR" "$LIVE_MINUTE")
}

compare_index() {
  local hour=$WORK/hour.mp4
  INDEX_PROBE=("$BOXLANE" probe --json "$hour")
  INDEX_PARSE=("$PARSE_INDEX" "$hour")
  INDEX_QUERIES=("$PARSE_INDEX" "$hour" --queries)
  INDEX_AVFORMAT=("$AVFORMAT_OPEN" "$hour")
  say
  say "== index of a one-hour MP4 ($(du -m "$hour" | cut -f1) MB, moov first), $RUNS runs each"
  say "boxlane_parse_index --queries: $("${INDEX_QUERIES[@]}")"
  say "avformat_open:                 $("${INDEX_AVFORMAT[@]}")"
  "${INDEX_PROBE[@]}" >/dev/null || die "boxlane probe failed"
  contest INDEX_PROBE INDEX_PARSE INDEX_QUERIES INDEX_AVFORMAT
  local inner_parse inner_queries inner_open
  inner_parse=$(inner_ms "${INDEX_PARSE[@]}")
  inner_queries=$(inner_ms "${INDEX_QUERIES[@]}")
  inner_open=$(inner_ms "${INDEX_AVFORMAT[@]}")
  say "boxlane probe --json           wall ${WALL[0]} ms (runs: ${RUNS_WALL[0]})  CPU ${CPU[0]} ms  peak ${PEAK[0]} KiB"
  say "boxlane_parse_index            wall ${WALL[1]} ms (runs: ${RUNS_WALL[1]})  CPU ${CPU[1]} ms  peak ${PEAK[1]} KiB  in-process $inner_parse ms"
  say "boxlane_parse_index --queries  wall ${WALL[2]} ms (runs: ${RUNS_WALL[2]})  CPU ${CPU[2]} ms  peak ${PEAK[2]} KiB  in-process $inner_queries ms"
  say "avformat_open                  wall ${WALL[3]} ms (runs: ${RUNS_WALL[3]})  CPU ${CPU[3]} ms  peak ${PEAK[3]} KiB  in-process $inner_open ms"
  PROBE_SPEED=$(ratio "${WALL[3]}" "${WALL[0]}")
  PARSE_SPEED=$(ratio "${WALL[3]}" "${WALL[1]}")
  PARSE_CPU=$(ratio "${CPU[3]}" "${CPU[1]}")
  PARSE_INNER=$(ratio "$inner_open" "$inner_parse")
  QUERIES_SPEED=$(ratio "${WALL[3]}" "${WALL[2]}")
  QUERIES_INNER=$(ratio "$inner_open" "$inner_queries")
  PROBE_MEMORY=$(ratio "${PEAK[0]}" "${PEAK[3]}")
  PARSE_MEMORY=$(ratio "${PEAK[1]}" "${PEAK[3]}")
  QUERIES_MEMORY=$(ratio "${PEAK[2]}" "${PEAK[3]}")
}

compare_samples() {
  local file=$WORK/hour_fragmented.mp4
  SAMPLES_PROBE=("$BOXLANE" probe --json --samples "$file")
  SAMPLES_FFPROBE=(ffprobe -v error -show_packets -of json "$file")
  say
  local moofs
  moofs=$("$BOXLANE" probe --json "$file" | sed -n 's/^  "fragments": \([0-9]*\),$/\1/p')
  say "== every sample of a one-hour fragmented MP4 ($(du -m "$file" | cut -f1) MB, $moofs moofs), $RUNS runs each"
  # Both list every sample: the counts must agree before anything is timed.
  local mine theirs
  mine=$("${SAMPLES_PROBE[@]}" | grep -o '"sample_count": [0-9]*' | awk '{ s += $2 } END { print s }')
  theirs=$("${SAMPLES_FFPROBE[@]}" | grep -c '"stream_index"')
  if [[ $mine == "$theirs" ]]; then
    say "CHECK  boxlane probe lists $mine samples, ffprobe $theirs packets: PASSED"
  else
    say "CHECK  boxlane probe lists $mine samples, ffprobe $theirs packets: FAILED"
  fi
  contest SAMPLES_PROBE SAMPLES_FFPROBE
  say "boxlane probe --json --samples  wall ${WALL[0]} ms (runs: ${RUNS_WALL[0]})  CPU ${CPU[0]} ms  peak ${PEAK[0]} KiB"
  say "ffprobe -show_packets -of json  wall ${WALL[1]} ms (runs: ${RUNS_WALL[1]})  CPU ${CPU[1]} ms  peak ${PEAK[1]} KiB"
  SAMPLES_SPEED=$(ratio "${WALL[1]}" "${WALL[0]}")
  SAMPLES_CPU=$(ratio "${CPU[1]}" "${CPU[0]}")
  SAMPLES_MEMORY=$(ratio "${PEAK[0]}" "${PEAK[1]}")
}

# MD5 of every packet of a kind, in decode order: the samples a file holds.
packet_md5s() { ffmpeg -hide_banner -nostdin -loglevel error -i "$1" -map "0:$2:0" -c copy -f framemd5 - | md5_column | md5sum; }

# remux_job NAME INPUT BOXLANE_OPTION FFMPEG_MOVFLAGS: one conversion both
# ways; sets NAME_SPEED, NAME_CPU and NAME_MEMORY.
remux_job() {
  local name=$1 input=$2 option=$3 flags=$4
  local out_b=$WORK/remux_boxlane.mp4 out_f=$WORK/remux_ffmpeg.mp4
  REMUX_BOXLANE=("$BOXLANE" remux "$input" $option -q -o "$out_b")
  REMUX_FFMPEG=(ffmpeg -hide_banner -nostdin -loglevel error -y -i "$input" -c copy -movflags "$flags" "$out_f")
  say
  say "== $name: $(du -m "$input" | cut -f1) MB, $RUNS runs each"
  "${REMUX_BOXLANE[@]}" || die "boxlane remux failed"
  "${REMUX_FFMPEG[@]}" || die "ffmpeg -c copy failed"
  # FFmpeg reads the audio an edit list cuts when it reads fragments: the
  # outputs are compared with each other, in the form both have.
  local kind
  for kind in v a; do
    if [[ $(packet_md5s "$out_b" $kind) == $(packet_md5s "$out_f" $kind) ]]; then
      say "CHECK  FFmpeg reads the same $kind packets from both outputs: PASSED"
    else
      say "CHECK  FFmpeg reads the same $kind packets from both outputs: FAILED"
    fi
  done
  PREPARE=fresh_remux_outputs contest REMUX_BOXLANE REMUX_FFMPEG
  say "boxlane remux $option  wall ${WALL[0]} ms (runs: ${RUNS_WALL[0]})  CPU ${CPU[0]} ms  peak ${PEAK[0]} KiB  $(du -k "$out_b" | cut -f1) KiB"
  say "ffmpeg -c copy -movflags $flags  wall ${WALL[1]} ms (runs: ${RUNS_WALL[1]})  CPU ${CPU[1]} ms  peak ${PEAK[1]} KiB  $(du -k "$out_f" | cut -f1) KiB"
  printf -v "${name}_SPEED" '%s' "$(ratio "${WALL[1]}" "${WALL[0]}")"
  printf -v "${name}_CPU" '%s' "$(ratio "${CPU[1]}" "${CPU[0]}")"
  printf -v "${name}_MEMORY" '%s' "$(ratio "${PEAK[0]}" "${PEAK[1]}")"
}

fresh_remux_outputs() {
  rm -f "$WORK/remux_boxlane.mp4" "$WORK/remux_ffmpeg.mp4"
  sync
}

compare_remux() {
  remux_job REMUX_FRAGMENT "$WORK/hour.mp4" "--fragment 2" frag_keyframe+empty_moov+default_base_moof
  remux_job REMUX_FASTSTART "$WORK/hour_fragmented.mp4" --faststart +faststart
}

has_part() { [[ " $PARTS " == *" $1 "* ]]; }

main() {
  install_missing ffmpeg libavformat-dev pkg-config time cmake ninja-build gcc g++ libbenchmark-dev
  mkdir -p "$WORK"
  build
  make_media
  say "machine: $(nproc) cores, load average $(cut -d' ' -f1-3 /proc/loadavg)"
  has_part index && check_synthetic_movie
  if has_part mux; then
    compare_mux "$WORK/video.h264" H.264 MUX
    compare_mux "$WORK/video.h265" H.265 HEVC_MUX
  fi
  has_part fragments && compare_fragments
  has_part live && compare_live_memory
  has_part index && compare_index
  has_part samples && compare_samples
  has_part remux && compare_remux
  say
  say "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
  say "Ratios are FFmpeg's time over Boxlane's (higher is faster) and Boxlane's peak over FFmpeg's."
  if has_part mux; then
    target "mux: ffmpeg -c copy / boxlane mux, wall time" "$MUX_SPEED" 3 1
    target "mux: boxlane mux peak memory / ffmpeg -c copy peak memory" "$MUX_MEMORY" 1 0
    target "mux H.265: ffmpeg -c copy / boxlane mux, wall time" "$HEVC_MUX_SPEED" 3 1
    target "mux H.265: boxlane mux peak memory / ffmpeg -c copy peak memory" "$HEVC_MUX_MEMORY" 1 0
    say "INFO   mux, CPU time (user + system): $MUX_CPU x; H.265: $HEVC_MUX_CPU x"
  fi
  if has_part fragments; then
    target "fragments: ffmpeg frag_keyframe / boxlane mux --fragment 1, wall" "$FRAG_SPEED" 3 1
    target "fragments: boxlane peak memory / ffmpeg peak memory" "$FRAG_MEMORY" 1 0
    say "INFO   fragmented mux, CPU time (user + system): $FRAG_CPU x"
  fi
  if has_part live; then
    target "pipes: peak memory of one hour / of one minute" "$LIVE_GROWTH" 1.1 0
    target "pipes: peak memory of one hour, MiB" "$(awk -v k="$LIVE_HOUR" 'BEGIN { printf "%.1f", k / 1024 }')" 64 0
  fi
  if has_part index; then
    target "index: avformat_open / boxlane probe --json, wall time" "$PROBE_SPEED" 10 1
    target "index: avformat_open / boxlane_parse_index, wall time" "$PARSE_SPEED" 10 1
    target "index: boxlane probe --json peak memory / avformat_open peak" "$PROBE_MEMORY" 1 0
    target "index: boxlane_parse_index peak memory / avformat_open peak" "$PARSE_MEMORY" 1 0
    say "INFO   index, boxlane_parse_index: CPU time $PARSE_CPU x, in-process $PARSE_INNER x"
    say "INFO   index, boxlane_parse_index --queries: wall $QUERIES_SPEED x, in-process $QUERIES_INNER x, peak memory $QUERIES_MEMORY x"
  fi
  if has_part samples; then
    target "samples: ffprobe -show_packets -of json / boxlane probe --json --samples, wall time" "$SAMPLES_SPEED" 20 1
    say "INFO   samples, CPU time: $SAMPLES_CPU x; peak memory, boxlane / ffprobe: $SAMPLES_MEMORY x"
  fi
  if has_part remux; then
    target "remux to fragments: ffmpeg -c copy / boxlane remux, wall time" "$REMUX_FRAGMENT_SPEED" 3 1
    target "remux to fragments: boxlane peak memory / ffmpeg peak memory" "$REMUX_FRAGMENT_MEMORY" 1 0
    target "remux to faststart: ffmpeg -c copy / boxlane remux, wall time" "$REMUX_FASTSTART_SPEED" 3 1
    target "remux to faststart: boxlane peak memory / ffmpeg peak memory" "$REMUX_FASTSTART_MEMORY" 1 0
    say "INFO   remux, CPU time (user + system): to fragments $REMUX_FRAGMENT_CPU x, to faststart $REMUX_FASTSTART_CPU x"
  fi
}

# Sourced by compare_large.sh for its helpers; run, it compares.
if [[ ${BASH_SOURCE[0]} == "$0" ]]; then main "$@"; fi
