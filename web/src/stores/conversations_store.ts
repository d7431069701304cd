import type { AgentSnapshot, ServerMessage, SnapshotTask, SnapshotTaskStatus, TaskPayload } from '../protocol/messages';
import { randomId } from '../protocol/relay_client';
import { readAssistantLogLine, type ActivityLine } from '../protocol/task_log';
import { toolUseText } from './approvals_store';
import type { ConversationDB, ConversationRecord, MessageRecord, MessageStatus } from './conversation_db';
import { Observable } from './observable';

// What an answer keeps of its details: they are for a look, and stored with the chat.
const kDetailsKept = 500;
const kDetailCharacters = 10_000;
const kActivityKept = 1000;

// Why a tool use was denied when nobody said no.
const kDenyReasons: Record<string, string> = {
  timeout: 'nobody decided in time',
  'task ended': 'the answer ended first',
  withdrawn: 'the assistant withdrew the request',
  'server shutting down': 'the relay shut down',
};

// A message as the chat shows it. An answer that is still streaming keeps its pieces in
// `chunks`, so a view can render what is new without touching what it rendered before.
export interface ChatMessage extends MessageRecord {
  details: string[];
  chunks: string[];
  missed?: boolean; // some of it came while the page was away and the relay no longer had it
  errorCode?: string; // why its task failed, in the agent's code ("SESSION_OPEN_AT_DESK")
}

export interface Conversation extends ConversationRecord {
  messages: ChatMessage[] | null; // null until loaded
}

export interface ChatSender {
  run(agentId: string, payload: TaskPayload): Promise<{ taskId: string }>;
  cancel(agentId: string, taskId: string): boolean;
}

export const kSystems = ['claude', 'codex'] as const;
const kNewTitle = 'New conversation';

function titleOf(prompt: string): string {
  const line = prompt.trim().split('\n')[0];
  return line.length > 80 ? line.slice(0, 79) + '…' : line;
}

function fromRecord(record: MessageRecord): ChatMessage {
  // An answer that was still streaming when the page went away will not continue here.
  const status: MessageStatus = record.status === 'streaming' ? 'interrupted' : record.status;
  const message: ChatMessage = {
    ...record,
    status,
    activity: [],
    details: [...(record.details ?? [])],
    chunks: record.text === '' ? [] : [record.text],
  };
  // An older page kept the log's lines as they came.
  for (const line of record.activity as (ActivityLine | string)[]) {
    if (typeof line === 'string') addLogLine(message, line);
    else message.activity.push(line);
  }
  return message;
}

// A line of the answer's task log: a step of its activity, or a detail.
function addLogLine(answer: ChatMessage, line: string): void {
  const read = readAssistantLogLine(line);
  if (read.kind === 'activity') {
    if (answer.activity.length < kActivityKept) answer.activity.push({ text: read.text, tone: read.tone });
  } else if (read.text.trim() !== '' && answer.details.length < kDetailsKept) {
    answer.details.push(read.text.length > kDetailCharacters ? read.text.slice(0, kDetailCharacters) + '…' : read.text);
  }
}

function toRecord(message: ChatMessage): MessageRecord {
  const { chunks: _chunks, ...record } = message;
  return record;
}

// Conversations with `claude` and `codex`, per agent and project folder, kept in
// IndexedDB. A new message continues its conversation (the same conversation id); the
// answer grows as "task.chat.chunk" arrives, and the task's log lines are its activity.
// An answer that was streaming when the page was loaded comes back from the relay's
// present (its "answer" so far) and goes on with the chunks that follow it.
export class ConversationsStore extends Observable {
  private readonly conversations = new Map<string, Conversation>();
  private readonly byTask = new Map<string, ChatMessage>();
  // Answers taken from the relay's present whose conversation is not loaded yet.
  private readonly detached = new Map<string, ChatMessage>();
  // Answers whose text the relay gave: their agent, and the seq up to which the text has
  // what they said (what is replayed up to it is there already).
  private readonly given = new Map<string, { agentId: string; upTo: number }>();
  // The tool uses of the answers being written, until someone decides them.
  private readonly toolUses = new Map<string, { answer: ChatMessage; text: string }>();
  private readonly scopes = new Map<string, Promise<void>>();

  private readonly db: Promise<ConversationDB | null>;

  // The database may still be opening: the page does not wait for it to show itself.
  constructor(
    db: ConversationDB | null | Promise<ConversationDB | null>,
    private readonly sender: ChatSender,
    private readonly now: () => number = Date.now,
  ) {
    super();
    this.db = Promise.resolve(db);
  }

  get(conversationId: string): Conversation | undefined {
    return this.conversations.get(conversationId);
  }

  // The conversations of one project, most recent first (loads them on first use).
  list(agentId: string, projectPath: string): Conversation[] {
    void this.loadScope(agentId, projectPath);
    return [...this.conversations.values()]
      .filter((c) => c.agentId === agentId && c.projectPath === projectPath)
      .sort((a, b) => b.updatedAt - a.updatedAt);
  }

  // Loads a conversation's messages when they are not in memory yet.
  async open(conversationId: string): Promise<Conversation | undefined> {
    const conversation = this.conversations.get(conversationId);
    if (!conversation || conversation.messages) return conversation;
    const db = await this.db;
    const records = db ? await db.messages(conversationId) : [];
    conversation.messages ??= records.map(fromRecord);
    this.place(conversation);
    this.changed();
    return conversation;
  }

  start(agentId: string, projectPath: string, system: string): Conversation {
    const at = this.now();
    const conversation: Conversation = {
      id: randomId(),
      agentId,
      projectPath,
      system,
      title: kNewTitle,
      createdAt: at,
      updatedAt: at,
      messages: [],
    };
    this.conversations.set(conversation.id, conversation);
    this.changed();
    return conversation;
  }

  // The chat that goes on with an assistant's own session (one started at the desk): the
  // conversation whose id is the session's, made with the session's title when this
  // browser has none yet. Its messages are those sent from here.
  async continuing(agentId: string, projectPath: string, system: string, sessionId: string, title: string): Promise<Conversation> {
    await this.loadScope(agentId, projectPath);
    let conversation = this.conversations.get(sessionId);
    if (!conversation) {
      const at = this.now();
      conversation = { id: sessionId, agentId, projectPath, system, title: title || kNewTitle, createdAt: at, updatedAt: at, messages: [] };
      this.conversations.set(sessionId, conversation);
      this.changed();
    }
    return (await this.open(sessionId))!;
  }

  // A new chat that begins as a copy of an assistant's own session (one a process at the
  // desk may hold): its first message starts it from the session's turns, which stay as
  // they were.
  fork(agentId: string, projectPath: string, system: string, sessionId: string): Conversation {
    const conversation = this.start(agentId, projectPath, system);
    conversation.forkOf = sessionId;
    return conversation;
  }

  // Sends the user's message and opens the answer that the chat task will fill.
  async send(conversationId: string, prompt: string): Promise<ChatMessage> {
    const conversation = (await this.open(conversationId))!;
    const messages = conversation.messages!;
    const first = messages.length === 0;
    if (first && conversation.title === kNewTitle) conversation.title = titleOf(prompt);
    const at = this.now();
    const base = { conversationId, taskId: '', activity: [], details: [], error: '', at, chunks: [] };
    const question: ChatMessage = { ...base, index: messages.length, role: 'user', text: prompt, status: 'done' };
    const answer: ChatMessage = { ...base, index: messages.length + 1, role: 'assistant', text: '', status: 'streaming' };
    messages.push(question, answer);
    conversation.updatedAt = at;
    this.changed();
    try {
      const { taskId } = await this.sender.run(conversation.agentId, {
        action: 'chat',
        system: conversation.system,
        projectPath: conversation.projectPath,
        prompt,
        conversationId,
        approvalMode: 'on_request',
        // The first chat makes the copy; the next go on in it, as in any session.
        ...(first && conversation.forkOf ? { forkOf: conversation.forkOf } : {}),
      });
      answer.taskId = taskId;
      this.byTask.set(taskId, answer);
    } catch (error) {
      this.finish(answer, 'error', error instanceof Error ? error.message : String(error));
    }
    this.changed();
    void this.persist(conversation, [question, answer]);
    return answer;
  }

  cancel(message: ChatMessage): boolean {
    const conversation = this.conversations.get(message.conversationId);
    return !!conversation && message.status === 'streaming' && this.sender.cancel(conversation.agentId, message.taskId);
  }

  handle(message: ServerMessage): void {
    if (message.type === 'server.hello') {
      for (const agent of message.agents) this.takeAnswers(agent.agentId, agent.snapshot, agent.seq);
      return;
    }
    if (message.type === 'resume.gap') {
      this.takeAnswers(message.agentId, message.snapshot, message.seq, true);
      const queued = new Set(message.snapshot.queue.map((task) => task.taskId));
      this.missed(message.agentId, new Map(message.snapshot.tasks.map((task) => [task.taskId, task.status])), queued);
      return;
    }
    if (message.type === 'permission.resolved') {
      this.toolUseResolved(message.requestId, message.decision, message.reason);
      return;
    }
    if (!('taskId' in message)) return;
    const answer = this.byTask.get(message.taskId);
    if (!answer) return;
    const given = this.given.get(message.taskId);
    const said = message.type === 'task.chat.chunk' || message.type === 'task.chat.final';
    if (said && given && 'seq' in message && message.seq !== undefined && message.seq <= given.upTo) return;
    switch (message.type) {
      case 'permission.request':
        this.toolUses.set(message.requestId, { answer, text: toolUseText(message.toolName, message.toolInput) });
        return;
      case 'task.chat.chunk':
        answer.chunks.push(message.chunk);
        break;
      case 'task.chat.final': {
        // The final text is the answer's last part (Claude's) or the whole of it (Codex's):
        // it wins only when the stream said something else, so that what was said before a
        // tool use stays.
        const streamed = answer.chunks.join('').trim();
        if (!streamed.endsWith(message.text.trim())) answer.chunks = [message.text];
        break;
      }
      case 'task.log':
        addLogLine(answer, message.line);
        break;
      case 'task.chat.error':
        answer.error = message.message;
        break;
      case 'task.finished':
        this.finish(answer, 'done');
        break;
      case 'task.cancelled':
        this.finish(answer, 'cancelled');
        break;
      case 'task.failed':
        answer.errorCode = message.errorCode;
        this.finish(answer, 'error', answer.error || message.error);
        break;
      // Cancelled, or failed, while it waited in the relay's queue.
      case 'task.unqueued':
        if (message.reason === 'assigned') return;
        this.finish(answer, message.reason === 'cancelled' ? 'cancelled' : 'error', message.error ?? '');
        break;
      default:
        return;
    }
    this.changed();
  }

  // A tool use of an answer, allowed or denied (by whom, or why nobody decided), as one
  // line of the answer's activity.
  private toolUseResolved(requestId: string, decision: 'allow' | 'deny', reason: string): void {
    const use = this.toolUses.get(requestId);
    if (!use) return;
    this.toolUses.delete(requestId);
    const why = decision === 'deny' ? kDenyReasons[reason] : undefined;
    const text = `${decision === 'allow' ? 'Allowed' : 'Denied'} ${use.text}${why ? ` (${why})` : ''}`;
    const answer = use.answer;
    if (answer.activity.length < kActivityKept) answer.activity.push({ text, tone: decision === 'allow' ? 'allowed' : 'denied' });
    // An answer that ended first is kept with it.
    const conversation = this.conversations.get(answer.conversationId);
    if (answer.status !== 'streaming' && conversation) void this.persist(conversation, [answer]);
    this.changed();
  }

  async clear(): Promise<void> {
    this.conversations.clear();
    this.byTask.clear();
    this.detached.clear();
    this.given.clear();
    this.toolUses.clear();
    this.scopes.clear();
    await (await this.db)?.clear();
    this.changed();
  }

  // The answers of an agent's running chats as the relay's present (as of `seq`) has them.
  // One this page does not follow (it was loaded while the answer streamed) is taken as
  // it is, into its place in the conversation this browser keeps; after a gap the present
  // is the truth for those it follows too.
  private takeAnswers(agentId: string, snapshot: AgentSnapshot, seq: number, gap = false): void {
    for (const task of snapshot.tasks) {
      if (task.answer === undefined || !task.conversationId) continue;
      if (task.status !== 'running' && task.status !== 'awaiting_approval') continue;
      const followed = this.byTask.get(task.taskId);
      if (followed && !gap) continue;
      const answer = followed ?? this.adopt(task, task.conversationId);
      answer.chunks = task.answer === '' ? [] : [task.answer];
      if (task.answerCut) answer.missed = true;
      this.given.set(task.taskId, { agentId, upTo: seq });
      if (!followed) void this.placeLater(agentId, task.projectPath, task.conversationId, task.taskId);
    }
    this.changed();
  }

  private adopt(task: SnapshotTask, conversationId: string): ChatMessage {
    const answer: ChatMessage = {
      conversationId,
      index: -1,
      role: 'assistant',
      text: '',
      taskId: task.taskId,
      status: 'streaming',
      activity: [],
      details: [],
      error: '',
      at: this.now(),
      chunks: [],
    };
    this.byTask.set(task.taskId, answer);
    this.detached.set(task.taskId, answer);
    return answer;
  }

  // Loads the conversation of an answer taken from the relay, to put the answer in its
  // place; an answer of a chat this browser does not keep is not shown.
  private async placeLater(agentId: string, projectPath: string, conversationId: string, taskId: string): Promise<void> {
    try {
      await this.loadScope(agentId, projectPath);
      const conversation = await this.open(conversationId);
      if (conversation) this.place(conversation);
    } finally {
      if (this.detached.delete(taskId)) {
        this.byTask.delete(taskId);
        this.given.delete(taskId);
      }
    }
  }

  // Puts the answers taken from the relay in place of the messages they continue.
  private place(conversation: Conversation): void {
    const messages = conversation.messages;
    if (!messages || this.detached.size === 0) return;
    messages.forEach((message, i) => {
      // The answer was streaming when the page that sent it went away.
      const answer = message.status === 'interrupted' ? this.detached.get(message.taskId) : undefined;
      if (!answer) return;
      this.detached.delete(message.taskId);
      Object.assign(answer, { index: message.index, at: message.at });
      messages[i] = answer;
      // It ended before it found its place.
      if (answer.status === 'streaming') return;
      conversation.updatedAt = this.now();
      void this.persist(conversation, [answer]);
    });
    this.changed();
  }

  // The answers of an agent's chats that the relay could not give whole: each says so, and
  // one whose task has ended (or is not named any more) ends here too. One still waiting in
  // the relay's queue has missed nothing.
  private missed(agentId: string, statuses: Map<string, SnapshotTaskStatus>, queued: Set<string>): void {
    const ends: Partial<Record<SnapshotTaskStatus, MessageStatus>> = { finished: 'done', cancelled: 'cancelled', failed: 'error' };
    for (const answer of [...this.byTask.values()]) {
      const agent = this.conversations.get(answer.conversationId)?.agentId ?? this.given.get(answer.taskId)?.agentId;
      if (agent !== agentId || queued.has(answer.taskId)) continue;
      answer.missed = true;
      const status = statuses.get(answer.taskId);
      if (status !== 'running' && status !== 'awaiting_approval') this.finish(answer, (status && ends[status]) ?? 'interrupted');
    }
    this.changed();
  }

  private finish(answer: ChatMessage, status: MessageStatus, error = ''): void {
    answer.status = status;
    answer.error = error;
    answer.text = answer.chunks.join('');
    answer.chunks = answer.text === '' ? [] : [answer.text];
    this.byTask.delete(answer.taskId);
    this.given.delete(answer.taskId);
    const conversation = this.conversations.get(answer.conversationId);
    // One taken from the relay is kept once it is in its place.
    if (conversation && !this.detached.has(answer.taskId)) {
      conversation.updatedAt = this.now();
      void this.persist(conversation, [answer]);
    }
  }

  // A browser that refuses storage (private mode, full disk, closed database) costs the
  // chats their history, never the chat itself.
  private async persist(conversation: Conversation, messages: ChatMessage[]): Promise<void> {
    const { messages: _all, ...record } = conversation;
    await (await this.db)?.save(record, messages.map(toRecord)).catch(() => undefined);
  }

  // The conversations of one project, loaded once.
  private loadScope(agentId: string, projectPath: string): Promise<void> {
    const scope = JSON.stringify([agentId, projectPath]);
    let loading = this.scopes.get(scope);
    if (!loading) this.scopes.set(scope, (loading = this.readScope(agentId, projectPath)));
    return loading;
  }

  private async readScope(agentId: string, projectPath: string): Promise<void> {
    const db = await this.db;
    if (!db) return;
    const records = await db.conversations(agentId, projectPath).catch(() => []);
    for (const record of records) {
      if (!this.conversations.has(record.id)) this.conversations.set(record.id, { ...record, messages: null });
    }
    if (records.length > 0) this.changed();
  }
}
