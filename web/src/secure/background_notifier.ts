// Notifications for what waits for the user while the page is in the background: a tool
// use an assistant asks permission for, and a proposal waiting for its review. Each is
// announced once; what arrives while the page is visible is on the screen already.
import type { PermissionRequest } from '../stores/approvals_store';
import type { Task } from '../stores/tasks_store';
import type { KeyValueStorage } from '../stores/observable';
import { fileCount, projectName } from '../views/names';

export interface Attention {
  tag: string; // one notification per request or proposal
  title: string;
  body: string;
  open: NotificationTarget;
}

// What a click on the notification opens: the approval sheet for a request, a proposal's
// review, a failed task's log, a chat's answer.
export type NotificationTarget =
  | { kind: 'approval'; requestId: string }
  | { kind: 'proposal' | 'failed' | 'answer'; agentId: string; projectPath: string; taskId: string };

export function approvalAttention(request: PermissionRequest, assistant: string | undefined): Attention {
  return {
    tag: 'approval:' + request.requestId,
    title: 'Approval needed',
    body: `${assistant ?? 'An assistant'} wants to use ${request.toolName}`,
    open: { kind: 'approval', requestId: request.requestId },
  };
}

export function proposalAttention(task: Task): Attention {
  const where = task.projectPath ? projectName(task.projectPath) : task.agentId;
  return {
    tag: 'proposal:' + task.taskId,
    title: 'Changes to review',
    body: `${fileCount(task.proposal?.proposalFiles.length ?? 0)} changed in ${where}`,
    open: { kind: 'proposal', agentId: task.agentId, projectPath: task.projectPath, taskId: task.taskId },
  };
}

export interface NotificationHost {
  hidden(): boolean;
  permission(): NotificationPermission;
  show(attention: Attention): void;
}

export class BackgroundNotifier {
  private readonly seen = new Set<string>();

  constructor(private readonly host: NotificationHost) {}

  // Given everything that waits now; returns what was shown.
  update(waiting: readonly Attention[]): Attention[] {
    const shown: Attention[] = [];
    const announce = this.host.hidden() && this.host.permission() === 'granted';
    for (const attention of waiting) {
      if (this.seen.has(attention.tag)) continue;
      this.seen.add(attention.tag);
      if (!announce) continue;
      this.host.show(attention);
      shown.push(attention);
    }
    return shown;
  }
}

const kAskedKey = 'brinmoor.notificationsAsked';

// The question whether the page may notify is asked once, and only on the user's tap:
// browsers ignore, or hold against the site, a prompt nobody asked for.
export class NotificationOffer {
  private asked: boolean;

  constructor(private readonly storage: KeyValueStorage) {
    this.asked = storage.getItem(kAskedKey) !== null;
  }

  shown(permission: NotificationPermission | null): boolean {
    return permission === 'default' && !this.asked;
  }

  // "Notify me" (then the browser's prompt) or "Not now": either way it is not offered again.
  answer(): void {
    this.asked = true;
    this.storage.setItem(kAskedKey, '1');
  }
}
