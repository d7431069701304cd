// The messages of the relay's client WebSocket, as docs/protocol.md describes them.
// Everything that arrives is untrusted: `decodeServerMessage` checks the members each
// type needs and turns anything else into null, so stores never see a malformed message.
// Members the client does not know are kept (a later relay may add them) and ignored.
import {
  decodeDeskSessions,
  decodeSessionGrew,
  decodeSessionHistory,
  type DeskSession,
  type SessionHistory,
  type SessionItem,
} from './desk_sessions';
import { decodeKeptTasks, decodeTaskOutput, isLineNumber, type KeptTask, type OutputLines, type OutputQuery } from './kept_output';

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

// An agent's present as the relay knows it: the tasks running and recently ended, the
// proposal waiting for a decision, and the open terminal sessions.
export type SnapshotTaskStatus = 'running' | 'awaiting_approval' | 'finished' | 'failed' | 'cancelled' | 'lost';

export interface SnapshotTask {
  taskId: string;
  kind: string; // the task's action; "" when the relay learnt of it from the agent alone
  projectPath: string;
  status: SnapshotTaskStatus;
  exitCode?: number;
  conversationId?: string;
  // A running chat's answer so far, as of the snapshot's seq; "answerCut" when its
  // beginning is not in it.
  answer?: string;
  answerCut?: boolean;
}

export interface SnapshotTerminal {
  sessionId: string;
  projectPath: string;
  mode: 'interactive' | 'line';
}

// A task waiting at the relay for its agent to be free.
export interface QueuedTask {
  taskId: string;
  payload: TaskPayload;
}

export interface AgentSnapshot {
  tasks: SnapshotTask[];
  proposal: (Proposal & { taskId: string }) | null;
  terminals: SnapshotTerminal[];
  queue: QueuedTask[]; // first to go first
}

export interface AgentRecord {
  agentId: string;
  busy: boolean;
  registration: Registration | null;
  online: boolean;
  seq: number; // of the agent's newest message the relay has; 0 when none
  snapshot: AgentSnapshot; // as of that message
}

export interface Proposal {
  proposalId: string;
  proposalSummary: string;
  proposalCommentary: string;
  proposalDiff: string;
  proposalFiles: string[];
  // The agent applies the files an approval names, and leaves the others.
  fileChoice?: boolean;
}

// A folder under an agent's repository root that looks like a project: its path
// relative to the root, its name, and what marks it (".git", "package.json", …).
export interface FoundProject {
  path: string;
  name: string;
  markers: string[];
}

// Present on every message the relay passes on from an agent. "seq" is the agent's own
// number of the message, rising by one per message (it can skip, never go back).
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
  | { type: 'resume.ok'; agentId: string; since: number }
  | { type: 'resume.gap'; agentId: string; since: number; seq: number; snapshot: AgentSnapshot }
  | ({ type: 'agent.register' } & FromAgent & Registration)
  | { type: 'task.created'; taskId: string; agentId: string; requestId?: string }
  // The relay's queue: "waiting" is the order of the tasks that wait after the change.
  | { type: 'task.queued'; agentId: string; taskId: string; place: number; payload: TaskPayload; waiting: string[] }
  | {
      type: 'task.unqueued';
      agentId: string;
      taskId: string;
      reason: 'assigned' | 'cancelled' | 'failed';
      waiting: string[];
      error?: string;
    }
  | { type: 'error'; code: string; message: string; requestId?: string }
  | ({ type: 'task.started' } & TaskMessage)
  | ({ type: 'task.heartbeat' } & TaskMessage)
  // "number": the line's number in the task's output kept on the computer (from 1), on the
  // lines of the program's own output of an agent that keeps it.
  | ({ type: 'task.log'; line: string; number?: number } & TaskMessage)
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
  | ({ type: 'projects.listed'; projects: FoundProject[] } & FromAgent)
  // An attach's answer says the size of the terminal (an interactive one) when it has one.
  | ({ type: 'terminal.opened'; status: string; mode?: string; cols?: number; rows?: number } & TerminalMessage)
  // "offset": the session's output so far, this piece included, in UTF-16 code units; only
  // live output has it.
  | ({ type: 'terminal.output'; data: string; snapshot?: boolean; offset?: number } & TerminalMessage)
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
  | { type: 'permission.resolved'; requestId: string; decision: 'allow' | 'deny'; reason: string }
  // The answer to "task.output.read": kept lines of a task, or why there are none.
  | ({ type: 'task.output'; agentId: string; taskId: string; requestId?: string } & (OutputLines | { error: string }))
  // The answer to "tasks.list": the tasks the agent keeps the output of, newest first.
  | { type: 'tasks.kept'; agentId?: string; requestId: string; tasks: KeptTask[] }
  // The answer to "sessions.list": the assistants' sessions of a project, newest first.
  | { type: 'sessions.listed'; agentId?: string; requestId: string; projectPath: string; sessions: DeskSession[] }
  // The answer to "sessions.read": a page of a session's turns, or why there is none.
  | ({ type: 'sessions.history'; agentId?: string; requestId: string; tool: string; id: string } & (SessionHistory | { error: string }))
  // A watched session's file grew: the turns added, or why the session cannot be watched.
  | ({ type: 'sessions.grew'; tool: string; id: string } & FromAgent & ({ items: SessionItem[] } | { error: string }));

export type ServerMessageType = ServerMessage['type'];
export type { DeskSession, KeptTask, OutputLines, SessionHistory };
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
  // A chat that starts its conversation as a copy of this session of its "system".
  forkOf?: string;
  timeoutSec?: number;
}

export type TerminalCommandType =
  'terminal.open' | 'terminal.attach' | 'terminal.input' | 'terminal.complete' | 'terminal.resize' | 'terminal.signal' | 'terminal.close';

export type ClientMessage =
  | { type: 'task.create'; agentId: string; payload: TaskPayload; requestId?: string }
  | { type: 'task.cancel'; agentId: string; taskId: string; requestId?: string }
  | {
      type: 'task.approval';
      agentId: string;
      taskId: string;
      payload: { decision: 'approve' | 'reject'; files?: string[] };
      requestId?: string;
    }
  | { type: 'projects.list'; agentId: string }
  | { type: TerminalCommandType; agentId: string; payload: Record<string, unknown>; requestId?: string }
  | {
      type: 'permission.decision';
      requestId: string;
      decision: 'allow' | 'deny';
      message?: string;
      updatedInput?: Record<string, unknown>;
    }
  | { type: 'terminal.ack'; agentId: string; payload: { sessionId: string; offset?: number } }
  // Paces a task's output: the newest numbered line taken; without "line", no longer paced.
  | { type: 'task.ack'; agentId: string; taskId: string; line?: number }
  | ({ type: 'task.output.read'; agentId: string; taskId: string; requestId?: string } & OutputQuery)
  | { type: 'tasks.list'; agentId: string; requestId?: string }
  | { type: 'sessions.list'; agentId: string; payload: { projectPath: string }; requestId?: string }
  | { type: 'sessions.read'; agentId: string; payload: { tool: string; id: string; before?: number }; requestId?: string }
  | { type: 'sessions.watch' | 'sessions.unwatch'; agentId: string; payload: { tool: string; id: string } }
  // The card this device shows (null: none, or the page is hidden), named by its push endpoint.
  | { type: 'client.viewing'; endpoint: string; card: { requestId: string } | { taskId: string } | null };

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
  'resume.ok': { ...agentShape, since: 'number' },
  'resume.gap': { ...agentShape, since: 'number', seq: 'number', snapshot: 'object' },
  'agent.register': agentShape,
  'task.created': taskShape,
  'task.queued': { ...taskShape, place: 'number', payload: 'object', waiting: 'strings' },
  'task.unqueued': { ...taskShape, reason: 'string', waiting: 'strings' },
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
  'projects.listed': { ...agentShape, projects: 'any' },
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
  'task.output': taskShape,
  'tasks.kept': { requestId: 'string', tasks: 'any' },
  'sessions.listed': { requestId: 'string', projectPath: 'string', sessions: 'any' },
  'sessions.history': { requestId: 'string', tool: 'string', id: 'string' },
  'sessions.grew': { ...agentShape, tool: 'string', id: 'string' },
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

function isObject(value: unknown): value is Record<string, unknown> {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

function objects(value: unknown): Record<string, unknown>[] {
  return Array.isArray(value) ? value.filter(isObject) : [];
}

const kSnapshotStatuses: readonly string[] = ['running', 'awaiting_approval', 'finished', 'failed', 'cancelled', 'lost'];

function decodeSnapshotTask(raw: Record<string, unknown>): SnapshotTask | null {
  const { taskId, kind, projectPath, status, exitCode, conversationId, answer, answerCut } = raw;
  if (typeof taskId !== 'string' || typeof status !== 'string' || !kSnapshotStatuses.includes(status)) return null;
  const task: SnapshotTask = {
    taskId,
    kind: typeof kind === 'string' ? kind : '',
    projectPath: typeof projectPath === 'string' ? projectPath : '',
    status: status as SnapshotTaskStatus,
  };
  if (typeof exitCode === 'number') task.exitCode = exitCode;
  if (typeof conversationId === 'string') task.conversationId = conversationId;
  if (typeof answer === 'string') task.answer = answer;
  if (answerCut === true) task.answerCut = true;
  return task;
}

const kPayloadTexts = ['projectPath', 'command', 'system', 'mode', 'approvalMode', 'prompt', 'conversationId', 'forkOf'] as const;

// A payload as a client sent it, with what a view reads checked: members of another kind
// are left out.
export function decodePayload(value: unknown): TaskPayload {
  const raw = isObject(value) ? value : {};
  const payload: TaskPayload = { action: typeof raw.action === 'string' ? raw.action : '' };
  for (const name of kPayloadTexts) {
    if (typeof raw[name] === 'string') payload[name] = raw[name] as string;
  }
  if (typeof raw.timeoutSec === 'number') payload.timeoutSec = raw.timeoutSec;
  return payload;
}

function decodeSnapshotProposal(raw: unknown): AgentSnapshot['proposal'] {
  if (!isObject(raw) || !hasShape(raw, proposalShape, ['agentId'])) return null;
  const { taskId, proposalId, proposalSummary, proposalCommentary, proposalDiff, proposalFiles } = raw as unknown as Proposal & {
    taskId: string;
  };
  const proposal = { taskId, proposalId, proposalSummary, proposalCommentary, proposalDiff, proposalFiles };
  return raw.fileChoice === true ? { ...proposal, fileChoice: true } : proposal;
}

// A snapshot with what is malformed in it left out: an empty present rather than no message.
export function decodeSnapshot(value: unknown): AgentSnapshot {
  const raw = isObject(value) ? value : {};
  const tasks = objects(raw.tasks)
    .map(decodeSnapshotTask)
    .filter((task): task is SnapshotTask => task !== null);
  const terminals = objects(raw.terminals)
    .filter((t) => typeof t.sessionId === 'string' && typeof t.projectPath === 'string')
    .map((t) => ({
      sessionId: t.sessionId as string,
      projectPath: t.projectPath as string,
      mode: t.mode === 'line' ? ('line' as const) : ('interactive' as const),
    }));
  const queue = objects(raw.queue)
    .filter((q) => typeof q.taskId === 'string')
    .map((q) => ({ taskId: q.taskId as string, payload: decodePayload(q.payload) }));
  return { tasks, proposal: decodeSnapshotProposal(raw.proposal), terminals, queue };
}

function decodeAgents(value: unknown): AgentRecord[] | null {
  if (!Array.isArray(value)) return null;
  const agents: AgentRecord[] = [];
  for (const item of value) {
    if (!isObject(item) || typeof item.agentId !== 'string') continue;
    agents.push({
      agentId: item.agentId,
      busy: item.busy === true,
      registration: decodeRegistration(item.registration),
      // An older relay lists connected agents only.
      online: item.online !== false,
      seq: typeof item.seq === 'number' ? item.seq : 0,
      snapshot: decodeSnapshot(item.snapshot),
    });
  }
  return agents;
}

function hasShape(message: Record<string, unknown>, shape: Shape, except: string[] = []): boolean {
  return Object.entries(shape).every(([name, kind]) => except.includes(name) || hasKind(message[name], kind));
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
  if (!hasShape(message, shapes[type])) return null;
  if (message.seq !== undefined && typeof message.seq !== 'number') delete message.seq;
  if (message.offset !== undefined && typeof message.offset !== 'number') delete message.offset;
  if (type === 'resume.gap') {
    message.snapshot = decodeSnapshot(message.snapshot);
  } else if (type === 'server.hello') {
    const agents = decodeAgents(message.agents);
    if (!agents) return null;
    message.agents = agents;
  } else if (type === 'agent.register') {
    Object.assign(message, decodeRegistration(message));
  } else if (type === 'projects.listed') {
    // The projects well formed; the rest left out.
    message.projects = objects(message.projects)
      .filter((p) => typeof p.path === 'string' && p.path !== '' && typeof p.name === 'string')
      .map((p) => ({ path: p.path as string, name: p.name as string, markers: strings(p.markers) }));
  } else if ((type === 'task.awaiting_approval' || type === 'task.proposal_ready') && message.fileChoice !== true) {
    delete message.fileChoice;
  } else if (type === 'permission.resolved' && message.decision !== 'allow' && message.decision !== 'deny') {
    return null;
  } else if (type === 'terminal.opened' && !(isLineNumber(message.cols) && isLineNumber(message.rows))) {
    delete message.cols;
    delete message.rows;
  } else if (type === 'task.log' && message.number !== undefined && !isLineNumber(message.number)) {
    delete message.number;
  } else if (type === 'task.output' && !decodeTaskOutput(message)) {
    return null;
  } else if (type === 'tasks.kept') {
    message.tasks = decodeKeptTasks(message.tasks);
  } else if (type === 'sessions.listed') {
    message.sessions = decodeDeskSessions(message.sessions);
  } else if (type === 'sessions.history' && !decodeSessionHistory(message)) {
    return null;
  } else if (type === 'sessions.grew' && !decodeSessionGrew(message)) {
    return null;
  } else if (type === 'task.queued') {
    message.payload = decodePayload(message.payload);
  } else if (type === 'task.unqueued') {
    if (!['assigned', 'cancelled', 'failed'].includes(message.reason as string)) return null;
    if (typeof message.error !== 'string') delete message.error;
  }
  return message as unknown as ServerMessage;
}
