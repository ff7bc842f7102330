// What mp4box.js 2.x (npm mp4box, installed as mp4box-2 by scripts/test.sh;
// 0.5 keeps only the last entry of each tfra), an independent reader, finds
// in an MP4 file, one fact a line: "fragmented 0|1", "track ID CODEC
// TIMESCALE", "sample ID DTS CTS SIZE SYNC" (every sample, in decode order),
// "tfra TRACK TIME MOOF_OFFSET" (mfra's entries), "error TEXT" (its own, and
// a track_ID that is not below mvhd's next_track_ID, and a parameter set in
// a sample that its hvcC says is all in the sample entry).
//
//   BOXLANE_NPM=<folder with node_modules> node mp4box_read.mjs FILE
import fs from 'node:fs';
import path from 'node:path';
import { createRequire } from 'node:module';

const require = createRequire(path.join(path.resolve(process.env.BOXLANE_NPM || '.'), 'package.json'));
const MP4Box = require('mp4box-2');

const bytes = fs.readFileSync(process.argv[2]);
const file = MP4Box.createFile();
const lines = [], samples = [], errors = [];
file.onError = (e) => errors.push(`error ${e}`);
file.onReady = (info) => {
  lines.push(`fragmented ${info.isFragmented ? 1 : 0}`);
  const next = file.moov.mvhd.next_track_id;
  for (const t of info.tracks) {
    lines.push(`track ${t.id} ${t.codec} ${t.timescale}`);
    // ISO/IEC 14496-12 §8.2.2.3: larger than the largest track_ID in use.
    if (t.id >= next) errors.push(`error next_track_ID ${next} is not above track ${t.id}`);
    file.setExtractionOptions(t.id, null, { nbSamples: 1 });
  }
  file.start();
};
// ISO/IEC 14496-15 §8.4.1.1.2: an hvcC array with array_completeness 1
// (every array of hvc1) holds every NAL unit of its type; none may be in a sample.
const complete = {};
file.onSamples = (id, user, list) => {
  for (const s of list) {
    samples.push([id, s.dts, s.cts, s.size, s.is_sync ? 1 : 0]);
    const hvcC = s.description?.hvcC;
    if (!hvcC) continue;
    complete[id] ??= new Set((hvcC.nalu_arrays || []).filter((a) => a.completeness).map((a) => a.nalu_type));
    const length = hvcC.lengthSizeMinusOne + 1;
    for (let at = 0; at + length < s.data.length; ) {
      let size = 0;
      for (let i = 0; i < length; ++i) size = size * 256 + s.data[at + i];
      const type = (s.data[at + length] >> 1) & 0x3f;
      if (complete[id].has(type)) {
        errors.push(`error track ${id} sample ${s.number + 1}: NAL unit type ${type}, which its hvcC says is all in the entry`);
        complete[id].delete(type);  // said once
      }
      at += length + size;
    }
  }
};
const buffer = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
buffer.fileStart = 0;
file.appendBuffer(buffer);
file.flush();
// Each track's samples together, tracks in the order they were listed.
samples.sort((a, b) => a[0] - b[0]);
for (const s of samples) lines.push(`sample ${s.join(' ')}`);
const mfra = file.mfra || (file.boxes || []).find((b) => b.type === 'mfra');
for (const t of mfra ? mfra.tfras || mfra.boxes?.filter((b) => b.type === 'tfra') || [] : []) {
  for (const e of t.entries || []) lines.push(`tfra ${t.track_ID} ${Number(e.time)} ${Number(e.moof_offset)}`);
}
console.log([...lines, ...errors].join('\n'));
