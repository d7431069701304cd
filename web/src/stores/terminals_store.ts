import type { AgentSnapshot, MessageOf, ServerMessage, TerminalCommandType } from '../protocol/messages';
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
  // The size the page last gave the agent's terminal: what its output was made for.
  cols?: number;
  rows?: number;
  // Output characters the terminal has processed (its write callbacks), what the
  // benchmark measures, in its build only; the relay is paced by the offsets of the output.
  processed?: number;
}

export type Completion = Omit<MessageOf<'terminal.completion'>, 'type' | 'agentId' | 'seq'>;

export interface TerminalSink {
  // `reset` is true for the first piece of a replay: what the view showed is replaced.
  // The view calls `rendered` once its terminal has processed the piece. A piece of a
  // replay has `replayCols`, the width the terminal had when the replay was asked for
  // (none when the page never gave it one): what its output was made for.
  output(data: string, reset: boolean, rendered: () => void, replayCols?: number): void;
  completion?(completion: Completion): void;
}

export interface TerminalSender {
  terminal(type: TerminalCommandType, agentId: string, payload: Record<string, unknown>): boolean;
  // "terminal.ack": rendered up to `offset`; without one, no longer pacing.
  ackTerminal(agentId: string, sessionId: string, offset?: number): boolean;
}

// When acknowledgements go out: a burst of rendered pieces is acknowledged once, after it.
export type AckScheduler = (flush: () => void) => void;

// What the page has rendered of a session's live output, and what it told the relay.
interface Pace {
  rendered?: number; // the "offset" of the newest live piece the view has rendered
  received?: number; // the offset of the newest live piece given to the view
  acked?: number; // the offset last acknowledged on this connection
}

// How far ahead of what the view has rendered the page acknowledges what it was given.
// Waiting for the render alone would make every acknowledgement wait for xterm.js to
// parse all it holds; counting what it holds, up to this bound, keeps the agent reading
// while the page renders, and the page's own backlog stays small.
export const kRenderAhead = 1024 * 1024;

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
//
// A session shown in a view paces its output: the relay is told how far the view has
// rendered ("terminal.ack"), so the agent never gets more than a little ahead of it, and
// is told when no view shows it any more.
export class TerminalsStore extends Observable {
  private readonly sessions = new Map<string, TerminalSession>();
  private readonly sinks = new Map<string, TerminalSink>();
  private readonly held = new Map<string, { data: string[]; bytes: number; reset: boolean; offset?: number; replayCols?: number }>();
  private readonly replaying = new Set<string>();
  // Sessions attached and not answered yet, with the seq of their agent's newest message
  // when the attach went out: what came before (what the relay gives a page that resumes)
  // is in the replay that follows the answer, and an answer to another attach says
  // nothing of this one.
  private readonly awaitingAnswer = new Map<string, number>();
  // The seq of each agent's newest message this page knows of.
  private readonly newest = new Map<string, number>();
  // The width each session had when its replay was asked for.
  private readonly replayCols = new Map<string, number | undefined>();
  private readonly paces = new Map<string, Pace>();
  // Sessions whose view went away (another tab): a new view starts from a fresh replay.
  private readonly left = new Set<string>();
  private flushScheduled = false;

  constructor(
    private readonly sender: TerminalSender,
    private readonly storage: KeyValueStorage,
    private readonly schedule: AckScheduler = (flush) => setTimeout(flush, 0),
  ) {
    super();
    for (const saved of readJSON<TerminalSession[]>(storage, kSessionsKey, [])) {
      if (typeof saved?.sessionId !== 'string') continue;
      const size = (n: unknown) => (Number.isInteger(n) && (n as number) > 0 ? (n as number) : undefined);
      this.sessions.set(saved.sessionId, { ...saved, cols: size(saved.cols), rows: size(saved.rows), status: 'opening', message: '' });
    }
  }

  // The open session of a project, if any.
  forProject(agentId: string, projectPath: string): TerminalSession | undefined {
    return [...this.sessions.values()].find((s) => s.agentId === agentId && s.projectPath === projectPath && s.status !== 'closed');
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
      if (session.status !== 'closed') this.attach(session);
    }
  }

  connect(sessionId: string, sink: TerminalSink): () => void {
    this.sinks.set(sessionId, sink);
    const session = this.sessions.get(sessionId);
    if (this.left.delete(sessionId) && session?.status === 'running') {
      // The view that showed it is gone with what it drew: the agent draws it again.
      this.held.delete(sessionId);
      this.attach(session);
    }
    const held = this.held.get(sessionId);
    if (held) {
      this.held.delete(sessionId);
      const data = held.data.join('');
      sink.output(data, held.reset, this.renderedCallback(sessionId, data.length, held.offset), held.replayCols);
    }
    return () => {
      if (this.sinks.get(sessionId) !== sink) return;
      this.sinks.delete(sessionId);
      this.left.add(sessionId);
      // Output nobody looks at is not paced: the program runs at full speed.
      const pace = this.paces.get(sessionId);
      this.paces.delete(sessionId);
      const session = this.sessions.get(sessionId);
      if (pace?.acked !== undefined && session) this.sender.ackTerminal(session.agentId, sessionId);
    };
  }

  input(session: TerminalSession, data: string): boolean {
    return this.command(session, 'terminal.input', { dataBase64: encodeBase64(data) });
  }

  resize(session: TerminalSession, cols: number, rows: number): boolean {
    if (!this.command(session, 'terminal.resize', { cols, rows })) return false;
    if (session.cols !== cols || session.rows !== rows) {
      session.cols = cols;
      session.rows = rows;
      this.save();
    }
    return true;
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
    if (message.type === 'server.hello') {
      // A new connection: the relay paces nothing for it until told again.
      for (const pace of this.paces.values()) pace.acked = undefined;
      for (const agent of message.agents) this.noteSeq(agent.agentId, agent.seq);
      for (const agent of message.agents) this.applySnapshot(agent.agentId, agent.snapshot);
      return;
    }
    if (message.type === 'agent.online') {
      // An attach the agent never had (it was away) is asked again.
      for (const session of this.sessions.values()) {
        if (session.agentId === message.agentId && this.awaitingAnswer.has(session.sessionId)) this.attach(session);
      }
      return;
    }
    if (message.type === 'resume.gap') {
      this.noteSeq(message.agentId, message.seq);
      for (const session of this.applySnapshot(message.agentId, message.snapshot)) this.attach(session);
      return;
    }
    if (!message.type.startsWith('terminal.') || !('sessionId' in message)) return;
    const seq = 'seq' in message && typeof message.seq === 'number' ? message.seq : undefined;
    if (seq !== undefined) this.noteSeq(message.agentId, seq);
    const session = this.sessions.get(message.sessionId);
    if (!session) return;
    const before = this.awaitingAnswer.get(session.sessionId);
    if (before !== undefined) {
      // Until the attach is answered, output is what the replay after the answer holds (or
      // another attach's replay), and an answer from before the attach is another's.
      if (message.type === 'terminal.output') return;
      if (message.type === 'terminal.opened' && seq !== undefined && seq <= before) return;
      if (message.type !== 'terminal.status' && message.type !== 'terminal.completion') this.awaitingAnswer.delete(session.sessionId);
    }
    switch (message.type) {
      case 'terminal.output':
        this.deliver(session.sessionId, message.data, message.snapshot === true, message.offset);
        return; // output does not change what the store shows
      case 'terminal.opened':
        session.status = 'running';
        session.message = '';
        // The replay that follows was made for the terminal's size, not for the one this
        // page last gave it (another page may have given it since).
        if (message.cols !== undefined && this.replaying.has(session.sessionId)) this.replayCols.set(session.sessionId, message.cols);
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

  private noteSeq(agentId: string, seq: number): void {
    if (seq > (this.newest.get(agentId) ?? 0)) this.newest.set(agentId, seq);
  }

  forget(): void {
    this.sessions.clear();
    this.storage.removeItem(kSessionsKey);
    this.changed();
  }

  private attach(session: TerminalSession): void {
    this.replaying.add(session.sessionId);
    this.awaitingAnswer.set(session.sessionId, this.newest.get(session.agentId) ?? 0);
    this.replayCols.set(session.sessionId, session.cols);
    this.sender.terminal('terminal.attach', session.agentId, { sessionId: session.sessionId });
  }

  // The sessions open on the agent, as the relay knows them: one per project. Those this
  // page did not have are listed (and returned, to be attached); one the page had for the
  // same project has been replaced.
  private applySnapshot(agentId: string, snapshot: AgentSnapshot): TerminalSession[] {
    const added: TerminalSession[] = [];
    for (const { sessionId, projectPath, mode } of snapshot.terminals) {
      if (this.sessions.has(sessionId)) continue;
      const previous = this.forProject(agentId, projectPath);
      if (previous) previous.status = 'closed';
      const session: TerminalSession = { sessionId, agentId, projectPath, mode, status: 'running', message: '' };
      this.sessions.set(sessionId, session);
      added.push(session);
    }
    if (added.length > 0) {
      this.save();
      this.changed();
    }
    return added;
  }

  private renderedCallback(sessionId: string, characters: number, offset: number | undefined): () => void {
    return () => {
      const session = this.sessions.get(sessionId);
      if (__BRINMOOR_TAPS__ && session) session.processed = (session.processed ?? 0) + characters;
      if (offset === undefined) return;
      const pace = this.paceOf(sessionId);
      if (offset <= (pace.rendered ?? -1)) return;
      pace.rendered = offset;
      this.scheduleAcks();
    };
  }

  private paceOf(sessionId: string): Pace {
    let pace = this.paces.get(sessionId);
    if (!pace) {
      pace = {};
      this.paces.set(sessionId, pace);
    }
    return pace;
  }

  private scheduleAcks(): void {
    if (this.flushScheduled) return;
    this.flushScheduled = true;
    this.schedule(() => this.flushAcks());
  }

  // The offset to acknowledge: what the view was given, at most `kRenderAhead` beyond
  // what it has rendered; nothing before its first render.
  private static acknowledgeable(pace: Pace): number | undefined {
    if (pace.rendered === undefined) return undefined;
    return Math.max(pace.rendered, Math.min(pace.received ?? pace.rendered, pace.rendered + kRenderAhead));
  }

  private flushAcks(): void {
    this.flushScheduled = false;
    for (const [sessionId, pace] of this.paces) {
      const session = this.sessions.get(sessionId);
      const offset = TerminalsStore.acknowledgeable(pace);
      if (!session || !this.sinks.has(sessionId) || offset === undefined || offset <= (pace.acked ?? -1)) continue;
      if (this.sender.ackTerminal(session.agentId, sessionId, offset)) pace.acked = offset;
    }
  }

  private deliver(sessionId: string, data: string, snapshot: boolean, offset: number | undefined): void {
    if (!snapshot && this.awaitingAnswer.has(sessionId)) return;
    const reset = snapshot && this.replaying.delete(sessionId);
    if (!snapshot) this.replaying.delete(sessionId);
    const replayCols = snapshot ? this.replayCols.get(sessionId) : undefined;
    const sink = this.sinks.get(sessionId);
    if (sink) {
      if (offset !== undefined) {
        const pace = this.paceOf(sessionId);
        pace.received = Math.max(pace.received ?? offset, offset);
        if (pace.rendered !== undefined) this.scheduleAcks();
      }
      sink.output(data, reset, this.renderedCallback(sessionId, data.length, offset), replayCols);
      return;
    }
    let held = this.held.get(sessionId);
    // What is held is shown at one width: live output after a replay is shown at the
    // replay's, and the view's next output brings it to its own.
    if (!held || reset) {
      held = { data: [], bytes: 0, reset, replayCols };
      this.held.set(sessionId, held);
    }
    held.data.push(data);
    held.bytes += data.length;
    if (offset !== undefined) held.offset = offset;
    while (held.bytes > kHeldOutputLimit && held.data.length > 1) held.bytes -= held.data.shift()!.length;
  }

  private command(session: TerminalSession, type: TerminalCommandType, payload: Record<string, unknown>): boolean {
    return this.sender.terminal(type, session.agentId, { sessionId: session.sessionId, ...payload });
  }

  private save(): void {
    const open = [...this.sessions.values()]
      .filter((s) => s.status !== 'closed')
      .map(({ sessionId, agentId, projectPath, mode, cols, rows }) => ({ sessionId, agentId, projectPath, mode, cols, rows }));
    this.storage.setItem(kSessionsKey, JSON.stringify(open));
  }
}
