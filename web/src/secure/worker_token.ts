// The token, kept by the service worker: a notification's Allow or Deny is sent by the
// worker, which has no localStorage. The page hands it over (service_worker_client.ts);
// it is kept in this origin's IndexedDB, as private as the page's own copy, and deleted
// when the page forgets the token.
const kDatabase = 'brinmoor-worker';
const kStore = 'secrets';
const kTokenKey = 'token';

function open(factory: IDBFactory): Promise<IDBDatabase> {
  return new Promise((resolve, reject) => {
    const request = factory.open(kDatabase, 1);
    request.onupgradeneeded = () => request.result.createObjectStore(kStore);
    request.onsuccess = () => resolve(request.result);
    request.onerror = () => reject(request.error ?? new Error('IndexedDB did not open'));
  });
}

async function run(factory: IDBFactory, mode: IDBTransactionMode, act: (store: IDBObjectStore) => IDBRequest): Promise<unknown> {
  const db = await open(factory);
  try {
    return await new Promise<unknown>((resolve, reject) => {
      const transaction = db.transaction(kStore, mode);
      const request = act(transaction.objectStore(kStore));
      transaction.oncomplete = () => resolve(request.result);
      transaction.onerror = () => reject(transaction.error ?? new Error('IndexedDB refused'));
      transaction.onabort = () => reject(transaction.error ?? new Error('IndexedDB refused'));
    });
  } finally {
    db.close();
  }
}

// The page's token, or null to delete it.
export async function keepTokenForWorker(factory: IDBFactory, token: string | null): Promise<void> {
  await run(factory, 'readwrite', (store): IDBRequest => (token === null ? store.delete(kTokenKey) : store.put(token, kTokenKey)));
}

export async function workerToken(factory: IDBFactory): Promise<string | null> {
  const value = await run(factory, 'readonly', (store) => store.get(kTokenKey));
  return typeof value === 'string' && value !== '' ? value : null;
}
