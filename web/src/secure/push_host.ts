// The browser's side of pushes: whether this browser can have them, the question to the
// user, and the subscription with the browser's push service through the service worker.
import type { BrowserSubscription, PushHost } from '../stores/push_store';

// Safari on an iPhone or iPad gets pushes only in a page opened from the Home Screen
// (an iPad's Safari calls itself a Mac, one with a touch screen).
export function isAppleMobile(): boolean {
  const agent = navigator.userAgent;
  return /iPhone|iPad|iPod/.test(agent) || (/Macintosh/.test(agent) && navigator.maxTouchPoints > 1);
}

export function openedFromHomeScreen(): boolean {
  return (navigator as { standalone?: boolean }).standalone === true || matchMedia('(display-mode: standalone)').matches;
}

function keyBytes(base64url: string): Uint8Array<ArrayBuffer> {
  const base64 = base64url.replace(/-/g, '+').replace(/_/g, '/') + '='.repeat((4 - (base64url.length % 4)) % 4);
  const text = atob(base64);
  const bytes = new Uint8Array(new ArrayBuffer(text.length));
  for (let i = 0; i < text.length; i++) bytes[i] = text.charCodeAt(i);
  return bytes;
}

async function registration(): Promise<ServiceWorkerRegistration> {
  return navigator.serviceWorker.ready;
}

export const browserPushHost: PushHost = {
  supported: () => window.isSecureContext && 'serviceWorker' in navigator && 'PushManager' in window && 'Notification' in window,
  needsHomeScreen: () => isAppleMobile() && !openedFromHomeScreen(),
  permission: () => ('Notification' in window ? Notification.permission : 'denied'),
  requestPermission: () => Notification.requestPermission(),
  current: async () => (await registration()).pushManager.getSubscription() as Promise<BrowserSubscription | null>,
  subscribe: async (publicKey) => {
    const manager = (await registration()).pushManager;
    const options = { userVisibleOnly: true, applicationServerKey: keyBytes(publicKey) };
    try {
      return await manager.subscribe(options);
    } catch (error) {
      // A subscription made under another key stands in the way: it is replaced.
      const old = await manager.getSubscription();
      if (!old) throw error;
      await old.unsubscribe();
      return manager.subscribe(options);
    }
  },
};
