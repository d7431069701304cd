import 'fake-indexeddb/auto';
import { describe, expect, it } from 'vitest';
import type { DeskSession, SessionHistory } from '../src/protocol/desk_sessions';
import { decodeServerMessage, type TaskPayload } from '../src/protocol/messages';
import { RelayClient, RelayError } from '../src/protocol/relay_client';
import { ConversationDB } from '../src/stores/conversation_db';
import { ConversationsStore } from '../src/stores/conversations_store';
import { DeskSessionsStore, overlap } from '../src/stores/desk_sessions_store';
import { liveNote, liveText, messagesText, startedByText, whenText } from '../src/views/session_words';
import { FakeSocket } from './fake_socket';

const kId = '0b7c3f8e-2a41-4d6b-9c57-3e1f2a9d8b64';

const session = (changes: Partial<DeskSession> = {}): DeskSession => ({
  tool: 'claude',
  id: kId,
  title: 'Fix the login page',
  updatedAt: '2026-11-24T10:00:02.000Z',
  messages: 1,
  live: null,
  startedBy: 'desk',
  resumeCommand: `cd '/work/App' && claude --resume ${kId}`,
  ...changes,
});

const history = (first: number, total: number, texts: string[]): SessionHistory => ({
  session: session(),
  first,
  total,
  items: texts.map((text, i) => ({ kind: i % 2 === 0 ? 'user' : 'assistant', text })),
});

// A promise the test settles when it likes.
function deferred<T>() {
  let resolve!: (value: T) => void;
  let reject!: (error: unknown) => void;
  const promise = new Promise<T>((yes, no) => ((resolve = yes), (reject = no)));
  return { promise, resolve, reject };
}

const flush = () => new Promise((resolve) => setTimeout(resolve, 0));

describe('the messages of desk sessions', () => {
  it('keeps the well-formed sessions of a list and fills what is missing', () => {
    const message = decodeServerMessage(
      JSON.stringify({
        type: 'sessions.listed',
        agentId: 'mac',
        requestId: 'Q',
        projectPath: 'App',
        sessions: [
          session(),
          {
            tool: 'codex',
            id: 'th-1',
            title: 'Add tests',
            updatedAt: '2026-11-24T09:00:00Z',
            messages: 3,
            live: 'busy',
            startedBy: 'phone',
          },
          { tool: 'gemini', id: 'x' },
          { tool: 'claude' },
          'nonsense',
          { ...session(), id: 'other', live: 'asleep', messages: -2 },
        ],
      }),
    );
    expect(message).toEqual({
      type: 'sessions.listed',
      agentId: 'mac',
      requestId: 'Q',
      projectPath: 'App',
      sessions: [
        session(),
        {
          tool: 'codex',
          id: 'th-1',
          title: 'Add tests',
          updatedAt: '2026-11-24T09:00:00Z',
          messages: 3,
          live: 'busy',
          startedBy: 'phone',
          resumeCommand: '',
        },
        { ...session(), id: 'other', live: null, messages: 0 },
      ],
    });
    expect(decodeServerMessage(JSON.stringify({ type: 'sessions.listed', requestId: 'Q', sessions: [] }))).toBeNull();
  });

  it('reads a page of turns, or the reason there is none', () => {
    const page = decodeServerMessage(
      JSON.stringify({
        type: 'sessions.history',
        requestId: 'Q',
        tool: 'claude',
        id: kId,
        session: session(),
        first: 0,
        total: 4,
        items: [
          { kind: 'user', text: 'Fix it', at: '2026-11-24T10:00:01.000Z' },
          { kind: 'tool_use', name: 'Bash', text: 'npm test' },
          { kind: 'tool_result', text: 'failed', isError: true },
          { kind: 'thinking', text: '…' },
          { kind: 'assistant', text: 'Done.', isError: 'no' },
        ],
      }),
    );
    expect(page).toMatchObject({
      first: 0,
      total: 4,
      items: [
        { kind: 'user', text: 'Fix it', at: '2026-11-24T10:00:01.000Z' },
        { kind: 'tool_use', name: 'Bash', text: 'npm test' },
        { kind: 'tool_result', text: 'failed', isError: true },
        { kind: 'assistant', text: 'Done.' },
      ],
    });
    const missing = decodeServerMessage(
      JSON.stringify({ type: 'sessions.history', requestId: 'Q', tool: 'claude', id: kId, error: 'no claude session ID on this computer' }),
    );
    expect(missing).toEqual({
      type: 'sessions.history',
      requestId: 'Q',
      tool: 'claude',
      id: kId,
      error: 'no claude session ID on this computer',
    });
    // Without the error, the session, its numbers and its items must be there.
    expect(decodeServerMessage(JSON.stringify({ type: 'sessions.history', requestId: 'Q', tool: 'claude', id: kId, first: 0 }))).toBeNull();
    expect(
      decodeServerMessage(
        JSON.stringify({
          type: 'sessions.history',
          requestId: 'Q',
          tool: 'claude',
          id: kId,
          session: session(),
          first: -1,
          total: 0,
          items: [],
        }),
      ),
    ).toBeNull();
  });

  it("asks in the relay's words and matches the answers by requestId", async () => {
    const client = new RelayClient({
      origin: 'http://relay.test',
      token: 'secret',
      createSocket: (url, protocols) => new FakeSocket(url, protocols),
    });
    client.start();
    const socket = FakeSocket.last();
    socket.open();
    socket.receive({ type: 'server.hello', agents: [] });
    const list = client.listSessions('mac', 'App');
    const newest = client.readSession('mac', 'claude', kId);
    const earlier = client.readSession('mac', 'claude', kId, 500);
    const missing = client.readSession('mac', 'codex', 'gone');
    const refused = client.listSessions('away', 'App');
    const sent = socket.sent as Record<string, unknown>[];
    const ids = sent.map((message) => message.requestId);
    expect(sent).toEqual([
      { type: 'sessions.list', agentId: 'mac', payload: { projectPath: 'App' }, requestId: ids[0] },
      { type: 'sessions.read', agentId: 'mac', payload: { tool: 'claude', id: kId }, requestId: ids[1] },
      { type: 'sessions.read', agentId: 'mac', payload: { tool: 'claude', id: kId, before: 500 }, requestId: ids[2] },
      { type: 'sessions.read', agentId: 'mac', payload: { tool: 'codex', id: 'gone' }, requestId: ids[3] },
      { type: 'sessions.list', agentId: 'away', payload: { projectPath: 'App' }, requestId: ids[4] },
    ]);
    socket.receive({ type: 'error', code: 'AGENT_OFFLINE', message: 'agent away is offline', requestId: ids[4] });
    socket.receive({
      type: 'sessions.history',
      requestId: ids[3],
      tool: 'codex',
      id: 'gone',
      error: 'no codex session gone on this computer',
    });
    socket.receive({ type: 'sessions.history', requestId: ids[2], tool: 'claude', id: kId, ...history(0, 502, ['a', 'b']) });
    socket.receive({ type: 'sessions.history', requestId: ids[1], tool: 'claude', id: kId, ...history(500, 502, ['c', 'd']) });
    socket.receive({ type: 'sessions.listed', requestId: ids[0], projectPath: 'App', sessions: [session()] });
    await expect(list).resolves.toEqual([session()]);
    await expect(newest).resolves.toMatchObject({ first: 500, total: 502, items: [{ text: 'c' }, { text: 'd' }] });
    await expect(earlier).resolves.toMatchObject({ first: 0, items: [{ text: 'a' }, { text: 'b' }] });
    await expect(missing).rejects.toEqual(new RelayError('SESSION_NOT_FOUND', 'no codex session gone on this computer'));
    await expect(refused).rejects.toMatchObject({ code: 'AGENT_OFFLINE' });
  });
});

describe('DeskSessionsStore', () => {
  it('lists a project, says why it could not, and keeps the list through a refresh', async () => {
    const answers: ReturnType<typeof deferred<DeskSession[]>>[] = [];
    const store = new DeskSessionsStore({
      listSessions: () => {
        answers.push(deferred<DeskSession[]>());
        return answers[answers.length - 1].promise;
      },
      readSession: () => Promise.reject(new Error('not asked')),
      watchSession: () => false,
    });
    expect(store.list('mac', 'App')).toBeUndefined();
    const first = store.refresh('mac', 'App');
    expect(store.list('mac', 'App')).toEqual({ loading: true, sessions: null, error: '' });
    answers[0].resolve([session()]);
    await first;
    expect(store.list('mac', 'App')).toEqual({ loading: false, sessions: [session()], error: '' });
    const second = store.refresh('mac', 'App');
    expect(store.list('mac', 'App')).toMatchObject({ loading: true, sessions: [session()] });
    answers[1].reject(new RelayError('AGENT_OFFLINE', 'agent mac is offline'));
    await second;
    expect(store.list('mac', 'App')).toEqual({ loading: false, sessions: [session()], error: 'The computer is offline.' });
    // An answer that comes after a newer one was asked for is dropped.
    const older = store.refresh('mac', 'App');
    const newer = store.refresh('mac', 'App');
    answers[3].resolve([]);
    await newer;
    answers[2].resolve([session()]);
    await older;
    expect(store.list('mac', 'App')!.sessions).toEqual([]);
  });

  it('reads the newest turns, pages back before the first, and finds the session', async () => {
    const reads: { before?: number; answer: ReturnType<typeof deferred<SessionHistory>> }[] = [];
    let now = 1000;
    const store = new DeskSessionsStore(
      {
        listSessions: async () => [session()],
        readSession: (_agentId, _tool, _id, before) => {
          const answer = deferred<SessionHistory>();
          reads.push({ before, answer });
          return answer.promise;
        },
        watchSession: () => false,
      },
      () => now,
    );
    await store.refresh('mac', 'App');
    expect(store.find('mac', 'App', 'claude', kId)).toEqual(session());
    const opening = store.open('mac', 'claude', kId);
    expect(store.history('mac', 'claude', kId)).toMatchObject({ loading: true, items: [] });
    reads[0].answer.resolve({ ...history(2, 4, ['c', 'd']), session: session({ live: 'busy' }) });
    await opening;
    expect(store.history('mac', 'claude', kId)).toMatchObject({ loading: false, first: 2, total: 4, readAt: 1000 });
    // What the read said of the session is what the list says too.
    expect(store.list('mac', 'App')!.sessions![0].live).toBe('busy');
    expect(store.find('mac', 'App', 'claude', kId)!.live).toBe('busy');
    const paging = store.earlier('mac', 'claude', kId);
    expect(reads[1].before).toBe(2);
    expect(store.history('mac', 'claude', kId)!.loadingEarlier).toBe(true);
    // A second ask while the first waits is not sent.
    void store.earlier('mac', 'claude', kId);
    expect(reads).toHaveLength(2);
    reads[1].answer.resolve(history(0, 4, ['a', 'b']));
    await paging;
    const turns = store.history('mac', 'claude', kId)!;
    expect([turns.first, turns.items.map((i) => i.text), turns.loadingEarlier]).toEqual([0, ['a', 'b', 'c', 'd'], false]);
    // Nothing is before the first item.
    await store.earlier('mac', 'claude', kId);
    expect(reads).toHaveLength(2);
    // A list read later says how the session is now.
    await store.refresh('mac', 'App');
    expect(store.find('mac', 'App', 'claude', kId)!.live).toBeNull();
    // Read again, the newest replace what was read.
    now = 2000;
    const again = store.open('mac', 'claude', kId);
    reads[2].answer.reject(new RelayError('SESSION_NOT_FOUND', 'no claude session X on this computer'));
    await again;
    expect(store.history('mac', 'claude', kId)).toMatchObject({
      error: 'no claude session X on this computer',
      items: turns.items,
      readAt: 1000,
    });
  });
});

describe('watching a desk session', () => {
  const item = (kind: 'user' | 'assistant', text: string, at: string) => ({ kind, text, at });
  const grew = (items: unknown[], seq?: number) =>
    decodeServerMessage(JSON.stringify({ type: 'sessions.grew', agentId: 'mac', seq, tool: 'claude', id: kId, items }))!;
  const texts = (store: DeskSessionsStore) => store.history('mac', 'claude', kId)!.items.map((i) => i.text);

  function watchedStore() {
    const reads: ReturnType<typeof deferred<SessionHistory>>[] = [];
    const watches: string[] = [];
    const store = new DeskSessionsStore({
      listSessions: async () => [session({ live: 'busy' })],
      readSession: () => {
        reads.push(deferred<SessionHistory>());
        return reads[reads.length - 1].promise;
      },
      watchSession: (agentId, tool, id, watch) => (watches.push(`${watch ? 'watch' : 'unwatch'} ${agentId} ${tool} ${id}`), true),
    });
    return { store, reads, watches };
  }

  const read = (items: { kind: 'user' | 'assistant'; text: string; at: string }[], first = 0): SessionHistory => ({
    session: session({ live: 'busy' }),
    first,
    total: first + items.length,
    items,
  });

  it('decodes what a watch says: the turns added, or why there is no watch', () => {
    expect(grew([item('user', 'a', 'T1'), { kind: 'thought' }, item('assistant', 'b', 'T2')], 7)).toEqual({
      type: 'sessions.grew',
      agentId: 'mac',
      seq: 7,
      tool: 'claude',
      id: kId,
      items: [item('user', 'a', 'T1'), item('assistant', 'b', 'T2')],
    });
    expect(
      decodeServerMessage(
        JSON.stringify({ type: 'sessions.grew', agentId: 'mac', tool: 'claude', id: 'x', error: 'no claude session x on this computer' }),
      ),
    ).toEqual({ type: 'sessions.grew', agentId: 'mac', tool: 'claude', id: 'x', error: 'no claude session x on this computer' });
    expect(decodeServerMessage(JSON.stringify({ type: 'sessions.grew', agentId: 'mac', tool: 'claude', id: 'x' }))).toBeNull();
    expect(decodeServerMessage(JSON.stringify({ type: 'sessions.grew', tool: 'claude', id: 'x', items: [] }))).toBeNull();
  });

  it("says watch and unwatch in the relay's words", () => {
    const client = new RelayClient({
      origin: 'http://relay.test',
      token: 'secret',
      createSocket: (url, protocols) => new FakeSocket(url, protocols),
    });
    client.start();
    expect(client.watchSession('mac', 'claude', kId)).toBe(false);
    const socket = FakeSocket.last();
    socket.open();
    socket.receive({ type: 'server.hello', agents: [] });
    expect(client.watchSession('mac', 'claude', kId)).toBe(true);
    expect(client.unwatchSession('mac', 'claude', kId)).toBe(true);
    expect(socket.sent).toEqual([
      { type: 'sessions.watch', agentId: 'mac', payload: { tool: 'claude', id: kId } },
      { type: 'sessions.unwatch', agentId: 'mac', payload: { tool: 'claude', id: kId } },
    ]);
  });

  it('adds the turns the desk writes after those read, each once, until unwatched', async () => {
    const { store, reads, watches } = watchedStore();
    store.handle({ type: 'server.hello', agents: [{ agentId: 'mac', seq: 10 } as never] });
    const watching = store.watch('mac', 'claude', kId);
    expect(watches).toEqual([`watch mac claude ${kId}`]);
    expect(store.history('mac', 'claude', kId)).toMatchObject({ loading: true, watching: true });
    // The watch started before the read looked: its first turns are the read's last.
    store.handle(grew([item('user', 'two', 'T3'), item('assistant', 'two done', 'T4')], 11));
    reads[0].resolve(read([item('user', 'one', 'T1'), item('assistant', 'one done', 'T2'), item('user', 'two', 'T3')]));
    await watching;
    expect(texts(store)).toEqual(['one', 'one done', 'two', 'two done']);
    store.handle(grew([item('user', 'three', 'T5')], 12));
    expect(texts(store)).toEqual(['one', 'one done', 'two', 'two done', 'three']);
    expect(store.history('mac', 'claude', kId)!.total).toBe(5);
    // A replay of what an earlier socket's watch was told is in the read already.
    store.handle(grew([item('user', 'old', 'T0')], 9));
    expect(texts(store)).toHaveLength(5);
    // Another session's turns are not this one's.
    store.handle({ ...grew([item('user', 'else', 'T9')], 13), id: 'other' } as never);
    expect(texts(store)).toHaveLength(5);
    store.unwatch('mac', 'claude', kId);
    expect(watches).toEqual([`watch mac claude ${kId}`, `unwatch mac claude ${kId}`]);
    expect(store.history('mac', 'claude', kId)!.watching).toBe(false);
    store.handle(grew([item('assistant', 'four', 'T6')], 14));
    expect(texts(store)).toEqual(['one', 'one done', 'two', 'two done', 'three']);
    // Unwatched once.
    store.unwatch('mac', 'claude', kId);
    store.unwatchAll();
    expect(watches).toHaveLength(2);
  });

  it('keeps what it was given through a page of earlier turns and a failed read, and says why it cannot watch', async () => {
    const { store, reads, watches } = watchedStore();
    const watching = store.watch('mac', 'claude', kId);
    reads[0].resolve(read([item('user', 'three', 'T5')], 2));
    await watching;
    store.handle(grew([item('assistant', 'three done', 'T6')]));
    const paging = store.earlier('mac', 'claude', kId);
    store.handle(grew([item('user', 'four', 'T7')]));
    reads[1].resolve(read([item('user', 'one', 'T1'), item('assistant', 'two', 'T2')], 0));
    await paging;
    expect(texts(store)).toEqual(['one', 'two', 'three', 'three done', 'four']);
    // Read again while the desk writes, and the read fails: what came meanwhile follows.
    const again = store.open('mac', 'claude', kId);
    store.handle(grew([item('assistant', 'four done', 'T8')]));
    reads[2].reject(new RelayError('NOT_CONNECTED', 'the connection to the relay was lost'));
    await again;
    expect(texts(store)).toEqual(['one', 'two', 'three', 'three done', 'four', 'four done']);
    expect(store.history('mac', 'claude', kId)!.error).toBe('Not connected to the relay.');
    store.handle({ ...grew([]), items: undefined, error: `no claude session ${kId} on this computer` } as never);
    expect(store.history('mac', 'claude', kId)).toMatchObject({ watching: false, watchError: `no claude session ${kId} on this computer` });
    // The agent keeps no watch: none to end.
    store.unwatchAll();
    expect(watches).toEqual([`watch mac claude ${kId}`]);
  });

  it('finds the overlap by whole turns', () => {
    const a = item('user', 'a', 'T1');
    const b = item('assistant', 'b', 'T2');
    const c = item('user', 'c', 'T3');
    expect(overlap([a, b], [b, c])).toBe(1);
    expect(overlap([a, b], [a, b, c])).toBe(2);
    expect(overlap([a, b], [c])).toBe(0);
    expect(overlap([], [a])).toBe(0);
    // The same words at another time are a new turn.
    expect(overlap([a], [{ ...a, at: 'T9' }])).toBe(0);
  });
});

describe('continuing a desk session', () => {
  it("is a chat whose conversation id is the session's, titled as the session", async () => {
    const db = await ConversationDB.open(indexedDB, 'sessions-test-1');
    const payloads: TaskPayload[] = [];
    const sender = {
      run: async (_agentId: string, payload: TaskPayload) => (payloads.push(payload), { taskId: 'T' + payloads.length }),
      cancel: () => true,
    };
    const store = new ConversationsStore(db, sender, () => 42);
    const conversation = await store.continuing('mac', 'App', 'claude', kId, 'Fix the login page');
    await store.send(conversation.id, 'Now the signup page\ntoo');
    expect(payloads).toEqual([
      {
        action: 'chat',
        system: 'claude',
        projectPath: 'App',
        prompt: 'Now the signup page\ntoo',
        conversationId: kId,
        approvalMode: 'on_request',
      },
    ]);
    expect(conversation.title).toBe('Fix the login page');
    // The same conversation goes on, found again after a reload.
    expect(await store.continuing('mac', 'App', 'claude', kId, 'Other')).toBe(conversation);
    await flush();
    const reloaded = new ConversationsStore(db, sender, () => 43);
    const found = await reloaded.continuing('mac', 'App', 'claude', kId, 'Other');
    expect([found.id, found.title, found.messages!.map((m) => m.role)]).toEqual([kId, 'Fix the login page', ['user', 'assistant']]);
    expect(reloaded.list('mac', 'App').map((c) => c.id)).toEqual([kId]);
  });

  it('is refused while the desk holds it, and a fork is a new chat whose first message names the session', async () => {
    const db = await ConversationDB.open(indexedDB, 'sessions-test-2');
    const payloads: TaskPayload[] = [];
    const sender = {
      run: async (_agentId: string, payload: TaskPayload) => (payloads.push(payload), { taskId: 'T' + payloads.length }),
      cancel: () => true,
    };
    const store = new ConversationsStore(db, sender, () => 42);
    const continued = await store.continuing('mac', 'App', 'claude', kId, 'Fix the login page');
    const answer = await store.send(continued.id, 'Go on');
    const error = 'this session is open at the desk (busy); continue it there, or fork it';
    store.handle({ type: 'task.failed', agentId: 'mac', taskId: 'T1', error, errorCode: 'SESSION_OPEN_AT_DESK', exitCode: 1 });
    expect([answer.status, answer.error, answer.errorCode]).toEqual(['error', error, 'SESSION_OPEN_AT_DESK']);

    const copy = store.fork('mac', 'App', 'claude', kId);
    expect(copy.id).toMatch(/^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$/);
    await store.send(copy.id, 'Try another way');
    await store.send(copy.id, 'And test it');
    expect(payloads.slice(1)).toEqual([
      {
        action: 'chat',
        system: 'claude',
        projectPath: 'App',
        prompt: 'Try another way',
        conversationId: copy.id,
        approvalMode: 'on_request',
        forkOf: kId,
      },
      {
        action: 'chat',
        system: 'claude',
        projectPath: 'App',
        prompt: 'And test it',
        conversationId: copy.id,
        approvalMode: 'on_request',
      },
    ]);
    expect(copy.title).toBe('Try another way');
    // Found again after a reload, still a copy.
    await flush();
    const reloaded = new ConversationsStore(db, sender, () => 43);
    const found = await reloaded.continuing('mac', 'App', 'claude', copy.id, 'Other');
    expect([found.title, found.forkOf]).toEqual(['Try another way', kId]);
  });
});

describe('the words of the Sessions view', () => {
  const now = Date.parse('2026-11-24T12:00:00Z');
  it('says when, how many, from where and what the desk does', () => {
    expect(whenText('2026-11-24T11:59:30Z', now)).toBe('just now');
    expect(whenText('2026-11-24T11:55:00Z', now)).toBe('5 min ago');
    expect(whenText('2026-11-24T09:00:00Z', now)).toBe('3 h ago');
    expect(whenText('2026-11-20T09:00:00Z', now)).toMatch(/^Nov (19|20)$/);
    expect(whenText('2025-03-02T12:00:00Z', now)).toMatch(/^Mar [12], 2025$/);
    expect(whenText('not a time', now)).toBe('');
    expect([messagesText(1), messagesText(0), messagesText(12)]).toEqual(['1 message', '0 messages', '12 messages']);
    expect([startedByText(session()), startedByText(session({ startedBy: 'phone' }))]).toEqual(['from the desk', 'from the phone']);
    expect([liveText(null), liveText('busy'), liveText('waiting')]).toEqual(['', 'busy at the desk', 'waiting at the desk']);
    expect(liveNote('busy')).toBe('Open at the desk (busy): continuing here is refused while it is open there.');
    expect(liveNote('idle')).toBe('Open at the desk (idle): continuing here is refused while it is open there.');
  });
});
