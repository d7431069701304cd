import { describe, expect, it } from 'vitest';
import type { ServerMessage } from '../src/protocol/messages';
import { decodeServerMessage } from '../src/protocol/messages';
import { AgentsStore } from '../src/stores/agents_store';
import { ApprovalsStore, describeToolInput } from '../src/stores/approvals_store';
import { Credentials } from '../src/stores/credentials';
import { fold, kFoldCharacters, kFoldLines, showAllLabel } from '../src/lib/fold';
import { LogLines } from '../src/stores/log_lines';
import { MemoryStorage } from '../src/stores/observable';
import { TasksStore, kMissedOutputNotice } from '../src/stores/tasks_store';
import { taskStatusText } from '../src/views/TasksView';
import { TerminalsStore, encodeBase64, kRenderAhead } from '../src/stores/terminals_store';

const m = (message: Record<string, unknown>) => message as unknown as ServerMessage;
const registration = {
  profiles: ['p'],
  projects: ['/r/App'],
  createProjectRoot: '',
  actions: ['build_ios'],
  taskKinds: [],
  buildTemplate: '',
  repoRoot: '/r',
  supportsApproval: true,
};

describe('Credentials', () => {
  it('takes the token out of the fragment the page was opened with and keeps it', () => {
    const storage = new MemoryStorage();
    const credentials = new Credentials(storage);
    expect(credentials.adoptOpeningFragment('#token=abc%2Bdef&view=chat')).toBe('#view=chat');
    expect(credentials.token).toBe('abc+def');
    expect(new Credentials(storage).token).toBe('abc+def');
    // The next page opened with a token takes that one.
    const next = new Credentials(storage);
    expect(next.adoptOpeningFragment('#token=xyz')).toBe('');
    expect(new Credentials(storage).token).toBe('xyz');
    expect(new Credentials(storage).adoptOpeningFragment('#other=1')).toBeNull();
    next.forget();
    expect(new Credentials(storage).token).toBeNull();
  });

  it('takes no token from a fragment that comes after the page opened, but removes it', () => {
    const storage = new MemoryStorage();
    const credentials = new Credentials(storage);
    expect(credentials.adoptOpeningFragment('')).toBeNull();
    expect(credentials.adoptOpeningFragment('#token=evil')).toBe('');
    expect(credentials.token).toBeNull();
    credentials.set('good');
    expect(credentials.adoptOpeningFragment('#token=evil&view=chat')).toBe('#view=chat');
    expect(credentials.token).toBe('good');
    expect(new Credentials(storage).token).toBe('good');
  });
});

describe('AgentsStore', () => {
  it('follows hello, online, offline, registration and busy', () => {
    const store = new AgentsStore(new MemoryStorage());
    store.handle(
      m({
        type: 'server.hello',
        agents: [
          { agentId: 'b', busy: true, registration: null, online: true },
          { agentId: 'a', busy: false, registration, online: true },
          { agentId: 'gone', busy: false, registration: null, online: false },
        ],
      }),
    );
    expect(store.list().map((a) => [a.agentId, a.online, a.busy])).toEqual([
      ['a', true, false],
      ['b', true, true],
      ['gone', false, false],
    ]);
    store.handle(m({ type: 'task.finished', agentId: 'b', taskId: 'T', exitCode: 0 }));
    store.handle(m({ type: 'agent.offline', agentId: 'a' }));
    store.handle(m({ type: 'agent.online', agentId: 'c' }));
    store.handle(m({ type: 'agent.register', agentId: 'c', seq: 3, ...registration, projects: ['/r/Other'] }));
    store.handle(m({ type: 'task.started', agentId: 'c', taskId: 'U' }));
    store.handle(m({ type: 'task.failed', agentId: 'c', taskId: 'V', error: 'agent is busy', errorCode: 'AGENT_BUSY', exitCode: 1 }));
    expect(store.list().map((a) => [a.agentId, a.online, a.busy])).toEqual([
      ['a', false, false],
      ['b', true, false],
      ['c', true, true],
      ['gone', false, false],
    ]);
    expect(store.get('c')!.registration).toEqual({ ...registration, projects: ['/r/Other'] });
    store.handle(m({ type: 'server.hello', agents: [{ agentId: 'c', busy: false, registration, online: true }] }));
    expect(store.list().map((a) => [a.agentId, a.online])).toEqual([
      ['a', false],
      ['b', false],
      ['c', true],
      ['gone', false],
    ]);
  });

  it('remembers the folders typed for an agent', () => {
    const storage = new MemoryStorage();
    const store = new AgentsStore(storage);
    store.handle(m({ type: 'server.hello', agents: [{ agentId: 'a', busy: false, registration, online: true }] }));
    expect(store.rememberFolder('a', '  web  ')).toBe('web');
    store.rememberFolder('a', '/r/App');
    store.rememberFolder('a', 'web');
    const again = new AgentsStore(storage);
    again.handle(m({ type: 'server.hello', agents: [{ agentId: 'a', busy: false, registration, online: true }] }));
    expect(again.projects('a')).toEqual(['/r/App', 'web']);
    again.forgetFolder('a', 'web');
    expect(new AgentsStore(storage).projects('a')).toEqual([]);
  });

  it('lists a folder once, however it was typed, and forgets only what it remembered', () => {
    const store = new AgentsStore(new MemoryStorage());
    store.handle(m({ type: 'server.hello', agents: [{ agentId: 'a', busy: false, registration, online: true }] }));
    // The registration lists /r/App.
    expect(store.rememberFolder('a', 'App')).toBe('/r/App');
    expect(store.rememberFolder('a', './App/')).toBe('/r/App');
    expect(store.rememberFolder('a', '/r//App')).toBe('/r/App');
    expect(store.rememberFolder('a', 'web/')).toBe('web/');
    expect(store.rememberFolder('a', '/r/web')).toBe('web/');
    expect(store.projects('a')).toEqual(['/r/App', 'web/']);
    expect(store.isRemembered('a', '/r/App')).toBe(false);
    expect(store.isRemembered('a', 'web/')).toBe(true);
    store.forgetFolder('a', '/r/App');
    store.forgetFolder('a', 'web/');
    expect(store.projects('a')).toEqual(['/r/App']);
  });

  it('lists the projects found under the repository root after the others, each folder once', () => {
    const store = new AgentsStore(new MemoryStorage());
    store.handle(m({ type: 'server.hello', agents: [{ agentId: 'a', busy: false, registration, online: true }] }));
    store.rememberFolder('a', 'web');
    const found = (path: string) => ({ path, name: path.split('/').pop(), markers: ['.git'] });
    store.handle(
      m({ type: 'projects.listed', agentId: 'a', seq: 9, projects: [found('App'), found('Lib'), found('web/'), found('proj/Tool')] }),
    );
    expect(store.projects('a')).toEqual(['/r/App', 'web', 'Lib', 'proj/Tool']);
    // Found, not remembered: nothing to forget.
    expect(store.isRemembered('a', 'Lib')).toBe(false);
    expect(store.rememberFolder('a', '/r/Lib')).toBe('Lib');
    // Another agent's list is its own; a newer list replaces the older.
    expect(store.projects('b')).toEqual([]);
    store.handle(m({ type: 'projects.listed', agentId: 'a', seq: 10, projects: [found('Lib')] }));
    expect(store.projects('a')).toEqual(['/r/App', 'web', 'Lib']);
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

  it('shows output read a line at a time without a blank line after each', () => {
    const log = new LogLines();
    // "one\n", "two\n" read apart; then "three\n\n\nfour\n" in one read.
    for (const line of ['one', '', 'two', '', 'three', '', '', 'four', '']) log.output(line);
    expect(log.text()).toBe('one\ntwo\nthree\n\n\nfour');
    // Empty lines at the start, and after a notice, are shown as they come.
    const other = new LogLines();
    other.output('');
    other.output('x');
    other.notice('Some output was missed here');
    other.output('');
    expect(other.text()).toBe('\nx\nSome output was missed here\n');
  });
});

describe('TasksStore', () => {
  function tasks(storage = new MemoryStorage()) {
    const sent: string[] = [];
    let clock = 1000;
    let next = 0;
    const store = new TasksStore(
      {
        createTask: async () => 'T' + ++next,
        cancelTask: (agentId, taskId) => sent.push('cancel ' + agentId + ' ' + taskId) > 0,
        decideProposal: (agentId, taskId, approve, files) =>
          sent.push(`${approve ? 'approve' : 'reject'} ${agentId} ${taskId}${files ? ' ' + files.join(',') : ''}`) > 0,
      },
      storage,
      () => (clock += 500),
    );
    return { store, sent };
  }

  it('keeps what it asked of its newest 50 tasks for the next page', async () => {
    const storage = new MemoryStorage();
    const { store } = tasks(storage);
    for (let i = 1; i <= 51; i++) await store.run('mac', { action: 'shell', command: 'echo ' + i, projectPath: 'App' });
    const next = tasks(storage).store;
    for (const id of ['T1', 'T2', 'T51']) next.handle(m({ type: 'task.started', agentId: 'mac', taskId: id, seq: 1 }));
    expect(['T1', 'T2', 'T51'].map((id) => next.get(id)!.title)).toEqual(['Task', 'echo 2', 'echo 51']);
    expect(next.get('T51')!.payload).toEqual({ action: 'shell', command: 'echo 51', projectPath: 'App' });
  });

  it('follows a shell task from creation to its end', async () => {
    const { store, sent } = tasks();
    const task = await store.run('mac', { action: 'shell', command: 'make test', projectPath: 'App' });
    expect([task.kind, task.title, task.status, task.projectPath]).toEqual(['shell', 'make test', 'starting', 'App']);
    store.handle(m({ type: 'task.started', agentId: 'mac', taskId: 'T1' }));
    store.handle(m({ type: 'task.log', agentId: 'mac', taskId: 'T1', line: 'ok' }));
    store.handle(m({ type: 'task.heartbeat', agentId: 'mac', taskId: 'T1' }));
    store.cancel(task);
    store.handle(
      m({
        type: 'task.failed',
        agentId: 'mac',
        taskId: 'T1',
        error: 'command exited with status 2',
        errorCode: 'COMMAND_EXIT_NONZERO',
        exitCode: 2,
      }),
    );
    expect(task.log.text()).toBe('ok');
    expect([task.status, task.exitCode, task.error, task.errorCode]).toEqual([
      'failed',
      2,
      'command exited with status 2',
      'COMMAND_EXIT_NONZERO',
    ]);
    expect(task.endedAt! - task.startedAt!).toBe(500);
    expect(sent).toEqual(['cancel mac T1']);
  });

  it('holds a proposal until the user decides, and shows a ready one read-only', () => {
    const { store, sent } = tasks();
    const proposal = {
      proposalId: 'P',
      proposalSummary: '1 file',
      proposalCommentary: 'why',
      proposalDiff: 'diff',
      proposalFiles: ['a.txt'],
    };
    store.handle(m({ type: 'task.awaiting_approval', agentId: 'mac', taskId: 'A', ...proposal }));
    store.handle(m({ type: 'task.proposal_ready', agentId: 'mac', taskId: 'B', ...proposal }));
    expect(store.awaitingApproval().map((t) => t.taskId)).toEqual(['A']);
    expect(store.get('B')!.proposal!.needsApproval).toBe(false);
    expect(store.decide(store.get('A')!, true)).toBe(true);
    expect(store.awaitingApproval()).toEqual([]);
    store.handle(
      m({ type: 'task.progress', agentId: 'mac', taskId: 'A', phase: 'apply', message: 'Applying approved changes', percent: 75 }),
    );
    expect(store.get('A')!.status).toBe('running');
    expect(sent).toEqual(['approve mac A']);
  });

  it('approves some of the files of a proposal that lets them be chosen', () => {
    const { store, sent } = tasks();
    const proposal = {
      proposalId: 'P',
      proposalSummary: '2 files',
      proposalCommentary: 'why',
      proposalDiff: 'diff',
      proposalFiles: ['a.c', 'b.c'],
    };
    store.handle(m({ type: 'task.awaiting_approval', agentId: 'mac', taskId: 'A', ...proposal, fileChoice: true }));
    store.handle(m({ type: 'task.proposal_ready', agentId: 'mac', taskId: 'B', ...proposal, fileChoice: true }));
    expect(store.get('A')!.proposal!.fileChoice).toBe(true);
    // A proposal applied without a review offers no choice.
    expect(store.get('B')!.proposal!.fileChoice).toBeUndefined();
    expect(store.decide(store.get('A')!, true, ['b.c'])).toBe(true);
    expect(sent).toEqual(['approve mac A b.c']);
  });
});

describe('ApprovalsStore', () => {
  it('keeps requests until they are resolved, by anyone', () => {
    const decisions: string[] = [];
    const store = new ApprovalsStore({ decidePermission: (id, allow, message) => decisions.push(`${id} ${allow} ${message}`) > 0 });
    const request = {
      type: 'permission.request',
      requestId: 'R1',
      taskId: 'T',
      agentId: 'a',
      toolName: 'Write',
      toolInput: { file_path: 'x' },
    };
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

  it('shows a tool input as a command, a file or fields, and leaves no field out', () => {
    expect(describeToolInput({ command: 'rm -rf build', description: 'Clean' })).toEqual({
      kind: 'command',
      command: 'rm -rf build',
      description: 'Clean',
      others: [],
    });
    expect(describeToolInput({ command: ['git', 'status'] })).toEqual({
      kind: 'command',
      command: 'git status',
      description: '',
      others: [],
    });
    expect(describeToolInput({ cmd: 'ls' })).toEqual({ kind: 'command', command: 'ls', description: '', others: [] });
    expect(describeToolInput({ file_path: 'a.txt', content: 'hi' })).toEqual({ kind: 'file', path: 'a.txt', content: 'hi', others: [] });
    // A second command or path beside the one shown is shown too, as is anything else.
    expect(describeToolInput({ command: 'ls', cmd: 'rm -rf ~', description: 'List', timeout: 5, env: { A: '1' } })).toEqual({
      kind: 'command',
      command: 'ls',
      description: 'List',
      others: [
        { name: 'cmd', json: '"rm -rf ~"' },
        { name: 'timeout', json: '5' },
        { name: 'env', json: '{\n  "A": "1"\n}' },
      ],
    });
    expect(describeToolInput({ file_path: 'a.txt', path: '/etc/hosts', content: 'hi', new_string: 'more', description: '' })).toEqual({
      kind: 'file',
      path: 'a.txt',
      content: 'hi',
      others: [
        { name: 'path', json: '"/etc/hosts"' },
        { name: 'new_string', json: '"more"' },
        { name: 'description', json: '""' },
      ],
    });
    expect(describeToolInput({ command: ['rm', 1] })).toEqual({
      kind: 'fields',
      others: [{ name: 'command', json: '[\n  "rm",\n  1\n]' }],
    });
    expect(describeToolInput({ url: 'x' })).toEqual({ kind: 'fields', others: [{ name: 'url', json: '"x"' }] });
    expect(describeToolInput(JSON.parse('{"__proto__":{"a":1},"file_path":"p"}'))).toEqual({
      kind: 'file',
      path: 'p',
      content: '',
      others: [{ name: '__proto__', json: '{\n  "a": 1\n}' }],
    });
    expect(describeToolInput({})).toEqual({ kind: 'json', json: '{}' });
    expect(describeToolInput(['a'])).toEqual({ kind: 'json', json: '[\n  "a"\n]' });
    expect(describeToolInput('text')).toEqual({ kind: 'json', json: '"text"' });
    expect(describeToolInput(undefined)).toEqual({ kind: 'json', json: 'undefined' });
  });
});

describe('fold', () => {
  it('leaves a short value as it is', () => {
    expect(fold('one\ntwo')).toBeNull();
    expect(fold(Array.from({ length: kFoldLines }, (_, i) => `${i}`).join('\n') + '\n')).toBeNull();
    expect(fold('x'.repeat(kFoldCharacters))).toBeNull();
  });

  it('folds a long value to its first lines and says how long it is', () => {
    const text = Array.from({ length: 300 }, (_, i) => `line ${i + 1}`).join('\n');
    const folded = fold(text)!;
    expect(folded).toEqual({ head: text.split('\n').slice(0, kFoldLines).join('\n'), lines: 300, characters: 2591 });
    expect(showAllLabel(folded)).toBe('Show all (300 lines, 2,591 characters)');
    // A long line is cut at the character limit, never inside a character.
    expect(fold('😀'.repeat(kFoldCharacters))).toBeNull();
    const wide = fold('😀'.repeat(5000))!;
    expect(wide.lines).toBe(1);
    expect(wide.characters).toBe(5000);
    expect(wide.head).toBe('😀'.repeat(kFoldCharacters));
    expect(showAllLabel(wide)).toBe('Show all (1 line, 5,000 characters)');
    expect(fold('a' + '😀'.repeat(4500))!.head).toBe('a' + '😀'.repeat(kFoldCharacters - 1));
    expect(showAllLabel(fold('x'.repeat(1_234_567))!)).toBe('Show all (1 line, 1,234,567 characters)');
  });
});

function terminals(storage = new MemoryStorage()) {
  const sent: unknown[] = [];
  const flushes: (() => void)[] = [];
  const store = new TerminalsStore(
    {
      terminal: (type, agentId, payload) => sent.push({ type, agentId, payload }) > 0,
      ackTerminal: (agentId, sessionId, offset) =>
        sent.push({ type: 'terminal.ack', agentId, payload: offset === undefined ? { sessionId } : { sessionId, offset } }) > 0,
    },
    storage,
    (flush) => flushes.push(flush),
  );
  const flush = () => flushes.splice(0).forEach((f) => f());
  return { store, sent, storage, flush, flushes };
}

describe('TerminalsStore', () => {
  it('opens, replaces and closes sessions and keeps the open ones for the next page', () => {
    const { store, sent, storage } = terminals();
    const first = store.open('mac', 'App', 'interactive');
    const second = store.open('mac', 'App', 'line');
    expect(sent).toEqual([
      {
        type: 'terminal.open',
        agentId: 'mac',
        payload: { sessionId: first.sessionId, projectPath: 'App', replace: true, mode: 'interactive' },
      },
      {
        type: 'terminal.open',
        agentId: 'mac',
        payload: { sessionId: second.sessionId, projectPath: 'App', replace: true, replaceSessionId: first.sessionId },
      },
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
    // What the relay gives a page that resumes, before the agent answers the attach, is in
    // the replay.
    out('resumed ');
    store.handle(m({ type: 'terminal.opened', agentId: 'mac', sessionId: session.sessionId, projectPath: 'App', status: 'running' }));
    out('re', true);
    out('play', true);
    out(' live');
    const seen: string[] = [];
    store.connect(session.sessionId, { output: (data, reset) => void seen.push(`${reset ? 'RESET:' : ''}${data}`) });
    out('!');
    expect(seen).toEqual(['RESET:replay live', '!']);
  });

  it('gives a replay the width its output was made for, and live output none', () => {
    const { store, storage } = terminals();
    const session = store.open('mac', 'App', 'interactive');
    store.handle(m({ type: 'terminal.opened', agentId: 'mac', sessionId: session.sessionId, projectPath: 'App', status: 'running' }));
    store.resize(session, 150, 40);
    const seen: unknown[] = [];
    const out = (data: string, snapshot?: boolean) =>
      store.handle(m({ type: 'terminal.output', agentId: 'mac', sessionId: session.sessionId, projectPath: 'App', data, snapshot }));
    store.connect(session.sessionId, { output: (data, reset, _rendered, cols) => void seen.push([data, reset, cols]) });
    // After a reload: the width this page last gave the terminal, kept with the session.
    const later = terminals(storage);
    const kept = later.store.get(session.sessionId)!;
    expect([kept.cols, kept.rows]).toEqual([150, 40]);
    later.store.attachAll();
    const laterSeen: unknown[] = [];
    later.store.connect(session.sessionId, { output: (data, reset, _rendered, cols) => void laterSeen.push([data, reset, cols]) });
    later.store.handle(m({ type: 'terminal.opened', agentId: 'mac', sessionId: session.sessionId, projectPath: 'App', status: 'running' }));
    later.store.handle(
      m({ type: 'terminal.output', agentId: 'mac', sessionId: session.sessionId, projectPath: 'App', data: 'old', snapshot: true }),
    );
    expect(laterSeen).toEqual([['old', true, 150]]);
    // The agent says the size the terminal has (another page may have resized it since).
    store.attachAll();
    store.handle(
      m({
        type: 'terminal.opened',
        agentId: 'mac',
        sessionId: session.sessionId,
        projectPath: 'App',
        status: 'running',
        cols: 44,
        rows: 30,
      }),
    );
    out('re', true);
    out('play', true);
    out('live');
    expect(seen).toEqual([
      ['re', true, 44],
      ['play', false, 44],
      ['live', false, undefined],
    ]);
    // A size that is no size is not taken.
    const decoded = decodeServerMessage(
      JSON.stringify({ type: 'terminal.opened', agentId: 'mac', sessionId: 'S', projectPath: 'App', status: 'running', cols: 0, rows: 30 }),
    );
    expect(decoded).toEqual({ type: 'terminal.opened', agentId: 'mac', sessionId: 'S', projectPath: 'App', status: 'running' });
  });

  it('takes from a resuming relay neither output nor answers from before its attach', () => {
    const { store } = terminals();
    const session = store.open('mac', 'App', 'interactive');
    const seen: unknown[] = [];
    store.connect(session.sessionId, { output: (data, reset, _rendered, cols) => void seen.push([data, reset, cols]) });
    const said = (seq: number, message: Record<string, unknown>) =>
      store.handle(m({ agentId: 'mac', sessionId: session.sessionId, projectPath: 'App', seq, ...message }));
    store.handle(
      m({
        type: 'server.hello',
        agents: [
          {
            agentId: 'mac',
            busy: false,
            registration: null,
            online: true,
            seq: 10,
            snapshot: { tasks: [], proposal: null, terminals: [], queue: [] },
          },
        ],
      }),
    );
    store.attachAll();
    // The relay gives what came since the page's last message: all of it is older.
    said(5, { type: 'terminal.output', data: 'typed', offset: 5 });
    said(7, { type: 'terminal.opened', status: 'running', cols: 50, rows: 20 });
    said(8, { type: 'terminal.output', data: 'another page', snapshot: true });
    said(9, { type: 'terminal.output', data: 'more typed', offset: 9 });
    // Then the answer to this attach, its replay, and what is new.
    said(11, { type: 'terminal.opened', status: 'running', cols: 142, rows: 45 });
    said(12, { type: 'terminal.output', data: 'replay', snapshot: true });
    said(13, { type: 'terminal.output', data: 'new', offset: 20 });
    expect(seen).toEqual([
      ['replay', true, 142],
      ['new', false, undefined],
    ]);
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

  it('lists the sessions a snapshot names and attaches them; one per project', () => {
    const { store, sent, storage } = terminals();
    const mine = store.open('mac', 'App', 'interactive');
    sent.length = 0;
    const snapshot = (terminals: unknown[]) => ({ tasks: [], proposal: null, terminals });
    store.handle(
      m({
        type: 'server.hello',
        agents: [
          {
            agentId: 'mac',
            busy: false,
            registration: null,
            online: true,
            seq: 9,
            snapshot: snapshot([
              { sessionId: mine.sessionId, projectPath: 'App', mode: 'interactive' },
              { sessionId: 'S2', projectPath: 'Lib', mode: 'line' },
            ]),
          },
        ],
      }),
    );
    expect(store.forProject('mac', 'Lib')).toEqual({
      sessionId: 'S2',
      agentId: 'mac',
      projectPath: 'Lib',
      mode: 'line',
      status: 'running',
      message: '',
    });
    expect(store.forProject('mac', 'App')).toBe(mine);
    store.attachAll();
    expect(sent).toEqual([
      { type: 'terminal.attach', agentId: 'mac', payload: { sessionId: mine.sessionId } },
      { type: 'terminal.attach', agentId: 'mac', payload: { sessionId: 'S2' } },
    ]);
    // After a gap, a session another client opened for the project replaced this one.
    store.handle(
      m({
        type: 'resume.gap',
        agentId: 'mac',
        since: 9,
        seq: 40,
        snapshot: snapshot([{ sessionId: 'S3', projectPath: 'App', mode: 'interactive' }]),
      }),
    );
    expect(mine.status).toBe('closed');
    expect(store.forProject('mac', 'App')!.sessionId).toBe('S3');
    expect(sent[2]).toEqual({ type: 'terminal.attach', agentId: 'mac', payload: { sessionId: 'S3' } });
    expect(terminals(storage).store.forProject('mac', 'App')!.sessionId).toBe('S3');
  });

  it('marks a session the agent no longer has as closed', () => {
    const { store } = terminals();
    const session = store.open('mac', 'App', 'interactive');
    store.handle(
      m({
        type: 'terminal.error',
        agentId: 'mac',
        sessionId: session.sessionId,
        projectPath: '',
        error: 'Terminal session not found.',
        message: 'Terminal session not found.',
      }),
    );
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

describe('TerminalsStore pacing', () => {
  function paced() {
    const h = terminals();
    const session = h.store.open('mac', 'App', 'interactive');
    h.sent.length = 0;
    const out = (data: string, offset?: number, snapshot?: boolean) =>
      h.store.handle(
        m({ type: 'terminal.output', agentId: 'mac', sessionId: session.sessionId, projectPath: 'App', data, offset, snapshot }),
      );
    const rendered: (() => void)[] = [];
    const connect = () => h.store.connect(session.sessionId, { output: (_data, _reset, done) => void rendered.push(done) });
    const ack = (offset?: number) => ({
      type: 'terminal.ack',
      agentId: 'mac',
      payload: offset === undefined ? { sessionId: session.sessionId } : { sessionId: session.sessionId, offset },
    });
    return { ...h, session, out, rendered, connect, ack };
  }

  it('acknowledges what the view holds once it rendered, once for a burst, and counts it', () => {
    const h = paced();
    h.connect();
    h.out('abc', 3);
    h.out('defg', 7);
    h.out('hi', 9);
    expect(h.flushes).toEqual([]); // nothing rendered yet
    h.rendered[0]();
    h.rendered[1]();
    expect(h.flushes.length).toBe(1);
    h.flush();
    // Rendered to 7, given to 9: the view holds the rest, far within what it may.
    expect(h.sent).toEqual([h.ack(9)]);
    h.rendered[2]();
    h.flush();
    expect(h.sent).toEqual([h.ack(9)]);
    expect(h.store.get(h.session.sessionId)!.processed).toBe(9);
  });

  it('acknowledges no more than kRenderAhead beyond what the view rendered', () => {
    const h = paced();
    h.connect();
    h.out('a', 1);
    h.rendered[0]();
    h.flush();
    h.out('b'.repeat(10), 1 + kRenderAhead + 10);
    h.flush();
    expect(h.sent).toEqual([h.ack(1), h.ack(1 + kRenderAhead)]);
    h.rendered[1]();
    h.flush();
    expect(h.sent).toEqual([h.ack(1), h.ack(1 + kRenderAhead), h.ack(1 + kRenderAhead + 10)]);
  });

  it('never acknowledges a replay, nor the same offset twice on one connection', () => {
    const h = paced();
    h.connect();
    h.out('screen', undefined, true);
    h.rendered[0]();
    expect(h.flushes).toEqual([]);
    h.out('x', 10);
    h.rendered[1]();
    h.flush();
    h.rendered[1]();
    h.flush();
    expect(h.sent).toEqual([h.ack(10)]);
    // A new connection paces nothing until told again.
    h.store.handle(m({ type: 'server.hello', agents: [] }));
    h.out('y', 11);
    h.rendered[2]();
    h.flush();
    expect(h.sent).toEqual([h.ack(10), h.ack(11)]);
  });

  it('stops pacing when the view goes, and paces held output once a view shows it', () => {
    const h = paced();
    const disconnect = h.connect();
    h.out('a', 1);
    h.rendered[0]();
    h.flush();
    disconnect();
    expect(h.sent).toEqual([h.ack(1), h.ack()]);
    h.out('bb', 3);
    h.out('ccc', 6);
    expect(h.flushes).toEqual([]);
    h.connect();
    expect(h.rendered.length).toBe(2);
    h.rendered[1]();
    h.flush();
    expect(h.sent.slice(2)).toEqual([h.ack(6)]);
  });

  it('says nothing when a view that never paced goes', () => {
    const h = paced();
    h.connect()();
    expect(h.sent).toEqual([]);
  });
});

describe('TasksStore snapshots', () => {
  const proposal = {
    taskId: 'P',
    proposalId: 'p1',
    proposalSummary: '1 file changed',
    proposalCommentary: 'Renames it.',
    proposalDiff: '--- a/x\n+++ b/x\n',
    proposalFiles: ['x'],
  };
  const snapshot = {
    tasks: [
      { taskId: 'S', kind: 'shell', projectPath: '/r/App', status: 'running' },
      { taskId: 'E', kind: 'build_ios', projectPath: '/r/App', status: 'failed', exitCode: 65 },
      { taskId: 'P', kind: 'ai_task', projectPath: '/r/App', status: 'awaiting_approval' },
      { taskId: 'C', kind: 'chat', projectPath: '/r/App', status: 'finished', exitCode: 0, conversationId: 'conv' },
    ],
    proposal,
    terminals: [],
    queue: [],
  };
  const hello = (agents: unknown[]) => m({ type: 'server.hello', agents });
  const record = (seq: number, snap: unknown) => ({ agentId: 'a', busy: true, registration: null, online: true, seq, snapshot: snap });
  const store = () =>
    new TasksStore({ createTask: async () => 'T', cancelTask: () => true, decideProposal: () => true }, new MemoryStorage(), () => 1000);

  it('shows what a page that never saw the agent finds in the hello', () => {
    const tasks = store();
    tasks.handle(hello([record(50, snapshot)]));
    expect(tasks.list().map((t) => [t.taskId, t.kind, t.title, t.projectPath, t.status, t.exitCode])).toEqual([
      ['C', 'chat', 'Chat', '/r/App', 'finished', 0],
      ['P', 'ai_task', 'Proposed change', '/r/App', 'awaiting_approval', undefined],
      ['E', 'build', 'Build', '/r/App', 'failed', 65],
      ['S', 'shell', 'Shell command', '/r/App', 'running', undefined],
    ]);
    const { taskId: _taskId, ...waiting } = proposal;
    expect(tasks.get('P')!.proposal).toEqual({ ...waiting, needsApproval: true });
    expect(tasks.awaitingApproval().map((t) => t.taskId)).toEqual(['P']);
    expect(tasks.get('C')!.conversationId).toBe('conv');
    expect(tasks.keepFrom()).toEqual({ a: 50 });
    // Its messages after the hello's seq go on from there.
    tasks.handle(m({ type: 'task.log', agentId: 'a', taskId: 'S', line: 'more', seq: 51 }));
    expect(tasks.get('S')!.log.text()).toBe('more');
    expect(tasks.keepFrom()).toEqual({ a: 50 });
  });

  it('leaves the tasks it knows to the replay after a hello, and learns how far back a reload must go', () => {
    const tasks = store();
    tasks.handle(m({ type: 'task.started', agentId: 'a', taskId: 'S', seq: 20 }));
    tasks.handle(m({ type: 'task.log', agentId: 'a', taskId: 'S', line: 'one', seq: 21 }));
    tasks.handle(hello([record(50, snapshot)]));
    expect(tasks.get('S')!.status).toBe('running');
    expect(tasks.get('S')!.log.text()).toBe('one');
    expect(tasks.keepFrom()).toEqual({ a: 19 });
    // A reloaded page is given the snapshot, then the messages from before it.
    const reloaded = store();
    reloaded.handle(hello([record(50, snapshot)]));
    reloaded.handle(m({ type: 'task.started', agentId: 'a', taskId: 'E', seq: 30 }));
    reloaded.handle(m({ type: 'task.failed', agentId: 'a', taskId: 'E', error: 'no', errorCode: 'X', exitCode: 65, seq: 31 }));
    expect(reloaded.get('E')!.status).toBe('failed');
    expect(reloaded.keepFrom()).toEqual({ a: 29 });
  });

  it('keeps for a reload the running tasks and the newest 20 ended ones of each agent', () => {
    const tasks = store();
    for (let i = 1; i <= 22; i++) {
      tasks.handle(m({ type: 'task.started', agentId: 'a', taskId: 'T' + i, seq: 100 * i }));
      if (i !== 1) tasks.handle(m({ type: 'task.finished', agentId: 'a', taskId: 'T' + i, exitCode: 0, seq: 100 * i + 1 }));
    }
    tasks.handle(m({ type: 'task.started', agentId: 'b', taskId: 'B', seq: 7 }));
    expect(tasks.keepFrom()).toEqual({ a: 99, b: 6 });
    tasks.handle(m({ type: 'task.finished', agentId: 'a', taskId: 'T1', exitCode: 0, seq: 3000 }));
    // T1 is the oldest ended now: the 20 newest begin with T3.
    expect(tasks.keepFrom()).toEqual({ a: 299, b: 6 });
  });

  it('after a gap takes the snapshot as the truth and says where output was missed', () => {
    const tasks = store();
    tasks.handle(m({ type: 'task.started', agentId: 'a', taskId: 'S', seq: 1 }));
    tasks.handle(m({ type: 'task.log', agentId: 'a', taskId: 'S', line: 'one', seq: 2 }));
    tasks.handle(m({ type: 'task.started', agentId: 'a', taskId: 'Gone', seq: 3 }));
    tasks.handle(m({ type: 'task.started', agentId: 'a', taskId: 'Done', seq: 4 }));
    tasks.handle(m({ type: 'task.finished', agentId: 'a', taskId: 'Done', exitCode: 0, seq: 5 }));
    tasks.handle(m({ type: 'task.started', agentId: 'b', taskId: 'Other', seq: 6 }));
    const later = {
      ...snapshot,
      tasks: [{ taskId: 'S', kind: 'shell', projectPath: '/r/App', status: 'finished', exitCode: 2 }, snapshot.tasks[1]],
    };
    tasks.handle(m({ type: 'resume.gap', agentId: 'a', since: 5, seq: 90, snapshot: later }));
    const s = tasks.get('S')!;
    expect([s.status, s.exitCode]).toEqual(['finished', 2]);
    expect([s.log.length, s.log.at(0), s.log.at(1), s.log.isNotice(0), s.log.isNotice(1)]).toEqual([
      2,
      'one',
      kMissedOutputNotice,
      false,
      true,
    ]);
    expect(tasks.get('Gone')!.status).toBe('lost');
    expect(tasks.get('Gone')!.log.text()).toBe(kMissedOutputNotice);
    expect(tasks.get('E')!.log.text()).toBe(kMissedOutputNotice);
    expect(tasks.get('Done')!.log.length).toBe(0);
    expect(tasks.get('Other')!.status).toBe('running');
    expect(taskStatusText(tasks.get('Gone')!)).toBe('Ended unseen: the agent no longer knew it');
  });
});
