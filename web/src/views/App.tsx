import type { AppState } from '../app_state';
import { useStores } from '../lib/use_store';
import { AgentList } from './AgentList';
import { ApprovalSheet } from './ApprovalSheet';
import { InboxView } from './InboxView';
import { NotificationOfferBar, UnencryptedNoticeBar } from './Notices';
import { Notifier } from './Notifier';
import { ProjectView } from './ProjectView';
import { TokenPrompt } from './TokenPrompt';
import { TopBar } from './TopBar';

// The page: the notice of an unencrypted connection above what the user works with.
export function App({ state }: { state: AppState }) {
  return (
    <div class="page">
      <UnencryptedNoticeBar />
      <Workspace state={state} />
    </div>
  );
}

// The agents and their projects beside (on a phone: before) the project the user works
// in; the approval sheet over whatever is shown.
function Workspace({ state }: { state: AppState }) {
  useStores(state.credentials, state.connection, state.navigation);
  const connection = state.connection.state;
  if (!state.credentials.token || connection === 'unauthorized' || connection === 'blocked') {
    return <TokenPrompt state={state} refused={connection === 'unauthorized' || connection === 'blocked' ? connection : null} />;
  }
  const place = state.navigation.place;
  const inProject = place.agentId !== null && place.projectPath !== null;
  return (
    <div class={'shell' + (inProject || place.inbox ? ' in-project' : '') + (place.inbox ? ' in-inbox' : '')}>
      <TopBar state={state} />
      <NotificationOfferBar state={state} />
      <div class="body">
        <aside class="sidebar">
          <AgentList state={state} />
        </aside>
        <main class="main">
          {place.inbox ? (
            <InboxView state={state} />
          ) : inProject ? (
            <ProjectView state={state} agentId={place.agentId!} projectPath={place.projectPath!} />
          ) : (
            <div class="empty">Choose a project to chat, run tasks, review changes or open a terminal.</div>
          )}
        </main>
      </div>
      <ApprovalSheet state={state} />
      <Notifier state={state} />
    </div>
  );
}
