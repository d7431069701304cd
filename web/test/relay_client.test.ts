import { beforeEach, describe, expect, it } from 'vitest';
import { RelayClient, RelayError, randomId, type ConnectionState, type Seqs } from '../src/protocol/relay_client';
import { MemoryStorage } from '../src/stores/observable';
import { FakeSocket } from './fake_socket';

interface Harness {
  client: RelayClient;
  storage: MemoryStorage;
  keepFrom: Seqs;
  timers: { callback: () => void; ms: number; cleared: boolean }[];
  states: ConnectionState[];
  probeStatus: number;
  probes: string[];
}

function harness(storage = new MemoryStorage()): Harness {
  const h = { timers: [], states: [], probeStatus: 0, probes: [], storage, keepFrom: {} } as unknown as Harness;
  h.client = new RelayClient({
    origin: 'http://relay.test:8080',
    token: 'secret',
    storage,
    keepFrom: () => h.keepFrom,
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

// The timers of reconnecting, without the hello time-outs every socket has and the
// writing of the seqs.
function retries(h: Harness) {
  return h.timers.filter((timer) => timer.ms !== 10000 && timer.ms !== 1500);
}

function saves(h: Harness) {
  return h.timers.filter((timer) => timer.ms === 1500 && !timer.cleared);
}

const empty = { tasks: [], proposal: null, terminals: [], queue: [] };
const agent = (agentId: string, seq: number) => ({ agentId, busy: false, registration: null, online: true, seq, snapshot: empty });
const log = (agentId: string, seq: number, line = 'x') => ({ type: 'task.log', agentId, taskId: 'T', line, seq });
const since = (socket: FakeSocket) => {
  const query = new URL(socket.url.replace(/^ws/, 'http')).searchParams.get('since');
  return query === null ? null : JSON.parse(query);
};

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

  it('resumes every agent it has seen on every new socket, and keeps the seqs for a reload', () => {
    const h = harness();
    h.client.start();
    expect(FakeSocket.last().url).toBe('ws://relay.test:8080/v1/ws/client');
    FakeSocket.last().open();
    // Agents shown by the hello are resumed from its seq; one without messages is not named.
    FakeSocket.last().receive({ type: 'server.hello', agents: [agent('mac', 100), agent('idle', 0)] });
    expect(h.client.lastSeq()).toEqual({ mac: 100 });
    FakeSocket.last().receive(log('mac', 101));
    FakeSocket.last().receive(log('linux', 7));
    FakeSocket.last().drop();
    retries(h)[0].callback();
    expect(FakeSocket.last().url).toBe('ws://relay.test:8080/v1/ws/client?since=' + encodeURIComponent('{"mac":101,"linux":7}'));
    // Written once, 1.5 s after the first change, and at once when asked.
    expect(saves(h).length).toBe(1);
    expect(h.storage.getItem('brinmoor.seqs')).toBeNull();
    saves(h)[0].callback();
    expect(JSON.parse(h.storage.getItem('brinmoor.seqs')!)).toEqual({ mac: 101, linux: 7 });
    FakeSocket.last().open();
    FakeSocket.last().receive({ type: 'server.hello', agents: [agent('mac', 300)] });
    FakeSocket.last().receive({ type: 'resume.ok', agentId: 'mac', since: 101 });
    // A resumed agent keeps its own seq: the replay of what came after it follows.
    expect(h.client.lastSeq()).toEqual({ mac: 101, linux: 7 });
    FakeSocket.last().receive(log('mac', 102));
    h.client.saveSeqs();
    expect(JSON.parse(h.storage.getItem('brinmoor.seqs')!)).toEqual({ mac: 102, linux: 7 });
    // The next page starts from there.
    const reloaded = harness(h.storage);
    reloaded.client.start();
    expect(since(FakeSocket.last())).toEqual({ mac: 102, linux: 7 });
  });

  it('gives up its socket when the network goes, and resumes when it is back', () => {
    const h = harness();
    h.client.start();
    const first = FakeSocket.last();
    first.open();
    first.receive({ type: 'server.hello', agents: [agent('mac', 5)] });
    const waiting = h.client.createTask('mac', { action: 'shell' });
    h.client.networkLost();
    expect(first.closed).toBe(true);
    expect(h.client.state).toBe('waiting');
    h.client.reconnectNow();
    expect(since(FakeSocket.last())).toEqual({ mac: 5 });
    expect(FakeSocket.created.length).toBe(2);
    // A socket still opening is given up too, and the next attempt waits its turn.
    h.client.networkLost();
    expect(FakeSocket.last().closed).toBe(true);
    expect(FakeSocket.created.length).toBe(2);
    return expect(waiting).rejects.toThrow('the connection to the relay was lost');
  });

  it('keeps no seq for a reload above what the stores need again', () => {
    const h = harness();
    h.keepFrom = { mac: 40, other: 3 };
    h.client.start();
    FakeSocket.last().open();
    FakeSocket.last().receive(hello);
    FakeSocket.last().receive(log('mac', 90));
    FakeSocket.last().receive(log('linux', 5));
    h.client.stop(); // a pending write is done on the way out
    expect(JSON.parse(h.storage.getItem('brinmoor.seqs')!)).toEqual({ mac: 40, linux: 5 });
    expect(h.client.lastSeq()).toEqual({ mac: 90, linux: 5 });
  });

  it("drops a message it already has, and goes on after a gap from the snapshot's seq", () => {
    const h = harness();
    const seen: unknown[] = [];
    h.client.onMessage((m) => seen.push(m.type === 'task.log' ? m.seq : m.type));
    h.client.start();
    FakeSocket.last().open();
    FakeSocket.last().receive(hello);
    FakeSocket.last().receive(log('mac', 10));
    FakeSocket.last().receive(log('mac', 10));
    FakeSocket.last().receive(log('mac', 9));
    FakeSocket.last().receive(log('mac', 12)); // seqs can skip
    FakeSocket.last().receive({ type: 'resume.gap', agentId: 'mac', since: 12, seq: 50, snapshot: empty });
    FakeSocket.last().receive(log('mac', 50));
    FakeSocket.last().receive(log('mac', 51));
    expect(seen).toEqual(['server.hello', 10, 12, 'resume.gap', 51]);
    expect(h.client.lastSeq()).toEqual({ mac: 51 });
  });

  it('ignores kept seqs it cannot read', () => {
    const storage = new MemoryStorage();
    storage.setItem('brinmoor.seqs', '{"mac":12,"neg":-1,"text":"4","big":1e300}');
    const h = harness(storage);
    expect(h.client.lastSeq()).toEqual({ mac: 12 });
    storage.setItem('brinmoor.seqs', '[1,2');
    expect(harness(storage).client.lastSeq()).toEqual({});
  });

  it("sends decisions in the relay's words", () => {
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
    h.client.decideProposal('mac', 'T', true, ['a.c', 'b.c']);
    h.client.decideProposal('mac', 'T', false, ['a.c']);
    h.client.listProjects('mac');
    h.client.cancelTask('mac', 'T');
    h.client.terminal('terminal.input', 'mac', { sessionId: 'S', dataBase64: 'aGk=' });
    h.client.ackTerminal('mac', 'S', 131072);
    h.client.ackTerminal('mac', 'S');
    expect(socket.sent).toEqual([
      { type: 'permission.decision', requestId: 'R1', decision: 'allow' },
      { type: 'permission.decision', requestId: 'R2', decision: 'deny', message: 'not that file' },
      { type: 'permission.decision', requestId: 'R3', decision: 'deny' },
      { type: 'task.approval', agentId: 'mac', taskId: 'T', payload: { decision: 'approve' } },
      { type: 'task.approval', agentId: 'mac', taskId: 'T', payload: { decision: 'reject' } },
      { type: 'task.approval', agentId: 'mac', taskId: 'T', payload: { decision: 'approve', files: ['a.c', 'b.c'] } },
      { type: 'task.approval', agentId: 'mac', taskId: 'T', payload: { decision: 'reject' } },
      { type: 'projects.list', agentId: 'mac' },
      { type: 'task.cancel', agentId: 'mac', taskId: 'T' },
      { type: 'terminal.input', agentId: 'mac', payload: { sessionId: 'S', dataBase64: 'aGk=' } },
      { type: 'terminal.ack', agentId: 'mac', payload: { sessionId: 'S', offset: 131072 } },
      { type: 'terminal.ack', agentId: 'mac', payload: { sessionId: 'S' } },
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
