import type { AgentSnapshot } from '../protocol/messages';
import type { Task, TaskStatus } from './tasks_store';

// Gives each task of the agent its place in the relay's queue (1 goes next), and none to
// those that do not wait.
export function placeInQueue(tasks: Iterable<Task>, agentId: string, waiting: string[]): void {
  for (const task of tasks) {
    if (task.agentId !== agentId) continue;
    const at = waiting.indexOf(task.taskId);
    task.place = at < 0 ? undefined : at + 1;
  }
}

// How a task the page thought waiting is when the relay's queue does not name it: as its
// tasks say (it went to the agent, or ended waiting), or ended unseen when they do not name
// it either; nothing while it still waits.
export function statusAfterQueue(snapshot: AgentSnapshot, taskId: string): { status: TaskStatus; exitCode?: number } | null {
  if (snapshot.queue.some((entry) => entry.taskId === taskId)) return null;
  const entry = snapshot.tasks.find((task) => task.taskId === taskId);
  return entry ? { status: entry.status, exitCode: entry.exitCode } : { status: 'lost' };
}
