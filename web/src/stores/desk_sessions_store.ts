// The assistants' own sessions of each project, as the agent finds them on the computer:
// the list, asked for when the project is shown and on Refresh, and the turns of the
// session that is open, read a page at a time from the newest back; one a process at the
// desk holds is watched, its new turns added as the agent says its file grew.
import type { DeskSession, SessionHistory, SessionItem } from '../protocol/desk_sessions';
import type { ServerMessage } from '../protocol/messages';
import { RelayError } from '../protocol/relay_client';
import { Observable } from './observable';

export interface SessionReader {
  listSessions(agentId: string, projectPath: string): Promise<DeskSession[]>;
  readSession(agentId: string, tool: string, id: string, before?: number): Promise<SessionHistory>;
  // Starts or ends the agent's "sessions.grew" of a session; false when not connected.
  watchSession(agentId: string, tool: string, id: string, watch: boolean): boolean;
}

export interface SessionList {
  loading: boolean;
  sessions: DeskSession[] | null; // null until the first answer
  error: string;
}

// An opened session: its turns read so far (items `first` on), and the read under way.
export interface SessionTurns {
  session: DeskSession | null;
  items: SessionItem[];
  first: number;
  total: number;
  loading: boolean; // the newest turns
  loadingEarlier: boolean;
  error: string;
  // When the newest turns were read: what this page sent after is not in them.
  readAt: number;
  // The agent says what the session's file gains (its tool writes it at the desk).
  watching: boolean;
  // Why the session cannot be watched, as the agent said it.
  watchError: string;
}

// What a watch has been given since the newest turns were last read: the turns of each
// "sessions.grew", in order, and how many of the shown items that read (with the pages
// before it) gave.
interface Growth {
  grown: SessionItem[];
  read: number;
}

const sameItem = (a: SessionItem, b: SessionItem) =>
  a.kind === b.kind && a.text === b.text && a.name === b.name && a.at === b.at && a.isError === b.isError;

// How many of the turns a watch gave the read has already: the watch may have started
// before the read looked at the file, so what it gave first can be the read's last turns.
// The longest run at the head of `grown` that ends the read.
export function overlap(read: SessionItem[], grown: SessionItem[]): number {
  for (let count = Math.min(read.length, grown.length); count > 0; count--) {
    const from = read.length - count;
    let same = true;
    for (let i = 0; i < count && same; i++) same = sameItem(read[from + i], grown[i]);
    if (same) return count;
  }
  return 0;
}

// What the page says of a read that failed.
export function readErrorText(error: unknown): string {
  if (error instanceof RelayError) {
    if (error.code === 'NOT_CONNECTED') return 'Not connected to the relay.';
    if (error.code === 'AGENT_OFFLINE') return 'The computer is offline.';
    if (error.code === 'TOO_MANY_READS') return 'Too many reads at once; try again.';
  }
  return error instanceof Error ? error.message : String(error);
}

const listKey = (agentId: string, projectPath: string) => JSON.stringify([agentId, projectPath]);
const turnsKey = (agentId: string, tool: string, id: string) => JSON.stringify([agentId, tool, id]);

export class DeskSessionsStore extends Observable {
  private readonly lists = new Map<string, SessionList>();
  private readonly turns = new Map<string, SessionTurns>();
  // The newest read of each list and session: an older answer that comes later is dropped.
  private readonly reads = new Map<string, number>();
  private nextRead = 0;
  // The sessions watched, by their turns' key.
  private readonly watches = new Map<string, Growth>();
  // Per agent, the seq of its newest message when the socket said hello: a "sessions.grew"
  // up to it is a replay, said for a watch of an earlier socket (its turns are in a read).
  private readonly replayedUpTo = new Map<string, number>();

  constructor(
    private readonly reader: SessionReader,
    private readonly now: () => number = Date.now,
  ) {
    super();
  }

  list(agentId: string, projectPath: string): SessionList | undefined {
    return this.lists.get(listKey(agentId, projectPath));
  }

  // The session as the list or its turns last said it.
  find(agentId: string, projectPath: string, tool: string, id: string): DeskSession | undefined {
    return (
      this.turns.get(turnsKey(agentId, tool, id))?.session ??
      this.list(agentId, projectPath)?.sessions?.find((s) => s.tool === tool && s.id === id)
    );
  }

  // Asks the agent for the project's sessions again; what was listed stays until the answer.
  async refresh(agentId: string, projectPath: string): Promise<void> {
    const key = listKey(agentId, projectPath);
    const list = this.lists.get(key) ?? { loading: true, sessions: null, error: '' };
    this.lists.set(key, { ...list, loading: true, error: '' });
    const read = this.begin('list' + key);
    this.changed();
    try {
      const sessions = await this.reader.listSessions(agentId, projectPath);
      if (!this.current('list' + key, read)) return;
      this.lists.set(key, { loading: false, sessions, error: '' });
      // What the list says of a session is newer than what its turns said.
      for (const session of sessions) {
        const turns = this.turns.get(turnsKey(agentId, session.tool, session.id));
        if (turns) turns.session = session;
      }
    } catch (error) {
      if (!this.current('list' + key, read)) return;
      this.lists.set(key, { ...this.lists.get(key)!, loading: false, error: readErrorText(error) });
    }
    this.changed();
  }

  history(agentId: string, tool: string, id: string): SessionTurns | undefined {
    return this.turns.get(turnsKey(agentId, tool, id));
  }

  // Reads the session's newest turns (again), replacing what was read of it.
  async open(agentId: string, tool: string, id: string): Promise<void> {
    const key = turnsKey(agentId, tool, id);
    const before = this.turns.get(key);
    this.turns.set(key, {
      session: before?.session ?? null,
      items: before?.items ?? [],
      first: before?.first ?? 0,
      total: before?.total ?? 0,
      loading: true,
      loadingEarlier: false,
      error: '',
      readAt: before?.readAt ?? 0,
      watching: this.watches.has(key),
      watchError: before?.watchError ?? '',
    });
    const read = this.begin(key);
    // What a watch gives from now on may be in this read, or after it; should the read
    // fail, it goes after what is shown.
    const growth = this.watches.get(key);
    if (growth) Object.assign(growth, { grown: [], read: before?.items.length ?? 0 });
    this.changed();
    try {
      const history = await this.reader.readSession(agentId, tool, id);
      if (!this.current(key, read)) return;
      const turns = this.turns.get(key)!;
      this.turns.set(key, {
        ...history,
        loading: false,
        loadingEarlier: false,
        error: '',
        readAt: this.now(),
        watching: this.watches.has(key),
        watchError: turns.watchError,
      });
      const watched = this.watches.get(key);
      if (watched) {
        watched.read = history.items.length;
        this.grow(key);
      }
      this.updateListed(agentId, history.session);
    } catch (error) {
      if (!this.current(key, read)) return;
      this.turns.set(key, { ...this.turns.get(key)!, loading: false, error: readErrorText(error) });
      this.grow(key);
    }
    this.changed();
  }

  // Reads the page of turns before the first one read.
  async earlier(agentId: string, tool: string, id: string): Promise<void> {
    const key = turnsKey(agentId, tool, id);
    const turns = this.turns.get(key);
    if (!turns || turns.first === 0 || turns.loading || turns.loadingEarlier) return;
    turns.loadingEarlier = true;
    turns.error = '';
    const read = this.begin(key);
    this.changed();
    try {
      const page = await this.reader.readSession(agentId, tool, id, turns.first);
      if (!this.current(key, read)) return;
      // Only what ends where the turns read so far begin joins them.
      const joins = page.first + page.items.length === turns.first;
      const items = joins ? [...page.items, ...turns.items] : turns.items;
      const first = joins ? page.first : turns.first;
      const growth = this.watches.get(key);
      if (growth && joins) growth.read += page.items.length;
      this.turns.set(key, { ...turns, session: page.session, items, first, loadingEarlier: false });
    } catch (error) {
      if (!this.current(key, read)) return;
      this.turns.set(key, { ...turns, loadingEarlier: false, error: readErrorText(error) });
    }
    this.changed();
  }

  // Watches the session (a process at the desk writes it) and reads its newest turns
  // again: the turns its file gains from then on are added to them. Asked again after
  // every new socket (the agent forgets a watch when its connection goes).
  watch(agentId: string, tool: string, id: string): Promise<void> {
    const key = turnsKey(agentId, tool, id);
    const sent = this.reader.watchSession(agentId, tool, id, true);
    if (sent) this.watches.set(key, { grown: [], read: 0 });
    else this.watches.delete(key);
    const turns = this.turns.get(key);
    if (turns) turns.watchError = '';
    return this.open(agentId, tool, id);
  }

  // Ends the watch; what it gave stays shown.
  unwatch(agentId: string, tool: string, id: string): void {
    const key = turnsKey(agentId, tool, id);
    if (!this.watches.delete(key)) return;
    this.reader.watchSession(agentId, tool, id, false);
    const turns = this.turns.get(key);
    if (turns) turns.watching = false;
    this.changed();
  }

  // Every watch (the page goes away).
  unwatchAll(): void {
    for (const key of [...this.watches.keys()]) {
      const [agentId, tool, id] = JSON.parse(key) as string[];
      this.unwatch(agentId, tool, id);
    }
  }

  handle(message: ServerMessage): void {
    if (message.type === 'server.hello') {
      this.replayedUpTo.clear();
      for (const agent of message.agents) this.replayedUpTo.set(agent.agentId, agent.seq);
      return;
    }
    if (message.type !== 'sessions.grew') return;
    const key = turnsKey(message.agentId, message.tool, message.id);
    const growth = this.watches.get(key);
    if (!growth) return;
    if (message.seq !== undefined && message.seq <= (this.replayedUpTo.get(message.agentId) ?? -Infinity)) return;
    const turns = this.turns.get(key);
    if ('error' in message) {
      // The agent keeps no watch of it.
      this.watches.delete(key);
      if (turns) Object.assign(turns, { watching: false, watchError: message.error });
    } else {
      growth.grown.push(...message.items);
      // Added once the read under way has given its turns.
      if (turns && !turns.loading) this.grow(key);
    }
    this.changed();
  }

  clear(): void {
    this.lists.clear();
    this.turns.clear();
    this.reads.clear();
    this.watches.clear();
    this.changed();
  }

  // The turns read, and after them what the watch gave that they do not have.
  private grow(key: string): void {
    const turns = this.turns.get(key);
    const growth = this.watches.get(key);
    if (!turns || !growth) return;
    const read = turns.items.slice(0, growth.read);
    const added = growth.grown.slice(overlap(read, growth.grown));
    turns.items = [...read, ...added];
    turns.total = turns.first + turns.items.length;
  }

  private begin(key: string): number {
    const read = ++this.nextRead;
    this.reads.set(key, read);
    return read;
  }

  private current(key: string, read: number): boolean {
    return this.reads.get(key) === read;
  }

  // A session read afresh says how it is now (live, its title) in the list too.
  private updateListed(agentId: string, session: DeskSession): void {
    for (const [key, list] of this.lists) {
      if (JSON.parse(key)[0] !== agentId || !list.sessions) continue;
      const i = list.sessions.findIndex((s) => s.tool === session.tool && s.id === session.id);
      if (i >= 0) list.sessions = list.sessions.map((s, j) => (j === i ? session : s));
    }
  }
}
