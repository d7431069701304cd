import './styles.css';
import { render } from 'preact';
import { AppState } from './app_state';
import { registerShellWorker } from './secure/service_worker_client';
import { ConversationDB } from './stores/conversation_db';
import { App } from './views/App';

function start(): void {
  const db = ConversationDB.open(indexedDB).catch(() => null);
  const state = new AppState(location.origin, localStorage, db);
  // The token comes in the fragment of the address the page was opened with; it leaves
  // the address bar before anything else. A token in a fragment that comes later is
  // taken out of the address bar too, and not used.
  const clearToken = () => {
    const rest = state.credentials.adoptOpeningFragment(location.hash);
    if (rest !== null) history.replaceState(null, '', location.pathname + location.search + rest);
  };
  clearToken();
  state.connect();
  window.addEventListener('hashchange', clearToken);
  // A phone waking up or a network coming back reconnects at once.
  const wake = () => state.connection.client?.reconnectNow();
  document.addEventListener('visibilitychange', () => document.visibilityState === 'visible' && wake());
  state.connection.setBrowserOffline(!navigator.onLine);
  window.addEventListener('online', () => state.connection.setBrowserOffline(false));
  window.addEventListener('offline', () => state.connection.setBrowserOffline(true));
  window.addEventListener('pageshow', wake);
  // What a reload resumes from is written when the page goes, not only now and then.
  window.addEventListener('pagehide', () => state.connection.client?.saveSeqs());
  // The browser tests and the benchmark read the page's state here; only their build has it.
  if (__BRINMOOR_TAPS__) (window as unknown as { brinmoor: AppState }).brinmoor = state;
  render(<App state={state} />, document.getElementById('app')!);
  registerShellWorker();
}

start();
