import { useMemo, useState } from 'preact/hooks';
import type { AppState } from '../app_state';
import { useStores } from '../lib/use_store';
import { NotificationOffer } from '../secure/background_notifier';
import { notificationsAvailable } from '../secure/service_worker_client';
import { kEncryptHelp, kEncryptLinkText, kUnencryptedText, UnencryptedNotice } from '../secure/unencrypted_notice';

// Over plain HTTP, above everything until it is dismissed.
export function UnencryptedNoticeBar() {
  const notice = useMemo(() => new UnencryptedNotice(localStorage, window.isSecureContext), []);
  const [shown, setShown] = useState(notice.shown);
  if (!shown) return null;
  return (
    <div class="notice unencrypted" role="note">
      <span class="notice-text">{kUnencryptedText}</span>
      <a class="notice-link" href={kEncryptHelp} target="_blank" rel="noopener">
        {kEncryptLinkText}
      </a>
      <button class="icon notice-close" aria-label="Dismiss" onClick={() => (notice.dismiss(), setShown(false))}>
        ×
      </button>
    </div>
  );
}

// Once paired, the offer to notify the user of what waits while the page is away.
export function NotificationOfferBar({ state }: { state: AppState }) {
  useStores(state.connection);
  const offer = useMemo(() => new NotificationOffer(localStorage), []);
  const [, setAnswered] = useState(0);
  const permission = notificationsAvailable() ? Notification.permission : null;
  if (state.connection.state !== 'open' || !offer.shown(permission)) return null;
  const answer = (ask: boolean) => {
    offer.answer();
    setAnswered((n) => n + 1);
    // Asked at once, within the tap; a yes also subscribes this device to the relay's pushes.
    if (ask) void Notification.requestPermission().then((permission) => (permission === 'granted' ? state.push.granted() : undefined));
  };
  return (
    <div class="notice offer" role="note">
      <span class="notice-text">Get a notification when an approval or a review waits for you.</span>
      <span class="notice-actions">
        <button class="link" onClick={() => answer(false)}>
          Not now
        </button>
        <button class="primary" onClick={() => answer(true)}>
          Notify me
        </button>
      </span>
    </div>
  );
}
