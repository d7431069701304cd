import { useEffect, useLayoutEffect, useRef, useState } from 'preact/hooks';
import { useStores } from '../lib/use_store';
import type { ChatMessage, Conversation } from '../stores/conversations_store';
import { kSystems } from '../stores/conversations_store';
import { kMissedOutputNotice } from '../stores/tasks_store';
import { Activity } from './Activity';
import { DetailsRow } from './DetailsRow';
import { Icon } from './icons';
import { MarkdownView } from './MarkdownView';
import { queuedText } from './names';
import type { ProjectProps } from './ProjectView';

export const kSystemNames: Record<string, string> = { claude: 'Claude', codex: 'Codex' };

// Chats with the assistants in one project: the conversations kept in this browser, and
// the open one with its answer streaming in.
export function ChatView({ state, agentId, projectPath }: ProjectProps) {
  useStores(state.conversations, state.navigation);
  const [system, setSystem] = useState<string>('claude');
  const conversations = state.conversations.list(agentId, projectPath);
  const openId = state.navigation.place.conversationId;
  const open = openId ? state.conversations.get(openId) : undefined;
  useEffect(() => {
    if (open && open.messages === null) void state.conversations.open(open.id);
  }, [open?.id]);
  const startNew = () => {
    const conversation = state.conversations.start(agentId, projectPath, system);
    state.navigation.go({ conversationId: conversation.id });
  };
  return (
    <div class={'chat-view' + (open ? ' has-open' : '')}>
      <div class="conversation-list">
        <div class="new-chat">
          <div class="segmented" role="radiogroup" aria-label="Assistant">
            {kSystems.map((name) => (
              <button
                key={name}
                role="radio"
                aria-checked={system === name}
                class={system === name ? 'current' : ''}
                onClick={() => setSystem(name)}
              >
                {kSystemNames[name]}
              </button>
            ))}
          </div>
          <button class="primary new-chat-button" onClick={startNew}>
            <Icon name="plus" /> New chat
          </button>
        </div>
        <ul>
          {conversations.map((conversation) => (
            <li key={conversation.id}>
              <button
                class={'conversation-item' + (conversation.id === openId ? ' current' : '')}
                onClick={() => state.navigation.go({ conversationId: conversation.id })}
              >
                <span class="conversation-title">{conversation.title}</span>
                <span class={'system-tag ' + conversation.system}>{kSystemNames[conversation.system] ?? conversation.system}</span>
              </button>
            </li>
          ))}
          {conversations.length === 0 && <li class="muted empty-note">No chats in this project yet.</li>}
        </ul>
      </div>
      {open ? (
        <ConversationPane state={state} conversation={open} onBack={() => state.navigation.go({ conversationId: null })} />
      ) : (
        <div class="empty">Start a chat with Claude or Codex about this project.</div>
      )}
    </div>
  );
}

function ConversationPane({
  state,
  conversation,
  onBack,
}: {
  state: ProjectProps['state'];
  conversation: Conversation;
  onBack: () => void;
}) {
  const [draft, setDraft] = useState('');
  const scroller = useRef<HTMLDivElement>(null);
  const pinned = useRef(true);
  const messages = conversation.messages ?? [];
  const streaming = messages.find((m) => m.status === 'streaming');
  useLayoutEffect(() => {
    const element = scroller.current;
    if (element && pinned.current) element.scrollTop = element.scrollHeight;
  });
  const send = (event?: Event) => {
    event?.preventDefault();
    const prompt = draft.trim();
    if (prompt === '' || streaming) return;
    setDraft('');
    pinned.current = true;
    void state.conversations.send(conversation.id, prompt);
  };
  return (
    <div class="conversation">
      <header class="conversation-head">
        <button class="icon back-to-list" aria-label="All chats" onClick={onBack}>
          <Icon name="back" />
        </button>
        <span class="conversation-title">{conversation.title}</span>
        <span class={'system-tag ' + conversation.system}>{kSystemNames[conversation.system] ?? conversation.system}</span>
      </header>
      <div
        class="messages"
        ref={scroller}
        onScroll={(event) => {
          const element = event.currentTarget;
          pinned.current = element.scrollHeight - element.scrollTop - element.clientHeight < 40;
        }}
      >
        {messages.map((message) => (
          <MessageView key={message.index} state={state} message={message} onCancel={() => state.conversations.cancel(message)} />
        ))}
      </div>
      <form class="composer" onSubmit={send}>
        <textarea
          name="prompt"
          rows={1}
          placeholder={`Message ${kSystemNames[conversation.system] ?? conversation.system}`}
          value={draft}
          onInput={(event) => setDraft(event.currentTarget.value)}
          onKeyDown={(event) => {
            if (event.key === 'Enter' && (event.metaKey || event.ctrlKey)) send(event);
          }}
        />
        {streaming ? (
          <button type="button" class="danger" onClick={() => state.conversations.cancel(streaming)}>
            <Icon name="stop" /> Cancel
          </button>
        ) : (
          <button type="submit" class="primary" disabled={draft.trim() === ''}>
            <Icon name="send" /> Send
          </button>
        )}
      </form>
    </div>
  );
}

const kStatusTexts: Partial<Record<ChatMessage['status'], string>> = {
  cancelled: 'Cancelled',
  interrupted: 'The page was closed before this answer ended.',
};

export function MessageView({ state, message, onCancel }: { state: ProjectProps['state']; message: ChatMessage; onCancel: () => void }) {
  if (message.role === 'user') {
    return (
      <div class="message user">
        <div class="bubble">{message.text}</div>
      </div>
    );
  }
  const streaming = message.status === 'streaming';
  return (
    <div class={'message assistant ' + message.status} data-task={message.taskId}>
      <Activity lines={message.activity} />
      <MarkdownView chunks={message.chunks} streaming={streaming} />
      {streaming && message.chunks.length === 0 && <Waiting state={state} taskId={message.taskId} onCancel={onCancel} />}
      {message.error && (
        <div class="error" role="alert">
          {message.error}
        </div>
      )}
      {message.missed && <div class="note missed">{kMissedOutputNotice}</div>}
      {kStatusTexts[message.status] && <div class="note">{kStatusTexts[message.status]}</div>}
      {streaming && message.chunks.length > 0 && (
        <button class="link" onClick={onCancel}>
          Stop
        </button>
      )}
      <DetailsRow lines={message.details} version={message.details.length} />
    </div>
  );
}

// An answer not begun yet: waiting in the relay's queue, with its place and a way to cancel
// it, or for the assistant.
function Waiting({ state, taskId, onCancel }: { state: ProjectProps['state']; taskId: string; onCancel: () => void }) {
  useStores(state.tasks);
  const task = state.tasks.get(taskId);
  if (task?.status !== 'queued') return <div class="typing" aria-label="Waiting for the answer" />;
  return (
    <div class="note queued-note">
      {queuedText(task.place)}{' '}
      <button class="link cancel-queued" onClick={onCancel}>
        Cancel
      </button>
    </div>
  );
}
