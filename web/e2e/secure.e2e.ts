// Brinmoor Web as a secure context: the relay over HTTPS with a certificate from a test
// authority, opened at a name that is not this machine's own address (so only HTTPS makes
// the page secure); pairing, a chat and a terminal over WSS, the service worker and its
// offline shell, notifications while the page is hidden. Then the same page over plain
// HTTP and its notice. Screenshots go to $BRINMOOR_WEB_SCREENSHOTS when it is set.
//
// A page is hidden the way a phone hides it: another tab comes to the front (headless
// Chromium keeps its tabs in one window, so the page behind it reports "hidden").
import assert from 'node:assert/strict';
import { mkdirSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import { after, before, test as nodeTest } from 'node:test';
import type { Page } from 'puppeteer-core';
import {
  claudeStream,
  clickText,
  focusTerminal,
  kAgentId,
  kAskingClaude,
  kTestHost,
  kToken,
  testLeavingPictures,
  World,
  type TestPage,
} from './harness.js';

const kPhone = { width: 390, height: 844, deviceScaleFactor: 2, isMobile: false, hasTouch: false };
const kOffer = 'Get a notification when an approval or a review waits for you.';

const world = new World({ tls: true, host: kTestHost });
let page: TestPage;
// The page a failing test leaves a picture of.
let current: TestPage;

const test = testLeavingPictures(nodeTest, '', () => [[current, '']]);

before(async () => {
  await world.start();
  page = await world.page(kPhone);
  current = page;
  // In front of the tab the browser opened with, so that it is visible and draws frames.
  await page.bringToFront();
});

after(async () => {
  await world.stop();
});

async function shoot(target: Page, name: string) {
  const folder = process.env.BRINMOOR_WEB_SCREENSHOTS;
  if (!folder) return;
  mkdirSync(folder, { recursive: true });
  await target.screenshot({ path: join(folder, `web-${name}-phone.png`) });
}

// The visible element matching `selector` whose trimmed text is `text`, clicked.
const click = clickText;

// Types into a field once it is on the page (views render on the next frame).
async function type(target: Page, selector: string, text: string) {
  await target.waitForSelector(selector, { visible: true });
  await target.type(selector, text);
}

function textOf(target: Page, selector: string) {
  return target.$eval(selector, (e) => e.textContent);
}

// Every request URL the page's caches hold, by cache name.
function cachedRequests(target: Page) {
  return target.evaluate(async () => {
    const all: Record<string, string[]> = {};
    for (const name of await caches.keys()) {
      all[name] = (await (await caches.open(name)).keys()).map((request) => new URL(request.url).pathname + new URL(request.url).search);
    }
    return all;
  });
}

// The shell the served worker keeps: the version and files written into it at build time.
async function servedShell(target: Page) {
  const worker = await target.evaluate(() => fetch('/sw.js').then((response) => response.text()));
  return JSON.parse(/\{"version":"[0-9a-f]{16}","files":\[[^\]]*\]\}/.exec(worker)![0]);
}
let shell: { version: string; files: string[] };

test('over HTTPS the page is a secure context, pairs and shows no notice', async () => {
  assert.match(world.origin, /^https:\/\/brinmoor\.test:\d+$/);
  await page.goto(`${world.origin}/#token=${kToken}`);
  await page.waitForSelector(`[data-agent="${kAgentId}"] .project`);
  assert.equal(await page.evaluate(() => window.isSecureContext), true);
  assert.equal(await page.evaluate(() => location.href), world.origin + '/');
  assert.equal(await textOf(page, '.connection-text'), 'Connected');
  assert.equal(await page.$('.notice.unencrypted'), null);
});

test('the service worker is active for the whole origin and keeps only the shell', async () => {
  const worker = await page.evaluate(async () => {
    const registration = await navigator.serviceWorker.ready;
    const active = registration.active!;
    if (active.state !== 'activated')
      await new Promise<void>((resolve) => active.addEventListener('statechange', () => active.state === 'activated' && resolve()));
    return { scope: registration.scope, script: active.scriptURL, state: active.state };
  });
  assert.deepEqual(worker, { scope: world.origin + '/', script: world.origin + '/sw.js', state: 'activated' });
  await page.waitForFunction(() => navigator.serviceWorker.controller !== null);
  shell = await servedShell(page);
  const cached = await cachedRequests(page);
  assert.deepEqual(Object.keys(cached), ['brinmoor-shell-' + shell.version]);
  assert.deepEqual([...cached['brinmoor-shell-' + shell.version]].sort(), [...shell.files].sort());
});

test('the page can be installed as an app', async () => {
  const session = await page.createCDPSession();
  const manifest = await session.send('Page.getAppManifest');
  assert.equal(manifest.url, world.origin + '/manifest.webmanifest');
  assert.deepEqual(manifest.errors, []);
  assert.equal(JSON.parse(manifest.data!).name, 'Brinmoor Web');
  assert.deepEqual((await session.send('Page.getInstallabilityErrors')).installabilityErrors, []);
  await session.detach();
});

test('offers notifications once, and "Not now" is remembered', async () => {
  assert.equal(await page.evaluate(() => Notification.permission), 'default');
  await page.waitForSelector('.notice.offer');
  assert.equal(await textOf(page, '.notice.offer .notice-text'), kOffer);
  await shoot(page, 'notification-offer');
  await click(page, '.notice.offer button', 'Not now');
  await page.waitForFunction(() => !document.querySelector('.notice.offer'));
  assert.equal(await page.evaluate(() => localStorage.getItem('brinmoor.notificationsAsked')), '1');
  await page.reload();
  await page.waitForSelector(`[data-agent="${kAgentId}"] .project`);
  await page.waitForFunction(() => document.querySelector('.connection-text')?.textContent === 'Connected');
  assert.equal(await page.$('.notice.offer'), null);
});

test('"Notify me" asks the browser, once', async () => {
  // A phone that never answered the offer: its own browser profile.
  const context = await world.browser.createBrowserContext();
  const fresh = await world.page(kPhone, context);
  current = fresh;
  await fresh.evaluateOnNewDocument(() => {
    const ask = Notification.requestPermission.bind(Notification);
    window.brinmoorPermissionAsks = 0;
    Notification.requestPermission = () => (window.brinmoorPermissionAsks++, ask());
  });
  await fresh.goto(`${world.origin}/#token=${kToken}`);
  await fresh.waitForSelector('.notice.offer');
  assert.equal(await fresh.evaluate(() => Notification.permission), 'default');
  await click(fresh, '.notice.offer button', 'Notify me');
  await fresh.waitForFunction(() => !document.querySelector('.notice.offer'));
  assert.equal(await fresh.evaluate(() => window.brinmoorPermissionAsks), 1);
  assert.equal(await fresh.evaluate(() => localStorage.getItem('brinmoor.notificationsAsked')), '1');
  await context.close();
  current = page;
});

test('an old http:// link to the port goes on over https with its token', async () => {
  const context = await world.browser.createBrowserContext();
  const fresh = await world.page(kPhone, context);
  current = fresh;
  const plainLink = world.origin.replace(/^https:/, 'http:') + `/#token=${kToken}`;
  const response = await fresh.goto(plainLink);
  // The relay's redirect, not the browser's own upgrade.
  const chain = response!.request().redirectChain();
  assert.deepEqual(
    chain.map((request) => [request.url(), request.response()!.status()]),
    [[plainLink, 308]],
  );
  await fresh.waitForSelector(`[data-agent="${kAgentId}"] .project`);
  assert.equal(await fresh.evaluate(() => location.href), world.origin + '/');
  assert.equal(await fresh.evaluate(() => localStorage.getItem('brinmoor.token')), kToken);
  await context.close();
  current = page;
});

test('chats with claude over WSS', async () => {
  world.fakeFile('claude.stream', claudeStream(['Hello', ' over TLS.']));
  await click(page, '.project .project-name', 'App');
  await click(page, 'button[role=tab]', 'Chat');
  await click(page, '.segmented button', 'Claude');
  await click(page, '.new-chat-button', 'New chat');
  await type(page, 'textarea[name=prompt]', 'Say hello');
  await click(page, '.composer button', 'Send');
  await page.waitForFunction(() => document.querySelector('.message.assistant.done .markdown')?.textContent.trim() === 'Hello over TLS.');
});

test('a terminal echoes what is typed', async () => {
  await click(page, 'button[role=tab]', 'Terminal');
  await click(page, '.terminal-start button', 'Open terminal');
  await page.waitForSelector('.terminal-head .status-dot.online');
  await focusTerminal(page);
  await page.keyboard.type('echo secure-$((6*7))');
  await page.keyboard.press('Enter');
  await page.waitForFunction(() => document.querySelector<HTMLElement>('.xterm-rows')!.innerText.includes('secure-42'));
  await click(page, '.terminal-head button', 'Close');
});

test('a permission request arriving while the page is hidden is a notification', async () => {
  await world.browser.defaultBrowserContext().overridePermissions(world.origin, ['notifications']);
  world.fakeFile('claude.script', kAskingClaude);
  await click(page, 'button[role=tab]', 'Chat');
  await type(page, 'textarea[name=prompt]', 'Take a note');
  const front = await world.page(kPhone);
  await front.bringToFront();
  await page.waitForFunction(() => document.visibilityState === 'hidden', { polling: 50 });
  // Sent from the hidden page, as a tap just before the phone locked.
  await page.evaluate(() =>
    [...document.querySelectorAll<HTMLElement>('.composer button')].find((b) => b.textContent.trim() === 'Send')!.click(),
  );
  const notifications = await page.waitForFunction(
    async () => {
      const shown = await (await navigator.serviceWorker.ready).getNotifications();
      return shown.length > 0 && shown.map((n) => ({ title: n.title, body: n.body, tag: n.tag, data: n.data }));
    },
    // A hidden page draws no frames, so the condition is looked at on a timer.
    { timeout: 20000, polling: 50 },
  );
  // The condition holds once there is a list.
  const [shown] = await notifications
    .jsonValue()
    .then((all) => (assert.equal((all as unknown[]).length, 1), all as Exclude<typeof all, false>));
  const requestId = shown.data.requestId;
  assert.deepEqual(shown, {
    title: 'Approval needed',
    body: 'claude wants to use Write',
    tag: 'approval:' + requestId,
    data: { kind: 'approval', requestId },
  });
  // Back on the page, the request waits in its sheet.
  await page.bringToFront();
  await front.close();
  await page.waitForFunction(() => document.visibilityState === 'visible');
  assert.equal(await textOf(page, '.sheet .tool-name'), 'Write');
  await click(page, '.sheet button', 'Allow');
  await page.waitForFunction(
    () => document.querySelector('.message.assistant.done:last-of-type .markdown')?.textContent.trim() === 'Wrote notes.txt.',
  );
  assert.equal(readFileSync(join(world.project, 'notes.txt'), 'utf8'), 'written\n');
  world.fakeFile('claude.script', '');
});

test('with the network gone the app shell still loads, and nothing of the relay is cached', async () => {
  const workerTarget = await world.browser.waitForTarget(
    (target) => target.type() === 'service_worker' && target.url() === world.origin + '/sw.js',
  );
  const worker = await workerTarget.createCDPSession();
  const offline = (on: boolean) => ({ offline: on, latency: 0, downloadThroughput: -1, uploadThroughput: -1 });
  await worker.send('Network.enable');
  await worker.send('Network.emulateNetworkConditions', offline(true));
  await page.setOfflineMode(true);
  try {
    const response = await page.reload();
    assert.equal(response!.fromServiceWorker(), true);
    await page.waitForSelector('.topbar');
    assert.notEqual(await textOf(page, '.connection-text'), 'Connected');
    // The page's own fetch of the relay fails too: the network really is gone.
    assert.equal(
      await page.evaluate(() =>
        fetch('/v1/health').then(
          () => 'answered',
          () => 'failed',
        ),
      ),
      'failed',
    );
  } finally {
    await page.setOfflineMode(false);
    await worker.send('Network.emulateNetworkConditions', offline(false));
  }
  await page.waitForFunction(() => document.querySelector('.connection-text')?.textContent === 'Connected', { timeout: 20000 });
  const cached = Object.values(await cachedRequests(page)).flat();
  assert.deepEqual(
    cached.filter((path) => path.startsWith('/v1') || path.includes(kToken)),
    [],
  );
  assert.deepEqual([...cached].sort(), [...shell.files].sort());
});

test('nothing was refused by the page policy and no error reached the console', async () => {
  // The reload without a network is expected to fail its relay requests.
  const unexpected = page.problems.filter((problem) => !/^console error: .*: net::ERR_INTERNET_DISCONNECTED$/.test(problem));
  assert.deepEqual(unexpected, []);
});

test('over plain HTTP at a network address the page says it is not encrypted, until dismissed', async () => {
  const plain = new World({ host: kTestHost });
  try {
    await plain.start();
    const insecure = await plain.page(kPhone);
    current = insecure;
    await insecure.bringToFront();
    assert.match(plain.origin, /^http:\/\/brinmoor\.test:\d+$/);
    await insecure.goto(`${plain.origin}/#token=${kToken}`);
    await insecure.waitForSelector(`[data-agent="${kAgentId}"] .project`);
    assert.equal(await insecure.evaluate(() => window.isSecureContext), false);
    assert.equal(await insecure.evaluate(() => 'serviceWorker' in navigator), false);
    assert.equal(await textOf(insecure, '.notice.unencrypted .notice-text'), 'This connection is not encrypted');
    const link = await insecure.$eval('.notice.unencrypted a', (a) => ({
      text: a.textContent,
      href: a.getAttribute('href'),
      target: a.target,
    }));
    assert.deepEqual(link, { text: 'How to encrypt it', href: '/help/reach-it-from-anywhere.html', target: '_blank' });
    // No offer of notifications: the browser has none for this page.
    assert.equal(await insecure.$('.notice.offer'), null);
    await shoot(insecure, 'unencrypted-notice');

    const help = await plain.page(kPhone);
    await help.goto(plain.origin + link.href);
    assert.equal(await textOf(help, 'h2'), 'Reach it from anywhere');
    await help.close();
    await insecure.bringToFront();

    await insecure.click('.notice.unencrypted button[aria-label=Dismiss]');
    await insecure.waitForFunction(() => !document.querySelector('.notice.unencrypted'));
    await insecure.reload();
    await insecure.waitForSelector(`[data-agent="${kAgentId}"] .project`);
    assert.equal(await insecure.$('.notice.unencrypted'), null);
    assert.deepEqual(insecure.problems, []);
  } finally {
    await plain.stop();
  }
});
