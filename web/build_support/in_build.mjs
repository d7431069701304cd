// Runs the web client's tools with the packages the build installed. Nothing is installed
// in web/: the build runs `npm ci` in its own folder (BUILD/web, BUILD being
// $BRINMOOR_BUILD_DIR or ../build), and here the packages are found there.
//
//   node build_support/in_build.mjs build [vite options]  type-checks and builds, in BUILD/web/tree
//   node build_support/in_build.mjs taps [vite options]   builds the client with the test taps, likewise
//   node build_support/in_build.mjs test [vitest options] the unit tests, in BUILD/web/tree
//   node build_support/in_build.mjs suites                type-checks and compiles the browser suites
//                                                         and the benchmark into BUILD/web/e2e-js
//   node build_support/in_build.mjs e2e [suites]          compiles them and runs the suites (all, or
//                                                         those named: words, output, ...)
//   node build_support/in_build.mjs bench                 compiles them and runs the benchmark
//   node build_support/in_build.mjs check                 Prettier and ESLint over web/
//   node build_support/in_build.mjs format                Prettier rewrites web/
//
// Vite, TypeScript and Vitest resolve a package from the folder of the file that imports
// it, so they run in a copy of web/ made in BUILD/web/tree, beside the packages (the
// README too, which the build makes a page of). The browser suites are compiled from a
// copy of their own (BUILD/web/e2e-tree), so that compiling them and building the client
// may run at once. Prettier and ESLint run over web/ itself, so that what they report and
// rewrite is the developer's own files.
import { spawnSync } from 'node:child_process';
import { copyFileSync, cpSync, existsSync, rmSync } from 'node:fs';
import { dirname, join, relative, resolve, sep } from 'node:path';
import { fileURLToPath } from 'node:url';

const web = resolve(dirname(fileURLToPath(import.meta.url)), '..');
const build = resolve(process.env.BRINMOOR_BUILD_DIR ?? join(web, '../build'));
const webBuild = join(build, 'web');
const tree = join(webBuild, 'tree');
const suitesTree = join(webBuild, 'e2e-tree');
// The compiled suites: e2e/*.js, beside the page's sources their types come from.
const suitesOut = join(webBuild, 'e2e-js');
const bin = (name) => join(webBuild, 'node_modules/.bin', name);

function run(cwd, tool, ...args) {
  const result = spawnSync(bin(tool), args, { cwd, stdio: 'inherit' });
  if (result.error) throw result.error;
  if (result.status !== 0) process.exit(result.status ?? 1);
}

// The sources as they are now, in place of the last copy.
function stage(to = tree) {
  rmSync(to, { recursive: true, force: true });
  const skipped = new Set(['node_modules', 'dist'].map((name) => join(web, name)));
  cpSync(web, to, { recursive: true, filter: (path) => !skipped.has(path) });
  if (to === tree) copyFileSync(join(web, '../README.md'), join(webBuild, 'README.md'));
}

// Node runs JavaScript only: the suites as they are now, compiled in place of the last ones
// (a suite removed from e2e/ is gone from e2e-js/ too).
function compileSuites() {
  stage(suitesTree);
  rmSync(suitesOut, { recursive: true, force: true });
  run(suitesTree, 'tsc', '-p', 'tsconfig.e2e.json', '--outDir', suitesOut);
}

// Runs a compiled program of e2e/ with the binaries of this build folder, unless
// BRINMOOR_BIN_DIR and BRINMOOR_FAKE_TOOLS_DIR name others.
function runCompiled(name, args) {
  const result = spawnSync(process.execPath, [join(suitesOut, 'e2e', name), ...args], {
    stdio: 'inherit',
    env: {
      BRINMOOR_BIN_DIR: join(build, 'bin'),
      BRINMOOR_FAKE_TOOLS_DIR: join(build, 'tests/fake_tools'),
      ...process.env,
      BRINMOOR_BUILD_DIR: build,
    },
  });
  if (result.error) throw result.error;
  process.exit(result.status ?? 1);
}

if (!existsSync(bin('vite'))) {
  console.error(`web: no packages in ${join(webBuild, 'node_modules')}; build first (scripts/build), or set BRINMOOR_BUILD_DIR`);
  process.exit(2);
}
const [command, ...args] = process.argv.slice(2);
switch (command) {
  case 'build':
    stage();
    run(tree, 'tsc', '--noEmit');
    run(tree, 'tsc', '--noEmit', '-p', 'tsconfig.sw.json');
    run(tree, 'vite', 'build', ...args);
    break;
  case 'taps':
    stage();
    run(tree, 'vite', 'build', '--mode', 'taps', ...args);
    break;
  case 'test':
    stage();
    run(tree, 'vitest', 'run', ...args);
    break;
  case 'suites':
    compileSuites();
    break;
  case 'e2e':
    compileSuites();
    runCompiled('run.js', args);
    break;
  case 'bench':
    compileSuites();
    runCompiled('bench.js', args);
    break;
  case 'check': {
    run(web, 'prettier', '--check', '.');
    // The configuration imports packages, so ESLint loads a copy of it from beside them;
    // its patterns still apply to web/, the folder it runs in.
    const config = join(webBuild, 'eslint.config.js');
    copyFileSync(join(web, 'eslint.config.js'), config);
    run(web, 'eslint', '--config', config, '.');
    break;
  }
  case 'format':
    run(web, 'prettier', '--write', '.');
    break;
  default:
    console.error(
      `usage: node ${relative(process.cwd(), fileURLToPath(import.meta.url))
        .split(sep)
        .join('/')} build|taps|test|suites|e2e|bench|check|format [options]`,
    );
    process.exit(2);
}
