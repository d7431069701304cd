import { gzipSync } from 'node:zlib';
import { readdirSync, readFileSync, statSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import type { Plugin } from 'vite';
import { defineConfig } from 'vitest/config';

// Writes NAME.gz beside every text file of the build, so the server can send the
// compressed bytes as they are to a browser that accepts gzip.
function precompress(): Plugin {
  let outDir = 'dist';
  return {
    name: 'brinmoor-precompress',
    apply: 'build',
    configResolved(config) {
      outDir = config.build.outDir;
    },
    closeBundle() {
      const walk = (dir: string): string[] =>
        readdirSync(dir).flatMap((name) => {
          const path = join(dir, name);
          return statSync(path).isDirectory() ? walk(path) : [path];
        });
      for (const path of walk(outDir)) {
        if (!/\.(html|js|css|svg|json|txt|webmanifest)$/.test(path)) continue;
        writeFileSync(path + '.gz', gzipSync(readFileSync(path), { level: 9 }));
      }
    },
  };
}

export default defineConfig({
  esbuild: { jsx: 'automatic', jsxImportSource: 'preact' },
  build: {
    target: 'es2022',
    // Nothing inlined as data: URLs; the page's policy allows its own origin only.
    assetsInlineLimit: 0,
    modulePreload: { polyfill: false },
    sourcemap: false,
    reportCompressedSize: false,
  },
  plugins: [precompress()],
  test: {
    environment: 'node',
    include: ['test/**/*.test.ts'],
  },
});
