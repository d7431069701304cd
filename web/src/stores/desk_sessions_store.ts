// The assistants' own sessions of each project, as the agent finds them on the computer:
// the list, asked for when the project is shown and on Refresh, and the turns of the
// session that is open, read a page at a time from the newest back.
import type { DeskSession, SessionHistory, SessionItem } from '../protocol/desk_sessions';
import { RelayError } from '../protocol/relay_client';
import { Observable } from './observable';

export interface SessionReader {
  listSessions(agentId: string, projectPath: string): Promise<DeskSession[]>;
  readSession(agentId: string, tool: string, id: string, before?: number): Promise<SessionHistory>;
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
    });
    const read = this.begin(key);
    this.changed();
    try {
      const history = await this.reader.readSession(agentId, tool, id);
      if (!this.current(key, read)) return;
      this.turns.set(key, { ...history, loading: false, loadingEarlier: false, error: '', readAt: this.now() });
      this.updateListed(agentId, history.session);
    } catch (error) {
      if (!this.current(key, read)) return;
      this.turns.set(key, { ...this.turns.get(key)!, loading: false, error: readErrorText(error) });
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
      const items = page.first + page.items.length === turns.first ? [...page.items, ...turns.items] : turns.items;
      const first = page.first + page.items.length === turns.first ? page.first : turns.first;
      this.turns.set(key, { ...turns, session: page.session, items, first, loadingEarlier: false });
    } catch (error) {
      if (!this.current(key, read)) return;
      this.turns.set(key, { ...turns, loadingEarlier: false, error: readErrorText(error) });
    }
    this.changed();
  }

  clear(): void {
    this.lists.clear();
    this.turns.clear();
    this.reads.clear();
    this.changed();
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
