import { createHash } from 'node:crypto';
import { brotliCompressSync, constants as zlibConstants, gzipSync } from 'node:zlib';
import { readdirSync, readFileSync, statSync, writeFileSync } from 'node:fs';
import { join, relative } from 'node:path';
import { fileURLToPath } from 'node:url';
import type { Plugin } from 'vite';
import { defineConfig } from 'vitest/config';
import { readmeSectionPage } from './build_support/readme_section';

const here = (path: string) => fileURLToPath(new URL(path, import.meta.url));

function filesUnder(dir: string): string[] {
  return readdirSync(dir).flatMap((name) => {
    const path = join(dir, name);
    return statSync(path).isDirectory() ? filesUnder(path) : [path];
  });
}

// The README's "Reach it from anywhere", as a page of its own: the plain-HTTP notice links
// to it, so the way to encrypt the connection is one tap away and matches this build.
function readmeHelp(): Plugin {
  return {
    name: 'brinmoor-readme-help',
    apply: 'build',
    generateBundle() {
      const readme = readFileSync(here('../README.md'), 'utf8');
      this.emitFile({
        type: 'asset',
        fileName: 'help/reach-it-from-anywhere.html',
        source: readmeSectionPage(readme, 'Reach it from anywhere'),
      });
    },
  };
}

// Tells the service worker which files make this build's app shell: every file of the
// build but the worker itself (the index as "/"), and a version made of their content,
// so that a new build is a new worker with a new cache.
function shellManifest(): Plugin {
  let outDir = 'dist';
  return {
    name: 'brinmoor-shell-manifest',
    apply: 'build',
    configResolved(config) {
      outDir = config.build.outDir;
    },
    closeBundle: {
      sequential: true,
      handler() {
        const hash = createHash('sha256');
        const files: string[] = [];
        for (const path of filesUnder(outDir).sort()) {
          const name = '/' + relative(outDir, path).split('\\').join('/');
          if (name === '/sw.js' || name.endsWith('.gz') || name.endsWith('.br')) continue;
          files.push(name === '/index.html' ? '/' : name);
          hash.update(name + '\0').update(readFileSync(path));
        }
        const worker = join(outDir, 'sw.js');
        const code = readFileSync(worker, 'utf8');
        const marker = '__BRINMOOR_SHELL__';
        if (code.split(marker).length !== 2) throw new Error(`sw.js must name ${marker} exactly once`);
        if (/^\s*(import|export)\b/m.test(code)) throw new Error('sw.js must be a classic script, without imports or exports');
        const manifest = JSON.stringify({ version: hash.digest('hex').slice(0, 16), files });
        writeFileSync(worker, code.replace(marker, manifest));
      },
    },
  };
}

// Writes NAME.br (brotli) and NAME.gz (gzip) beside every text file of the build, so the
// server can send the compressed bytes as they are to a browser that takes either. A
// form that would not be smaller than the file is left out.
function precompress(): Plugin {
  let outDir = 'dist';
  return {
    name: 'brinmoor-precompress',
    apply: 'build',
    configResolved(config) {
      outDir = config.build.outDir;
    },
    closeBundle: {
      sequential: true,
      handler() {
        for (const path of filesUnder(outDir)) {
          if (!/\.(html|js|css|svg|json|txt|webmanifest)$/.test(path)) continue;
          const content = readFileSync(path);
          const forms: [string, Buffer][] = [
            ['.gz', gzipSync(content, { level: 9 })],
            [
              '.br',
              brotliCompressSync(content, {
                params: {
                  [zlibConstants.BROTLI_PARAM_MODE]: zlibConstants.BROTLI_MODE_TEXT,
                  [zlibConstants.BROTLI_PARAM_QUALITY]: zlibConstants.BROTLI_MAX_QUALITY,
                  [zlibConstants.BROTLI_PARAM_SIZE_HINT]: content.length,
                },
              }),
            ],
          ];
          for (const [suffix, compressed] of forms) {
            if (compressed.length < content.length) writeFileSync(path + suffix, compressed);
          }
        }
      },
    },
  };
}

// `vite build --mode taps` is the client the browser tests and the benchmark load: it has
// their taps (src/taps.d.ts), as have the unit tests. The client that ships has none.
export default defineConfig(({ mode }) => ({
  define: { __BRINMOOR_TAPS__: JSON.stringify(mode === 'taps' || mode === 'test') },
  esbuild: { jsx: 'automatic', jsxImportSource: 'preact' },
  build: {
    target: 'es2022',
    // Nothing inlined as data: URLs; the page's policy allows its own origin only.
    assetsInlineLimit: 0,
    modulePreload: { polyfill: false },
    sourcemap: false,
    reportCompressedSize: false,
    rollupOptions: {
      // The page, and the service worker at the root (its scope is the folder it is in).
      input: { index: here('index.html'), sw: here('src/service_worker/service_worker.ts') },
      output: { entryFileNames: (chunk) => (chunk.name === 'sw' ? 'sw.js' : 'assets/[name]-[hash].js') },
    },
  },
  plugins: [readmeHelp(), shellManifest(), precompress()],
  test: {
    environment: 'node',
    include: ['test/**/*.test.ts'],
  },
}));
