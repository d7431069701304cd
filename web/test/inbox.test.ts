import { describe, expect, it, vi } from 'vitest';
import { AppState } from '../src/app_state';
import type { ServerMessage, TaskPayload } from '../src/protocol/messages';
import { PushApi, type FetchLike } from '../src/protocol/push_api';
import { decodePushPayload, sendDecision } from '../src/protocol/push_messages';
import { kGenericPush, notificationOfPush } from '../src/secure/push_notifications';
import { isTarget } from '../src/secure/service_worker_client';
import { ApprovalsStore } from '../src/stores/approvals_store';
import { InboxStore, kLookedKey, shownCard, viewingCard } from '../src/stores/inbox_store';
import { MemoryStorage } from '../src/stores/observable';
import { defaultDeviceName, PushStore, type BrowserSubscription, type PushHost } from '../src/stores/push_store';
import { TasksStore } from '../src/stores/tasks_store';
import { FakeSocket } from './fake_socket';

const m = (message: Record<string, unknown>) => message as unknown as ServerMessage;

// Two machines' tasks and approvals, as the page's stores hold them.
function world(storage = new MemoryStorage()) {
  let next = '';
  const tasks = new TasksStore({ createTask: async () => next, cancelTask: () => true, decideProposal: () => true }, storage, () => 1000);
  const approvals = new ApprovalsStore({ decidePermission: () => true });
  const inbox = new InboxStore(
    {
      pending: () => approvals.pending(),
      tasks: () => tasks.list(),
      task: (taskId) => tasks.get(taskId),
      subscribe: (listener) => {
        const stops = [approvals.subscribe(listener), tasks.subscribe(listener)];
        return () => stops.forEach((stop) => stop());
      },
    },
    storage,
  );
  const run = async (taskId: string, agentId: string, payload: TaskPayload) => {
    next = taskId;
    await tasks.run(agentId, payload);
  };
  return { tasks, approvals, inbox, run, storage };
}

async function filled() {
  const w = world();
  await w.run('chat-1', 'studio-mac', { action: 'chat', prompt: 'Explain the build', projectPath: 'App', conversationId: 'C1' });
  await w.run('shell-1', 'build-box', { action: 'shell', command: 'make test', projectPath: 'Server' });
  await w.run('shell-2', 'build-box', { action: 'shell', command: 'ls', projectPath: 'Server' });
  await w.run('change-1', 'studio-mac', { action: 'ai_task', prompt: 'Rename it', projectPath: 'App' });
  w.tasks.handle(m({ type: 'task.finished', agentId: 'studio-mac', taskId: 'chat-1', exitCode: 0 }));
  w.tasks.handle(m({ type: 'task.failed', agentId: 'build-box', taskId: 'shell-1', error: 'exit status 2', exitCode: 2 }));
  w.tasks.handle(m({ type: 'task.finished', agentId: 'build-box', taskId: 'shell-2', exitCode: 0 }));
  w.tasks.handle(
    m({
      type: 'task.awaiting_approval',
      agentId: 'studio-mac',
      taskId: 'change-1',
      proposalId: 'P',
      proposalSummary: '',
      proposalCommentary: '',
      proposalDiff: '',
      proposalFiles: ['a.swift', 'b.swift'],
    }),
  );
  w.approvals.handle(
    m({ type: 'permission.request', requestId: 'R1', taskId: 'chat-1', agentId: 'studio-mac', toolName: 'Write', toolInput: {} }),
  );
  return w;
}

describe('InboxStore', () => {
  it('lists approvals, reviews, failures and new answers across machines', async () => {
    const { inbox } = await filled();
    expect(inbox.entries().map((entry) => [entry.kind, entry.agentId, entry.taskId])).toEqual([
      ['approval', 'studio-mac', 'chat-1'],
      ['proposal', 'studio-mac', 'change-1'],
      ['failed', 'build-box', 'shell-1'],
      ['answer', 'studio-mac', 'chat-1'],
    ]);
    expect(inbox.count).toBe(4);
    const [approval, proposal, failed, answer] = inbox.entries();
    expect(approval).toMatchObject({ requestId: 'R1', tool: 'Write', projectPath: 'App' });
    expect(proposal).toMatchObject({ files: 2, title: 'Rename it' });
    expect(failed).toMatchObject({ title: 'make test', error: 'exit status 2', projectPath: 'Server' });
    expect(answer).toMatchObject({ conversationId: 'C1', title: 'Explain the build' });
  });

  it('leaves out what was decided, and what the user looked at', async () => {
    const w = await filled();
    w.approvals.handle(m({ type: 'permission.resolved', requestId: 'R1', decision: 'allow', reason: 'client' }));
    w.tasks.decide(w.tasks.get('change-1')!, true);
    w.inbox.look('shell-1');
    expect(w.inbox.entries().map((entry) => entry.key)).toEqual(['answer:chat-1']);
    // Kept in the browser, for the next page.
    expect(JSON.parse(w.storage.getItem(kLookedKey)!)).toEqual(['shell-1']);
    const next = world(w.storage);
    expect(next.inbox.hasLooked('shell-1')).toBe(true);
  });

  it('counts an answer seen when it ends while its chat is shown, not while hidden', async () => {
    const w = world();
    await w.run('chat-2', 'studio-mac', { action: 'chat', prompt: 'Hi', projectPath: 'App', conversationId: 'C2' });
    const place = { agentId: 'studio-mac', projectPath: 'App', tab: 'chat', conversationId: 'C2', taskId: null };
    w.inbox.showing(shownCard(place, null, w.tasks.list()));
    w.tasks.handle(m({ type: 'task.finished', agentId: 'studio-mac', taskId: 'chat-2', exitCode: 0 }));
    expect(w.inbox.count).toBe(0);

    await w.run('chat-3', 'studio-mac', { action: 'chat', prompt: 'Again', projectPath: 'App', conversationId: 'C2' });
    w.inbox.showing(null); // the page went to the background
    w.tasks.handle(m({ type: 'task.finished', agentId: 'studio-mac', taskId: 'chat-3', exitCode: 0 }));
    expect(w.inbox.entries().map((entry) => entry.key)).toEqual(['answer:chat-3']);
    w.inbox.showing(shownCard(place, null, w.tasks.list()));
    expect(w.inbox.count).toBe(0);
  });

  it('does not count a rejected proposal as a failure', async () => {
    const w = world();
    await w.run('change-2', 'mac', { action: 'ai_task', prompt: 'x', projectPath: 'App' });
    w.tasks.handle(
      m({ type: 'task.failed', agentId: 'mac', taskId: 'change-2', error: 'rejected', errorCode: 'APPROVAL_REJECTED', exitCode: 1 }),
    );
    expect(w.inbox.count).toBe(0);
  });
});

describe('the card shown', () => {
  it('is the approval over anything, else the chat, the task or the proposal chosen', async () => {
    const { tasks } = await filled();
    const place = { agentId: 'studio-mac', projectPath: 'App', tab: 'chat', conversationId: 'C1', taskId: null };
    expect(shownCard(place, 'R1', tasks.list())).toEqual({ requestId: 'R1' });
    expect(shownCard(place, null, tasks.list())).toEqual({ taskId: 'chat-1', taskIds: ['chat-1'] });
    expect(shownCard({ ...place, tab: 'tasks', taskId: 'shell-1' }, null, tasks.list())).toEqual({
      taskId: 'shell-1',
      taskIds: ['shell-1'],
    });
    expect(shownCard({ ...place, tab: 'terminal' }, null, tasks.list())).toBeNull();
    expect(shownCard({ ...place, inbox: true }, null, tasks.list())).toBeNull();
    expect(viewingCard({ taskId: 'chat-1', taskIds: ['chat-1'] })).toEqual({ taskId: 'chat-1' });
    expect(viewingCard({ requestId: 'R1' })).toEqual({ requestId: 'R1' });
    expect(viewingCard(null)).toBeNull();
  });
});

describe('ApprovalsStore', () => {
  it('brings the sheet up at the request asked for', () => {
    const store = new ApprovalsStore({ decidePermission: () => true });
    const request = { type: 'permission.request', requestId: 'R1', taskId: 'T', agentId: 'a', toolName: 'Bash', toolInput: {} };
    store.handle(m(request));
    store.handle(m({ ...request, requestId: 'R2' }));
    expect(store.shown()?.requestId).toBe('R1');
    store.reveal('R2');
    expect(store.shown()?.requestId).toBe('R2');
    store.handle(m({ type: 'permission.resolved', requestId: 'R2', decision: 'allow', reason: 'client' }));
    expect(store.shown()?.requestId).toBe('R1');
  });
});

describe('push notifications', () => {
  const approval = {
    kind: 'approval',
    agentId: 'studio-mac',
    projectPath: 'App',
    project: 'App',
    taskId: 'T',
    requestId: 'R',
    tool: 'Write',
  };

  it('says what waits, per kind, and carries the card', () => {
    expect(notificationOfPush(JSON.stringify(approval))).toEqual({
      title: 'Approval needed',
      body: 'Write in App on studio-mac',
      tag: 'approval:R',
      data: { kind: 'approval', requestId: 'R' },
      actions: [
        { action: 'allow', title: 'Allow' },
        { action: 'deny', title: 'Deny' },
      ],
    });
    const task = { agentId: 'mac', projectPath: 'proj/App', project: 'App', taskId: 'T' };
    const card = { agentId: 'mac', projectPath: 'proj/App', taskId: 'T' };
    expect(notificationOfPush(JSON.stringify({ kind: 'proposal', ...task }))).toMatchObject({
      title: 'Changes to review',
      body: 'Proposed changes in App on mac',
      tag: 'proposal:T',
      data: { kind: 'proposal', ...card },
    });
    expect(notificationOfPush(JSON.stringify({ kind: 'failed', ...task }))).toMatchObject({
      title: 'Task failed',
      body: 'A task failed in App on mac',
    });
    expect(notificationOfPush(JSON.stringify({ kind: 'answer', agentId: 'mac', taskId: 'T' }))).toMatchObject({
      title: 'Answer ready',
      body: 'An answer is ready on mac',
      data: { kind: 'answer', agentId: 'mac', projectPath: '', taskId: 'T' },
    });
    expect(notificationOfPush('{"kind":"test","device":"Pixel"}')).toMatchObject({
      title: 'Test notification',
      body: 'Notifications reach Pixel.',
    });
    for (const data of Object.values(notificationOfPush(JSON.stringify({ kind: 'failed', ...task })))) {
      if (typeof data === 'object' && data !== null && 'kind' in data) expect(isTarget(data)).toBe(true);
    }
  });

  it('shows a generic notification for anything it cannot read', () => {
    for (const text of [null, '', 'not json', '[]', '{"kind":"approval"}', '{"kind":"new-thing","agentId":"a","taskId":"t"}']) {
      expect(notificationOfPush(text)).toEqual(kGenericPush);
    }
    expect(decodePushPayload({ ...approval, requestId: 7 })).toBeNull();
  });
});

// A relay's push endpoints as a fetch, recording what the page asked.
function relay(answers: Record<string, [number, unknown]>) {
  const asked: { method: string; url: string; body: unknown; auth: string }[] = [];
  const fetchFn: FetchLike = async (url, init) => {
    const headers = init.headers as Record<string, string>;
    asked.push({ method: init.method!, url, body: init.body ? JSON.parse(init.body as string) : undefined, auth: headers.Authorization });
    const [status, body] = answers[`${init.method} ${url.replace('https://relay', '')}`] ?? [404, { error: 'not found' }];
    return new Response(JSON.stringify(body), { status });
  };
  return { asked, api: new PushApi('https://relay', 'tok', fetchFn) };
}

function host(permission: NotificationPermission = 'default', overrides: Partial<PushHost> = {}) {
  let granted = permission;
  let current: BrowserSubscription | null = null;
  const subscription: BrowserSubscription = {
    endpoint: 'https://push.example/abc',
    toJSON: () => ({ endpoint: 'https://push.example/abc', expirationTime: null, keys: { p256dh: 'K', auth: 'A' } }),
    unsubscribe: async () => ((current = null), true),
  };
  const fake: PushHost & { asks: number; keys: string[] } = {
    asks: 0,
    keys: [],
    supported: () => true,
    needsHomeScreen: () => false,
    permission: () => granted,
    requestPermission: async () => (fake.asks++, (granted = 'granted')),
    current: async () => current,
    subscribe: async (key) => (fake.keys.push(key), (current = subscription)),
    ...overrides,
  };
  return fake;
}

describe('PushStore', () => {
  const devices = {
    subscriptions: [{ id: 'D1', device: 'Chrome on Android', origin: 'https://fcm.googleapis.com', createdAt: 'x', lastPush: null }],
  };

  it('subscribes with the relay key and tells the relay, after the question', async () => {
    const { asked, api } = relay({
      'GET /v1/push/key': [200, { publicKey: 'KEY' }],
      'POST /v1/push/subscriptions': [200, { id: 'D1' }],
      'GET /v1/push/subscriptions': [200, devices],
    });
    const fake = host();
    const storage = new MemoryStorage();
    const push = new PushStore(fake, () => api, storage, 'Chrome on Android');
    await push.prepare();
    expect(push.state).toBe('off');
    await push.turnOn();
    expect([push.state, push.endpoint, push.thisDevice, fake.asks, fake.keys]).toEqual([
      'on',
      'https://push.example/abc',
      'D1',
      1,
      ['KEY'],
    ]);
    const posted = asked.find((call) => call.method === 'POST')!;
    expect(posted).toEqual({
      method: 'POST',
      url: 'https://relay/v1/push/subscriptions',
      auth: 'Bearer tok',
      body: {
        subscription: { endpoint: 'https://push.example/abc', expirationTime: null, keys: { p256dh: 'K', auth: 'A' } },
        device: 'Chrome on Android',
      },
    });
    expect(push.devices.map((device) => device.device)).toEqual(['Chrome on Android']);

    // The next open subscribes again and posts again.
    const again = new PushStore(fake, () => api, storage, 'ignored');
    await again.renew();
    expect(again.state).toBe('on');
    expect(asked.filter((call) => call.method === 'POST').length).toBe(2);
  });

  it("shows the relay's words when push is off, and asks nothing", async () => {
    const off = 'push is off: set BRINMOOR_PUBLIC_URL to the https address phones use, or BRINMOOR_PUSH_CONTACT to a mailto: address';
    const { api } = relay({ 'GET /v1/push/key': [503, { error: off }], 'GET /v1/push/subscriptions': [200, { subscriptions: [] }] });
    const fake = host();
    const push = new PushStore(fake, () => api, new MemoryStorage(), 'x');
    await push.prepare();
    expect(push.problem).toBe(off);
    await push.turnOn();
    expect([push.problem, fake.asks, push.state]).toEqual([off, 0, 'off']);
  });

  it('tests and removes devices, with the answer or the error', async () => {
    const { asked, api } = relay({
      'GET /v1/push/subscriptions': [200, devices],
      'POST /v1/push/subscriptions/D1/test': [502, { error: 'the push service answered 410: gone' }],
      'DELETE /v1/push/subscriptions/D1': [200, { ok: true }],
    });
    const push = new PushStore(host('granted'), () => api, new MemoryStorage(), 'x');
    await push.test('D1');
    expect(push.tests.get('D1')).toBe('the push service answered 410: gone');
    await push.remove('D1');
    expect(asked.map((call) => `${call.method} ${call.url}`)).toContain('DELETE https://relay/v1/push/subscriptions/D1');
  });

  it('explains the Home Screen on an iPhone outside it', () => {
    const push = new PushStore(
      host('default', { needsHomeScreen: () => true, supported: () => false }),
      () => null,
      new MemoryStorage(),
      'x',
    );
    expect(push.state).toBe('home-screen');
  });

  it('names the device after its browser', () => {
    const android = 'Mozilla/5.0 (Linux; Android 14; Pixel 8) AppleWebKit/537.36 (KHTML, like Gecko) Chrome/129.0 Mobile Safari/537.36';
    const iphone =
      'Mozilla/5.0 (iPhone; CPU iPhone OS 17_5 like Mac OS X) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.5 Mobile/15E148 Safari/604.1';
    const ipad = 'Mozilla/5.0 (Macintosh; Intel Mac OS X 10_15_7) AppleWebKit/605.1.15 (KHTML, like Gecko) Version/17.5 Safari/605.1.15';
    expect(defaultDeviceName(android)).toBe('Chrome on Android');
    expect(defaultDeviceName(iphone)).toBe('Safari on iPhone');
    expect(defaultDeviceName(ipad, 5)).toBe('Safari on iPad');
    expect(defaultDeviceName(ipad)).toBe('Safari on Mac');
  });

  it("sends a notification's decision with the token, and says why the relay refused", async () => {
    const asked: { url: string; init: RequestInit }[] = [];
    const answer = (status: number, body: unknown) => async (url: string, init: RequestInit) => {
      asked.push({ url, init });
      return new Response(JSON.stringify(body), { status });
    };
    await sendDecision('https://relay', 'tok', 'R1', 'allow', answer(200, { requestId: 'R1', decision: 'allow', reason: 'client' }));
    expect(asked[0].url).toBe('https://relay/v1/push/decision');
    expect(asked[0].init.method).toBe('POST');
    expect((asked[0].init.headers as Record<string, string>).Authorization).toBe('Bearer tok');
    expect(JSON.parse(asked[0].init.body as string)).toEqual({ requestId: 'R1', decision: 'allow' });
    await expect(
      sendDecision('https://relay', 'tok', 'R9', 'deny', answer(404, { error: 'no pending permission request: R9' })),
    ).rejects.toThrow('no pending permission request: R9');
  });
});

describe('client.viewing', () => {
  it('tells the relay which card this device shows, by its push endpoint, and nothing when hidden', async () => {
    vi.stubGlobal('WebSocket', FakeSocket);
    // A relay that cannot be reached over HTTP: the subscription the browser has is enough.
    vi.stubGlobal('fetch', () => Promise.reject(new Error('offline')));
    try {
      const fake = host('granted');
      await fake.subscribe('KEY');
      const storage = new MemoryStorage();
      storage.setItem('brinmoor.pushDeviceId', 'D1');
      const state = new AppState('http://relay.test', storage, null, { host: fake, deviceName: 'Pixel' });
      state.useToken('tok');
      const socket = FakeSocket.last();
      socket.open();
      socket.receive({ type: 'server.hello', agents: [] });
      await vi.waitFor(() => expect(state.push.endpoint).toBe('https://push.example/abc'));
      const viewing = () => socket.sent.filter((message) => (message as { type: string }).type === 'client.viewing');
      await vi.waitFor(() => expect(viewing()).toEqual([{ type: 'client.viewing', endpoint: 'https://push.example/abc', card: null }]));
      state.navigation.go({ agentId: 'mac', projectPath: 'App', tab: 'tasks', taskId: 'T1' });
      state.setHidden(true);
      state.setHidden(false);
      state.navigation.go({ tab: 'terminal' });
      expect(viewing().slice(1)).toEqual([
        { type: 'client.viewing', endpoint: 'https://push.example/abc', card: { taskId: 'T1' } },
        { type: 'client.viewing', endpoint: 'https://push.example/abc', card: null },
        { type: 'client.viewing', endpoint: 'https://push.example/abc', card: { taskId: 'T1' } },
        { type: 'client.viewing', endpoint: 'https://push.example/abc', card: null },
      ]);
      state.connection.replace(null);
    } finally {
      vi.unstubAllGlobals();
    }
  });

  it('sends nothing from a device without a subscription', () => {
    vi.stubGlobal('WebSocket', FakeSocket);
    try {
      const state = new AppState('http://relay.test', new MemoryStorage(), null);
      state.useToken('tok');
      const socket = FakeSocket.last();
      socket.open();
      socket.receive({ type: 'server.hello', agents: [] });
      state.navigation.go({ agentId: 'mac', projectPath: 'App', tab: 'tasks', taskId: 'T1' });
      expect(socket.sent.some((message) => (message as { type: string }).type === 'client.viewing')).toBe(false);
      state.connection.replace(null);
    } finally {
      vi.unstubAllGlobals();
    }
  });
});
