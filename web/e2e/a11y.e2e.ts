// Every view of Brinmoor Web checked by axe-core (WCAG 2.1 A and AA): the token prompt,
// the agents, and a project's chat, sessions, tasks, changes and terminal, each at 320, 390 and
// 1440 pixels wide, in light and in dark mode.
import assert from 'node:assert/strict';
import { mkdirSync, readFileSync, realpathSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import {
  claudeStream,
  clickText,
  codexStream,
  kAgentId,
  kToken,
  packages,
  pageSettled,
  testLeavingPictures,
  World,
  type TestPage,
} from './harness.js';

const world = new World();
const axeSource = readFileSync(packages.resolve('axe-core/axe.min.js'), 'utf8');
const kWidths = [320, 390, 1440];
const kSchemes = ['light', 'dark'];
let page: TestPage;

const test = testLeavingPictures(nodeTest, 'a11y-', () => [[page, '']]);

before(async () => {
  await world.start();
  page = await world.page({ width: 390, height: 844, deviceScaleFactor: 1, isMobile: false, hasTouch: false });
  // axe is put into the page from here: the page's own policy allows only its own scripts.
  await page.setBypassCSP(true);
});

after(async () => {
  await world.stop();
});

const click = (selector: string, text: string) => clickText(page, selector, text);

// What axe finds in the page as it is, at every width and in both modes: one line per
// rule and element.
async function violations() {
  const found = [];
  for (const scheme of kSchemes) {
    await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: scheme }]);
    for (const width of kWidths) {
      await page.setViewport({ width, height: 844, deviceScaleFactor: 1, isMobile: false, hasTouch: false });
      await pageSettled(page);
      if (!(await page.evaluate(() => typeof window.axe === 'object'))) await page.addScriptTag({ content: axeSource });
      const result = await page.evaluate(() =>
        window.axe.run(document, {
          runOnly: { type: 'tag', values: ['wcag2a', 'wcag2aa', 'wcag21a', 'wcag21aa'] },
          resultTypes: ['violations'],
        }),
      );
      for (const violation of result.violations) {
        for (const node of violation.nodes) found.push(`${scheme} ${width}: ${violation.id} ${node.target.join(' ')}`);
      }
    }
  }
  await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: 'light' }]);
  await page.setViewport({ width: 390, height: 844, deviceScaleFactor: 1, isMobile: false, hasTouch: false });
  return [...new Set(found)];
}

test('the token prompt', async () => {
  await page.goto(world.origin + '/');
  await page.waitForSelector('input[name=token]');
  assert.deepEqual(await violations(), []);
});

test('the agents and their projects', async () => {
  // A fresh load: the page takes a token only from the address it was opened with.
  await page.goto('about:blank');
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector(`[data-agent="${kAgentId}"] .project`);
  assert.deepEqual(await violations(), []);
});

test('a chat with an answer', async () => {
  await click('.project .project-name', 'App');
  world.fakeFile('claude.stream', claudeStream(['Hello', ' from **Claude**.', '\n\n```js\nconst x = 1;\n```\n']));
  await click('button[role=tab] .tab-label', 'Chat');
  await click('.new-chat-button', 'New chat');
  await page.waitForSelector('textarea[name=prompt]', { visible: true });
  await page.type('textarea[name=prompt]', 'Say hello');
  await click('.composer button', 'Send');
  await page.waitForFunction(() => document.querySelector('.message.assistant.done'));
  assert.deepEqual(await violations(), []);
});

test('the sessions of the project, and one open at the desk', async () => {
  // A claude session at the desk, held by this test's own process.
  const id = '5d2f8c10-3b7e-4a69-9f04-2e6c1b8a7d53';
  const project = realpathSync(world.project);
  const folder = join(world.root, 'claude', 'projects', project.replace(/[^A-Za-z0-9]/g, '-'));
  mkdirSync(folder, { recursive: true });
  const lines = [
    {
      parentUuid: null,
      isSidechain: false,
      type: 'user',
      message: { role: 'user', content: 'Fix the login page' },
      uuid: 'u1',
      timestamp: '2026-11-24T10:00:01.000Z',
      turnPosition: { promptIndex: 0, turnIndex: 1 },
      cwd: project,
    },
    {
      parentUuid: 'u1',
      isSidechain: false,
      type: 'assistant',
      uuid: 'a1',
      timestamp: '2026-11-24T10:00:02.000Z',
      message: { id: 'm1', role: 'assistant', content: [{ type: 'tool_use', id: 't1', name: 'Bash', input: { command: 'npm test' } }] },
    },
    {
      parentUuid: 'a1',
      isSidechain: false,
      type: 'user',
      message: { role: 'user', content: [{ type: 'tool_result', tool_use_id: 't1', content: 'ok' }] },
      uuid: 'r1',
      timestamp: '2026-11-24T10:00:03.000Z',
      turnPosition: { promptIndex: 0, turnIndex: 1 },
      cwd: project,
    },
    {
      parentUuid: 'r1',
      isSidechain: false,
      type: 'assistant',
      uuid: 'a2',
      timestamp: '2026-11-24T10:00:04.000Z',
      message: { id: 'm2', role: 'assistant', content: [{ type: 'text', text: 'Done. The **login** page works.' }] },
    },
  ];
  writeFileSync(join(folder, `${id}.jsonl`), lines.map((line) => JSON.stringify(line) + '\n').join(''));
  const stat = readFileSync('/proc/self/stat', 'latin1');
  const procStart = stat.slice(stat.lastIndexOf(')') + 2).split(' ')[19];
  mkdirSync(join(world.root, 'claude', 'sessions'), { recursive: true });
  writeFileSync(
    join(world.root, 'claude', 'sessions', `${process.pid}.json`),
    JSON.stringify({ pid: process.pid, sessionId: id, procStart, status: 'busy' }),
  );
  await click('button[role=tab] .tab-label', 'Sessions');
  await page.waitForSelector('.session-item .live-mark');
  assert.deepEqual(await violations(), []);
  await click('.session-item .session-title', 'Fix the login page');
  await page.waitForSelector('.session-turns .message.assistant .markdown strong');
  await page.waitForSelector('.live-note');
  assert.deepEqual(await violations(), []);
});

test('the tasks with one that ran', async () => {
  await click('button[role=tab] .tab-label', 'Tasks');
  await page.waitForSelector('input[name=command]', { visible: true });
  await page.type('input[name=command]', 'seq 1 50');
  await click('.run-form button', 'Run');
  await page.waitForFunction(() => document.querySelector('.task-detail .task-status')?.textContent.trim() === 'Finished');
  assert.deepEqual(await violations(), []);
});

test('a proposal waiting for review, with its files to apply and its diff', async () => {
  writeFileSync(join(world.project, 'greeting.txt'), 'hello\n');
  world.fakeFile('codex.script', 'print bye > greeting.txt; print hi > hello.txt\n');
  world.fakeFile('codex.stream', codexStream(['I changed the greeting to bye.'], 'th-a11y'));
  await click('button[role=tab] .tab-label', 'Changes');
  await page.waitForSelector('textarea[name=change-prompt]', { visible: true });
  await page.type('textarea[name=change-prompt]', 'Say bye');
  await click('.change-form button[type=submit]', 'Start');
  await page.waitForSelector('.change-detail .diff-body .d2h-del');
  await page.waitForSelector('.change-detail .files-to-apply input');
  assert.deepEqual(await violations(), []);
});

test('a terminal', async () => {
  await click('button[role=tab] .tab-label', 'Terminal');
  await click('.terminal-start button', 'Open terminal');
  await page.waitForSelector('.terminal-head .status-dot.online');
  assert.deepEqual(await violations(), []);
});

test('Needs you, with a proposal waiting', async () => {
  await page.click('.topbar .needs-you');
  await page.waitForSelector('.inbox-item.proposal');
  await page.waitForSelector('.notify-me');
  assert.deepEqual(await violations(), []);
});
