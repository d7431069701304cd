import type { MessageOf, ServerMessage } from '../protocol/messages';
import { Observable } from './observable';

export type PermissionRequest = Omit<MessageOf<'permission.request'>, 'type'>;

export interface PermissionSender {
  decidePermission(requestId: string, allow: boolean, message?: string): boolean;
}

// How a tool's input is best shown: a shell command as a command, a file write as its
// path and content, and every field those leave out (a "cmd" beside a "command", a "path"
// beside a "file_path", anything unknown) on its own, by name, as indented JSON; an input
// that is no object, or an empty one, as JSON. Nothing of the input is left out.
export interface ToolInputField {
  name: string;
  json: string;
}

export type ToolInputView =
  | { kind: 'command'; command: string; description: string; others: ToolInputField[] }
  | { kind: 'file'; path: string; content: string; others: ToolInputField[] }
  | { kind: 'fields'; others: ToolInputField[] }
  | { kind: 'json'; json: string };

function json(value: unknown): string {
  return JSON.stringify(value, null, 2) ?? String(value);
}

export function describeToolInput(toolInput: unknown): ToolInputView {
  if (typeof toolInput !== 'object' || toolInput === null || Array.isArray(toolInput) || Object.keys(toolInput).length === 0) {
    return { kind: 'json', json: json(toolInput) };
  }
  // Own fields only, "__proto__" included: JSON makes it a field like any other.
  const fields = new Map(Object.entries(toolInput));
  const shown = new Set<string>();
  // The first of `names` that holds a string (a non-empty one when `nonEmpty`), marked shown.
  const take = (nonEmpty: boolean, ...names: string[]): string | undefined => {
    for (const name of names) {
      const value = fields.get(name);
      if (typeof value === 'string' && (!nonEmpty || value !== '')) {
        shown.add(name);
        return value;
      }
    }
    return undefined;
  };
  const others = () => [...fields].filter(([name]) => !shown.has(name)).map(([name, value]) => ({ name, json: json(value) }));
  const list = fields.get('command');
  let command = take(false, 'command', 'cmd');
  if (command === undefined && Array.isArray(list) && list.every((part) => typeof part === 'string')) {
    shown.add('command');
    command = list.join(' ');
  }
  if (command !== undefined) return { kind: 'command', command, description: take(true, 'description') ?? '', others: others() };
  const path = take(false, 'file_path', 'path', 'filePath');
  if (path !== undefined) return { kind: 'file', path, content: take(true, 'content', 'new_string', 'text') ?? '', others: others() };
  return { kind: 'fields', others: others() };
}

// A tool use in a few words, for the line an answer's activity keeps of it: the tool and
// the command it runs or the file it touches ("Write: notes.txt").
export function toolUseText(toolName: string, toolInput: unknown): string {
  const view = describeToolInput(toolInput);
  let subject = view.kind === 'command' ? view.command : view.kind === 'file' ? view.path : '';
  subject = subject.trim().split('\n')[0];
  if (subject.length > 120) subject = subject.slice(0, 119) + '…';
  return subject === '' ? toolName : `${toolName}: ${subject}`;
}

// The assistants' tool uses waiting for a decision, from whichever client sees them; a
// "permission.resolved" (this page's decision, another client's, or a time-out) ends one.
export class ApprovalsStore extends Observable {
  private readonly requests = new Map<string, PermissionRequest>();
  private open = false;
  // The request the sheet shows first when it is up, if still waiting.
  private focus: string | null = null;

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

  // Brings the sheet up; with a request id, at that request.
  reveal(requestId?: string): void {
    this.open = true;
    if (requestId !== undefined) this.focus = requestId;
    this.changed();
  }

  // The request the sheet shows: the one asked for, else the oldest.
  shown(): PermissionRequest | undefined {
    return (this.focus !== null ? this.requests.get(this.focus) : undefined) ?? this.requests.values().next().value;
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
