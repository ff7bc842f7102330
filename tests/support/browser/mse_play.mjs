// Plays a fragmented MP4 in headless Chromium (/usr/bin/chromium) through
// Media Source Extensions, as a live player does: the init segment (all
// before the first moof), then each fragment (moof and mdat, with any styp
// and sidx before them), leaving out a torn last box; then plays to the end.
//
//   BOXLANE_NPM=<folder with node_modules/playwright-core> node mse_play.mjs FILE
//
// Prints one JSON object (fragments appended, buffered ranges, the media time
// of the first frame requestVideoFrameCallback sees, the playback quality,
// every error) and exits 0 whenever the page ran: the caller judges it.
import http from 'node:http';
import fs from 'node:fs';
import path from 'node:path';
import { createRequire } from 'node:module';

const require = createRequire(path.join(path.resolve(process.env.BOXLANE_NPM || '.'), 'package.json'));
const { chromium } = require('playwright-core');

const bytes = fs.readFileSync(process.argv[2]);

// Top-level boxes: [type, start, end]; a box that runs past the end is torn.
function boxes(buf) {
  const out = [];
  let at = 0;
  while (at + 8 <= buf.length) {
    let size = buf.readUInt32BE(at);
    const type = buf.toString('latin1', at + 4, at + 8);
    if (size === 1 && at + 16 <= buf.length) size = Number(buf.readBigUInt64BE(at + 8));
    if (size === 0) size = buf.length - at;
    if (size < 8 || at + size > buf.length) break;
    out.push([type, at, at + size]);
    at += size;
  }
  return out;
}

// The codecs parameter (RFC 6381) from the sample entries.
function codecs(buf) {
  const list = [];
  const avcC = buf.indexOf('avcC', 0, 'latin1');
  if (avcC >= 0) list.push('avc1.' + [1, 2, 3].map((i) => buf[avcC + 4 + i].toString(16).padStart(2, '0')).join(''));
  const esds = buf.indexOf('esds', 0, 'latin1');
  if (esds >= 0) {
    let objectType = 2;
    for (let i = esds + 8; i < esds + 64 && i < buf.length; i++) {
      if (buf[i] === 0x05) {
        let j = i + 1;
        while (buf[j] & 0x80) j++;
        objectType = buf[j + 1] >> 3;
        break;
      }
    }
    list.push('mp4a.40.' + objectType);
  }
  return list;
}

const all = boxes(bytes);
const firstMoof = all.findIndex(([type]) => type === 'moof');
const init = firstMoof < 0 ? bytes : bytes.subarray(0, all[firstMoof][1]);
const segments = [];
if (firstMoof >= 0) {
  let start = all[firstMoof][1];
  for (let i = firstMoof; i < all.length; i++) {
    const [type, , end] = all[i];
    if (type === 'mdat') {
      segments.push([start, end]);
      start = end;
    } else if (type === 'mfra') {
      break;
    }
  }
}
const video = codecs(init).some((c) => c.startsWith('avc1'));
const mime = `${video ? 'video' : 'audio'}/mp4; codecs="${codecs(init).join(', ')}"`;

const page = `<!doctype html><meta charset="utf-8"><body>
<${video ? 'video' : 'audio'} id="m" muted playsinline></${video ? 'video' : 'audio'}>
<script>
async function main() {
  const report = { mime: ${JSON.stringify(mime)}, fragments: 0, errors: [], firstFrameTime: null };
  const m = document.getElementById('m');
  m.addEventListener('error', () => report.errors.push('media element: ' + (m.error && m.error.message)));
  if (!MediaSource.isTypeSupported(report.mime)) { report.errors.push('not supported: ' + report.mime); return report; }
  const ms = new MediaSource();
  m.src = URL.createObjectURL(ms);
  await new Promise((r) => ms.addEventListener('sourceopen', r, { once: true }));
  const sb = ms.addSourceBuffer(report.mime);
  sb.addEventListener('error', () => report.errors.push('source buffer error'));
  const append = (data) => new Promise((resolve) => {
    sb.addEventListener('updateend', resolve, { once: true });
    try { sb.appendBuffer(data); } catch (e) { report.errors.push('append: ' + e); resolve(); }
  });
  const file = new Uint8Array(await (await fetch('/file')).arrayBuffer());
  await append(file.subarray(0, ${init.length}));
  for (const [a, b] of ${JSON.stringify(segments)}) {
    await append(file.subarray(a, b));
    if (m.error) break;
    report.fragments++;
  }
  const ranges = (r) => Array.from({ length: r.length }, (_, i) => [r.start(i), r.end(i)]);
  report.buffered = ranges(sb.buffered);
  if (ms.readyState === 'open') ms.endOfStream();
  report.duration = ms.duration;
  if (m.requestVideoFrameCallback) {
    m.requestVideoFrameCallback((now, meta) => { report.firstFrameTime = meta.mediaTime; });
  }
  const ended = new Promise((r) => m.addEventListener('ended', r, { once: true }));
  try { await m.play(); } catch (e) { report.errors.push('play: ' + e); return report; }
  const limit = (report.duration + 20) * 1000;
  const timeout = new Promise((r) => setTimeout(() => { report.errors.push('did not play to the end'); r(); }, limit));
  await Promise.race([ended, timeout]);
  await new Promise((r) => setTimeout(r, 200));
  report.currentTime = m.currentTime;
  if (m.getVideoPlaybackQuality) report.totalVideoFrames = m.getVideoPlaybackQuality().totalVideoFrames;
  return report;
}
window.result = main().catch((e) => ({ errors: ['page: ' + e] }));
</script>`;

const server = http.createServer((req, res) => {
  if (req.url === '/file') {
    res.writeHead(200, { 'content-type': 'application/octet-stream' }).end(bytes);
  } else {
    res.writeHead(200, { 'content-type': 'text/html' }).end(page);
  }
});
await new Promise((r) => server.listen(0, '127.0.0.1', r));
// Playwright gives every launch a fresh, temporary profile.
const browser = await chromium.launch({ executablePath: '/usr/bin/chromium', headless: true,
  args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run', '--disable-background-networking',
    '--disable-component-update', '--disable-sync', '--autoplay-policy=no-user-gesture-required'] });
let report;
try {
  const tab = await browser.newPage();
  const console_errors = [];
  tab.on('console', (msg) => { if (msg.type() === 'error') console_errors.push(msg.text()); });
  tab.on('pageerror', (e) => console_errors.push(String(e)));
  await tab.goto(`http://127.0.0.1:${server.address().port}/`);
  report = await tab.evaluate(() => window.result);
  report.errors.push(...console_errors);
} finally {
  await browser.close();
  server.close();
}
console.log(JSON.stringify(report));
