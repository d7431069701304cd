import { useState } from 'preact/hooks';
import type { AppState } from '../app_state';

// Shown when the page has no token, or the relay refused the one it had (and, after
// too many wrong ones from this address, refuses more for a while).
export function TokenPrompt({ state, refused }: { state: AppState; refused: 'unauthorized' | 'blocked' | null }) {
  const [token, setToken] = useState('');
  const submit = (event: Event) => {
    event.preventDefault();
    if (token.trim() !== '') state.useToken(token);
  };
  return (
    <div class="token-page">
      <form class="card token-card" onSubmit={submit}>
        <div class="brand-mark" aria-hidden="true" />
        <h1>Brinmoor</h1>
        {refused === 'unauthorized' && (
          <p class="error" role="alert">
            This server did not accept the token. Check it and enter it again.
          </p>
        )}
        {refused === 'blocked' && (
          <p class="error" role="alert">
            This server did not accept the token, and after too many wrong ones from this network it waits a minute before it tries again.
            Check the token and enter it again.
          </p>
        )}
        {refused === null && (
          <p class="muted">Open the link the agent shows (its "Web" QR code), or enter the token from its pairing details.</p>
        )}
        <label class="field">
          <span>Token</span>
          <input
            name="token"
            type="password"
            autocomplete="off"
            autocapitalize="off"
            spellcheck={false}
            value={token}
            onInput={(event) => setToken(event.currentTarget.value)}
          />
        </label>
        <button class="primary" type="submit" disabled={token.trim() === ''}>
          Connect
        </button>
      </form>
    </div>
  );
}
