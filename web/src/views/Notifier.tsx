import { useEffect } from 'preact/hooks';
import type { AppState } from '../app_state';
import {
  approvalAttention,
  BackgroundNotifier,
  proposalAttention,
  type Attention,
  type NotificationTarget,
} from '../secure/background_notifier';
import { notificationsAvailable, onNotificationClick, showNotification } from '../secure/service_worker_client';

function waiting(state: AppState): Attention[] {
  return [
    ...state.approvals.pending().map((request) => approvalAttention(request, state.tasks.get(request.taskId)?.payload?.system)),
    ...state.tasks.awaitingApproval().map(proposalAttention),
  ];
}

// A clicked notification brings up the approval sheet, or the proposal's review.
function openTarget(state: AppState, target: NotificationTarget): void {
  if (target.kind === 'approval') {
    state.approvals.reveal();
  } else {
    state.approvals.dismiss();
    const projectPath = target.projectPath || state.navigation.place.projectPath;
    state.navigation.go({ agentId: target.agentId, projectPath, tab: 'changes', taskId: target.taskId });
  }
}

// Browser notifications for what waits for the user while the page is in the background.
export function Notifier({ state }: { state: AppState }) {
  useEffect(() => {
    if (!notificationsAvailable()) return;
    const open = (target: NotificationTarget) => openTarget(state, target);
    const notifier = new BackgroundNotifier({
      hidden: () => document.visibilityState === 'hidden',
      permission: () => Notification.permission,
      show: (attention) =>
        void showNotification(attention, open).catch((error: unknown) =>
          console.warn('Brinmoor Web: the notification was not shown:', error),
        ),
    });
    // Task output changes the tasks store very often; looking a few times a second is enough.
    let timer: ReturnType<typeof setTimeout> | undefined;
    const soon = () => (timer ??= setTimeout(() => ((timer = undefined), notifier.update(waiting(state))), 250));
    const stops = [state.approvals.subscribe(soon), state.tasks.subscribe(soon), onNotificationClick(open)];
    return () => {
      clearTimeout(timer);
      stops.forEach((stop) => stop());
    };
  }, [state]);
  return null;
}
