// "Needs you": what waits for the user on every machine and in every project. Tool uses
// waiting for a decision, proposals waiting for a review, tasks that failed, and chat
// answers that finished since the user last looked at them. Which tasks the user has
// looked at is kept in this browser: a task counts as looked at once its card was shown
// on a visible page after it ended.
import type { PermissionRequest } from './approvals_store';
import { Observable, readJSON, type KeyValueStorage } from './observable';
import { isEnded, taskEnd, type Task } from './tasks_store';

export type InboxEntry =
  | { kind: 'approval'; key: string; requestId: string; agentId: string; projectPath: string; taskId: string; tool: string }
  | { kind: 'proposal'; key: string; agentId: string; projectPath: string; taskId: string; title: string; files: number }
  | { kind: 'failed'; key: string; agentId: string; projectPath: string; taskId: string; title: string; error: string }
  | { kind: 'answer'; key: string; agentId: string; projectPath: string; taskId: string; title: string; conversationId: string };

// The card the page shows: an approval, or what shows tasks (a task's log, a proposal's
// review, a chat and its answers: `taskIds`, newest first).
export type ShownCard = { requestId: string } | { taskId: string; taskIds: string[] };

export interface InboxSources {
  pending(): PermissionRequest[];
  tasks(): Task[]; // newest first
  task(taskId: string): Task | undefined;
  subscribe(listener: () => void): () => void;
}

export const kLookedKey = 'brinmoor.looked';
const kLookedKept = 300;

export function conversationOf(task: Task): string | undefined {
  return task.payload?.conversationId ?? task.conversationId;
}

export class InboxStore extends Observable {
  private looked: string[];
  private shown: ShownCard | null = null;

  constructor(
    private readonly sources: InboxSources,
    private readonly storage: KeyValueStorage,
  ) {
    super();
    const kept = readJSON<unknown>(storage, kLookedKey, []);
    this.looked = Array.isArray(kept) ? kept.filter((id): id is string => typeof id === 'string') : [];
    // A task that ends while its card is shown has been seen.
    sources.subscribe(() => {
      this.lookAtShown();
      this.changed();
    });
  }

  // Approvals first (they hold an assistant up), then reviews, failures and answers,
  // newest first within each.
  entries(): InboxEntry[] {
    const approvals: InboxEntry[] = this.sources.pending().map((request) => ({
      kind: 'approval',
      key: 'approval:' + request.requestId,
      requestId: request.requestId,
      agentId: request.agentId,
      projectPath: this.sources.task(request.taskId)?.projectPath ?? '',
      taskId: request.taskId,
      tool: request.toolName,
    }));
    const proposals: InboxEntry[] = [];
    const failed: InboxEntry[] = [];
    const answers: InboxEntry[] = [];
    for (const task of this.sources.tasks()) {
      const where = { agentId: task.agentId, projectPath: task.projectPath, taskId: task.taskId, title: task.title };
      if (task.status === 'awaiting_approval' && task.proposal && task.proposal.decision === undefined) {
        proposals.push({ kind: 'proposal', key: 'proposal:' + task.taskId, ...where, files: task.proposal.proposalFiles.length });
      } else if (this.looked.includes(task.taskId)) {
        continue;
      } else if (taskEnd(task) === 'failed') {
        failed.push({ kind: 'failed', key: 'failed:' + task.taskId, ...where, error: task.error ?? '' });
      } else if (task.kind === 'chat' && task.status === 'finished') {
        const conversationId = conversationOf(task);
        if (conversationId !== undefined) answers.push({ kind: 'answer', key: 'answer:' + task.taskId, ...where, conversationId });
      }
    }
    return [...approvals, ...proposals, ...failed, ...answers];
  }

  get count(): number {
    return this.entries().length;
  }

  hasLooked(taskId: string): boolean {
    return this.looked.includes(taskId);
  }

  // What the visible page shows now; null when it shows no card or is hidden.
  showing(card: ShownCard | null): void {
    this.shown = card;
    if (this.lookAtShown()) this.changed();
  }

  // The user opened this task's card.
  look(taskId: string): void {
    if (this.note([taskId])) this.changed();
  }

  private lookAtShown(): boolean {
    const shown = this.shown;
    if (!shown || !('taskIds' in shown)) return false;
    return this.note(shown.taskIds.filter((id) => isEnded(this.sources.task(id)?.status ?? 'running')));
  }

  private note(taskIds: string[]): boolean {
    const fresh = taskIds.filter((id) => !this.looked.includes(id));
    if (fresh.length === 0) return false;
    this.looked = [...this.looked, ...fresh].slice(-kLookedKept);
    try {
      this.storage.setItem(kLookedKey, JSON.stringify(this.looked));
    } catch {
      // a full storage: looked at for this page only
    }
    return true;
  }
}

// The card a place shows: a chat shows its answers, the Tasks and Changes tabs the task
// chosen; the approval sheet, when up, is over all of them.
export function shownCard(
  place: {
    agentId: string | null;
    projectPath: string | null;
    tab: string;
    conversationId: string | null;
    taskId: string | null;
    inbox?: boolean;
  },
  sheetRequest: string | null,
  tasks: Task[],
): ShownCard | null {
  if (sheetRequest !== null) return { requestId: sheetRequest };
  if (place.inbox || place.agentId === null || place.projectPath === null) return null;
  if (place.tab === 'chat' && place.conversationId !== null) {
    const taskIds = tasks
      .filter((task) => task.kind === 'chat' && conversationOf(task) === place.conversationId)
      .map((task) => task.taskId);
    return taskIds.length === 0 ? null : { taskId: taskIds[0], taskIds };
  }
  if ((place.tab === 'tasks' || place.tab === 'changes') && place.taskId !== null) return { taskId: place.taskId, taskIds: [place.taskId] };
  return null;
}

// The card as "client.viewing" names it.
export function viewingCard(card: ShownCard | null): { requestId: string } | { taskId: string } | null {
  if (card === null) return null;
  return 'requestId' in card ? { requestId: card.requestId } : { taskId: card.taskId };
}
