import { describe, expect, it } from 'vitest';
import type { ServerMessage } from '../src/protocol/messages';
import { ConversationsStore } from '../src/stores/conversations_store';
import { MemoryStorage } from '../src/stores/observable';
import { TasksStore, taskEnd } from '../src/stores/tasks_store';
import { queuedText } from '../src/views/names';
import { taskStatusText } from '../src/views/TasksView';

const m = (message: Record<string, unknown>) => message as unknown as ServerMessage;
const shell = (command: string) => ({ action: 'shell', command, projectPath: 'App' });

function store() {
  let next = 0;
  return new TasksStore(
    { createTask: async () => 'T' + ++next, cancelTask: () => true, decideProposal: () => true },
    new MemoryStorage(),
    () => 5000,
  );
}

const queued = (taskId: string, place: number, command: string, waiting: string[]) =>
  m({ type: 'task.queued', agentId: 'a', taskId, place, payload: shell(command), waiting });
const unqueued = (taskId: string, reason: string, waiting: string[], error?: string) =>
  m({ type: 'task.unqueued', agentId: 'a', taskId, reason, waiting, ...(error ? { error } : {}) });
const snapshot = (tasks: unknown[], queue: unknown[]) => ({ tasks, proposal: null, terminals: [], queue });
const hello = (snap: unknown) =>
  m({ type: 'server.hello', agents: [{ agentId: 'a', busy: true, registration: null, online: true, seq: 9, snapshot: snap }] });

describe("the relay's queue", () => {
  it('says where a task waits: next, then 2nd, 3rd, 4th … in line', () => {
    expect([1, 2, 3, 4, 11, 12, 13, 20, 21, 22, 23, 101].map(queuedText)).toEqual([
      'Queued · next in line',
      'Queued · 2nd in line',
      'Queued · 3rd in line',
      'Queued · 4th in line',
      'Queued · 11th in line',
      'Queued · 12th in line',
      'Queued · 13th in line',
      'Queued · 20th in line',
      'Queued · 21st in line',
      'Queued · 22nd in line',
      'Queued · 23rd in line',
      'Queued · 101st in line',
    ]);
    expect(queuedText(undefined)).toBe('Queued');
  });

  it('shows a waiting task with its place until it goes to the agent, and the others move up', async () => {
    const tasks = store();
    const mine = await tasks.run('a', shell('echo 1'));
    tasks.handle(queued(mine.taskId, 1, 'echo 1', [mine.taskId]));
    // One another page created.
    tasks.handle(queued('X', 2, 'echo 2', [mine.taskId, 'X']));
    const other = tasks.get('X')!;
    expect([taskStatusText(mine), taskStatusText(other), other.title]).toEqual(['Queued · next in line', 'Queued · 2nd in line', 'echo 2']);
    tasks.handle(unqueued(mine.taskId, 'assigned', ['X']));
    expect([taskStatusText(mine), taskStatusText(other)]).toEqual(['Starting…', 'Queued · next in line']);
    tasks.handle(m({ type: 'task.started', agentId: 'a', taskId: 'X', seq: 12 }));
    expect(taskStatusText(other)).toBe('Running…');
    // Refused as busy after all: it waits again at the head.
    tasks.handle(queued(mine.taskId, 1, 'echo 1', [mine.taskId]));
    expect([mine.status, mine.place]).toEqual(['queued', 1]);
  });

  it('ends a waiting task cancelled as Cancelled, and one whose agent stayed away as failed with the reason', async () => {
    const tasks = store();
    const cancelled = await tasks.run('a', shell('echo 1'));
    const failed = await tasks.run('a', shell('echo 2'));
    tasks.handle(queued(cancelled.taskId, 1, 'echo 1', [cancelled.taskId]));
    tasks.handle(queued(failed.taskId, 2, 'echo 2', [cancelled.taskId, failed.taskId]));
    expect(tasks.cancel(cancelled)).toBe(true);
    tasks.handle(unqueued(cancelled.taskId, 'cancelled', [failed.taskId]));
    expect([taskStatusText(cancelled), taskEnd(cancelled), cancelled.endedAt]).toEqual(['Cancelled', 'cancelled', 5000]);
    expect(failed.place).toBe(1);
    tasks.handle(unqueued(failed.taskId, 'failed', [], 'the agent stayed offline for 600 s; the task never started'));
    expect([taskStatusText(failed), failed.error, failed.place]).toEqual([
      'Failed',
      'the agent stayed offline for 600 s; the task never started',
      undefined,
    ]);
  });

  it('takes the queue of a hello as it is, and learns what became of the tasks it thought waiting', () => {
    const tasks = store();
    tasks.handle(
      hello(
        snapshot(
          [],
          [
            { taskId: 'A', payload: shell('a') },
            { taskId: 'B', payload: shell('b') },
            { taskId: 'C', payload: shell('c') },
            { taskId: 'D', payload: shell('d') },
          ],
        ),
      ),
    );
    expect(tasks.list().map((t) => [t.taskId, t.title, taskStatusText(t)])).toEqual([
      ['D', 'd', 'Queued · 4th in line'],
      ['C', 'c', 'Queued · 3rd in line'],
      ['B', 'b', 'Queued · 2nd in line'],
      ['A', 'a', 'Queued · next in line'],
    ]);
    // Meanwhile: A went to the agent, B was cancelled, C the relay forgot; D still waits.
    tasks.handle(
      hello(
        snapshot(
          [
            { taskId: 'A', kind: 'shell', projectPath: 'App', status: 'running' },
            { taskId: 'B', kind: 'shell', projectPath: 'App', status: 'cancelled' },
          ],
          [{ taskId: 'D', payload: shell('d') }],
        ),
      ),
    );
    expect(tasks.list().map((t) => [t.taskId, taskStatusText(t)])).toEqual([
      ['D', 'Queued · next in line'],
      ['C', 'Ended unseen: the agent no longer knew it'],
      ['B', 'Cancelled'],
      ['A', 'Running…'],
    ]);
  });

  it('leaves a waiting task waiting after a gap', () => {
    const tasks = store();
    tasks.handle(queued('W', 1, 'w', ['W']));
    tasks.handle(
      m({ type: 'resume.gap', agentId: 'a', since: 1, seq: 20, snapshot: snapshot([], [{ taskId: 'W', payload: shell('w') }]) }),
    );
    expect([tasks.get('W')!.status, tasks.get('W')!.place]).toEqual(['queued', 1]);
  });

  it('ends a chat message cancelled or failed while it waited; a gap leaves it waiting', async () => {
    let next = 0;
    const chats = new ConversationsStore(null, { run: async () => ({ taskId: 'T' + ++next }), cancel: () => true });
    const conversation = chats.start('a', 'App', 'claude');
    const first = await chats.send(conversation.id, 'one');
    const second = await chats.send(conversation.id, 'two');
    const third = await chats.send(conversation.id, 'three');
    chats.handle(
      m({
        type: 'resume.gap',
        agentId: 'a',
        since: 1,
        seq: 20,
        snapshot: snapshot(
          [],
          ['T1', 'T2', 'T3'].map((taskId) => ({ taskId, payload: {} })),
        ),
      }),
    );
    expect([first.status, first.missed]).toEqual(['streaming', undefined]);
    chats.handle(unqueued('T1', 'cancelled', []));
    chats.handle(unqueued('T2', 'failed', [], 'the agent stayed offline for 600 s; the task never started'));
    chats.handle(unqueued('T3', 'assigned', []));
    expect([first.status, second.status, second.error, third.status]).toEqual([
      'cancelled',
      'error',
      'the agent stayed offline for 600 s; the task never started',
      'streaming',
    ]);
  });
});
