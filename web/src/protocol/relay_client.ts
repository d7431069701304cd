// The one owner of the relay socket. It connects with the token as the "bearer.TOKEN"
// subprotocol (browsers cannot set headers on a WebSocket), reconnects with back-off,
// matches answers to requests by "requestId", and hands every decoded message to its
// listeners. Views never build messages: they call the operations below.
//
// It resumes: it remembers the "seq" of the newest message of each agent and names them
// in the address of every new socket ("?since="), so the relay replays what the page
// missed, nothing twice. The seqs are kept in the browser too, so a reload resumes; what
// is kept there is never newer than what the stores can rebuild (`keepFrom`).
import type { DeskSession, SessionHistory } from './desk_sessions';
import type { KeptTask, OutputLines, OutputQuery } from './kept_output';
import {
  decodeServerMessage,
  type ClientMessage,
  type MessageOf,
  type ServerMessage,
  type TaskPayload,
  type TerminalCommandType,
} from './messages';

export type ConnectionState =
  | 'connecting' // the first attempt, or a reconnect in progress
  | 'open' // the relay said hello
  | 'waiting' // lost; the next attempt is scheduled
  | 'unauthorized' // the relay refused the token: no retry until a new one is given
  | 'blocked' // too many failed attempts from this address; retried after a minute
  | 'stopped';

export class RelayError extends Error {
  constructor(
    readonly code: string,
    message: string,
  ) {
    super(message);
    this.name = 'RelayError';
  }
}

export interface SocketLike {
  readonly readyState: number;
  onopen: ((event: unknown) => void) | null;
  onmessage: ((event: { data: unknown }) => void) | null;
  onclose: ((event: { code: number; reason: string }) => void) | null;
  onerror: ((event: unknown) => void) | null;
  send(data: string): void;
  close(code?: number, reason?: string): void;
}

// Where the seqs are kept across reloads: the browser's localStorage.
export interface SeqStorage {
  getItem(key: string): string | null;
  setItem(key: string, value: string): void;
}

export type Seqs = Record<string, number>;

export interface RelayClientOptions {
  // The relay's origin, e.g. "http://192.168.1.5:8080".
  origin: string;
  token: string;
  storage?: SeqStorage;
  // Per agent, the seq after which the stores need the messages again when the page is
  // loaded afresh (what they show but do not keep); the kept seq is never above it.
  keepFrom?: () => Seqs;
  createSocket?: (url: string, protocols: string[]) => SocketLike;
  // Asks the relay whether the token is good, for a socket that never opened: the status
  // of GET /v1/agents with the token in the Authorization header.
  probe?: (origin: string, token: string) => Promise<number>;
  setTimer?: (callback: () => void, ms: number) => unknown;
  clearTimer?: (handle: unknown) => void;
  random?: () => number;
}

export const kSubprotocol = 'brinmoor.v1';
const kOpen = 1;
const kBackoffStartMs = 500;
const kBackoffMaxMs = 15_000;
const kBlockedRetryMs = 60_000;
const kHelloTimeoutMs = 10_000; // a socket without the relay's hello by then is given up
const kSaveDelayMs = 1_500; // seqs are written at most this often (and when the page goes)
export const kSeqsKey = 'brinmoor.seqs';

function readSeqs(storage: SeqStorage | undefined): Map<string, number> {
  const seqs = new Map<string, number>();
  try {
    const value: unknown = JSON.parse(storage?.getItem(kSeqsKey) ?? '{}');
    if (typeof value !== 'object' || value === null || Array.isArray(value)) return seqs;
    for (const [agentId, seq] of Object.entries(value)) {
      if (Number.isSafeInteger(seq) && seq >= 0) seqs.set(agentId, seq);
    }
  } catch {
    // unreadable: start without
  }
  return seqs;
}

async function probeWithFetch(origin: string, token: string): Promise<number> {
  try {
    const response = await fetch(origin + '/v1/agents', { headers: { Authorization: 'Bearer ' + token } });
    return response.status;
  } catch {
    return 0;
  }
}

// A request id without crypto.randomUUID, which plain-HTTP pages on a LAN do not have.
export function randomId(random: () => number = Math.random): string {
  const bytes = new Uint8Array(16);
  if (typeof crypto !== 'undefined' && crypto.getRandomValues) crypto.getRandomValues(bytes);
  else for (let i = 0; i < bytes.length; i++) bytes[i] = Math.floor(random() * 256);
  bytes[6] = (bytes[6] & 0x0f) | 0x40;
  bytes[8] = (bytes[8] & 0x3f) | 0x80;
  const hex = Array.from(bytes, (b) => b.toString(16).padStart(2, '0')).join('');
  return `${hex.slice(0, 8)}-${hex.slice(8, 12)}-${hex.slice(12, 16)}-${hex.slice(16, 20)}-${hex.slice(20)}`;
}

// The client socket's address; with seqs, the relay resumes each agent named after them.
export function socketURL(origin: string, since: Seqs = {}): string {
  const url = origin.replace(/^http/, 'ws') + '/v1/ws/client';
  return Object.keys(since).length === 0 ? url : url + '?since=' + encodeURIComponent(JSON.stringify(since));
}

// The messages that answer a request, carrying its "requestId" back.
const kAnswers: readonly string[] = ['task.created', 'error', 'task.output', 'tasks.kept', 'sessions.listed', 'sessions.history'];

type MessageListener = (message: ServerMessage) => void;
type StateListener = (state: ConnectionState) => void;

interface Pending {
  resolve: (message: ServerMessage) => void;
  reject: (error: Error) => void;
}

export class RelayClient {
  private readonly options: Required<Omit<RelayClientOptions, 'storage'>> & Pick<RelayClientOptions, 'storage'>;
  private socket: SocketLike | null = null;
  private timer: unknown = null;
  private saveTimer: unknown = null;
  private helloTimer: unknown = null;
  private attempt = 0;
  private current: ConnectionState = 'stopped';
  private readonly messageListeners = new Set<MessageListener>();
  private readonly stateListeners = new Set<StateListener>();
  private readonly pending = new Map<string, Pending>();
  private readonly seqs: Map<string, number>;
  // The agents the current socket resumes.
  private resuming = new Set<string>();

  constructor(options: RelayClientOptions) {
    this.options = {
      createSocket: (url, protocols) => new WebSocket(url, protocols) as unknown as SocketLike,
      probe: probeWithFetch,
      setTimer: (callback, ms) => setTimeout(callback, ms),
      clearTimer: (handle) => clearTimeout(handle as ReturnType<typeof setTimeout>),
      random: Math.random,
      keepFrom: () => ({}),
      ...options,
    };
    this.seqs = readSeqs(options.storage);
  }

  get state(): ConnectionState {
    return this.current;
  }

  // The last "seq" seen from each agent, for resuming where this page left off.
  lastSeq(): Seqs {
    return Object.fromEntries(this.seqs);
  }

  // Writes the seqs a reload resumes from: the last seen, lowered to what the stores need
  // again. Called after messages (at most every 1.5 s) and when the page goes away.
  saveSeqs(): void {
    if (this.saveTimer !== null) this.options.clearTimer(this.saveTimer);
    this.saveTimer = null;
    const storage = this.options.storage;
    if (!storage) return;
    const kept = this.lastSeq();
    for (const [agentId, seq] of Object.entries(this.options.keepFrom())) {
      if (agentId in kept && seq < kept[agentId]) kept[agentId] = seq;
    }
    try {
      storage.setItem(kSeqsKey, JSON.stringify(kept));
    } catch {
      // a full or refused storage costs a reload its resume, nothing else
    }
  }

  onMessage(listener: MessageListener): () => void {
    this.messageListeners.add(listener);
    return () => this.messageListeners.delete(listener);
  }

  onState(listener: StateListener): () => void {
    this.stateListeners.add(listener);
    return () => this.stateListeners.delete(listener);
  }

  start(): void {
    if (this.current !== 'stopped') return;
    this.connect();
  }

  stop(): void {
    this.cancelTimer();
    this.dropSocket();
    if (this.saveTimer !== null) this.saveSeqs();
    this.setState('stopped');
  }

  // Tries at once (the page became visible, the network came back), unless the token
  // was refused.
  reconnectNow(): void {
    if (this.current !== 'waiting' && this.current !== 'connecting') return;
    if (this.socket && this.socket.readyState <= kOpen) return;
    this.cancelTimer();
    this.connect();
  }

  // The browser says the network went away. A socket may not notice for minutes (nothing
  // arrives, nothing closes), so it is given up now; the next one resumes where this one
  // stopped, at once when the network is back (`reconnectNow`).
  networkLost(): void {
    if (this.current !== 'open' && this.current !== 'connecting') return;
    this.cancelTimer();
    this.dropSocket();
    this.scheduleReconnect();
  }

  send(message: ClientMessage): boolean {
    if (!this.socket || this.current !== 'open') return false;
    this.socket.send(JSON.stringify(message));
    return true;
  }

  // Sends a message with a fresh "requestId" and waits for the answer that carries it
  // back ("task.created", "task.output", "tasks.kept", or an "error" that becomes a
  // RelayError).
  request(message: ClientMessage): Promise<ServerMessage> {
    const requestId = randomId(this.options.random);
    return new Promise((resolve, reject) => {
      if (!this.send({ ...message, requestId } as ClientMessage)) {
        reject(new RelayError('NOT_CONNECTED', 'not connected to the relay'));
        return;
      }
      this.pending.set(requestId, { resolve, reject });
    });
  }

  async createTask(agentId: string, payload: TaskPayload): Promise<string> {
    const answer = await this.request({ type: 'task.create', agentId, payload });
    return (answer as MessageOf<'task.created'>).taskId;
  }

  cancelTask(agentId: string, taskId: string): boolean {
    return this.send({ type: 'task.cancel', agentId, taskId });
  }

  // An approval of some of the proposal's files names them (`files`); without, of all.
  decideProposal(agentId: string, taskId: string, approve: boolean, files?: string[]): boolean {
    const payload: { decision: 'approve' | 'reject'; files?: string[] } = { decision: approve ? 'approve' : 'reject' };
    if (approve && files) payload.files = files;
    return this.send({ type: 'task.approval', agentId, taskId, payload });
  }

  // Asks the agent for the projects under its repository root ("projects.listed").
  listProjects(agentId: string): boolean {
    return this.send({ type: 'projects.list', agentId });
  }

  decidePermission(requestId: string, allow: boolean, message?: string): boolean {
    const decision: ClientMessage = { type: 'permission.decision', requestId, decision: allow ? 'allow' : 'deny' };
    if (!allow && message) decision.message = message;
    return this.send(decision);
  }

  terminal(type: TerminalCommandType, agentId: string, payload: Record<string, unknown>): boolean {
    return this.send({ type, agentId, payload });
  }

  // Paces a task's output: this page has taken its numbered lines up to `line`. Without
  // a line, the page stops pacing it.
  ackTaskOutput(agentId: string, taskId: string, line?: number): boolean {
    return this.send(line === undefined ? { type: 'task.ack', agentId, taskId } : { type: 'task.ack', agentId, taskId, line });
  }

  // Lines of a task's output kept on the computer; rejects with the agent's reason when it
  // keeps none.
  async readTaskOutput(agentId: string, taskId: string, query: OutputQuery): Promise<OutputLines> {
    const answer = (await this.request({ type: 'task.output.read', agentId, taskId, ...query })) as MessageOf<'task.output'>;
    if ('error' in answer) throw new RelayError('OUTPUT_NOT_KEPT', answer.error);
    return answer;
  }

  // The tasks an agent keeps the output of, newest first.
  async listTasks(agentId: string): Promise<KeptTask[]> {
    const answer = (await this.request({ type: 'tasks.list', agentId })) as MessageOf<'tasks.kept'>;
    return answer.tasks;
  }

  // The assistants' sessions of a project found on the computer, newest first.
  async listSessions(agentId: string, projectPath: string): Promise<DeskSession[]> {
    const answer = (await this.request({ type: 'sessions.list', agentId, payload: { projectPath } })) as MessageOf<'sessions.listed'>;
    return answer.sessions;
  }

  // A page of a session's turns: the newest, or those before item `before`; rejects with
  // the agent's reason when it has no such session.
  async readSession(agentId: string, tool: string, id: string, before?: number): Promise<SessionHistory> {
    const payload = before === undefined ? { tool, id } : { tool, id, before };
    const answer = (await this.request({ type: 'sessions.read', agentId, payload })) as MessageOf<'sessions.history'>;
    if ('error' in answer) throw new RelayError('SESSION_NOT_FOUND', answer.error);
    return answer;
  }

  // Follows a session as its tool writes it: the agent says "sessions.grew" with the turns
  // added, until `unwatchSession` (or until the agent's connection goes: a new socket
  // asks again). False when not connected.
  watchSession(agentId: string, tool: string, id: string): boolean {
    return this.send({ type: 'sessions.watch', agentId, payload: { tool, id } });
  }

  unwatchSession(agentId: string, tool: string, id: string): boolean {
    return this.send({ type: 'sessions.unwatch', agentId, payload: { tool, id } });
  }

  // Tells the relay which card this device shows, so that it pushes nothing about it to
  // the device's push endpoint; null when the page shows none or is hidden.
  viewing(endpoint: string, card: { requestId: string } | { taskId: string } | null): boolean {
    return this.send({ type: 'client.viewing', endpoint, card });
  }

  // Paces a terminal session: this page has rendered its live output up to `offset`.
  // Without an offset, the page stops pacing it.
  ackTerminal(agentId: string, sessionId: string, offset?: number): boolean {
    return this.send({ type: 'terminal.ack', agentId, payload: offset === undefined ? { sessionId } : { sessionId, offset } });
  }

  private connect(): void {
    this.dropSocket();
    this.setState('connecting');
    const since = this.lastSeq();
    this.resuming = new Set(Object.keys(since));
    let socket: SocketLike;
    try {
      socket = this.options.createSocket(socketURL(this.options.origin, since), [kSubprotocol, 'bearer.' + this.options.token]);
    } catch {
      // A token that is not a valid subprotocol name can never be accepted.
      this.setState('unauthorized');
      return;
    }
    this.socket = socket;
    this.helloTimer = this.options.setTimer(() => {
      this.helloTimer = null;
      if (this.socket !== socket) return;
      this.dropSocket();
      this.scheduleReconnect();
    }, kHelloTimeoutMs);
    let opened = false;
    socket.onopen = () => {
      opened = true;
    };
    socket.onmessage = (event) => {
      if (typeof event.data !== 'string') return;
      const message = decodeServerMessage(event.data);
      if (!message) return;
      if (message.type === 'server.hello') {
        this.cancelHelloTimer();
        this.attempt = 0;
        this.setState('open');
      }
      this.dispatch(message);
    };
    socket.onerror = () => undefined;
    socket.onclose = () => {
      if (this.socket !== socket) return;
      this.cancelHelloTimer();
      this.socket = null;
      this.failPending();
      if (opened) this.scheduleReconnect();
      else void this.checkToken();
    };
  }

  private dispatch(message: ServerMessage): void {
    if (message.type === 'server.hello') {
      // An agent this socket does not resume is shown as of the hello's seq: its messages
      // after that one follow, and the next socket resumes from there.
      for (const agent of message.agents) {
        if (!this.resuming.has(agent.agentId) && agent.seq > 0) this.noteSeq(agent.agentId, agent.seq);
      }
    } else if (message.type === 'resume.gap') {
      // What came between is lost; the snapshot is the present as of "seq".
      this.noteSeq(message.agentId, message.seq);
    } else if ('seq' in message && typeof message.seq === 'number' && 'agentId' in message) {
      // Seqs only rise: one the page has seen is a message it has.
      if (message.seq <= (this.seqs.get(message.agentId) ?? -1)) return;
      this.noteSeq(message.agentId, message.seq);
    }
    const requestId = 'requestId' in message && message.type !== 'permission.request' ? message.requestId : undefined;
    if (requestId !== undefined && kAnswers.includes(message.type)) {
      const waiter = this.pending.get(requestId);
      if (waiter) {
        this.pending.delete(requestId);
        if (message.type === 'error') waiter.reject(new RelayError(message.code, message.message));
        else waiter.resolve(message);
      }
    }
    for (const listener of [...this.messageListeners]) listener(message);
  }

  private noteSeq(agentId: string, seq: number): void {
    this.seqs.set(agentId, seq);
    if (this.saveTimer === null && this.options.storage) {
      this.saveTimer = this.options.setTimer(() => this.saveSeqs(), kSaveDelayMs);
    }
  }

  // A socket that never opened: a refused token, a blocked address, or just no relay.
  private async checkToken(): Promise<void> {
    const status = await this.options.probe(this.options.origin, this.options.token);
    if (this.current === 'stopped') return;
    if (status === 401) {
      this.setState('unauthorized');
    } else if (status === 429) {
      this.setState('blocked');
      this.timer = this.options.setTimer(() => this.connect(), kBlockedRetryMs);
    } else {
      this.scheduleReconnect();
    }
  }

  private scheduleReconnect(): void {
    if (this.current === 'stopped') return;
    const base = Math.min(kBackoffMaxMs, kBackoffStartMs * 2 ** this.attempt);
    this.attempt++;
    const delay = Math.round(base * (0.75 + this.options.random() * 0.5));
    this.setState('waiting');
    this.timer = this.options.setTimer(() => {
      this.timer = null;
      this.connect();
    }, delay);
  }

  private failPending(): void {
    const waiting = [...this.pending.values()];
    this.pending.clear();
    for (const waiter of waiting) waiter.reject(new RelayError('NOT_CONNECTED', 'the connection to the relay was lost'));
  }

  private cancelTimer(): void {
    if (this.timer !== null) this.options.clearTimer(this.timer);
    this.timer = null;
  }

  private cancelHelloTimer(): void {
    if (this.helloTimer !== null) this.options.clearTimer(this.helloTimer);
    this.helloTimer = null;
  }

  private dropSocket(): void {
    this.cancelHelloTimer();
    const socket = this.socket;
    this.socket = null;
    if (!socket) return;
    socket.onopen = socket.onmessage = socket.onerror = socket.onclose = null;
    socket.close();
    this.failPending();
  }

  private setState(state: ConnectionState): void {
    if (this.current === state) return;
    this.current = state;
    for (const listener of [...this.stateListeners]) listener(state);
  }
}
