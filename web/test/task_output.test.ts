import { beforeEach, describe, expect, it } from 'vitest';
import type { KeptTask, OutputLines, OutputQuery } from '../src/protocol/kept_output';
import { decodeServerMessage, type ServerMessage } from '../src/protocol/messages';
import { RelayClient, RelayError } from '../src/protocol/relay_client';
import { MemoryStorage } from '../src/stores/observable';
import { kShowLinesMs } from '../src/stores/kept_outputs';
import { OutputPacer, kAckCharacters, kAckLines, kTrailingAckMs } from '../src/stores/output_pacer';
import { TaskOutput, kPageLines, kPagesKept, kShortRetryMs } from '../src/stores/task_output';
import { TasksStore, kMissedOutputNotice, kTimesKey, runTime } from '../src/stores/tasks_store';
import * as words from '../src/views/output_words';
import { taskStatusText } from '../src/views/TasksView';
import { FakeSocket } from './fake_socket';

const m = (message: Record<string, unknown>) => message as unknown as ServerMessage;
const seq = (from: number, count: number) => Array.from({ length: count }, (_, i) => String(from + i));

// Timers a test runs by hand, with a clock it moves.
class Clock {
  now = 0;
  timers: { at: number; callback: () => void; cleared: boolean }[] = [];
  readonly api = {
    set: (callback: () => void, ms: number) => {
      const timer = { at: this.now + ms, callback, cleared: false };
      this.timers.push(timer);
      return timer;
    },
    clear: (handle: unknown) => ((handle as { cleared: boolean }).cleared = true),
    now: () => this.now,
  };

  advance(ms: number): void {
    const until = this.now + ms;
    for (;;) {
      const due = this.timers.filter((t) => !t.cleared && t.at <= until).sort((a, b) => a.at - b.at)[0];
      if (!due) break;
      this.now = due.at;
      due.cleared = true;
      due.callback();
    }
    this.now = until;
  }

  get waiting(): number {
    return this.timers.filter((t) => !t.cleared).length;
  }
}

describe('TaskOutput', () => {
  it('keeps a tail of lines that follow one another, bounded, and starts a new one at a gap', () => {
    const output = new TaskOutput(5);
    for (let n = 1; n <= 8; n++) expect(output.take(n, 'l' + n)).toBe(true);
    expect([output.first, output.last, output.total, output.taken]).toEqual([4, 8, 8, 8]);
    expect([output.line(3), output.line(4), output.line(8), output.line(9)]).toEqual([undefined, 'l4', 'l8', undefined]);
    // A line the page has is not taken again.
    expect(output.take(6, 'again')).toBe(false);
    expect(output.line(6)).toBe('l6');
    // After a gap the page has lines from 20 on; 1 to 19 are on the computer.
    expect(output.take(20, 'l20')).toBe(true);
    expect([output.first, output.last, output.total, output.line(8)]).toEqual([20, 20, 20, undefined]);
    // An older line than the tail's is not a new tail.
    expect(output.take(3, 'old')).toBe(false);
    expect(output.first).toBe(20);
  });

  it('asks for the pages in view it lacks, newest first, each once, a few at a time', () => {
    const output = new TaskOutput();
    output.take(2501, 'live');
    expect(output.wanted(1, 2501)).toEqual([
      { from: 2001, count: kPageLines },
      { from: 1001, count: kPageLines },
      { from: 1, count: kPageLines },
    ]);
    expect(output.wanted(1, 2501)).toEqual([]);
    output.unread({ from: 1001, count: kPageLines });
    expect(output.wanted(900, 1100, 2)).toEqual([]); // two reads wait already
    expect(output.wanted(900, 1100)).toEqual([{ from: 1001, count: kPageLines }]);
    output.read({ from: 2001, count: kPageLines }, { from: 2001, lines: seq(2001, 501), total: 2501, ended: false });
    expect(output.wanted(2400, 2700)).toEqual([]);
    output.read({ from: 1, count: kPageLines }, { from: 1, lines: seq(1, 1000), total: 2600, ended: false });
    expect([output.line(1), output.line(1000), output.line(1001), output.total]).toEqual(['1', '1000', undefined, 2600]);
    // A page read while the task ran is read again for the lines it has printed since.
    expect(output.wanted(2400, 2700)).toEqual([{ from: 2001, count: kPageLines }]);
  });

  it('reads the newest page first while it knows nothing of the output', () => {
    const output = new TaskOutput();
    expect(output.wanted(1, 40)).toEqual([{ count: kPageLines }]);
    expect(output.wanted(1, 40)).toEqual([]);
    output.read({ count: kPageLines }, { from: 1_999_001, lines: seq(1_999_001, 1000), total: 2_000_000, ended: true });
    expect([output.total, output.ended, output.line(2_000_000), output.line(1_999_001)]).toEqual([2_000_000, true, '2000000', '1999001']);
    expect(output.wanted(1_999_960, 2_000_000)).toEqual([]);
    expect(output.wanted(1, 20)).toEqual([{ from: 1, count: kPageLines }]);
  });

  it('keeps a bounded number of pages, the ones in use longest', () => {
    const output = new TaskOutput();
    output.count(100_000);
    for (let page = 0; page < kPagesKept + 5; page++) {
      const from = page * kPageLines + 1;
      output.read({ from, count: kPageLines }, { from, lines: seq(from, 1000), total: 100_000, ended: true });
      if (page === 10)
        output.touch(1, 1); // the first page is in view
      else output.touch(from, from);
    }
    expect(output.pagesHeld).toBe(kPagesKept);
    expect(output.line(1)).toBe('1');
    expect(output.line(1001)).toBeUndefined();
    expect(output.line(44_001)).toBe('44001');
  });

  it('does not ask again for lines the agent did not keep', () => {
    const output = new TaskOutput();
    output.count(5000);
    output.read({ from: 1, count: kPageLines }, { from: 1, lines: seq(1, 10), total: 5000, ended: true });
    expect(output.wanted(1, 5000)).toEqual([]);
    // Past its bound the agent keeps nothing, though it sent the lines live.
    const bounded = new TaskOutput();
    bounded.take(3000, 'live');
    bounded.read({ from: 2001, count: kPageLines }, { from: 2001, lines: [], total: 1500, ended: true });
    expect(bounded.wanted(2001, 2999)).toEqual([]);
    expect(bounded.wanted(1001, 1500)).toEqual([{ from: 1001, count: kPageLines }]);
    // While the task runs, a short page is asked for again, a second later.
    let now = 0;
    const running = new TaskOutput(200_000, () => now);
    running.take(3000, 'live');
    running.read({ from: 2001, count: kPageLines }, { from: 2001, lines: seq(2001, 900), total: 2900, ended: false });
    expect(running.wanted(2001, 2999)).toEqual([]);
    now += kShortRetryMs;
    expect(running.wanted(2001, 2999)).toEqual([{ from: 2001, count: kPageLines }]);
  });
});

describe('OutputPacer', () => {
  let clock: Clock;
  let acks: string[];
  let pacer: OutputPacer;
  beforeEach(() => {
    clock = new Clock();
    acks = [];
    pacer = new OutputPacer((agentId, taskId, line) => acks.push(`${agentId} ${taskId} ${line}`) > 0, clock.api);
  });

  it('acknowledges the first line at once, then every 1000 lines, and the rest of a burst 50 ms after its last line', () => {
    for (let n = 1; n <= 2500; n++) pacer.took('mac', 'T', n, 6);
    expect(acks).toEqual(['mac T 1', 'mac T 1001', 'mac T 2001']);
    expect(clock.waiting).toBe(1);
    clock.advance(kTrailingAckMs - 1);
    pacer.took('mac', 'T', 2501, 6); // the burst goes on
    clock.advance(kTrailingAckMs - 1);
    expect(acks).toEqual(['mac T 1', 'mac T 1001', 'mac T 2001']);
    clock.advance(1);
    expect(acks).toEqual(['mac T 1', 'mac T 1001', 'mac T 2001', 'mac T 2501']);
    expect(clock.waiting).toBe(0);
    clock.advance(1000);
    expect(acks.length).toBe(4);
  });

  it('acknowledges every 64 KiB of text', () => {
    const line = 'x'.repeat(1023);
    for (let n = 1; n <= 65; n++) pacer.took('mac', 'T', n, line.length);
    expect(acks).toEqual(['mac T 1', 'mac T 65']);
    expect(kAckCharacters).toBe(64 * 1024);
    expect(kAckLines).toBe(1000);
  });

  it('acknowledges nothing more once the task ended, and again after a new connection', () => {
    pacer.took('mac', 'T', 1, 1);
    pacer.took('mac', 'T', 2, 1);
    pacer.ended('T');
    clock.advance(100);
    expect(acks).toEqual(['mac T 1']);
    acks.length = 0;
    pacer.took('mac', 'U', 1, 1);
    clock.advance(100);
    pacer.took('mac', 'U', 1, 1); // the same line, replayed on a new socket
    clock.advance(100);
    expect(acks).toEqual(['mac U 1']);
    pacer.reconnected();
    pacer.took('mac', 'U', 1, 1);
    clock.advance(100);
    expect(acks).toEqual(['mac U 1', 'mac U 1']);
  });

  it('tries again with the next line when the connection was not there', () => {
    let connected = false;
    const sent: number[] = [];
    const offline = new OutputPacer((_a, _t, line) => connected && sent.push(line) > 0, clock.api);
    for (let n = 1; n <= 1000; n++) offline.took('mac', 'T', n, 1);
    connected = true;
    offline.took('mac', 'T', 1001, 1);
    expect(sent).toEqual([1001]);
  });
});

describe('TasksStore with an agent that keeps output', () => {
  const record = (agentId: string, online = true) => ({
    agentId,
    busy: false,
    registration: null,
    online,
    seq: 10,
    snapshot: { tasks: [], proposal: null, terminals: [], queue: [] },
  });
  const hello = (...agents: ReturnType<typeof record>[]) => m({ type: 'server.hello', agents });
  const line = (taskId: string, number: number, text = String(number), s?: number) =>
    m({ type: 'task.log', agentId: 'mac', taskId, line: text, number, seq: s });

  function store(kept: Record<string, KeptTask[]> = {}, storage = new MemoryStorage()) {
    const clock = new Clock();
    const acks: string[] = [];
    const lists: string[] = [];
    const reads: { taskId: string; query: OutputQuery; answer: (a: OutputLines) => void; fail: (e: Error) => void }[] = [];
    const tasks = new TasksStore(
      {
        createTask: async () => 'T',
        cancelTask: () => true,
        decideProposal: () => true,
        ackTaskOutput: (agentId, taskId, n) => acks.push(`${agentId} ${taskId} ${n}`) > 0,
        readTaskOutput: (_agentId, taskId, query) => new Promise((answer, fail) => reads.push({ taskId, query, answer, fail })),
        listTasks: async (agentId) => {
          lists.push(agentId);
          if (!kept[agentId]) throw new RelayError('BAD_REQUEST', 'unknown type');
          return kept[agentId];
        },
      },
      storage,
      () => 5000,
      undefined,
      clock.api,
    );
    return { tasks, clock, acks, lists, reads };
  }

  it('shows numbered output without holding back empty lines, and paces it', () => {
    const { tasks, clock, acks } = store();
    tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'S' }));
    tasks.handle(m({ type: 'task.log', agentId: 'mac', taskId: 'S', line: 'a note of the agent' }));
    for (const [n, text] of [
      [1, 'one'],
      [2, ''],
      [3, 'three'],
    ] as const)
      tasks.handle(line('S', n, text));
    const task = tasks.get('S')!;
    expect([task.output!.line(1), task.output!.line(2), task.output!.line(3)]).toEqual(['one', '', 'three']);
    expect(task.log.length).toBe(0);
    expect(task.details.slice(0, 1)).toEqual(['a note of the agent']);
    clock.advance(kTrailingAckMs);
    expect(acks).toEqual(['mac S 1', 'mac S 3']);
    // The agent's own words after numbered output are details, not output.
    tasks.handle(m({ type: 'task.log', agentId: 'mac', taskId: 'S', line: 'retrying' }));
    expect(task.details.slice(0, 2)).toEqual(['a note of the agent', 'retrying']);
    for (let n = 4; n <= 1003; n++) tasks.handle(line('S', n));
    expect(acks).toEqual(['mac S 1', 'mac S 3', 'mac S 1003']);
    tasks.handle(line('S', 1004));
    tasks.handle(m({ type: 'task.finished', agentId: 'mac', taskId: 'S', exitCode: 0 }));
    clock.advance(1000);
    expect(acks).toEqual(['mac S 1', 'mac S 3', 'mac S 1003']);
    expect(task.output!.ended).toBe(true);
  });

  it('shows new lines of a command a few times a second, not one render each', () => {
    const { tasks, clock } = store();
    tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'S' }));
    const before = tasks.version;
    for (let n = 1; n <= 500; n++) tasks.handle(line('S', n));
    expect(tasks.version).toBe(before);
    clock.advance(kShowLinesMs);
    expect(tasks.version).toBe(before + 1);
    expect(tasks.get('S')!.output!.last).toBe(500);
  });

  it('paces a task it starts from before its first line', async () => {
    const { tasks, acks } = store();
    const task = await tasks.run('mac', { action: 'shell', command: 'seq 1 9' });
    expect(acks).toEqual(['mac T 0']);
    tasks.handle(line(task.taskId, 1));
    expect(acks).toEqual(['mac T 0', 'mac T 1']);
  });

  it('takes an unnumbered line as today from an agent that does not number them', () => {
    const { tasks, acks, clock } = store();
    tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'S' }));
    for (const text of ['one', '', 'two', '']) tasks.handle(m({ type: 'task.log', agentId: 'mac', taskId: 'S', line: text }));
    clock.advance(1000);
    expect(tasks.get('S')!.log.text()).toBe('one\ntwo');
    expect(tasks.get('S')!.output).toBeUndefined();
    expect(acks).toEqual([]);
  });

  it("paces an assistant's numbered output and reads it as its activity", () => {
    const { tasks, clock, acks } = store();
    tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'C' }));
    tasks.handle(m({ type: 'agent.register', agentId: 'mac' }));
    // A chat known from a snapshot is an assistant's task.
    tasks.handle(
      m({
        type: 'resume.gap',
        agentId: 'mac',
        since: 1,
        seq: 5,
        snapshot: {
          tasks: [{ taskId: 'C', kind: 'chat', projectPath: '/r', status: 'running' }],
          proposal: null,
          terminals: [],
          queue: [],
        },
      }),
    );
    tasks.handle(line('C', 1, '[command] make'));
    tasks.handle(line('C', 2, 'said'));
    tasks.handle(line('C', 3, ''));
    clock.advance(kTrailingAckMs);
    const chat = tasks.get('C')!;
    expect(chat.activity).toEqual([{ text: 'Ran make', tone: 'step' }]);
    expect(chat.output).toBeUndefined();
    // An empty line the program printed is shown, after the note of the gap.
    expect(chat.log.text()).toBe(kMissedOutputNotice + '\nsaid\n');
    expect(acks).toEqual(['mac C 1', 'mac C 3']);
  });

  it('after a gap starts a new tail and says nothing was missed', () => {
    const { tasks } = store();
    tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'S', seq: 1 }));
    tasks.handle(line('S', 1, 'one', 2));
    const snapshot = {
      tasks: [{ taskId: 'S', kind: 'shell', projectPath: '/r', status: 'running' }],
      proposal: null,
      terminals: [],
      queue: [],
    };
    tasks.handle(m({ type: 'resume.gap', agentId: 'mac', since: 2, seq: 90, snapshot }));
    tasks.handle(line('S', 5000, 'later', 91));
    const output = tasks.get('S')!.output!;
    expect([output.first, output.last, output.total, output.line(1)]).toEqual([5000, 5000, 5000, undefined]);
    expect(tasks.get('S')!.log.text()).not.toContain(kMissedOutputNotice);
    expect(output.wanted(1, 5000).map((q) => q.from)).toEqual([4001, 3001, 2001, 1001, 1]);
  });

  it('stops pacing a task the agent or the relay says has ended, and says nothing was missed', async () => {
    const { tasks, clock, acks } = store({
      mac: [{ taskId: 'K', kind: 'shell', projectPath: '/r', status: 'finished', exitCode: 0, lines: 3 }],
    });
    for (const taskId of ['K', 'L']) {
      tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId }));
      tasks.handle(line(taskId, 1));
    }
    // The page missed the ends: K's from the agent's list, L's from a gap whose snapshot
    // no longer names it.
    tasks.handle(hello(record('mac')));
    await new Promise((resolve) => setTimeout(resolve, 0));
    const snapshot = { tasks: [], proposal: null, terminals: [], queue: [] };
    tasks.handle(m({ type: 'resume.gap', agentId: 'mac', since: 2, seq: 90, snapshot }));
    clock.advance(1000);
    expect(acks).toEqual(['mac K 1', 'mac L 1']);
    expect([tasks.get('K')!.status, tasks.get('K')!.output!.ended, tasks.get('L')!.status, tasks.get('L')!.output!.ended]).toEqual([
      'finished',
      true,
      'lost',
      true,
    ]);
    expect([tasks.get('K')!.log.length, tasks.get('L')!.log.length]).toEqual([0, 0]);
  });

  it('reads the lines in view it lacks and keeps what the agent answers', async () => {
    const { tasks, reads } = store();
    tasks.handle(line('S', 3000));
    const task = tasks.get('S')!;
    const before = tasks.version;
    tasks.outputs.reads.show(task, 1001, 1040);
    expect(reads.map((r) => r.query)).toEqual([{ from: 1001, count: 1000 }]);
    reads[0].answer({ from: 1001, lines: seq(1001, 1000), total: 3000, ended: false });
    await Promise.resolve();
    expect(task.output!.line(1040)).toBe('1040');
    expect(tasks.version).toBeGreaterThan(before);
    // A read that fails is asked again later; one the agent refuses shows only the tail.
    tasks.outputs.reads.show(task, 1, 40);
    reads[1].fail(new RelayError('NOT_CONNECTED', 'the connection to the relay was lost'));
    await Promise.resolve();
    await Promise.resolve();
    tasks.outputs.reads.show(task, 1, 40);
    expect(reads.map((r) => r.query.from)).toEqual([1001, 1, 1]);
    reads[2].fail(new RelayError('OUTPUT_NOT_KEPT', 'no output is kept for task S'));
    await Promise.resolve();
    await Promise.resolve();
    expect(task.output!.notKept).toBe(true);
    tasks.outputs.reads.show(task, 1, 40);
    expect(reads.length).toBe(3);
  });

  it('searches from line 1, 200 at a time, and reads everything in pages of 10000', async () => {
    const { tasks, reads } = store();
    tasks.handle(line('S', 1));
    const task = tasks.get('S')!;
    const found = tasks.outputs.reads.search(task, 'needle');
    expect(reads[0].query).toEqual({ from: 1, count: 200, match: 'needle' });
    reads[0].answer({
      numbers: Array.from({ length: 200 }, (_, i) => 10 * i + 7),
      lines: Array(200).fill('a needle'),
      total: 5000,
      ended: false,
    });
    expect(await found).toMatchObject({ next: 1998 });
    const none = tasks.outputs.reads.search(task, 'hay', 1998);
    reads[1].answer({ numbers: [], lines: [], total: 5000, ended: false });
    expect(await none).toEqual({ matches: [], next: null });

    const progress: string[] = [];
    const all = tasks.outputs.reads.readAll(task, (read, total) => progress.push(`${read}/${total}`));
    for (let from = 1; from <= 25_001; from += 10_000) {
      await new Promise((resolve) => setTimeout(resolve, 0));
      const read = reads[reads.length - 1];
      expect(read.query).toEqual({ from, count: 10_000 });
      const count = Math.min(10_000, 25_000 - from + 1);
      read.answer({ from, lines: seq(from, count), total: 25_000, ended: true });
    }
    const pages = await all;
    expect(pages.flat().length).toBe(25_000);
    expect(pages.flat()[24_999]).toBe('25000');
    expect(progress).toEqual(['10000/25000', '20000/25000', '25000/25000']);
  });

  it("lists the tasks each online agent keeps on every hello, with the agent's times and status", async () => {
    const storage = new MemoryStorage();
    storage.setItem(kTimesKey, JSON.stringify({ Old: { startedAt: 1, endedAt: 2 } }));
    const kept: KeptTask[] = [
      { taskId: 'New', kind: 'shell', projectPath: '/r/App', status: 'running', startedAt: 30_000, lines: 12 },
      {
        taskId: 'Old',
        kind: 'shell',
        projectPath: '/r/App',
        status: 'finished',
        exitCode: 0,
        startedAt: 10_000,
        endedAt: 14_500,
        lines: 300_000,
      },
      { taskId: 'Gone', kind: 'build_ios', projectPath: '/r/App', status: 'lost', startedAt: 20_000, endedAt: 21_000, lines: 0 },
    ];
    const { tasks, lists } = store({ mac: kept }, storage);
    tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'Mine', seq: 11 }));
    tasks.handle(hello(record('mac'), record('away', false), record('old')));
    await new Promise((resolve) => setTimeout(resolve, 0));
    expect(lists).toEqual(['mac', 'old']);
    // In the order they started (the page's own task by the page's clock).
    expect(tasks.list().map((t) => [t.taskId, t.kind, t.status, t.startedAt])).toEqual([
      ['New', 'shell', 'running', 30_000],
      ['Gone', 'build', 'lost', 20_000],
      ['Old', 'shell', 'finished', 10_000],
      ['Mine', 'task', 'running', 5000],
    ]);
    const old = tasks.get('Old')!;
    expect([old.title, old.projectPath, old.exitCode, runTime(old, 0), old.output!.total, old.output!.ended]).toEqual([
      'Shell command',
      '/r/App',
      0,
      4500,
      300_000,
      true,
    ]);
    expect(taskStatusText(old)).toBe('Finished');
    expect(tasks.get('New')!.output!.ended).toBe(false);
    // The agent's times are kept for the next page.
    expect(JSON.parse(storage.getItem(kTimesKey)!).Old).toEqual({ startedAt: 10_000, endedAt: 14_500 });
    // An agent that comes online is asked too.
    tasks.handle(m({ type: 'agent.online', agentId: 'away' }));
    expect(lists).toEqual(['mac', 'old', 'away']);
  });

  it("takes the agent's word for a task it did not see end, and keeps the end it saw", async () => {
    const { tasks } = store({
      mac: [
        { taskId: 'A', kind: 'shell', projectPath: '/r', status: 'finished', exitCode: 0, startedAt: 100, endedAt: 200, lines: 1 },
        { taskId: 'B', kind: 'shell', projectPath: '/r', status: 'finished', exitCode: 0, startedAt: 100, endedAt: 200, lines: 1 },
        {
          taskId: 'C',
          kind: 'shell',
          projectPath: '/r',
          status: 'cancelled',
          exitCode: 15,
          startedAt: 100,
          endedAt: 1100,
          lines: 0,
          timedOut: true,
        },
        { taskId: 'D', kind: 'shell', projectPath: '/r', status: 'cancelled', exitCode: 15, startedAt: 100, endedAt: 700_000, lines: 0 },
      ],
    });
    tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'A', seq: 20 }));
    tasks.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'B', seq: 21 }));
    tasks.handle(m({ type: 'task.cancelled', agentId: 'mac', taskId: 'B', exitCode: 130, seq: 22 }));
    tasks.handle(hello(record('mac')));
    await new Promise((resolve) => setTimeout(resolve, 0));
    expect([tasks.get('A')!.status, tasks.get('A')!.endedAt]).toEqual(['finished', 200]);
    expect(tasks.get('B')!.status).toBe('cancelled');
    // The agent says which cancellation was its time limit's, however long the task ran.
    expect([taskStatusText(tasks.get('C')!), taskStatusText(tasks.get('D')!)]).toEqual(['Timed out', 'Cancelled']);
  });
});

describe('the messages of kept output', () => {
  beforeEach(() => {
    FakeSocket.created = [];
  });

  it('decodes a numbered line, a read, an error and the kept tasks', () => {
    expect(decodeServerMessage('{"type":"task.log","agentId":"a","taskId":"T","line":"x","number":7}')).toMatchObject({ number: 7 });
    expect(decodeServerMessage('{"type":"task.log","agentId":"a","taskId":"T","line":"x","number":0}')).not.toHaveProperty('number');
    expect(
      decodeServerMessage('{"type":"task.output","agentId":"a","taskId":"T","requestId":"R","from":3,"lines":["c"],"total":9}'),
    ).toEqual({
      type: 'task.output',
      agentId: 'a',
      taskId: 'T',
      requestId: 'R',
      from: 3,
      lines: ['c'],
      total: 9,
      ended: false,
    });
    expect(
      decodeServerMessage(
        '{"type":"task.output","agentId":"a","taskId":"T","requestId":"R","numbers":[4],"lines":["d"],"total":9,"ended":true}',
      ),
    ).toMatchObject({ numbers: [4], ended: true });
    expect(
      decodeServerMessage('{"type":"task.output","agentId":"a","taskId":"T","requestId":"R","error":"no output is kept for task T"}'),
    ).toMatchObject({ error: 'no output is kept for task T' });
    for (const bad of [
      '"lines":[1],"from":1,"total":1',
      '"lines":["a"],"total":1',
      '"numbers":[1,2],"lines":["a"],"total":1',
      '"lines":["a"],"from":1',
    ]) {
      expect(decodeServerMessage(`{"type":"task.output","agentId":"a","taskId":"T",${bad}}`)).toBeNull();
    }
    const kept = decodeServerMessage(
      '{"type":"tasks.kept","agentId":"a","requestId":"R","tasks":[{"taskId":"T","kind":"shell","projectPath":"/p","status":"finished","exitCode":0,"startedAt":5,"endedAt":9,"lines":3},{"taskId":"U","status":"queued"},7,{"taskId":"V","status":"cancelled","timedOut":true,"lines":0},{"taskId":"W","status":"failed","timedOut":true,"lines":0}]}',
    );
    expect(kept).toEqual({
      type: 'tasks.kept',
      agentId: 'a',
      requestId: 'R',
      tasks: [
        { taskId: 'T', kind: 'shell', projectPath: '/p', status: 'finished', exitCode: 0, startedAt: 5, endedAt: 9, lines: 3 },
        { taskId: 'V', kind: '', projectPath: '', status: 'cancelled', lines: 0, timedOut: true },
        { taskId: 'W', kind: '', projectPath: '', status: 'failed', lines: 0 },
      ],
    });
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
    expect(client.ackTaskOutput('mac', 'T', 1000)).toBe(true);
    expect(client.ackTaskOutput('mac', 'T')).toBe(true);
    const read = client.readTaskOutput('mac', 'T', { from: 1, count: 1000 });
    const search = client.readTaskOutput('mac', 'T', { from: 1, count: 200, match: 'needle' });
    const missing = client.readTaskOutput('mac', 'Gone', { count: 1000 });
    const list = client.listTasks('mac');
    const sent = socket.sent as Record<string, unknown>[];
    const ids = sent.map((message) => message.requestId);
    expect(sent).toEqual([
      { type: 'task.ack', agentId: 'mac', taskId: 'T', line: 1000 },
      { type: 'task.ack', agentId: 'mac', taskId: 'T' },
      { type: 'task.output.read', agentId: 'mac', taskId: 'T', from: 1, count: 1000, requestId: ids[2] },
      { type: 'task.output.read', agentId: 'mac', taskId: 'T', from: 1, count: 200, match: 'needle', requestId: ids[3] },
      { type: 'task.output.read', agentId: 'mac', taskId: 'Gone', count: 1000, requestId: ids[4] },
      { type: 'tasks.list', agentId: 'mac', requestId: ids[5] },
    ]);
    socket.receive({ type: 'tasks.kept', agentId: 'mac', requestId: ids[5], tasks: [] });
    socket.receive({ type: 'task.output', agentId: 'mac', taskId: 'Gone', requestId: ids[4], error: 'no output is kept for task Gone' });
    socket.receive({
      type: 'task.output',
      agentId: 'mac',
      taskId: 'T',
      requestId: ids[3],
      numbers: [42],
      lines: ['a needle'],
      total: 50,
      ended: true,
    });
    socket.receive({
      type: 'task.output',
      agentId: 'mac',
      taskId: 'T',
      requestId: ids[2],
      from: 1,
      lines: ['one'],
      total: 50,
      ended: true,
    });
    await expect(read).resolves.toMatchObject({ from: 1, lines: ['one'], total: 50, ended: true });
    await expect(search).resolves.toMatchObject({ numbers: [42], lines: ['a needle'] });
    await expect(missing).rejects.toEqual(new RelayError('OUTPUT_NOT_KEPT', 'no output is kept for task Gone'));
    await expect(list).resolves.toEqual([]);
  });
});

describe("the words of a task's whole output", () => {
  it('are these', () => {
    expect([words.kSearchLabel, words.kSearching, words.kNoMatches, words.kMoreMatches]).toEqual([
      'Search output',
      'Searching…',
      'No matches',
      'More matches',
    ]);
    expect(words.matchLine(123456)).toBe('Line 123456');
    expect(words.copying(10_000, 300_000)).toBe('Copying… 10,000 of 300,000 lines');
    expect(words.copied(300_000)).toBe('Copied 300,000 lines');
    expect(words.copied(1)).toBe('Copied 1 line');
    expect(words.downloading(20_000, 300_000)).toBe('Downloading… 20,000 of 300,000 lines');
    expect(words.downloaded(300_000)).toBe('Downloaded 300,000 lines');
    expect(words.couldNot('copy', words.kClipboardRefused)).toBe('Could not copy: the browser did not allow it');
    expect(words.couldNot('search', 'no output is kept for task T')).toBe('Could not search: no output is kept for task T');
    expect(words.notKeptEarlier(1500)).toBe('1,500 lines before these are no longer kept on the computer');
    expect(words.outputFileName({ kind: 'shell', taskId: '6f1c-22' })).toBe('shell-6f1c-22.log');
    expect(words.outputFileName({ kind: 'build', taskId: '../x y' })).toBe('build-.._x_y.log');
  });
});
