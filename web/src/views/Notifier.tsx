import { useEffect, useRef } from 'preact/hooks';
import type { AppState } from '../app_state';

// Browser notifications for what waits for the user while the page is in the background.
// Browsers offer them to secure contexts only (HTTPS, or this machine's own address).
export function Notifier({ state }: { state: AppState }) {
  const seen = useRef(new Set<string>());
  useEffect(() => {
    if (!window.isSecureContext || !('Notification' in window)) return;
    const ask = () => {
      if (Notification.permission === 'default') void Notification.requestPermission();
    };
    // Asked once, on the user's first tap, as browsers expect.
    document.addEventListener('pointerdown', ask, { once: true });
    const notify = () => {
      const waiting = [
        ...state.approvals.pending().map((r) => ({ id: r.requestId, title: `${r.toolName} wants permission`, body: r.agentId })),
        ...state.tasks.awaitingApproval().map((t) => ({ id: t.taskId, title: 'Changes to review', body: t.title })),
      ];
      for (const item of waiting) {
        if (seen.current.has(item.id)) continue;
        seen.current.add(item.id);
        if (document.visibilityState === 'hidden' && Notification.permission === 'granted') {
          new Notification(item.title, { body: item.body, tag: item.id });
        }
      }
    };
    // Task output changes the tasks store very often; looking a few times a second is enough.
    let timer: ReturnType<typeof setTimeout> | undefined;
    const soon = () => (timer ??= setTimeout(() => ((timer = undefined), notify()), 250));
    const stops = [state.approvals.subscribe(soon), state.tasks.subscribe(soon)];
    return () => {
      clearTimeout(timer);
      stops.forEach((stop) => stop());
      document.removeEventListener('pointerdown', ask);
    };
  }, [state]);
  return null;
}
