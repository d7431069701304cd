import { describe, expect, it } from 'vitest';
import type { ServerMessage } from '../src/protocol/messages';
import { AgentsStore } from '../src/stores/agents_store';
import { ApprovalsStore, describeToolInput } from '../src/stores/approvals_store';
import { Credentials } from '../src/stores/credentials';
import { LogLines } from '../src/stores/log_lines';
import { MemoryStorage } from '../src/stores/observable';
import { TasksStore } from '../src/stores/tasks_store';
import { TerminalsStore, encodeBase64 } from '../src/stores/terminals_store';

const m = (message: Record<string, unknown>) => message as unknown as ServerMessage;
const registration = { profiles: ['p'], projects: ['/r/App'], createProjectRoot: '', actions: ['build_ios'], taskKinds: [], buildTemplate: '', repoRoot: '/r', supportsApproval: true };

describe('Credentials', () => {
  it('takes the token out of the fragment and keeps it', () => {
    const storage = new MemoryStorage();
    const credentials = new Credentials(storage);
    expect(credentials.adoptFragment('#token=abc%2Bdef&view=chat')).toBe('#view=chat');
    expect(credentials.adoptFragment('#token=xyz')).toBe('');
    expect(credentials.adoptFragment('#other=1')).toBeNull();
    expect(new Credentials(storage).token).toBe('xyz');
    credentials.forget();
    expect(new Credentials(storage).token).toBeNull();
  });
});

describe('AgentsStore', () => {
  it('follows hello, online, offline, registration and busy', () => {
    const store = new AgentsStore(new MemoryStorage());
    store.handle(m({ type: 'server.hello', agents: [{ agentId: 'b', busy: true, registration: null }, { agentId: 'a', busy: false, registration }] }));
    expect(store.list().map((a) => [a.agentId, a.online, a.busy])).toEqual([['a', true, false], ['b', true, true]]);
    store.handle(m({ type: 'task.finished', agentId: 'b', taskId: 'T', exitCode: 0 }));
    store.handle(m({ type: 'agent.offline', agentId: 'a' }));
    store.handle(m({ type: 'agent.online', agentId: 'c' }));
    store.handle(m({ type: 'agent.register', agentId: 'c', seq: 3, ...registration, projects: ['/r/Other'] }));
    store.handle(m({ type: 'task.started', agentId: 'c', taskId: 'U' }));
    store.handle(m({ type: 'task.failed', agentId: 'c', taskId: 'V', error: 'agent is busy', errorCode: 'AGENT_BUSY', exitCode: 1 }));
    expect(store.list().map((a) => [a.agentId, a.online, a.busy])).toEqual([['a', false, false], ['b', true, false], ['c', true, true]]);
    expect(store.get('c')!.registration).toEqual({ ...registration, projects: ['/r/Other'] });
    store.handle(m({ type: 'server.hello', agents: [{ agentId: 'c', busy: false, registration }] }));
    expect(store.list().map((a) => [a.agentId, a.online])).toEqual([['a', false], ['b', false], ['c', true]]);
  });

  it('remembers the folders typed for an agent', () => {
    const storage = new MemoryStorage();
    const store = new AgentsStore(storage);
    store.handle(m({ type: 'server.hello', agents: [{ agentId: 'a', busy: false, registration }] }));
    expect(store.rememberFolder('a', '  web  ')).toBe('web');
    store.rememberFolder('a', '/r/App');
    store.rememberFolder('a', 'web');
    const again = new AgentsStore(storage);
    again.handle(m({ type: 'server.hello', agents: [{ agentId: 'a', busy: false, registration }] }));
    expect(again.projects('a')).toEqual(['/r/App', 'web']);
    again.forgetFolder('a', 'web');
    expect(new AgentsStore(storage).projects('a')).toEqual([]);
  });
});

describe('LogLines', () => {
  it('keeps the newest lines and counts the dropped ones', () => {
    const log = new LogLines(8);
    for (let i = 0; i < 1000; i++) log.push('line ' + i);
    expect(log.length).toBe(8);
    expect(log.dropped).toBe(992);
    expect(log.at(0)).toBe('line 992');
    expect(log.slice(6, 8)).toEqual(['line 998', 'line 999']);
  });
});

describe('TasksStore', () => {
  function tasks() {
    const sent: string[] = [];
    let clock = 1000;
    const store = new TasksStore(
      {
        createTask: async () => 'T1',
        cancelTask: (agentId, taskId) => sent.push('cancel ' + agentId + ' ' + taskId) > 0,
        decideProposal: (agentId, taskId, approve) => sent.push(`${approve ? 'approve' : 'reject'} ${agentId} ${taskId}`) > 0,
      },
      () => (clock += 500),
    );
    return { store, sent };
  }

  it('follows a shell task from creation to its end', async () => {
    const { store, sent } = tasks();
    const task = await store.run('mac', { action: 'shell', command: 'make test', projectPath: 'App' });
    expect([task.kind, task.title, task.status, task.projectPath]).toEqual(['shell', 'make test', 'starting', 'App']);
    store.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'T1' }));
    store.handle(m({ type: 'task.log', agentId: 'mac', taskId: 'T1', line: 'ok' }));
    store.handle(m({ type: 'task.heartbeat', agentId: 'mac', taskId: 'T1' }));
    store.cancel(task);
    store.handle(m({ type: 'task.failed', agentId: 'mac', taskId: 'T1', error: 'command exited with status 2', errorCode: 'COMMAND_EXIT_NONZERO', exitCode: 2 }));
    expect(task.log.text()).toBe('ok');
    expect([task.status, task.exitCode, task.error, task.errorCode]).toEqual(['failed', 2, 'command exited with status 2', 'COMMAND_EXIT_NONZERO']);
    expect(task.endedAt! - task.startedAt!).toBe(500);
    expect(sent).toEqual(['cancel mac T1']);
  });

  it('holds a proposal until the user decides, and shows a ready one read-only', () => {
    const { store, sent } = tasks();
    const proposal = { proposalId: 'P', proposalSummary: '1 file', proposalCommentary: 'why', proposalDiff: 'diff', proposalFiles: ['a.txt'] };
    store.handle(m({ type: 'task.awaiting_approval', agentId: 'mac', taskId: 'A', ...proposal }));
    store.handle(m({ type: 'task.proposal_ready', agentId: 'mac', taskId: 'B', ...proposal }));
    expect(store.awaitingApproval().map((t) => t.taskId)).toEqual(['A']);
    expect(store.get('B')!.proposal!.needsApproval).toBe(false);
    expect(store.decide(store.get('A')!, true)).toBe(true);
    expect(store.awaitingApproval()).toEqual([]);
    store.handle(m({ type: 'task.progress', agentId: 'mac', taskId: 'A', phase: 'apply', message: 'Applying approved changes', percent: 75 }));
    expect(store.get('A')!.status).toBe('running');
    expect(sent).toEqual(['approve mac A']);
  });
});

describe('ApprovalsStore', () => {
  it('keeps requests until they are resolved, by anyone', () => {
    const decisions: string[] = [];
    const store = new ApprovalsStore({ decidePermission: (id, allow, message) => decisions.push(`${id} ${allow} ${message}`) > 0 });
    const request = { type: 'permission.request', requestId: 'R1', taskId: 'T', agentId: 'a', toolName: 'Write', toolInput: { file_path: 'x' } };
    store.handle(m(request));
    store.handle(m({ ...request, requestId: 'R2' }));
    expect(store.count).toBe(2);
    expect(store.decide('R1', false, '  no  ')).toBe(true);
    expect(store.decide('R9', true)).toBe(false);
    store.handle(m({ type: 'permission.resolved', requestId: 'R1', decision: 'deny', reason: 'client' }));
    store.handle(m({ type: 'permission.resolved', requestId: 'R2', decision: 'deny', reason: 'timeout' }));
    expect(store.count).toBe(0);
    expect(decisions).toEqual(['R1 false no']);
  });

  it('shows a tool input as a command, a file or JSON', () => {
    expect(describeToolInput({ command: 'rm -rf build', description: 'Clean' })).toEqual({ kind: 'command', command: 'rm -rf build', description: 'Clean' });
    expect(describeToolInput({ command: ['git', 'status'] })).toEqual({ kind: 'command', command: 'git status', description: '' });
    expect(describeToolInput({ file_path: 'a.txt', content: 'hi' })).toEqual({ kind: 'file', path: 'a.txt', content: 'hi' });
    expect(describeToolInput({ url: 'x' })).toEqual({ kind: 'json', json: '{\n  "url": "x"\n}' });
  });
});

describe('TerminalsStore', () => {
  function terminals(storage = new MemoryStorage()) {
    const sent: unknown[] = [];
    const store = new TerminalsStore({ terminal: (type, agentId, payload) => sent.push({ type, agentId, payload }) > 0 }, storage);
    return { store, sent, storage };
  }

  it('opens, replaces and closes sessions and keeps the open ones for the next page', () => {
    const { store, sent, storage } = terminals();
    const first = store.open('mac', 'App', 'interactive');
    const second = store.open('mac', 'App', 'line');
    expect(sent).toEqual([
      { type: 'terminal.open', agentId: 'mac', payload: { sessionId: first.sessionId, projectPath: 'App', replace: true, mode: 'interactive' } },
      { type: 'terminal.open', agentId: 'mac', payload: { sessionId: second.sessionId, projectPath: 'App', replace: true, replaceSessionId: first.sessionId } },
    ]);
    store.handle(m({ type: 'terminal.opened', agentId: 'mac', sessionId: second.sessionId, projectPath: 'App', status: 'running' }));
    expect(store.forProject('mac', 'App')!.status).toBe('running');

    const later = terminals(storage);
    later.store.attachAll();
    expect(later.sent).toEqual([{ type: 'terminal.attach', agentId: 'mac', payload: { sessionId: second.sessionId } }]);
    later.store.handle(m({ type: 'terminal.closed', agentId: 'mac', sessionId: second.sessionId, projectPath: 'App', exitCode: 0 }));
    expect(terminals(storage).store.forProject('mac', 'App')).toBeUndefined();
  });

  it('resets the view for a replay and holds output until a view is there', () => {
    const { store } = terminals();
    const session = store.open('mac', 'App', 'interactive');
    const out = (data: string, snapshot?: boolean) =>
      store.handle(m({ type: 'terminal.output', agentId: 'mac', sessionId: session.sessionId, projectPath: 'App', data, snapshot }));
    out('before ');
    store.attachAll();
    out('re', true);
    out('play', true);
    out(' live');
    const seen: string[] = [];
    store.connect(session.sessionId, { output: (data, reset) => seen.push(`${reset ? 'RESET:' : ''}${data}`) });
    out('!');
    expect(seen).toEqual(['RESET:replay live', '!']);
  });

  it('encodes input as UTF-8 base64', () => {
    const { store, sent } = terminals();
    const session = store.open('mac', 'App', 'interactive');
    store.input(session, 'é\r');
    expect(sent[1]).toEqual({ type: 'terminal.input', agentId: 'mac', payload: { sessionId: session.sessionId, dataBase64: 'w6kN' } });
    expect(encodeBase64('x'.repeat(100000)).length).toBe(133336);
  });

  it('marks a session closed when the user closes it', () => {
    const { store, sent, storage } = terminals();
    const session = store.open('mac', 'App', 'interactive');
    expect(store.close(session)).toBe(true);
    expect(sent[1]).toEqual({ type: 'terminal.close', agentId: 'mac', payload: { sessionId: session.sessionId } });
    expect(store.forProject('mac', 'App')).toBeUndefined();
    expect(terminals(storage).store.forProject('mac', 'App')).toBeUndefined();
  });

  it('marks a session the agent no longer has as closed', () => {
    const { store } = terminals();
    const session = store.open('mac', 'App', 'interactive');
    store.handle(m({ type: 'terminal.error', agentId: 'mac', sessionId: session.sessionId, projectPath: '', error: 'Terminal session not found.', message: 'Terminal session not found.' }));
    expect([session.status, session.message]).toEqual(['closed', 'Terminal session not found.']);
  });
});

describe('ApprovalsStore sheet', () => {
  it('comes up for a new request and goes away with the last one', () => {
    const store = new ApprovalsStore({ decidePermission: () => true });
    const request = { type: 'permission.request', requestId: 'R1', taskId: 'T', agentId: 'a', toolName: 'Bash', toolInput: {} };
    store.handle(m(request));
    store.handle(m({ ...request, requestId: 'R2' }));
    expect(store.sheetOpen).toBe(true);
    store.dismiss();
    store.handle(m({ ...request, requestId: 'R2' }));
    expect(store.sheetOpen).toBe(false);
    store.reveal();
    store.handle(m({ type: 'permission.resolved', requestId: 'R1', decision: 'allow', reason: 'client' }));
    expect(store.sheetOpen).toBe(true);
    store.handle(m({ type: 'permission.resolved', requestId: 'R2', decision: 'deny', reason: 'timeout' }));
    expect(store.sheetOpen).toBe(false);
  });
});

describe('TerminalsStore processed output', () => {
  it('counts what the terminal confirmed', () => {
    const store = new TerminalsStore({ terminal: () => true }, new MemoryStorage());
    const session = store.open('mac', 'App', 'interactive');
    store.processed(session.sessionId, 10);
    store.processed(session.sessionId, 5);
    store.processed('unknown', 3);
    expect(store.get(session.sessionId)!.processed).toBe(15);
  });
});
