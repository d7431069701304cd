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
  return (
    <BusyNote state={state} agentId={task.agentId} except={task.taskId} after=". Run this again once it has ended.">
      The agent was busy with another task. Run this again once it has ended.
    </BusyNote>
  );
}

// A task the relay refused because the agent's queue is full.
export function QueueFullNote({ state, agentId }: { state: AppState; agentId: string }) {
  return (
    <BusyNote state={state} agentId={agentId} after=" and its queue is full. Run this again once a waiting task has started.">
      The agent's queue is full. Run this again once a waiting task has started.
    </BusyNote>
  );
}

// "The agent is busy with “TITLE”" and what follows, with "Show it" leading to that task;
// `children` when the page knows of nothing the agent runs.
function BusyNote({
  state,
  agentId,
  except,
  after,
  children,
}: {
  state: AppState;
  agentId: string;
  except?: string;
  after: string;
  children: string;
}) {
  const running = state.tasks.list((t) => t.agentId === agentId && t.taskId !== except && t.status !== 'queued' && !isEnded(t.status))[0];
  if (!running) {
    return (
      <p class="error busy-note" role="alert">
        {children}
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
      The agent is busy with “{running.title}”{after}{' '}
      <button type="button" class="link show-busy" onClick={show}>
        Show it
      </button>
    </p>
  );
}
