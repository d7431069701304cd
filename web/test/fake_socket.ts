import type { SocketLike } from '../src/protocol/relay_client';

// A stand-in for the browser's WebSocket in unit tests: records what the client sends
// and lets the test play the relay.
export class FakeSocket implements SocketLike {
  static created: FakeSocket[] = [];
  readyState = 0;
  sent: unknown[] = [];
  closed = false;
  onopen: ((event: unknown) => void) | null = null;
  onmessage: ((event: { data: unknown }) => void) | null = null;
  onclose: ((event: { code: number; reason: string }) => void) | null = null;
  onerror: ((event: unknown) => void) | null = null;

  constructor(
    readonly url: string,
    readonly protocols: string[],
  ) {
    FakeSocket.created.push(this);
  }

  send(data: string): void {
    this.sent.push(JSON.parse(data));
  }

  close(): void {
    this.closed = true;
    this.readyState = 3;
  }

  open(): void {
    this.readyState = 1;
    this.onopen?.({});
  }

  receive(message: unknown): void {
    this.onmessage?.({ data: typeof message === 'string' ? message : JSON.stringify(message) });
  }

  drop(): void {
    this.readyState = 3;
    this.onclose?.({ code: 1006, reason: '' });
  }

  static last(): FakeSocket {
    return FakeSocket.created[FakeSocket.created.length - 1];
  }
}
