import { useState } from 'preact/hooks';
import type { AppState } from '../app_state';
import { useStores } from '../lib/use_store';
import { fold, showAllLabel } from '../lib/fold';
import { describeToolInput, type PermissionRequest, type ToolInputView } from '../stores/approvals_store';
import { fileCount, projectName } from './names';

// The assistants' requests to use a tool, over whatever the user is looking at, with the
// proposals that wait for a review below them.
export function ApprovalSheet({ state }: { state: AppState }) {
  useStores(state.approvals, state.tasks);
  const requests = state.approvals.pending();
  const proposals = state.tasks.awaitingApproval();
  if (!state.approvals.sheetOpen || requests.length + proposals.length === 0) return null;
  const request = state.approvals.shown();
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
              state.navigation.go({
                agentId: task.agentId,
                projectPath: task.projectPath || state.navigation.place.projectPath,
                tab: 'changes',
                taskId: task.taskId,
              });
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
      <ToolInput input={describeToolInput(request.toolInput)} />
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

// What the tool is asked to do, all of it: the command or the file first, then every other
// field of the input by name.
function ToolInput({ input }: { input: ToolInputView }) {
  if (input.kind === 'json') return <FoldedText class="tool-input json" text={input.json} />;
  return (
    <div class="tool-input">
      {input.kind === 'command' && (
        <>
          <FoldedText class="command" prefix={<span class="prompt-sign">$ </span>} text={input.command} />
          {input.description && <FoldedText tag="p" class="muted description" text={input.description} />}
        </>
      )}
      {input.kind === 'file' && (
        <>
          <FoldedText tag="p" class="file-path" text={input.path} />
          {input.content && <FoldedText class="file-content" text={input.content} />}
        </>
      )}
      {input.others.length > 0 && (
        <dl class="other-fields">
          {input.others.map((field) => (
            <div class="other-field" key={field.name}>
              <dt class="field-name">{field.name}</dt>
              <dd>
                <FoldedText class="field-value" text={field.json} />
              </dd>
            </div>
          ))}
        </dl>
      )}
    </div>
  );
}

// A value shown whole, or, when it is long, folded with a button that says how long it
// is and unfolds it.
function FoldedText({
  text,
  class: className,
  tag = 'pre',
  prefix,
}: {
  text: string;
  class: string;
  tag?: 'pre' | 'p';
  prefix?: preact.ComponentChildren;
}) {
  const [unfolded, setUnfolded] = useState(false);
  const folded = unfolded ? null : fold(text);
  const Tag = tag;
  return (
    <>
      <Tag class={className + (folded ? ' folded' : '')}>
        {prefix}
        {folded ? folded.head : text}
      </Tag>
      {folded && (
        <button class="link show-all" onClick={() => setUnfolded(true)}>
          {showAllLabel(folded)}
        </button>
      )}
    </>
  );
}
