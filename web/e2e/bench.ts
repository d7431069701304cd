// Brinmoor Web's figures, in headless Chromium against a real relay and agent on
// loopback: what the first load fetches, the time to the agent list, terminal throughput
// and responsiveness, keystroke echo, the cost of a streamed answer's chunks, and a task's
// 2,000,000 lines reaching a page.
import { spawn } from 'node:child_process';
import { existsSync, mkdirSync, writeFileSync } from 'node:fs';
import { createServer, type AddressInfo } from 'node:net';
import { join } from 'node:path';
import type { KeyInput, Page } from 'puppeteer-core';
import { codexStream, focusTerminal, kAgentId, kToken, World } from './harness.js';

const kDesktop = { width: 1280, height: 800, deviceScaleFactor: 1, isMobile: false, hasTouch: false };
// DevTools' network domain would copy every WebSocket frame to this process, work that a
// phone's browser never does and that halves the terminal's throughput; nothing here
// needs it.
const world = new World({ networkEnabled: false });

function median(values: number[]) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.floor(sorted.length / 2)];
}

function percentile(values: number[], p: number) {
  const sorted = [...values].sort((a, b) => a - b);
  return sorted[Math.min(sorted.length - 1, Math.floor((sorted.length * p) / 100))];
}

function print(name: string, value: unknown, unit?: string, target?: string) {
  console.log(`${name}: ${value}${unit ? ' ' + unit : ''}${target ? `  (target ${target})` : ''}`);
}

// The bytes of a file as the server sends it to a browser that takes this encoding.
async function servedSize(shipped: World, path: string, encoding = 'gzip') {
  const response = await fetch(shipped.origin + path, { headers: { 'Accept-Encoding': encoding } });
  await response.arrayBuffer();
  return Number(response.headers.get('content-length'));
}

// The client as it ships, served by a relay of its own: the other steps load the one built
// with the taps they read.
async function firstLoad() {
  const shipped = new World({ networkEnabled: false, taps: false });
  try {
    await shipped.start();
    await firstLoadOf(shipped);
  } finally {
    await shipped.stop();
  }
}

async function firstLoadOf(shipped: World) {
  // The page, and what it names: its script, its style sheet, the preloaded modules and
  // the icon. The terminal, the diff view and the highlighter come later, when used.
  const index = await (await fetch(shipped.origin + '/')).text();
  const named = [...index.matchAll(/(?:src|href)="(\/[^"]+)"/g)].map((match) => match[1]);
  let bytes = await servedSize(shipped, '/');
  for (const path of new Set(named)) bytes += await servedSize(shipped, path);
  print(`first load, gzip bytes of the page and the ${named.length} files it names`, (bytes / 1024).toFixed(1), 'KB', '<= 250 KB');
  let brotli = await servedSize(shipped, '/', 'br, gzip');
  for (const path of new Set(named)) brotli += await servedSize(shipped, path, 'br, gzip');
  print('first load, the same as brotli (what browsers get)', (brotli / 1024).toFixed(1), 'KB');

  // Each load in a fresh browser context, as a phone opening the link for the first time.
  const times = [];
  for (let i = 0; i < 5; i++) {
    const fresh = await shipped.browser.createBrowserContext();
    const again = await shipped.page(kDesktop, fresh);
    await again.goto(`${shipped.origin}/#token=${kToken}`, { waitUntil: 'domcontentloaded' });
    await again.waitForSelector(`[data-agent="${kAgentId}"]`);
    // From the start of the navigation; a little late by the round trip of this question.
    times.push(await again.evaluate(() => performance.now()));
    await fresh.close();
  }
  print('time to the first rendered agent list (median of 5 loads)', median(times).toFixed(0), 'ms', '< 500 ms');
}

// The page, paired, on the project's terminal tab.
async function showTerminalTab(page: Page) {
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector('.project');
  await page.click('.project');
  await page.waitForSelector('button[role=tab]');
  await page.evaluate(() => window.brinmoor.navigation.go({ tab: 'terminal' }));
}

async function openTerminal(page: Page) {
  await showTerminalTab(page);
  await page.waitForSelector('.terminal-start .primary');
  await page.click('.terminal-start .primary');
  await page.waitForSelector('.terminal-head .status-dot.online');
  await focusTerminal(page);
  return page.evaluate(() => {
    const { agentId, projectPath } = window.brinmoor.navigation.place;
    return window.brinmoor.terminals.forProject(agentId!, projectPath!)!.sessionId;
  });
}

// Keystroke to echo: each key goes to the shell through the relay and the agent's pty, and
// its echo comes back. Timed in the page from the key event to the first socket message
// after it (installed before the page loads, so any page can be timed alike: ours, or
// WeTTY's), and to the rows showing the echo (the wait looks at every change of the page).
function socketTap() {
  window.echoTap = {};
  const Native = window.WebSocket;
  window.WebSocket = class extends Native {
    constructor(...args: ConstructorParameters<typeof WebSocket>) {
      super(...args);
      this.addEventListener('message', () => (window.echoTap.arrived ??= performance.now()));
    }
  };
  document.addEventListener('keydown', (event) => (window.echoTap = { key: event.timeStamp }), true);
}

async function echoTimes(page: Page) {
  await page.keyboard.type('echo ');
  await page.waitForFunction(() => document.querySelector('.xterm-rows')!.textContent.includes('echo '));
  const arrived: number[] = [];
  const drawn: number[] = [];
  let typed = 'echo ';
  for (let i = 0; i < 40; i++) {
    const key = 'abcdefghij'[i % 10] as KeyInput;
    typed += key;
    await page.keyboard.press(key);
    const shown = await page.waitForFunction(
      (text) => document.querySelector('.xterm-rows')!.textContent.includes(text) && performance.now(),
      { polling: 'mutation' },
      typed,
    );
    const at = await shown.jsonValue();
    const { key: down, arrived: given } = await page.evaluate(() => window.echoTap);
    arrived.push(given! - down!);
    drawn.push((at as number) - down!);
  }
  await page.keyboard.down('Control');
  await page.keyboard.press('u');
  await page.keyboard.up('Control');
  return { arrived, drawn };
}

async function terminal() {
  const page = await world.page(kDesktop);
  await page.evaluateOnNewDocument(socketTap);
  await page.bringToFront();
  const sessionId = await openTerminal(page);
  const processed = () => page.evaluate((id) => window.brinmoor.terminals.get(id)!.processed ?? 0, sessionId);

  const echo = await echoTimes(page);
  print(
    "keystroke to the echo's socket message, through the relay and the agent (median of 40)",
    median(echo.arrived).toFixed(1),
    'ms',
    'median <= 5 ms',
  );
  print(
    'keystroke to rendered echo through the relay (median of 40)',
    median(echo.drawn).toFixed(1),
    'ms',
    'the first frame after the echo',
  );
  print('keystroke to rendered echo, 95th percentile', percentile(echo.drawn, 95).toFixed(1), 'ms');

  // Throughput: cat of a 50 MB file to the last byte processed by xterm.js, while the page
  // is asked something every 50 ms.
  const file = join(world.root, 'big.txt');
  const line = 'x'.repeat(79) + '\n';
  writeFileSync(file, line.repeat((50 * 1024 * 1024) / line.length));
  // The end is the marker drawn in the rows; the rows are only read once the terminal
  // was given the marker, since reading them every frame costs the page a layout.
  await page.evaluate(() => {
    let tail = '';
    window.brinmoorTerminalTap = (_id, data) => {
      const seen = tail + data;
      if (seen.includes('cat-done-42')) window.brinmoorCatDone = true;
      tail = seen.slice(-16);
    };
  });
  // No mouse over the terminal: a phone has none, and a desktop's would make every scrolled
  // frame hit-test it.
  await page.mouse.move(0, 0);
  const start = await processed();
  const began = Date.now();
  await page.keyboard.type(`cat ${file}; echo cat-done-$((40+2))`);
  await page.keyboard.press('Enter');
  const answers: number[] = [];
  let done = false;
  const probe = (async () => {
    while (!done) {
      const sent = Date.now();
      await page.evaluate(() => 0);
      answers.push(Date.now() - sent);
      await new Promise((resolve) => setTimeout(resolve, 50));
    }
  })();
  await page.waitForFunction(
    () => window.brinmoorCatDone && document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('cat-done-42'),
    {
      timeout: 240000,
    },
  );
  const seconds = (Date.now() - began) / 1000;
  done = true;
  await probe;
  const characters = (await processed()) - start;
  print('terminal: cat of 50 MB to the last byte processed by xterm.js', (50 / seconds).toFixed(1), 'MB/s', '>= 20 MB/s');
  print('terminal: characters processed during the cat', (characters / 1e6).toFixed(1), 'M');
  print('terminal: page answer time during the cat, max', Math.max(...answers), 'ms', '< 100 ms');
  print('terminal: page answer time during the cat, 95th percentile', percentile(answers, 95), 'ms');
  // The page paces the terminal by what xterm.js rendered, so it never falls the 8 MiB
  // behind for which the relay drops a reader.
  const dropped = world.relayLog.match(/client\.dropped [^\n]*/g) ?? [];
  print('terminal: times the relay dropped the page for being slow', dropped.length);
  await page.close();
}

// Chromium holds back every task of a page after a key until it has drawn the next frame
// (its DeferRendererTasksAfterInput), so there the echo cannot be drawn before the frame
// after that one. The same figures in a Chromium that runs the page's tasks as they come,
// as browsers without that policy do.
async function echoWithoutInputDeferral() {
  const browser = await world.launchBrowser(['--disable-features=DeferRendererTasksAfterInput']);
  const page = await world.page(kDesktop, browser.defaultBrowserContext());
  await page.evaluateOnNewDocument(socketTap);
  // The project's shell is still open on the agent, and this page shows it.
  await showTerminalTab(page);
  await page.waitForSelector('.terminal-head .status-dot.online');
  await focusTerminal(page);
  await page.keyboard.type('clear');
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => !document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('cat-done-42'));
  const echo = await echoTimes(page);
  print("without input deferral: keystroke to the echo's socket message (median of 40)", median(echo.arrived).toFixed(1), 'ms');
  print(
    'without input deferral: keystroke to rendered echo (median of 40)',
    median(echo.drawn).toFixed(1),
    'ms',
    'the first frame after the echo',
  );
  print('without input deferral: keystroke to rendered echo, 95th percentile', percentile(echo.drawn, 95).toFixed(1), 'ms');
  await page.close();
}

async function chat() {
  // 1 MB of answer in 1,000 pieces of Codex messages with paragraphs.
  const paragraph = (i: number) => `Paragraph ${i}: ` + 'lorem ipsum dolor sit amet '.repeat(18) + '\n';
  const messages = Array.from({ length: 1000 }, (_, i) => paragraph(2 * i) + '\n' + paragraph(2 * i + 1));
  world.fakeFile('codex.stream', codexStream(messages).replaceAll('\x01', ''));
  const page = await world.page(kDesktop);
  await page.bringToFront();
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector('.project');
  await page.click('.project');
  await page.evaluate(() => window.brinmoor.navigation.go({ tab: 'chat' }));
  await page.waitForSelector('.new-chat-button');
  await page.evaluate(() => (window.brinmoorMarkdownTimings = []));
  await page.click('.segmented button:nth-child(2)');
  await page.click('.new-chat-button');
  await page.waitForSelector('textarea[name=prompt]');
  await page.type('textarea[name=prompt]', 'Write a lot');
  await page.click('.composer .primary');
  await page.waitForFunction(() => document.querySelector('.message.assistant.done'), { timeout: 120000 });
  const timings = await page.evaluate(() => window.brinmoorMarkdownTimings);
  // Renders while streaming, in order; each covers the chunks that arrived since the last.
  const streamed = timings!.slice(0, -1).filter((t) => t.chunks > 0);
  const total = streamed.reduce((sum, t) => sum + t.chunks, 0);
  const perChunk = (part: { chunks: number; ms: number }[]) => {
    const chunks = part.reduce((sum, t) => sum + t.chunks, 0);
    const ms = part.reduce((sum, t) => sum + t.ms, 0);
    return `${(ms / Math.max(1, chunks)).toFixed(3)} ms a chunk (${(ms / Math.max(1, part.length)).toFixed(2)} ms a render of ${(chunks / Math.max(1, part.length)).toFixed(1)} chunks)`;
  };
  // A render belongs to the start when it began in the first tenth of the chunks, to the
  // end when it finished in the last tenth.
  let seen = 0;
  const first: { chunks: number; ms: number }[] = [];
  const last: { chunks: number; ms: number }[] = [];
  for (const t of streamed) {
    if (seen < total * 0.1) first.push(t);
    if (seen + t.chunks > total * 0.9) last.push(t);
    seen += t.chunks;
  }
  const text = await page.$eval('.message.assistant.done .markdown', (e) => e.textContent.length);
  print('chat: chunks of the 1 MB answer rendered while streaming', total);
  print('chat: render time, first 10% of the answer', perChunk(first));
  print('chat: render time, last 10% of the answer', perChunk(last), '', 'no growth');
  print('chat: characters of the answer shown', text);
  await page.close();
}

// A shell task printing 2,000,000 lines to a desktop page, paced by it: how long after its
// process ended the page shows "Finished", and whether every line arrived, at full speed
// and with the page's processor four times slower.
async function taskOutput(throttling: number) {
  const page = await world.page(kDesktop);
  await page.bringToFront();
  const cdp = await page.createCDPSession();
  await cdp.send('Emulation.setCPUThrottlingRate', { rate: throttling });
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector('.project');
  await page.click('.project');
  await page.evaluate(() => window.brinmoor.navigation.go({ tab: 'tasks' }));
  await page.waitForSelector('input[name=command]');
  await page.type('input[name=command]', 'seq 1 2000000');
  const began = Date.now();
  await page.click('.run-form button[type=submit]');
  await page.waitForFunction(() => window.brinmoor.navigation.place.taskId);
  const taskId = await page.evaluate(() => window.brinmoor.navigation.place.taskId!);
  // The page notes when it shows "Finished"; asked only afterwards, in short calls, since a
  // page this busy answers a long-waiting call too late for DevTools.
  await page.evaluate(() => {
    const note = () => {
      if (document.querySelector('.task-detail .task-status')?.textContent !== 'Finished') return false;
      window.brinmoorFinishedAt = Date.now();
      return true;
    };
    if (!note())
      new MutationObserver((_, observer) => note() && observer.disconnect()).observe(document.body, {
        subtree: true,
        childList: true,
        characterData: true,
      });
  });
  await world.waitFor(() => world.agentLog.includes(`runTask process terminated taskId=${taskId}`), 'the end of seq', 900_000);
  const ended = Date.now();
  // Seconds after the process ends at most, well within what DevTools waits for a call.
  const finished = await (await page.waitForFunction(() => window.brinmoorFinishedAt, { timeout: 120_000, polling: 100 })).jsonValue();
  const [last, total] = await page.evaluate((id) => {
    const output = window.brinmoor.tasks.get(id)!.output;
    return [output?.last ?? 0, output?.total ?? 0];
  }, taskId);
  const label = throttling === 1 ? 'task output' : `task output, CPU ${throttling}x slower`;
  print(`${label}: seq 1 2000000, start to process end`, ((ended - began) / 1000).toFixed(1), 's');
  print(`${label}: process end to "Finished" shown`, Math.max(0, finished! - ended), 'ms');
  print(`${label}: last line the page took / lines in all`, `${last} / ${total}`, '', '2000000 / 2000000');
  const dropped = world.relayLog.match(/client\.dropped [^\n]*/g) ?? [];
  print(`${label}: times the relay dropped a page for being slow, so far`, dropped.length);
  await page.close();
}

// The same keystroke and cat steps, taken the same way, against WeTTY (a browser terminal
// on xterm.js and node-pty, started on loopback), both pages in one Chromium without
// WebGL, so that both draw with xterm.js's DOM renderer. Both are timed alike: from the
// key event to the first socket message after it and to the rows showing the echo; the
// cat to its end marker shown in the rows.
const kPeerRounds = 5;

async function freePort() {
  const server = createServer();
  await new Promise<void>((resolve) => server.listen(0, '127.0.0.1', resolve));
  const { port } = server.address() as AddressInfo;
  await new Promise((resolve) => server.close(resolve));
  return port;
}

async function peerCat(page: Page, file: string, run: number) {
  // Each run's own end marker: a page that draws earlier output again (a replay when it
  // comes back to the front) shows the marker of a run before, never this one's.
  const marker = `cat-done-${1000 + run}`;
  const began = Date.now();
  await page.keyboard.type(`cat ${file}; echo cat-done-$((1000+${run}))`);
  await page.keyboard.press('Enter');
  // textContent needs no layout; the typed command shows "$((…))", not the marker.
  await page.waitForFunction(
    (text) => document.querySelector('.xterm-rows')!.textContent.includes(text),
    { timeout: 150_000, polling: 100 },
    marker,
  );
  const rate = 50 / ((Date.now() - began) / 1000);
  await page.keyboard.type('clear');
  await page.keyboard.press('Enter');
  await page.waitForFunction((text) => !document.querySelector('.xterm-rows')!.textContent.includes(text), {}, marker);
  return rate;
}

// xterm.js alone in WeTTY's page: 50 MB of the cat's lines written from memory, at most
// 256 KiB waiting, with nothing on the network; what this Chromium's xterm.js can take.
async function xtermAlone(page: Page) {
  return page.evaluate(async () => {
    const term = window.wetty_term!;
    const chunk = ('x'.repeat(79) + '\r\n').repeat(204);
    const total = 50 * 1024 * 1024;
    const began = performance.now();
    let given = 0;
    let waiting = 0;
    await new Promise<void>((resolve) => {
      const more = () => {
        while (waiting < 16 && given < total) {
          waiting++;
          given += chunk.length;
          term.write(chunk, () => {
            waiting--;
            if (given >= total && waiting === 0) resolve();
            else more();
          });
        }
      };
      more();
    });
    await new Promise((resolve) => requestAnimationFrame(resolve));
    const rate = 50 / ((performance.now() - began) / 1000);
    term.clear();
    return rate;
  });
}

function range(values: number[], digits = 1) {
  const sorted = [...values].sort((a, b) => a - b);
  return `${sorted[0].toFixed(digits)} to ${sorted.at(-1)!.toFixed(digits)} (median ${median(values).toFixed(digits)})`;
}

async function peer() {
  const main = process.env.BRINMOOR_WETTY;
  if (!main || !existsSync(main)) {
    print('WeTTY comparison', 'skipped: WeTTY is not installed (scripts/bench installs it)');
    return;
  }
  const port = await freePort();
  // A login shell as the agent starts, with no start-up files of this machine's user.
  const home = join(world.root, 'wetty-zdotdir');
  mkdirSync(home, { recursive: true });
  writeFileSync(join(home, '.zshrc'), "PROMPT='wetty %~ %# '\n");
  const wetty = spawn(process.execPath, [main, '--host', '127.0.0.1', '--port', String(port), '--base', '/', '--command', '/bin/zsh -l'], {
    env: { ...process.env, ZDOTDIR: home },
    stdio: ['ignore', 'pipe', 'pipe'],
  });
  let log = '';
  wetty.stdout.on('data', (data: Buffer) => (log += data));
  wetty.stderr.on('data', (data: Buffer) => (log += data));
  try {
    await world.waitFor(() => log.includes('Starting server'), 'WeTTY to start');
    const file = join(world.root, 'big.txt');
    const line = 'x'.repeat(79) + '\n';
    if (!existsSync(file)) writeFileSync(file, line.repeat((50 * 1024 * 1024) / line.length));
    const browser = await world.launchBrowser(['--disable-3d-apis']);
    const ours = await world.page(kDesktop, browser.defaultBrowserContext());
    await ours.evaluateOnNewDocument(socketTap);
    await showTerminalTab(ours);
    // The project's shell may still be open on the agent from an earlier step.
    await ours.waitForSelector('.terminal-start .primary, .terminal-head .status-dot.online');
    if (await ours.$('.terminal-start .primary')) await ours.click('.terminal-start .primary');
    await ours.waitForSelector('.terminal-head .status-dot.online');
    const theirs = await world.page(kDesktop, browser.defaultBrowserContext());
    await theirs.evaluateOnNewDocument(socketTap);
    // Without WebGL, WeTTY's renderer add-on throws as it loads and xterm.js keeps its own.
    await theirs.goto(`http://127.0.0.1:${port}/`);
    await theirs.waitForSelector('.xterm-rows');
    await theirs.waitForFunction(() => window.wetty_term && document.querySelector('.xterm-rows')!.textContent.includes('wetty '));
    type Figures = { arrived: number[]; drawn: number[]; cat: number[] };
    const figures: Record<'ours' | 'theirs', Figures> = {
      ours: { arrived: [], drawn: [], cat: [] },
      theirs: { arrived: [], drawn: [], cat: [] },
    };
    for (let round = 0; round < kPeerRounds; round++) {
      for (const [name, page] of [
        ['ours', ours],
        ['theirs', theirs],
      ] as const) {
        await page.bringToFront();
        await focusTerminal(page);
        await page.mouse.move(0, 0);
        const echo = await echoTimes(page);
        figures[name].arrived.push(median(echo.arrived));
        figures[name].drawn.push(median(echo.drawn));
        figures[name].cat.push(await peerCat(page, file, round));
      }
    }
    const alone: number[] = [];
    await theirs.bringToFront();
    for (let i = 0; i < 3; i++) alone.push(await xtermAlone(theirs));
    for (const [name, label] of [
      ['ours', 'Brinmoor Web'],
      ['theirs', 'WeTTY 3.2.0'],
    ] as const) {
      const f = figures[name];
      print(`${label}: keystroke to echo's socket message (medians of 40, ${kPeerRounds} rounds)`, range(f.arrived), 'ms');
      print(`${label}: keystroke to rendered echo (medians of 40, ${kPeerRounds} rounds)`, range(f.drawn), 'ms');
      print(`${label}: cat of 50 MB to its end shown (${kPeerRounds} runs)`, range(f.cat), 'MB/s');
    }
    const ratio = (a: number[], b: number[]) => (median(a) / median(b)).toFixed(2);
    print('ratio Brinmoor Web / WeTTY: rendered echo (lower is faster)', ratio(figures.ours.drawn, figures.theirs.drawn), '', '<= 1');
    print('ratio Brinmoor Web / WeTTY: cat throughput', ratio(figures.ours.cat, figures.theirs.cat), '', '>= 1');
    print('xterm.js alone in the same Chromium, 50 MB from memory (3 runs)', range(alone), 'MB/s');
    await browser.close();
  } finally {
    wetty.kill();
  }
}

// BRINMOOR_BENCH_ONLY=taskOutput (names, comma-separated) runs only those steps.
const steps = {
  firstLoad,
  terminal,
  echoWithoutInputDeferral,
  peer,
  chat,
  taskOutput: async () => (await taskOutput(1), await taskOutput(4)),
};
const only = process.env.BRINMOOR_BENCH_ONLY?.split(',');

try {
  await world.start();
  for (const [name, step] of Object.entries(steps)) if (!only || only.includes(name)) await step();
} finally {
  await world.stop();
}
