// The tasks an agent keeps, merged into what the page knows: a task the page never saw (it
// ran before a reload, or before the relay restarted) is listed as the agent has it, and
// the agent's times win over the ones the page guessed from when messages reached it.
import type { KeptTask } from '../protocol/kept_output';
import type { TaskPayload } from '../protocol/messages';

// What of a task the agent's list speaks of.
interface Merged {
  status: string;
  exitCode?: number;
  startedAt?: number;
  endedAt?: number;
  conversationId?: string;
  timedOut?: boolean;
}

const kEnded: readonly string[] = ['finished', 'failed', 'cancelled', 'lost'];

// The payload a task is described with when the page does not have the one it was asked
// with: its action alone; none for a task whose action nobody said.
export function payloadOfKind(kind: string): TaskPayload | null {
  return kind === '' ? null : { action: kind };
}

// Takes what the agent says of a task. The status is taken when the page knew nothing of
// the task, or had not seen it end while the agent says it has (`endSeen`: the page saw
// its end message, which it keeps).
export function mergeKept<T extends Merged>(task: T, kept: KeptTask, known: boolean, endSeen: boolean): void {
  if (kept.startedAt !== undefined) task.startedAt = kept.startedAt;
  if (kept.endedAt !== undefined) task.endedAt = kept.endedAt;
  if (kept.conversationId !== undefined) task.conversationId = kept.conversationId;
  if (kept.timedOut) task.timedOut = true;
  const pageEnded = kEnded.includes(task.status);
  const take = !known || (!endSeen && !pageEnded && (kEnded.includes(kept.status) || task.status === 'starting'));
  if (!take) return;
  task.status = kept.status;
  if (kept.exitCode !== undefined) task.exitCode = kept.exitCode;
}

// Puts tasks (by id, oldest first) in the order they started: those whose start is known
// are put in order among themselves, in the places such tasks had; the others stay.
export function putInStartOrder<T extends { startedAt?: number }>(tasks: Map<string, T>): void {
  const entries = [...tasks];
  const places = entries.flatMap(([, task], index) => (task.startedAt === undefined ? [] : [index]));
  const started = places.map((index) => entries[index]).sort(([, a], [, b]) => a.startedAt! - b.startedAt!);
  places.forEach((place, i) => (entries[place] = started[i]));
  tasks.clear();
  for (const [id, task] of entries) tasks.set(id, task);
}
