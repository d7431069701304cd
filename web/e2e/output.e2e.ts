// A task's output is never lost: 300,000 lines reach a page whose processor is four times
// slower, in full and paced; the page scrolls back to line 1 (read from the computer),
// searches all of it, copies it and saves it as a file; a reload mid-task shows the lines
// before it and the live ones after with no gap; and after the relay restarts, the task
// is still listed, finished, with how long it took.
import assert from 'node:assert/strict';
import { existsSync, readFileSync, writeFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import type { CDPSession } from 'puppeteer-core';
import { clickText, kToken, pageSettled, testLeavingPictures, waitForText, World, type TestPage } from './harness.js';

// DevTools does not follow the network: copying every frame to this process would slow the
// page down more than the throttling does.
const world = new World({ networkEnabled: false });
const kPhone = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: false, hasTouch: false };
let page: TestPage;
let fresh: TestPage | undefined;
let cdp: CDPSession;

const test = testLeavingPictures(nodeTest, 'output-', () => [
  [page, ''],
  [fresh, '-fresh'],
]);

before(async () => {
  await world.start();
  page = await world.page(kPhone);
  await page.browserContext().overridePermissions(world.origin, ['clipboard-read', 'clipboard-write', 'clipboard-sanitized-write']);
  cdp = await page.createCDPSession();
  await cdp.send('Emulation.setCPUThrottlingRate', { rate: 4 });
  const browser = await world.browser.target().createCDPSession();
  await browser.send('Browser.setDownloadBehavior', { behavior: 'allow', downloadPath: world.root });
  await page.goto(`${world.origin}/#token=${kToken}`);
  await clickText(page, '.project .project-name', 'App');
  await clickText(page, 'button[role=tab] .tab-label', 'Tasks');
});

after(async () => {
  await world.stop();
});

const waitText = (selector: string, wanted: string, timeout?: number) => waitForText(page, selector, wanted, timeout);

// Waits as long as `timeout` in waits of 30 s: DevTools gives up on a call it has
// waited three minutes for, and a page four times slower on a busy machine takes longer.
async function waitTextLong(selector: string, wanted: string, timeout: number) {
  const deadline = Date.now() + timeout;
  for (;;) {
    try {
      return await waitText(selector, wanted, Math.min(30_000, Math.max(1, deadline - Date.now())));
    } catch (error) {
      if (Date.now() >= deadline) throw error;
    }
  }
}

// A picture of the page for docs/, when the screenshots are being taken.
async function shoot(name: string) {
  const folder = process.env.BRINMOOR_WEB_SCREENSHOTS;
  if (!folder) return;
  await pageSettled(page);
  await page.screenshot({ path: join(folder, `web-${name}-phone.png`) });
}

// Runs a shell command from the Tasks tab; the new task's id.
async function runTask(command: string) {
  await page.waitForSelector('input[name=command]', { visible: true });
  await page.click('input[name=command]', { clickCount: 3 });
  await page.keyboard.press('Backspace');
  await page.type('input[name=command]', command);
  const before = await page.evaluate(() => window.brinmoor.tasks.list().length);
  await clickText(page, '.run-form button', 'Run');
  await page.waitForFunction((n) => window.brinmoor.tasks.list().length > n, {}, before);
  return page.evaluate(() => window.brinmoor.navigation.place.taskId!);
}

// The numbers and texts of the rows the log shows, and how many wait to be read.
function rows(target = page) {
  return target.$$eval('.task-log .log-line', (elements) => ({
    lines: (elements as HTMLElement[]).filter((e) => e.dataset.line).map((e) => [Number(e.dataset.line), e.textContent]),
    reading: elements.filter((e) => e.classList.contains('reading')).length,
  }));
}

// Waits until the log shows line `number` with its text, read and in view.
async function waitForRow(number: number, text = String(number), target: TestPage = page) {
  await target.waitForFunction(
    (n, wanted) => {
      const log = document.querySelector('.task-log');
      const row = log?.querySelector(`.log-line[data-line="${n}"]`);
      if (!row || row.textContent !== wanted) return false;
      const box = row.getBoundingClientRect();
      const view = log!.getBoundingClientRect();
      return box.top >= view.top - 1 && box.bottom <= view.bottom + 1;
    },
    { timeout: 30000 },
    number,
    text,
  );
}

// Lines number..number+count-1 as the log shows them, once none waits to be read.
async function contiguous(from: number, count: number) {
  await page.waitForFunction(
    (first, n) => {
      for (let line = first; line < first + n; line++) {
        if (document.querySelector(`.task-log .log-line[data-line="${line}"]`)?.textContent !== String(line)) return false;
      }
      return true;
    },
    { timeout: 30000 },
    from,
    count,
  );
}

let seqTask: string;
// What Copy and Download say (the search says its own beside them).
const kExportNote = '.output-export ~ .output-note';

test('300,000 lines reach a page four times slower in full, and it scrolls back to line 1', async () => {
  seqTask = await runTask('seq 1 300000');
  // Each line is a message of its own: at a quarter of the speed, this takes minutes.
  await waitTextLong('.task-detail .task-status', 'Finished', 900_000);
  // Every line was taken live: the newest 200,000 are in memory, the rest is on the computer.
  const held = await page.evaluate((id) => {
    const output = window.brinmoor.tasks.get(id)!.output!;
    return [output.first, output.last, output.total, output.line(1) ?? null];
  }, seqTask);
  assert.deepEqual(held, [100_001, 300_000, 300_000, null]);
  await waitForRow(300_000);
  const end = await rows();
  assert.deepEqual(end.lines[end.lines.length - 1], [300_000, '300000']);
  assert.equal((world.relayLog.match(/^client\.dropped /gm) ?? []).length, 0, 'the relay never dropped the page');
  // The log is focusable; Home takes it to the top, where line 1 is read from the computer.
  await page.focus('.task-log');
  await page.keyboard.press('Home');
  await waitForRow(1);
  await contiguous(1, 20);
  await page.keyboard.press('End');
  await waitForRow(300_000);
});

test('search finds a line among 300,000 and takes the log there', async () => {
  await page.type('input[aria-label="Search output"]', '123456');
  await page.keyboard.press('Enter');
  await waitText('.output-match .match-line', 'Line 123456');
  assert.equal(await page.$eval('.output-match .match-text', (e) => e.textContent), '123456');
  assert.equal(await page.$$eval('.output-match', (e) => e.length), 1);
  await clickText(page, '.output-match .match-line', 'Line 123456');
  await waitForRow(123_456);
  await waitText('.task-log .log-line.marked', '123456');
  await shoot('output-search');

  // The agent gives the matches 200 at a time, in order, the next ones when asked.
  const matching = (text: string) => Array.from({ length: 300_000 }, (_, i) => String(i + 1)).filter((line) => line.includes(text));
  const listed = () => page.$$eval('.output-match .match-line', (e) => e.map((x) => x.textContent));
  const search = async (text: string) => {
    await page.click('input[aria-label="Search output"]', { clickCount: 3 });
    await page.type('input[aria-label="Search output"]', text);
    await page.keyboard.press('Enter');
  };
  await search('777'); // 840 lines
  await page.waitForFunction(() => document.querySelectorAll('.output-match').length === 200);
  await clickText(page, '.output-matches button', 'More matches');
  await page.waitForFunction(() => document.querySelectorAll('.output-match').length === 400);
  assert.deepEqual(
    await listed(),
    matching('777')
      .slice(0, 400)
      .map((line) => 'Line ' + line),
  );
  await search('2345'); // 160 lines
  await page.waitForFunction(() => document.querySelectorAll('.output-match').length === 160);
  assert.deepEqual(
    await listed(),
    matching('2345').map((line) => 'Line ' + line),
  );
  assert.equal(await page.$('.output-matches button.link'), null);

  await search('no such line');
  await waitText('.output-note', 'No matches');
  assert.equal(await page.$('.output-match'), null);
});

test('Copy puts all 300,000 lines on the clipboard, Download saves them as a file', async () => {
  await clickText(page, '.output-export button', 'Copy');
  await waitText(kExportNote, 'Copied 300,000 lines', 60_000);
  const copied = await page.evaluate(() => navigator.clipboard.readText());
  const lines = copied.split('\n');
  assert.equal(lines.length, 300_000);
  assert.deepEqual([lines[0], lines[123_455], lines[299_999]], ['1', '123456', '300000']);

  const file = join(world.root, `shell-${seqTask}.log`);
  // Every status the tools show on the way.
  await page.evaluate(() => {
    window.brinmoorNotes = [];
    const tools = document.querySelector('.output-tools');
    new MutationObserver(() => {
      const text = tools!.querySelector('.output-export ~ .output-note')?.textContent;
      if (text && text !== window.brinmoorNotes.at(-1)) window.brinmoorNotes.push(text);
    }).observe(tools!, { subtree: true, childList: true, characterData: true });
  });
  await clickText(page, '.output-export button', 'Download');
  await waitText(kExportNote, 'Downloaded 300,000 lines', 60_000);
  const notes = await page.evaluate(() => window.brinmoorNotes);
  assert.equal(notes.at(-1), 'Downloaded 300,000 lines');
  assert.ok(notes.includes('Downloading… 150,000 of 300,000 lines'), notes.join('\n'));
  assert.ok(
    notes.slice(0, -1).every((note) => /^Downloading… [\d,]+ of 300,000 lines$/.test(note)),
    notes.join('\n'),
  );
  await world.waitFor(() => existsSync(file) && readFileSync(file, 'utf8').endsWith('300000\n'), 'the saved file', 30_000);
  const saved = readFileSync(file, 'utf8');
  assert.equal(saved, Array.from({ length: 300_000 }, (_, i) => String(i + 1)).join('\n') + '\n');
});

test('a reload mid-task shows the lines before it, read from the computer, and the live ones after', async () => {
  await cdp.send('Emulation.setCPUThrottlingRate', { rate: 1 });
  const go = join(world.root, 'go');
  const taskId = await runTask(`seq 1 150000; while [ ! -e ${go} ]; do sleep 0.05; done; seq 150001 150500`);
  await page.waitForFunction((id) => window.brinmoor.tasks.get(id)?.output?.last === 150_000, { timeout: 120_000 }, taskId);
  await page.reload();
  await waitText('.task-detail .task-status', 'Running…');
  assert.equal(await page.evaluate(() => window.brinmoor.navigation.place.taskId), taskId);
  // Nothing of it is in memory; the agent's list says how long it is, and the end is read.
  await waitForRow(150_000);
  assert.equal(await page.evaluate((id) => window.brinmoor.tasks.get(id)!.output!.tailLength, taskId), 0);
  writeFileSync(go, '');
  await waitText('.task-detail .task-status', 'Finished');
  await waitForRow(150_500);
  const held = await page.evaluate(
    (id) => [window.brinmoor.tasks.get(id)!.output!.first, window.brinmoor.tasks.get(id)!.output!.last],
    taskId,
  );
  assert.deepEqual(held, [150_001, 150_500]);
  // Around the reload: the lines read back and the live ones meet.
  await page.type('input[aria-label="Search output"]', '150000');
  await page.keyboard.press('Enter');
  await clickText(page, '.output-match .match-line', 'Line 150000');
  await waitForRow(150_000);
  await contiguous(149_990, 20);
  assert.equal((await rows()).reading, 0);
  assert.equal(await page.$('.task-log .log-line.notice'), null);
});

test('after the relay restarts the task is still listed, finished, with its duration', async () => {
  await clickText(page, '.task-history .task-title', 'seq 1 300000');
  await waitText('.task-detail .task-status', 'Finished');
  await world.restartRelay(async () => undefined);
  await page.reload();
  await waitText('.task-detail .task-title', 'seq 1 300000');
  await waitText('.task-detail .task-status', 'Finished');
  await waitForRow(300_000);
  // The agent's times, which win over those this page saw.
  const [startedAt, endedAt] = await page.evaluate(
    (id) => [window.brinmoor.tasks.get(id)!.startedAt, window.brinmoor.tasks.get(id)!.endedAt],
    seqTask,
  );
  const took = await page.$eval('.task-detail .task-duration', (e) => e.textContent);
  assert.ok(endedAt! > startedAt! && took !== '', `${startedAt} ${endedAt} ${took}`);

  // A browser that never saw it run learns it, and how long it took, from the agent.
  const context = await world.browser.createBrowserContext();
  fresh = await world.page(kPhone, context);
  await fresh.goto(`${world.origin}/#token=${kToken}`);
  await clickText(fresh, '.project .project-name', 'App');
  await clickText(fresh, 'button[role=tab] .tab-label', 'Tasks');
  await fresh.waitForFunction((id) => window.brinmoor.tasks.get(id)?.status === 'finished', {}, seqTask);
  await fresh.evaluate((id) => window.brinmoor.navigation.go({ taskId: id }), seqTask);
  await waitForText(fresh, '.task-detail .task-status', 'Finished');
  await waitForText(fresh, '.task-detail .task-duration', took);
  await waitForRow(300_000, '300000', fresh);
  await pageSettled(fresh);
  await context.close();
  fresh = undefined;
});

test('nothing was refused by the page policy and no error reached the console', async () => {
  const unreachable = /^console error: (WebSocket connection to .* failed|Failed to load resource: net::ERR_CONNECTION_REFUSED)/;
  assert.deepEqual(
    page.problems.filter((problem) => !unreachable.test(problem)),
    [],
  );
});
