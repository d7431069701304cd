import type { AppState } from '../app_state';
import { useStores } from '../lib/use_store';
import type { InboxEntry } from '../stores/inbox_store';
import { fileCount, projectName } from './names';
import { NotifyMe } from './NotifyMe';

const kKindTexts: Record<InboxEntry['kind'], string> = {
  approval: 'Approval needed',
  proposal: 'Changes to review',
  failed: 'Task failed',
  answer: 'New answer',
};

export const kInboxEmpty = 'Nothing needs you right now.';
export const kInboxEmptyNote = 'Approvals, changes to review, failed tasks and new answers from every machine show up here.';

// "Needs you": what waits for the user on every machine and in every project, each entry
// opening its card; below, the notifications that reach this device when the page is closed.
export function InboxView({ state }: { state: AppState }) {
  useStores(state.inbox);
  const entries = state.inbox.entries();
  return (
    <div class="inbox-view">
      <h2 class="section-title">Needs you</h2>
      {entries.length === 0 ? (
        <div class="inbox-empty card">
          <strong>{kInboxEmpty}</strong>
          <span class="muted">{kInboxEmptyNote}</span>
        </div>
      ) : (
        <ul class="inbox-list">
          {entries.map((entry) => (
            <li key={entry.key}>
              <InboxItem state={state} entry={entry} />
            </li>
          ))}
        </ul>
      )}
      <NotifyMe state={state} />
    </div>
  );
}

function what(entry: InboxEntry): string {
  switch (entry.kind) {
    case 'approval':
      return entry.tool;
    case 'proposal':
      return `${entry.title} · ${fileCount(entry.files)}`;
    case 'failed':
      return entry.error === '' ? entry.title : `${entry.title} · ${entry.error}`;
    case 'answer':
      return entry.title;
  }
}

function InboxItem({ state, entry }: { state: AppState; entry: InboxEntry }) {
  const where = entry.projectPath === '' ? entry.agentId : `${projectName(entry.projectPath)} on ${entry.agentId}`;
  const open = () =>
    entry.kind === 'approval'
      ? state.open({ kind: 'approval', requestId: entry.requestId })
      : state.open({ kind: entry.kind, agentId: entry.agentId, projectPath: entry.projectPath, taskId: entry.taskId });
  return (
    <button class={'inbox-item card ' + entry.kind} data-entry={entry.key} onClick={open}>
      <span class="inbox-kind">{kKindTexts[entry.kind]}</span>
      <span class="inbox-what">{what(entry)}</span>
      <span class="inbox-where muted">{where}</span>
    </button>
  );
}
