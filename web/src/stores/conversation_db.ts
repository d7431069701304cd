// The chats kept in the browser (IndexedDB), so a reload or another day finds them.
export interface ConversationRecord {
  id: string; // the conversation id the agent continues the chat by
  agentId: string;
  projectPath: string;
  system: string; // "claude" or "codex"
  title: string;
  // The assistant's own session (of `system`) the conversation began as a copy of.
  forkOf?: string;
  createdAt: number;
  updatedAt: number;
}

export type MessageStatus = 'streaming' | 'done' | 'error' | 'cancelled' | 'interrupted';

import type { ActivityLine } from '../protocol/task_log';

export interface MessageRecord {
  conversationId: string;
  index: number;
  role: 'user' | 'assistant';
  text: string;
  taskId: string;
  status: MessageStatus;
  activity: ActivityLine[]; // an older page kept the log lines as they came (strings)
  details?: string[];
  error: string;
  at: number;
}

const kVersion = 1;

function done<T>(request: IDBRequest<T>): Promise<T> {
  return new Promise((resolve, reject) => {
    request.onsuccess = () => resolve(request.result);
    request.onerror = () => reject(request.error);
  });
}

function finished(transaction: IDBTransaction): Promise<void> {
  return new Promise((resolve, reject) => {
    transaction.oncomplete = () => resolve();
    transaction.onerror = () => reject(transaction.error);
    transaction.onabort = () => reject(transaction.error);
  });
}

export class ConversationDB {
  private constructor(private readonly db: IDBDatabase) {}

  static open(factory: IDBFactory, name = 'brinmoor'): Promise<ConversationDB> {
    const request = factory.open(name, kVersion);
    request.onupgradeneeded = () => {
      const db = request.result;
      const conversations = db.createObjectStore('conversations', { keyPath: 'id' });
      conversations.createIndex('scope', ['agentId', 'projectPath']);
      db.createObjectStore('messages', { keyPath: ['conversationId', 'index'] });
    };
    return done(request).then((db) => new ConversationDB(db));
  }

  async conversations(agentId: string, projectPath: string): Promise<ConversationRecord[]> {
    const store = this.db.transaction('conversations').objectStore('conversations');
    const records = await done(store.index('scope').getAll([agentId, projectPath]));
    return (records as ConversationRecord[]).sort((a, b) => b.updatedAt - a.updatedAt);
  }

  async messages(conversationId: string): Promise<MessageRecord[]> {
    const store = this.db.transaction('messages').objectStore('messages');
    const range = IDBKeyRange.bound([conversationId, 0], [conversationId, Infinity]);
    return (await done(store.getAll(range))) as MessageRecord[];
  }

  async save(conversation: ConversationRecord, messages: MessageRecord[]): Promise<void> {
    const transaction = this.db.transaction(['conversations', 'messages'], 'readwrite');
    transaction.objectStore('conversations').put(conversation);
    for (const message of messages) transaction.objectStore('messages').put(message);
    await finished(transaction);
  }

  async clear(): Promise<void> {
    const transaction = this.db.transaction(['conversations', 'messages'], 'readwrite');
    transaction.objectStore('conversations').clear();
    transaction.objectStore('messages').clear();
    await finished(transaction);
  }

  close(): void {
    this.db.close();
  }
}
