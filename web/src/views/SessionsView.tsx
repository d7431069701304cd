import type { RefObject } from 'preact';
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
import {
  kForkNote,
  kForkPlaceholder,
  kNoSessions,
  kPhoneResumeNote,
  kWatching,
  liveNote,
  liveText,
  messagesText,
  startedByText,
  whenText,
} from './session_words';

// How often the list is read again while a session held at the desk is watched: it says
// when the desk lets go of it.
const kLiveCheckMs = 10_000;

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
// before are among its turns), one still being written, and the last when it was refused.
function continuedHere(messages: ChatMessage[] | null, turns: SessionTurns | undefined): ChatMessage[] {
  if (!messages || !turns) return [];
  let from = messages.findIndex((m) => m.at >= turns.readAt || m.status === 'streaming');
  // A message the agent refused (the desk holds the session) is never among its turns.
  const last = messages.length - 1;
  if (from < 0 && last > 0 && messages[last].errorCode === 'SESSION_OPEN_AT_DESK') from = last;
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
  const composer = useRef<HTMLTextAreaElement>(null);
  const pinned = useRef(true);
  const live = session?.live ?? null;
  // Watched when the desk holds it, or when the user asked (the agent refused a message).
  const [watchAsked, setWatchAsked] = useState(false);
  const [forking, setForking] = useState(false);
  const wasLive = useRef(live !== null);
  useEffect(() => {
    // The desk let go of it: it goes on here again.
    if (wasLive.current && live === null) setWatchAsked(false);
    wasLive.current = live !== null;
  }, [live]);
  const watched = live !== null || watchAsked;
  // Read when shown and whenever the page or the agent comes back; a session held at the
  // desk is watched meanwhile (the agent forgets a watch when its connection goes), until
  // the pane closes, the tab changes or the page goes.
  useEffect(() => {
    if (!connected) return;
    if (!watched) {
      void state.sessions.open(agentId, tool, id);
      return;
    }
    void state.sessions.watch(agentId, tool, id);
    const stop = () => state.sessions.unwatch(agentId, tool, id);
    const check = setInterval(() => void state.sessions.refresh(agentId, projectPath), kLiveCheckMs);
    window.addEventListener('pagehide', stop);
    return () => {
      window.removeEventListener('pagehide', stop);
      clearInterval(check);
      stop();
    };
  }, [agentId, tool, id, connected, watched]);
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
  const last = continued[continued.length - 1];
  const refused = last?.role === 'assistant' && last.errorCode === 'SESSION_OPEN_AT_DESK';
  const earlier = () => {
    pinned.current = false;
    void state.sessions.earlier(agentId, tool, id);
  };
  const send = async (prompt: string) => {
    pinned.current = true;
    const chat = await state.conversations.continuing(agentId, projectPath, tool, id, session?.title ?? '');
    await state.conversations.send(chat.id, prompt);
  };
  // The copy is a chat of its own: its answer streams in Chat.
  const fork = async (prompt: string) => {
    const chat = state.conversations.fork(agentId, projectPath, tool, id);
    setForking(false);
    state.navigation.go({ tab: 'chat', conversationId: chat.id });
    await state.conversations.send(chat.id, prompt);
  };
  const startFork = () => {
    setForking(true);
    // Enabled only once drawn again.
    setTimeout(() => composer.current?.focus(), 0);
  };
  const forkButton = (prominent: boolean) => (
    <button class={(prominent ? 'primary' : 'secondary') + ' small fork-session'} disabled={!session || forking} onClick={startFork}>
      <Icon name="fork" /> Fork
    </button>
  );
  return (
    <div class="session-pane">
      <header class="conversation-head">
        <button class="icon back-to-list" aria-label="All sessions" onClick={() => state.navigation.go({ session: null })}>
          <Icon name="back" />
        </button>
        <span class="conversation-title">{session?.title || 'Untitled session'}</span>
        {turns?.watching && (
          <span class="watch-mark" title="New turns at the desk show here as they are written">
            {kWatching}
          </span>
        )}
        <span class={'system-tag ' + tool}>{kSystemNames[tool] ?? tool}</span>
        {live === null && session && forkButton(false)}
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
        {turns?.watchError && (
          <div class="error watch-error" role="alert">
            {turns.watchError}
          </div>
        )}
      </div>
      {refused && (
        <div class="refused-actions">
          <button class="secondary small fork-refused" disabled={!session || forking} onClick={startFork}>
            <Icon name="fork" /> Fork
          </button>
          <button
            class="secondary small watch-refused"
            disabled={turns?.watching}
            onClick={() => {
              setWatchAsked(true);
              void state.sessions.refresh(agentId, projectPath);
            }}
          >
            {turns?.watching ? kWatching : 'Watch'}
          </button>
        </div>
      )}
      {session && <HandBack session={session} />}
      {live !== null && (
        <div class="live-bar">
          <div class="note live-note" role="status">
            {liveNote(live)}
          </div>
          {forkButton(true)}
        </div>
      )}
      {forking && (
        <div class="note fork-note">
          <span>{kForkNote}</span>
          <button class="secondary small cancel-fork" onClick={() => setForking(false)}>
            Cancel
          </button>
        </div>
      )}
      <SessionComposer
        tool={tool}
        inputRef={composer}
        forking={forking}
        disabled={(live !== null && !forking) || !session}
        streaming={forking ? undefined : streaming}
        onSend={(prompt) => void (forking ? fork(prompt) : send(prompt))}
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
  inputRef,
  forking,
  disabled,
  streaming,
  onSend,
  onCancel,
}: {
  tool: string;
  inputRef: RefObject<HTMLTextAreaElement>;
  forking: boolean;
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
        ref={inputRef}
        aria-label={forking ? 'Message for the copy' : 'Message'}
        placeholder={forking ? kForkPlaceholder : `Continue with ${kSystemNames[tool] ?? tool}`}
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
