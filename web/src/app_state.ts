// The page's state: the relay connection and one store per concern, wired together. The
// views get this object and read the stores; they act through the stores' operations.
import { PushApi } from './protocol/push_api';
import { RelayClient, kSeqsKey, type ConnectionState } from './protocol/relay_client';
import type { NotificationTarget } from './secure/background_notifier';

// A card that shows a task: a proposal's review, a failed task's log, a chat's answer.
type TaskCard = Exclude<NotificationTarget, { kind: 'approval' }>;
import { AgentsStore } from './stores/agents_store';
import { ApprovalsStore } from './stores/approvals_store';
import { ConversationDB } from './stores/conversation_db';
import { ConversationsStore } from './stores/conversations_store';
import { DeskSessionsStore } from './stores/desk_sessions_store';
import { conversationOf, InboxStore, kLookedKey, shownCard, viewingCard } from './stores/inbox_store';
import { PushStore, type PushHost } from './stores/push_store';
import { Credentials } from './stores/credentials';
import { Observable, readJSON, type KeyValueStorage } from './stores/observable';
import { TasksStore, kTimesKey } from './stores/tasks_store';
import { TerminalsStore } from './stores/terminals_store';

export type Tab = 'chat' | 'sessions' | 'tasks' | 'changes' | 'terminal';

export interface Place {
  agentId: string | null;
  projectPath: string | null;
  tab: Tab;
  conversationId: string | null;
  taskId: string | null;
  // The assistant's own session open in Sessions: its tool and id.
  session: { tool: string; id: string } | null;
  // "Needs you" is up instead of a project.
  inbox: boolean;
}

const kPlaceKey = 'brinmoor.place';
const kHome: Place = { agentId: null, projectPath: null, tab: 'chat', conversationId: null, taskId: null, session: null, inbox: false };

// Where the user is, kept so that a reload or a phone waking up comes back to it.
export class Navigation extends Observable {
  private current: Place;

  constructor(private readonly storage: KeyValueStorage) {
    super();
    this.current = { ...kHome, ...readJSON<Partial<Place>>(storage, kPlaceKey, {}) };
  }

  get place(): Place {
    return this.current;
  }

  // Going anywhere puts "Needs you" away, unless the change brings it up.
  go(change: Partial<Place>): void {
    this.current = { ...this.current, inbox: false, ...change };
    this.storage.setItem(kPlaceKey, JSON.stringify(this.current));
    this.changed();
  }

  home(): void {
    this.go({ agentId: null, projectPath: null, conversationId: null, taskId: null, session: null });
  }
}

// The connection as the views see it: its state, and a new client for a new token.
export class Connection extends Observable {
  client: RelayClient | null = null;
  // The browser says it has no network (a phone in a tunnel, flight mode).
  browserOffline = false;
  private unsubscribe: (() => void)[] = [];

  get state(): ConnectionState {
    return this.client?.state ?? 'stopped';
  }

  setBrowserOffline(offline: boolean): void {
    if (offline === this.browserOffline) return;
    this.browserOffline = offline;
    if (offline) this.client?.networkLost();
    else this.client?.reconnectNow();
    this.changed();
  }

  replace(client: RelayClient | null): void {
    this.unsubscribe.forEach((stop) => stop());
    this.client?.stop();
    this.client = client;
    this.unsubscribe = client ? [client.onState(() => this.changed())] : [];
    this.changed();
  }
}

export class AppState {
  readonly connection = new Connection();
  readonly credentials: Credentials;
  readonly navigation: Navigation;
  readonly agents: AgentsStore;
  readonly tasks: TasksStore;
  readonly approvals: ApprovalsStore;
  readonly conversations: ConversationsStore;
  readonly sessions: DeskSessionsStore;
  readonly terminals: TerminalsStore;
  readonly inbox: InboxStore;
  readonly push: PushStore;
  // Whether the page is hidden (another app, a locked phone): it shows no card then.
  private hidden = false;
  private lastViewing = '';
  // A card asked for before the page knew its task (a notification tapped as the page
  // starts): opened again once the task is known.
  private pendingOpen: { target: TaskCard; until: number } | null = null;
  private renewed = false;

  constructor(
    private readonly origin: string,
    private readonly storage: KeyValueStorage,
    db: ConversationDB | null | Promise<ConversationDB | null>,
    push?: { host: PushHost; deviceName: string },
  ) {
    const relay = () => {
      const client = this.connection.client;
      if (!client) throw new Error('not connected to the relay');
      return client;
    };
    this.credentials = new Credentials(storage);
    this.navigation = new Navigation(storage);
    this.agents = new AgentsStore(storage);
    this.tasks = new TasksStore(
      {
        createTask: (agentId, payload) => relay().createTask(agentId, payload),
        cancelTask: (agentId, taskId) => relay().cancelTask(agentId, taskId),
        decideProposal: (agentId, taskId, approve, files) => relay().decideProposal(agentId, taskId, approve, files),
        ackTaskOutput: (agentId, taskId, line) => this.connection.client?.ackTaskOutput(agentId, taskId, line) ?? false,
        readTaskOutput: async (agentId, taskId, query) => relay().readTaskOutput(agentId, taskId, query),
        listTasks: async (agentId) => relay().listTasks(agentId),
      },
      storage,
    );
    this.approvals = new ApprovalsStore({
      decidePermission: (requestId, allow, message) => relay().decidePermission(requestId, allow, message),
    });
    this.conversations = new ConversationsStore(db, {
      run: (agentId, payload) => this.tasks.run(agentId, payload),
      cancel: (agentId, taskId) => {
        const task = this.tasks.get(taskId);
        return task ? this.tasks.cancel(task) : relay().cancelTask(agentId, taskId);
      },
    });
    this.sessions = new DeskSessionsStore({
      listSessions: async (agentId, projectPath) => relay().listSessions(agentId, projectPath),
      readSession: async (agentId, tool, id, before) => relay().readSession(agentId, tool, id, before),
      watchSession: (agentId, tool, id, watch) =>
        (watch ? this.connection.client?.watchSession(agentId, tool, id) : this.connection.client?.unwatchSession(agentId, tool, id)) ??
        false,
    });
    this.inbox = new InboxStore(
      {
        pending: () => this.approvals.pending(),
        tasks: () => this.tasks.list(),
        task: (taskId) => this.tasks.get(taskId),
        subscribe: (listener) => {
          const stops = [this.approvals.subscribe(listener), this.tasks.subscribe(listener)];
          return () => stops.forEach((stop) => stop());
        },
      },
      storage,
    );
    const noPush: PushHost = {
      supported: () => false,
      needsHomeScreen: () => false,
      permission: () => 'default',
      requestPermission: async () => 'default',
      current: async () => null,
      subscribe: () => Promise.reject(new Error('no push here')),
    };
    this.push = new PushStore(
      push?.host ?? noPush,
      () => (this.credentials.token ? new PushApi(this.origin, this.credentials.token) : null),
      storage,
      push?.deviceName ?? 'This device',
    );
    const report = () => this.reportShown();
    for (const store of [this.navigation, this.approvals, this.push] as Observable[]) store.subscribe(report);
    this.tasks.subscribe(() => {
      this.reportShown();
      this.openPending();
    });
    this.terminals = new TerminalsStore(
      {
        terminal: (type, agentId, payload) => this.connection.client?.terminal(type, agentId, payload) ?? false,
        ackTerminal: (agentId, sessionId, offset) => this.connection.client?.ackTerminal(agentId, sessionId, offset) ?? false,
      },
      storage,
    );
  }

  // Connects with the stored token, if there is one.
  connect(): void {
    const token = this.credentials.token;
    if (!token) {
      this.connection.replace(null);
      return;
    }
    const client = new RelayClient({ origin: this.origin, token, storage: this.storage, keepFrom: () => this.tasks.keepFrom() });
    client.onMessage((message) => {
      this.agents.handle(message);
      this.tasks.handle(message);
      this.approvals.handle(message);
      this.conversations.handle(message);
      this.sessions.handle(message);
      this.terminals.handle(message);
      if (message.type === 'server.hello') {
        this.terminals.attachAll();
        // The relay forgets what a connection showed when it goes.
        this.lastViewing = '';
        this.reportShown();
        if (!this.renewed) {
          this.renewed = true;
          void this.push.renew();
        }
      }
      // What each agent finds under its repository root, asked of it whenever it is there.
      if (message.type === 'server.hello') {
        for (const agent of message.agents) if (agent.online) client.listProjects(agent.agentId);
      } else if (message.type === 'agent.online') {
        client.listProjects(message.agentId);
      }
    });
    this.connection.replace(client);
    client.start();
  }

  useToken(token: string): void {
    this.credentials.set(token);
    this.connect();
  }

  // The page is hidden (or shown again): a hidden page shows no card.
  setHidden(hidden: boolean): void {
    if (hidden === this.hidden) return;
    this.hidden = hidden;
    this.reportShown();
  }

  // Brings up the card a notification or the inbox names: the approval sheet at the
  // request, a proposal's review, a failed task's log, a chat with its answer.
  open(target: NotificationTarget): void {
    if (target.kind === 'approval') {
      this.approvals.reveal(target.requestId);
      return;
    }
    this.approvals.dismiss();
    const task = this.tasks.get(target.taskId);
    this.pendingOpen = task ? null : { target, until: Date.now() + 15_000 };
    const projectPath = target.projectPath || task?.projectPath || this.navigation.place.projectPath;
    const place = { agentId: target.agentId, projectPath, taskId: target.taskId, conversationId: null, session: null };
    const conversationId = task ? conversationOf(task) : undefined;
    if (target.kind === 'proposal' || (target.kind === 'failed' && task?.kind === 'ai_task')) {
      this.navigation.go({ ...place, tab: 'changes' });
    } else if (target.kind === 'answer' || task?.kind === 'chat') {
      this.navigation.go({ ...place, tab: 'chat', conversationId: conversationId ?? null });
    } else {
      this.navigation.go({ ...place, tab: 'tasks' });
    }
    if (task) this.inbox.look(task.taskId);
  }

  private openPending(): void {
    const pending = this.pendingOpen;
    if (!pending) return;
    if (Date.now() > pending.until) this.pendingOpen = null;
    else if (this.tasks.get(pending.target.taskId)) this.open(pending.target);
  }

  // Tells the inbox what the user sees, and the relay too when this device gets pushes.
  private reportShown(): void {
    const sheet = this.approvals.sheetOpen ? (this.approvals.shown()?.requestId ?? null) : null;
    const card = this.hidden ? null : shownCard(this.navigation.place, sheet, this.tasks.list());
    this.inbox.showing(card);
    const endpoint = this.push.endpoint;
    const client = this.connection.client;
    if (endpoint === null || client === null) return;
    const viewing = viewingCard(card);
    const key = JSON.stringify([endpoint, viewing]);
    if (key !== this.lastViewing && client.viewing(endpoint, viewing)) this.lastViewing = key;
  }

  // "Forget this server": the token and everything this page kept about the server.
  async forget(): Promise<void> {
    const leaving = this.push.leave();
    this.connection.replace(null);
    this.credentials.forget();
    this.terminals.forget();
    this.sessions.clear();
    for (const key of ['brinmoor.folders', 'brinmoor.place', 'brinmoor.taskPayloads', kTimesKey, kSeqsKey, kLookedKey])
      this.storage.removeItem(key);
    this.navigation.home();
    await Promise.all([this.conversations.clear(), leaving]);
  }
}
