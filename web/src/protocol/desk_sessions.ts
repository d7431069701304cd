// The assistants' own sessions of a project, as the agent finds them on the computer
// ("sessions.listed") and their turns ("sessions.history"): what arrives checked member by
// member, what is malformed left out.

export type SessionTool = 'claude' | 'codex';
// Whether a process at the desk holds the session now, in claude's words; null when none does.
export type SessionLive = 'idle' | 'busy' | 'waiting' | null;

export interface DeskSession {
  tool: SessionTool;
  id: string;
  title: string;
  updatedAt: string; // ISO 8601, UTC
  messages: number; // the prompts the user gave in it
  live: SessionLive;
  startedBy: 'desk' | 'phone';
  resumeCommand: string; // what continues it at the desk
}

export type SessionItemKind = 'user' | 'assistant' | 'tool_use' | 'tool_result';

export interface SessionItem {
  kind: SessionItemKind;
  text: string;
  name?: string; // a tool use's tool
  isError?: boolean; // a failed tool result
  at?: string;
}

// A page of a session's turns, oldest first: items `first` to `first + items.length - 1`
// of `total`.
export interface SessionHistory {
  session: DeskSession;
  first: number;
  total: number;
  items: SessionItem[];
}

const kTools: readonly string[] = ['claude', 'codex'];
const kLive: readonly string[] = ['idle', 'busy', 'waiting'];
const kKinds: readonly string[] = ['user', 'assistant', 'tool_use', 'tool_result'];

function isObject(value: unknown): value is Record<string, unknown> {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

const isCount = (value: unknown): value is number => Number.isSafeInteger(value) && (value as number) >= 0;

export function decodeDeskSession(value: unknown): DeskSession | null {
  if (!isObject(value)) return null;
  const { tool, id, title, updatedAt, messages, live, startedBy, resumeCommand } = value;
  if (typeof tool !== 'string' || !kTools.includes(tool) || typeof id !== 'string' || id === '') return null;
  return {
    tool: tool as SessionTool,
    id,
    title: typeof title === 'string' ? title : '',
    updatedAt: typeof updatedAt === 'string' ? updatedAt : '',
    messages: isCount(messages) ? messages : 0,
    live: typeof live === 'string' && kLive.includes(live) ? (live as SessionLive) : null,
    startedBy: startedBy === 'phone' ? 'phone' : 'desk',
    resumeCommand: typeof resumeCommand === 'string' ? resumeCommand : '',
  };
}

export function decodeDeskSessions(value: unknown): DeskSession[] {
  if (!Array.isArray(value)) return [];
  return value.map(decodeDeskSession).filter((session): session is DeskSession => session !== null);
}

function decodeItem(value: unknown): SessionItem | null {
  if (!isObject(value) || typeof value.kind !== 'string' || !kKinds.includes(value.kind) || typeof value.text !== 'string') return null;
  const item: SessionItem = { kind: value.kind as SessionItemKind, text: value.text };
  if (typeof value.name === 'string') item.name = value.name;
  if (value.isError === true) item.isError = true;
  if (typeof value.at === 'string') item.at = value.at;
  return item;
}

// Checks a "sessions.grew" in place: the turns added to a watched session (those that are
// not well formed left out), or why it cannot be watched ("error", kept alone).
export function decodeSessionGrew(message: Record<string, unknown>): boolean {
  if (typeof message.error === 'string') {
    delete message.items;
    return true;
  }
  if (!Array.isArray(message.items)) return false;
  message.items = message.items.map(decodeItem).filter((item): item is SessionItem => item !== null);
  return true;
}

// Checks a "sessions.history" in place: one with an "error" keeps only that; otherwise its
// session, numbers and items must be well formed (items that are not are left out).
// False when it is neither.
export function decodeSessionHistory(message: Record<string, unknown>): boolean {
  if (typeof message.error === 'string') {
    for (const name of ['session', 'first', 'total', 'items']) delete message[name];
    return true;
  }
  const session = decodeDeskSession(message.session);
  if (!session || !isCount(message.first) || !isCount(message.total) || !Array.isArray(message.items)) return false;
  message.session = session;
  message.items = message.items.map(decodeItem).filter((item): item is SessionItem => item !== null);
  return true;
}
