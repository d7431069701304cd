// Pushes to this device when the page is not open: subscribing it with the browser's
// push service under the relay's key, telling the relay (again on every open, since
// subscriptions end without a word), and the devices the relay pushes to.
import { PushError, type PushApi, type PushDevice, type SubscriptionJSON } from '../protocol/push_api';
import { Observable, type KeyValueStorage } from './observable';

export type PushState =
  | 'unsupported' // no service worker or push in this browser, or no secure context
  | 'home-screen' // an iPhone or iPad: only a page opened from the Home Screen gets pushes
  | 'denied' // the browser blocks this site's notifications
  | 'off'
  | 'on';

export interface BrowserSubscription {
  endpoint: string;
  toJSON(): SubscriptionJSON;
  unsubscribe(): Promise<boolean>;
}

// What the store asks of the browser; the tests give a fake.
export interface PushHost {
  supported(): boolean;
  needsHomeScreen(): boolean;
  permission(): NotificationPermission;
  requestPermission(): Promise<NotificationPermission>;
  current(): Promise<BrowserSubscription | null>;
  subscribe(publicKey: string): Promise<BrowserSubscription>;
}

const kDeviceKey = 'brinmoor.pushDevice';
const kDeviceIdKey = 'brinmoor.pushDeviceId';

// A name for this device from its browser's user agent ("Chrome on Android").
export function defaultDeviceName(userAgent: string, touchPoints = 0): string {
  const browser = /Edg\//.test(userAgent)
    ? 'Edge'
    : /Firefox\/|FxiOS/.test(userAgent)
      ? 'Firefox'
      : /Chrome\/|CriOS/.test(userAgent)
        ? 'Chrome'
        : /Safari\//.test(userAgent)
          ? 'Safari'
          : 'Browser';
  const system = /iPhone|iPod/.test(userAgent)
    ? 'iPhone'
    : /iPad/.test(userAgent) || (/Macintosh/.test(userAgent) && touchPoints > 1)
      ? 'iPad'
      : /Android/.test(userAgent)
        ? 'Android'
        : /Macintosh/.test(userAgent)
          ? 'Mac'
          : /Windows/.test(userAgent)
            ? 'Windows'
            : /CrOS/.test(userAgent)
              ? 'Chromebook'
              : /Linux/.test(userAgent)
                ? 'Linux'
                : 'this device';
  return `${browser} on ${system}`;
}

export class PushStore extends Observable {
  private currentState: PushState;
  private key: string | null = null;
  endpoint: string | null = null;
  devices: PushDevice[] = [];
  // The relay's words when it refused (push off, a bad subscription), or the browser's.
  problem: string | null = null;
  busy = false;
  deviceName: string;
  private deviceId: string | null;
  // What "Send a test notification" came to, per device.
  readonly tests = new Map<string, string>();

  constructor(
    private readonly host: PushHost,
    private readonly api: () => PushApi | null,
    private readonly storage: KeyValueStorage,
    defaultName: string,
  ) {
    super();
    this.deviceName = storage.getItem(kDeviceKey) ?? defaultName;
    this.deviceId = storage.getItem(kDeviceIdKey);
    this.currentState = this.baseState();
  }

  get state(): PushState {
    return this.currentState;
  }

  get thisDevice(): string | null {
    return this.currentState === 'on' ? this.deviceId : null;
  }

  private baseState(): PushState {
    if (this.host.needsHomeScreen()) return 'home-screen';
    if (!this.host.supported()) return 'unsupported';
    if (this.host.permission() === 'denied') return 'denied';
    return this.currentState === 'on' ? 'on' : 'off';
  }

  setDeviceName(name: string): void {
    this.deviceName = name;
    this.storage.setItem(kDeviceKey, name);
    this.changed();
  }

  // On every open: a device whose user turned pushes on subscribes again and tells the
  // relay, since a subscription can end without a word.
  async renew(): Promise<void> {
    this.currentState = this.baseState();
    if (this.currentState !== 'off' || this.host.permission() !== 'granted') return this.changed();
    const existing = await this.host.current().catch(() => null);
    if (existing) {
      this.endpoint = existing.endpoint;
      this.currentState = 'on';
      this.changed();
    }
    if (!existing && this.deviceId === null) return;
    await this.subscribeHere();
  }

  // Fetches the relay's key before the user asks: the browser's question must follow the
  // tap at once, and a relay with push off says so before anyone taps.
  async prepare(): Promise<void> {
    this.currentState = this.baseState();
    this.changed();
    if (this.currentState === 'home-screen' || this.currentState === 'unsupported') return;
    await Promise.all([this.loadKey(), this.loadDevices()]);
  }

  // "Notify me".
  async turnOn(): Promise<void> {
    if (this.busy) return;
    this.busy = true;
    this.problem = null;
    this.changed();
    try {
      if (this.key === null) await this.loadKey();
      if (this.key === null) return;
      const permission = await this.host.requestPermission();
      if (permission !== 'granted') {
        this.currentState = permission === 'denied' ? 'denied' : 'off';
        return;
      }
      await this.subscribeHere();
    } finally {
      this.busy = false;
      this.changed();
    }
  }

  async loadDevices(): Promise<void> {
    const api = this.api();
    if (!api) return;
    try {
      this.devices = await api.devices();
    } catch (error) {
      this.problem = errorText(error);
    }
    this.changed();
  }

  async test(id: string): Promise<void> {
    const api = this.api();
    if (!api) return;
    this.tests.set(id, 'Sending…');
    this.changed();
    try {
      const status = await api.test(id);
      this.tests.set(id, `Sent: the push service answered ${status}.`);
    } catch (error) {
      this.tests.set(id, errorText(error));
    }
    await this.loadDevices();
  }

  async remove(id: string): Promise<void> {
    const api = this.api();
    if (!api) return;
    try {
      await api.remove(id);
      this.tests.delete(id);
      if (id === this.deviceId) await this.forgetThisDevice();
    } catch (error) {
      this.problem = errorText(error);
    }
    await this.loadDevices();
  }

  // The page forgets the relay: the relay forgets this device, which unsubscribes.
  async leave(): Promise<void> {
    const api = this.api();
    const id = this.deviceId;
    if (api && id !== null) await api.remove(id).catch(() => undefined);
    if (id !== null || this.endpoint !== null) await this.forgetThisDevice();
  }

  // After the browser's own question said yes (the offer above the page): subscribes,
  // leaving a relay with push off to say so in "Needs you".
  async granted(): Promise<void> {
    this.currentState = this.baseState();
    if (this.currentState === 'off' && this.host.permission() === 'granted') await this.subscribeHere();
  }

  // Unsubscribes this device from its push service (the page forgets the relay, or the
  // relay forgot the device).
  async forgetThisDevice(): Promise<void> {
    const existing = await this.host.current().catch(() => null);
    await existing?.unsubscribe().catch(() => false);
    this.deviceId = null;
    this.storage.removeItem(kDeviceIdKey);
    this.endpoint = null;
    this.currentState = this.baseState() === 'on' ? 'off' : this.baseState();
    this.changed();
  }

  private async loadKey(): Promise<void> {
    const api = this.api();
    if (!api) return;
    try {
      this.key = await api.publicKey();
      this.problem = null;
    } catch (error) {
      this.problem = errorText(error);
    }
    this.changed();
  }

  private async subscribeHere(): Promise<void> {
    const api = this.api();
    if (!api) return;
    try {
      this.key ??= await api.publicKey();
      const subscription = await this.host.subscribe(this.key);
      const name = this.deviceName.trim().slice(0, 64) || 'This device';
      this.deviceId = await api.subscribe(subscription.toJSON(), name);
      this.storage.setItem(kDeviceIdKey, this.deviceId);
      this.endpoint = subscription.endpoint;
      this.currentState = 'on';
      this.problem = null;
    } catch (error) {
      this.problem = errorText(error);
    }
    this.changed();
    await this.loadDevices();
  }
}

export const kRelayWithoutPush = 'This relay does not send notifications yet: it needs a newer brinmoor-server.';

function errorText(error: unknown): string {
  // A relay older than pushes answers their paths as files it does not have.
  if (error instanceof PushError && error.status === 404 && error.message === 'not found') return kRelayWithoutPush;
  if (error instanceof PushError) return error.message;
  if (error instanceof Error && error.message !== '') return `The browser did not subscribe: ${error.message}`;
  return 'The browser did not subscribe.';
}
