// What an agent keeps of its tasks on the computer, as the page asks for it: the lines of
// a task's output ("task.output.read" answered by "task.output") and the tasks it keeps
// ("tasks.list" answered by "tasks.kept"). A line's number counts the task's output from 1.

// What to read: `count` lines from line `from` on, or the newest `count` without `from`;
// with `match`, the first `count` lines from `from` on that contain it (any case).
export interface OutputQuery {
  from?: number;
  count: number;
  match?: string;
}

// Lines read: from line `from` on, or, for a search, the lines numbered `numbers`.
// `total` is how many lines the task has kept so far, `ended` whether no more will come.
export interface OutputLines {
  from?: number;
  numbers?: number[];
  lines: string[];
  total: number;
  ended: boolean;
}

export type KeptStatus = 'running' | 'finished' | 'failed' | 'cancelled' | 'lost';

// A task the agent keeps the output of. Times are in ms since 1970 by the agent's clock.
export interface KeptTask {
  taskId: string;
  kind: string; // the task's action
  projectPath: string;
  status: KeptStatus;
  exitCode?: number;
  startedAt?: number;
  endedAt?: number;
  lines: number;
  conversationId?: string;
  timedOut?: true; // cancelled at its time limit
}

// The most lines one read may ask for.
export const kReadLimit = 10_000;

export function isLineNumber(value: unknown): value is number {
  return typeof value === 'number' && Number.isSafeInteger(value) && value >= 1;
}

function isCount(value: unknown): value is number {
  return typeof value === 'number' && Number.isSafeInteger(value) && value >= 0;
}

// Checks a "task.output" and puts its members in their kinds ("ended" false when absent);
// false when it is neither lines nor an error.
export function decodeTaskOutput(message: Record<string, unknown>): boolean {
  if (typeof message.error === 'string') return true;
  const { lines, total, from, numbers } = message;
  if (!Array.isArray(lines) || !lines.every((line) => typeof line === 'string') || !isCount(total)) return false;
  if (numbers !== undefined) {
    if (!Array.isArray(numbers) || numbers.length !== lines.length || !numbers.every(isLineNumber)) return false;
  } else if (!isLineNumber(from)) {
    return false;
  }
  message.ended = message.ended === true;
  return true;
}

const kKeptStatuses: readonly string[] = ['running', 'finished', 'failed', 'cancelled', 'lost'];

function isTime(value: unknown): value is number {
  return typeof value === 'number' && Number.isFinite(value) && value > 0;
}

// The kept tasks with what is malformed in them left out.
export function decodeKeptTasks(value: unknown): KeptTask[] {
  if (!Array.isArray(value)) return [];
  const tasks: KeptTask[] = [];
  for (const raw of value) {
    if (typeof raw !== 'object' || raw === null || Array.isArray(raw)) continue;
    const { taskId, kind, projectPath, status, exitCode, startedAt, endedAt, lines, conversationId, timedOut } = raw as Record<
      string,
      unknown
    >;
    if (typeof taskId !== 'string' || typeof status !== 'string' || !kKeptStatuses.includes(status)) continue;
    const task: KeptTask = {
      taskId,
      kind: typeof kind === 'string' ? kind : '',
      projectPath: typeof projectPath === 'string' ? projectPath : '',
      status: status as KeptStatus,
      lines: isCount(lines) ? lines : 0,
    };
    if (typeof exitCode === 'number') task.exitCode = exitCode;
    if (isTime(startedAt)) task.startedAt = startedAt;
    if (isTime(endedAt)) task.endedAt = endedAt;
    if (typeof conversationId === 'string') task.conversationId = conversationId;
    if (timedOut === true && status === 'cancelled') task.timedOut = true;
    tasks.push(task);
  }
  return tasks;
}
