import { useEffect } from 'preact/hooks';
import type { AppState } from '../app_state';
import { useStores } from '../lib/use_store';
import type { PushDevice } from '../protocol/push_api';

export const kNotifyOffer = 'Get a notification on this device when something needs you, even with the page closed or the phone locked.';
export const kNotifyOn = 'This device gets a notification when something needs you.';
export const kHomeScreenNeeded = 'On an iPhone or iPad, notifications reach Brinmoor only when it is opened from the Home Screen.';
export const kHomeScreenSteps = [
  'In Safari, tap Share, then Add to Home Screen.',
  'Open Brinmoor from its new icon on the Home Screen.',
  'Come back here and tap Notify me.',
];
export const kPushUnsupported =
  'This browser cannot get notifications while the page is closed (they need an encrypted connection, https).';
export const kPushDenied = "Notifications are blocked for this site: allow them in the browser's settings, then reload the page.";

// "Notify me": pushes to this device from the relay, and the devices it pushes to.
export function NotifyMe({ state }: { state: AppState }) {
  const push = state.push;
  useStores(push);
  useEffect(() => void push.prepare(), [push]);
  return (
    <section class="notify-me card" aria-labelledby="notify-me-title">
      <h3 id="notify-me-title">Notifications on this device</h3>
      {push.state === 'home-screen' ? (
        <div class="home-screen-steps">
          <p>{kHomeScreenNeeded}</p>
          <ol>
            {kHomeScreenSteps.map((step) => (
              <li key={step}>{step}</li>
            ))}
          </ol>
        </div>
      ) : push.state === 'unsupported' ? (
        <p class="muted">{kPushUnsupported}</p>
      ) : push.state === 'denied' ? (
        <p class="muted">{kPushDenied}</p>
      ) : push.state === 'on' ? (
        <p class="push-on">{kNotifyOn}</p>
      ) : (
        <div class="notify-form">
          <p class="muted">{kNotifyOffer}</p>
          <label class="field">
            <span>Device name</span>
            <input
              name="device-name"
              maxLength={64}
              value={push.deviceName}
              onInput={(event) => push.setDeviceName(event.currentTarget.value)}
            />
          </label>
          <button class="primary" disabled={push.busy} onClick={() => void push.turnOn()}>
            Notify me
          </button>
        </div>
      )}
      {push.problem !== null && (
        <p class="error push-problem" role="alert">
          {push.problem}
        </p>
      )}
      {push.devices.length > 0 && <PushDevices state={state} />}
    </section>
  );
}

function lastPushText(device: PushDevice): string {
  if (!device.lastPush) return 'No notification sent yet';
  const when = new Date(device.lastPush.at);
  const at = Number.isNaN(when.getTime()) ? device.lastPush.at : when.toLocaleString();
  return device.lastPush.status === 0
    ? `Last push ${at}: the push service could not be reached`
    : `Last push ${at}: ${device.lastPush.status}`;
}

function serviceName(origin: string): string {
  try {
    return new URL(origin).host;
  } catch {
    return origin;
  }
}

function PushDevices({ state }: { state: AppState }) {
  const push = state.push;
  return (
    <div class="push-devices">
      <h4>Devices that get notifications</h4>
      <ul>
        {push.devices.map((device) => (
          <li key={device.id} class="push-device" data-device={device.id}>
            <span class="push-device-name">
              {device.device}
              {device.id === push.thisDevice && <span class="pill">this device</span>}
            </span>
            <span class="muted push-device-what">
              {serviceName(device.origin)} · {lastPushText(device)}
            </span>
            <span class="push-device-actions">
              <button class="secondary small" onClick={() => void push.test(device.id)}>
                Send a test notification
              </button>
              <button class="link small" onClick={() => void push.remove(device.id)}>
                Remove
              </button>
            </span>
            {push.tests.has(device.id) && (
              <span class="push-test-result" role="status">
                {push.tests.get(device.id)}
              </span>
            )}
          </li>
        ))}
      </ul>
    </div>
  );
}
