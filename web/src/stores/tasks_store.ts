import type { KeptTask } from '../protocol/kept_output';
import type { AgentSnapshot, MessageOf, Proposal, ServerMessage, TaskPayload } from '../protocol/messages';
import type { Seqs } from '../protocol/relay_client';
import type { ActivityLine } from '../protocol/task_log';
import { LogLines } from './log_lines';
import { Observable, readJSON, type KeyValueStorage } from './observable';
import { KeptOutputs, isAssistant, type OutputSender } from './kept_outputs';
import type { PaceTimers } from './output_pacer';
import { mergeKept, payloadOfKind, putInStartOrder } from './past_tasks';
import { TaskLines } from './task_lines';
import type { TaskOutput } from './task_output';
import { placeInQueue, statusAfterQueue } from './queue';

export type TaskKind = 'shell' | 'build' | 'chat' | 'ai_task' | 'task';
// "queued": waiting at the relay for the agent to be free. "lost": the agent no longer knew
// the task when the relay last heard of it.
export type TaskStatus = 'queued' | 'starting' | 'running' | 'awaiting_approval' | 'finished' | 'failed' | 'cancelled' | 'lost';

// The line a task's log shows where the relay no longer had what the page missed.
export const kMissedOutputNotice = 'Some output was missed here: the relay no longer had it when this page came back.';

// How many ended tasks of each agent a reload brings back with their output (as many
// as the relay's snapshot names).
const kEndedKeptPerAgent = 20;
// What this page asked of its newest tasks, kept for the next page (their titles, "Run
// again"): the relay gives back a task's messages, not its request.
const kPayloadsKey = 'brinmoor.taskPayloads';
const kPayloadsKept = 50;
// When this page saw its newest tasks start, wait for a review and end, and whether it
// asked to cancel them, kept for the next page: no message carries a time, and a replay
// comes at once, so only what a page saw as it happened can say how long a task took.
export const kTimesKey = 'brinmoor.taskTimes';
const kTimesKept = 50;
// The time limit the agent gives a task that names none.
export const kAgentTimeLimitSec = 1200;
// How many of the agent's own lines (and an assistant's command output) a task keeps.
const kDetailsKept = 2000;

export interface TaskProposal extends Proposal {
  needsApproval: boolean;
  decision?: 'approve' | 'reject';
}

// What the page saw of a task as it happened (times in ms since 1970).
export interface TaskTimes {
  startedAt?: number;
  awaitingAt?: number; // when its proposal began to wait for a review
  endedAt?: number;
  cancelAsked?: boolean; // this page asked the agent to cancel it
  timedOut?: boolean; // the agent says it cancelled it at its time limit
}

// How a task ended, in the words a person reads: the agent cancels a task that reached its
// time limit as it cancels one it was asked to (its list of kept tasks tells them apart;
// the page guesses for an agent that keeps none), and fails a proposal that was rejected.
export type TaskEnd = 'finished' | 'cancelled' | 'timed_out' | 'rejected' | 'failed' | 'lost';

export interface Task extends TaskTimes {
  taskId: string;
  agentId: string;
  kind: TaskKind;
  title: string;
  payload: TaskPayload | null; // null for a task another client started
  projectPath: string;
  status: TaskStatus;
  place?: number; // in the relay's queue, while it waits: 1 goes next
  exitCode?: number;
  error?: string;
  errorCode?: string;
  log: LogLines; // the program's own output, from an agent that does not number it
  // The program's own output, numbered, of an agent that keeps it on the computer.
  output?: TaskOutput;
  details: LogLines; // the agent's bookkeeping, and what an assistant's commands printed
  activity: ActivityLine[]; // what an assistant did, in plain words
  answer: string; // what Codex said in a plan, as Markdown
  programStarted: boolean; // "task.started" came: what follows is the program's
  commentary: string;
  progress?: { phase: string; message: string; percent: number };
  proposal?: TaskProposal;
  artifacts: { kind: string; summary: string; mimeType: string }[];
  conversationId?: string;
  // The seq after which the relay has all of this task's messages this page has: its
  // first message's less one, or the seq of the snapshot it was learnt from.
  since?: number;
}

// What the tasks store asks of the relay; of an agent that keeps its tasks' output, also
// to pace it, read it back (OutputSender), and list the tasks it keeps.
export interface TaskSender extends OutputSender {
  createTask(agentId: string, payload: TaskPayload): Promise<string>;
  cancelTask(agentId: string, taskId: string): boolean;
  decideProposal(agentId: string, taskId: string, approve: boolean, files?: string[]): boolean;
  listTasks?(agentId: string): Promise<KeptTask[]>;
}

export function taskKind(payload: TaskPayload | null): TaskKind {
  switch (payload?.action) {
    case undefined:
      return 'task';
    case 'shell':
    case 'chat':
    case 'ai_task':
      return payload.action;
    default:
      return 'build';
  }
}

export function taskTitle(payload: TaskPayload | null): string {
  if (!payload) return 'Task';
  if (payload.action === 'shell' && payload.command === undefined) return 'Shell command';
  switch (payload.action) {
    case 'shell':
      return payload.command ?? '';
    case 'chat':
      return payload.prompt ?? 'Chat';
    case 'ai_task':
      return payload.prompt ?? 'Proposed change';
    default:
      // The registration names build actions without a label of their own.
      return 'Build';
  }
}

export function isEnded(status: TaskStatus): boolean {
  return status === 'finished' || status === 'failed' || status === 'cancelled' || status === 'lost';
}

// How long a task has run, or ran: null when the page did not see it start, or did not see
// it end (it ended while the page was away, or is known from a snapshot).
export function runTime(task: Task, now: number): number | null {
  if (task.startedAt === undefined) return null;
  if (!isEnded(task.status)) return Math.max(0, now - task.startedAt);
  return task.endedAt === undefined ? null : Math.max(0, task.endedAt - task.startedAt);
}

function reachedLimit(task: Task, from: number | undefined): boolean {
  if (from === undefined || task.endedAt === undefined) return false;
  const limitMs = (task.payload?.timeoutSec ?? kAgentTimeLimitSec) * 1000;
  // The page sees a start and an end when they reach it, each late by its own delay.
  return limitMs > 0 && task.endedAt - from >= limitMs - Math.max(1000, limitMs * 0.05);
}

export function taskEnd(task: Task): TaskEnd | null {
  switch (task.status) {
    case 'finished':
    case 'lost':
      return task.status;
    case 'cancelled':
      return task.timedOut || (!task.cancelAsked && reachedLimit(task, task.startedAt)) ? 'timed_out' : 'cancelled';
    case 'failed':
      if (task.errorCode !== 'APPROVAL_REJECTED') return 'failed';
      // Nobody deciding in time counts as a rejection too.
      return task.proposal?.decision !== 'reject' && reachedLimit(task, task.awaitingAt) ? 'timed_out' : 'rejected';
    default:
      return null;
  }
}

// What applying a change came to ("Applied the approved changes to 1 file."), without the
// commentary the agent repeats after it.
export function changeResult(task: Task): string {
  const result =
    task.artifacts
      .filter((artifact) => artifact.kind === 'result')
      .pop()
      ?.summary.trim() ?? '';
  const commentary = (task.proposal?.proposalCommentary || task.commentary).trim();
  if (commentary !== '' && result.endsWith(commentary) && result.length > commentary.length) {
    return result.slice(0, result.length - commentary.length).trim();
  }
  return result;
}

// The tasks of this session: those this page started, and those it saw others start.
export class TasksStore extends Observable {
  private readonly tasks = new Map<string, Task>();
  // Tasks whose end this page received; any other may have said more than the page has.
  private readonly endSeen = new Set<string>();
  private payloads: Record<string, TaskPayload>;
  private times: Record<string, TaskTimes>;
  // Per agent, the seq of the newest message the relay had when this socket said hello:
  // a message up to it is a replay of something that happened earlier.
  private readonly replayedUpTo = new Map<string, number>();
  private readonly lines = new TaskLines();
  readonly outputs: KeptOutputs;

  constructor(
    private readonly sender: TaskSender,
    private readonly storage: KeyValueStorage,
    private readonly now: () => number = Date.now,
    private readonly logCapacity?: number,
    paceTimers?: PaceTimers,
  ) {
    super();
    this.payloads = readJSON(storage, kPayloadsKey, {});
    this.times = readJSON(storage, kTimesKey, {});
    this.outputs = new KeptOutputs(sender, () => this.changed(), logCapacity, paceTimers);
  }

  get(taskId: string): Task | undefined {
    return this.tasks.get(taskId);
  }

  // Newest first.
  list(filter: (task: Task) => boolean = () => true): Task[] {
    return [...this.tasks.values()].filter(filter).reverse();
  }

  // Proposals waiting for this user's decision.
  awaitingApproval(): Task[] {
    return this.list((task) => task.status === 'awaiting_approval' && task.proposal?.decision === undefined);
  }

  async run(agentId: string, payload: TaskPayload): Promise<Task> {
    const taskId = await this.sender.createTask(agentId, payload);
    this.remember(taskId, payload);
    const task = this.ensure(taskId, agentId, payload);
    this.outputs.started(task);
    this.changed();
    return task;
  }

  cancel(task: Task): boolean {
    if (!this.sender.cancelTask(task.agentId, task.taskId)) return false;
    task.cancelAsked = true;
    this.noteTimes(task);
    return true;
  }

  // An approval of some of the files names them; without `files`, all are approved.
  decide(task: Task, approve: boolean, files?: string[]): boolean {
    if (!task.proposal || !this.sender.decideProposal(task.agentId, task.taskId, approve, files)) return false;
    task.proposal = { ...task.proposal, decision: approve ? 'approve' : 'reject' };
    this.changed();
    return true;
  }

  // Per agent, the seq after which a page loaded afresh needs the messages again to show
  // these tasks as they are: those running and the newest ended ones.
  keepFrom(): Seqs {
    const floor: Seqs = {};
    const ended = new Map<string, number>();
    for (const task of this.list()) {
      if (task.since === undefined) continue;
      if (isEnded(task.status)) {
        const count = (ended.get(task.agentId) ?? 0) + 1;
        ended.set(task.agentId, count);
        if (count > kEndedKeptPerAgent) continue;
      }
      floor[task.agentId] = Math.min(floor[task.agentId] ?? Infinity, task.since);
    }
    return floor;
  }

  handle(message: ServerMessage): void {
    if (message.type === 'server.hello') {
      this.outputs.reconnected();
      for (const agent of message.agents) {
        this.replayedUpTo.set(agent.agentId, agent.seq);
        this.applySnapshot(agent.agentId, agent.snapshot, agent.seq, false);
      }
      this.changed();
      for (const agent of message.agents) if (agent.online) this.listKept(agent.agentId);
      return;
    }
    if (message.type === 'resume.gap') {
      this.applySnapshot(message.agentId, message.snapshot, message.seq, true);
      this.changed();
      this.listKept(message.agentId);
      return;
    }
    if (message.type === 'agent.online') this.listKept(message.agentId);
    if (message.type === 'task.queued' || message.type === 'task.unqueued') {
      this.queueChanged(message);
      this.changed();
      return;
    }
    if (!message.type.startsWith('task.') || message.type === 'task.created' || message.type === 'task.output') return;
    if (!('taskId' in message)) return;
    if (message.type === 'task.heartbeat') return;
    const task = this.ensure(message.taskId, message.agentId, null);
    const seq = 'seq' in message ? message.seq : undefined;
    if (seq !== undefined && seq - 1 < (task.since ?? Infinity)) task.since = seq - 1;
    // When a message is not a replay, the page sees it as it happens.
    const live = seq === undefined || seq > (this.replayedUpTo.get(message.agentId) ?? -Infinity);
    const stamp = (name: 'startedAt' | 'awaitingAt' | 'endedAt') => {
      if (!live || task[name] !== undefined) return;
      task[name] = this.now();
      this.noteTimes(task);
    };
    switch (message.type) {
      case 'task.started':
        task.status = task.status === 'starting' || task.status === 'queued' ? 'running' : task.status;
        task.programStarted = true;
        stamp('startedAt');
        break;
      case 'task.log':
        if (message.number === undefined) this.lines.read(task, message.line);
        else if (!isAssistant(task)) return void this.outputs.take(task, message.number, message.line, !isEnded(task.status));
        else if (this.outputs.take(task, message.number, message.line, !isEnded(task.status))) this.lines.read(task, message.line, true);
        break;
      case 'task.commentary':
        task.commentary = message.text;
        break;
      case 'task.progress':
        task.progress = { phase: message.phase, message: message.message, percent: message.percent };
        if (message.phase === 'apply' && task.status === 'awaiting_approval') task.status = 'running';
        break;
      case 'task.artifact':
        task.artifacts = [...task.artifacts, { kind: message.kind, summary: message.summary, mimeType: message.mimeType }];
        break;
      case 'task.awaiting_approval':
      case 'task.proposal_ready': {
        const { proposalId, proposalSummary, proposalCommentary, proposalDiff, proposalFiles, fileChoice } = message;
        const needsApproval = message.type === 'task.awaiting_approval';
        task.proposal = { proposalId, proposalSummary, proposalCommentary, proposalDiff, proposalFiles, needsApproval };
        if (needsApproval && fileChoice) task.proposal.fileChoice = true;
        if (needsApproval && !isEnded(task.status)) {
          task.status = 'awaiting_approval';
          stamp('awaitingAt');
        }
        break;
      }
      case 'task.finished':
      case 'task.cancelled':
      case 'task.failed':
        // The first end counts: a cancelled task's process may report its own end after.
        if (this.endSeen.has(task.taskId)) break;
        if (message.type === 'task.failed') Object.assign(task, { error: message.error, errorCode: message.errorCode });
        this.end(
          task,
          message.type === 'task.finished' ? 'finished' : message.type === 'task.cancelled' ? 'cancelled' : 'failed',
          message.exitCode,
        );
        stamp('endedAt');
        break;
      default:
        break;
    }
    this.changed();
  }

  // Asks an agent for the tasks it keeps, and lists those the page does not know.
  private listKept(agentId: string): void {
    this.sender.listTasks?.(agentId).then(
      (kept) => this.mergeKept(agentId, kept),
      () => undefined, // an agent that keeps no tasks' output, or one gone meanwhile
    );
  }

  private mergeKept(agentId: string, kept: KeptTask[]): void {
    // Oldest first: a task the page did not know is added as the newest so far.
    for (const entry of [...kept].reverse()) {
      const known = this.tasks.has(entry.taskId);
      const task = this.described(entry.taskId, agentId, entry.kind, entry.projectPath);
      mergeKept(task, entry, known, this.endSeen.has(task.taskId));
      if (entry.startedAt !== undefined) this.noteTimes(task);
      this.outputs.kept(task, entry.lines, isEnded(task.status));
    }
    putInStartOrder(this.tasks);
    this.changed();
  }

  // A task as the relay or the agent names it: described by its action alone when the
  // page does not have what it was asked with.
  private described(taskId: string, agentId: string, kind: string, projectPath: string): Task {
    const task = this.ensure(taskId, agentId, null);
    const payload = payloadOfKind(kind);
    if (!task.payload) Object.assign(task, { kind: taskKind(payload), title: taskTitle(payload), projectPath });
    return task;
  }

  // The agent's present as the relay knows it. Tasks the page does not know are added as
  // they are; a hello leaves the ones it knows to the messages that follow (the relay
  // replays what the page missed). After a gap the snapshot is the truth: a task the page
  // thought running that it does not name has ended unseen, and each task that may have
  // said something the page missed shows so in its log.
  private applySnapshot(agentId: string, snapshot: AgentSnapshot, seq: number, gap: boolean): void {
    const named = new Set<string>();
    for (const entry of snapshot.tasks) {
      named.add(entry.taskId);
      const known = this.tasks.has(entry.taskId);
      const task = this.described(entry.taskId, agentId, entry.kind, entry.projectPath);
      if (entry.conversationId !== undefined) task.conversationId = entry.conversationId;
      task.since ??= seq;
      // Numbered output is kept on the computer: nothing of it is missed.
      if (gap && !this.endSeen.has(task.taskId) && !task.output) task.log.notice(kMissedOutputNotice);
      if (known && !gap) continue;
      task.status = entry.status;
      if (entry.exitCode !== undefined) task.exitCode = entry.exitCode;
      if (isEnded(task.status)) this.outputs.ended(task);
    }
    // The queue is the relay's present alone: its changes are not replayed.
    for (const entry of snapshot.queue) this.ensure(entry.taskId, agentId, entry.payload).status = 'queued';
    for (const task of this.tasks.values()) {
      const after = task.agentId === agentId && task.status === 'queued' ? statusAfterQueue(snapshot, task.taskId) : null;
      if (after && isEnded(after.status)) this.end(task, after.status, after.exitCode);
      else if (after) task.status = after.status;
    }
    placeInQueue(
      this.tasks.values(),
      agentId,
      snapshot.queue.map((entry) => entry.taskId),
    );
    if (gap) {
      for (const task of this.tasks.values()) {
        if (task.agentId !== agentId || named.has(task.taskId) || isEnded(task.status) || task.status === 'queued') continue;
        task.status = 'lost';
        this.outputs.ended(task);
        if (!task.output) task.log.notice(kMissedOutputNotice);
      }
    }
    const proposal = snapshot.proposal;
    const waiting = proposal && this.tasks.get(proposal.taskId);
    if (proposal && waiting && (gap || !waiting.proposal)) {
      const { taskId: _taskId, ...rest } = proposal;
      waiting.proposal = { ...rest, needsApproval: true };
    }
  }

  // A task joined the relay's queue, or left it: for the agent, or ended there.
  private queueChanged(message: MessageOf<'task.queued'> | MessageOf<'task.unqueued'>): void {
    const task = this.ensure(message.taskId, message.agentId, message.type === 'task.queued' ? message.payload : null);
    if (message.type === 'task.queued' && !isEnded(task.status)) {
      task.status = 'queued';
    } else if (message.type === 'task.unqueued' && task.status === 'queued') {
      if (message.reason === 'assigned') {
        task.status = 'starting';
      } else {
        if (message.error !== undefined) task.error = message.error;
        this.end(task, message.reason === 'cancelled' ? 'cancelled' : 'failed');
        task.endedAt = this.now();
        this.noteTimes(task);
      }
    }
    placeInQueue(this.tasks.values(), message.agentId, message.waiting);
  }

  private end(task: Task, status: TaskStatus, exitCode?: number): void {
    task.status = status;
    task.exitCode = exitCode;
    this.endSeen.add(task.taskId);
    this.outputs.ended(task);
  }

  private noteTimes(task: Task): void {
    const { startedAt, awaitingAt, endedAt, cancelAsked } = task;
    const { [task.taskId]: _old, ...others } = this.times;
    const kept = Object.entries(others).slice(1 - kTimesKept);
    this.times = Object.fromEntries([...kept, [task.taskId, { startedAt, awaitingAt, endedAt, cancelAsked }]]);
    try {
      this.storage.setItem(kTimesKey, JSON.stringify(this.times));
    } catch {
      // a full storage costs the next page these times only
    }
  }

  private remember(taskId: string, payload: TaskPayload): void {
    const kept = Object.entries(this.payloads).slice(1 - kPayloadsKept);
    this.payloads = Object.fromEntries([...kept, [taskId, payload]]);
    try {
      this.storage.setItem(kPayloadsKey, JSON.stringify(this.payloads));
    } catch {
      // a full storage costs the next page these titles only
    }
  }

  private ensure(taskId: string, agentId: string, given: TaskPayload | null): Task {
    const payload = given ?? this.payloads[taskId] ?? null;
    let task = this.tasks.get(taskId);
    if (!task) {
      task = {
        taskId,
        agentId,
        kind: taskKind(payload),
        title: taskTitle(payload),
        payload,
        projectPath: payload?.projectPath ?? '',
        status: 'starting',
        ...this.times[taskId],
        log: new LogLines(this.logCapacity),
        details: new LogLines(kDetailsKept),
        activity: [],
        answer: '',
        programStarted: false,
        commentary: '',
        artifacts: [],
      };
      this.tasks.set(taskId, task);
    } else if (payload && !task.payload) {
      Object.assign(task, { payload, kind: taskKind(payload), title: taskTitle(payload), projectPath: payload.projectPath ?? '' });
    }
    return task;
  }
}
