// Brinmoor Web comes back without losing anything: a page whose network goes away and
// comes back, a reload, a page that never saw the agent, a gap the relay could not fill,
// and a terminal pouring out 50 MB through a slow network. Screenshots go to
// $BRINMOOR_WEB_SCREENSHOTS when it is set.
//
// What this Chromium does with a WebSocket when DevTools takes the network offline: the
// socket stays open and nothing arrives (no close, no error) until the network is back,
// when the held messages arrive on it. The browser does fire "offline" and "online", and
// the page gives its socket up on "offline"; these tests prove that it did (the page
// says "Reconnecting…", the relay logs the disconnection) and that the next socket
// resumed ("?since=" in its address, "resume.ok" among its first frames).
import assert from 'node:assert/strict';
import { createHash, randomBytes } from 'node:crypto';
import { mkdirSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import type { CDPSession, Page } from 'puppeteer-core';
import type { RelayClientOptions } from '../src/protocol/relay_client';
import {
  claudeStream,
  clickText,
  codexStream,
  focusTerminal,
  kAgentId,
  kToken,
  testLeavingPictures,
  waitForText,
  World,
  type TestPage,
} from './harness.js';

// A small event log, so that a page away long enough finds a gap.
const world = new World({ relayEnv: { BRINMOOR_EVENT_LOG_BYTES: String(1024 * 1024) } });
const kPhone = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: false, hasTouch: false };
let page: TestPage;
let other: TestPage | undefined; // a second page of the test running, if any
let cdp: CDPSession;
let sockets: Sockets; // what the page's sockets did, as DevTools saw it

interface Sockets {
  urls: string[];
  resumes: string[];
  cancels: unknown[];
}

// What the page's connection is given to wait with; the tests put it off.
type ClientWithOptions = { options: Required<Pick<RelayClientOptions, 'setTimer'>> };

const test = testLeavingPictures(nodeTest, 'resume-', () => [
  [page, ''],
  [other, '-other'],
]);

// Watches the page's sockets through DevTools: their addresses, the resume frames, and the
// cancellations the page sent.
async function watchSockets(target: Page) {
  const session = await target.createCDPSession();
  const seen: Sockets = { urls: [], resumes: [], cancels: [] };
  session.on('Network.webSocketCreated', (event) => seen.urls.push(event.url));
  session.on('Network.webSocketFrameSent', (event) => {
    const payload = event.response.payloadData;
    if (payload.includes('"task.cancel"')) seen.cancels.push(JSON.parse(payload));
  });
  session.on('Network.webSocketFrameReceived', (event) => {
    const payload = event.response.payloadData;
    if (payload.length > 65536 || !payload.includes('"resume.')) return;
    const type = JSON.parse(payload).type;
    if (type.startsWith('resume.')) seen.resumes.push(type);
  });
  await session.send('Network.enable');
  return { session, seen };
}

async function offline(on: boolean) {
  await cdp.send('Network.emulateNetworkConditions', { offline: on, latency: 0, downloadThroughput: -1, uploadThroughput: -1 });
}

before(async () => {
  await world.start();
  page = await world.page(kPhone);
  await page.evaluateOnNewDocument(() => {
    window.brinmoorHeld = (task) => {
      const output = task?.output;
      if (!output) return task?.log.slice(0, task.log.length) ?? [];
      return Array.from({ length: output.tailLength }, (_, i) => output.line(output.first + i));
    };
  });
  ({ session: cdp, seen: sockets } = await watchSockets(page));
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector(`[data-agent="${kAgentId}"] .project`);
});

after(async () => {
  await world.stop();
});

const click = clickText;
const waitText = waitForText;

async function shoot(name: string) {
  const folder = process.env.BRINMOOR_WEB_SCREENSHOTS;
  if (!folder) return;
  mkdirSync(folder, { recursive: true });
  await page.waitForFunction(() => new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(() => resolve(true)))));
  await page.screenshot({ path: join(folder, `web-${name}.png`) });
}

// Runs a shell command from the Tasks tab; the new task's id.
async function runTask(command: string) {
  await click(page, 'button[role=tab] .tab-label', 'Tasks');
  await page.waitForSelector('input[name=command]', { visible: true });
  // The field keeps the last command; it is emptied as a user does it.
  await page.click('input[name=command]', { clickCount: 3 });
  await page.keyboard.press('Backspace');
  await page.type('input[name=command]', command);
  const before = await page.evaluate(() => window.brinmoor.tasks.list().length);
  await click(page, '.run-form button', 'Run');
  await page.waitForFunction((n) => window.brinmoor.tasks.list().length > n, {}, before);
  return page.evaluate(() => window.brinmoor.navigation.place.taskId!);
}

// The lines of a task's output the page holds: those it took one after another, in
// memory (what came before them is read from the computer when shown).
function logOf(taskId: string) {
  return page.evaluate((id) => window.brinmoorHeld(window.brinmoor.tasks.get(id)), taskId);
}

function waitForLine(taskId: string, line: string) {
  return page.waitForFunction(
    (id, wanted) => window.brinmoorHeld(window.brinmoor.tasks.get(id)).includes(wanted),
    { timeout: 20000 },
    taskId,
    line,
  );
}

// The agent says so when a task's process has ended.
function waitForTaskEnd(taskId: string) {
  return world.waitFor(() => world.agentLog.includes(`runTask process terminated taskId=${taskId}`), `the end of task ${taskId}`);
}

function count(text: string, pattern: RegExp) {
  return (text.match(pattern) ?? []).length;
}

const numbered = (tag: string, n: number) => Array.from({ length: n }, (_, i) => `${tag}-${i + 1}`);

// Takes the page offline, proves its socket is gone, runs `whileAway`, and brings it back.
async function away(whileAway: () => Promise<unknown>) {
  const disconnected = count(world.relayLog, /^client\.disconnected /gm);
  const opened = sockets.urls.length;
  await offline(true);
  // The browser knows it has no network: the page says so, and has given its socket up.
  await waitText(page, '.connection-text', 'Offline');
  await page.waitForFunction(() => window.brinmoor.connection.state === 'waiting');
  assert.equal(await page.$('.retry-now'), null);
  await whileAway();
  await offline(false);
  await waitText(page, '.connection-text', 'Connected');
  await world.waitFor(() => count(world.relayLog, /^client\.disconnected /gm) > disconnected, 'the relay to see the socket go');
  assert.ok(sockets.urls.length > opened, 'a new socket was opened');
  const url = new URL(sockets.urls[sockets.urls.length - 1]);
  assert.deepEqual(Object.keys(JSON.parse(url.searchParams.get('since')!)), [kAgentId]);
}

test('a page offline during a running task and a streaming chat finds every line, the end and the whole answer', async () => {
  await click(page, '.project .project-name', 'App');
  const taskId = await runTask('for i in {1..60}; do print T-$i; sleep 0.05; done');
  await waitForLine(taskId, 'T-5');
  const resumes = sockets.resumes.length;
  await away(() => waitForTaskEnd(taskId));
  await waitText(page, '.task-detail .task-status', 'Finished');
  assert.deepEqual(await logOf(taskId), numbered('T', 60));
  assert.deepEqual(sockets.resumes.slice(resumes), ['resume.ok']);
  await shoot('resumed');

  const pieces = Array.from({ length: 12 }, (_, i) => `Piece ${i + 1} of the answer. `);
  world.fakeFile('claude.stream', claudeStream(pieces));
  await click(page, 'button[role=tab] .tab-label', 'Chat');
  await click(page, '.segmented button', 'Claude');
  await click(page, '.new-chat-button', 'New chat');
  await page.waitForSelector('textarea[name=prompt]', { visible: true });
  await page.type('textarea[name=prompt]', 'Tell me in pieces');
  await click(page, '.composer button', 'Send');
  await page.waitForFunction(() => document.querySelector('.message.assistant .markdown')?.textContent.includes('Piece 1 '));
  const chatTask = await page.$eval('.message.assistant', (e) => (e as HTMLElement).dataset.task!);
  await away(() => waitForTaskEnd(chatTask));
  await page.waitForSelector('.message.assistant.done');
  assert.equal(await page.$eval('.message.assistant .markdown', (e) => e.textContent.trim()), pieces.join('').trim());
});

test('a reload while a task runs loses nothing', async () => {
  const taskId = await runTask('for i in {1..80}; do print R-$i; sleep 0.05; done');
  await waitForLine(taskId, 'R-10');
  const opened = sockets.urls.length;
  await page.reload();
  await page.waitForFunction((id) => window.brinmoor?.tasks.get(id), {}, taskId);
  const url = new URL(sockets.urls[opened]);
  assert.ok(url.searchParams.get('since'), 'the reloaded page resumes: ' + url);
  await waitText(page, '.task-detail .task-status', 'Finished');
  assert.deepEqual(await logOf(taskId), numbered('R', 80));
  // The tasks before it came back with their output too.
  await click(page, '.task-history .task-title', 'for i in {1..60}; do print T-$i; sleep 0.05; done');
  await waitText(page, '.task-detail .task-status', 'Finished');
  const earlier = await page.evaluate(() => window.brinmoor.navigation.place.taskId!);
  assert.deepEqual(await logOf(earlier), numbered('T', 60));
});

// A fake `claude` that says its answer in parts: the first at once, each next one once the
// file GATE-N exists (N from 1), then its result.
function gatedClaude(parts: string[], gate: string) {
  const line = (event: object) => `print -r -- '${JSON.stringify(event)}'\n`;
  let text = '';
  let script = line({ type: 'system', subtype: 'init', session_id: 's' });
  parts.forEach((part, i) => {
    if (i > 0) script += `while [[ ! -e ${gate}-${i} ]]; do sleep 0.05; done\n`;
    text += part;
    script += line({ type: 'assistant', message: { content: [{ type: 'text', text }] } });
  });
  return script + line({ type: 'result', subtype: 'success', is_error: false, result: text, session_id: 's' }) + 'exit 0\n';
}

// Opens a new chat with Claude in the project and sends its first message.
async function startChat(prompt: string) {
  if (!(await page.$('button[role=tab]'))) await click(page, '.project .project-name', 'App');
  await click(page, 'button[role=tab] .tab-label', 'Chat');
  // At phone size an open chat covers the list until "All chats".
  if (await page.evaluate(() => window.brinmoor.navigation.place.conversationId)) {
    await page.waitForSelector('.back-to-list', { visible: true });
    await page.click('.back-to-list');
  }
  await page.waitForSelector('.chat-view:not(.has-open) .new-chat-button', { visible: true });
  await click(page, '.new-chat-button', 'New chat');
  await page.waitForSelector('textarea[name=prompt]', { visible: true });
  await page.type('textarea[name=prompt]', prompt);
  await click(page, '.composer button', 'Send');
}

// Opens every gate of a gated answer, so that a test that fails leaves no chat running.
function openGates(gate: string, count: number) {
  for (let i = 1; i <= count; i++) writeFileSync(`${gate}-${i}`, '');
}

function answerText(target: Page = page) {
  return target.$$eval('.message.assistant .markdown', (all) => all.map((e) => e.textContent.trim()));
}

test('a reload mid-answer on another view keeps what was said, and the answer goes on once', async () => {
  const gate = join(world.root, 'answer-gate');
  const parts = ['First, the plan. ', 'Second, the work. ', 'Third, the end.'];
  world.fakeFile('claude.script', gatedClaude(parts, gate));
  try {
    await reloadMidAnswer(gate, parts);
  } finally {
    openGates(gate, 2);
  }
});

async function reloadMidAnswer(gate: string, parts: string[]) {
  await startChat('Tell me in three parts');
  await waitText(page, '.message.assistant.streaming .markdown', 'First, the plan.');
  const conversationId = await page.evaluate(() => window.brinmoor.navigation.place.conversationId!);
  await click(page, 'button[role=tab] .tab-label', 'Tasks');
  await page.reload();
  await page.waitForFunction(() => window.brinmoor?.connection.state === 'open');
  // Said while the chat is not on the screen: the page takes it into the answer.
  writeFileSync(gate + '-1', '');
  await page.waitForFunction(
    (id) => window.brinmoor.conversations.get(id)?.messages?.[1]?.chunks.join('').includes('Second'),
    {},
    conversationId,
  );
  await click(page, 'button[role=tab] .tab-label', 'Chat');
  await waitText(page, '.message.assistant.streaming .markdown', 'First, the plan. Second, the work.');
  assert.deepEqual(await answerText(), ['First, the plan. Second, the work.']);
  writeFileSync(gate + '-2', '');
  await page.waitForSelector('.message.assistant.done');
  assert.deepEqual(await answerText(), [parts.join('')]);
  assert.deepEqual(await page.$$eval('.message .note, .message .error', (all) => all.map((e) => e.textContent)), []);
  assert.deepEqual(await page.$$eval('.message.user .bubble', (all) => all.map((e) => e.textContent)), ['Tell me in three parts']);
  // The ended answer is kept with the chat.
  await page.reload();
  await page.waitForSelector('.message.assistant.done');
  assert.deepEqual(await answerText(), [parts.join('')]);
}

test('after a reload mid-answer Stop cancels it, and the next message is answered', async () => {
  const gate = join(world.root, 'stop-gate');
  world.fakeFile('claude.script', gatedClaude(['Thinking it over. ', 'This is never said.'], gate));
  try {
    await stopAfterReload();
  } finally {
    openGates(gate, 1);
  }
});

async function stopAfterReload() {
  await startChat('Take your time');
  await waitText(page, '.message.assistant.streaming .markdown', 'Thinking it over.');
  const chatTask = await page.$eval('.message.assistant', (e) => (e as HTMLElement).dataset.task!);
  await page.reload();
  await waitText(page, '.message.assistant.streaming .markdown', 'Thinking it over.');
  const cancels = sockets.cancels.length;
  await click(page, '.message.assistant button.link', 'Stop');
  await waitText(page, '.message.assistant.cancelled .note', 'Cancelled');
  assert.deepEqual(sockets.cancels.slice(cancels), [{ type: 'task.cancel', agentId: kAgentId, taskId: chatTask }]);
  assert.equal(await page.evaluate((id) => window.brinmoor.tasks.get(id)?.status, chatTask), 'cancelled');
  assert.deepEqual(await answerText(), ['Thinking it over.']);
  world.fakeFile('claude.script', '');
  world.fakeFile('claude.stream', claudeStream(['Here I am again.']));
  await page.type('textarea[name=prompt]', 'Are you there?');
  await click(page, '.composer button', 'Send');
  await page.waitForSelector('.messages > .message.assistant:last-child.done');
  assert.deepEqual(await answerText(), ['Thinking it over.', 'Here I am again.']);
  assert.deepEqual(await page.$$eval('.message .error', (all) => all.map((e) => e.textContent)), []);
}

test('a page away longer than the relay keeps messages reads what it missed from the computer', async () => {
  const go = join(world.root, 'go');
  // About 3 MB of output while the page is away: more than the relay's log holds.
  const taskId = await runTask(
    `print G-start; while [[ ! -e ${go} ]]; do sleep 0.05; done; for i in {1..12000}; do print G-$i-${'x'.repeat(240)}; done; print G-end`,
  );
  await waitForLine(taskId, 'G-start');
  const resumes = sockets.resumes.length;
  await away(async () => {
    writeFileSync(go, '');
    await waitForTaskEnd(taskId);
  });
  await waitText(page, '.task-detail .task-status', 'Finished');
  assert.deepEqual(sockets.resumes.slice(resumes), ['resume.gap']);
  // Nothing is missed: the log has every line, the last ones read from the computer...
  const all = ['G-start', ...Array.from({ length: 12000 }, (_, i) => `G-${i + 1}-${'x'.repeat(240)}`), 'G-end'];
  assert.equal(await page.evaluate((id) => window.brinmoor.tasks.get(id)!.output!.total, taskId), all.length);
  await page.waitForFunction(() => [...document.querySelectorAll('.task-log .log-line')].at(-1)?.textContent === 'G-end');
  assert.equal(await page.$('.task-log .log-line.notice'), null);
  // ...and the page can have them all.
  const read = await page.evaluate(
    async (id) => (await window.brinmoor.tasks.outputs.reads.readAll(window.brinmoor.tasks.get(id)!)).flat(),
    taskId,
  );
  assert.deepEqual(read, all);
  await shoot('resume-gap');
});

// A page in a browser that has never seen this relay, paired from scratch.
async function freshPage() {
  const context = await world.browser.createBrowserContext();
  const fresh = await world.page(kPhone, context);
  other = fresh;
  await fresh.goto(`${world.origin}/#token=${kToken}`);
  await click(fresh, '.project .project-name', 'App');
  return { fresh, context };
}

test('a page that never saw the agent shows its running task, the waiting proposal with its diff, and the open terminal', async () => {
  const stop = join(world.root, 'stop');
  const running = await runTask(`print F-start; while [[ ! -e ${stop} ]]; do sleep 0.05; done`);
  await waitForLine(running, 'F-start');
  const first = await freshPage();
  await click(first.fresh, 'button[role=tab] .tab-label', 'Tasks');
  await waitText(first.fresh, `.task-item .task-state`, 'Running…');
  await waitText(first.fresh, '.task-detail .task-title', 'Shell command');
  writeFileSync(stop, '');
  await waitText(first.fresh, '.task-detail .task-status', 'Finished');
  await first.context.close();

  await click(page, 'button[role=tab] .tab-label', 'Terminal');
  await click(page, '.terminal-start button', 'Open terminal');
  await page.waitForSelector('.terminal-head .status-dot.online');
  await focusTerminal(page);
  await page.keyboard.type('echo seen-$((6*7))');
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('seen-42'));
  writeFileSync(join(world.project, 'greeting.txt'), 'hello\n');
  world.fakeFile('codex.script', 'print bye > greeting.txt\n');
  world.fakeFile('codex.stream', codexStream(['I changed the greeting to bye.'], 'th-resume'));
  await click(page, 'button[role=tab] .tab-label', 'Changes');
  await page.waitForSelector('textarea[name=change-prompt]', { visible: true });
  await page.type('textarea[name=change-prompt]', 'Say bye');
  await click(page, '.change-form button[type=submit]', 'Start');
  await page.waitForSelector('.change-detail .diff-file-name');

  const second = await freshPage();
  await click(second.fresh, 'button[role=tab] .tab-label', 'Changes');
  await waitText(second.fresh, '.change-detail .diff-file-name', 'greeting.txt');
  await waitText(second.fresh, '.change-detail .task-status', 'Waiting for your review');
  await second.fresh.waitForSelector('.diff-body .d2h-del');
  await click(second.fresh, 'button[role=tab] .tab-label', 'Terminal');
  await second.fresh.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')?.innerText.includes('seen-42'));
  await click(second.fresh, 'button[role=tab] .tab-label', 'Changes');
  await click(second.fresh, '.change-detail .actions button', 'Approve');
  await page.waitForFunction(() => document.querySelector('.change-detail .task-status')?.textContent.startsWith('Finished'));
  await second.context.close();
});

// What xterm.js is given, kept in the page by the terminal's test hook, and the marks
// asked for that it has seen (looked for as the pieces come, so the page never searches
// all of it).
function tapTerminal(marks: string[]) {
  return page.evaluateOnNewDocument((watched) => {
    window.brinmoorTapped = [];
    window.brinmoorTappedLength = 0;
    window.brinmoorSeen = new Set();
    let tail = '';
    window.brinmoorTerminalTap = (_sessionId, data) => {
      window.brinmoorTapped.push(data);
      window.brinmoorTappedLength += data.length;
      const look = tail + data;
      for (const mark of watched) if (look.includes(mark)) window.brinmoorSeen.add(mark);
      tail = look.slice(-64);
    };
  }, marks);
}

// Chromium's emulation lets through a good deal less than the figure it is given when the
// page answers every burst (about 2.5 MB/s here for 16 MiB/s, 0.8 MB/s for 4 MiB/s), far
// below what the agent reads from the pty (about 10 MB/s unthrottled): without pacing the
// relay would drop the page once 8 MiB waited for it.
const kThrottledBytesPerSecond = 16 * 1024 * 1024;

test('50 MB through a slow network in a paced terminal: every byte, no disconnect, and Ctrl-C at once', async () => {
  // Random printable lines, made here.
  const file = join(world.root, 'random.txt');
  const bytes = randomBytes(50 * 1024 * 1024);
  for (let i = 0; i < bytes.length; i++) bytes[i] = (i + 1) % 81 === 0 ? 0x0a : 0x20 + (bytes[i] % 95);
  bytes[bytes.length - 1] = 0x0a;
  writeFileSync(file, bytes);
  const expected = createHash('sha256').update(bytes).digest('hex');

  // A page of its own, without DevTools following every frame.
  await page.close();
  page = await world.page(kPhone);
  await tapTerminal(['CAT-END-42', 'after-9']);
  cdp = await page.createCDPSession();
  await page.goto(world.origin + '/');
  await click(page, 'button[role=tab] .tab-label', 'Terminal');
  await page.waitForSelector('.terminal-head .status-dot.online');
  await page.evaluate(() => {
    window.brinmoorStates = [];
    window.brinmoor.connection.client!.onState((state) => window.brinmoorStates.push(state));
  });
  const connected = count(world.relayLog, /^client\.connected /gm);
  await cdp.send('Network.emulateNetworkConditions', {
    offline: false,
    latency: 0,
    downloadThroughput: kThrottledBytesPerSecond,
    uploadThroughput: -1,
  });
  const began = Date.now();
  await focusTerminal(page);
  await page.keyboard.type(`echo CAT-BEGIN-$((6*7)); cat ${file}; echo CAT-END-$((6*7))`);
  await page.keyboard.press('Enter');
  // A minute on a quiet machine; more while other suites run beside it.
  await page.waitForFunction(() => window.brinmoorSeen.has('CAT-END-42'), { timeout: 150_000, polling: 200 });
  const seconds = (Date.now() - began) / 1000;
  const received = await page.evaluate(async () => {
    const all = window.brinmoorTapped.join('');
    window.brinmoorTapped = [];
    const begin = all.indexOf('CAT-BEGIN-42\r\n') + 'CAT-BEGIN-42\r\n'.length;
    const end = all.indexOf('CAT-END-42');
    // The pty turned each line end into CR LF.
    const text = all.slice(begin, end).replaceAll('\r\n', '\n');
    const digest = await crypto.subtle.digest('SHA-256', new TextEncoder().encode(text));
    return { length: text.length, sha256: [...new Uint8Array(digest)].map((b) => b.toString(16).padStart(2, '0')).join('') };
  });
  assert.deepEqual(received, { length: bytes.length, sha256: expected });
  console.log(`# cat of 50 MB through a network throttled to 16 MiB/s: ${seconds.toFixed(1)} s`);

  // Ctrl-C stops a program that is still pouring out, and the prompt is back at once.
  await page.keyboard.type(`cat ${file} ${file}`);
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => window.brinmoorTappedLength > 4 * 1024 * 1024, { polling: 200, timeout: 30000 });
  await click(page, '.terminal-head button', 'Ctrl-C');
  await focusTerminal(page);
  await page.keyboard.type('echo after-$((3*3))');
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => window.brinmoorSeen.has('after-9'), { polling: 200, timeout: 20000 });
  await cdp.send('Network.emulateNetworkConditions', { offline: false, latency: 0, downloadThroughput: -1, uploadThroughput: -1 });

  assert.deepEqual(await page.evaluate(() => window.brinmoorStates), []);
  assert.equal(count(world.relayLog, /^client\.connected /gm), connected);
  assert.equal(count(world.relayLog, /^client\.dropped /gm), 0);
});

test('while the relay is down the page offers "Retry now", which connects at once once it is back', async () => {
  const problems = page.problems.length;
  // The page's own next attempts are put off for an hour: only the button brings it back.
  await page.evaluate(() => {
    const options = (window.brinmoor.connection.client as unknown as ClientWithOptions).options;
    window.brinmoorSetTimer = options.setTimer;
    options.setTimer = (run, ms) => window.brinmoorSetTimer(run, Math.max(ms, 3_600_000));
  });
  await world.restartRelay(async () => {
    await waitText(page, '.connection-text', 'Reconnecting…');
    await waitText(page, '.retry-now', 'Retry now');
    await shoot('retry-now');
  });
  const sinceRestart = () => world.relayLog.split('listening port=').pop()!;
  await world.waitFor(() => /^agent\.register /m.test(sinceRestart()), 'the agent on the new relay');
  // The page has not come back by itself.
  assert.equal(await page.evaluate(() => window.brinmoor.connection.state), 'waiting');
  assert.equal(count(sinceRestart(), /^client\.connected /gm), 0);
  await click(page, '.retry-now', 'Retry now');
  await waitText(page, '.connection-text', 'Connected');
  assert.equal(count(sinceRestart(), /^client\.connected /gm), 1);
  assert.equal(await page.$('.retry-now'), null);
  await page.evaluate(
    () => ((window.brinmoor.connection.client as unknown as ClientWithOptions).options.setTimer = window.brinmoorSetTimer),
  );
  // The attempts that met no relay are all the console heard of.
  const heard = page.problems.splice(problems);
  const unreachable = /^console error: (WebSocket connection to .* failed|Failed to load resource: net::ERR_CONNECTION_REFUSED)/;
  assert.deepEqual(
    heard.filter((problem) => !unreachable.test(problem)),
    [],
  );
});

test('nothing was refused by the page policy and no error reached the console', async () => {
  assert.deepEqual(page.problems, []);
});
