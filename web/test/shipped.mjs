// The client the relay ships carries none of the taps that the browser tests and the
// benchmark read from the page; the client built for them carries every one, which shows
// that each pattern finds what it looks for. Every file is read as the relay sends it:
// as it is, and its gzip and brotli forms unpacked.
//
//   node test/shipped.mjs BUILD/web/dist BUILD/web/dist-taps
import assert from 'node:assert/strict';
import { readdirSync, readFileSync, statSync } from 'node:fs';
import { join, relative } from 'node:path';
import { test } from 'node:test';
import { brotliDecompressSync, gunzipSync } from 'node:zlib';

// What the page defines or reads for the tests and nothing else, as the minified code
// spells it.
const kTaps = [
  ['the page state (window.brinmoor)', /\.brinmoor=/],
  ['the terminal tap (brinmoorTerminalTap)', /brinmoorTerminalTap/],
  ['the Markdown timings (brinmoorMarkdownTimings)', /brinmoorMarkdownTimings/],
  ["the terminal's processed count (processed)", /\.processed=/],
];

const [shipped, withTaps] = process.argv.slice(2);
if (!shipped || !withTaps) {
  console.error('usage: node test/shipped.mjs SHIPPED_DIST TAPS_DIST');
  process.exit(2);
}

function filesUnder(dir) {
  return readdirSync(dir).flatMap((name) => {
    const path = join(dir, name);
    return statSync(path).isDirectory() ? filesUnder(path) : [path];
  });
}

// Every file's text by its name in the folder, the compressed forms unpacked.
function texts(dist) {
  const all = new Map();
  for (const path of filesUnder(dist)) {
    const bytes = readFileSync(path);
    const text = path.endsWith('.br') ? brotliDecompressSync(bytes) : path.endsWith('.gz') ? gunzipSync(bytes) : bytes;
    all.set(relative(dist, path), text.toString('latin1'));
  }
  return all;
}

function found(dist) {
  const files = texts(dist);
  assert.ok(files.has('index.html'), `no client in ${dist}`);
  return kTaps.map(([what, pattern]) => [what, [...files].filter(([, text]) => pattern.test(text)).map(([name]) => name)]);
}

test('the shipped client has no test taps', () => {
  assert.deepEqual(
    found(shipped),
    kTaps.map(([what]) => [what, []]),
  );
});

test('the client built for the tests has every tap', () => {
  for (const [what, names] of found(withTaps))
    assert.ok(
      names.some((name) => name.endsWith('.js')),
      `${what} is not in ${withTaps}`,
    );
});
