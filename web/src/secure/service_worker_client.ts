// The page's side of the service worker: registering it where browsers allow one (a
// secure context: HTTPS, or this machine's own address), showing notifications through
// it, and hearing which notification was clicked.
import type { Attention, NotificationTarget } from './background_notifier';

const kClickMessage = 'brinmoor.notificationclick';

export function registerShellWorker(): void {
  if (!window.isSecureContext || !('serviceWorker' in navigator)) return;
  // A page without its worker works as before, only not offline.
  navigator.serviceWorker
    .register('/sw.js', { scope: '/' })
    .catch((error: unknown) => console.warn('Brinmoor Web: the service worker was not registered:', error));
}

// Hands the page's token to the service worker (null: the page forgot it), which sends a
// notification's Allow or Deny with it.
export async function handTokenToWorker(token: string | null): Promise<void> {
  if (!window.isSecureContext || !('serviceWorker' in navigator)) return;
  const registration = await navigator.serviceWorker.ready;
  registration.active?.postMessage({ type: 'brinmoor.token', token });
}

export function notificationsAvailable(): boolean {
  return window.isSecureContext && 'Notification' in window;
}

export function isTarget(value: unknown): value is NotificationTarget {
  if (typeof value !== 'object' || value === null) return false;
  const target = value as Record<string, unknown>;
  if (target.kind === 'approval') return typeof target.requestId === 'string';
  return (
    (target.kind === 'proposal' || target.kind === 'failed' || target.kind === 'answer') &&
    typeof target.agentId === 'string' &&
    typeof target.projectPath === 'string' &&
    typeof target.taskId === 'string'
  );
}

// The target of a click the worker reports, or null for any other message.
export function clickedTarget(message: unknown): NotificationTarget | null {
  if (typeof message !== 'object' || message === null) return null;
  const { type, data } = message as { type?: unknown; data?: unknown };
  return type === kClickMessage && isTarget(data) ? data : null;
}

export function onNotificationClick(open: (target: NotificationTarget) => void): () => void {
  if (!('serviceWorker' in navigator)) return () => undefined;
  const listener = (event: MessageEvent) => {
    const target = clickedTarget(event.data);
    if (target) open(target);
  };
  navigator.serviceWorker.addEventListener('message', listener);
  return () => navigator.serviceWorker.removeEventListener('message', listener);
}

// Through the service worker when it is active (the only way on Android, and the
// notification outlives the page); otherwise from the page.
export async function showNotification(attention: Attention, open: (target: NotificationTarget) => void): Promise<void> {
  const options: NotificationOptions = { body: attention.body, tag: attention.tag, data: attention.open, icon: '/icon-192.png' };
  const registration = 'serviceWorker' in navigator ? await navigator.serviceWorker.getRegistration() : undefined;
  if (registration?.active) {
    await registration.showNotification(attention.title, options);
    return;
  }
  const notification = new Notification(attention.title, options);
  notification.onclick = () => {
    window.focus();
    notification.close();
    open(attention.open);
  };
}
