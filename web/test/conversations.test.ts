import 'fake-indexeddb/auto';
import { describe, expect, it } from 'vitest';
import type { ServerMessage, TaskPayload } from '../src/protocol/messages';
import { ConversationDB } from '../src/stores/conversation_db';
import { ConversationsStore } from '../src/stores/conversations_store';
import { kMissedOutputNotice } from '../src/stores/tasks_store';

const m = (message: Record<string, unknown>) => message as unknown as ServerMessage;

function until(condition: () => boolean): Promise<void> {
  return new Promise((resolve) => {
    const check = () => (condition() ? resolve() : setImmediate(check));
    check();
  });
}

describe('ConversationsStore', () => {
  it('streams an answer, continues the conversation and finds it again after a reload', async () => {
    const db = await ConversationDB.open(indexedDB, 'chat-test-1');
    const payloads: TaskPayload[] = [];
    let next = 0;
    const sender = {
      run: async (_agentId: string, payload: TaskPayload) => {
        payloads.push(payload);
        return { taskId: 'T' + ++next };
      },
      cancel: () => true,
    };
    const store = new ConversationsStore(db, sender, () => 42);
    const conversation = store.start('mac', 'App', 'codex');
    const answer = await store.send(conversation.id, 'What is in here?\nDetails follow');
    expect(conversation.title).toBe('What is in here?');
    store.handle(m({ type: 'task.log', agentId: 'mac', taskId: 'T1', line: '[command] ls' }));
    store.handle(m({ type: 'task.chat.chunk', agentId: 'mac', taskId: 'T1', conversationId: conversation.id, chunk: 'Two ' }));
    store.handle(m({ type: 'task.chat.chunk', agentId: 'mac', taskId: 'T1', conversationId: conversation.id, chunk: 'files.' }));
    expect(answer.chunks).toEqual(['Two ', 'files.']);
    store.handle(m({ type: 'task.chat.final', agentId: 'mac', taskId: 'T1', conversationId: conversation.id, text: 'Two files.' }));
    store.handle(m({ type: 'task.finished', agentId: 'mac', taskId: 'T1', exitCode: 0 }));
    expect([answer.status, answer.text, answer.activity]).toEqual(['done', 'Two files.', [{ text: 'Ran ls', tone: 'step' }]]);

    const second = await store.send(conversation.id, 'And now?');
    store.handle(
      m({
        type: 'task.chat.error',
        agentId: 'mac',
        taskId: 'T2',
        conversationId: conversation.id,
        message: 'command exited with status 1',
      }),
    );
    store.handle(
      m({
        type: 'task.failed',
        agentId: 'mac',
        taskId: 'T2',
        error: 'command exited with status 1',
        errorCode: 'COMMAND_EXIT_NONZERO',
        exitCode: 1,
      }),
    );
    expect([second.status, second.error]).toEqual(['error', 'command exited with status 1']);
    expect(payloads).toEqual([
      {
        action: 'chat',
        system: 'codex',
        projectPath: 'App',
        prompt: 'What is in here?\nDetails follow',
        conversationId: conversation.id,
        approvalMode: 'on_request',
      },
      {
        action: 'chat',
        system: 'codex',
        projectPath: 'App',
        prompt: 'And now?',
        conversationId: conversation.id,
        approvalMode: 'on_request',
      },
    ]);

    const reloaded = new ConversationsStore(db, sender);
    expect(reloaded.list('mac', 'App')).toEqual([]);
    await until(() => reloaded.list('mac', 'App').length === 1);
    const again = await reloaded.open(conversation.id);
    expect(again!.messages!.map((x) => [x.role, x.text, x.status, x.error])).toEqual([
      ['user', 'What is in here?\nDetails follow', 'done', ''],
      ['assistant', 'Two files.', 'done', ''],
      ['user', 'And now?', 'done', ''],
      ['assistant', '', 'error', 'command exited with status 1'],
    ]);
    expect(reloaded.list('mac', 'Other')).toEqual([]);
    db.close();
  });

  it('shows a refused chat as an error and an unfinished one as interrupted after a reload', async () => {
    const db = await ConversationDB.open(indexedDB, 'chat-test-2');
    let refuse = true;
    const sender = {
      run: async () => {
        if (refuse) throw new Error('agent is not connected: mac');
        return { taskId: 'T9' };
      },
      cancel: () => true,
    };
    const store = new ConversationsStore(db, sender);
    const conversation = store.start('mac', 'App', 'claude');
    const refused = await store.send(conversation.id, 'hello');
    expect([refused.status, refused.error]).toEqual(['error', 'agent is not connected: mac']);
    refuse = false;
    await store.send(conversation.id, 'hello again');
    store.handle(m({ type: 'task.chat.chunk', agentId: 'mac', taskId: 'T9', conversationId: conversation.id, chunk: 'Hal' }));
    const reloaded = new ConversationsStore(db, sender);
    reloaded.list('mac', 'App');
    await until(() => reloaded.get(conversation.id) !== undefined);
    const again = await reloaded.open(conversation.id);
    await until(() => again!.messages!.length === 4);
    expect(again!.messages!.map((x) => x.status)).toEqual(['done', 'error', 'done', 'interrupted']);
    db.close();
  });

  it('says an answer lost some of its stream after a gap, and ends it when its task ended', async () => {
    let next = 0;
    const store = new ConversationsStore(null, { run: async () => ({ taskId: 'T' + ++next }), cancel: () => true });
    const conversation = store.start('mac', 'App', 'claude');
    const ended = await store.send(conversation.id, 'one');
    const going = await store.send(conversation.id, 'two');
    const other = store.start('linux', 'App', 'claude');
    const elsewhere = await store.send(other.id, 'three');
    store.handle(m({ type: 'task.chat.chunk', agentId: 'mac', taskId: 'T1', conversationId: conversation.id, chunk: 'Hal' }));
    const tasks = [
      { taskId: 'T1', kind: 'chat', projectPath: 'App', status: 'finished', exitCode: 0 },
      { taskId: 'T2', kind: 'chat', projectPath: 'App', status: 'running' },
    ];
    store.handle(
      m({ type: 'resume.gap', agentId: 'mac', since: 3, seq: 80, snapshot: { tasks, proposal: null, terminals: [], queue: [] } }),
    );
    expect([ended.status, ended.text, ended.missed]).toEqual(['done', 'Hal', true]);
    expect([going.status, going.missed]).toEqual(['streaming', true]);
    expect([elsewhere.status, elsewhere.missed]).toEqual(['streaming', undefined]);
    store.handle(m({ type: 'task.chat.chunk', agentId: 'mac', taskId: 'T2', conversationId: conversation.id, chunk: 'rest' }));
    expect(going.chunks).toEqual(['rest']);
    expect(kMissedOutputNotice).toBe('Some output was missed here: the relay no longer had it when this page came back.');
  });

  const hello = (seq: number, tasks: Record<string, unknown>[]) =>
    m({
      type: 'server.hello',
      agents: [
        {
          agentId: 'mac',
          busy: true,
          registration: null,
          online: true,
          seq,
          snapshot: { tasks, proposal: null, terminals: [], queue: [] },
        },
      ],
    });
  const chunk = (conversationId: string, seq: number, text: string) =>
    m({ type: 'task.chat.chunk', agentId: 'mac', taskId: 'T1', conversationId, chunk: text, seq });

  it('takes an answer that streamed while the page was loaded from the relay, in its place, and goes on once', async () => {
    const db = await ConversationDB.open(indexedDB, 'chat-test-4');
    const cancelled: string[] = [];
    const sender = {
      run: async () => ({ taskId: 'T1' }),
      cancel: (_agentId: string, taskId: string) => cancelled.push(taskId) > 0,
    };
    const first = new ConversationsStore(db, sender, () => 42);
    const conversation = first.start('mac', 'App', 'claude');
    await first.send(conversation.id, 'Tell me');
    first.handle(chunk(conversation.id, 11, 'Hal'));

    // The page is loaded again on another view: the chat is not loaded yet.
    const reloaded = new ConversationsStore(db, sender);
    const running = { taskId: 'T1', kind: 'chat', projectPath: 'App', status: 'running', conversationId: conversation.id };
    reloaded.handle(hello(12, [{ ...running, answer: 'Hallo, ' }]));
    // What the relay replays up to the hello's seq is in the answer already.
    reloaded.handle(chunk(conversation.id, 11, 'Hal'));
    reloaded.handle(chunk(conversation.id, 12, 'lo, '));
    reloaded.handle(chunk(conversation.id, 13, 'world'));
    await until(() => reloaded.get(conversation.id)?.messages?.length === 2);
    reloaded.handle(chunk(conversation.id, 14, '!'));
    const answer = reloaded.get(conversation.id)!.messages![1];
    expect([answer.index, answer.status, answer.chunks.join('')]).toEqual([1, 'streaming', 'Hallo, world!']);
    expect(reloaded.cancel(answer)).toBe(true);
    expect(cancelled).toEqual(['T1']);
    reloaded.handle(m({ type: 'task.cancelled', agentId: 'mac', taskId: 'T1', exitCode: 130, seq: 15 }));
    expect([answer.status, answer.text]).toEqual(['cancelled', 'Hallo, world!']);

    const later = new ConversationsStore(db, sender);
    later.list('mac', 'App');
    await until(() => later.get(conversation.id) !== undefined);
    const kept = await later.open(conversation.id);
    expect(kept!.messages!.map((x) => [x.role, x.text, x.status])).toEqual([
      ['user', 'Tell me', 'done'],
      ['assistant', 'Hallo, world!', 'cancelled'],
    ]);
    db.close();
  });

  it('puts the answer in place of an open chat, ends one that ended first, and after a gap takes the present', async () => {
    const db = await ConversationDB.open(indexedDB, 'chat-test-5');
    let next = 0;
    const sender = { run: async () => ({ taskId: 'T' + ++next }), cancel: () => true };
    const first = new ConversationsStore(db, sender);
    const conversation = first.start('mac', 'App', 'codex');
    await first.send(conversation.id, 'Go');

    // The chat is on the screen before the relay says hello: it reads as interrupted, then
    // goes on.
    const shown = new ConversationsStore(db, sender);
    shown.list('mac', 'App');
    await until(() => shown.get(conversation.id) !== undefined);
    const open = (await shown.open(conversation.id))!;
    expect(open.messages![1].status).toBe('interrupted');
    const running = { taskId: 'T1', kind: 'chat', projectPath: 'App', status: 'running', conversationId: conversation.id };
    shown.handle(hello(20, [{ ...running, answer: 'One, ' }]));
    await until(() => open.messages![1].status === 'streaming');
    expect(open.messages![1].chunks).toEqual(['One, ']);
    // After a gap the present is the truth: its answer is whole, or says it is not.
    shown.handle(
      m({
        type: 'resume.gap',
        agentId: 'mac',
        since: 3,
        seq: 40,
        snapshot: { tasks: [{ ...running, answer: 'One, two, ', answerCut: true }], proposal: null, terminals: [], queue: [] },
      }),
    );
    shown.handle(chunk(conversation.id, 41, 'three.'));
    expect([open.messages![1].chunks.join(''), open.messages![1].missed]).toEqual(['One, two, three.', true]);
    shown.handle(m({ type: 'task.finished', agentId: 'mac', taskId: 'T1', exitCode: 0, seq: 42 }));
    expect([open.messages![1].status, open.messages![1].text]).toEqual(['done', 'One, two, three.']);

    // An answer whose task ends before its chat is loaded is kept as it ended.
    const second = await first.send(conversation.id, 'Again');
    const away = new ConversationsStore(db, sender);
    away.handle(hello(50, [{ ...running, taskId: second.taskId, answer: 'Partly' }]));
    away.handle(m({ type: 'task.failed', agentId: 'mac', taskId: second.taskId, error: 'it broke', errorCode: 'X', exitCode: 1, seq: 51 }));
    away.list('mac', 'App');
    await until(() => away.get(conversation.id)?.messages?.length === 4);
    expect(
      away
        .get(conversation.id)!
        .messages!.slice(2)
        .map((x) => [x.text, x.status, x.error]),
    ).toEqual([
      ['Again', 'done', ''],
      ['Partly', 'error', 'it broke'],
    ]);
    db.close();
  });
});
