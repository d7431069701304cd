import type { MessageOf, ServerMessage, TerminalCommandType } from '../protocol/messages';
import { randomId } from '../protocol/relay_client';
import { Observable, readJSON, type KeyValueStorage } from './observable';

export type TerminalMode = 'interactive' | 'line';

export interface TerminalSession {
  sessionId: string;
  agentId: string;
  projectPath: string;
  mode: TerminalMode;
  status: 'opening' | 'running' | 'closed';
  exitCode?: number;
  message: string; // the agent's latest status or error text
  // Output characters the terminal has processed (its write callbacks), the measure a
  // flow-controlled relay acknowledges against.
  processed?: number;
}

export type Completion = Omit<MessageOf<'terminal.completion'>, 'type' | 'agentId' | 'seq'>;

export interface TerminalSink {
  // `reset` is true for the first piece of a replay: what the view showed is replaced.
  output(data: string, reset: boolean): void;
  completion?(completion: Completion): void;
}

export interface TerminalSender {
  terminal(type: TerminalCommandType, agentId: string, payload: Record<string, unknown>): boolean;
}

const kSessionsKey = 'brinmoor.terminals';
const kHeldOutputLimit = 4 * 1024 * 1024;

export function encodeBase64(text: string): string {
  const bytes = new TextEncoder().encode(text);
  let binary = '';
  for (let i = 0; i < bytes.length; i += 0x8000) binary += String.fromCharCode(...bytes.subarray(i, i + 0x8000));
  return btoa(binary);
}

// Terminal sessions on the agents' ptys. Sessions outlive the page: their ids are kept in
// localStorage, and every time the relay says hello each open one is attached again, so
// the agent replays its recent output. Output goes straight to the view's sink; what
// arrives before a view is there is held (bounded) until one is.
export class TerminalsStore extends Observable {
  private readonly sessions = new Map<string, TerminalSession>();
  private readonly sinks = new Map<string, TerminalSink>();
  private readonly held = new Map<string, { data: string[]; bytes: number; reset: boolean }>();
  private readonly replaying = new Set<string>();

  constructor(
    private readonly sender: TerminalSender,
    private readonly storage: KeyValueStorage,
  ) {
    super();
    for (const saved of readJSON<TerminalSession[]>(storage, kSessionsKey, [])) {
      if (typeof saved?.sessionId === 'string') this.sessions.set(saved.sessionId, { ...saved, status: 'opening', message: '' });
    }
  }

  // The open session of a project, if any.
  forProject(agentId: string, projectPath: string): TerminalSession | undefined {
    return [...this.sessions.values()].find(
      (s) => s.agentId === agentId && s.projectPath === projectPath && s.status !== 'closed',
    );
  }

  get(sessionId: string): TerminalSession | undefined {
    return this.sessions.get(sessionId);
  }

  open(agentId: string, projectPath: string, mode: TerminalMode): TerminalSession {
    const session: TerminalSession = { sessionId: randomId(), agentId, projectPath, mode, status: 'opening', message: '' };
    const previous = this.forProject(agentId, projectPath);
    // One session per project: a new one replaces what this page had open there.
    const payload: Record<string, unknown> = { sessionId: session.sessionId, projectPath, replace: true };
    if (mode === 'interactive') payload.mode = 'interactive';
    if (previous) {
      payload.replaceSessionId = previous.sessionId;
      previous.status = 'closed';
    }
    this.sessions.set(session.sessionId, session);
    this.save();
    this.sender.terminal('terminal.open', agentId, payload);
    this.changed();
    return session;
  }

  // Called when the relay says hello: every session this page still has comes back.
  attachAll(): void {
    for (const session of this.sessions.values()) {
      if (session.status === 'closed') continue;
      this.replaying.add(session.sessionId);
      this.sender.terminal('terminal.attach', session.agentId, { sessionId: session.sessionId });
    }
  }

  connect(sessionId: string, sink: TerminalSink): () => void {
    this.sinks.set(sessionId, sink);
    const held = this.held.get(sessionId);
    if (held) {
      this.held.delete(sessionId);
      sink.output(held.data.join(''), held.reset);
    }
    return () => {
      if (this.sinks.get(sessionId) === sink) this.sinks.delete(sessionId);
    };
  }

  // The view's terminal has processed this much more output.
  processed(sessionId: string, characters: number): void {
    const session = this.sessions.get(sessionId);
    if (session) session.processed = (session.processed ?? 0) + characters;
  }

  input(session: TerminalSession, data: string): boolean {
    return this.command(session, 'terminal.input', { dataBase64: encodeBase64(data) });
  }

  resize(session: TerminalSession, cols: number, rows: number): boolean {
    return this.command(session, 'terminal.resize', { cols, rows });
  }

  signal(session: TerminalSession, signal: 'interrupt' | 'terminate' | 'kill'): boolean {
    return this.command(session, 'terminal.signal', { signal });
  }

  complete(session: TerminalSession, line: string, cursor: number): boolean {
    return this.command(session, 'terminal.complete', { line, cursor });
  }

  // The agent ends an interactive session without a word, so the page marks it closed
  // itself; a line-mode session's "terminal.closed" adds its exit status later.
  close(session: TerminalSession): boolean {
    if (!this.command(session, 'terminal.close', {})) return false;
    session.status = 'closed';
    this.save();
    this.changed();
    return true;
  }

  handle(message: ServerMessage): void {
    if (!message.type.startsWith('terminal.') || !('sessionId' in message)) return;
    const session = this.sessions.get(message.sessionId);
    if (!session) return;
    switch (message.type) {
      case 'terminal.output':
        this.deliver(session.sessionId, message.data, message.snapshot === true);
        return; // output does not change what the store shows
      case 'terminal.opened':
        session.status = 'running';
        session.message = '';
        break;
      case 'terminal.status':
        session.message = message.message;
        break;
      case 'terminal.completion':
        this.sinks.get(session.sessionId)?.completion?.(message);
        return;
      case 'terminal.closed':
        session.status = 'closed';
        session.exitCode = message.exitCode;
        this.save();
        break;
      case 'terminal.error':
        session.message = message.message;
        if (session.status === 'opening') {
          session.status = 'closed'; // gone from the agent (it restarted), or refused
          this.save();
        }
        break;
      default:
        return;
    }
    this.changed();
  }

  forget(): void {
    this.sessions.clear();
    this.storage.removeItem(kSessionsKey);
    this.changed();
  }

  private deliver(sessionId: string, data: string, snapshot: boolean): void {
    const reset = snapshot && this.replaying.delete(sessionId);
    if (!snapshot) this.replaying.delete(sessionId);
    const sink = this.sinks.get(sessionId);
    if (sink) {
      sink.output(data, reset);
      return;
    }
    let held = this.held.get(sessionId);
    if (!held || reset) {
      held = { data: [], bytes: 0, reset };
      this.held.set(sessionId, held);
    }
    held.data.push(data);
    held.bytes += data.length;
    while (held.bytes > kHeldOutputLimit && held.data.length > 1) held.bytes -= held.data.shift()!.length;
  }

  private command(session: TerminalSession, type: TerminalCommandType, payload: Record<string, unknown>): boolean {
    return this.sender.terminal(type, session.agentId, { sessionId: session.sessionId, ...payload });
  }

  private save(): void {
    const open = [...this.sessions.values()]
      .filter((s) => s.status !== 'closed')
      .map(({ sessionId, agentId, projectPath, mode }) => ({ sessionId, agentId, projectPath, mode }));
    this.storage.setItem(kSessionsKey, JSON.stringify(open));
  }
}
