import type { Proposal, ServerMessage, TaskPayload } from '../protocol/messages';
import { LogLines } from './log_lines';
import { Observable } from './observable';

export type TaskKind = 'shell' | 'build' | 'chat' | 'ai_task' | 'task';
export type TaskStatus = 'starting' | 'running' | 'awaiting_approval' | 'finished' | 'failed' | 'cancelled';

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
  switch (payload.action) {
    case 'shell':
      return payload.command ?? '';
    case 'chat':
    case 'ai_task':
      return payload.prompt ?? '';
    default:
      return 'Build: ' + payload.action;
  }
}

export function isEnded(status: TaskStatus): boolean {
  return status === 'finished' || status === 'failed' || status === 'cancelled';
}

// The tasks of this session: those this page started, and those it saw others start.
export class TasksStore extends Observable {
  private readonly tasks = new Map<string, Task>();

  constructor(
    private readonly sender: TaskSender,
    private readonly now: () => number = Date.now,
    private readonly logCapacity?: number,
  ) {
    super();
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

  handle(message: ServerMessage): void {
    if (!message.type.startsWith('task.') || message.type === 'task.created' || !('taskId' in message)) return;
    if (message.type === 'task.heartbeat') return;
    const task = this.ensure(message.taskId, message.agentId, null);
    switch (message.type) {
      case 'task.started':
        task.status = task.status === 'starting' ? 'running' : task.status;
        task.startedAt ??= this.now();
        break;
      case 'task.log':
        task.log.push(message.line);
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

  private end(task: Task, status: TaskStatus, exitCode: number): void {
    task.status = status;
    task.exitCode = exitCode;
    task.endedAt = this.now();
  }

  private ensure(taskId: string, agentId: string, payload: TaskPayload | null): Task {
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
