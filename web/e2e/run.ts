// Runs every browser suite (e2e/*.e2e.ts, or those named on the command line) one
// after another against a built relay and agent, and says which failed. It runs compiled,
// beside the compiled suites (BUILD/web/e2e-js/e2e; `npm run e2e` compiles them first).
// The binaries are found as the suites find them: BRINMOOR_BIN_DIR and
// BRINMOOR_FAKE_TOOLS_DIR, by default those of the build folder ($BRINMOOR_BUILD_DIR, or
// the one the suites were compiled into).
import { spawnSync } from 'node:child_process';
import { existsSync, readdirSync } from 'node:fs';
import { dirname, join, resolve } from 'node:path';
import { fileURLToPath } from 'node:url';

const here = dirname(fileURLToPath(import.meta.url));
const build = resolve(process.env.BRINMOOR_BUILD_DIR ?? join(here, '../../..'));
const env = {
  ...process.env,
  BRINMOOR_BIN_DIR: process.env.BRINMOOR_BIN_DIR ?? join(build, 'bin'),
  BRINMOOR_FAKE_TOOLS_DIR: process.env.BRINMOOR_FAKE_TOOLS_DIR ?? join(build, 'tests/fake_tools'),
};
if (!existsSync(join(env.BRINMOOR_BIN_DIR, 'brinmoor-server'))) {
  console.error(`e2e: no brinmoor-server in ${env.BRINMOOR_BIN_DIR}; build first (scripts/build) or set BRINMOOR_BIN_DIR`);
  process.exit(2);
}

// A suite is named as it is written (words, words.e2e.ts) or as it runs (words.e2e.js).
const named = process.argv.slice(2).map((name) => `${name.replace(/\.e2e\.[jt]s$/, '')}.e2e.js`);
const suites =
  named.length > 0
    ? named
    : readdirSync(here)
        .filter((name) => name.endsWith('.e2e.js'))
        .sort();
const failed: string[] = [];
for (const suite of suites) {
  console.log(`e2e: ${suite}`);
  const run = spawnSync(process.execPath, [join(here, suite)], { env, stdio: 'inherit' });
  if (run.status !== 0) failed.push(suite);
}
console.log(failed.length === 0 ? `e2e: all ${suites.length} suites passed` : `e2e: failed: ${failed.join(', ')}`);
process.exit(failed.length === 0 ? 0 : 1);
