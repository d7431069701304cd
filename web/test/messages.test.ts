import { describe, expect, it } from 'vitest';
import { decodeServerMessage } from '../src/protocol/messages';

const kEmpty = { tasks: [], proposal: null, terminals: [], queue: [] };

describe('decodeServerMessage', () => {
  it('reads the hello with each agent and its registration', () => {
    const message = decodeServerMessage(
      JSON.stringify({
        type: 'server.hello',
        agents: [
          { agentId: 'mac', busy: true, registration: { projects: ['/r/App'], repoRoot: '/r', supportsApproval: true } },
          { agentId: 'linux', busy: false, registration: null },
          { busy: false },
        ],
      }),
    );
    expect(message).toEqual({
      type: 'server.hello',
      agents: [
        {
          agentId: 'mac',
          busy: true,
          online: true,
          seq: 0,
          snapshot: kEmpty,
          registration: {
            profiles: [],
            projects: ['/r/App'],
            createProjectRoot: '',
            actions: [],
            taskKinds: [],
            buildTemplate: '',
            repoRoot: '/r',
            supportsApproval: true,
          },
        },
        { agentId: 'linux', busy: false, registration: null, online: true, seq: 0, snapshot: kEmpty },
      ],
    });
  });

  it("reads each agent's seq and snapshot in the hello, leaving out what is malformed", () => {
    const proposal = {
      taskId: 'P',
      proposalId: 'p1',
      proposalSummary: 's',
      proposalCommentary: 'c',
      proposalDiff: 'd',
      proposalFiles: ['x'],
    };
    const message = decodeServerMessage(
      JSON.stringify({
        type: 'server.hello',
        agents: [
          {
            agentId: 'mac',
            busy: false,
            registration: null,
            online: false,
            seq: 1700000000000123,
            snapshot: {
              tasks: [
                { taskId: 'T', kind: 'shell', projectPath: '/r/App', status: 'failed', exitCode: 2 },
                {
                  taskId: 'C',
                  kind: 'chat',
                  projectPath: '/r/App',
                  status: 'running',
                  conversationId: 'conv',
                  exitCode: 'x',
                  answer: 'So far',
                  answerCut: true,
                },
                { taskId: 'D', kind: 'chat', projectPath: '/r/App', status: 'running', answer: 7, answerCut: 'yes' },
                { taskId: 'U', kind: '', projectPath: '/r/App', status: 'exploded' },
                { kind: 'shell', status: 'running' },
                'junk',
              ],
              proposal,
              terminals: [
                { sessionId: 'S', projectPath: '/r/App', mode: 'line' },
                { sessionId: 'Q', projectPath: '/r/App' },
                { sessionId: 3 },
              ],
              queue: [
                {
                  taskId: 'W',
                  payload: { action: 'shell', command: 'make', projectPath: '/r/App', timeoutSec: 60, prompt: 7, extra: { x: 1 } },
                },
                { taskId: 'V', payload: 'junk' },
                { payload: { action: 'shell' } },
                'junk',
              ],
            },
          },
          { agentId: 'odd', busy: false, registration: null, seq: 'x', snapshot: { tasks: 'no', proposal: { taskId: 'P' } } },
        ],
      }),
    );
    expect(message).toEqual({
      type: 'server.hello',
      agents: [
        {
          agentId: 'mac',
          busy: false,
          registration: null,
          online: false,
          seq: 1700000000000123,
          snapshot: {
            tasks: [
              { taskId: 'T', kind: 'shell', projectPath: '/r/App', status: 'failed', exitCode: 2 },
              {
                taskId: 'C',
                kind: 'chat',
                projectPath: '/r/App',
                status: 'running',
                conversationId: 'conv',
                answer: 'So far',
                answerCut: true,
              },
              { taskId: 'D', kind: 'chat', projectPath: '/r/App', status: 'running' },
            ],
            proposal,
            terminals: [
              { sessionId: 'S', projectPath: '/r/App', mode: 'line' },
              { sessionId: 'Q', projectPath: '/r/App', mode: 'interactive' },
            ],
            // A payload keeps what a view reads, of its kind.
            queue: [
              { taskId: 'W', payload: { action: 'shell', command: 'make', projectPath: '/r/App', timeoutSec: 60 } },
              { taskId: 'V', payload: { action: '' } },
            ],
          },
        },
        { agentId: 'odd', busy: false, registration: null, online: true, seq: 0, snapshot: kEmpty },
      ],
    });
  });

  it("reads the queue's messages, refusing an unknown reason", () => {
    expect(
      decodeServerMessage(
        '{"type":"task.queued","agentId":"mac","taskId":"T","place":2,"payload":{"action":"shell","command":1},"waiting":["S","T"]}',
      ),
    ).toEqual({ type: 'task.queued', agentId: 'mac', taskId: 'T', place: 2, payload: { action: 'shell' }, waiting: ['S', 'T'] });
    expect(decodeServerMessage('{"type":"task.queued","agentId":"mac","taskId":"T","place":2,"payload":{},"waiting":[1]}')).toBeNull();
    expect(
      decodeServerMessage('{"type":"task.unqueued","agentId":"mac","taskId":"T","reason":"failed","waiting":[],"error":"gone"}'),
    ).toEqual({
      type: 'task.unqueued',
      agentId: 'mac',
      taskId: 'T',
      reason: 'failed',
      waiting: [],
      error: 'gone',
    });
    expect(
      decodeServerMessage('{"type":"task.unqueued","agentId":"mac","taskId":"T","reason":"assigned","waiting":["S"],"error":3}'),
    ).toEqual({
      type: 'task.unqueued',
      agentId: 'mac',
      taskId: 'T',
      reason: 'assigned',
      waiting: ['S'],
    });
    expect(decodeServerMessage('{"type":"task.unqueued","agentId":"mac","taskId":"T","reason":"lost","waiting":[]}')).toBeNull();
  });

  it('reads resume.ok and resume.gap, and the offset of live terminal output', () => {
    expect(decodeServerMessage('{"type":"resume.ok","agentId":"mac","since":41}')).toEqual({
      type: 'resume.ok',
      agentId: 'mac',
      since: 41,
    });
    expect(decodeServerMessage('{"type":"resume.ok","agentId":"mac"}')).toBeNull();
    expect(decodeServerMessage('{"type":"resume.gap","agentId":"mac","since":1,"seq":90,"snapshot":{"tasks":[],"proposal":null}}')).toEqual(
      {
        type: 'resume.gap',
        agentId: 'mac',
        since: 1,
        seq: 90,
        snapshot: kEmpty,
      },
    );
    expect(decodeServerMessage('{"type":"resume.gap","agentId":"mac","since":1,"seq":90}')).toBeNull();
    const output = '{"type":"terminal.output","agentId":"a","sessionId":"S","projectPath":"","data":"x","offset":';
    expect(decodeServerMessage(output + '12}')).toMatchObject({ offset: 12 });
    expect(decodeServerMessage(output + '"12"}')).not.toHaveProperty('offset');
  });

  it('reads the projects an agent found, leaving out what is malformed', () => {
    const text = JSON.stringify({
      type: 'projects.listed',
      agentId: 'mac',
      seq: 5,
      projects: [
        { path: 'App', name: 'App', markers: ['.git', 3] },
        { path: 'proj/Tool', name: 'Tool' },
        { path: 7, name: 'x' },
        'Lib',
        { path: '', name: '' },
      ],
    });
    expect(decodeServerMessage(text)).toEqual({
      type: 'projects.listed',
      agentId: 'mac',
      seq: 5,
      projects: [
        { path: 'App', name: 'App', markers: ['.git'] },
        { path: 'proj/Tool', name: 'Tool', markers: [] },
      ],
    });
    expect(decodeServerMessage('{"type":"projects.listed","agentId":"mac","projects":"App"}')).toMatchObject({ projects: [] });
    expect(decodeServerMessage('{"type":"projects.listed","projects":[]}')).toBeNull();
  });

  it('says a proposal lets files be chosen only with "fileChoice": true', () => {
    const proposal =
      '{"type":"task.awaiting_approval","agentId":"a","taskId":"T","proposalId":"p","proposalSummary":"","proposalCommentary":"","proposalDiff":"","proposalFiles":[]';
    expect(decodeServerMessage(proposal + ',"fileChoice":true}')).toMatchObject({ fileChoice: true });
    expect(decodeServerMessage(proposal + ',"fileChoice":"yes"}')).not.toHaveProperty('fileChoice');
    expect(decodeServerMessage(proposal + '}')).not.toHaveProperty('fileChoice');
    const snapshot = {
      tasks: [],
      terminals: [],
      proposal: {
        taskId: 'T',
        proposalId: 'p',
        proposalSummary: '',
        proposalCommentary: '',
        proposalDiff: '',
        proposalFiles: [],
        fileChoice: true,
      },
    };
    expect(decodeServerMessage(JSON.stringify({ type: 'resume.gap', agentId: 'a', since: 1, seq: 2, snapshot }))).toMatchObject({
      snapshot: { proposal: { taskId: 'T', fileChoice: true } },
    });
  });

  it('keeps members it does not know and the seq', () => {
    expect(decodeServerMessage('{"type":"task.log","agentId":"a","taskId":"T","line":"x","seq":7,"later":1}')).toEqual({
      type: 'task.log',
      agentId: 'a',
      taskId: 'T',
      line: 'x',
      seq: 7,
      later: 1,
    });
  });

  it('drops a seq that is not a number', () => {
    expect(decodeServerMessage('{"type":"task.started","agentId":"a","taskId":"T","seq":"7"}')).toEqual({
      type: 'task.started',
      agentId: 'a',
      taskId: 'T',
    });
  });

  it.each([
    ['not JSON', 'task.log'],
    ['an array', '[1]'],
    ['no type', '{"agentId":"a"}'],
    ['an unknown type', '{"type":"task.unheard_of","agentId":"a","taskId":"T"}'],
    ['a line that is not a string', '{"type":"task.log","agentId":"a","taskId":"T","line":5}'],
    [
      'files that are not strings',
      '{"type":"task.awaiting_approval","agentId":"a","taskId":"T","proposalId":"p","proposalSummary":"","proposalCommentary":"","proposalDiff":"","proposalFiles":[1]}',
    ],
    ['an unknown decision', '{"type":"permission.resolved","requestId":"r","decision":"maybe","reason":"client"}'],
    ['a request without its input', '{"type":"permission.request","requestId":"r","taskId":"T","agentId":"a","toolName":"Write"}'],
  ])('refuses %s', (_what, text) => {
    expect(decodeServerMessage(text)).toBeNull();
  });

  it('takes a registration with missing members as empty ones', () => {
    expect(decodeServerMessage('{"type":"agent.register","agentId":"a","projects":"nope"}')).toMatchObject({
      type: 'agent.register',
      agentId: 'a',
      projects: [],
      repoRoot: '',
      supportsApproval: false,
    });
  });
});
