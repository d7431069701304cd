import { beforeEach, describe, expect, it } from 'vitest';
import { RelayClient, RelayError, randomId, type ConnectionState } from '../src/protocol/relay_client';
import { FakeSocket } from './fake_socket';

interface Harness {
  client: RelayClient;
  timers: { callback: () => void; ms: number; cleared: boolean }[];
  states: ConnectionState[];
  probeStatus: number;
  probes: string[];
}

function harness(): Harness {
  const h = { timers: [], states: [], probeStatus: 0, probes: [] } as unknown as Harness;
  h.client = new RelayClient({
    origin: 'http://relay.test:8080',
    token: 'secret',
    createSocket: (url, protocols) => new FakeSocket(url, protocols),
    probe: async (origin, token) => {
      h.probes.push(origin + ' ' + token);
      return h.probeStatus;
    },
    setTimer: (callback, ms) => {
      const timer = { callback, ms, cleared: false };
      h.timers.push(timer);
      return timer;
    },
    clearTimer: (timer) => ((timer as { cleared: boolean }).cleared = true),
    random: () => 0.5,
  });
  h.client.onState((state) => h.states.push(state));
  return h;
}

const hello = { type: 'server.hello', agents: [] };

// The timers of reconnecting, without the hello time-outs every socket has.
function retries(h: Harness) {
  return h.timers.filter((timer) => timer.ms !== 10000);
}

describe('RelayClient', () => {
  beforeEach(() => {
    FakeSocket.created = [];
  });

  it('connects with the token as a subprotocol and is open after the hello', () => {
    const h = harness();
    h.client.start();
    const socket = FakeSocket.last();
    expect(socket.url).toBe('ws://relay.test:8080/v1/ws/client');
    expect(socket.protocols).toEqual(['brinmoor.v1', 'bearer.secret']);
    socket.open();
    expect(h.client.state).toBe('connecting');
    socket.receive(hello);
    expect(h.states).toEqual(['connecting', 'open']);
  });

  it('matches answers by requestId', async () => {
    const h = harness();
    h.client.start();
    const socket = FakeSocket.last();
    socket.open();
    socket.receive(hello);
    const created = h.client.createTask('mac', { action: 'shell', command: 'ls' });
    const refused = h.client.createTask('gone', { action: 'shell', command: 'ls' });
    const [first, second] = socket.sent as { requestId: string }[];
    expect(first).toEqual({ type: 'task.create', agentId: 'mac', payload: { action: 'shell', command: 'ls' }, requestId: first.requestId });
    socket.receive({ type: 'error', code: 'AGENT_OFFLINE', message: 'agent is not connected: gone', requestId: second.requestId });
    socket.receive({ type: 'task.created', taskId: 'T1', agentId: 'mac', requestId: first.requestId });
    await expect(created).resolves.toBe('T1');
    await expect(refused).rejects.toEqual(new RelayError('AGENT_OFFLINE', 'agent is not connected: gone'));
  });

  it('refuses a request while not connected and fails waiting ones when the connection is lost', async () => {
    const h = harness();
    await expect(h.client.createTask('mac', { action: 'shell' })).rejects.toThrow('not connected to the relay');
    h.client.start();
    FakeSocket.last().open();
    FakeSocket.last().receive(hello);
    const waiting = h.client.createTask('mac', { action: 'shell' });
    FakeSocket.last().drop();
    await expect(waiting).rejects.toThrow('the connection to the relay was lost');
  });

  it('reconnects with growing back-off and starts again from the first delay after a hello', async () => {
    const h = harness();
    h.client.start();
    FakeSocket.last().open();
    FakeSocket.last().receive(hello);
    FakeSocket.last().drop();
    expect(h.client.state).toBe('waiting');
    for (let i = 0; i < 6; i++) {
      retries(h)[retries(h).length - 1].callback();
      FakeSocket.last().drop(); // never opens: the relay is away
      await Promise.resolve();
      await Promise.resolve();
    }
    expect(retries(h).map((t) => t.ms)).toEqual([500, 1000, 2000, 4000, 8000, 15000, 15000]);
    retries(h)[retries(h).length - 1].callback();
    FakeSocket.last().open();
    FakeSocket.last().receive(hello);
    FakeSocket.last().drop();
    expect(retries(h)[retries(h).length - 1].ms).toBe(500);
  });

  it('says so and stops trying when the relay refuses the token', async () => {
    const h = harness();
    h.probeStatus = 401;
    h.client.start();
    FakeSocket.last().drop();
    await Promise.resolve();
    await Promise.resolve();
    expect(h.probes).toEqual(['http://relay.test:8080 secret']);
    expect(h.client.state).toBe('unauthorized');
    expect(retries(h)).toEqual([]);
    h.client.reconnectNow();
    expect(FakeSocket.created.length).toBe(1);
  });

  it('waits a minute when the address is blocked', async () => {
    const h = harness();
    h.probeStatus = 429;
    h.client.start();
    FakeSocket.last().drop();
    await Promise.resolve();
    await Promise.resolve();
    expect(h.client.state).toBe('blocked');
    expect(retries(h).map((t) => t.ms)).toEqual([60000]);
  });

  it('gives up a socket that has not said hello within 10 s and tries again', () => {
    const h = harness();
    h.client.start();
    const silent = FakeSocket.last();
    silent.open();
    const helloTimer = h.timers.find((t) => t.ms === 10000)!;
    helloTimer.callback();
    expect(silent.closed).toBe(true);
    expect(h.client.state).toBe('waiting');
    expect(retries(h).map((t) => t.ms)).toEqual([500]);
    retries(h)[0].callback();
    FakeSocket.last().open();
    FakeSocket.last().receive(hello);
    expect(h.client.state).toBe('open');
    expect(h.timers.filter((t) => t.ms === 10000).map((t) => t.cleared)).toEqual([false, true]);
  });

  it('keeps the last seq of each agent and ignores what it cannot read', () => {
    const h = harness();
    const seen: string[] = [];
    h.client.onMessage((m) => seen.push(m.type));
    h.client.start();
    const socket = FakeSocket.last();
    socket.open();
    socket.receive(hello);
    socket.receive({ type: 'task.log', agentId: 'a', taskId: 'T', line: 'x', seq: 4 });
    socket.receive({ type: 'task.log', agentId: 'b', taskId: 'U', line: 'y', seq: 9 });
    socket.receive({ type: 'task.log', agentId: 'a', taskId: 'T', line: 'z', seq: 5 });
    socket.receive('not json');
    socket.receive({ type: 'something.new', agentId: 'a', seq: 6 });
    expect(h.client.lastSeq()).toEqual({ a: 5, b: 9 });
    expect(seen).toEqual(['server.hello', 'task.log', 'task.log', 'task.log']);
  });

  it('sends decisions in the relay\'s words', () => {
    const h = harness();
    h.client.start();
    const socket = FakeSocket.last();
    socket.open();
    socket.receive(hello);
    h.client.decidePermission('R1', true, 'ignored for an allow');
    h.client.decidePermission('R2', false, 'not that file');
    h.client.decidePermission('R3', false);
    h.client.decideProposal('mac', 'T', true);
    h.client.decideProposal('mac', 'T', false);
    h.client.cancelTask('mac', 'T');
    h.client.terminal('terminal.input', 'mac', { sessionId: 'S', dataBase64: 'aGk=' });
    expect(socket.sent).toEqual([
      { type: 'permission.decision', requestId: 'R1', decision: 'allow' },
      { type: 'permission.decision', requestId: 'R2', decision: 'deny', message: 'not that file' },
      { type: 'permission.decision', requestId: 'R3', decision: 'deny' },
      { type: 'task.approval', agentId: 'mac', taskId: 'T', payload: { decision: 'approve' } },
      { type: 'task.approval', agentId: 'mac', taskId: 'T', payload: { decision: 'reject' } },
      { type: 'task.cancel', agentId: 'mac', taskId: 'T' },
      { type: 'terminal.input', agentId: 'mac', payload: { sessionId: 'S', dataBase64: 'aGk=' } },
    ]);
  });

  it('treats a token that cannot be a subprotocol as refused', () => {
    const client = new RelayClient({
      origin: 'http://relay.test',
      token: 'has space',
      createSocket: () => {
        throw new SyntaxError('invalid subprotocol');
      },
    });
    client.start();
    expect(client.state).toBe('unauthorized');
  });

  it('makes version 4 UUIDs', () => {
    expect(randomId()).toMatch(/^[0-9a-f]{8}-[0-9a-f]{4}-4[0-9a-f]{3}-[89ab][0-9a-f]{3}-[0-9a-f]{12}$/);
  });
});
