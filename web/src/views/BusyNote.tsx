import type { AppState } from '../app_state';
import { isEnded, type Task } from '../stores/tasks_store';

// Where a task that the agent refused as busy says what it is busy with, and offers a
// way there; other errors as they are.
export function TaskError({ state, task }: { state: AppState; task: Task }) {
  if (task.errorCode !== 'AGENT_BUSY') {
    return (
      <p class="error" role="alert">
        {task.error}
      </p>
    );
  }
  const running = state.tasks.list((t) => t.agentId === task.agentId && t.taskId !== task.taskId && !isEnded(t.status))[0];
  if (!running) {
    return (
      <p class="error busy-note" role="alert">
        The agent was busy with another task. Run this again once it has ended.
      </p>
    );
  }
  const show = () => {
    const tab = running.kind === 'chat' ? 'chat' : running.kind === 'ai_task' ? 'changes' : 'tasks';
    const conversationId = running.kind === 'chat' ? (running.payload?.conversationId ?? null) : null;
    state.navigation.go({ agentId: running.agentId, projectPath: running.projectPath, tab, taskId: running.taskId, conversationId });
  };
  return (
    <p class="error busy-note" role="alert">
      The agent is busy with “{running.title}”. Run this again once it has ended.{' '}
      <button type="button" class="link show-busy" onClick={show}>
        Show it
      </button>
    </p>
  );
}
