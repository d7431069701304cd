// The messages of the relay's client WebSocket, as docs/protocol.md describes them.
// Everything that arrives is untrusted: `decodeServerMessage` checks the members each
// type needs and turns anything else into null, so stores never see a malformed message.
// Members the client does not know are kept (a later relay may add them) and ignored.

export interface Registration {
  profiles: string[];
  projects: string[];
  createProjectRoot: string;
  actions: string[];
  taskKinds: string[];
  buildTemplate: string;
  repoRoot: string;
  supportsApproval: boolean;
}

export interface AgentRecord {
  agentId: string;
  busy: boolean;
  registration: Registration | null;
}

export interface Proposal {
  proposalId: string;
  proposalSummary: string;
  proposalCommentary: string;
  proposalDiff: string;
  proposalFiles: string[];
}

// Present on every message the relay passes on from an agent. "seq" is the relay's
// per-agent sequence number where the relay numbers messages.
interface FromAgent {
  agentId: string;
  seq?: number;
}

interface TaskMessage extends FromAgent {
  taskId: string;
}

interface TerminalMessage extends FromAgent {
  sessionId: string;
  projectPath: string;
}

export type ServerMessage =
  | { type: 'server.hello'; agents: AgentRecord[] }
  | { type: 'agent.online'; agentId: string }
  | { type: 'agent.offline'; agentId: string }
  | ({ type: 'agent.register' } & FromAgent & Registration)
  | { type: 'task.created'; taskId: string; agentId: string; requestId?: string }
  | { type: 'error'; code: string; message: string; requestId?: string }
  | ({ type: 'task.started' } & TaskMessage)
  | ({ type: 'task.heartbeat' } & TaskMessage)
  | ({ type: 'task.log'; line: string } & TaskMessage)
  | ({ type: 'task.commentary'; text: string } & TaskMessage)
  | ({ type: 'task.chat.chunk'; conversationId: string; chunk: string } & TaskMessage)
  | ({ type: 'task.chat.final'; conversationId: string; text: string } & TaskMessage)
  | ({ type: 'task.chat.error'; conversationId: string; message: string } & TaskMessage)
  | ({ type: 'task.finished'; exitCode: number } & TaskMessage)
  | ({ type: 'task.failed'; error: string; errorCode: string; exitCode: number } & TaskMessage)
  | ({ type: 'task.cancelled'; exitCode: number } & TaskMessage)
  | ({ type: 'task.progress'; phase: string; message: string; percent: number } & TaskMessage)
  | ({ type: 'task.artifact'; kind: string; summary: string; mimeType: string } & TaskMessage)
  | ({ type: 'task.proposal_ready' } & TaskMessage & Proposal)
  | ({ type: 'task.awaiting_approval' } & TaskMessage & Proposal)
  | ({ type: 'terminal.opened'; status: string; mode?: string } & TerminalMessage)
  | ({ type: 'terminal.output'; data: string; snapshot?: boolean } & TerminalMessage)
  | ({ type: 'terminal.status'; status: string; message: string } & TerminalMessage)
  | ({
      type: 'terminal.completion';
      replacementStart: number;
      replacementEnd: number;
      replacement: string;
      suggestions: string[];
    } & TerminalMessage)
  | ({ type: 'terminal.closed'; exitCode?: number } & TerminalMessage)
  | ({ type: 'terminal.error'; error: string; message: string } & TerminalMessage)
  | {
      type: 'permission.request';
      requestId: string;
      taskId: string;
      agentId: string;
      toolName: string;
      toolInput: unknown;
      toolUseId?: string;
    }
  | { type: 'permission.resolved'; requestId: string; decision: 'allow' | 'deny'; reason: string };

export type ServerMessageType = ServerMessage['type'];
export type MessageOf<T extends ServerMessageType> = Extract<ServerMessage, { type: T }>;

// What "task.assign" carries; the agent applies defaults to what is missing.
export interface TaskPayload {
  action: string;
  projectPath?: string;
  command?: string;
  system?: string;
  mode?: string;
  approvalMode?: string;
  prompt?: string;
  conversationId?: string;
  timeoutSec?: number;
}

export type TerminalCommandType =
  | 'terminal.open'
  | 'terminal.attach'
  | 'terminal.input'
  | 'terminal.complete'
  | 'terminal.resize'
  | 'terminal.signal'
  | 'terminal.close';

export type ClientMessage =
  | { type: 'task.create'; agentId: string; payload: TaskPayload; requestId?: string }
  | { type: 'task.cancel'; agentId: string; taskId: string; requestId?: string }
  | { type: 'task.approval'; agentId: string; taskId: string; payload: { decision: 'approve' | 'reject' }; requestId?: string }
  | { type: TerminalCommandType; agentId: string; payload: Record<string, unknown>; requestId?: string }
  | {
      type: 'permission.decision';
      requestId: string;
      decision: 'allow' | 'deny';
      message?: string;
      updatedInput?: Record<string, unknown>;
    };

type Shape = Record<string, 'string' | 'number' | 'boolean' | 'strings' | 'object' | 'any'>;

const agentShape: Shape = { agentId: 'string' };
const taskShape: Shape = { agentId: 'string', taskId: 'string' };
const terminalShape: Shape = { agentId: 'string', sessionId: 'string', projectPath: 'string' };
const proposalShape: Shape = {
  ...taskShape,
  proposalId: 'string',
  proposalSummary: 'string',
  proposalCommentary: 'string',
  proposalDiff: 'string',
  proposalFiles: 'strings',
};

// The members each known type must have, with their JSON kinds.
const shapes: Record<ServerMessageType, Shape> = {
  'server.hello': {},
  'agent.online': agentShape,
  'agent.offline': agentShape,
  'agent.register': agentShape,
  'task.created': taskShape,
  error: { code: 'string', message: 'string' },
  'task.started': taskShape,
  'task.heartbeat': taskShape,
  'task.log': { ...taskShape, line: 'string' },
  'task.commentary': { ...taskShape, text: 'string' },
  'task.chat.chunk': { ...taskShape, conversationId: 'string', chunk: 'string' },
  'task.chat.final': { ...taskShape, conversationId: 'string', text: 'string' },
  'task.chat.error': { ...taskShape, conversationId: 'string', message: 'string' },
  'task.finished': { ...taskShape, exitCode: 'number' },
  'task.failed': { ...taskShape, error: 'string', errorCode: 'string', exitCode: 'number' },
  'task.cancelled': { ...taskShape, exitCode: 'number' },
  'task.progress': { ...taskShape, phase: 'string', message: 'string', percent: 'number' },
  'task.artifact': { ...taskShape, kind: 'string', summary: 'string', mimeType: 'string' },
  'task.proposal_ready': proposalShape,
  'task.awaiting_approval': proposalShape,
  'terminal.opened': { ...terminalShape, status: 'string' },
  'terminal.output': { ...terminalShape, data: 'string' },
  'terminal.status': { ...terminalShape, status: 'string', message: 'string' },
  'terminal.completion': {
    ...terminalShape,
    replacementStart: 'number',
    replacementEnd: 'number',
    replacement: 'string',
    suggestions: 'strings',
  },
  'terminal.closed': terminalShape,
  'terminal.error': { ...terminalShape, message: 'string' },
  'permission.request': { requestId: 'string', taskId: 'string', agentId: 'string', toolName: 'string', toolInput: 'any' },
  'permission.resolved': { requestId: 'string', decision: 'string', reason: 'string' },
};

function hasKind(value: unknown, kind: Shape[string]): boolean {
  switch (kind) {
    case 'strings':
      return Array.isArray(value) && value.every((item) => typeof item === 'string');
    case 'object':
      return typeof value === 'object' && value !== null && !Array.isArray(value);
    case 'any':
      return value !== undefined;
    default:
      return typeof value === kind;
  }
}

function strings(value: unknown): string[] {
  return Array.isArray(value) ? value.filter((item): item is string => typeof item === 'string') : [];
}

// A registration with every member present and of its kind; what is missing or wrong is
// taken as empty, so a view can show an older or newer agent's registration.
export function decodeRegistration(value: unknown): Registration | null {
  if (typeof value !== 'object' || value === null || Array.isArray(value)) return null;
  const raw = value as Record<string, unknown>;
  const text = (name: string) => (typeof raw[name] === 'string' ? (raw[name] as string) : '');
  return {
    profiles: strings(raw.profiles),
    projects: strings(raw.projects),
    createProjectRoot: text('createProjectRoot'),
    actions: strings(raw.actions),
    taskKinds: strings(raw.taskKinds),
    buildTemplate: text('buildTemplate'),
    repoRoot: text('repoRoot'),
    supportsApproval: raw.supportsApproval === true,
  };
}

function decodeAgents(value: unknown): AgentRecord[] | null {
  if (!Array.isArray(value)) return null;
  const agents: AgentRecord[] = [];
  for (const item of value) {
    if (typeof item !== 'object' || item === null || typeof item.agentId !== 'string') continue;
    agents.push({ agentId: item.agentId, busy: item.busy === true, registration: decodeRegistration(item.registration) });
  }
  return agents;
}

// One text frame of the relay, or null when it is not a message this client understands.
export function decodeServerMessage(text: string): ServerMessage | null {
  let value: unknown;
  try {
    value = JSON.parse(text);
  } catch {
    return null;
  }
  if (typeof value !== 'object' || value === null || Array.isArray(value)) return null;
  const message = value as Record<string, unknown>;
  if (typeof message.type !== 'string' || !Object.prototype.hasOwnProperty.call(shapes, message.type)) return null;
  const type = message.type as ServerMessageType;
  for (const [name, kind] of Object.entries(shapes[type])) {
    if (!hasKind(message[name], kind)) return null;
  }
  if (message.seq !== undefined && typeof message.seq !== 'number') delete message.seq;
  if (type === 'server.hello') {
    const agents = decodeAgents(message.agents);
    if (!agents) return null;
    message.agents = agents;
  } else if (type === 'agent.register') {
    Object.assign(message, decodeRegistration(message));
  } else if (type === 'permission.resolved' && message.decision !== 'allow' && message.decision !== 'deny') {
    return null;
  }
  return message as unknown as ServerMessage;
}
