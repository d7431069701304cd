import { lazy, Suspense } from 'preact/compat';
import { useMemo, useState } from 'preact/hooks';
import { useStores } from '../lib/use_store';
import { changeResult, isEnded, taskEnd, type Task } from '../stores/tasks_store';
import { proposalFileNames } from '../protocol/proposal_files';
import { Activity } from './Activity';
import { TaskError } from './BusyNote';
import { DetailsRow } from './DetailsRow';
import { approveLabel, FilesToApply } from './FilesToApply';
import { MarkdownView } from './MarkdownView';
import type { ProjectProps } from './ProjectView';
import { taskStatusText, useElapsed } from './TasksView';
import { TaskLog } from './TaskLog';

const ProposalReview = lazy(() => import('./ProposalReview'));

// Changes made by an assistant: a plan, or an edit that comes back as a proposal to
// review before it touches the project.
export function ChangesView({ state, agentId, projectPath }: ProjectProps) {
  useStores(state.tasks, state.navigation);
  // Codex works on a copy of the project and its change comes back as a proposal; Claude
  // would edit the project itself, so it is offered in Chat, where each tool use is
  // approved, and not here.
  const system = 'codex';
  const [mode, setMode] = useState<'apply' | 'plan'>('apply');
  const [prompt, setPrompt] = useState('');
  const [problem, setProblem] = useState('');
  const tasks = state.tasks.list((t) => t.agentId === agentId && t.projectPath === projectPath && t.kind === 'ai_task');
  const chosen = tasks.find((t) => t.taskId === state.navigation.place.taskId) ?? tasks[0];
  const submit = async (event: Event) => {
    event.preventDefault();
    setProblem('');
    try {
      const task = await state.tasks.run(agentId, {
        action: 'ai_task',
        system,
        mode,
        prompt: prompt.trim(),
        projectPath,
        approvalMode: 'on_request',
      });
      setPrompt('');
      state.navigation.go({ taskId: task.taskId });
    } catch (error) {
      setProblem(error instanceof Error ? error.message : String(error));
    }
  };
  return (
    <div class="changes-view">
      <form class="change-form card" onSubmit={submit}>
        <div class="form-row">
          <div class="segmented" role="radiogroup" aria-label="Mode">
            {(['apply', 'plan'] as const).map((name) => (
              <button
                type="button"
                key={name}
                role="radio"
                aria-checked={mode === name}
                class={mode === name ? 'current' : ''}
                onClick={() => setMode(name)}
              >
                {name === 'apply' ? 'Propose changes' : 'Plan only'}
              </button>
            ))}
          </div>
        </div>
        <p class="muted change-note">
          Codex works on a copy of the project: you review its changes before any is applied. Claude works in Chat, where you approve each
          tool use.
        </p>
        <textarea
          name="change-prompt"
          rows={3}
          placeholder="What should change?"
          value={prompt}
          onInput={(event) => setPrompt(event.currentTarget.value)}
        />
        <button type="submit" class="primary" disabled={prompt.trim() === ''}>
          Start
        </button>
        {problem && (
          <p class="error" role="alert">
            {problem}
          </p>
        )}
      </form>
      <div class="tasks-split">
        <ul class="task-history" aria-label="Change requests">
          {tasks.map((task) => (
            <li key={task.taskId}>
              <button
                class={'task-item ' + (taskEnd(task) ?? task.status) + (task === chosen ? ' current' : '')}
                onClick={() => state.navigation.go({ taskId: task.taskId })}
              >
                <span class="task-title">{task.title}</span>
                <span class="task-state">{taskStatusText(task)}</span>
              </button>
            </li>
          ))}
          {tasks.length === 0 && <li class="muted empty-note">Ask an assistant for a change; you review it before it is applied.</li>}
        </ul>
        {chosen && <ChangeDetail key={chosen.taskId} state={state} task={chosen} />}
      </div>
    </div>
  );
}

function ChangeDetail({ state, task }: { state: ProjectProps['state']; task: Task }) {
  const elapsed = useElapsed(task);
  const proposal = task.proposal;
  const ended = isEnded(task.status);
  const end = taskEnd(task);
  const commentary = proposal?.proposalCommentary || task.commentary;
  const result = changeResult(task);
  const deciding = proposal?.needsApproval && proposal.decision === undefined && task.status === 'awaiting_approval';
  // An agent that applies some files and not others lets the user untick files.
  const diff = proposal?.proposalDiff ?? '';
  const names = useMemo(() => (proposal?.fileChoice ? proposalFileNames(diff) : []), [proposal?.fileChoice, diff]);
  const [left, setLeft] = useState<string[]>([]);
  const choosing = deciding && names.length > 1;
  const approved = names.filter((name) => !left.includes(name));
  const partly = choosing && approved.length < names.length;
  return (
    <div class="task-detail change-detail" data-task={task.taskId}>
      <header class="task-head">
        <span class="task-title">{task.title}</span>
        <span class={'task-status ' + (end ?? task.status)}>{taskStatusText(task)}</span>
        {elapsed && <span class="muted task-duration">{elapsed}</span>}
        {task.status === 'queued' && (
          <button class="danger" onClick={() => state.tasks.cancel(task)}>
            Cancel
          </button>
        )}
      </header>
      {task.progress && !ended && !proposal && !commentary && !task.answer && <p class="progress-text">{task.progress.message}</p>}
      <Activity lines={task.activity} />
      {task.answer && <Answer text={task.answer} streaming={!ended} />}
      {commentary && <Answer text={commentary} streaming={!ended && !proposal} />}
      {proposal && (
        <section class="proposal">
          {!sayAlready(commentary, proposal.proposalSummary) && <p class="muted proposal-summary">{proposal.proposalSummary}</p>}
          {choosing && <FilesToApply names={names} left={left} onChange={setLeft} />}
          {deciding && (
            <div class="actions sticky-actions">
              <button class="danger" onClick={() => state.tasks.decide(task, false)}>
                Reject
              </button>
              {(!choosing || approved.length > 0) && (
                <button class="primary" onClick={() => state.tasks.decide(task, true, partly ? approved : undefined)}>
                  {choosing ? approveLabel(approved.length, names.length) : 'Approve'}
                </button>
              )}
            </div>
          )}
          {!proposal.needsApproval && <p class="note">Proposed only: this proposal is not applied from here.</p>}
          {proposal.decision && !ended && <p class="note decision">{proposal.decision === 'approve' ? 'Approved' : 'Rejected'}</p>}
          <Suspense fallback={<div class="loading">Loading the diff…</div>}>
            <ProposalReview diff={proposal.proposalDiff} />
          </Suspense>
        </section>
      )}
      {result && <p class="result">{result}</p>}
      {task.error && (end === null || end === 'failed') && <TaskError state={state} task={task} />}
      <DetailsRow key={task.taskId} lines={task.details} version={state.tasks.version} />
      {(task.log.length > 0 || (!proposal && !task.answer && !commentary)) && (
        <details class="change-log" open={!proposal && !task.answer && !commentary}>
          <summary>Output · {task.log.length === 1 ? '1 line' : `${task.log.length} lines`}</summary>
          <TaskLog log={task.log} version={state.tasks.version} ended={isEnded(task.status)} />
        </details>
      )}
    </div>
  );
}

// Whether `text` says `line` already (a summary is the first line of its commentary, cut
// short with "…" when long).
function sayAlready(text: string, line: string): boolean {
  const said = line.trim().replace(/…$/, '');
  return said === '' || text.includes(said);
}

// What an assistant said about a change or a plan, as Markdown.
function Answer({ text, streaming }: { text: string; streaming: boolean }) {
  const chunks = useMemo(() => [text], [text]);
  return (
    <div class="commentary">
      <MarkdownView chunks={chunks} streaming={streaming} />
    </div>
  );
}
