import { useState } from 'preact/hooks';
import type { AppState } from '../app_state';
import { useStores } from '../lib/use_store';
import { describeToolInput, type PermissionRequest } from '../stores/approvals_store';
import { fileCount, projectName } from './names';

// The assistants' requests to use a tool, over whatever the user is looking at, with the
// proposals that wait for a review below them.
export function ApprovalSheet({ state }: { state: AppState }) {
  useStores(state.approvals, state.tasks);
  const requests = state.approvals.pending();
  const proposals = state.tasks.awaitingApproval();
  if (!state.approvals.sheetOpen || requests.length + proposals.length === 0) return null;
  const request = requests[0];
  return (
    <div class="sheet-backdrop">
      <section class="sheet" role="dialog" aria-modal="true" aria-label="Waiting for your decision">
        <header class="sheet-head">
          <strong>{request ? 'Permission request' : 'Changes to review'}</strong>
          {requests.length > 1 && <span class="pill">1 of {requests.length}</span>}
          <button class="link" onClick={() => state.approvals.dismiss()}>
            Later
          </button>
        </header>
        {request && <RequestCard key={request.requestId} state={state} request={request} />}
        {proposals.map((task) => (
          <button
            key={task.taskId}
            class="proposal-link"
            onClick={() => {
              state.approvals.dismiss();
              state.navigation.go({ agentId: task.agentId, projectPath: task.projectPath || state.navigation.place.projectPath, tab: 'changes', taskId: task.taskId });
            }}
          >
            <span>Review proposed changes</span>
            <span class="muted">
              {fileCount(task.proposal!.proposalFiles.length)} · {projectName(task.projectPath) || task.agentId}
            </span>
          </button>
        ))}
      </section>
    </div>
  );
}

function RequestCard({ state, request }: { state: AppState; request: PermissionRequest }) {
  const [denying, setDenying] = useState(false);
  const [message, setMessage] = useState('');
  const input = describeToolInput(request.toolInput);
  const task = state.tasks.get(request.taskId);
  return (
    <div class="request" data-request={request.requestId}>
      <p class="request-what">
        <span class="tool-name">{request.toolName}</span>
        <span class="muted">
          {' '}
          on {request.agentId}
          {task?.title ? ` · ${task.title}` : ''}
        </span>
      </p>
      {input.kind === 'command' && (
        <div class="tool-input">
          {input.description && <p class="muted">{input.description}</p>}
          <pre class="command">
            <span class="prompt-sign">$ </span>
            {input.command}
          </pre>
        </div>
      )}
      {input.kind === 'file' && (
        <div class="tool-input">
          <p class="file-path">{input.path}</p>
          {input.content && <pre class="file-content">{input.content}</pre>}
        </div>
      )}
      {input.kind === 'json' && <pre class="tool-input json">{input.json}</pre>}
      {denying && (
        <label class="field">
          <span>Message for the assistant (optional)</span>
          <input name="deny-message" value={message} onInput={(event) => setMessage(event.currentTarget.value)} />
        </label>
      )}
      <div class="actions">
        {denying ? (
          <>
            <button class="link" onClick={() => setDenying(false)}>
              Back
            </button>
            <button class="danger" onClick={() => state.approvals.decide(request.requestId, false, message)}>
              Deny
            </button>
          </>
        ) : (
          <>
            <button class="secondary" onClick={() => setDenying(true)}>
              Deny…
            </button>
            <button class="primary" onClick={() => state.approvals.decide(request.requestId, true)}>
              Allow
            </button>
          </>
        )}
      </div>
    </div>
  );
}
