// How the service worker treats a request. It keeps only the app shell of one build,
// written when it is installed, and never anything the relay answers: every request
// under /v1 (the API, the WebSockets) goes to the network untouched, and no request URL
// ever becomes a cache key, so neither an answer nor the token can end up in a cache.
export type ShellRoute =
  | 'network' // not intercepted: the browser fetches it as if there were no worker
  | 'shell' // a navigation: the network, or the cached index when there is none
  | 'precached'; // a file of this build's shell, from the cache

export interface RequestFacts {
  url: string;
  method: string;
  mode: string;
}

export function isRelayPath(path: string): boolean {
  return path === '/v1' || path.startsWith('/v1/');
}

export function shellRoute(request: RequestFacts, origin: string, shellFiles: ReadonlySet<string>): ShellRoute {
  if (request.method !== 'GET') return 'network';
  let url: URL;
  try {
    url = new URL(request.url);
  } catch {
    return 'network';
  }
  if (url.origin !== origin || isRelayPath(url.pathname)) return 'network';
  if (request.mode === 'navigate') return 'shell';
  if (url.search === '' && shellFiles.has(url.pathname)) return 'precached';
  return 'network';
}

// Caches of the shell are named after the build; the worker of a new build deletes the
// others when it takes over.
export const kShellCachePrefix = 'brinmoor-shell-';

export function shellCacheName(version: string): string {
  return kShellCachePrefix + version;
}

export function staleShellCaches(names: readonly string[], current: string): string[] {
  return names.filter((name) => name.startsWith(kShellCachePrefix) && name !== current);
}
