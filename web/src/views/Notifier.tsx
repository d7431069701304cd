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

// How many things need the user, in the page's title ("(3) Brinmoor") and on the app's
// icon where the browser has badges.
export function showCount(count: number, base: string): void {
  document.title = count > 0 ? `(${count}) ${base}` : base;
  const badges = navigator as Navigator & { setAppBadge?: (count: number) => Promise<void>; clearAppBadge?: () => Promise<void> };
  const done = count > 0 ? badges.setAppBadge?.(count) : badges.clearAppBadge?.();
  done?.catch(() => undefined); // refused outside an installed app on some systems
}

// Browser notifications for what waits for the user while the page is in the background.
export function Notifier({ state }: { state: AppState }) {
  useEffect(() => {
    const base = document.title.replace(/^\(\d+\) /, '');
    let shown = -1;
    const count = () => {
      const now = state.inbox.count;
      if (now !== shown) showCount((shown = now), base);
    };
    count();
    const stop = state.inbox.subscribe(count);
    return () => (stop(), showCount(0, base));
  }, [state]);
  useEffect(() => {
    if (!notificationsAvailable()) return;
    const open = (target: NotificationTarget) => state.open(target);
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
