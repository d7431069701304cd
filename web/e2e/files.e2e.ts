// What the page learns of an agent's folders and how much of a proposal it applies: the
// projects under the agent's repository root, listed once each beside the registered and
// remembered ones, and a proposal of three files approved with one of them left out.
import assert from 'node:assert/strict';
import { existsSync, mkdirSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import {
  clickText,
  codexStream,
  elementWithText,
  kAgentId,
  kToken,
  testLeavingPictures,
  waitForText,
  World,
  type TestPage,
} from './harness.js';

const world = new World();
let page: TestPage;
const kPhone = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: false, hasTouch: false };
const kExplanation = 'I said bye in greeting.txt, added new.txt and removed old.txt.';

const test = testLeavingPictures(nodeTest, 'files-', () => [[page, '']]);

// Folders under the repository root besides App (registered, with Package.swift): two
// projects, a hidden one and a plain folder.
function makeFolder(path: string, file?: string) {
  mkdirSync(join(world.repo, path), { recursive: true });
  if (file) writeFileSync(join(world.repo, path, file), '');
}

before(async () => {
  makeFolder('Lib', 'package.json');
  makeFolder('proj/Tool', 'Cargo.toml');
  makeFolder('.hidden/.git');
  makeFolder('notes', 'todo.txt');
  await world.start();
  page = await world.page(kPhone);
  // This page remembers App as typed ("App/"), beside its registration, and Lib.
  await page.evaluateOnNewDocument((agentId) => {
    if (!localStorage.getItem('brinmoor.folders'))
      localStorage.setItem('brinmoor.folders', JSON.stringify({ [agentId]: ['App/', './Lib'] }));
  }, kAgentId);
  await page.goto(`${world.origin}/#token=${kToken}`);
});

after(async () => {
  await world.stop();
});

const click = (selector: string, text: string) => clickText(page, selector, text);
const texts = (selector: string) => page.$$eval(selector, (elements) => elements.map((e) => e.textContent.trim()));
const projects = () => texts(`[data-agent="${kAgentId}"] .project-path`);

test('the projects under the repository root are listed once each, after the registered and remembered ones', async () => {
  // App is registered, remembered ("App/") and found; Lib remembered ("./Lib") and found.
  await page.waitForFunction(() => document.querySelectorAll('.project-path').length === 3);
  assert.deepEqual(await projects(), [world.project, './Lib', 'proj/Tool']);
  assert.deepEqual(await texts(`[data-agent="${kAgentId}"] .project-name`), ['App', 'Lib', 'Tool']);
  // Only what this page remembered can be removed; Lib is still one of the agent's projects.
  assert.deepEqual(await page.$$eval('.forget-folder', (buttons) => buttons.map((b) => b.getAttribute('aria-label'))), ['Remove Lib']);
  await click('.forget-folder', '×');
  await page.waitForFunction(() => [...document.querySelectorAll('.project-path')].some((e) => e.textContent === 'Lib'));
  assert.deepEqual(await projects(), [world.project, 'Lib', 'proj/Tool']);
  assert.equal(await page.$('.forget-folder'), null);
  // Typed again, a folder the agent found is not remembered twice.
  await page.waitForSelector('input[name=folder]', { visible: true });
  await page.type('input[name=folder]', 'proj/Tool/');
  await click('.folder-form button', 'Open');
  await waitForText(page, '.topbar .title strong', 'Tool');
  await click('.topbar button[aria-label=Projects]', '');
  assert.deepEqual(await projects(), [world.project, 'Lib', 'proj/Tool']);
  // A fresh page asks again and gets the same list.
  await page.reload();
  await page.waitForFunction(() => document.querySelectorAll('.project-path').length === 3);
  assert.deepEqual(await projects(), [world.project, 'Lib', 'proj/Tool']);
  assert.deepEqual(await page.evaluate(() => JSON.parse(localStorage.getItem('brinmoor.folders')!)), { [kAgentId]: ['App/'] });
});

test('a proposal of three files approved with one unticked applies the other two', async () => {
  writeFileSync(join(world.project, 'greeting.txt'), 'hello\n');
  writeFileSync(join(world.project, 'old.txt'), 'old\n');
  world.fakeFile('codex.script', 'print bye > greeting.txt; print new > new.txt; rm old.txt\n');
  world.fakeFile('codex.stream', codexStream([kExplanation], 'th-files'));
  await click('.project .project-name', 'App');
  await click('button[role=tab]', 'Changes');
  // The view renders on the next frame.
  await page.waitForSelector('textarea[name=change-prompt]', { visible: true });
  await page.type('textarea[name=change-prompt]', 'Tidy up');
  await click('.change-form button[type=submit]', 'Start');
  await page.waitForSelector('.files-to-apply input');
  assert.equal(await page.$eval('.files-to-apply legend', (e) => e.textContent), 'Files to apply');
  assert.deepEqual(await texts('.file-to-apply'), ['greeting.txt', 'new.txt', 'old.txt']);
  assert.deepEqual(await page.$$eval('.file-to-apply input', (boxes) => boxes.map((box) => box.checked)), [true, true, true]);
  assert.deepEqual(await texts('.change-detail .actions button'), ['Reject', 'Approve']);
  // Unticked, new.txt is left out.
  await (await elementWithText(page, '.file-to-apply', 'new.txt')).click();
  await waitForText(page, '.change-detail .actions button.primary', 'Approve 2 of 3 files');
  // With none ticked there is only Reject.
  for (const name of ['greeting.txt', 'old.txt']) await (await elementWithText(page, '.file-to-apply', name)).click();
  await page.waitForFunction(() => document.querySelectorAll('.change-detail .actions button').length === 1);
  assert.deepEqual(await texts('.change-detail .actions button'), ['Reject']);
  for (const name of ['greeting.txt', 'old.txt']) await (await elementWithText(page, '.file-to-apply', name)).click();
  await click('.change-detail .actions button', 'Approve 2 of 3 files');
  await page.waitForFunction(() => document.querySelector('.change-detail .task-status')?.textContent.includes('Finished'), {
    timeout: 20000,
  });
  assert.equal(readFileSync(join(world.project, 'greeting.txt'), 'utf8'), 'bye\n');
  assert.equal(existsSync(join(world.project, 'old.txt')), false);
  assert.equal(existsSync(join(world.project, 'new.txt')), false);
  assert.equal(await page.$eval('.change-detail .result', (e) => e.textContent), 'Applied the approved changes to 2 files.');
  // What the agent applied and left, in the task's output.
  const log = await page.evaluate(() => {
    const task = window.brinmoor.tasks.list((t) => t.kind === 'ai_task')[0];
    return [task.details.text(), task.log.text()].join('\n');
  });
  assert.match(log, /proposal\.applied greeting\.txt\nproposal\.left new\.txt\nproposal\.applied old\.txt/);
  assert.deepEqual(page.problems, []);
});
