// Reads an MP4 file with mp4box.js, an independent parser, and prints one
// line per track: id, codec string, the sample count the tables give, the
// samples mp4box.js handed out and their bytes in all.
// usage: node mp4box_read.js MP4BOX_MODULE_DIR FILE
'use strict';
const MP4Box = require(process.argv[2]);
const fs = require('fs');

const bytes = fs.readFileSync(process.argv[3]);
const buffer = bytes.buffer.slice(bytes.byteOffset, bytes.byteOffset + bytes.byteLength);
buffer.fileStart = 0;
const file = MP4Box.createFile();
const got = {};
let info = null;
file.onError = (e) => {
  console.error('mp4box.js: ' + e);
  process.exit(1);
};
file.onReady = (i) => {
  info = i;
  for (const t of i.tracks) {
    got[t.id] = { samples: 0, bytes: 0 };
    file.setExtractionOptions(t.id, null, { nbSamples: 1 << 30 });
  }
  file.start();
};
file.onSamples = (id, user, samples) => {
  for (const s of samples) {
    got[id].samples += 1;
    got[id].bytes += s.data ? s.data.byteLength : 0;
  }
};
file.appendBuffer(buffer);
file.flush();
if (!info) {
  console.error('mp4box.js: no movie found');
  process.exit(1);
}
for (const t of info.tracks) console.log(`${t.id} ${t.codec} ${t.nb_samples} ${got[t.id].samples} ${got[t.id].bytes}`);
