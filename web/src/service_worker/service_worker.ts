// Brinmoor Web's service worker (served as /sw.js, scope "/"): the app shell of this
// build for when the relay cannot be reached, the relay's pushes, and the notifications'
// clicks.
import { sendDecision } from '../protocol/push_messages';
import { kGenericPush, notificationOfPush } from '../secure/push_notifications';
import { keepTokenForWorker, workerToken } from '../secure/worker_token';
import { shellCacheName, shellRoute, staleShellCaches } from './shell_routes';

declare const self: ServiceWorkerGlobalScope;

// Written into the built worker once the build's files are known: the URL paths of the
// shell ("/" is the index) and a version made of their content.
declare const __BRINMOOR_SHELL__: { version: string; files: string[] };

const kShell = __BRINMOOR_SHELL__;
const kCache = shellCacheName(kShell.version);
const kFiles = new Set(kShell.files);

self.addEventListener('install', (event) => {
  event.waitUntil(
    (async () => {
      const cache = await caches.open(kCache);
      // Past the HTTP cache, so the shell is this build's and not an older page's.
      await cache.addAll(kShell.files.map((path) => new Request(path, { cache: 'reload' })));
      await self.skipWaiting();
    })(),
  );
});

self.addEventListener('activate', (event) => {
  event.waitUntil(
    (async () => {
      await Promise.all(staleShellCaches(await caches.keys(), kCache).map((name) => caches.delete(name)));
      await self.clients.claim();
    })(),
  );
});

async function fromCache(path: string): Promise<Response> {
  const cache = await caches.open(kCache);
  return (await cache.match(path)) ?? Response.error();
}

self.addEventListener('fetch', (event) => {
  const route = shellRoute(event.request, self.location.origin, kFiles);
  if (route === 'precached') {
    event.respondWith(fromCache(new URL(event.request.url).pathname));
  } else if (route === 'shell') {
    // The relay's own page while it answers, so a new build shows at once; the cached
    // index of this build when it does not.
    event.respondWith(fetch(event.request).catch(() => fromCache('/')));
  }
});

// Every push shows a notification, one that cannot be read included: a push that shows
// nothing costs the site its subscription.
self.addEventListener('push', (event) => {
  let text: string | null = null;
  try {
    text = event.data ? event.data.text() : null;
  } catch {
    // unreadable: the generic notification
  }
  const shown = notificationOfPush(text);
  const options = (push: typeof shown): NotificationOptions & { actions?: { action: string; title: string }[] } => ({
    body: push.body,
    tag: push.tag,
    data: push.data,
    icon: '/icon-192.png',
    actions: push.actions,
  });
  event.waitUntil(
    self.registration
      .showNotification(shown.title, options(shown))
      .catch(() => self.registration.showNotification(kGenericPush.title, options(kGenericPush))),
  );
});

// Brings up the page (an open one, or a new one) at the card a notification names.
async function openCard(data: unknown): Promise<void> {
  const windows = await self.clients.matchAll({ type: 'window', includeUncontrolled: true });
  const client = windows.find((w) => new URL(w.url).origin === self.location.origin);
  if (client) {
    await client.focus().catch(() => undefined); // a browser may refuse to bring it forward
    client.postMessage({ type: 'brinmoor.notificationclick', data });
    return;
  }
  // A page that starts cannot hear a message yet: the card goes in its address.
  await self.clients.openWindow(data ? '/?card=' + encodeURIComponent(JSON.stringify(data)) : '/');
}

// Allow or Deny on an approval's notification: decided through the relay's HTTP endpoint
// with the token the page left for the worker. Without one, or when the relay refuses,
// the page opens at the request instead.
async function decide(data: unknown, decision: 'allow' | 'deny'): Promise<void> {
  const requestId = typeof data === 'object' && data !== null ? (data as { requestId?: unknown }).requestId : undefined;
  const token = await workerToken(indexedDB).catch(() => null);
  if (typeof requestId !== 'string' || token === null) return openCard(data);
  try {
    await sendDecision(self.location.origin, token, requestId, decision);
  } catch {
    await openCard(data);
  }
}

// The page hands the worker its token (and null when it forgets it): kept in this
// origin's IndexedDB for a notification's Allow and Deny.
self.addEventListener('message', (event) => {
  const message: unknown = event.data;
  if (typeof message !== 'object' || message === null || (message as { type?: unknown }).type !== 'brinmoor.token') return;
  const token = (message as { token?: unknown }).token;
  event.waitUntil(keepTokenForWorker(indexedDB, typeof token === 'string' && token !== '' ? token : null).catch(() => undefined));
});

// A click on the notification, or on one of its actions.
function clicked(notification: Notification, action: string): Promise<void> {
  notification.close();
  const data: unknown = notification.data;
  return action === 'allow' || action === 'deny' ? decide(data, action) : openCard(data);
}

self.addEventListener('notificationclick', (event) => event.waitUntil(clicked(event.notification, event.action)));

// Headless Chromium cannot click a notification: the browser tests click through this.
if (__BRINMOOR_TAPS__) (self as unknown as { brinmoorClick: typeof clicked }).brinmoorClick = clicked;
