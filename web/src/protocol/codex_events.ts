// The events `codex exec --json` prints, one JSON object a line, as they reach a task's
// log when Codex runs a plan: its messages make the answer, its commands and the tools it
// used are its activity, and what those printed is a detail. The agent hands on what it
// reads split at line breaks, so an event longer than one read comes in pieces; they are
// put together again here.
import type { TaskLogLine } from './task_log';

const kEventStart = '{"type":';
// An event still incomplete past this is taken for output that only looked like one.
const kMaxPending = 4 * 1024 * 1024;

type Json = Record<string, unknown>;

function isObject(value: unknown): value is Json {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

function text(value: unknown): string {
  return typeof value === 'string' ? value.trim() : '';
}

const kEventTypes = new Set([
  'thread.started',
  'turn.started',
  'turn.completed',
  'turn.failed',
  'item.started',
  'item.updated',
  'item.completed',
  'error',
]);

export class CodexEventReader {
  private pending = '';
  private messageId = '';
  private messageText = '';
  private text = '';

  // The answer so far: Codex's messages, each a paragraph of its own.
  get answer(): string {
    return this.text;
  }

  // What one line of the log means; null when it is no Codex event (nor the start or
  // the rest of one), so the caller takes it as it is.
  read(line: string): TaskLogLine[] | null {
    // The line break after an event.
    if (this.pending === '' && line === '') return [];
    const lines: TaskLogLine[] = [];
    if (this.pending !== '' && line.startsWith(kEventStart)) {
      // The piece held back was no event: a new one starts here.
      lines.push({ kind: 'output', text: this.pending });
      this.pending = '';
    }
    if (this.pending === '' && !line.startsWith(kEventStart)) return null;
    const candidate = this.pending + line;
    let value: unknown;
    try {
      value = JSON.parse(candidate);
    } catch {
      if (line !== '' && candidate.length < kMaxPending) {
        this.pending = candidate;
      } else {
        this.pending = '';
        lines.push({ kind: 'output', text: candidate });
      }
      return lines;
    }
    this.pending = '';
    if (!isObject(value) || !kEventTypes.has(value.type as string)) {
      lines.push({ kind: 'output', text: candidate });
      return lines;
    }
    this.readEvent(value, lines);
    return lines;
  }

  private readEvent(event: Json, lines: TaskLogLine[]): void {
    const item = isObject(event.item) ? event.item : {};
    switch (event.type) {
      case 'item.started':
      case 'item.updated':
        if (item.type === 'agent_message') this.message(item);
        else if (item.type === 'command_execution' && event.type === 'item.started' && text(item.command)) {
          lines.push({ kind: 'activity', tone: 'step', text: 'Ran ' + text(item.command) });
        }
        return;
      case 'item.completed':
        this.completed(item, lines);
        return;
      case 'turn.failed': {
        const error = isObject(event.error) ? text(event.error.message) : text(event.error);
        lines.push({ kind: 'activity', tone: 'problem', text: 'Codex stopped: ' + (error || 'unknown error') });
        return;
      }
      case 'error':
        lines.push({ kind: 'activity', tone: 'problem', text: 'Codex reported an error: ' + (text(event.message) || 'unknown error') });
        return;
      default:
        return;
    }
  }

  private completed(item: Json, lines: TaskLogLine[]): void {
    switch (item.type) {
      case 'agent_message':
        this.message(item);
        return;
      case 'command_execution': {
        const output = text(item.aggregated_output);
        if (output) lines.push({ kind: 'detail', text: `$ ${text(item.command)}\n${output}` });
        if (typeof item.exit_code === 'number' && item.exit_code !== 0) {
          lines.push({ kind: 'activity', tone: 'problem', text: `${text(item.command)} exited with status ${item.exit_code}` });
        }
        return;
      }
      case 'file_change': {
        const changes = Array.isArray(item.changes)
          ? item.changes
              .filter(isObject)
              .map((change) => text(change.path))
              .filter(Boolean)
          : [];
        if (changes.length > 0) lines.push({ kind: 'activity', tone: 'step', text: 'Changed ' + changes.join(', ') });
        return;
      }
      case 'mcp_tool_call': {
        const tool = [text(item.server), text(item.tool)].filter(Boolean).join(' ');
        if (tool) lines.push({ kind: 'activity', tone: item.status === 'failed' ? 'problem' : 'step', text: 'Used ' + tool });
        return;
      }
      case 'web_search':
        if (text(item.query)) lines.push({ kind: 'activity', tone: 'step', text: 'Searched the web for ' + text(item.query) });
        return;
      case 'reasoning':
        if (text(item.text)) lines.push({ kind: 'detail', text: text(item.text) });
        return;
      case 'error':
        lines.push({ kind: 'activity', tone: 'problem', text: 'Codex reported an error: ' + (text(item.message) || 'unknown error') });
        return;
      default:
        return;
    }
  }

  // A message, or more of the one being written: the answer grows in place.
  private message(item: Json): void {
    const body = text(item.text);
    if (body === '') return;
    const id = typeof item.id === 'string' ? item.id : '';
    if (id !== '' && id === this.messageId) {
      if (body.length > this.messageText.length && body.startsWith(this.messageText)) {
        this.text += body.slice(this.messageText.length);
        this.messageText = body;
      }
      return;
    }
    this.messageId = id;
    this.messageText = body;
    this.text += (this.text === '' ? '' : '\n\n') + body;
  }
}
