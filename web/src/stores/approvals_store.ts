import type { MessageOf, ServerMessage } from '../protocol/messages';
import { Observable } from './observable';

export type PermissionRequest = Omit<MessageOf<'permission.request'>, 'type'>;

export interface PermissionSender {
  decidePermission(requestId: string, allow: boolean, message?: string): boolean;
}

// How a tool's input is best shown: a shell command as a command, a file write as its
// path and content, anything else as indented JSON.
export type ToolInputView =
  | { kind: 'command'; command: string; description: string }
  | { kind: 'file'; path: string; content: string }
  | { kind: 'json'; json: string };

function field(input: Record<string, unknown>, ...names: string[]): string | undefined {
  for (const name of names) if (typeof input[name] === 'string') return input[name] as string;
  return undefined;
}

export function describeToolInput(toolInput: unknown): ToolInputView {
  if (typeof toolInput === 'object' && toolInput !== null && !Array.isArray(toolInput)) {
    const input = toolInput as Record<string, unknown>;
    const command = field(input, 'command', 'cmd');
    if (command !== undefined) return { kind: 'command', command, description: field(input, 'description') ?? '' };
    if (Array.isArray(input.command) && input.command.every((part) => typeof part === 'string')) {
      return { kind: 'command', command: (input.command as string[]).join(' '), description: '' };
    }
    const path = field(input, 'file_path', 'path', 'filePath');
    const content = field(input, 'content', 'new_string', 'text');
    if (path !== undefined) return { kind: 'file', path, content: content ?? '' };
  }
  return { kind: 'json', json: JSON.stringify(toolInput, null, 2) ?? String(toolInput) };
}

// The assistants' tool uses waiting for a decision, from whichever client sees them; a
// "permission.resolved" (this page's decision, another client's, or a time-out) ends one.
export class ApprovalsStore extends Observable {
  private readonly requests = new Map<string, PermissionRequest>();
  private open = false;

  constructor(private readonly sender: PermissionSender) {
    super();
  }

  pending(): PermissionRequest[] {
    return [...this.requests.values()];
  }

  get count(): number {
    return this.requests.size;
  }

  // Whether the sheet is up: a new request brings it up wherever the user is; "Later"
  // puts it away until the user asks for it or another request comes.
  get sheetOpen(): boolean {
    return this.open;
  }

  reveal(): void {
    this.open = true;
    this.changed();
  }

  dismiss(): void {
    this.open = false;
    this.changed();
  }

  decide(requestId: string, allow: boolean, message?: string): boolean {
    return this.requests.has(requestId) && this.sender.decidePermission(requestId, allow, message?.trim() || undefined);
  }

  handle(message: ServerMessage): void {
    if (message.type === 'permission.request') {
      const { type: _type, ...request } = message;
      if (!this.requests.has(request.requestId)) this.open = true;
      this.requests.set(request.requestId, request);
    } else if (message.type === 'permission.resolved') {
      if (!this.requests.delete(message.requestId)) return;
      if (this.requests.size === 0) this.open = false;
    } else if (message.type === 'server.hello') {
      // The relay repeats every request still waiting after its hello.
      if (this.requests.size === 0) return;
      this.requests.clear();
    } else {
      return;
    }
    this.changed();
  }
}
