// Brinmoor Web in a real browser against a real relay and agent: pairing, tasks, chats,
// tool approvals, proposals and terminals, as a user does them. Screenshots go to
// $BRINMOOR_WEB_SCREENSHOTS when it is set.
import assert from 'node:assert/strict';
import { existsSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import type { ElementHandle } from 'puppeteer-core';
import {
  claudeStream,
  clickText,
  codexStream,
  elementWithText,
  focusTerminal,
  kAgentId,
  kAskingClaude,
  kDesktop,
  kPhone,
  kToken,
  pageSettled,
  shootSizes,
  testLeavingPictures,
  type TestPage,
  waitForText,
  World,
} from './harness.js';

const world = new World();
let page: TestPage;
// Switching isMobile or hasTouch reloads a page in puppeteer, so both sizes keep them off;
// the phone layout follows the width.
const kScript = '<img src=x onerror=window.__pwned=1>';

const test = testLeavingPictures(nodeTest, '', () => [[page, '']]);

// What the page warned of on its console.
const warnings: string[] = [];

before(async () => {
  await world.start();
  page = await world.page(kPhone);
  page.on('console', (message) => message.type() === 'warn' && warnings.push(message.text()));
});

after(async () => {
  await world.stop();
});

const byText = (selector: string, text: string, timeout?: number) => elementWithText(page, selector, text, timeout);
const click = (selector: string, text: string) => clickText(page, selector, text);
const waitText = (selector: string, wanted: string, timeout?: number) => waitForText(page, selector, wanted, timeout);

// Waits until the text of `selector` includes `wanted`.
function waitIncludes(selector: string, wanted: string, timeout?: number) {
  return page.waitForFunction(
    (sel, text) => [...document.querySelectorAll(sel)].some((e) => e.textContent.includes(text)),
    { timeout: timeout ?? 20000 },
    selector,
    wanted,
  );
}

// Types into a field once it is on the page (views render on the next frame).
async function type(selector: string, text: string) {
  await page.waitForSelector(selector, { visible: true });
  await page.type(selector, text);
}

// The sanitiser parses hostile markup in an inert document, and Chrome reports the
// handler attributes it meets there to the page's policy; the image it keeps asks the
// server for "x". Both are expected of the markup tests, and nothing else is.
function forgetExpectedProblems() {
  page.problems = page.problems.filter(
    (problem) =>
      !/^policy: script-src-attr inline |^console error: Executing inline event handler|^console error: Failed to load resource: the server responded with a status of 404/.test(
        problem,
      ),
  );
}

async function textOf(selector: string) {
  return page.$eval(selector, (e) => e.textContent);
}

function shoot(name: string) {
  return shootSizes(page, name);
}

async function sendChat(prompt: string) {
  await type('textarea[name=prompt]', prompt);
  await click('.composer button', 'Send');
}

function lastAnswer() {
  return '.message.assistant:last-of-type';
}

test('a page without a token asks for one, and a wrong token is said plainly', async () => {
  const context = await world.browser.createBrowserContext();
  const stranger = await world.page(kPhone, context);
  await stranger.goto(world.origin + '/');
  await stranger.waitForSelector('input[name=token]');
  // Opened again with a token (a token that arrives later is not taken).
  await stranger.goto('about:blank');
  await stranger.goto(world.origin + '/#token=wrong-token');
  const alert = await stranger.waitForSelector('.token-card .error');
  assert.equal(await alert!.evaluate((e) => e.textContent), 'This server did not accept the token. Check it and enter it again.');
  assert.equal(await stranger.evaluate(() => location.hash), '');
  await context.close();
});

test('pairs through the fragment and shows the agent and its project', async () => {
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector(`[data-agent="${kAgentId}"] .project`);
  assert.equal(await page.evaluate(() => location.href), world.origin + '/');
  assert.equal(await page.evaluate(() => localStorage.getItem('brinmoor.token')), kToken);
  assert.equal(await textOf(`[data-agent="${kAgentId}"] .agent-name`), kAgentId);
  assert.equal(await textOf(`[data-agent="${kAgentId}"] .pill`), 'online');
  assert.equal(await textOf('.project .project-name'), 'App');
  assert.equal(await textOf('.project .project-path'), world.project);
  assert.equal(await textOf('.connection-text'), 'Connected');
});

test('a folder typed again is not listed twice, and one remembered here can be removed', async () => {
  const projects = () => page.$$eval(`[data-agent="${kAgentId}"] .project-path`, (paths) => paths.map((p) => p.textContent));
  for (const typed of ['App', './App/']) {
    await type('input[name=folder]', typed);
    await click('.folder-form button', 'Open');
    await waitText('.topbar .title strong', 'App');
    await click('.topbar button[aria-label=Projects]', '');
  }
  assert.deepEqual(await projects(), [world.project]);
  assert.equal(await page.$(`[data-agent="${kAgentId}"] .forget-folder`), null);
  await type('input[name=folder]', 'Lib');
  await click('.folder-form button', 'Open');
  await waitText('.topbar .title strong', 'Lib');
  await click('.topbar button[aria-label=Projects]', '');
  assert.deepEqual(await projects(), [world.project, 'Lib']);
  assert.equal(await page.$eval('.forget-folder', (button) => button.getAttribute('aria-label')), 'Remove Lib');
  await click('.forget-folder', '×');
  await page.waitForFunction(() => document.querySelectorAll('.project-path').length === 1);
  assert.deepEqual(await projects(), [world.project]);
  assert.deepEqual(await page.evaluate(() => JSON.parse(localStorage.getItem('brinmoor.folders')!)), { [kAgentId]: [] });
});

test('runs a shell task and shows its output, exit status and history', async () => {
  await click('.project .project-name', 'App');
  await click('button[role=tab]', 'Tasks');
  await type('input[name=command]', "printf 'first line\\nsecond line\\n'; exit 3");
  await click('.run-form button', 'Run');
  await waitIncludes('.task-detail .task-status', 'Failed · exit 3');
  const lines = await page.$$eval('.task-log .log-line', (rows) => rows.map((r) => r.textContent));
  assert.deepEqual(lines, ['first line', 'second line']);
  assert.equal(await textOf('.task-detail .error'), 'command exited with status 3');
  await click('.task-detail button', 'Run again');
  await page.waitForFunction(() => document.querySelectorAll('.task-history .task-item').length === 2);
  await waitIncludes('.task-detail .task-status', 'Failed · exit 3');
});

test('a long task output scrolls by the keyboard', async () => {
  await page.click('input[name=command]', { clickCount: 3 });
  await page.keyboard.press('Backspace');
  await type('input[name=command]', 'seq 1 400');
  await click('.run-form button', 'Run');
  await waitText('.task-detail .task-status', 'Finished');
  assert.equal(
    await page.$eval('.task-log', (log) => [log.getAttribute('aria-label'), (log as HTMLElement).tabIndex].join(' ')),
    'Output 0',
  );
  // Pinned to the newest line; focused, Home goes to the top.
  await page.focus('.task-log');
  assert.equal(await page.evaluate(() => document.activeElement!.className), 'task-log');
  assert.ok(await page.$eval('.task-log', (log) => log.scrollTop > 0));
  await page.keyboard.press('Home');
  await page.waitForFunction(() => document.querySelector('.task-log')!.scrollTop === 0);
});

test('chats with claude: the answer streams in, and the next message continues the conversation', async () => {
  world.fakeFile('claude.stream', claudeStream(['Hello', ' from **Claude**.', '\n\n```js\nconst x = 1;\n```\n']));
  await click('button[role=tab]', 'Chat');
  await click('.segmented button', 'Claude');
  await click('.new-chat-button', 'New chat');
  await sendChat('Say hello');
  // The first piece is there while the tool still pauses before the rest.
  await waitText(lastAnswer() + ' .markdown', 'Hello');
  await waitIncludes(lastAnswer() + ' .markdown strong', 'Claude');
  await page.waitForSelector(lastAnswer() + ' .markdown pre code.hljs');
  await page.waitForFunction(() => !document.querySelector('.message.assistant.streaming'));
  assert.equal(await textOf(lastAnswer() + ' .markdown p'), 'Hello from Claude.');
  await sendChat('And again');
  await page.waitForFunction(() => document.querySelectorAll('.message.assistant.done').length === 2);
  const first = world.fakeArgs('claude', 1);
  const second = world.fakeArgs('claude', 2);
  const session = first[first.indexOf('--session-id') + 1];
  assert.ok(session, 'the first message starts a session');
  assert.equal(second[second.indexOf('--resume') + 1], session);
});

test('chats with codex, continued on its thread', async () => {
  world.fakeFile('codex.stream', codexStream(['First part.', 'Second part.']));
  await click('.back-to-list', '');
  await click('.segmented button', 'Codex');
  await click('.new-chat-button', 'New chat');
  await sendChat('List the files');
  await waitText(lastAnswer() + ' .markdown', 'First part.');
  await page.waitForFunction(() => document.querySelector('.message.assistant.done'));
  // Each message of codex is a line of the answer.
  assert.equal(await textOf(lastAnswer() + ' .markdown p'), 'First part.\nSecond part.');
  assert.equal(await textOf(lastAnswer() + ' .activity-count'), '1 step');
  assert.equal(await textOf(lastAnswer() + ' .activity-last'), 'Ran ls');
  await sendChat('Go on');
  await page.waitForFunction(() => document.querySelectorAll('.message.assistant.done').length === 2);
  const args = world.fakeArgs('codex', 2);
  assert.ok(args.includes('resume') && args.includes('th-e2e'), 'the second message resumes the thread: ' + args.join(' '));
});

test('a tool approval appears wherever the user is, and Allow lets the assistant write', async () => {
  world.fakeFile('claude.script', kAskingClaude);
  // Back in the first conversation, below its streamed answer.
  await click('.back-to-list', '');
  await click('.conversation-item .conversation-title', 'Say hello');
  await sendChat('Take a note');
  await page.waitForSelector('.sheet .request');
  assert.equal(await textOf('.sheet .tool-name'), 'Write');
  assert.equal(await textOf('.sheet .file-path'), 'notes.txt');
  assert.equal(await textOf('.sheet .file-content'), 'remember the milk');
  assert.equal(await textOf('.topbar .badge'), '1');
  await shoot('chat-approval');
  await click('.sheet button', 'Allow');
  await page.waitForFunction(() => !document.querySelector('.sheet'));
  await waitText(lastAnswer() + ' .markdown', 'Wrote notes.txt.');
  assert.equal(readFileSync(join(world.project, 'notes.txt'), 'utf8'), 'written\n');
});

test('Deny with a message tells the assistant no', async () => {
  await sendChat('Take another note');
  await page.waitForSelector('.sheet .request');
  await click('.sheet button', 'Deny…');
  await type('input[name=deny-message]', 'not today');
  await click('.sheet button', 'Deny');
  await waitText(lastAnswer() + ' .markdown', 'I was not allowed to write notes.txt.');
  // The fourth call of claude: two chats, the allowed write, this one.
  assert.match(world.readFake('decision.4'), /"behavior":"deny","message":"not today"/);
});

test('an answer with markup runs no script', async () => {
  world.fakeFile('claude.script', '');
  const quoted = '<img src="x" onerror="window.__pwned=3">';
  const styled = '<b style="position:fixed;inset:0">covered</b>';
  world.fakeFile('claude.stream', claudeStream([`Look: ${kScript} and ${quoted} and <script>window.__pwned=2</script> done ${styled}`]));
  await sendChat('Show me markup');
  await page.waitForFunction(() => document.querySelectorAll('.message.assistant.done').length === 5);
  // Markdown sees the unquoted one as text and the quoted one as an image, which the
  // sanitiser keeps without its handler; a style attribute, which the page's policy lets
  // through for the terminal, is taken off too.
  assert.equal(await textOf(lastAnswer() + ' .markdown').then((t) => t.trim()), `Look: ${kScript} and  and  done covered`);
  assert.equal(await page.$eval(lastAnswer() + ' .markdown img', (img) => img.getAttributeNames().join(' ')), 'src');
  assert.equal(await page.$eval(lastAnswer() + ' .markdown b', (b) => b.getAttributeNames().join(' ')), '');
  assert.equal(await page.evaluate(() => document.querySelector('[onerror]')), null);
  assert.equal(await page.evaluate(() => document.querySelector('.messages script')), null);
  assert.equal(await page.evaluate(() => window.__pwned), undefined);
  forgetExpectedProblems();
});

const kExplanation = 'The greeting said hello; I changed it to bye in greeting.txt.';

async function propose(prompt: string) {
  await click('button[role=tab]', 'Changes');
  await type('textarea[name=change-prompt]', prompt);
  await click('.change-form button[type=submit]', 'Start');
}

test('a proposal is reviewed as a diff, and Approve applies it', async () => {
  writeFileSync(join(world.project, 'greeting.txt'), 'hello\n');
  world.fakeFile('codex.script', 'print bye > greeting.txt\n');
  world.fakeFile('codex.stream', codexStream([kExplanation], 'th-p'));
  await propose('Say bye');
  // Only Codex, which works on a copy, is asked for changes here.
  assert.deepEqual(
    await page.$$eval('.change-form .segmented', (groups) =>
      groups.map((g) => [g.getAttribute('aria-label'), (g as HTMLElement).innerText.split('\n')]),
    ),
    [['Mode', ['Propose changes', 'Plan only']]],
  );
  assert.equal(
    await textOf('.change-form .change-note'),
    'Codex works on a copy of the project: you review its changes before any is applied. Claude works in Chat, where you approve each tool use.',
  );
  await byText('.change-detail .actions button', 'Approve');
  await page.waitForSelector('.change-detail .diff-file-name');
  assert.equal(await textOf('.change-detail .diff-file-name'), 'greeting.txt');
  assert.equal(await textOf('.change-detail .commentary p'), kExplanation);
  assert.equal(await textOf('.change-detail .file-count'), '1 file changed');
  await page.waitForSelector('.diff-body .d2h-del');
  await shoot('diff-review');
  await click('.change-detail .actions button', 'Approve');
  await waitIncludes('.change-detail .task-status', 'Finished');
  assert.equal(readFileSync(join(world.project, 'greeting.txt'), 'utf8'), 'bye\n');
});

// Where each line number of the review stands against its line, as [number top, line top].
function gutters() {
  return page.$$eval('.change-detail .diff-body .d2h-code-linenumber', (cells) =>
    cells.map((cell) => [Math.round(cell.getBoundingClientRect().top), Math.round(cell.closest('tr')!.getBoundingClientRect().top)]),
  );
}

// The contrast ratio of an element's text against the background it is drawn on.
function contrastOf(selector: string) {
  return page.$eval(selector, (element) => {
    const rgb = (text: string) =>
      text
        .match(/[\d.]+/g)!
        .slice(0, 4)
        .map(Number);
    const luminance = ([r, g, b]: number[]) => {
      const channel = (v: number) => ((v /= 255) <= 0.03928 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
      return 0.2126 * channel(r) + 0.7152 * channel(g) + 0.0722 * channel(b);
    };
    // The background as drawn: each translucent layer over the ones below it.
    const layers: number[][] = [];
    for (let at: Element | null = element; at; at = at.parentElement) layers.push(rgb(getComputedStyle(at).backgroundColor));
    let drawn = [255, 255, 255];
    for (const [r, g, b, a = 1] of layers.reverse())
      drawn = [r * a + drawn[0] * (1 - a), g * a + drawn[1] * (1 - a), b * a + drawn[2] * (1 - a)];
    const text = luminance(rgb(getComputedStyle(element).color));
    const back = luminance(drawn);
    return (Math.max(text, back) + 0.05) / (Math.min(text, back) + 0.05);
  });
}

test('a long diff on a phone: line numbers stay with their lines, long lines wrap, dark mode reads', async () => {
  // 120 lines, the sixth of them 360 characters long.
  world.fakeFile(
    'codex.script',
    '{ for i in {1..5}; do print "line $i"; done; printf \'a long line %.0s\' {1..30}; print; for i in {7..120}; do print "line $i"; done } > long.txt\n',
  );
  world.fakeFile('codex.stream', codexStream(['I wrote long.txt.'], 'th-long'));
  await propose('Write a long file');
  await byText('.change-detail .actions button', 'Reject');
  try {
    await waitText('.change-detail .diff-file-name', 'long.txt');
    await longDiffChecks();
  } finally {
    await click('.change-detail .actions button', 'Reject');
    await waitText('.change-detail .task-status', 'Rejected');
  }
});

async function longDiffChecks() {
  await page.waitForSelector('.change-detail .diff-body .d2h-ins');
  // Unified, and nothing to scroll sideways: the long line wraps.
  assert.equal(await page.$('.change-detail .d2h-file-side-diff'), null);
  assert.equal(
    await page.$eval('.change-detail .diff-body', (body) => [body.getAttribute('aria-label'), (body as HTMLElement).tabIndex].join(' ')),
    'Changes to long.txt 0',
  );
  assert.ok(await page.$eval('.change-detail .diff-body', (body) => body.scrollWidth <= body.clientWidth));
  // A short line takes one row, the long one (360 characters) a dozen or so, not one a
  // character.
  const heights = await page.$$eval('.change-detail .d2h-ins .d2h-code-line-ctn', (lines) =>
    Object.fromEntries(lines.map((line) => [line.textContent.slice(0, 12), Math.round(line.getBoundingClientRect().height)])),
  );
  const row = heights['line 120'];
  assert.ok(row > 0 && row < 24, JSON.stringify(heights));
  assert.ok(heights['a long line '] > row * 4 && heights['a long line '] < row * 25, JSON.stringify(heights));
  const before = await gutters();
  // The hunk's header and its 120 lines.
  assert.equal(before.length, 121);
  assert.deepEqual(
    before.filter(([gutter, line]) => Math.abs(gutter - line) > 1),
    [],
  );
  // Scrolled, every number is still beside its line.
  await page.evaluate(() => document.querySelector('.change-detail .diff-body')!.scrollIntoView({ block: 'end' }));
  await pageSettled(page);
  const after = await gutters();
  assert.notDeepEqual(after, before);
  assert.deepEqual(
    after.filter(([gutter, line]) => Math.abs(gutter - line) > 1),
    [],
  );
  // On a wide screen, side by side, the long line scrolls within its side: the page
  // stays as wide as the window.
  await page.setViewport(kDesktop);
  try {
    await page.waitForSelector('.change-detail .d2h-file-side-diff');
    assert.ok(await page.$eval('.change-detail', (detail) => detail.getBoundingClientRect().right <= innerWidth));
    const sides = await page.$$eval('.change-detail .d2h-file-side-diff', (all) =>
      all.map((side) => [side.getBoundingClientRect().right <= innerWidth, side.scrollWidth > side.clientWidth]),
    );
    assert.deepEqual(sides, [
      [true, false],
      [true, true],
    ]);
  } finally {
    await page.setViewport(kPhone);
  }
  await page.waitForSelector('.change-detail .diff-body .d2h-ins .d2h-code-line-ctn');
  // An added line is readable, in light and in dark mode.
  assert.ok((await contrastOf('.change-detail .d2h-ins .d2h-code-line-ctn')) >= 4.5);
  await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: 'dark' }]);
  try {
    await pageSettled(page);
    assert.ok((await contrastOf('.change-detail .d2h-ins .d2h-code-line-ctn')) >= 4.5);
    await shoot('diff-dark');
  } finally {
    await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: 'light' }]);
  }
}

test('Reject leaves the project as it was', async () => {
  world.fakeFile('codex.script', 'print ciao > greeting.txt\n');
  world.fakeFile('codex.stream', codexStream(['I changed the greeting to ciao in greeting.txt.'], 'th-q'));
  await propose('Say ciao');
  await click('.change-detail .actions button', 'Reject');
  await waitText('.change-detail .task-status', 'Rejected');
  assert.equal(readFileSync(join(world.project, 'greeting.txt'), 'utf8'), 'bye\n');
});

test('a file name with markup in a diff runs no script', async () => {
  world.fakeFile('codex.script', `print x > '${kScript}.txt'\n`);
  world.fakeFile('codex.stream', codexStream(['I added a file with an odd name.'], 'th-r'));
  await propose('Add an odd file');
  await byText('.change-detail .actions button', 'Reject');
  await page.waitForSelector('.change-detail .diff-file-name');
  assert.equal(await textOf('.change-detail .diff-file-name'), kScript + '.txt');
  assert.equal(await page.evaluate(() => document.querySelector('[onerror]')), null);
  assert.equal(await page.evaluate(() => window.__pwned), undefined);
  await click('.change-detail .actions button', 'Reject');
  await waitText('.change-detail .task-status', 'Rejected');
  assert.equal(existsSync(join(world.project, kScript + '.txt')), false);
  forgetExpectedProblems();
});

async function terminalText() {
  return page.$eval('.xterm-rows', (rows) => (rows as HTMLElement).innerText);
}

async function typeInTerminal(text: string) {
  await focusTerminal(page);
  await page.keyboard.type(text);
  await page.keyboard.press('Enter');
}

test('an interactive terminal echoes what is typed, and its title is text', async () => {
  await click('button[role=tab]', 'Terminal');
  await click('.terminal-start button', 'Open terminal');
  await page.waitForSelector('.terminal-head .status-dot.online');
  await page.waitForSelector('.key-bar button[aria-label=Ctrl]');
  await typeInTerminal('echo brinmoor-$((6*7))');
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('brinmoor-42'));
  // This xterm.js still lets the view skip the redraw that doubles the cost of scrolling.
  assert.deepEqual(
    warnings.filter((text) => text.includes('xterm.js')),
    [],
  );
  // A word is selected by a double click, and the selection is drawn; a click clears it.
  const row = await page.evaluateHandle(() =>
    [...document.querySelectorAll('.xterm-rows > div')].find((line) => line.textContent.trim() === 'brinmoor-42'),
  );
  const box = (await (row as ElementHandle<Element>).boundingBox())!;
  await page.mouse.click(box.x + 20, box.y + box.height / 2, { count: 2 });
  await page.waitForFunction(() => document.querySelectorAll('.xterm-selection div').length > 0);
  await page.mouse.click(box.x + 20, box.y + box.height / 2);
  await page.waitForFunction(() => document.querySelectorAll('.xterm-selection div').length === 0);
  // A 24-bit colour is drawn in that colour.
  await typeInTerminal(`printf '\\033[38;2;201;66;33mtrue-colour\\033[0m\\n'`);
  const colour = await page.waitForFunction(() => {
    const span = [...document.querySelectorAll('.xterm-rows span')].find((s) => s.textContent === 'true-colour');
    return span && getComputedStyle(span).color;
  });
  assert.equal(await colour.jsonValue(), 'rgb(201, 66, 33)');
  await typeInTerminal(`printf '\\033]0;${kScript}\\007'`);
  await waitText('.terminal-title', kScript);
  assert.equal(await page.evaluate(() => document.querySelector('[onerror]')), null);
  await shoot('terminal');
});

test('after a reload the terminal is attached again with its output', async () => {
  await page.reload();
  await page.waitForSelector('.terminal-head .status-dot.online');
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')?.innerText.includes('brinmoor-42'));
  await typeInTerminal('echo back-$((1+1))');
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('back-2'));
  assert.match(await terminalText(), /back-2/);
});

test('the key bar sends control keys', async () => {
  await focusTerminal(page);
  await page.keyboard.type('sleep 30');
  await page.keyboard.press('Enter');
  await (await page.$('.key-bar button[aria-label=Ctrl]'))!.click();
  await page.keyboard.type('c');
  await typeInTerminal('echo after-$((2+3))');
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('after-5'));
});

test('the key bar sends Home, End, Page Up and Down, Ctrl-C, Ctrl-D and Ctrl-Z', async () => {
  // The shell reads the keys raw and prints their bytes.
  await typeInTerminal("stty raw -echo; head -c 17 | od -An -tx1 | tr -d ' \\n'; stty sane; echo");
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('stty sane; echo'));
  const labels = await page.$$eval('.key-bar button', (buttons) =>
    buttons.map((button) => [button.textContent, button.getAttribute('aria-label')]),
  );
  assert.deepEqual(labels, [
    ['Esc', 'Esc'],
    ['Tab', 'Tab'],
    ['Ctrl', 'Ctrl'],
    ['←', 'Left'],
    ['↑', 'Up'],
    ['↓', 'Down'],
    ['→', 'Right'],
    ['Home', 'Home'],
    ['End', 'End'],
    ['PgUp', 'PgUp'],
    ['PgDn', 'PgDn'],
    ['^C', 'Control C'],
    ['^D', 'Control D'],
    ['^Z', 'Control Z'],
    ['|', 'Bar'],
    ['~', 'Tilde'],
    ['/', 'Slash'],
  ]);
  for (const name of ['Home', 'End', 'PgUp', 'PgDn', 'Control C', 'Control D', 'Control Z']) {
    await (await page.$(`.key-bar button[aria-label="${name}"]`))!.click();
  }
  await page.waitForFunction(() =>
    document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('1b5b481b5b461b5b357e1b5b367e03041a'),
  );
});

test('a terminal left for another tab shows its output and prompt on return', async () => {
  const shown = await terminalText();
  // The terminal is kept while away: nothing is replayed on return.
  await page.evaluate(() => {
    window.brinmoorResets = 0;
    window.brinmoorTerminalTap = (_sessionId, _data, reset) => reset && window.brinmoorResets++;
  });
  await click('button[role=tab]', 'Tasks');
  await page.waitForFunction(() => !document.querySelector('.xterm-rows'));
  await click('button[role=tab]', 'Terminal');
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')?.innerText.includes('after-5'));
  assert.equal(await terminalText(), shown);
  await typeInTerminal('echo again-$((3+4))');
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('again-7'));
  assert.equal(await page.evaluate(() => window.brinmoorResets), 0);
  await page.evaluate(() => (window.brinmoorTerminalTap = undefined));
});

test('a terminal another page made wider is replayed at that width, then fitted to this one', async () => {
  // This page looks elsewhere meanwhile: a terminal in view gives the agent its own size.
  await click('button[role=tab]', 'Tasks');
  const context = await world.browser.createBrowserContext();
  try {
    const wide = await world.page(kDesktop, context);
    await wide.goto(`${world.origin}/#token=${kToken}`);
    await clickText(wide, '.project .project-name', 'App');
    await clickText(wide, 'button[role=tab]', 'Terminal');
    await wide.waitForSelector('.terminal-head .status-dot.online');
    // Column 90 is on the line "left" starts only where the terminal is that wide.
    await focusTerminal(wide);
    await wide.keyboard.type("printf 'left\\e[90Gright\\n'");
    await wide.keyboard.press('Enter');
    await wide.waitForFunction(() => /left {80,}right/.test(document.querySelector<HTMLElement>('.xterm-rows')!.innerText));
  } finally {
    await context.close();
  }
  const rows = () => page.$$eval('.xterm-rows > div', (all) => all.map((row) => row.textContent.trimEnd()));
  await page.reload();
  await page.waitForFunction(() => window.brinmoor?.connection.state === 'open');
  await click('button[role=tab]', 'Terminal');
  await page.waitForSelector('.terminal-head .status-dot.online');
  // Drawn at the wide page's width and rewrapped to this page's: the line "left" starts
  // goes on over as many rows as it takes, "right" 89 columns after its start (drawn
  // narrow, the line would end in "r" at this page's last column).
  await page.waitForFunction(() => [...document.querySelectorAll('.xterm-rows > div')].some((row) => row.textContent.trim() === 'right'));
  const cols = await page.evaluate(() => JSON.parse(localStorage.getItem('brinmoor.terminals')!)[0].cols);
  const line = 'left' + ' '.repeat(85) + 'right';
  const wrapped = Array.from({ length: Math.ceil(line.length / cols) }, (_, i) => line.slice(i * cols, (i + 1) * cols).trimEnd());
  const shown = await rows();
  const left = shown.findIndex((row) => row.startsWith('left'));
  assert.ok(cols >= 30 && cols < 89, String(cols));
  assert.deepEqual(shown.slice(left, left + wrapped.length), wrapped, shown.join('\n'));
});

test('full screen, and a phone keyboard, give the terminal the whole window', async () => {
  const shown = (selector: string) => page.$eval(selector, (e) => e.getBoundingClientRect().height > 0);
  const hostHeight = () => page.$eval('.terminal-host', (e) => Math.round(e.getBoundingClientRect().height));
  const before = await hostHeight();
  assert.deepEqual([await shown('.topbar'), await shown('.tabs')], [true, true]);
  await page.click('.terminal-head button[aria-label="Full screen"]');
  await page.waitForFunction(() => document.querySelector('.tabs')!.getBoundingClientRect().height === 0);
  assert.equal(await shown('.topbar'), false);
  assert.ok((await hostHeight()) > before + 100);
  assert.equal(
    await page.$eval('.terminal-head button.full-screen', (b) => [b.getAttribute('aria-label'), b.title].join(' / ')),
    'Exit full screen / Exit full screen',
  );
  await shoot('terminal-full');
  await page.click('.terminal-head button[aria-label="Exit full screen"]');
  await page.waitForFunction(() => document.querySelector('.tabs')!.getBoundingClientRect().height > 0);
  assert.equal(await hostHeight(), before);
  // A keyboard that takes 400 pixels: the bars go, and the keys end above it.
  await page.evaluate(() => {
    Object.defineProperty(visualViewport, 'height', { configurable: true, get: () => innerHeight - 400 });
    visualViewport!.dispatchEvent(new Event('resize'));
  });
  await page.waitForFunction(() => document.querySelector('.tabs')!.getBoundingClientRect().height === 0);
  assert.equal(await shown('.topbar'), false);
  const keys = await page.$eval('.key-bar', (bar) => Math.round(bar.getBoundingClientRect().bottom));
  assert.ok(keys <= 844 - 400, String(keys));
  await page.evaluate(() => {
    delete (visualViewport as { height?: number }).height;
    visualViewport!.dispatchEvent(new Event('resize'));
  });
  await page.waitForFunction(() => document.querySelector('.tabs')!.getBoundingClientRect().height > 0);
  // Leaving the terminal leaves neither mode behind.
  await page.click('.terminal-head button[aria-label="Full screen"]');
  await page.waitForFunction(() => document.querySelector('.tabs')!.getBoundingClientRect().height === 0);
  await page.evaluate(() => window.brinmoor.navigation.go({ tab: 'tasks' }));
  await page.waitForFunction(() => document.querySelector('.tabs')!.getBoundingClientRect().height > 0);
  assert.equal(await page.evaluate(() => /terminal-full|keyboard-open/.test(document.documentElement.className)), false);
  await click('button[role=tab]', 'Terminal');
  await page.waitForSelector('.terminal-head .status-dot.online');
});

test('a line-mode terminal completes a path, runs the line and keeps a history', async () => {
  await click('.terminal-head button', 'Close');
  await click('.terminal-start button', 'Line mode');
  await page.waitForSelector('.terminal-head .status-dot.online');
  assert.equal(await page.$eval('input[name=line]', (input) => input.getAttribute('aria-label')), 'Command line');
  await type('input[name=line]', 'ls Pack');
  await page.keyboard.press('Tab');
  await page.waitForFunction(() => document.querySelector<HTMLInputElement>('input[name=line]')!.value === 'ls Package.swift');
  await page.keyboard.press('Enter');
  await page.waitForFunction(() =>
    /› ls Package\.swift\s+Package\.swift/.test(document.querySelector<HTMLElement>('.xterm-rows')!.innerText),
  );
  assert.equal(await page.$eval('input[name=line]', (input) => input.value), '');
  await page.keyboard.press('ArrowUp');
  assert.equal(await page.$eval('input[name=line]', (input) => input.value), 'ls Package.swift');
  // The command stays above its output after a reload: the agent shows it, and replays it.
  await page.reload();
  await page.waitForSelector('.terminal-head .status-dot.online');
  await page.waitForFunction(() =>
    /› ls Package\.swift\s+Package\.swift/.test(document.querySelector<HTMLElement>('.xterm-rows')!.innerText),
  );
  assert.equal((await terminalText()).match(/› ls Package\.swift/g)!.length, 1);
});

test('Forget this server clears the token and asks again', async () => {
  await click('.topbar .icon', '⋯');
  await click('.menu button', 'Forget this server');
  await page.waitForSelector('input[name=token]');
  assert.equal(await page.evaluate(() => localStorage.getItem('brinmoor.token')), null);
});

test('nothing was refused by the page policy and no error reached the console', async () => {
  assert.deepEqual(page.problems, []);
});
