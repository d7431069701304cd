import { useEffect, useLayoutEffect, useRef, useState } from 'preact/hooks';
import { toClipboard } from '../lib/clipboard';
import { useStores } from '../lib/use_store';
import type { DeskSession, SessionItem } from '../protocol/desk_sessions';
import type { ChatMessage } from '../stores/conversations_store';
import type { SessionTurns } from '../stores/desk_sessions_store';
import { kSystemNames, MessageView } from './ChatView';
import { Icon } from './icons';
import { MarkdownView } from './MarkdownView';
import type { ProjectProps } from './ProjectView';
import { kNoSessions, kPhoneResumeNote, liveNote, liveText, messagesText, startedByText, whenText } from './session_words';

// The assistants' own sessions of the project, found on the computer (those started at
// the desk among them), and the open one: its turns, a way to go on with it here, and the
// command that goes on with it at the desk.
export function SessionsView({ state, agentId, projectPath }: ProjectProps) {
  useStores(state.sessions, state.navigation, state.connection, state.agents);
  const open = state.navigation.place.session;
  // Asked when the view is shown, and again whenever the page or the agent comes back.
  const connected = state.connection.state === 'open' && state.agents.get(agentId)?.online === true;
  useEffect(() => {
    if (connected) void state.sessions.refresh(agentId, projectPath);
  }, [agentId, projectPath, connected]);
  return (
    <div class={'sessions-view' + (open ? ' has-open' : '')}>
      <SessionList state={state} agentId={agentId} projectPath={projectPath} />
      {open ? (
        <SessionPane
          key={open.tool + ' ' + open.id}
          state={state}
          agentId={agentId}
          projectPath={projectPath}
          tool={open.tool}
          id={open.id}
        />
      ) : (
        <div class="empty">Pick up a claude or codex session started at the desk.</div>
      )}
    </div>
  );
}

function SessionList({ state, agentId, projectPath }: ProjectProps) {
  const list = state.sessions.list(agentId, projectPath);
  const open = state.navigation.place.session;
  const sessions = list?.sessions ?? null;
  const now = Date.now();
  return (
    <div class="session-list">
      <div class="session-list-head">
        <h2>Sessions</h2>
        <button
          class="secondary small refresh-sessions"
          disabled={list?.loading}
          onClick={() => void state.sessions.refresh(agentId, projectPath)}
        >
          Refresh
        </button>
      </div>
      {list?.error && (
        <div class="error" role="alert">
          {list.error}
        </div>
      )}
      {sessions === null && list?.loading !== false && <div class="loading">Loading…</div>}
      {sessions !== null && (
        <ul>
          {sessions.map((session) => (
            <li key={session.tool + session.id}>
              <SessionRow
                session={session}
                now={now}
                current={open?.tool === session.tool && open.id === session.id}
                onOpen={() => state.navigation.go({ session: { tool: session.tool, id: session.id } })}
              />
            </li>
          ))}
          {sessions.length === 0 && <li class="muted empty-note">{kNoSessions}</li>}
        </ul>
      )}
    </div>
  );
}

function SessionRow({ session, now, current, onOpen }: { session: DeskSession; now: number; current: boolean; onOpen: () => void }) {
  return (
    <button class={'session-item' + (current ? ' current' : '')} onClick={onOpen}>
      <span class="session-item-top">
        <span class={'system-tag ' + session.tool}>{kSystemNames[session.tool]}</span>
        <span class="session-title">{session.title || 'Untitled session'}</span>
      </span>
      <span class="session-meta">
        <time class="session-when" dateTime={session.updatedAt} title={new Date(session.updatedAt).toLocaleString()}>
          {whenText(session.updatedAt, now)}
        </time>
        <span class="session-count">{messagesText(session.messages)}</span>
        <span class="session-origin">{startedByText(session)}</span>
        {session.live !== null && <LiveMark session={session} />}
      </span>
    </button>
  );
}

function LiveMark({ session }: { session: DeskSession }) {
  return (
    <span class="live-mark">
      <span class="live-label">Live</span> <span class="live-state">{liveText(session.live)}</span>
    </span>
  );
}

// The answers of the chats sent from this page since the session's turns were read (those
// before are among its turns), and one still being written.
function continuedHere(messages: ChatMessage[] | null, turns: SessionTurns | undefined): ChatMessage[] {
  if (!messages || !turns) return [];
  let from = messages.findIndex((m) => m.at >= turns.readAt || m.status === 'streaming');
  if (from < 0) return [];
  if (messages[from].role === 'assistant' && from > 0) from--;
  return messages.slice(from);
}

function SessionPane({ state, agentId, projectPath, tool, id }: ProjectProps & { tool: string; id: string }) {
  useStores(state.conversations, state.connection, state.agents);
  const connected = state.connection.state === 'open' && state.agents.get(agentId)?.online === true;
  const turns = state.sessions.history(agentId, tool, id);
  const session = state.sessions.find(agentId, projectPath, tool, id);
  // The chats of the project, so that one going on with this session is found after a reload.
  state.conversations.list(agentId, projectPath);
  const conversation = state.conversations.get(id);
  const scroller = useRef<HTMLDivElement>(null);
  const pinned = useRef(true);
  useEffect(() => {
    if (connected) void state.sessions.open(agentId, tool, id);
  }, [agentId, tool, id, connected]);
  useEffect(() => {
    if (conversation && conversation.messages === null) void state.conversations.open(conversation.id);
  }, [conversation?.id]);
  useLayoutEffect(() => {
    const element = scroller.current;
    if (element && pinned.current) element.scrollTop = element.scrollHeight;
  });
  const continued = continuedHere(conversation?.messages ?? null, turns);
  const streaming = continued.find((m) => m.status === 'streaming');
  // A message that failed may have been refused because the desk took the session up
  // meanwhile: the list says whether it is held now.
  const failed = continued.filter((m) => m.role === 'assistant' && m.status === 'error').length;
  useEffect(() => {
    if (failed > 0) void state.sessions.refresh(agentId, projectPath);
  }, [failed]);
  const live = session?.live ?? null;
  const earlier = () => {
    pinned.current = false;
    void state.sessions.earlier(agentId, tool, id);
  };
  const send = async (prompt: string) => {
    pinned.current = true;
    const chat = await state.conversations.continuing(agentId, projectPath, tool, id, session?.title ?? '');
    await state.conversations.send(chat.id, prompt);
  };
  return (
    <div class="session-pane">
      <header class="conversation-head">
        <button class="icon back-to-list" aria-label="All sessions" onClick={() => state.navigation.go({ session: null })}>
          <Icon name="back" />
        </button>
        <span class="conversation-title">{session?.title || 'Untitled session'}</span>
        <span class={'system-tag ' + tool}>{kSystemNames[tool] ?? tool}</span>
      </header>
      <div
        class="messages session-turns"
        ref={scroller}
        onScroll={(event) => {
          const element = event.currentTarget;
          pinned.current = element.scrollHeight - element.scrollTop - element.clientHeight < 40;
        }}
      >
        {turns && turns.first > 0 && !turns.loading && (
          <button class="secondary small earlier-turns" disabled={turns.loadingEarlier} onClick={earlier}>
            {turns.loadingEarlier ? 'Loading…' : 'Earlier'}
          </button>
        )}
        {(!turns || (turns.loading && turns.items.length === 0)) && <div class="loading">Loading…</div>}
        {turns?.error && (
          <div class="error" role="alert">
            {turns.error}
          </div>
        )}
        {turns?.items.map((item, index) => (
          <Turn key={turns.first + index} item={item} />
        ))}
        {continued.map((message) => (
          <MessageView key={'here' + message.index} state={state} message={message} onCancel={() => state.conversations.cancel(message)} />
        ))}
      </div>
      {session && <HandBack session={session} />}
      {live !== null && (
        <div class="note live-note" role="status">
          {liveNote(live)}
        </div>
      )}
      <SessionComposer
        tool={tool}
        disabled={live !== null || !session}
        streaming={streaming}
        onSend={(prompt) => void send(prompt)}
        onCancel={() => streaming && state.conversations.cancel(streaming)}
      />
    </div>
  );
}

// One turn of the session as the assistant keeps it: the user's words, the answer in
// Markdown, a tool use on one line, its result folded away.
function Turn({ item }: { item: SessionItem }) {
  switch (item.kind) {
    case 'user':
      return (
        <div class="message user">
          <div class="bubble">{item.text}</div>
        </div>
      );
    case 'assistant':
      return (
        <div class="message assistant done">
          <MarkdownView chunks={[item.text]} streaming={false} />
        </div>
      );
    case 'tool_use':
      return (
        <div class="message turn-tool">
          <span class="tool-name">{item.name ?? 'tool'}:</span> <span class="tool-input">{item.text}</span>
        </div>
      );
    case 'tool_result':
      return (
        <details class={'message turn-result' + (item.isError ? ' failed' : '')}>
          <summary>{item.isError ? 'Tool failed' : 'Tool result'}</summary>
          <pre>{item.text}</pre>
        </details>
      );
  }
}

// The command that goes on with the session at the desk, and a way to copy it.
function HandBack({ session }: { session: DeskSession }) {
  const [copied, setCopied] = useState<'' | 'Copied' | 'Could not copy'>('');
  useEffect(() => {
    if (copied === '') return;
    const timer = setTimeout(() => setCopied(''), 2500);
    return () => clearTimeout(timer);
  }, [copied]);
  if (session.resumeCommand === '') return null;
  const copy = () =>
    toClipboard(session.resumeCommand).then(
      () => setCopied('Copied'),
      () => setCopied('Could not copy'),
    );
  return (
    <div class="hand-back">
      <div class="hand-back-row">
        {/* Focusable, so that a keyboard can scroll a command wider than the pane. */}
        <code class="resume-command" tabIndex={0}>
          {session.resumeCommand}
        </code>
        <button class="secondary small copy-command" onClick={() => void copy()}>
          {copied || 'Copy'}
        </button>
      </div>
      {session.startedBy === 'phone' && session.tool === 'claude' && <div class="note phone-note">{kPhoneResumeNote}</div>}
    </div>
  );
}

function SessionComposer({
  tool,
  disabled,
  streaming,
  onSend,
  onCancel,
}: {
  tool: string;
  disabled: boolean;
  streaming: ChatMessage | undefined;
  onSend: (prompt: string) => void;
  onCancel: () => void;
}) {
  const [draft, setDraft] = useState('');
  const send = (event?: Event) => {
    event?.preventDefault();
    const prompt = draft.trim();
    if (prompt === '' || streaming || disabled) return;
    setDraft('');
    onSend(prompt);
  };
  return (
    <form class="composer" onSubmit={send}>
      <textarea
        name="prompt"
        rows={1}
        aria-label="Message"
        placeholder={`Continue with ${kSystemNames[tool] ?? tool}`}
        disabled={disabled}
        value={draft}
        onInput={(event) => setDraft(event.currentTarget.value)}
        onKeyDown={(event) => {
          if (event.key === 'Enter' && (event.metaKey || event.ctrlKey)) send(event);
        }}
      />
      {streaming ? (
        <button type="button" class="danger" onClick={onCancel}>
          <Icon name="stop" /> Cancel
        </button>
      ) : (
        <button type="submit" class="primary" disabled={disabled || draft.trim() === ''}>
          <Icon name="send" /> Send
        </button>
      )}
    </form>
  );
}
