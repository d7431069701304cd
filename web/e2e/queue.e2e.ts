// Tasks run while the agent is busy wait at the relay, at phone size: shown queued with
// their place, cancelled there, started in their turn, still queued after a reload; a
// chat message waits in the chat; a full queue says what the agent is busy with.
import assert from 'node:assert/strict';
import { after, before, test as nodeTest } from 'node:test';
import { claudeStream, clickText, kAgentId, kToken, testLeavingPictures, waitForText, World, type TestPage } from './harness.js';

const world = new World();
let page: TestPage;
const kPhone = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: false, hasTouch: false };

const test = testLeavingPictures(nodeTest, 'queue-', () => [[page, '']]);

before(async () => {
  await world.start();
  page = await world.page(kPhone);
  await page.goto(`${world.origin}/#token=${kToken}`);
  await clickText(page, '.project .project-name', 'App');
});

after(async () => {
  await world.stop();
});

const click = (selector: string, text: string) => clickText(page, selector, text);
const waitText = (selector: string, wanted: string, timeout?: number) => waitForText(page, selector, wanted, timeout);

// Types into a field once it is on the page (views render on the next frame).
async function type(selector: string, text: string) {
  await page.waitForSelector(selector, { visible: true });
  await page.type(selector, text);
}

async function tab(name: string) {
  await click('button[role=tab] .tab-label', name);
}

// Runs a shell command from the Tasks tab and waits until the page shows its task.
async function runCommand(command: string) {
  await tab('Tasks');
  await page.waitForSelector('input[name=command]', { visible: true });
  await page.click('input[name=command]', { clickCount: 3 });
  await page.keyboard.press('Backspace');
  await page.type('input[name=command]', command);
  const before = await page.evaluate(() => window.brinmoor.tasks.list().length);
  await click('.run-form button', 'Run');
  await page.waitForFunction((n) => window.brinmoor.tasks.list().length > n, {}, before);
  await waitText('.task-detail .task-title', command);
}

async function chooseTask(title: string) {
  await click('.task-history .task-title', title);
  await waitText('.task-detail .task-title', title);
}

// The state the tasks list shows beside a task.
async function listedState(title: string) {
  return page.$$eval(
    '.task-history .task-item',
    (items, wanted) =>
      items.find((item) => item.querySelector('.task-title')!.textContent === wanted)?.querySelector('.task-state')!.textContent,
    title,
  );
}

function waitListed(title: string, wanted: string) {
  return page.waitForFunction(
    (name, text) =>
      [...document.querySelectorAll('.task-history .task-item')].some(
        (item) => item.querySelector('.task-title')!.textContent === name && item.querySelector('.task-state')!.textContent === text,
      ),
    { timeout: 20000 },
    title,
    wanted,
  );
}

test('a task run while another runs is queued with its place, and one cancelled there ends as Cancelled', async () => {
  await runCommand('sleep 30');
  await waitText('.task-detail .task-status', 'Running…');
  await runCommand('echo second');
  await waitText('.task-detail .task-status', 'Queued · next in line');
  await runCommand('echo third');
  await waitText('.task-detail .task-status', 'Queued · 2nd in line');
  await waitListed('echo second', 'Queued · next in line');
  assert.equal(await listedState('sleep 30'), 'Running…');

  await chooseTask('echo second');
  const second = await page.$eval('.task-detail', (detail) => (detail as HTMLElement).dataset.task!);
  await click('.task-detail .task-head button', 'Cancel');
  await waitText('.task-detail .task-status', 'Cancelled');
  // The one behind it moves up; the agent never saw the cancelled one.
  await waitListed('echo third', 'Queued · next in line');
  assert.ok(world.relayLog.includes(`task.unqueued taskId=${second} agentId=${kAgentId} reason=cancelled\n`));
  assert.ok(!world.agentLog.includes(second));
});

test('after a reload a waiting task is still queued, with its place', async () => {
  await page.reload();
  await tab('Tasks');
  await waitListed('echo third', 'Queued · next in line');
  await waitListed('echo second', 'Cancelled');
  await waitListed('sleep 30', 'Running…');
});

test('the waiting task runs once the running one has ended', async () => {
  await chooseTask('sleep 30');
  await click('.task-detail .task-head button', 'Cancel');
  await waitText('.task-detail .task-status', 'Cancelled');
  await chooseTask('echo third');
  await waitText('.task-detail .task-status', 'Finished');
  assert.deepEqual(await page.$$eval('.task-log .log-line', (lines) => lines.map((line) => line.textContent)), ['third']);
});

test('a chat message sent while the agent is busy waits in the chat, and can be cancelled there', async () => {
  await runCommand('sleep 30');
  await waitText('.task-detail .task-status', 'Running…');
  const sleeping = await page.$eval('.task-detail', (detail) => (detail as HTMLElement).dataset.task!);
  await tab('Chat');
  await click('.new-chat-button', 'New chat');
  await type('textarea[name=prompt]', 'Say hello');
  await click('.composer button', 'Send');
  await waitText('.message.assistant .queued-note', 'Queued · next in line Cancel');
  await click('.message.assistant .queued-note button', 'Cancel');
  await waitText('.message.assistant .note', 'Cancelled');

  // Sent again, it waits, and is answered once the agent is free.
  world.fakeFile('claude.stream', claudeStream(['Hello from Claude.']));
  await type('textarea[name=prompt]', 'Say hello again');
  await click('.composer button', 'Send');
  await waitText('.message.assistant:last-of-type .queued-note', 'Queued · next in line Cancel');
  await page.evaluate((taskId) => window.brinmoor.tasks.cancel(window.brinmoor.tasks.get(taskId)!), sleeping);
  await waitText('.message.assistant:last-of-type .markdown', 'Hello from Claude.');
  assert.equal(await page.$('.message.assistant:last-of-type .queued-note'), null);
});

test('a full queue is refused, saying what the agent is busy with, and Show it leads there', async () => {
  await runCommand('sleep 30');
  await waitText('.task-detail .task-status', 'Running…');
  const sleeping = await page.$eval('.task-detail', (detail) => (detail as HTMLElement).dataset.task!);
  for (let n = 1; n <= 20; n++) await runCommand(`echo ${n}`);
  await waitText('.task-detail .task-status', 'Queued · 20th in line');
  await page.click('input[name=command]', { clickCount: 3 });
  await page.keyboard.press('Backspace');
  await page.type('input[name=command]', 'echo 21');
  await click('.run-form button', 'Run');
  await waitText(
    '.tasks-view > .busy-note',
    'The agent is busy with “sleep 30” and its queue is full. Run this again once a waiting task has started. Show it',
  );
  await click('.busy-note .show-busy', 'Show it');
  await page.waitForFunction((id) => document.querySelector<HTMLElement>('.task-detail')?.dataset.task === id, {}, sleeping);
  await waitText('.task-detail .task-status', 'Running…');
});

test('nothing was refused by the page policy and no error reached the console', async () => {
  assert.deepEqual(page.problems, []);
});
