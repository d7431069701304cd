// "Needs you" at phone size, against the real relay and agent over HTTPS: an approval
// waiting, a failed task and a finished answer are listed and counted (in the title too),
// and each opens its card; the inbox in dark mode. Then the service worker and the
// relay's pushes: Chromium hands the worker a push through DevTools, the notification it
// shows says what waits, a click brings up the card, and its Allow decides through the
// relay. Screenshots of the inbox go to $BRINMOOR_WEB_SCREENSHOTS when it is set.
import assert from 'node:assert/strict';
import { createECDH, randomBytes } from 'node:crypto';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import type { CDPSession, WebWorker } from 'puppeteer-core';
import {
  clickText,
  kAgentId,
  kAskingClaude,
  kPhone,
  kTestHost,
  kToken,
  shootSizes,
  testLeavingPictures,
  type TestPage,
  waitForText,
  World,
} from './harness.js';

const kEmpty = 'Nothing needs you right now.';

const world = new World({ tls: true, host: kTestHost });
let page: TestPage;
let projectPath = '';

const test = testLeavingPictures(nodeTest, 'inbox-', () => [[page, '']]);

before(async () => {
  // Pushes on, with a contact push services accept, and the relay's state in the run's folder.
  world.relayEnv.BRINMOOR_PUSH_CONTACT = 'mailto:e2e@example.com';
  world.relayEnv.BRINMOOR_STATE_DIR = join(world.root, 'relay-state');
  await world.start();
  await world.browser.defaultBrowserContext().overridePermissions(world.origin, ['notifications']);
  page = await world.page(kPhone);
  await page.bringToFront();
});

after(async () => {
  await world.stop();
});

const click = (selector: string, text: string) => clickText(page, selector, text);
const waitText = (selector: string, wanted: string, timeout?: number) => waitForText(page, selector, wanted, timeout);

async function type(selector: string, text: string) {
  await page.waitForSelector(selector, { visible: true });
  await page.type(selector, text);
}

async function textOf(selector: string) {
  return page.$eval(selector, (element) => element.textContent);
}

function shoot(name: string) {
  return shootSizes(page, name);
}

async function openInbox() {
  if (await page.$('.shell.in-inbox')) return;
  await page.click('.topbar .needs-you');
  await page.waitForSelector('.inbox-view');
}

// An entry of the inbox: its three lines, once it is listed.
async function entry(keyStart: string) {
  const selector = `.inbox-item[data-entry^="${keyStart}"]`;
  await page.waitForSelector(selector, { visible: true });
  return page.$eval(selector, (item) => ({
    key: item.getAttribute('data-entry')!,
    kind: item.querySelector('.inbox-kind')!.textContent,
    what: item.querySelector('.inbox-what')!.textContent,
    where: item.querySelector('.inbox-where')!.textContent,
  }));
}

async function waitTitle(title: string) {
  await page.waitForFunction((wanted) => document.title === wanted, { timeout: 20000 }, title);
}

async function waitCount(count: number) {
  await waitTitle(count === 0 ? 'Brinmoor' : `(${count}) Brinmoor`);
  // The button's name: its words (hidden on a phone, still read out) and the count.
  const name = await page.$eval('.topbar .needs-you', (button) => button.textContent);
  assert.equal(name, count === 0 ? 'Needs you' : `Needs you${count}`);
}

// Starts a chat with the fake claude that asks to write notes.txt, and puts its
// approval sheet away with "Later"; the request's id and task.
async function askingChat(prompt: string) {
  world.fakeFile('claude.script', kAskingClaude);
  const before = await page.evaluate(() => window.brinmoor.approvals.count);
  // From the list of projects: the way back from the inbox goes to the chat the user was
  // in, which would show its answer.
  await page.evaluate(() => window.brinmoor.navigation.home());
  await click('.project .project-name', 'App');
  await click('button[role=tab] .tab-label', 'Chat');
  await click('.segmented button', 'Claude');
  await click('.new-chat-button', 'New chat');
  await type('textarea[name=prompt]', prompt);
  await click('.composer button', 'Send');
  await page.waitForFunction((n) => window.brinmoor.approvals.count > n, { timeout: 20000 }, before);
  await page.waitForSelector('.sheet .request');
  await click('.sheet button', 'Later');
  await page.waitForFunction(() => !document.querySelector('.sheet'));
  return page.evaluate(() => {
    const request = window.brinmoor.approvals.pending().at(-1)!;
    return { requestId: request.requestId, taskId: request.taskId };
  });
}

test('Needs you is in the top bar, and empty at first', async () => {
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector(`[data-agent="${kAgentId}"] .project`);
  await waitText('.connection-text', 'Connected');
  await waitCount(0);
  await openInbox();
  assert.equal(await textOf('.topbar .title strong'), 'Needs you');
  assert.equal(await textOf('.inbox-empty strong'), kEmpty);
  assert.equal(
    await textOf('.inbox-empty .muted'),
    'Approvals, changes to review, failed tasks and new answers from every machine show up here.',
  );
  await click('.topbar .inbox-back', '');
  await page.waitForFunction(() => !document.querySelector('.inbox-view'));
});

let first: { requestId: string; taskId: string };

test('an approval waiting is listed and counted, and opens its sheet', async () => {
  first = await askingChat('Take a note');
  projectPath = await page.evaluate(() => window.brinmoor.navigation.place.projectPath!);
  await openInbox();
  assert.deepEqual(await entry('approval:'), {
    key: 'approval:' + first.requestId,
    kind: 'Approval needed',
    what: 'Write',
    where: 'App on studio-mac',
  });
  await waitCount(1);
  await click('.inbox-item .inbox-kind', 'Approval needed');
  await page.waitForSelector(`.sheet .request[data-request="${first.requestId}"]`);
  assert.equal(await textOf('.sheet .tool-name'), 'Write');
  await click('.sheet button', 'Allow');
  await page.waitForFunction(() => !document.querySelector('.sheet'));
});

test('an answer that finished while the user was elsewhere is listed', async () => {
  // The inbox is still up under the sheet: the answer ends while nobody looks at it.
  assert.deepEqual(await entry('answer:'), {
    key: 'answer:' + first.taskId,
    kind: 'New answer',
    what: 'Take a note',
    where: 'App on studio-mac',
  });
  await waitCount(1);
});

let failedTask = '';

test('a task that failed is listed', async () => {
  failedTask = await page.evaluate(
    async (path) =>
      (await window.brinmoor.tasks.run('studio-mac', { action: 'shell', command: 'echo broken; exit 3', projectPath: path })).taskId,
    projectPath,
  );
  assert.deepEqual(await entry('failed:'), {
    key: 'failed:' + failedTask,
    kind: 'Task failed',
    what: 'echo broken; exit 3 · command exited with status 3',
    where: 'App on studio-mac',
  });
  await waitCount(2);
});

let second: { requestId: string; taskId: string };

test('the inbox lists approvals first, and looks right in dark mode', async () => {
  second = await askingChat('Take another note');
  await openInbox();
  await waitCount(3);
  const keys = await page.$$eval('.inbox-item', (items) => items.map((item) => item.getAttribute('data-entry')));
  assert.deepEqual(keys, ['approval:' + second.requestId, 'failed:' + failedTask, 'answer:' + first.taskId]);
  await shoot('inbox');
  await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: 'dark' }]);
  const colours = await page.$eval('.inbox-item', (item) => {
    const style = getComputedStyle(item);
    const what = getComputedStyle(item.querySelector('.inbox-what')!);
    return { background: style.backgroundColor, text: what.color, page: getComputedStyle(document.body).backgroundColor };
  });
  assert.deepEqual(colours, { background: 'rgb(23, 26, 33)', text: 'rgb(227, 231, 238)', page: 'rgb(15, 17, 21)' });
  await shoot('inbox-dark');
  await page.emulateMediaFeatures([{ name: 'prefers-color-scheme', value: 'light' }]);
});

test("each entry opens its card: the answer's chat, the failed task's log", async () => {
  await click('.inbox-item .inbox-kind', 'New answer');
  await waitText('.message.assistant.done .markdown', 'Wrote notes.txt.');
  await waitCount(2);
  await openInbox();
  await click('.inbox-item .inbox-kind', 'Task failed');
  await waitText('.task-detail .task-title', 'echo broken; exit 3');
  await waitCount(1);
  // Looked at is remembered across a reload.
  await page.reload();
  await waitText('.connection-text', 'Connected');
  await waitCount(1);
});

// The worker, through DevTools.
let session: CDPSession;
let registrationId = '';
let worker: WebWorker;

// Gives the worker a push until the notification with this tag is shown: DevTools now and
// then hands a push to a worker that has just started before it takes it.
async function push(data: string, tag: string) {
  const deadline = Date.now() + 20000;
  for (;;) {
    await session.send('ServiceWorker.deliverPushMessage', { origin: world.origin, registrationId, data });
    try {
      return await notification(tag, 2000);
    } catch (error) {
      if (Date.now() > deadline) throw error;
    }
  }
}

// The notification with this tag, once the worker has shown it.
async function notification(tag: string, timeout = 20000) {
  const shown = await page.waitForFunction(
    async (wanted) => {
      const all = await (await navigator.serviceWorker.ready).getNotifications({ tag: wanted });
      const found = all[0];
      // Chromium lists a notification's actions; TypeScript's DOM does not have them yet.
      const actions = (found as (Notification & { actions: { title: string }[] }) | undefined)?.actions ?? [];
      return found && { title: found.title, body: found.body, data: found.data as unknown, actions: actions.map((action) => action.title) };
    },
    { timeout, polling: 50 },
    tag,
  );
  return (await shown.jsonValue()) as { title: string; body: string; data: unknown; actions: string[] };
}

// A click on the notification with this tag (or on one of its actions), as the browser
// would deliver it.
async function clickNotification(tag: string, action: string) {
  await worker.evaluate(
    async (wanted, which) => {
      const scope = self as unknown as {
        registration: ServiceWorkerRegistration;
        brinmoorClick: (notification: Notification, action: string) => Promise<void>;
      };
      const [found] = await scope.registration.getNotifications({ tag: wanted });
      await scope.brinmoorClick(found, which);
    },
    tag,
    action,
  );
}

test('a push is shown as a notification that says what waits', async () => {
  session = await page.createCDPSession();
  const registrations: { registrationId: string; scopeURL: string; isDeleted: boolean }[] = [];
  session.on('ServiceWorker.workerRegistrationUpdated', (event) => registrations.push(...event.registrations));
  await session.send('ServiceWorker.enable');
  await world.waitFor(() => registrations.some((r) => r.scopeURL === world.origin + '/' && !r.isDeleted), 'the worker registration');
  registrationId = registrations.find((r) => r.scopeURL === world.origin + '/' && !r.isDeleted)!.registrationId;
  // Running, and followed by DevTools from here on, so that it stays running.
  await session.send('ServiceWorker.startWorker', { scopeURL: world.origin + '/' });
  const target = await world.browser.waitForTarget((t) => t.type() === 'service_worker' && t.url() === world.origin + '/sw.js');
  worker = (await target.worker())!;
  // Its script has run (its listeners are there) before the first push.
  await worker.evaluate(() => typeof (self as unknown as { brinmoorClick?: unknown }).brinmoorClick === 'function');

  const payload = {
    kind: 'approval',
    agentId: kAgentId,
    projectPath,
    project: 'App',
    taskId: second.taskId,
    requestId: second.requestId,
    tool: 'Write',
  };
  assert.deepEqual(await push(JSON.stringify(payload), 'approval:' + second.requestId), {
    title: 'Approval needed',
    body: 'Write in App on studio-mac',
    data: { kind: 'approval', requestId: second.requestId },
    actions: ['Allow', 'Deny'],
  });
  const failed = { kind: 'failed', agentId: kAgentId, projectPath, project: 'App', taskId: failedTask };
  assert.deepEqual(await push(JSON.stringify(failed), 'failed:' + failedTask), {
    title: 'Task failed',
    body: 'A task failed in App on studio-mac',
    data: { kind: 'failed', agentId: kAgentId, projectPath, taskId: failedTask },
    actions: [],
  });
  // What the worker cannot read is still shown: a push that shows nothing costs the subscription.
  assert.deepEqual(await push('not what the relay sends', 'brinmoor'), {
    title: 'Brinmoor',
    body: 'Something waits for you. Open Brinmoor to see it.',
    data: null,
    actions: [],
  });
});

test('a click on the notification opens the exact card', async () => {
  await page.evaluate(() => window.brinmoor.navigation.home());
  await clickNotification('failed:' + failedTask, '');
  await waitText('.task-detail .task-title', 'echo broken; exit 3');
  await clickNotification('approval:' + second.requestId, '');
  await page.waitForSelector(`.sheet .request[data-request="${second.requestId}"]`);
  await click('.sheet button', 'Later');
  await page.waitForFunction(() => !document.querySelector('.sheet'));
});

test('the worker has the token the page has', async () => {
  // Kept by the worker in the origin's IndexedDB once the page handed it over.
  await page.waitForFunction(
    async (wanted) =>
      // Opening a database that is not there would make an empty one: looked for first.
      (await indexedDB.databases()).some((db) => db.name === 'brinmoor-worker') &&
      new Promise<boolean>((resolve) => {
        const opening = indexedDB.open('brinmoor-worker');
        opening.onerror = () => resolve(false);
        opening.onsuccess = () => {
          const db = opening.result;
          if (!db.objectStoreNames.contains('secrets')) return (db.close(), resolve(false));
          const read = db.transaction('secrets').objectStore('secrets').get('token');
          read.onsuccess = () => (db.close(), resolve(read.result === wanted));
        };
      }),
    { timeout: 20000, polling: 100 },
    kToken,
  );
});

test("Allow on an approval's notification decides it through the relay", async () => {
  await push(
    JSON.stringify({
      kind: 'approval',
      agentId: kAgentId,
      projectPath,
      project: 'App',
      taskId: second.taskId,
      requestId: second.requestId,
      tool: 'Write',
    }),
    'approval:' + second.requestId,
  );
  await clickNotification('approval:' + second.requestId, 'allow');
  await world.waitFor(
    () => world.relayLog.includes(`permission.resolved requestId=${second.requestId} decision=allow reason=client`),
    'the relay to resolve the request',
  );
  await page.waitForFunction(
    (id) => !window.brinmoor.approvals.pending().some((request) => request.requestId === id),
    {},
    second.requestId,
  );
  // The second answer ended while the failed task's log was shown: it waits to be seen.
  await waitCount(1);
});

test('a device subscribed is listed, gets a test push, and is removed', async () => {
  // Headless Chromium has no push service: a subscription made up as a browser makes one.
  const subscription = {
    endpoint: 'https://127.0.0.1:9/push/e2e-device',
    expirationTime: null,
    keys: { p256dh: createECDH('prime256v1').generateKeys().toString('base64url'), auth: randomBytes(16).toString('base64url') },
  };
  const status = await page.evaluate(
    async (body, token) =>
      (
        await fetch('/v1/push/subscriptions', {
          method: 'POST',
          headers: { Authorization: 'Bearer ' + token, 'Content-Type': 'application/json' },
          body,
        })
      ).status,
    JSON.stringify({ subscription, device: 'Pixel in the drawer' }),
    kToken,
  );
  assert.equal(status, 200);
  // Needs you lists the devices when it opens.
  await openInbox();
  await click('.topbar .inbox-back', '');
  await page.waitForFunction(() => !document.querySelector('.inbox-view'));
  await openInbox();
  await waitText('.push-device .push-device-name', 'Pixel in the drawer');
  await click('.push-device button', 'Send a test notification');
  await page.waitForFunction(
    () => document.querySelector('.push-test-result')?.textContent?.startsWith('the push service could not be reached: '),
    { timeout: 60000 },
  );
  await click('.push-device button', 'Remove');
  await page.waitForFunction(() => !document.querySelector('.push-device'));
  assert.deepEqual(
    page.problems.filter((problem) => !problem.includes('status of 502')),
    [],
  );
});
