import { describe, expect, it } from 'vitest';
import { decodeServerMessage } from '../src/protocol/messages';

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
        { agentId: 'linux', busy: false, registration: null },
      ],
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
    ['files that are not strings', '{"type":"task.awaiting_approval","agentId":"a","taskId":"T","proposalId":"p","proposalSummary":"","proposalCommentary":"","proposalDiff":"","proposalFiles":[1]}'],
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
