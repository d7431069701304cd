import { lazy, Suspense } from 'preact/compat';
import type { AppState, Tab } from '../app_state';
import { useStores } from '../lib/use_store';
import { ChangesView } from './ChangesView';
import { ChatView } from './ChatView';
import { Icon } from './icons';
import { SessionsView } from './SessionsView';
import { TasksView } from './TasksView';

const TerminalView = lazy(() => import('./TerminalView'));

const kTabs: { tab: Tab; label: string }[] = [
  { tab: 'chat', label: 'Chat' },
  { tab: 'sessions', label: 'Sessions' },
  { tab: 'tasks', label: 'Tasks' },
  { tab: 'changes', label: 'Changes' },
  { tab: 'terminal', label: 'Terminal' },
];

export interface ProjectProps {
  state: AppState;
  agentId: string;
  projectPath: string;
}

// One agent's project: its chats, the assistants' own sessions, tasks, proposed changes and terminal.
export function ProjectView(props: ProjectProps) {
  const { state } = props;
  useStores(state.navigation, state.tasks);
  const tab = state.navigation.place.tab;
  const proposals = state.tasks.awaitingApproval().filter((t) => t.agentId === props.agentId).length;
  return (
    <div class={'project-view tab-' + tab}>
      <nav class="tabs" role="tablist">
        {kTabs.map((item) => (
          <button
            key={item.tab}
            role="tab"
            class={'tab' + (item.tab === tab ? ' current' : '')}
            aria-selected={item.tab === tab}
            onClick={() => state.navigation.go({ tab: item.tab })}
          >
            <Icon name={item.tab} />
            <span class="tab-label">{item.label}</span>
            {item.tab === 'changes' && proposals > 0 && <span class="badge">{proposals}</span>}
          </button>
        ))}
      </nav>
      <section class="tab-body">
        {tab === 'chat' && <ChatView {...props} />}
        {tab === 'sessions' && <SessionsView {...props} />}
        {tab === 'tasks' && <TasksView {...props} />}
        {tab === 'changes' && <ChangesView {...props} />}
        {tab === 'terminal' && (
          <Suspense fallback={<div class="loading">Loading the terminal…</div>}>
            <TerminalView {...props} />
          </Suspense>
        )}
      </section>
    </div>
  );
}
