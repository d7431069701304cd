// Brinmoor Web's service worker (served as /sw.js, scope "/"): the app shell of this
// build for when the relay cannot be reached, and the notifications' clicks.
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

// What a click on a notification asks of the page; a page that is not open is opened.
self.addEventListener('notificationclick', (event) => {
  event.notification.close();
  const data: unknown = event.notification.data;
  event.waitUntil(
    (async () => {
      const windows = await self.clients.matchAll({ type: 'window', includeUncontrolled: true });
      const client = windows.find((w) => new URL(w.url).origin === self.location.origin);
      if (client) {
        await client.focus();
        client.postMessage({ type: 'brinmoor.notificationclick', data });
        return;
      }
      const opened = await self.clients.openWindow('/');
      opened?.postMessage({ type: 'brinmoor.notificationclick', data });
    })(),
  );
});
