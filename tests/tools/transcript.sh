#!/usr/bin/env bash
# What the boxlane program answers to a table of inputs and options, as one text: each case's command,
# what it prints (the run time hidden), its exit status when not 0, and for a file it writes, a digest of
# its bytes and probe's report. test_transcript.cpp makes the inputs, runs this in their directory and
# compares the text with tests/data/transcript.txt, which was read line by line when it was written.
#   transcript.sh PROGRAM DATA_DIR
set -u
B=$1 D=$2
umask 002  # the mode of every file written (not the usual 022, so that a mode that ignores it shows)
mux() { "$B" mux "$@"; }
probe() { "$B" probe "$@"; }
remux() { "$B" remux "$@"; }
# A digest of the file's bytes, the creation and modification times of mvhd, tkhd and mdhd (the clock
# when it was written) read as 0.
digest() {
  cp "$1" .stamped
  LC_ALL=C grep -obaE 'mvhd|tkhd|mdhd' "$1" | while IFS=: read -r at _; do
    local version=$(od -An -tu1 -j $((at + 4)) -N1 "$1")
    head -c $((version == 1 ? 16 : 8)) /dev/zero | dd of=.stamped bs=1 seek=$((at + 8)) conv=notrunc status=none
  done
  echo "$(md5sum <.stamped | cut -c1-32)  $1"
}
# The digest and probe's report of the file (its first line names the file and its size).
show() { digest "$1" && "$B" probe "$1"; }
# Every report probe can print of the file, as one digest.
deep() { { "$B" probe --samples --tables --boxes "$1" && "$B" probe --json --samples "$1"; } | untimed | md5sum; }
# probe's JSON with the times of writing read as 0.
untimed() { sed -E 's/"(creation|modification)_time": [0-9]+/"\1_time": 0/g'; }
# Bytes into a file in place: poke FILE OFFSET BYTES, where be32 N gives N's four bytes (big-endian).
be32() { printf '\\x%02x' $(($1 >> 24 & 255)) $(($1 >> 16 & 255)) $(($1 >> 8 & 255)) $(($1 & 255)); }
poke() { printf "$3" | dd of="$1" bs=1 seek="$2" conv=notrunc status=none; }
# The 32-bit big-endian number at an offset of a file.
u32_at() { od -An -tu4 --endian=big -j "$2" -N4 "$1" | tr -d ' '; }
# Where the first box of a type (or its Nth: box_at FILE TYPE N) starts in a file.
box_at() { echo $(($(LC_ALL=C grep -obaE "$2" "$1" | sed -n "${3:-1}p" | cut -d: -f1) - 4)); }
# After a command that may fail: the file's digest if it was written, and the command's status.
kept() { local status=$?; [ ! -e "$1" ] || digest "$1"; return $status; }
# The first N lines of what a command prints (usage texts follow many messages), and its status.
brief() { "${@:2}" >.brief 2>&1; local status=$?; head -"$1" .brief; return $status; }
# One case: the command as written, what it prints, and its exit status when not 0.
t() {
  printf '\n$ %s\n' "$1"
  local out status
  out=$(eval "$1" 2>&1)
  status=$?
  # Progress lines come only after two seconds, a length of run that depends on the machine's load.
  printf '%s\n' "$out" | sed -e "s|$D|\$D|g" -e 's/written in [0-9.]* s/written in * s/' \
    -e '/^boxlane mux: .*: [0-9]* frames, [0-9.]* s written$/d'
  [ $status = 0 ] || echo "[exit $status]"
}

# mux: every option on the bundled streams.
t 'mux -v $D/sample.h264 -a $D/sample.aac -o av.mp4 && show av.mp4 && deep av.mp4'
t 'mux --video $D/sample.h264 --audio $D/sample.aac --faststart --output fs.mp4 && digest fs.mp4 && deep fs.mp4'
t 'mux -v $D/sample.h264 -a $D/sample.aac --fragment 1 -o fr.mp4 && show fr.mp4 && deep fr.mp4'
t 'mux -a $D/sample.aac --fragment 0.5 --fsync -o fa.mp4 && show fa.mp4 && deep fa.mp4'
t 'mux -v $D/sample.h264 --fragment 86400 -o fv.mp4 && digest fv.mp4 && probe fv.mp4 | grep fragments:'
t 'mux -v $D/sample.h264 -a $D/sample.aac --fps 30000/1001 --fragment 2 -o f2997.mp4 && show f2997.mp4'
t 'mux -a $D/sample.aac --timescale 2147483647 -o tmax.mp4 && digest tmax.mp4 && probe --samples tmax.mp4 | tail -1'
t 'mux -a $D/sample.aac -o a.mp4 && show a.mp4'
t 'mux -q -v $D/sample.h264 -o q.mp4 && digest q.mp4 && cat $D/sample.aac | mux -a - --fragment 1 -o apipe.mp4 && digest apipe.mp4'
# A piped input is spooled beside the output, wherever the program runs: here in a directory since removed.
t '(w=$PWD; mkdir gone && cd gone && rmdir ../gone && cat $D/sample.h264 | mux -q -v - -o "$w/gone.mp4") && digest gone.mp4'

# mux: H.265 (Main 10, open GOPs with CRA pictures and their leading pictures).
t 'mux -v $D/main10_cra.h265 -a $D/sample.aac -o h265.mp4 && show h265.mp4 && deep h265.mp4'
t 'mux --video-codec hevc -v $D/main10_cra.h265 --fragment 0.1 -o h265f.mp4 && digest h265f.mp4 && deep h265f.mp4'
t 'mux --video-codec h264 -v $D/main10_cra.h265 -o x.mp4'
t 'mux --video-codec h264 --video-codec auto -v $D/main10_cra.h265 -o x.mp4 && digest x.mp4'
# 40 access unit delimiters before the first parameter set: still found to be H.265.
t '{ for i in $(seq 40); do printf "\\0\\0\\0\\1\\x46\\x01\\x50"; done; cat $D/main10_cra.h265; } > aud40.h265; mux -q -v aud40.h265 -o aud40.mp4 && digest aud40.mp4'
# In fragments from a pipe that hands over a delimiter alone, then the rest a second later: H.265 all the same.
t '{ printf "\\0\\0\\0\\1\\x46\\x01\\x50"; sleep 1; cat $D/main10_cra.h265; } | mux -v - --fragment 1 -o aud1.mp4'
t 'mux -v lead.h265 -o lead.mp4 && digest lead.mp4 && mux -q -v lead.h265 -o leadq.mp4 && mux -q -v lead.h265 --fragment 1 -o leadf.mp4 && digest leadf.mp4'
# An end of sequence before the second CRA picture: its RASL pictures go, their time stays, and no audio goes with them.
t 'mux -v eos.h265 -o eos.mp4 && show eos.mp4 && mux -v eos.h265 -a $D/sample.aac -o eosa.mp4 && mux -v eos.h265 -a $D/sample.aac --fragment 0.1 -o eosf.mp4 && deep eosf.mp4'
# The CRA picture made a BLA picture (a splice): its RASL pictures go as well.
t 'cp $D/main10_cra.h265 bla.h265; poke bla.h265 5861 "\\x20"; mux -v bla.h265 -o bla.mp4 && digest bla.mp4'
# Without the second GOP's parameter sets: the prefix SEI before its CRA picture opens the fragment.
t 'mux -v sei_cra.h265 --fragment 0.1 -o seif.mp4 && deep seif.mp4'

# mux: streams in other shapes.
# The 49 pictures left out last 1.96 s, longer than an audio track of one frame: that frame stays, in fragments too.
t 'mux -v mid_gop.h264 -o mid.mp4 && show mid.mp4; head -c 140 $D/sample.aac > a1.aac; for f in "" "--fragment 1"; do mux -v mid_gop.h264 -a a1.aac $f -o y.mp4; done'
t 'mux -v mid_gop.h264 --keep-leading --fragment 1 -o midk.mp4 && digest midk.mp4'
# Pictures before any parameter set cannot be read: --keep-leading drops them too.
t '{ tail -c +4995 $D/sample.h264 | head -c 20000; cat $D/sample.h264; } > before_sets.h264; mux -v before_sets.h264 --keep-leading -o x.mp4 && digest x.mp4'
t 'mux -v two_pps.h264 --fps 25 -o pps.mp4 && digest pps.mp4 && deep pps.mp4'
t 'mux -v captions.h264 -o cap.mp4 && digest cap.mp4 && mux -v captions.h264 --strip-sei -o nocap.mp4 && digest nocap.mp4'
t 'mux -v open_cut.h264 -o open.mp4 && show open.mp4 && mux -v open_cut.h264 --keep-leading -o openk.mp4 && digest openk.mp4'
t 'mux -v $D/slices.h264 -o sl.mp4 && show sl.mp4 && mux -v $D/slices.h264 --fragment 0.2 -o slf.mp4 && digest slf.mp4 && deep slf.mp4'
# A B-frame stream that ends with an IDR picture on its own.
t 'cat $D/sample.h264 > lone.h264; head -c 4993 $D/sample.h264 | tail -c +726 >> lone.h264; mux -v lone.h264 --fragment 1 -o lone.mp4 && digest lone.mp4'
t 'mux -q -v two_pps.h264 --fragment 1 -o ppsf.mp4 && deep ppsf.mp4'
t 'mux -a aac_96k.aac -o a96.mp4 && show a96.mp4 && deep a96.mp4'
t 'mux -a aac_mono_8k.aac -o a8.mp4 && show a8.mp4'
t 'mux -a aac_7.1.aac --fragment 1 -o a71f.mp4 && digest a71f.mp4 && mux -a aac_pce.aac --fragment 1 -o pcef.mp4 && digest pcef.mp4'
t 'mux -a aac_pce.aac -v $D/sample.h264 -o pce.mp4 && show pce.mp4'
t 'mux -a aac_crc.aac -o crc.mp4 && digest crc.mp4'

# mux: inputs it refuses or ends early.
# 7350 Hz, the last rate of the table (ISO/IEC 14496-3 Table 1.18).
t 'mux -a aac_7350.aac -o x.mp4 && probe --json x.mp4 | grep sample_rate'
t 'mux -v cut.h264 -a $D/sample.aac -o cut.mp4; kept cut.mp4'
t 'mux -a cut.aac -v $D/sample.h264 --fragment 1 -o cutaf.mp4; kept cutaf.mp4'
t 'mux -a long.aac --fragment 5 -o x.mp4; kept x.mp4'
t 'mux -v $D/x264_sps_pps.h264 -o x.mp4'
t '{ cat $D/sample.h264; printf "\\0\\0\\0\\1\\x85\\x88\\x80"; } > forbidden.h264; mux -v forbidden.h264 -o x.mp4'
t 'mux -v - -o x.mp4 < /dev/null'
t 'mux -v empty --fragment 1 -o x.mp4; mux -a empty --fragment 1 -o x.mp4'
# SIGTERM once a FIFO is open but has sent nothing (its writer holds it open until the end): the run stops at
# once. The wait ends if mux has gone too, so a slow start fails the line instead of hanging it.
t 'mkfifo idle.fifo; sleep 60 > idle.fifo 2>/dev/null & w=$!; "$B" mux -v idle.fifo --fragment 1 -o x.mp4 & p=$!; until ls -l /proc/$p/fd 2>/dev/null | grep -q idle.fifo || ! kill -0 $p 2>/dev/null; do sleep 0.01; done; kill -TERM $p; wait $p; s=$?; kill $w; (exit $s)'
t 'mux -v $D/sample.aac -o x.mp4'
t 'mux -v $D/sample.h264 -o no/dir/x.mp4'
t 'mux -v . -o x.mp4'
t 'mux -a . --fragment 1 -o x.mp4'

# mux: usage.
t 'mux -v $D/sample.h264 -o'
t 'mux -v a --fps 0.0004 -o x; mux -v one.h264 --fps 0.0045 -o y.mp4 && digest y.mp4'
t 'for r in 25x/1 25/1x 25x 0/1 -1 nan; do mux -v a --fps $r -o x; done'
# 0, values with a trailing character, one past the largest, and 0 seconds of fragment.
t 'mux -v a --timescale 0 -o x; mux -v a --timescale 25x -o x; mux -v a --timescale 2147483648 -o x'
t 'mux -v a --fragment 1s -o x; mux -v a --fragment 0 -o x; mux -v a --fragment 86400.001 -o x'
# An unknown codec and option; no input, no output, both inputs from standard input.
t 'mux -v a --video-codec vp9 -o x; mux -v a --loud -o x; mux -o x; mux -v a; mux -v - -a - -o x'
t 'mux -v a --fragment 1 --faststart -o x; mux -v a --fsync -o x'
t 'mux --help 2>/dev/null | head -1; mux -h 2>/dev/null | head -1; exit ${PIPESTATUS[0]}'

# mux: options and inputs at their limits.
t 'for r in 1000 1000000/40000; do mux -v $D/sample.h264 --fps $r -o y.mp4 && digest y.mp4; done'
t 'mux -v $D/sample.h264 --fps 12.5 --faststart -o y.mp4 && digest y.mp4'
# 1.15 ticks a frame, B-frames shifted by three: the movie ends where a 129th frame would start, at 147 - 3 ticks.
# 125 frames of 20000000 ticks last 2500000000, past 2^31 but within the unsigned 32 bits of a version 0 elst.
t 'mux -v $D/sample.h264 --fps 20 --timescale 23 -o y.mp4 && show y.mp4; mux -q -v $D/sample.h264 --fps 1 --timescale 20000000 -o y.mp4 && probe y.mp4 | grep movie:'
# The VUI's time_scale in the three SPSs made 2000, 2001 and 1 (num_units_in_tick 1): 1000, 1000.5 and half a
# frame a second (ISO/IEC 14496-10 §E.2.1).
t 'for v in "22 \\x7d\\x00\\xf1\\x42\\x99\\x60\\x00" "22 \\x7d\\x10\\xf1\\x42\\x99\\x60\\x00" "23 \\x00\\x10"; do cp $D/sample.h264 vui.h264; set -- $v; for at in 0 61488 131017; do poke vui.h264 $(($1 + at)) "$2"; done; mux -v vui.h264 -o y.mp4 && digest y.mp4; done'
# Three frames of 2^32 - 1 ticks in all still fit version 0 boxes; a tick more a frame does not. probe adds
# the stts run up in 64 bits.
t 'for ts in 1431655765 1431655766; do mux -q -v recovery.h264 --fps 1 --timescale $ts -o y.mp4 && digest y.mp4 && probe --json y.mp4 | grep table_duration; done'
# 2/3 of a frame a second: on 1431655763 ticks a second a frame lasts 2147483644.5 ticks, the two written as
# 2147483644 and 2147483645; on 1431655765 it lasts 2147483647.5, and every second frame would take 2^31.
t 'for ts in 1431655763 1431655765; do mux -q -v two.h264 --fps 2/3 --timescale $ts -o y.mp4 && probe --samples y.mp4 | tail -1; done'
# A fragment of audio alone holds at least one frame, however short --fragment is.
t 'mux -a $D/sample.aac --fragment 0.000001 -o y.mp4 && digest y.mp4'
t 'head -c 4096 /dev/zero | tr "\\0" "\\1" > ones.bin; mux -v ones.bin -o x.mp4'
# An avcC counts its SPSs in 5 bits and its PPSs in 8 (ISO/IEC 14496-15 §5.3.3.1).
t 'mux -v sps_32.h264 -o x.mp4'
t 'mux --quiet -v pps_255.h264 -o y.mp4 && digest y.mp4 && mux -v pps_256.h264 -o x.mp4'
# A repeated SPS with a byte more at its end is another SPS.
t '{ cat one.h264; head -c 10 one.h264; printf "\\x80"; } > longer.h264; mux -v longer.h264 -o x.mp4'
t 'mux -v taller.h264 -o x.mp4'
# A PPS of SPS 1, which was never sent.
t '{ cat one.h264; printf "\\0\\0\\0\\1\\x68\\xa3\\x8f\\x20"; } > pps_first.h264; mux -v pps_first.h264 -o x.mp4; mux -v pps_first.h264 --fragment 1 -o x.mp4'
# The P picture sent twice.
t '{ cat two.h264; tail -c $(($(stat -c %s two.h264) - $(stat -c %s one.h264))) two.h264; } > same_poc.h264; mux -v same_poc.h264 -o x.mp4'
# Data partition B in fragments: a piece waits for the next IDR picture, 128 MiB at most.
t '{ cat one.h264; printf "\\0\\0\\0\\1\\x63"; head -c 129M /dev/zero | tr "\\0" "\\377"; } | mux -v - --fragment 1 -o x.mp4'
t '{ cat $D/main10_cra.h265; head -c 129M /dev/zero | tr "\\0" "\\377"; } | mux -v - --fragment 1 -o x.mp4'
# One IDR picture and 69999 P pictures (2800 s) beside 500 s of audio read 1 MiB (some 125 s) at a time: the one
# fragment the video allows waits for all its audio.
t '{ for i in $(seq 100); do cat $D/sample.aac; done; } > a100.aac; mux -v long70k.h264 -a a100.aac --fps 25 --fragment 1 -o y.mp4'
# Read 1 MiB at a time, its frames of 21.33 ms keep their rounding: the last of 23600 starts at 23599 x 64 / 3 ms.
t 'mux -q -a a100.aac --timescale 1000 --fragment 100 -o y.mp4 && probe --samples y.mp4 | tail -1'
# After the picture a unit of each kind: data partitions B and C, an auxiliary picture and slice extensions (20,
# 21) join its sample, 6 bytes each; end of sequence, filler, an SPS extension and reserved 22 and 23 do not.
t '{ cat one.h264; for n in 63 64 73 74 75 0a 0c 6d 16 17; do printf "\\0\\0\\0\\1\\x$n\\xff"; done; } > kinds.h264; mux -q -v kinds.h264 -o y.mp4 && probe --samples y.mp4 | tail -1'
# H.265: the VPS's level changed in a second copy.
t 'cp $D/main10_cra.h265 vps.h265; poke vps.h265 24 "\\x5d"; cat $D/main10_cra.h265 vps.h265 > changing.h265; mux -v changing.h265 -o x.mp4; mux -v changing.h265 --fragment 1 -o x.mp4'
# hvcC holds 64 parameter sets at most: the stream's VPS, SPS and PPS, and PPS 1 to 61; PPS 62 is one too many.
t 'cat $D/main10_cra.h265 pps_1_61.h265 > sets_64.h265; mux -v sets_64.h265 -o y.mp4 && digest y.mp4; cat sets_64.h265 pps_62.h265 > sets_65.h265; mux -v sets_65.h265 -o x.mp4'
t '{ cat $D/main10_cra.h265; printf "\\0\\0\\0\\1\\x80\\x01\\xaf"; } > damaged.h265; mux -v damaged.h265 -o x.mp4'
# A slice of PPS 5; a NAL unit of reserved type 22 (RSV_IRAP_VCL22), which decoders ignore; one of layer 1.
t '{ cat $D/main10_cra.h265; printf "\\0\\0\\0\\1\\x02\\x01\\x9a"; } > pps_5.h265; mux -v pps_5.h265 -o x.mp4'
t '{ cat $D/main10_cra.h265; printf "\\0\\0\\0\\1\\x2c\\x01\\xaf"; } > rsv.h265; mux -v rsv.h265 -o y.mp4 && digest y.mp4'
t '{ cat $D/main10_cra.h265; printf "\\0\\0\\0\\1\\x02\\x09\\xaf\\x00"; } > layered.h265; mux -v layered.h265 -o x.mp4'
# The IDR picture's first_slice_segment_in_pic_flag cleared; in fragments, pictures before the first IRAP one go.
t 'cp $D/main10_cra.h265 headless.h265; poke headless.h265 2379 "\\x2c"; mux -v headless.h265 -o x.mp4; cat headless.h265 $D/main10_cra.h265 > late.h265; mux -v late.h265 --fragment 1 -o y.mp4 && digest y.mp4'
t 'mux -v $D/sample.h264 --video-codec h265 --fragment 1 -o x.mp4'
# A P picture with memory_management_control_operation 5 starts its picture order count anew.
t 'mux -v mmco5.h264 -o mm.mp4 && show mm.mp4'
# An SPS of another id and size after the second GOP's: the size comes from the first SPS.
t '{ head -c 3569 $D/main10_cra.h265; cat sps1.h265; tail -c +3570 $D/main10_cra.h265; } > sps1_late.h265; mux -v sps1_late.h265 -o x.mp4'
# In fragments, new PPSs before the second GOP, and the first SPS repeated after a 3-byte start code.
t '{ head -c 3484 $D/main10_cra.h265; cat pps_1_61.h265; tail -c +3485 $D/main10_cra.h265; } > pps2.h265; mux -v pps2.h265 --fragment 1 -o x.mp4'
t 'LC_ALL=C sed "s/\\x00\\x00\\x00\\x01\\x68/\\x00\\x00\\x01\\x68/" one.h264 > one3.h264; cat one.h264 one3.h264 > mixed.h264; mux -v mixed.h264 --fragment 1 -o x.mp4 && digest x.mp4'
t '{ cat $D/sample.aac; printf "\\377"; } > ff.aac; mux -a ff.aac -o ff.mp4; kept ff.mp4'
t 'mux -v $D/sample.h264 --video-codec avc -o y.mp4 && digest y.mp4'
# An MPEG-1 layer III header (its bits where ADTS has the rate give 13), bytes without a sync word whose bits there
# give 15; an ID3 tag alone.
t 'for h in "\\xff\\xfb\\xb4" "\\0\\0\\x3c"; do { printf "$h"; cat $D/sample.aac; } > layer3.aac; mux -a layer3.aac -o x.mp4; done'
t 'printf "ID3\\4\\0\\0\\0\\0\\0\\0" > tag.aac; mux -a tag.aac -o x.mp4; mux -a tag.aac --fragment 1 -o x.mp4'
# The first frame's sampling_frequency_index 13 or 14 (reserved), two raw data blocks; a frame of its header alone.
t 'for b in "2 \\x74" "2 \\x78" "6 \\xfd"; do cp $D/sample.aac r.aac; poke r.aac $b; mux -a r.aac -o x.mp4; done'
t '{ printf "\\xff\\xf1\\x4c\\x80\\0\\xff\\xfc"; cat $D/sample.aac; } > empty_frame.aac; mux -a empty_frame.aac -o x.mp4'
# The second frame (at byte 140) gives 44100 Hz, mono, or AAC Main.
t 'for b in "142 \\x50" "143 \\x40" "142 \\x0c"; do cp $D/sample.aac r.aac; poke r.aac $b; mux -a r.aac -o x.mp4; done'
t 'mux -v a --fps 1001/1 -o x; mux -v a --fps 1000.5 -o x; mux -v a --fps 1000001/1001 -o x; mux -v a --fps 1/1000001 -o x'
t 'for ts in 46 47; do mux -a $D/sample.aac --timescale $ts -o y.mp4 && digest y.mp4; done'
t 'for ts in 24 25; do mux -v one.h264 --fps 25 --timescale $ts -o y.mp4 && digest y.mp4; done'
# 999983 (a prime) frames in 1000 s with 48 kHz audio: a time scale of both, 48000 x 999983, does not fit 31 bits.
t 'mux -q -v one.h264 -a $D/sample.aac --fps 999983/1000 -o y.mp4 && probe --json y.mp4 | grep -m2 timescale'
# 13.986 is 14000/1001, 2000/143 in lowest terms: a frame lasts 3432 ticks of 48 kHz (with AAC), 6435 of 90 kHz alone.
t 'for a in "-a $D/sample.aac" ""; do mux -q -v one.h264 $a --fps 13.986 -o y.mp4 && probe --json y.mp4 | grep -m1 timescale; done'
# A frame of 100000 s: too long at 90 kHz, and on milliseconds when no time scale is given.
t 'mux -v $D/sample.h264 --fps 1/100000 --timescale 90000 -o x.mp4; mux -v one.h264 --fps 1/100000 -o y.mp4 && digest y.mp4'
t 'mux -v $D/sample.h264 -o new/; mux -v $D/sample.h264 -o .'
# A failing run leaves an existing target as it was, and no temporary file.
t 'echo old > old.mp4; mux -v $D/sample.h264 --fps 1 --timescale 2147483647 -o old.mp4; cat old.mp4; ls -A | grep -c boxlane-'
# Rates 0.004 and 0.01 from 30000/1001: only the first is taken as it; a frame of 2^31 ticks, one past an stts delta.
t 'for r in 29.966 29.96; do mux -v one.h264 --fps $r -o y.mp4; done; mux -v one.h264 --fps 1/2 --timescale 1073741824 -o x.mp4'
# A recording that starts at a recovery point, with an IDR picture later; one byte of video in fragments.
t 'mux -v recovery_idr.h264 -o y.mp4 && digest y.mp4; printf x > byte.h264; mux -v byte.h264 --fragment 1 -o x.mp4'
# H.265 without its PPS (the first GOP's VPS and SPS alone); the end of sequence ends its effect at the next IRAP
# picture: a stream after it opens with a CRA picture whose leading pictures stay. In fragments, the pictures dropped
# at the end of sequence cut no audio, though the whole input was read before the first fragment.
t 'head -c $(($(LC_ALL=C grep -obaP "\x00\x00\x00\x01\x44" $D/main10_cra.h265 | head -1 | cut -d: -f1))) $D/main10_cra.h265 > nopps.h265; mux -v nopps.h265 -o x.mp4'
t 'cat eos.h265 $D/main10_cra.h265 > eos2.h265; mux -v eos2.h265 -o y.mp4 && digest y.mp4 && mux -v eos2.h265 -a $D/sample.aac --fragment 0.1 -o yf.mp4'
# One ADTS frame cut short, alone; a fragmented movie written into a pipe (no mehd patched in at the end).
t 'head -c 100 $D/sample.aac > part.aac; mux -a part.aac -o x.mp4'
t 'set -o pipefail; mux -q -a $D/sample.aac --fragment 1 -o /dev/stdout | cat > piped.mp4 && digest piped.mp4'
# In fragments too, B-frames shifted by a frame of 2^31 - 1 ticks do not fit a 32-bit composition offset.
t 'mux -v $D/sample.h264 --fps 1 --timescale 2147483647 --fragment 1 -o x.mp4'
# The first GOP's parameter sets, then only trailing pictures of the second: no IRAP picture at all.
t '{ head -c 2373 $D/main10_cra.h265; tail -c +3276 $D/main10_cra.h265 | head -c 209; } > no_irap.h265; mux -v no_irap.h265 -o x.mp4; mux -v no_irap.h265 --fragment 1 -o x.mp4'
# An SPS of 65535 bytes (its tail padded with 0x11), the most an avcC entry holds; one byte more.
t 'p=$(($(LC_ALL=C grep -obaP "\x00\x00\x00\x01\x68" one.h264 | head -1 | cut -d: -f1))); for n in $((65535 - p + 4)) $((65536 - p + 4)); do { head -c $p one.h264; head -c $n /dev/zero | tr "\\0" "\\021"; tail -c +$((p + 1)) one.h264; } > big_sps.h264; mux -v big_sps.h264 -o y.mp4 && echo written; done'

# probe: reports of the files above in every form, and of files cut or changed.
t 'probe --strict --json fr.mp4 | untimed | md5sum'
t 'probe --boxes a.mp4 | tail -20 && stat -c "%a %n" av.mp4 fr.mp4 cutaf.mp4'
# Every way of feeding the moov-last and the fragmented file gives the same JSON, an mdat typed in capitals too.
t 'for f in av fr; do probe --json --samples $f.mp4 > whole; for o in "--piece 1" "--random-pieces 5000 --seed 99" "--random-pieces 1" "--pools 4 --piece 300"; do probe --json --samples $o $f.mp4 | cmp - whole && echo "$f $o: same"; done; cat $f.mp4 | probe --json --samples --piece 999 - | cmp - whole && echo "$f from a pipe: same"; done; cp av.mp4 upper.mp4; poke upper.mp4 $(($(box_at av.mp4 mdat) + 4)) MDAT; probe --json --samples --piece 999 upper.mp4 | cmp - <(probe --json --samples av.mp4) && echo "MDAT: same"'
# 70000 samples, past one query window (65536); 4100 fragments, past the 4096 answers the parser holds.
t 'mux -q --fps 25 --timescale 25 -v long70k.h264 -o l70k.mp4 && probe --json --samples l70k.mp4 | grep "\"decode_time\"" | tr -d "[]," | awk "{print NF - 1, \$65537, \$65538, \$70001}"'
t 'mux -q --fps 25 --fragment 0.04 -v idr4100.h264 -o i4100.mp4 && probe --json i4100.mp4 | grep -E "\"(track_fragments|sample_count|complete)\""'
# 23600 fragments, far more than the parser keeps waiting (4096 answers): remux and probe take every one.
t '{ for i in $(seq 100); do cat $D/sample.aac; done; } > a100.aac; mux -q -a a100.aac --fragment 0.000001 -o f23600.mp4 && remux -q f23600.mp4 -o r23600.mp4 && digest r23600.mp4 && probe --json f23600.mp4 | grep -m1 complete'
# The audio's stsz made one sample_size (1000 bytes) for all its 236 samples, the entries left in a free box.
t 'cp a.mp4 c.mp4; at=$(box_at c.mp4 stsz); poke c.mp4 $at $(be32 20)stsz$(be32 0)$(be32 1000)$(be32 236)$(be32 944)free; probe --tables c.mp4 | sed -n "6,20p"'
t 'cp c.mp4 c5g.mp4; poke c5g.mp4 $(($(box_at c.mp4 stsz) + 12)) $(be32 20000000); probe c5g.mp4 | grep "bit rate"'
# The audio's stco made a free box; then a co64 of no entries, the rest of the stco in a free box.
t 'cp a.mp4 nostco.mp4; at=$(box_at a.mp4 stco); poke nostco.mp4 $((at + 4)) free; probe nostco.mp4 | grep note; poke nostco.mp4 $at $(be32 16)co64$(be32 0)$(be32 0)$(be32 $(($(u32_at a.mp4 $at) - 16)))free; probe nostco.mp4 | grep note'
# The audio trun of the first moof given the video's data_offset: two trafs that share data.
t 'cp fr.mp4 ov.mp4; set -- $(LC_ALL=C grep -obaE trun ov.mp4 | head -2 | cut -d: -f1); poke ov.mp4 $(($2 + 12)) $(be32 $(u32_at ov.mp4 $(($1 + 12)))); probe ov.mp4 | sed -n "4,5p;/note/p"'
# The video trun of the first moof given a data_offset of 8: its data inside the moof.
t 'cp fr.mp4 in_moof.mp4; poke in_moof.mp4 $(($(box_at fr.mp4 trun) + 16)) $(be32 8); probe in_moof.mp4 | sed -n "6,7p"'
t 'cp fr.mp4 cc.mp4; poke cc.mp4 $(($(box_at cc.mp4 trun) + 12)) $(be32 100000); probe cc.mp4 | sed -n "6,7p"; probe --json cc.mp4 | grep -m1 complete'
# The second moof made size 7: the fragments after it are not counted (--strict counts none: one line says so); the
# first trun both longer than its samples and with its data inside its moof.
t 'cp fr.mp4 stop_frag.mp4; poke stop_frag.mp4 $(box_at fr.mp4 moof 2) $(be32 7); probe stop_frag.mp4 | grep -m1 missing:; probe --strict stop_frag.mp4 | grep missing:'
t 'cp fr.mp4 both.mp4; poke both.mp4 $(($(box_at fr.mp4 trun) + 12)) $(be32 100000)$(be32 8); probe both.mp4 | grep -m1 missing:'
# The first trun cut to its version and flags, before its sample_count (ISO/IEC 14496-12 §8.8.8), the rest of it made
# a free box: its 25 samples are left out.
t 'cp fr.mp4 short_trun.mp4; r=$(box_at fr.mp4 trun); poke short_trun.mp4 $r $(be32 12); poke short_trun.mp4 $((r + 12)) $(be32 $(($(u32_at fr.mp4 $r) - 12)))free; probe short_trun.mp4 | grep -m3 -E "^track|missing:|samples:"; probe --json short_trun.mp4 | grep -m1 complete'
# One sample in one fragment; two track ids past 9 under --strict.
t 'mux -q -a $D/sample.aac --fragment 0.000001 -o f1.mp4 && head -c $(box_at f1.mp4 moof 2) f1.mp4 > one_frag.mp4; probe one_frag.mp4 | grep fragments:'
t 'cp fs.mp4 ids.mp4; for k in 1 2; do poke ids.mp4 $(($(box_at fs.mp4 tkhd $k) + 20)) $(be32 $((9 + k))); done; probe --strict ids.mp4 | grep -m1 note:'
# A movie without tracks: the audio's trak made a free box.
t 'cp a.mp4 notrak.mp4; poke notrak.mp4 $(($(box_at a.mp4 trak) + 4)) free; probe notrak.mp4 | grep movie:'
# The video's mdhd given the whole duration of its fragments: no note that its stts says otherwise.
t 'cp fr.mp4 frd.mp4; poke frd.mp4 $(($(box_at fr.mp4 mdhd) + 24)) $(be32 240000); probe frd.mp4 | grep -E "duration:|note"'
t 'probe a.mp4 > /dev/full'
t 'probe missing.mp4'
t ': > empty.mp4; probe empty.mp4; : | probe -'
t 'brief 1 probe --pools 64 fs.mp4 && brief 1 probe --piece 67108864 fs.mp4 && brief 1 probe --random-pieces 67108864 --seed 0 fs.mp4 && brief 1 probe fs.mp4 --piece'
t 'brief 3 probe -z'
t 'brief 3 probe --seed 1 x'
# Values below, past or outside each option's range (--seed 2^64), no input; the usage asked for.
t 'for a in "--piece 0" "--piece 67108865" "--piece 5x" "--random-pieces 0" "--seed 18446744073709551616" "--pools 0" "--pools 65"; do brief 1 probe $a fs.mp4 --json; done; brief 1 probe --json; brief 1 probe -h && brief 1 probe --help'
# Standard input already read past its ftyp: probe reads from where it stands.
t '(dd bs=32 count=1 of=/dev/null status=none; probe -) < fs.mp4 | head -2'

# What probe says of a file it cannot read, fed a byte at a time and through a pipe, with each exit status.
bytewise() { probe --piece 1 "$1"; echo "[exit $?]"; cat "$1" | probe -; echo "[exit $?]"; }
ftyp=$(be32 20)ftypisom$(be32 512)isom
t 'printf $ftyp$(be32 1)moov$(be32 0) > cut_in_large_header.mp4; head -c 23 cut_in_large_header.mp4 | probe -; bytewise cut_in_large_header.mp4'
t '{ printf $ftyp$(be32 1)moov$(be32 0)$(be32 1000); head -c 10 /dev/zero; } > cut_in_large.mp4; bytewise cut_in_large.mp4'
t 'head -c $((32 + $(u32_at fs.mp4 32) + 100)) fs.mp4 > cut_in_mdat.mp4; bytewise cut_in_mdat.mp4'
# A type of printable letters and a DEL byte.
t '{ printf $(be32 100)"moo\\x7f"; head -c 10 /dev/zero; } > binary.mp4; bytewise binary.mp4'
t '{ printf $ftyp$(be32 7)free; head -c 20 /dev/zero; } > size_seven.mp4; bytewise size_seven.mp4'
t 'printf $ftyp > only_ftyp.mp4; probe only_ftyp.mp4'
# A type with a control byte.
t '{ printf $(be32 100)"mo\\x01v"; head -c 10 /dev/zero; } > control.mp4; probe control.mp4'
# A udta that declares 500 bytes in a movie box of 24.
t '{ printf $ftyp$(be32 24)moov$(be32 500)udta$(be32 0)$(be32 0)$(be32 16)free$(be32 0)$(be32 0); } > past.mp4; bytewise past.mp4'

# A full box (version 0, flags 0) of a type around the bytes given, as printf escapes; N zero bytes, the same.
fbox() { printf %s "$(be32 $(($(printf "$2" | wc -c) + 12)))$1$(be32 0)$2"; }
zeros() { printf '\\x00%.0s' $(seq $1); }
# a.mp4's audio made 10 samples (stts) of the mdhd duration $dur (10240) in 3 chunks: from its stsc on, its tables
# (1952 bytes) become an stsc of the entries given (first_chunk samples_per_chunk sample_description_index ...), the
# boxes given, an stco (of $chunks, by default 3 chunks) and a free box. What probe says of the tables follows.
tables() {
  local f=$1 more=$2 rows= n; shift 2
  for n; do rows+=$(be32 $n); done
  cp a.mp4 $f; poke $f $(($(box_at $f stts) + 16)) $(be32 10); poke $f $(($(box_at $f mdhd) + 24)) $(be32 ${dur:-10240})
  local offsets=${chunks:-1000 1400 1800} stco= c
  for c in $offsets; do stco+=$(be32 $c); done
  local new=$(fbox stsc "$(be32 $(($# / 3)))$rows")$more$(fbox stco "$(be32 $(wc -w <<<"$offsets"))$stco")
  poke $f $(box_at $f stsc) "$new$(be32 $((1952 - $(printf "$new" | wc -c))))free"
  probe $f | sed -n '/^  tables:/,$p'
}
stsz100=$(fbox stsz $(be32 100)$(be32 10))  # 100 bytes for each of 10 samples
# A sync sample named twice is out of order too; the last stsc entry runs to the last chunk: 3 x 4 samples. The JSON
# gives each table's own count.
t 'tables twice.mp4 "$(fbox stsz $(be32 0)$(be32 9)$(for i in $(seq 9); do be32 100; done))$(fbox stss $(be32 2)$(be32 3)$(be32 3))" 1 4 1; probe --json twice.mp4 | grep -E "\"(stts|stsz)_samples\""'
# One size for every sample (sample_size 100), for 9 samples where stts counts 10; the JSON keeps the stsz's count,
# and its 9 x 100 bytes.
t 'tables const9.mp4 "$(fbox stsz $(be32 100)$(be32 9))" 1 4 1 3 2 1; probe --json const9.mp4 | grep -E "constant_sample_size|sample_bytes"'
# Sample numbers start at 1.
t 'tables zero.mp4 "$stsz100$(fbox stss $(be32 1)$(be32 0))" 1 4 1'
t 'tables chunk0.mp4 "$stsz100" 0 4 1; tables stss11.mp4 "$stsz100$(fbox stss $(be32 1)$(be32 11))" 1 4 1 3 2 1'
# Two stts runs of 2^32 - 1 samples of 2^32 - 1 ticks in place of the first (made a free box): the sum stays 2^64 - 1.
t 'tables sum.mp4 "$(fbox stts $(be32 2)$(be32 4294967295)$(be32 4294967295)$(be32 4294967295)$(be32 4294967295))$stsz100" 1 4 1 3 2 1 >/dev/null; poke sum.mp4 $(($(box_at sum.mp4 stts) + 4)) free; probe sum.mp4 | grep -E "samples:|note"'
# No stsz: no bit rate; an stz2 of 16-bit sizes, read in the extended mode and not with --strict; one of field size 7,
# which ISO/IEC 14496-12 §8.7.3.3 does not allow.
t 'tables nostsz.mp4 "" 1 4 1 3 2 1; tables stz2.mp4 "$(fbox stz2 "\\0\\0\\0\\x10$(be32 10)$(for i in $(seq 10); do printf "\\\\0\\\\x64"; done)")" 1 4 1 3 2 1; probe --strict stz2.mp4 | grep -E "missing|bit rate"; tables stz2_7.mp4 "$(fbox stz2 "\\0\\0\\0\\x07$(be32 10)$(zeros 10)")" 1 4 1 3 2 1; probe nostsz.mp4 | grep -E "^  (samples|bit rate)"'
# 4 + 4 + 2 samples.
t 'tables same_chunk.mp4 "$stsz100" 1 4 1 1 2 1'
t 'tables no_stsc.mp4 "$stsz100"'
t 'tables from_chunk_2.mp4 "$stsz100" 2 5 1'
t 'tables past_stco.mp4 "$stsz100" 1 4 1 4 2 1 5 1 1'
t 'tables ctts_sdtp.mp4 "$stsz100$(fbox ctts $(be32 1)$(be32 9)$(be32 0))$(fbox sdtp $(zeros 11))" 1 4 1 3 2 1'
# A version 1 ctts offset of -2048 (ISO/IEC 14496-12 §8.6.1.3): the first two samples are shown before 0.
t 'tables neg.mp4 "$stsz100$(be32 24)ctts\\x01\\0\\0\\0$(be32 1)$(be32 10)$(be32 4294965248)" 1 4 1 3 2 1 >/dev/null; probe --samples neg.mp4 | grep -- " -"'
t 'tables sdtp9.mp4 "$stsz100$(fbox sdtp $(zeros 9))" 1 4 1 3 2 1'
# An sdtp of an entry a sample agrees; --tables lists its bytes, one entry as one.
t 'tables sdtp10.mp4 "$stsz100$(fbox sdtp "\\x24$(zeros 9)")" 1 4 1 3 2 1; probe --tables sdtp10.mp4 | grep -A2 "sdtp:"; tables sdtp1.mp4 "$stsz100$(fbox sdtp "\\x24")" 1 4 1 3 2 1 >/dev/null; probe --tables sdtp1.mp4 | grep -A1 "sdtp:"'
t 'chunks=1000 tables one_chunk.mp4 "$stsz100" 1 10 1'
# A uuid box: the first two bytes of its extended type in the JSON, read big-endian (BE 7A is 48762 on any host).
t '{ cat a.mp4; printf "$(be32 24)uuid\\xbe\\x7a"; zeros 14; } > uuid.mp4; probe --json --boxes uuid.mp4 | grep -m1 uuid_head'
t 'dur=9216 tables mdhd.mp4 "$stsz100" 1 4 1 3 2 1'
# Both sides of every count of decimal digits, as the JSON writes them.
t 'tables digits.mp4 "$(fbox stsz $(be32 0)$(be32 20)$(be32 0)$(for p in 10 100 1000 10000 100000 1000000 10000000 100000000 1000000000; do be32 $((p - 1)); be32 $p; done)$(be32 4294967295))" 1 4 1; probe --json digits.mp4 | grep "\"stsz\": \\["'
# The last sample may be a sync sample. The whole text report, in Zulu, and with the times of writing 7 and 8 (mvhd),
# 3 and 4 (tkhd), 5 and 6 (mdhd) its JSON.
t 'tables last.mp4 "$stsz100$(fbox stss $(be32 1)$(be32 10))" 1 4 1; poke last.mp4 $(($(box_at last.mp4 mdhd) + 28)) "\\x6a\\xac"; for b in mvhd:7 tkhd:3 mdhd:5; do poke last.mp4 $(($(box_at last.mp4 ${b%:*}) + 12)) $(be32 ${b#*:})$(be32 $((${b#*:} + 1))); done; probe --tables --boxes last.mp4 && probe --json --boxes last.mp4'
# A handler name with JSON's special characters, a space, control characters with and without short escapes, DEL,
# bytes not UTF-8 (lone, overlong of 2, 3 and 4 bytes, a cut sequence, a surrogate, past U+10FFFF, a lead byte 0xF5),
# and UTF-8; the
# hdlr and its parents grow by what it adds to "SoundHandler".
handler_name='T "\\\n\r\t\b\f\x01\x1f\x7f\xff\xc0\x80\xe2\x82\xe0\x80\x80\xed\xa0\x80\xf4\x90\x80\x80\xf0\x80\x80\x80\xf5\x80\x80\x80\xc3\xa9\xe2\x82\xac\xf0\x9d\x84\x9e'
t 'h=$(box_at a.mp4 hdlr); { head -c $((h + 32)) a.mp4; printf "$handler_name"; tail -c +$((h + 45)) a.mp4; } > name.mp4; for b in moov trak mdia hdlr; do at=$(box_at name.mp4 $b); poke name.mp4 $at $(be32 $(($(u32_at name.mp4 $at) + $(printf "$handler_name" | wc -c) - 12))); done; probe name.mp4 | sed -n 6p; probe --json name.mp4 | grep handler_name'
# Each kind of handler by its name, an unknown one too, in a file without ftyp.
t 'for h in hint meta text sbtl abcd; do tail -c +33 a.mp4 > $h.mp4; poke $h.mp4 $(($(box_at $h.mp4 hdlr) + 16)) $h; probe $h.mp4 | sed -n "2p;6p"; done'
# An ftyp without compatible brands; none at all, in JSON.
t '{ printf $(be32 16)ftypisom$(be32 512); tail -c +33 a.mp4; } > nobrands.mp4; probe nobrands.mp4 | sed -n 2p; probe --json nobrands.mp4 | grep -A4 "\"file_type\""; probe --json hint.mp4 | grep "\"file_type\""'
# The video's layer 2 and alternate group 1, its vmhd's graphicsmode 0x40 and opcolor 0x8000 each (ISO/IEC 14496-12
# §12.1.2), the audio's balance all to the left: as the JSON shows them.
t 'cp av.mp4 alt.mp4; poke alt.mp4 $(($(box_at av.mp4 tkhd) + 40)) "\\0\\2\\0\\1"; poke alt.mp4 $(($(box_at av.mp4 smhd) + 12)) "\\xff\\0"; poke alt.mp4 $(($(box_at av.mp4 vmhd) + 12)) "\\0\\x40\\x80\\0\\x80\\0\\x80\\0"; probe --json alt.mp4 | untimed | grep -E "\"(tkhd|media_header)\": "'
# An esds without an AudioSpecificConfig: the entry's own numbers.
t 'cp a.mp4 no_config.mp4; poke no_config.mp4 $(($(box_at no_config.mp4 esds) + 32)) "\\x06"; probe no_config.mp4 | grep codec:; poke no_config.mp4 $(($(box_at no_config.mp4 mp4a) + 24)) "\\x00\\x01"; probe no_config.mp4 | grep codec:; probe --json no_config.mp4 | grep -E "audio_(object|specific)"'
# The hvcC's general_tier_flag set; its configurationVersion 0 (ISO/IEC 14496-15 §8.3.3.1); an ac-3 sample entry.
t 'a=$(box_at h265.mp4 hvcC); cp h265.mp4 high.mp4; poke high.mp4 $((a + 9)) "\\x22"; probe high.mp4 | grep -m1 codec:; probe --json high.mp4 | grep tier_name; cp h265.mp4 hv0.mp4; poke hv0.mp4 $((a + 8)) "\\0"; probe hv0.mp4 | grep -m1 codec:'
# Baseline at level_idc 11 with constraint_set3_flag is level 1b (ITU-T H.264 §A.3.1).
t 'cp av.mp4 l1b.mp4; poke l1b.mp4 $(($(box_at av.mp4 avcC) + 9)) "\\x42\\x10\\x0b"; probe --json l1b.mp4 | grep level_name'
t 'cp a.mp4 ac3.mp4; poke ac3.mp4 $(($(box_at a.mp4 stsd) + 20)) ac-3; probe ac3.mp4 | grep codec:; probe --json ac3.mp4 | grep -A3 "\"codec\""'

# What probe marks as left out of a file, without and with --strict: the text's form, stop, gaps and notes, and the
# JSON's (read in pieces of 4096 bytes) complete flags and gaps; the exit status when not 0.
marks() {
  for s in "" --strict; do
    echo "${s:-extended}:"
    { probe $s "$1" || echo "[exit $?]"; } | grep -E '^(form|INCOMPLETE|stream|note|track|\[exit)|^  (missing|note):'
    { probe $s --piece 4096 --json "$1" || echo "[exit $?]"; } |
      sed -n -e '/^\[exit/p' -e 's/^ *"complete": \(.*\),$/  complete: \1/p' -e '/"missing": \[$/,/\]/{/[][]/!p}'
  done
}
moof=$(be32 24)moof$(be32 16)mfhd$(be32 0)$(be32 1)
# A movie that declares fragments, without one; a moov-first file and one fragment.
t 'head -c $(box_at fr.mp4 moof) fr.mp4 > no_fragment.mp4; marks no_fragment.mp4'
# One sample in the moov, then a fragment.
t 'cp a.mp4 one_sample.mp4; poke one_sample.mp4 $(($(box_at a.mp4 stts) + 16)) $(be32 1); printf $moof >> one_sample.mp4; marks one_sample.mp4'
# The audio's chunk offsets as 118 64-bit ones of 2 samples each.
t 'cp a.mp4 co64.mp4; poke co64.mp4 $(box_at a.mp4 stco) $(be32 960)co64$(be32 0)$(be32 118); poke co64.mp4 $(($(box_at a.mp4 stsc) + 20)) $(be32 2); marks co64.mp4'
t 'cp fs.mp4 description_2.mp4; poke description_2.mp4 $(($(box_at fs.mp4 stsc) + 24)) $(be32 2); marks description_2.mp4'
t 'cp fr.mp4 no_trex.mp4; for n in 1 2; do poke no_trex.mp4 $(($(box_at fr.mp4 trex $n) + 4)) free; done; marks no_trex.mp4'
t 'cp fr.mp4 unknown_traf.mp4; poke unknown_traf.mp4 $(($(box_at fr.mp4 tfhd) + 12)) $(be32 99); marks unknown_traf.mp4'
# probe reads 4096 compatible brands at most; the largest ftyp counts, not the last.
t 'for n in 4096 4097; do { printf $(be32 $((16 + 4 * n)))ftypisom$(be32 512); yes mp41 | head -$n | tr -d "\\n"; tail -c +33 fs.mp4; } > brands$n.mp4; marks brands$n.mp4; done'
t '{ head -c 16404 brands4097.mp4; printf $(be32 16)ftypisom$(be32 512); tail -c +16405 brands4097.mp4; } > brands_few.mp4; marks brands_few.mp4'
# An mdat ending the file loses nothing, whatever its size form; another box of size 0 may hide what follows.
t '{ cat fs.mp4; printf $(be32 1)mdat$(be32 0)$(be32 16); } > empty_large_mdat.mp4; marks empty_large_mdat.mp4'
t 'marks wide.mp4'
# remux follows the 64-bit size: the same movie as from the 32-bit one.
t 'remux -q wide.mp4 -o rwide.mp4 && remux -q narrow.mp4 -o rnarrow.mp4 && [ "$(digest rwide.mp4 | cut -c1-32)" = "$(digest rnarrow.mp4 | cut -c1-32)" ] && echo same'
t 'cp fs.mp4 zero_mdat.mp4; poke zero_mdat.mp4 5045 $(be32 0); marks zero_mdat.mp4; poke zero_mdat.mp4 5049 MDAT; marks zero_mdat.mp4'
t '{ cat fs.mp4; printf $(be32 0)free; head -c 8 /dev/zero; } > zero_free_fs.mp4; marks zero_free_fs.mp4'
# The box of size 0 ends the reading however much follows it: piped, the count stops at its header whatever
# the pieces or the timing; a file counts whole.
t '{ cat zero_free_fs.mp4; head -c 200000 /dev/zero; } > zero_free_long.mp4; for p in 4096 65536; do cat zero_free_long.mp4 | probe --piece $p - | head -1; probe --piece $p zero_free_long.mp4 | head -1; done'
t '{ cat wide.mp4; printf $(be32 8)free; } > wide_free.mp4; marks wide_free.mp4'
# --strict on the file cut inside its 64-bit mdat header, and in its payload; its header split between pieces.
t 'for n in 2470 3000; do head -c $n wide.mp4 > wide_cut.mp4; probe --strict wide_cut.mp4 | grep -E "^(stream|INCOMPLETE)"; done; probe --strict --piece 2465 wide.mp4 | grep -E "^(stream|INCOMPLETE)"'
# The second trak made larger than the parser takes, behind an empty moov as the movie box's first child: the
# stop is still inside the top-level one.
t '{ head -c 40 fs.mp4; printf $(be32 8)moov; tail -c +41 fs.mp4; } > nested_moov.mp4; poke nested_moov.mp4 32 $(be32 $(($(u32_at fs.mp4 32) + 8))); poke nested_moov.mp4 $(box_at nested_moov.mp4 trak 2) $(be32 268435457); marks nested_moov.mp4'
# 20 MiB, past probe's bound for a file this small.
t '{ cat fs.mp4; printf $(be32 20971520)free; head -c 100 /dev/zero; } > over_bound.mp4; marks over_bound.mp4'
# --strict names the ids GetTrack leaves out: 10 and 2^31, and not 9; the extended mode has no such gap. The JSON counts
# them in either mode.
t 'for id in 9 10 2147483648; do cp fs.mp4 id$id.mp4; poke id$id.mp4 $(($(box_at fs.mp4 tkhd 2) + 20)) $(be32 $id); marks id$id.mp4; probe --json id$id.mp4 | grep -E "\"(id|unlisted_tracks)\""; done'

# remux: every form from every form, and what it refuses.
t 'brief 2 remux -o r0.mp4'
t 'remux fs.mp4 --fragment 1 -o r3.mp4 && show r3.mp4 && deep r3.mp4'
t 'remux h265f.mp4 -o r4.mp4 && digest r4.mp4'
t 'remux -q fa.mp4 --fragment 2 -o r5.mp4 && digest r5.mp4 && remux pce.mp4 -o r6.mp4 && digest r6.mp4'
t 'cp av.mp4 fra.mp4; poke fra.mp4 $(($(box_at fra.mp4 mdhd) + 28)) "\\x1a\\x41"; remux fra.mp4 --fragment 1 -o rfra.mp4 && probe rfra.mp4 | grep language'
t 'head -c 100000 fs.mp4 > cut_mdat.mp4; remux cut_mdat.mp4 -o x.mp4'
# The video's edit list given an empty edit of half a second in front, in a movie time scale of 1000 (the
# tracks' is 48000); its parents grow by the 12 bytes of the entry.
t 'e=$(box_at av.mp4 elst); { head -c $e av.mp4; printf $(be32 40)elst$(be32 0)$(be32 2)$(be32 500)$(be32 4294967295)$(be32 65536)$(be32 5000)$(be32 5760)$(be32 65536); tail -c +$((e + 29)) av.mp4; } > edit.mp4; for b in moov trak edts; do at=$(box_at edit.mp4 $b); poke edit.mp4 $at $(be32 $(($(u32_at edit.mp4 $at) + 12))); done; poke edit.mp4 $(($(box_at edit.mp4 mvhd) + 20)) $(be32 1000)$(be32 5500); remux edit.mp4 -o redit.mp4 && digest redit.mp4'
# A video sample made 0 bytes long.
t 'cp q.mp4 z.mp4; poke z.mp4 $(($(box_at z.mp4 stsz) + 20)) $(be32 0); remux z.mp4 -o x.mp4'
t 'remux av.mp4 -o av.mp4'
t 'brief 3 remux av.mp4 -o x.mp4 --fragment 1 --faststart'

# remux: what it refuses, written onto an out.mp4 that holds "old" (onto_old shows what it holds after, and any
# temporary file left beside it). The files are av.mp4, a.mp4, q.mp4 and h265.mp4 changed in place.
onto_old() {
  printf old >out.mp4; "$B" remux "$@"; local status=$?
  echo "out.mp4: $(cat out.mp4)"; ! ls -A | grep -q boxlane- || echo "a temporary file is left"; return $status
}
# av.mp4 with a copy of its trak N (1 video, 2 audio) as track 3 at the end of the moov, the file's last box.
third() {
  local at=$(box_at av.mp4 trak $1) moov=$(box_at av.mp4 moov)
  local n=$(u32_at av.mp4 $at) end=$(stat -c %s av.mp4)
  { cat av.mp4; tail -c +$((at + 1)) av.mp4 | head -c $n; } >"$2"
  poke "$2" $moov $(be32 $(($(u32_at av.mp4 $moov) + n))) && poke "$2" $((end + 28)) $(be32 3)
}
# OUT, a copy of FILE with PAD bytes more inside the box at CONFIG in the video's sample entry: the boxes around
# it grow by as much (grown FILE OUT PAD CONFIG).
grown() {
  local at
  for at in $(for b in moov trak mdia minf stbl stsd; do box_at $1 $b; done) $(($(box_at $1 stsd) + 16)) $4; do
    poke "$2" $at $(be32 $(($(u32_at $1 $at) + $3)))
  done
}
# av.mp4 with its SPS padded with zeros until SPS and PPS take N bytes.
sps_pad() {
  local a=$(box_at av.mp4 avcC); local s=$(($(u32_at av.mp4 $((a + 12))) & 65535))
  local pad=$(($1 - s - ($(u32_at av.mp4 $((a + 17 + s))) >> 16)))
  { head -c $((a + 16 + s)) av.mp4; head -c $pad /dev/zero; tail -c +$((a + 17 + s)) av.mp4; } >"$2"
  poke "$2" $((a + 12)) $(be32 $((0xFFE10000 + s + pad)))
  grown av.mp4 "$2" $pad $a
}
# h265.mp4 with its VPS padded with zeros until its VPS, SPS and PPS take N bytes. Its hvcC holds one of each: the
# sets are the box less its header (8), the fixed fields and array count (23), three array heads and unit lengths (15).
hvc_pad() {
  local a=$(box_at h265.mp4 hvcC); local pad=$(($1 - $(u32_at h265.mp4 $a) + 46)) len=$(($(u32_at h265.mp4 $((a + 32))) & 65535))
  { head -c $((a + 36 + len)) h265.mp4; head -c $pad /dev/zero; tail -c +$((a + 37 + len)) h265.mp4; } >"$2"
  poke "$2" $((a + 34)) "$(printf '\\x%02x\\x%02x' $(((len + pad) >> 8)) $(((len + pad) & 255)))"
  grown h265.mp4 "$2" $pad $a
}
# The audio's object type: 0x65 (MPEG-2 AAC is 0x66 to 0x68), 0x69 (MPEG-2 part 3), 0x6B (MPEG-1); then AAC ones.
t 'for o in 65 69 6b; do cp av.mp4 ot$o.mp4; poke ot$o.mp4 $(($(box_at av.mp4 esds) + 19)) "\\x$o"; onto_old -q ot$o.mp4 -o out.mp4; done'
t 'for o in 66 68; do cp av.mp4 ot$o.mp4; poke ot$o.mp4 $(($(box_at av.mp4 esds) + 19)) "\\x$o"; remux ot$o.mp4 -o r$o.mp4 && digest r$o.mp4; done'
t 'cp a.mp4 mp1.mp4; poke mp1.mp4 $(($(box_at a.mp4 esds) + 19)) "\\x6b"; onto_old mp1.mp4 --skip-unsupported -o out.mp4'
# The esds's DecoderSpecificInfo tag made another; the mp4a entry's rate at 65535 Hz, the most its field holds.
t 'cp av.mp4 nocfg.mp4; poke nocfg.mp4 $(($(box_at av.mp4 esds) + 32)) "\\x06"; onto_old nocfg.mp4 -o out.mp4'
t 'cp a.mp4 r65535.mp4; poke r65535.mp4 $(($(box_at a.mp4 stsd) + 48)) "\\xff\\xff"; remux r65535.mp4 -o r65535o.mp4 && digest r65535o.mp4'
t 'cp a.mp4 nohdlr.mp4; poke nohdlr.mp4 $(($(box_at a.mp4 hdlr) + 4)) x; onto_old nohdlr.mp4 -o out.mp4'
# The video's mdhd of time scale 0: refused, and the track has no frame rate or bit rate to give.
t 'cp av.mp4 scale0.mp4; poke scale0.mp4 $(($(box_at av.mp4 mdhd) + 20)) $(be32 0); onto_old scale0.mp4 -o out.mp4; probe scale0.mp4 | grep -A1 "time scale:  0"; probe scale0.mp4 | grep -E "^track|rate:"'
# Nor has a movie header of time scale 0 a length in seconds: null in the JSON.
t 'cp a.mp4 mvhd0.mp4; poke mvhd0.mp4 $(($(box_at a.mp4 mvhd) + 20)) $(be32 0); probe --json mvhd0.mp4 | grep -m1 duration_seconds'
# The video's entry named avc3 (the reader takes an avcC from avc1 entries only); an avcC with 2 PPS (our writer's,
# from two_pps.h264) keeps both; 2-byte NAL unit lengths; an SPS cut to 3 bytes; no PPS.
t 'cp av.mp4 avc3.mp4; poke avc3.mp4 $(($(box_at av.mp4 stsd) + 23)) 3; onto_old avc3.mp4 -o out.mp4'
t 'remux pps.mp4 -o rpps.mp4 && digest rpps.mp4 && probe rpps.mp4 | grep -m1 codec'
t 'cp av.mp4 nal2.mp4; poke nal2.mp4 $(($(box_at av.mp4 avcC) + 12)) "\\xfd"; onto_old nal2.mp4 -o out.mp4'
t 'a=$(box_at av.mp4 avcC); cp av.mp4 sps3.mp4; poke sps3.mp4 $((a + 14)) "\\0\\3"; onto_old sps3.mp4 -o out.mp4; cp av.mp4 pps0.mp4; poke pps0.mp4 $((a + 16 + ($(u32_at av.mp4 $((a + 12))) & 65535))) "\\0"; onto_old pps0.mp4 -o out.mp4'
# Sets that fill the 16384 bytes the parser keeps (zeros after the SPS), and a byte more: probe names both, or the
# SPS alone (truncated); remux copies the first whole and refuses the second.
t 'for n in 16384 16385; do sps_pad $n sps$n.mp4 && probe sps$n.mp4 | grep -m1 codec; done; probe --json sps16385.mp4 | grep -m1 truncated'
t 'remux sps16384.mp4 -o r16384.mp4 && probe r16384.mp4 | grep -m1 codec && onto_old sps16385.mp4 -o out.mp4'
# Sets filling the 16384 bytes the parser keeps are all read and copied; a byte more loses the PPS: track refused.
t 'for n in 16384 16385; do hvc_pad $n h$n.mp4 && probe h$n.mp4 | grep -m1 codec && remux h$n.mp4 -o rh$n.mp4 && probe rh$n.mp4 | grep -m1 codec; done'
# The hvcC with 2-byte NAL unit lengths, with no arrays; the entry named HEV1 (fourccs match in any case).
t 'cp h265.mp4 hnal2.mp4; poke hnal2.mp4 $(($(box_at h265.mp4 hvcC) + 29)) "\\x0d"; onto_old hnal2.mp4 -o out.mp4'
t 'cp h265.mp4 hnone.mp4; poke hnone.mp4 $(($(box_at h265.mp4 hvcC) + 30)) "\\0"; onto_old hnone.mp4 -o out.mp4'
t 'cp h265.mp4 hev1.mp4; poke hev1.mp4 $(($(box_at h265.mp4 stsd) + 20)) HEV1; remux hev1.mp4 -o rhev1.mp4 && digest rhev1.mp4 && probe hev1.mp4 | grep -m1 codec:'
# A second video track, a second audio track, and a subtitle track (sbtl, tx3g) left out with a notice.
t 'for k in 1 2; do third $k plus$k.mp4 && onto_old plus$k.mp4 -o out.mp4; done'
t 'third 2 sub.mp4 && set -- $(LC_ALL=C grep -obaE "hdlr|mp4a" sub.mp4 | tail -2 | cut -d: -f1) && poke sub.mp4 $(($1 + 12)) sbtl && poke sub.mp4 $2 tx3g && remux sub.mp4 --skip-unsupported -o rsub.mp4 && remux -q --skip-unsupported sub.mp4 -o rsub.mp4 && digest rsub.mp4'
# A damaged trun in remux's own fragments; a box of size 4 after the moov; an ftyp alone; a chunk at 2^31 - 2^24.
t 'cp r3.mp4 trun.mp4; poke trun.mp4 $(($(box_at r3.mp4 trun) + 18)) "\\0"; onto_old trun.mp4 -o out.mp4'
t '{ cat av.mp4; printf "\\0\\0\\0\\4free\\0\\0\\0\\0"; } > four.mp4; onto_old four.mp4 -o out.mp4'
t 'head -c 32 av.mp4 > ftyp.mp4; onto_old ftyp.mp4 -o out.mp4'
t 'cp av.mp4 far.mp4; poke far.mp4 $(($(box_at av.mp4 stco) + 16)) $(be32 2130706432); onto_old far.mp4 -o out.mp4'
# Found while writing: the first NAL unit one byte longer than its sample, or leaving 3 bytes, too few for a length;
# an audio sample of 2 bytes that are an ADTS header, of MPEG-4 (FFF1) and of MPEG-2 (FFF9).
t 'for c in 3 7; do cp q.mp4 nal$c.mp4; poke nal$c.mp4 40 $(be32 $(($(u32_at q.mp4 $(($(box_at q.mp4 stsz) + 20))) - c))); onto_old nal$c.mp4 --skip-unsupported -o out.mp4; done'
t 'for id in f1 f9; do cp a.mp4 adts.mp4; poke adts.mp4 40 "\\xff\\x$id"; poke adts.mp4 $(($(box_at a.mp4 stsz) + 20)) $(be32 2); onto_old adts.mp4 --skip-unsupported -o out.mp4; done'
t 'ln -f av.mp4 hard.mp4 && ln -sf av.mp4 soft.mp4 && { remux av.mp4 -o hard.mp4 || remux av.mp4 -o soft.mp4; }; kept av.mp4'
t 'onto_old empty -o out.mp4'
t 'for a in "--fragment 3600.001" "--fragment 1s" --bogus; do brief 1 remux av.mp4 -o x.mp4 $a; done; brief 1 remux av.mp4 -o'
t 'brief 1 remux --help && brief 1 remux -h && remux a.mp4 --output ro.mp4 && digest ro.mp4'
t 'brief 1 remux a.mp4 av.mp4 -o x.mp4 || brief 1 probe a.mp4 av.mp4'
t 'remux av.mp4 --fragment 3600 -o f3600.mp4 && digest f3600.mp4'
# Notices: the video's stts made empty and its id 2^31 + 1; its stts deltas 0 and the audio's channels 6 (5.1).
t 'cp av.mp4 nos.mp4; poke nos.mp4 $(($(box_at av.mp4 stts) + 12)) $(be32 0); poke nos.mp4 $(($(box_at av.mp4 tkhd) + 20)) $(be32 2147483649); remux nos.mp4 -o rnos.mp4 && remux -q nos.mp4 -o rnos.mp4 && digest rnos.mp4'
t 'cp av.mp4 nod.mp4; poke nod.mp4 $(($(box_at av.mp4 stts) + 20)) $(be32 0); poke nod.mp4 $(($(box_at av.mp4 esds) + 35)) "\\xb0"; remux nod.mp4 -o rnod.mp4 && remux -q nod.mp4 -o rnod.mp4 && digest rnod.mp4'
# One picture with the audio, its duration 0 and its mdhd at 96 kHz: a track of one sample, its tick the output's.
t 'head -c 4993 $D/sample.h264 > pic.h264; mux -q -v pic.h264 -a $D/sample.aac -o pic.mp4 && poke pic.mp4 $(($(box_at pic.mp4 stts) + 20)) $(be32 0) && poke pic.mp4 $(($(box_at pic.mp4 mdhd) + 20)) $(be32 96000) && remux pic.mp4 -o rpic.mp4 && digest rpic.mp4'
# The movie lasts as long as its longer track: in fragments, the video's media made 6.25 s.
t 'cp av.mp4 slow.mp4; poke slow.mp4 $(($(box_at av.mp4 stts) + 20)) $(be32 2400); remux slow.mp4 --fragment 1 -o rslow.mp4 && digest rslow.mp4'
# 236 samples of 2^25 ticks: a movie past 2^32 ticks, its headers of version 1.
t 'cp a.mp4 long.mp4; poke long.mp4 $(($(box_at a.mp4 stts) + 20)) $(be32 33554432); remux long.mp4 -o rlong.mp4 && probe --boxes rlong.mp4 | grep -E "movie:|mvhd|tkhd|mdhd"'
t 'remux a96.mp4 --faststart -o r96.mp4 && digest r96.mp4'
# Entries the writer cannot describe: hvcC version 0, an ac-3 sound entry, an mp4v video entry.
t 'cp av.mp4 mp4v.mp4; poke mp4v.mp4 $(($(box_at av.mp4 stsd) + 20)) mp4v; for f in hv0 ac3 mp4v; do onto_old $f.mp4 -o out.mp4; done'
# The video's edit at twice the normal rate: kept at the normal rate, with a notice.
t 'cp av.mp4 rate2.mp4; poke rate2.mp4 $(($(box_at av.mp4 elst) + 24)) "\\0\\2"; remux rate2.mp4 -o rr.mp4 && remux -q rate2.mp4 -o rr.mp4 && digest rr.mp4'
# edit.mp4's empty edit made 100000 s: past 2^32 ticks at 48 kHz, the elst goes to version 1 (20-byte entries).
t 'cp edit.mp4 edit_long.mp4; poke edit_long.mp4 $(($(box_at edit.mp4 elst) + 16)) $(be32 100000000); remux edit_long.mp4 -o rel.mp4 && probe --boxes rel.mp4 | grep -E "movie:|elst"'
# The mp4a entry's samplesize 0, written as 16; a raw frame that starts with 0xFF but no ADTS header (layer 1); an
# AudioSpecificConfig of frequency index 13 (reserved): the entry's rate.
t 'cp a.mp4 ss0.mp4; poke ss0.mp4 $(($(box_at a.mp4 mp4a) + 26)) "\\0\\0"; remux ss0.mp4 -o rss0.mp4 && probe --json rss0.mp4 | grep sample_size'
t 'cp a.mp4 ff.mp4; poke ff.mp4 40 "\\xff\\xfa"; remux ff.mp4 -o rff.mp4 && digest rff.mp4'
t 'cp a.mp4 idx13.mp4; poke idx13.mp4 $(($(box_at a.mp4 esds) + 34)) "\\x16"; probe idx13.mp4 | grep codec:; remux idx13.mp4 -o r13.mp4 && digest r13.mp4'
# The first audio sample made 2^31 bytes: past the end of the input; the file made as long (sparse), a fragment past 2 GiB.
t 'cp a.mp4 huge.mp4; poke huge.mp4 $(($(box_at a.mp4 stsz) + 20)) $(be32 2147483648); remux huge.mp4 -o x.mp4; truncate -s 2200000000 huge.mp4; remux huge.mp4 --fragment 1 -o x.mp4; rm huge.mp4'
t 'remux --quiet a.mp4 -o rq.mp4 && digest rq.mp4; brief 1 remux - a.mp4 -o x.mp4; brief 1 remux a.mp4; brief 1 remux a.mp4 -o x.mp4 --fragment; for f in 0 -1; do brief 1 remux a.mp4 -o x.mp4 --fragment $f; done'
# Inputs that cannot be opened or mapped; a piped input with nowhere to spool it.
t 'remux missing.mp4 -o x.mp4; remux . -o x.mp4; remux /dev/null -o x.mp4; mux -v missing.h264 -o x.mp4; cat $D/sample.aac | mux -a - -o no/dir/x.mp4'

# The program itself.
t 'brief 2 "$B"'
t 'brief 1 "$B" -h && brief 1 "$B" --help'
t 'brief 2 "$B" demux x'
exit 0
