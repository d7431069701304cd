import '@xterm/xterm/css/xterm.css';
import { useEffect, useRef, useState } from 'preact/hooks';
import { terminalController, type TerminalController } from '../lib/terminal_controller';
import { useStores } from '../lib/use_store';
import { Icon } from './icons';
import type { Completion, TerminalSession } from '../stores/terminals_store';
import type { ProjectProps } from './ProjectView';

type State = ProjectProps['state'];

const kKeys: { label: string; data?: string; ctrl?: true; name: string }[] = [
  { label: 'Esc', data: '\x1b', name: 'Esc' },
  { label: 'Tab', data: '\t', name: 'Tab' },
  { label: 'Ctrl', ctrl: true, name: 'Ctrl' },
  { label: '←', data: '\x1b[D', name: 'Left' },
  { label: '↑', data: '\x1b[A', name: 'Up' },
  { label: '↓', data: '\x1b[B', name: 'Down' },
  { label: '→', data: '\x1b[C', name: 'Right' },
  { label: 'Home', data: '\x1b[H', name: 'Home' },
  { label: 'End', data: '\x1b[F', name: 'End' },
  { label: 'PgUp', data: '\x1b[5~', name: 'PgUp' },
  { label: 'PgDn', data: '\x1b[6~', name: 'PgDn' },
  { label: '^C', data: '\x03', name: 'Control C' },
  { label: '^D', data: '\x04', name: 'Control D' },
  { label: '^Z', data: '\x1a', name: 'Control Z' },
  { label: '|', data: '|', name: 'Bar' },
  { label: '~', data: '~', name: 'Tilde' },
  { label: '/', data: '/', name: 'Slash' },
];

// A keyboard on the screen takes at least this much of the window's height.
const kKeyboardPx = 120;

// While the terminal is shown: "full screen" (asked for) and "keyboard open" (a phone's
// keyboard takes the lower half) give the terminal the whole window, the top bar and the
// tab bar hidden, and the height the keyboard leaves.
function useScreenModes(full: boolean) {
  useEffect(() => {
    const root = document.documentElement;
    root.classList.toggle('terminal-full', full);
    const viewport = window.visualViewport;
    const measure = () => {
      const open = !!viewport && window.innerHeight - viewport.height >= kKeyboardPx;
      root.classList.toggle('keyboard-open', open);
      if (open) root.style.setProperty('--visible-height', `${viewport!.height}px`);
      else root.style.removeProperty('--visible-height');
    };
    measure();
    viewport?.addEventListener('resize', measure);
    return () => {
      viewport?.removeEventListener('resize', measure);
      root.classList.remove('terminal-full', 'keyboard-open');
      root.style.removeProperty('--visible-height');
    };
  }, [full]);
}

// Ctrl with a key: the control character of a letter (and of the few others that have one).
export function withControl(data: string): string {
  if (data.length !== 1) return data;
  const code = data.toUpperCase().charCodeAt(0);
  if (code >= 64 && code <= 95) return String.fromCharCode(code - 64);
  if (data === ' ') return '\x00';
  if (data === '?') return '\x7f';
  return data;
}

// The project's terminal: an interactive shell on the agent's pty in xterm.js, or a
// line-mode shell with a line editor, history and path completion.
export default function TerminalView({ state, agentId, projectPath }: ProjectProps) {
  useStores(state.terminals, state.connection);
  const session = state.terminals.forProject(agentId, projectPath);
  if (!session) {
    return (
      <div class="terminal-start">
        <p class="muted">
          A shell in {projectPath} on {agentId}. It keeps running when you leave this page.
        </p>
        <div class="actions">
          <button class="primary" onClick={() => state.terminals.open(agentId, projectPath, 'interactive')}>
            Open terminal
          </button>
          <button class="secondary" onClick={() => state.terminals.open(agentId, projectPath, 'line')}>
            Line mode
          </button>
        </div>
      </div>
    );
  }
  return <TerminalScreen key={session.sessionId} state={state} session={session} />;
}

function TerminalScreen({ state, session }: { state: State; session: TerminalSession }) {
  const host = useRef<HTMLDivElement>(null);
  const controller = useRef<TerminalController | null>(null);
  const [title, setTitle] = useState('');
  const [ctrl, setCtrl] = useState(false);
  const ctrlRef = useRef(false);
  const [completion, setCompletion] = useState<Completion | null>(null);
  const [full, setFull] = useState(false);
  useScreenModes(full);
  const interactive = session.mode === 'interactive';
  const running = session.status === 'running';

  const send = (data: string) => {
    if (ctrlRef.current) {
      data = withControl(data);
      ctrlRef.current = false;
      setCtrl(false);
    }
    state.terminals.input(session, data);
  };

  useEffect(() => {
    const kept = terminalController(state.terminals, session);
    controller.current = kept;
    setTitle(kept.title);
    kept.listener = { data: send, title: setTitle, completion: setCompletion };
    const unmount = kept.mount(host.current!);
    if (interactive) kept.focus();
    return () => {
      kept.listener = {};
      unmount();
      controller.current = null;
    };
  }, [session.sessionId]);

  // Once the agent has the session, it learns the size the page shows.
  useEffect(() => {
    if (running) controller.current?.sizeToAgent();
  }, [running]);

  return (
    <div class={'terminal-view ' + session.mode}>
      <header class="terminal-head">
        <span class={'status-dot ' + (running ? 'online' : 'offline')} />
        <span class="terminal-title">{title || (interactive ? 'Terminal' : 'Line mode')}</span>
        {session.message && <span class="muted terminal-message">{session.message}</span>}
        {session.status === 'closed' && (
          <span class="muted">Closed{session.exitCode !== undefined ? ` · exit ${session.exitCode}` : ''}</span>
        )}
        <button class="secondary small" onClick={() => state.terminals.signal(session, 'interrupt')} disabled={!running}>
          Ctrl-C
        </button>
        <button class="secondary small" onClick={() => state.terminals.close(session)} disabled={!running}>
          Close
        </button>
        <button
          class="secondary small full-screen"
          aria-label={full ? 'Exit full screen' : 'Full screen'}
          title={full ? 'Exit full screen' : 'Full screen'}
          onClick={() => setFull(!full)}
        >
          <Icon name={full ? 'shrink' : 'expand'} />
        </button>
      </header>
      <div class="terminal-host" ref={host} />
      {interactive ? (
        <div class="key-bar" role="toolbar" aria-label="Keys">
          {kKeys.map((key) => (
            <button
              key={key.name}
              class={key.ctrl && ctrl ? 'current' : ''}
              aria-pressed={key.ctrl ? ctrl : undefined}
              aria-label={key.name}
              onPointerDown={(event) => event.preventDefault()}
              onClick={() => {
                if (key.ctrl) {
                  ctrlRef.current = !ctrlRef.current;
                  setCtrl(ctrlRef.current);
                } else {
                  send(key.data!);
                }
                controller.current?.focus();
              }}
            >
              {key.label}
            </button>
          ))}
        </div>
      ) : (
        <LineEditor state={state} session={session} completion={completion} onCompleted={() => setCompletion(null)} />
      )}
    </div>
  );
}

// The line editor of a line-mode session: Enter sends the line, ↑/↓ walk the history,
// Tab asks the agent to complete the path under the cursor.
function LineEditor({
  state,
  session,
  completion,
  onCompleted,
}: {
  state: State;
  session: TerminalSession;
  completion: Completion | null;
  onCompleted: () => void;
}) {
  const [line, setLine] = useState('');
  const history = useRef<string[]>([]);
  const position = useRef(0);
  const input = useRef<HTMLInputElement>(null);

  useEffect(() => {
    if (!completion) return;
    const next = line.slice(0, completion.replacementStart) + completion.replacement + line.slice(completion.replacementEnd);
    setLine(next);
    if (completion.suggestions.length <= 1) onCompleted();
    const cursor = completion.replacementStart + completion.replacement.length;
    requestAnimationFrame(() => input.current?.setSelectionRange(cursor, cursor));
  }, [completion]);

  const submit = (event: Event) => {
    event.preventDefault();
    // The agent shows the line above its output, on every page and in a replay.
    state.terminals.input(session, line + '\n');
    if (line.trim() !== '' && history.current[history.current.length - 1] !== line) history.current.push(line);
    position.current = history.current.length;
    setLine('');
    onCompleted();
  };
  const onKeyDown = (event: KeyboardEvent) => {
    const element = event.currentTarget as HTMLInputElement;
    if (event.key === 'Tab') {
      event.preventDefault();
      state.terminals.complete(session, element.value, element.selectionStart ?? element.value.length);
    } else if (event.key === 'ArrowUp' || event.key === 'ArrowDown') {
      event.preventDefault();
      const step = event.key === 'ArrowUp' ? -1 : 1;
      position.current = Math.max(0, Math.min(history.current.length, position.current + step));
      setLine(history.current[position.current] ?? '');
    }
  };
  return (
    <form class="line-editor" onSubmit={submit}>
      {completion && completion.suggestions.length > 1 && (
        <div class="suggestions">
          {completion.suggestions.map((suggestion) => (
            <span class="chip mono" key={suggestion}>
              {suggestion}
            </span>
          ))}
        </div>
      )}
      <div class="line-row">
        <span class="prompt-sign mono">›</span>
        <input
          ref={input}
          name="line"
          aria-label="Command line"
          class="mono"
          autocapitalize="off"
          autocomplete="off"
          spellcheck={false}
          value={line}
          onInput={(event) => setLine(event.currentTarget.value)}
          onKeyDown={onKeyDown}
        />
        <button class="primary" type="submit">
          Run
        </button>
      </div>
    </form>
  );
}
