import { useState } from 'preact/hooks';
import type { AppState } from '../app_state';
import type { ConnectionState } from '../protocol/relay_client';
import { useStores } from '../lib/use_store';
import { Icon } from './icons';
import { projectName } from './names';

export const kConnectionTexts: Record<ConnectionState, string> = {
  connecting: 'Connecting…',
  open: 'Connected',
  waiting: 'Reconnecting…',
  unauthorized: 'Token refused',
  blocked: 'Blocked for a minute',
  stopped: 'Offline',
};

export function TopBar({ state }: { state: AppState }) {
  useStores(state.connection, state.navigation);
  const [menu, setMenu] = useState(false);
  const place = state.navigation.place;
  return (
    <header class="topbar">
      <div class="brand-mark small" aria-hidden="true" />
      {place.inbox ? (
        <button class="icon back inbox-back" aria-label="Back" onClick={() => state.navigation.go({ inbox: false })}>
          <Icon name="back" />
        </button>
      ) : (
        place.projectPath !== null && (
          <button class="icon back" aria-label="Projects" onClick={() => state.navigation.home()}>
            <Icon name="back" />
          </button>
        )
      )}
      <div class="title">
        <strong>{place.inbox ? 'Needs you' : place.projectPath !== null ? projectName(place.projectPath) : 'Brinmoor'}</strong>
        {!place.inbox && place.agentId !== null && place.projectPath !== null && <span class="subtitle">{place.agentId}</span>}
      </div>
      <ConnectionStatus state={state} />
      <NeedsYouButton state={state} />
      <div class="menu-anchor">
        <button class="icon" aria-label="Menu" aria-expanded={menu} onClick={() => setMenu(!menu)}>
          ⋯
        </button>
        {menu && (
          <div class="menu" role="menu">
            <button role="menuitem" onClick={() => (setMenu(false), void state.forget())}>
              Forget this server
            </button>
          </div>
        )}
      </div>
    </header>
  );
}

// "Needs you", with how many things wait: opens the inbox of every machine and project.
function NeedsYouButton({ state }: { state: AppState }) {
  useStores(state.inbox, state.navigation);
  const count = state.inbox.count;
  const open = state.navigation.place.inbox;
  return (
    <button
      class={'needs-you' + (open ? ' current' : '') + (count > 0 ? ' waiting' : '')}
      aria-pressed={open}
      onClick={() => state.navigation.go({ inbox: !open })}
    >
      <Icon name="inbox" />
      <span class="needs-you-label">Needs you</span>
      {count > 0 && <span class="badge">{count}</span>}
    </button>
  );
}

// The state of the link to the relay, and a way to try again at once while it waits.
function ConnectionStatus({ state }: { state: AppState }) {
  const connection = state.connection.state;
  const offline = state.connection.browserOffline && connection !== 'open';
  const text = offline ? 'Offline' : kConnectionTexts[connection];
  return (
    <>
      <span class={'connection ' + (offline ? 'stopped' : connection)} role="status" title={text}>
        <span class="dot" />
        <span class="connection-text">{text}</span>
      </span>
      {connection === 'waiting' && !offline && (
        <button class="secondary small retry-now" onClick={() => state.connection.client?.reconnectNow()}>
          Retry now
        </button>
      )}
    </>
  );
}
