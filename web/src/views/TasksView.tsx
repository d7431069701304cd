import { useEffect, useState } from 'preact/hooks';
import { useStores } from '../lib/use_store';
import { RelayError } from '../protocol/relay_client';
import { isEnded, runTime, taskEnd, type Task } from '../stores/tasks_store';
import { QueueFullNote, TaskError } from './BusyNote';
import { DetailsRow } from './DetailsRow';
import { duration, queuedText } from './names';
import type { ProjectProps } from './ProjectView';
import { TaskLog } from './TaskLog';
import { WholeOutput } from './WholeOutput';

// The words a task's state is shown with.
export function taskStatusText(task: Task): string {
  switch (task.status) {
    case 'queued':
      return queuedText(task.place);
    case 'starting':
      return 'Starting…';
    case 'running':
      return 'Running…';
    case 'awaiting_approval':
      return 'Waiting for your review';
  }
  switch (taskEnd(task)) {
    case 'finished':
      return 'Finished';
    case 'cancelled':
      return 'Cancelled';
    case 'timed_out':
      return 'Timed out';
    case 'rejected':
      return 'Rejected';
    case 'lost':
      return 'Ended unseen: the agent no longer knew it';
    default:
      return task.exitCode === undefined ? 'Failed' : 'Failed · exit ' + task.exitCode;
  }
}

// The time a task took, or has taken so far; nothing when the page did not see it.
export function useElapsed(task: Task | undefined): string {
  const [, setNow] = useState(0);
  const running = task !== undefined && !isEnded(task.status);
  useEffect(() => {
    if (!running) return;
    const timer = setInterval(() => setNow(Date.now()), 1000);
    return () => clearInterval(timer);
  }, [running]);
  const ms = task ? runTime(task, Date.now()) : null;
  return ms === null ? '' : duration(ms);
}

// Shell commands and builds in the project: a form to run one, their history in this
// session, and the output of the one chosen.
export function TasksView({ state, agentId, projectPath }: ProjectProps) {
  useStores(state.tasks, state.navigation, state.agents);
  const [command, setCommand] = useState('');
  const [problem, setProblem] = useState<RelayError | Error | null>(null);
  const tasks = state.tasks.list(
    (t) => t.agentId === agentId && t.projectPath === projectPath && (t.kind === 'shell' || t.kind === 'build'),
  );
  const chosenId = state.navigation.place.taskId;
  const chosen = tasks.find((t) => t.taskId === chosenId) ?? tasks[0];
  const actions = state.agents.get(agentId)?.registration?.actions ?? [];
  const run = async (payload: { action: string; command?: string }) => {
    setProblem(null);
    try {
      const task = await state.tasks.run(agentId, { ...payload, projectPath });
      state.navigation.go({ taskId: task.taskId });
    } catch (error) {
      setProblem(error instanceof Error ? error : new Error(String(error)));
    }
  };
  return (
    <div class="tasks-view">
      <form
        class="run-form"
        onSubmit={(event) => {
          event.preventDefault();
          if (command.trim() !== '') void run({ action: 'shell', command: command.trim() });
        }}
      >
        <input
          name="command"
          class="mono"
          placeholder="Shell command, e.g. make test"
          autocapitalize="off"
          spellcheck={false}
          value={command}
          onInput={(event) => setCommand(event.currentTarget.value)}
        />
        <button type="submit" class="primary" disabled={command.trim() === ''}>
          Run
        </button>
        {actions.length > 0 && (
          <button type="button" class="secondary" onClick={() => void run({ action: actions[0] })}>
            Build
          </button>
        )}
      </form>
      {problem instanceof RelayError && problem.code === 'QUEUE_FULL' ? (
        <QueueFullNote state={state} agentId={agentId} />
      ) : (
        problem && (
          <p class="error" role="alert">
            {problem.message}
          </p>
        )
      )}
      <div class="tasks-split">
        <ul class="task-history" aria-label="Tasks">
          {tasks.map((task) => (
            <li key={task.taskId}>
              <button
                class={'task-item ' + (taskEnd(task) ?? task.status) + (task === chosen ? ' current' : '')}
                onClick={() => state.navigation.go({ taskId: task.taskId })}
              >
                <span class="task-title mono">{task.title}</span>
                <span class="task-state">{taskStatusText(task)}</span>
              </button>
            </li>
          ))}
          {tasks.length === 0 && <li class="muted empty-note">Tasks you run here are listed for this session.</li>}
        </ul>
        {chosen && (
          <TaskDetail
            state={state}
            task={chosen}
            rerun={() => void run({ action: chosen.payload?.action ?? 'shell', command: chosen.payload?.command })}
          />
        )}
      </div>
    </div>
  );
}

function TaskDetail({ state, task, rerun }: { state: ProjectProps['state']; task: Task; rerun: () => void }) {
  const elapsed = useElapsed(task);
  const ended = isEnded(task.status);
  return (
    <div class="task-detail" data-task={task.taskId}>
      <header class="task-head">
        <span class="task-title mono">{task.title}</span>
        <span class={'task-status ' + (taskEnd(task) ?? task.status)}>{taskStatusText(task)}</span>
        {elapsed && <span class="muted task-duration">{elapsed}</span>}
        {ended ? (
          task.payload && (
            <button class="secondary" onClick={rerun}>
              Run again
            </button>
          )
        ) : (
          <button class="danger" onClick={() => state.tasks.cancel(task)}>
            Cancel
          </button>
        )}
      </header>
      {task.error && <TaskError state={state} task={task} />}
      <DetailsRow key={task.taskId} lines={task.details} version={state.tasks.version} />
      {task.output ? (
        <WholeOutput key={task.taskId} tasks={state.tasks} task={task} />
      ) : (
        <TaskLog log={task.log} version={state.tasks.version} ended={isEnded(task.status)} />
      )}
    </div>
  );
}
