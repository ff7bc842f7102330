// Reads an MP4 file with mp4box.js (the npm package mp4box, an independent
// reader) and prints what it found, one fact a line:
//   fragmented 0|1
//   track ID CODEC TIMESCALE
//   sample ID DTS CTS SIZE SYNC (every sample, in decode order)
//   tfra TRACK TIME MOOF_OFFSET (random access entries of mfra)
//   error TEXT
//
//   BOXLANE_NPM=<folder with node_modules> node mp4box_read.mjs FILE
//
// mp4box.js 2.x, installed as mp4box-2 by scripts/test.sh: 0.5 keeps only
// the last entry of each tfra.
import fs from 'node:fs';
import path from 'node:path';
import { createRequire } from 'node:module';

const require = createRequire(path.join(path.resolve(process.env.BOXLANE_NPM || '.'), 'package.json'));
const MP4Box = require('mp4box-2');  // mp4box.js 2.x, installed under that name

const bytes = fs.readFileSync(process.argv[2]);
const file = MP4Box.createFile();
const report = { errors: [], tracks: [] };
file.onError = (e) => report.errors.push(String(e));
file.onReady = (info) => {
  report.fragmented = info.isFragmented;
  report.timescale = info.timescale;
  for (const t of info.tracks) {
    report.tracks.push({ id: t.id, codec: t.codec, timescale: t.timescale, samples: [] });
    file.setExtractionOptions(t.id, null, { nbSamples: 1 });
  }
  file.start();
};
file.onSamples = (id, user, samples) => {
  const track = report.tracks.find((t) => t.id === id);
  for (const s of samples) track.samples.push([s.dts, s.cts, s.size, s.is_sync ? 1 : 0]);
};
const buffer = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
buffer.fileStart = 0;
file.appendBuffer(buffer);
file.flush();
const lines = [];
lines.push(`fragmented ${report.fragmented ? 1 : 0}`);
for (const t of report.tracks) lines.push(`track ${t.id} ${t.codec} ${t.timescale}`);
for (const t of report.tracks) for (const s of t.samples) lines.push(`sample ${t.id} ${s.join(' ')}`);
const mfra = file.mfra || (file.boxes || []).find((b) => b.type === 'mfra');
if (mfra) {
  report.tfra = (mfra.tfras || mfra.boxes?.filter((b) => b.type === 'tfra') || []).map((t) => ({
    track: t.track_ID,
    entries: (t.entries || []).map((e) => [Number(e.time), Number(e.moof_offset)]),
  }));
}
for (const t of report.tfra || []) for (const [time, offset] of t.entries) lines.push(`tfra ${t.track} ${time} ${offset}`);
for (const e of report.errors) lines.push(`error ${e}`);
console.log(lines.join('\n'));
