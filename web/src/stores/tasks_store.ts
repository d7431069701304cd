import type { AgentSnapshot, Proposal, ServerMessage, TaskPayload } from '../protocol/messages';
import type { Seqs } from '../protocol/relay_client';
import { LogLines } from './log_lines';
import { Observable, readJSON, type KeyValueStorage } from './observable';

export type TaskKind = 'shell' | 'build' | 'chat' | 'ai_task' | 'task';
// "lost": the agent no longer knew the task when the relay last heard of it.
export type TaskStatus = 'starting' | 'running' | 'awaiting_approval' | 'finished' | 'failed' | 'cancelled' | 'lost';

// The line a task's log shows where the relay no longer had what the page missed.
export const kMissedOutputNotice = 'Some output was missed here: the relay no longer had it when this page came back.';

// How many ended tasks of each agent a reload brings back with their output (as many
// as the relay's snapshot names).
const kEndedKeptPerAgent = 20;
// What this page asked of its newest tasks, kept for the next page (their titles, "Run
// again"): the relay gives back a task's messages, not its request.
const kPayloadsKey = 'brinmoor.taskPayloads';
const kPayloadsKept = 50;

export interface TaskProposal extends Proposal {
  needsApproval: boolean;
  decision?: 'approve' | 'reject';
}

export interface Task {
  taskId: string;
  agentId: string;
  kind: TaskKind;
  title: string;
  payload: TaskPayload | null; // null for a task another client started
  projectPath: string;
  status: TaskStatus;
  exitCode?: number;
  error?: string;
  errorCode?: string;
  createdAt: number;
  startedAt?: number;
  endedAt?: number;
  log: LogLines;
  commentary: string;
  progress?: { phase: string; message: string; percent: number };
  proposal?: TaskProposal;
  artifacts: { kind: string; summary: string; mimeType: string }[];
  conversationId?: string;
  // The seq after which the relay has all of this task's messages this page has: its
  // first message's less one, or the seq of the snapshot it was learnt from.
  since?: number;
}

// What the tasks store asks of the relay.
export interface TaskSender {
  createTask(agentId: string, payload: TaskPayload): Promise<string>;
  cancelTask(agentId: string, taskId: string): boolean;
  decideProposal(agentId: string, taskId: string, approve: boolean): boolean;
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
      return 'Build: ' + payload.action;
  }
}

export function isEnded(status: TaskStatus): boolean {
  return status === 'finished' || status === 'failed' || status === 'cancelled' || status === 'lost';
}

// The tasks of this session: those this page started, and those it saw others start.
export class TasksStore extends Observable {
  private readonly tasks = new Map<string, Task>();
  // Tasks whose end this page received; any other may have said more than the page has.
  private readonly endSeen = new Set<string>();
  private payloads: Record<string, TaskPayload>;

  constructor(
    private readonly sender: TaskSender,
    private readonly storage: KeyValueStorage,
    private readonly now: () => number = Date.now,
    private readonly logCapacity?: number,
  ) {
    super();
    this.payloads = readJSON(storage, kPayloadsKey, {});
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
    this.changed();
    return task;
  }

  cancel(task: Task): boolean {
    return this.sender.cancelTask(task.agentId, task.taskId);
  }

  decide(task: Task, approve: boolean): boolean {
    if (!task.proposal || !this.sender.decideProposal(task.agentId, task.taskId, approve)) return false;
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
      for (const agent of message.agents) this.applySnapshot(agent.agentId, agent.snapshot, agent.seq, false);
      this.changed();
      return;
    }
    if (message.type === 'resume.gap') {
      this.applySnapshot(message.agentId, message.snapshot, message.seq, true);
      this.changed();
      return;
    }
    if (!message.type.startsWith('task.') || message.type === 'task.created' || !('taskId' in message)) return;
    if (message.type === 'task.heartbeat') return;
    const task = this.ensure(message.taskId, message.agentId, null);
    const seq = 'seq' in message ? message.seq : undefined;
    if (seq !== undefined && seq - 1 < (task.since ?? Infinity)) task.since = seq - 1;
    switch (message.type) {
      case 'task.started':
        task.status = task.status === 'starting' ? 'running' : task.status;
        task.startedAt ??= this.now();
        break;
      case 'task.log':
        task.log.output(message.line);
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
        const { proposalId, proposalSummary, proposalCommentary, proposalDiff, proposalFiles } = message;
        const needsApproval = message.type === 'task.awaiting_approval';
        task.proposal = { proposalId, proposalSummary, proposalCommentary, proposalDiff, proposalFiles, needsApproval };
        if (needsApproval) task.status = 'awaiting_approval';
        break;
      }
      case 'task.finished':
        this.end(task, 'finished', message.exitCode);
        break;
      case 'task.cancelled':
        this.end(task, 'cancelled', message.exitCode);
        break;
      case 'task.failed':
        this.end(task, 'failed', message.exitCode);
        task.error = message.error;
        task.errorCode = message.errorCode;
        break;
      default:
        break;
    }
    this.changed();
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
      const task = this.ensure(entry.taskId, agentId, null);
      if (!task.payload) {
        const payload: TaskPayload | null = entry.kind === '' ? null : { action: entry.kind };
        Object.assign(task, { kind: taskKind(payload), title: taskTitle(payload), projectPath: entry.projectPath });
      }
      if (entry.conversationId !== undefined) task.conversationId = entry.conversationId;
      task.since ??= seq;
      if (gap && !this.endSeen.has(task.taskId)) task.log.notice(kMissedOutputNotice);
      if (known && !gap) continue;
      task.status = entry.status;
      if (entry.exitCode !== undefined) task.exitCode = entry.exitCode;
      if (isEnded(entry.status)) task.endedAt ??= this.now();
      else task.startedAt ??= this.now();
    }
    if (gap) {
      for (const task of this.tasks.values()) {
        if (task.agentId !== agentId || named.has(task.taskId) || isEnded(task.status)) continue;
        task.status = 'lost';
        task.endedAt = this.now();
        task.log.notice(kMissedOutputNotice);
      }
    }
    const proposal = snapshot.proposal;
    const waiting = proposal && this.tasks.get(proposal.taskId);
    if (proposal && waiting && (gap || !waiting.proposal)) {
      const { taskId: _taskId, ...rest } = proposal;
      waiting.proposal = { ...rest, needsApproval: true };
    }
  }

  private end(task: Task, status: TaskStatus, exitCode: number): void {
    task.status = status;
    task.exitCode = exitCode;
    task.endedAt = this.now();
    this.endSeen.add(task.taskId);
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
        createdAt: this.now(),
        log: new LogLines(this.logCapacity),
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
