// The relay's push endpoints (/v1/push/…) as the page uses them: the relay's public key,
// the devices subscribed to pushes, a test push. Every call carries the token as a bearer
// token; a refusal becomes a PushError with the relay's own words, shown as they are.
// What a push carries, and the decision a notification sends, are the worker's
// (push_messages.ts).

export class PushError extends Error {
  constructor(
    readonly status: number,
    message: string,
  ) {
    super(message);
    this.name = 'PushError';
  }
}

export interface PushDevice {
  id: string;
  device: string;
  origin: string; // the push service's
  lastPush: { at: string; status: number } | null;
}

// What the browser gives: PushSubscription.toJSON().
export interface SubscriptionJSON {
  endpoint?: string;
  expirationTime?: number | null;
  keys?: Record<string, string>;
}

export type FetchLike = (url: string, init: RequestInit) => Promise<Response>;

async function call(fetchFn: FetchLike, url: string, token: string, method: string, body?: unknown): Promise<unknown> {
  const headers: Record<string, string> = { Authorization: 'Bearer ' + token };
  if (body !== undefined) headers['Content-Type'] = 'application/json';
  let response: Response;
  try {
    response = await fetchFn(url, { method, headers, body: body === undefined ? undefined : JSON.stringify(body) });
  } catch {
    throw new PushError(0, 'The relay could not be reached.');
  }
  let answer: unknown = null;
  try {
    answer = await response.json();
  } catch {
    // an answer without JSON: its status says it
  }
  if (response.ok) return answer;
  const error = typeof answer === 'object' && answer !== null ? (answer as { error?: unknown }).error : undefined;
  throw new PushError(response.status, typeof error === 'string' && error !== '' ? error : `The relay answered ${response.status}.`);
}

function isRecord(value: unknown): value is Record<string, unknown> {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

function decodeDevice(value: unknown): PushDevice | null {
  if (!isRecord(value) || typeof value.id !== 'string' || typeof value.device !== 'string') return null;
  const last = value.lastPush;
  const lastPush =
    isRecord(last) && typeof last.status === 'number'
      ? { at: typeof last.at === 'string' ? last.at : String(last.at), status: last.status }
      : null;
  return { id: value.id, device: value.device, origin: typeof value.origin === 'string' ? value.origin : '', lastPush };
}

export class PushApi {
  constructor(
    private readonly origin: string,
    private readonly token: string,
    private readonly fetchFn: FetchLike = (url, init) => fetch(url, init),
  ) {}

  // The relay's public key, base64url, for pushManager.subscribe.
  async publicKey(): Promise<string> {
    const answer = await call(this.fetchFn, this.origin + '/v1/push/key', this.token, 'GET');
    if (!isRecord(answer) || typeof answer.publicKey !== 'string') throw new PushError(200, 'The relay gave no push key.');
    return answer.publicKey;
  }

  // Adds this device (or renews it: the same endpoint keeps its id); returns its id.
  async subscribe(subscription: SubscriptionJSON, device: string): Promise<string> {
    const answer = await call(this.fetchFn, this.origin + '/v1/push/subscriptions', this.token, 'POST', { subscription, device });
    if (!isRecord(answer) || typeof answer.id !== 'string') throw new PushError(200, 'The relay gave no subscription id.');
    return answer.id;
  }

  // Oldest first.
  async devices(): Promise<PushDevice[]> {
    const answer = await call(this.fetchFn, this.origin + '/v1/push/subscriptions', this.token, 'GET');
    const list = isRecord(answer) && Array.isArray(answer.subscriptions) ? answer.subscriptions : [];
    return list.map(decodeDevice).filter((device): device is PushDevice => device !== null);
  }

  async remove(id: string): Promise<void> {
    await call(this.fetchFn, this.origin + '/v1/push/subscriptions/' + encodeURIComponent(id), this.token, 'DELETE');
  }

  // Pushes a test to one device; the push service's status.
  async test(id: string): Promise<number> {
    const answer = await call(this.fetchFn, this.origin + '/v1/push/subscriptions/' + encodeURIComponent(id) + '/test', this.token, 'POST');
    return isRecord(answer) && typeof answer.status === 'number' ? answer.status : 0;
  }
}
