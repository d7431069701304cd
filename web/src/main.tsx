import './styles.css';
import { render } from 'preact';
import { AppState } from './app_state';
import { browserPushHost } from './secure/push_host';
import { handTokenToWorker, isTarget, registerShellWorker } from './secure/service_worker_client';
import { defaultDeviceName } from './stores/push_store';
import { ConversationDB } from './stores/conversation_db';
import { App } from './views/App';

function start(): void {
  const db = ConversationDB.open(indexedDB).catch(() => null);
  const state = new AppState(location.origin, localStorage, db, {
    host: browserPushHost,
    deviceName: defaultDeviceName(navigator.userAgent, navigator.maxTouchPoints),
  });
  // The token comes in the fragment of the address the page was opened with; it leaves
  // the address bar before anything else. A token in a fragment that comes later is
  // taken out of the address bar too, and not used.
  const clearToken = () => {
    const rest = state.credentials.adoptOpeningFragment(location.hash);
    if (rest !== null) history.replaceState(null, '', location.pathname + location.search + rest);
  };
  clearToken();
  // The worker sends a notification's Allow or Deny with the token the page has.
  const keepToken = () =>
    void handTokenToWorker(state.credentials.token).catch((error: unknown) =>
      console.warn('Brinmoor Web: the token was not handed to the service worker:', error),
    );
  keepToken();
  state.credentials.subscribe(keepToken);
  // A notification tapped while no page was open names its card in the address.
  const card = openingCard();
  state.connect();
  if (card) state.open(card);
  window.addEventListener('hashchange', clearToken);
  // A phone waking up or a network coming back reconnects at once.
  const wake = () => state.connection.client?.reconnectNow();
  state.setHidden(document.visibilityState === 'hidden');
  document.addEventListener('visibilitychange', () => {
    state.setHidden(document.visibilityState === 'hidden');
    if (document.visibilityState === 'visible') wake();
  });
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

function openingCard() {
  const params = new URLSearchParams(location.search);
  const text = params.get('card');
  if (text === null) return null;
  params.delete('card');
  const rest = params.toString();
  history.replaceState(null, '', location.pathname + (rest === '' ? '' : '?' + rest) + location.hash);
  try {
    const card: unknown = JSON.parse(text);
    return isTarget(card) ? card : null;
  } catch {
    return null;
  }
}

start();
