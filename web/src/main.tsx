import './styles.css';
import { render } from 'preact';
import { AppState } from './app_state';
import { registerShellWorker } from './secure/service_worker_client';
import { ConversationDB } from './stores/conversation_db';
import { App } from './views/App';

function start(): void {
  const db = ConversationDB.open(indexedDB).catch(() => null);
  const state = new AppState(location.origin, localStorage, db);
  // The token comes in the fragment; it leaves the address bar before anything else.
  const adoptToken = () => {
    const rest = state.credentials.adoptFragment(location.hash);
    if (rest !== null) history.replaceState(null, '', location.pathname + location.search + rest);
    return rest !== null;
  };
  adoptToken();
  state.connect();
  // A link with another token opened in this tab: use it.
  window.addEventListener('hashchange', () => adoptToken() && state.connect());
  // A phone waking up or a network coming back reconnects at once.
  const wake = () => state.connection.client?.reconnectNow();
  document.addEventListener('visibilitychange', () => document.visibilityState === 'visible' && wake());
  window.addEventListener('online', wake);
  window.addEventListener('offline', () => state.connection.client?.networkLost());
  window.addEventListener('pageshow', wake);
  // What a reload resumes from is written when the page goes, not only now and then.
  window.addEventListener('pagehide', () => state.connection.client?.saveSeqs());
  (window as unknown as { brinmoor: AppState }).brinmoor = state;
  render(<App state={state} />, document.getElementById('app')!);
  registerShellWorker();
}

start();
