// The smallest store base: listeners called after every change, and a version number a
// view can compare to know whether to render again.
export class Observable {
  private readonly listeners = new Set<() => void>();
  private changes = 0;

  get version(): number {
    return this.changes;
  }

  subscribe(listener: () => void): () => void {
    this.listeners.add(listener);
    return () => this.listeners.delete(listener);
  }

  protected changed(): void {
    this.changes++;
    for (const listener of [...this.listeners]) listener();
  }
}

// What the stores keep in the browser's localStorage; tests give a Map-backed one.
export interface KeyValueStorage {
  getItem(key: string): string | null;
  setItem(key: string, value: string): void;
  removeItem(key: string): void;
}

export class MemoryStorage implements KeyValueStorage {
  private readonly items = new Map<string, string>();
  getItem(key: string): string | null {
    return this.items.has(key) ? this.items.get(key)! : null;
  }
  setItem(key: string, value: string): void {
    this.items.set(key, String(value));
  }
  removeItem(key: string): void {
    this.items.delete(key);
  }
}

export function readJSON<T>(storage: KeyValueStorage, key: string, fallback: T): T {
  try {
    const text = storage.getItem(key);
    return text === null ? fallback : (JSON.parse(text) as T);
  } catch {
    return fallback;
  }
}
