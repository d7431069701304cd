import 'fake-indexeddb/auto';
import { describe, expect, it } from 'vitest';
import { CodexEventReader } from '../src/protocol/codex_events';
import type { ServerMessage } from '../src/protocol/messages';
import { readAssistantLogLine, readCommandLogLine } from '../src/protocol/task_log';
import { toolUseText } from '../src/stores/approvals_store';
import { ConversationDB } from '../src/stores/conversation_db';
import { ConversationsStore } from '../src/stores/conversations_store';
import { MemoryStorage } from '../src/stores/observable';
import { TasksStore, changeResult, kAgentTimeLimitSec, runTime, taskEnd } from '../src/stores/tasks_store';
import { taskStatusText } from '../src/views/TasksView';

const m = (message: Record<string, unknown>) => message as unknown as ServerMessage;

function tasks(storage = new MemoryStorage()) {
  const clock = { now: 1_000_000 };
  let next = 0;
  const store = new TasksStore(
    { createTask: async () => 'T' + ++next, cancelTask: () => true, decideProposal: () => true },
    storage,
    () => clock.now,
  );
  return { store, clock, storage };
}

const hello = (seq: number, snapshotTasks: unknown[] = []) =>
  m({
    type: 'server.hello',
    agents: [
      {
        agentId: 'a',
        busy: false,
        registration: null,
        online: true,
        seq,
        snapshot: { tasks: snapshotTasks, proposal: null, terminals: [], queue: [] },
      },
    ],
  });
const proposal = {
  proposalId: 'P1',
  proposalSummary: 'Renamed it.',
  proposalCommentary: 'Renamed it.\n\nBecause **x**.',
  proposalDiff: '',
  proposalFiles: ['x'],
};

describe('how a task ended, in words', () => {
  it('says Finished, Cancelled, Rejected and Failed · exit N', async () => {
    const { store } = tasks();
    const shell = await store.run('a', { action: 'shell', command: 'true', projectPath: 'App' });
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: shell.taskId }));
    store.handle(m({ type: 'task.finished', agentId: 'a', taskId: shell.taskId, exitCode: 0 }));
    expect(taskStatusText(shell)).toBe('Finished');

    const failing = await store.run('a', { action: 'shell', command: 'exit 3', projectPath: 'App' });
    store.handle(
      m({
        type: 'task.failed',
        agentId: 'a',
        taskId: failing.taskId,
        error: 'command exited with status 3',
        errorCode: 'COMMAND_EXIT_NONZERO',
        exitCode: 3,
      }),
    );
    expect(taskStatusText(failing)).toBe('Failed · exit 3');

    const change = await store.run('a', { action: 'ai_task', system: 'codex', mode: 'apply', prompt: 'x', projectPath: 'App' });
    store.handle(m({ type: 'task.awaiting_approval', agentId: 'a', taskId: change.taskId, ...proposal }));
    expect(taskStatusText(change)).toBe('Waiting for your review');
    store.decide(change, false);
    store.handle(
      m({
        type: 'task.failed',
        agentId: 'a',
        taskId: change.taskId,
        error: 'changes rejected by client approval',
        errorCode: 'APPROVAL_REJECTED',
        exitCode: 1,
      }),
    );
    expect([taskEnd(change), taskStatusText(change)]).toEqual(['rejected', 'Rejected']);
  });

  it('keeps the first end: a cancelled task stays cancelled when its process reports its status', async () => {
    const { store } = tasks();
    const task = await store.run('a', { action: 'shell', command: 'sleep 30', projectPath: 'App' });
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: task.taskId }));
    expect(store.cancel(task)).toBe(true);
    store.handle(m({ type: 'task.cancelled', agentId: 'a', taskId: task.taskId, exitCode: 130 }));
    store.handle(
      m({
        type: 'task.failed',
        agentId: 'a',
        taskId: task.taskId,
        error: 'command exited with status 15',
        errorCode: 'COMMAND_EXIT_NONZERO',
        exitCode: 15,
      }),
    );
    expect([task.status, task.exitCode, task.error, taskStatusText(task)]).toEqual(['cancelled', 130, undefined, 'Cancelled']);
  });

  it('says Timed out for a task cancelled at its time limit that nobody here cancelled', async () => {
    const { store, clock } = tasks();
    const limited = await store.run('a', { action: 'shell', command: 'sleep 30', projectPath: 'App', timeoutSec: 2 });
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: limited.taskId }));
    clock.now += 2100;
    store.handle(m({ type: 'task.cancelled', agentId: 'a', taskId: limited.taskId, exitCode: 130 }));
    expect(taskStatusText(limited)).toBe('Timed out');

    // Cancelled here, at the same time: cancelled.
    const asked = await store.run('a', { action: 'shell', command: 'sleep 30', projectPath: 'App', timeoutSec: 2 });
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: asked.taskId }));
    clock.now += 2100;
    store.cancel(asked);
    store.handle(m({ type: 'task.cancelled', agentId: 'a', taskId: asked.taskId, exitCode: 130 }));
    expect(taskStatusText(asked)).toBe('Cancelled');

    // Cancelled by someone else well before its limit.
    const soon = await store.run('a', { action: 'shell', command: 'sleep 30', projectPath: 'App', timeoutSec: 2 });
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: soon.taskId }));
    clock.now += 500;
    store.handle(m({ type: 'task.cancelled', agentId: 'a', taskId: soon.taskId, exitCode: 130 }));
    expect(taskStatusText(soon)).toBe('Cancelled');

    // Cancelled by someone else well before the agent's own limit.
    const early = await store.run('a', { action: 'shell', command: 'sleep 30', projectPath: 'App' });
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: early.taskId }));
    clock.now += 60_000;
    store.handle(m({ type: 'task.cancelled', agentId: 'a', taskId: early.taskId, exitCode: 130 }));
    expect(taskStatusText(early)).toBe('Cancelled');

    // A proposal nobody reviewed within the limit.
    const waiting = await store.run('a', { action: 'ai_task', system: 'codex', mode: 'apply', prompt: 'x', projectPath: 'App' });
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: waiting.taskId }));
    store.handle(m({ type: 'task.awaiting_approval', agentId: 'a', taskId: waiting.taskId, ...proposal }));
    clock.now += kAgentTimeLimitSec * 1000;
    store.handle(
      m({
        type: 'task.failed',
        agentId: 'a',
        taskId: waiting.taskId,
        error: 'changes rejected by client approval',
        errorCode: 'APPROVAL_REJECTED',
        exitCode: 1,
      }),
    );
    expect(taskStatusText(waiting)).toBe('Timed out');
  });
});

describe('how long a task took', () => {
  it('counts from the messages the page saw as they happened, and keeps that for a reload', () => {
    const { store, clock, storage } = tasks();
    store.handle(hello(50));
    // Before the hello: a replay, whose times say nothing.
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: 'Old', seq: 40 }));
    clock.now += 30;
    store.handle(m({ type: 'task.finished', agentId: 'a', taskId: 'Old', exitCode: 0, seq: 41 }));
    expect(runTime(store.get('Old')!, clock.now)).toBeNull();
    // After it: live.
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: 'New', seq: 51 }));
    clock.now += 3000;
    expect(runTime(store.get('New')!, clock.now)).toBe(3000);
    clock.now += 5500;
    store.handle(m({ type: 'task.finished', agentId: 'a', taskId: 'New', exitCode: 0, seq: 52 }));
    expect(runTime(store.get('New')!, clock.now + 99_000)).toBe(8500);

    // A reload replays both at once.
    const again = tasks(storage);
    again.clock.now = clock.now + 60_000;
    again.store.handle(hello(60, [{ taskId: 'New', kind: 'shell', projectPath: 'App', status: 'finished', exitCode: 0 }]));
    again.store.handle(m({ type: 'task.started', agentId: 'a', taskId: 'New', seq: 51 }));
    again.clock.now += 18;
    again.store.handle(m({ type: 'task.finished', agentId: 'a', taskId: 'New', exitCode: 0, seq: 52 }));
    expect(runTime(again.store.get('New')!, again.clock.now)).toBe(8500);
    again.store.handle(m({ type: 'task.started', agentId: 'a', taskId: 'Old', seq: 40 }));
    again.store.handle(m({ type: 'task.finished', agentId: 'a', taskId: 'Old', exitCode: 0, seq: 41 }));
    expect(runTime(again.store.get('Old')!, again.clock.now)).toBeNull();
  });

  it('gives no time to a task known from a snapshot alone', () => {
    const { store, clock } = tasks();
    store.handle(
      hello(50, [
        { taskId: 'R', kind: 'shell', projectPath: 'App', status: 'running' },
        { taskId: 'E', kind: 'shell', projectPath: 'App', status: 'failed', exitCode: 1 },
      ]),
    );
    expect([runTime(store.get('R')!, clock.now), runTime(store.get('E')!, clock.now)]).toEqual([null, null]);
    expect(taskStatusText(store.get('E')!)).toBe('Failed · exit 1');
    store.handle(hello(50, [{ taskId: 'X', kind: 'shell', projectPath: 'App', status: 'failed' }]));
    expect(taskStatusText(store.get('X')!)).toBe('Failed');
    // Its end, seen live, still leaves its start unknown.
    store.handle(m({ type: 'task.finished', agentId: 'a', taskId: 'R', exitCode: 0, seq: 51 }));
    expect(runTime(store.get('R')!, clock.now)).toBeNull();
  });
});

describe('the agent\u2019s words in a task log', () => {
  it('tells its bookkeeping and markers from the program\u2019s output', () => {
    const resolve = 'workspace.resolve action=shell requestedProjectPath=/r/App resolvedWorkingDir=/r/App';
    expect(readCommandLogLine(resolve, false)).toEqual({ kind: 'detail', text: resolve });
    // Once the program runs, what it prints is its own, whatever it looks like.
    expect(readCommandLogLine(resolve, true)).toEqual({ kind: 'output', text: resolve });
    expect(readCommandLogLine('[tool.error] x: y', true)).toEqual({ kind: 'output', text: '[tool.error] x: y' });
    expect(readAssistantLogLine('workspace.resolve action=chat requestedProjectPath=App resolvedWorkingDir=/r/App')).toEqual({
      kind: 'detail',
      text: 'workspace.resolve action=chat requestedProjectPath=App resolvedWorkingDir=/r/App',
    });
    expect(readAssistantLogLine('proposal.diff bytes=120').kind).toBe('detail');
    expect(readAssistantLogLine('proposal.approval rejected_or_timed_out').kind).toBe('detail');
    expect(readAssistantLogLine('[command] make test')).toEqual({ kind: 'activity', tone: 'step', text: 'Ran make test' });
    expect(readAssistantLogLine('[command.output] a\nb')).toEqual({ kind: 'detail', text: 'a\nb' });
    expect(readAssistantLogLine('[tool.error] Write: permission denied')).toEqual({
      kind: 'activity',
      tone: 'problem',
      text: 'Write failed: permission denied',
    });
    expect(readAssistantLogLine('[claude.error] overloaded')).toEqual({
      kind: 'activity',
      tone: 'problem',
      text: 'Claude reported an error: overloaded',
    });
    expect(readAssistantLogLine('[codex.turn.failed] quota')).toEqual({ kind: 'activity', tone: 'problem', text: 'Codex stopped: quota' });
    expect(readAssistantLogLine('[codex.retry] the thread is gone; starting a new one').kind).toBe('detail');
    expect(readAssistantLogLine('[later.marker] something').kind).toBe('detail');
    expect(readAssistantLogLine('warning: plain text')).toEqual({ kind: 'output', text: 'warning: plain text' });
    expect(readAssistantLogLine('[x] a checkbox')).toEqual({ kind: 'output', text: '[x] a checkbox' });
  });

  it('puts a shell task\u2019s first line in its details and a proposal\u2019s steps in its activity', async () => {
    const { store } = tasks();
    const shell = await store.run('a', { action: 'shell', command: 'ls', projectPath: 'App' });
    const line = (taskId: string, text: string) => store.handle(m({ type: 'task.log', agentId: 'a', taskId, line: text }));
    line(shell.taskId, 'workspace.resolve action=shell requestedProjectPath=App resolvedWorkingDir=/r/App');
    store.handle(m({ type: 'task.started', agentId: 'a', taskId: shell.taskId }));
    line(shell.taskId, 'Package.swift');
    expect([shell.details.text(), shell.log.text()]).toEqual([
      'workspace.resolve action=shell requestedProjectPath=App resolvedWorkingDir=/r/App',
      'Package.swift',
    ]);

    const change = await store.run('a', { action: 'ai_task', system: 'codex', mode: 'apply', prompt: 'x', projectPath: 'App' });
    for (const text of [
      'workspace.resolve action=ai_task requestedProjectPath=App resolvedWorkingDir=/r/App',
      'proposal.command shell=codex exec',
      '[command] ls',
      '[command.output] Package.swift',
      '[tool.error] Write: nope',
    ]) {
      line(change.taskId, text);
    }
    expect(change.log.length).toBe(0);
    expect(change.details.slice(0, 3)).toEqual([
      'workspace.resolve action=ai_task requestedProjectPath=App resolvedWorkingDir=/r/App',
      'proposal.command shell=codex exec',
      'Package.swift',
    ]);
    expect(change.activity).toEqual([
      { text: 'Ran ls', tone: 'step' },
      { text: 'Write failed: nope', tone: 'problem' },
    ]);
  });

  it('names a build task Build', async () => {
    const { store } = tasks();
    expect((await store.run('a', { action: 'build_ios', projectPath: 'App' })).title).toBe('Build');
  });

  it('shows what applying a change came to without repeating the commentary', () => {
    const { store } = tasks();
    store.handle(m({ type: 'task.awaiting_approval', agentId: 'a', taskId: 'C', ...proposal }));
    store.handle(
      m({
        type: 'task.artifact',
        agentId: 'a',
        taskId: 'C',
        kind: 'result',
        summary: 'Applied the approved changes to 1 file.\n\n' + proposal.proposalCommentary,
        mimeType: 'text/plain',
      }),
    );
    expect(changeResult(store.get('C')!)).toBe('Applied the approved changes to 1 file.');
    store.handle(
      m({
        type: 'task.artifact',
        agentId: 'a',
        taskId: 'D',
        kind: 'result',
        summary: 'Applied approved changes to x.',
        mimeType: 'text/plain',
      }),
    );
    expect(changeResult(store.get('D')!)).toBe('Applied approved changes to x.');
  });
});

describe('a plan by Codex', () => {
  const event = (value: unknown) => JSON.stringify(value);
  const message = (text: string, id?: string, type = 'item.completed') => event({ type, item: { id, type: 'agent_message', text } });

  it('reads its events into an answer, its activity and its details', async () => {
    const { store } = tasks();
    const plan = await store.run('a', { action: 'ai_task', system: 'codex', mode: 'plan', prompt: 'Plan it', projectPath: 'App' });
    const lines = [
      'workspace.resolve action=ai_task requestedProjectPath=App resolvedWorkingDir=/r/App system=codex mode=plan approvalMode=on_request strategy=directCommand',
      event({ type: 'thread.started', thread_id: 't' }),
      '',
      event({ type: 'turn.started' }),
      event({ type: 'item.started', item: { id: 'c1', type: 'command_execution', command: 'ls' } }),
      event({
        type: 'item.completed',
        item: { id: 'c1', type: 'command_execution', command: 'ls', aggregated_output: 'Package.swift\n', exit_code: 0 },
      }),
      message('## Plan', 'm1', 'item.started'),
      message('## Plan\n\n1. Do **this**', 'm1', 'item.updated'),
      message('## Plan\n\n1. Do **this**', 'm1'),
      message('Then that.', 'm2'),
      event({ type: 'turn.completed', usage: {} }),
      '',
    ];
    for (const line of lines) store.handle(m({ type: 'task.log', agentId: 'a', taskId: plan.taskId, line }));
    expect(plan.answer).toBe('## Plan\n\n1. Do **this**\n\nThen that.');
    expect(plan.activity).toEqual([{ text: 'Ran ls', tone: 'step' }]);
    expect(plan.details.slice(0, 2)).toEqual([lines[0], '$ ls\nPackage.swift']);
    expect(plan.log.length).toBe(0);
  });

  it('puts an event that came in pieces together, and leaves other lines as output', () => {
    const reader = new CodexEventReader();
    const whole = message('A long answer.');
    expect(reader.read(whole.slice(0, 20))).toEqual([]);
    expect(reader.read(whole.slice(20))).toEqual([]);
    expect(reader.answer).toBe('A long answer.');
    expect(reader.read('')).toEqual([]);
    expect(reader.read('warning: something')).toBeNull();
    // A piece that no event completes is output after all.
    expect(reader.read('{"type":"item.comp')).toEqual([]);
    expect(reader.read(message('More.'))).toEqual([{ kind: 'output', text: '{"type":"item.comp' }]);
    expect(reader.answer).toBe('A long answer.\n\nMore.');
    expect(reader.read(event({ type: 'turn.failed', error: { message: 'quota' } }))).toEqual([
      { kind: 'activity', tone: 'problem', text: 'Codex stopped: quota' },
    ]);
    expect(reader.read('{"type":"unknown"}')).toEqual([{ kind: 'output', text: '{"type":"unknown"}' }]);
  });
});

describe('a chat answer\u2019s activity', () => {
  it('keeps what was said before a tool use, and shows each tool use allowed or denied as a line', async () => {
    let next = 0;
    const store = new ConversationsStore(null, { run: async () => ({ taskId: 'T' + ++next }), cancel: () => true });
    const conversation = store.start('mac', 'App', 'claude');
    const answer = await store.send(conversation.id, 'Take a note');
    const send = (message: Record<string, unknown>) =>
      store.handle(m({ agentId: 'mac', taskId: 'T1', conversationId: conversation.id, ...message }));
    send({ type: 'task.log', line: 'workspace.resolve action=chat requestedProjectPath=App resolvedWorkingDir=/r/App' });
    send({ type: 'task.chat.chunk', chunk: 'Let me write it down.' });
    send({ type: 'permission.request', requestId: 'R1', toolName: 'Write', toolInput: { file_path: 'notes.txt', content: 'milk' } });
    store.handle(m({ type: 'permission.resolved', requestId: 'R1', decision: 'allow', reason: 'client' }));
    send({ type: 'permission.request', requestId: 'R2', toolName: 'Bash', toolInput: { command: 'rm -rf build\necho done' } });
    store.handle(m({ type: 'permission.resolved', requestId: 'R2', decision: 'deny', reason: 'client' }));
    send({ type: 'permission.request', requestId: 'R3', toolName: 'Bash', toolInput: { command: 'ls' } });
    store.handle(m({ type: 'permission.resolved', requestId: 'R3', decision: 'deny', reason: 'timeout' }));
    // Another answer's tool use is not this one's.
    store.handle(m({ type: 'permission.resolved', requestId: 'R9', decision: 'allow', reason: 'client' }));
    send({ type: 'task.chat.chunk', chunk: '\n\nWrote notes.txt.' });
    send({ type: 'task.chat.final', text: 'Wrote notes.txt.' });
    send({ type: 'task.finished', exitCode: 0 });
    expect(answer.text).toBe('Let me write it down.\n\nWrote notes.txt.');
    expect(answer.activity).toEqual([
      { text: 'Allowed Write: notes.txt', tone: 'allowed' },
      { text: 'Denied Bash: rm -rf build', tone: 'denied' },
      { text: 'Denied Bash: ls (nobody decided in time)', tone: 'denied' },
    ]);
    expect(answer.details).toEqual(['workspace.resolve action=chat requestedProjectPath=App resolvedWorkingDir=/r/App']);

    // A final text the stream did not end with still wins.
    const other = await store.send(conversation.id, 'Again');
    store.handle(m({ type: 'task.chat.chunk', agentId: 'mac', taskId: 'T2', conversationId: conversation.id, chunk: 'Half' }));
    store.handle(m({ type: 'task.chat.final', agentId: 'mac', taskId: 'T2', conversationId: conversation.id, text: 'The whole answer.' }));
    store.handle(m({ type: 'task.finished', agentId: 'mac', taskId: 'T2', exitCode: 0 }));
    expect(other.text).toBe('The whole answer.');
  });

  it('reads the log lines an older page kept as they came', async () => {
    const db = await ConversationDB.open(indexedDB, 'chat-words-1');
    await db.save({ id: 'c', agentId: 'mac', projectPath: 'App', system: 'codex', title: 't', createdAt: 1, updatedAt: 1 }, [
      {
        conversationId: 'c',
        index: 0,
        role: 'assistant',
        text: 'x',
        taskId: 'T',
        status: 'done',
        activity: ['workspace.resolve action=chat requestedProjectPath=App resolvedWorkingDir=/r', '[command] ls'] as never,
        error: '',
        at: 1,
      },
    ]);
    const store = new ConversationsStore(db, { run: async () => ({ taskId: 'T' }), cancel: () => true });
    store.list('mac', 'App');
    await new Promise((resolve) => setTimeout(resolve, 20));
    const loaded = (await store.open('c'))!.messages![0];
    expect([loaded.activity, loaded.details]).toEqual([
      [{ text: 'Ran ls', tone: 'step' }],
      ['workspace.resolve action=chat requestedProjectPath=App resolvedWorkingDir=/r'],
    ]);
    db.close();
  });

  it('says a tool use in a few words', () => {
    expect(toolUseText('Write', { file_path: 'a.txt', content: 'x' })).toBe('Write: a.txt');
    expect(toolUseText('Bash', { command: ['git', 'status'] })).toBe('Bash: git status');
    expect(toolUseText('WebFetch', { url: 'https://example.com' })).toBe('WebFetch');
    expect(toolUseText('Bash', { command: 'x'.repeat(300) })).toBe('Bash: ' + 'x'.repeat(119) + '…');
  });
});
