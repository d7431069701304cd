// How the service worker shows a push: always as a notification (browsers end the
// subscription of a site whose pushes show nothing), in words made of what the push says;
// one notification per card (its tag), carrying what a click opens.
import { decodePushPayload, type PushPayload } from '../protocol/push_messages';
import type { NotificationTarget } from './background_notifier';

export interface PushNotification {
  title: string;
  body: string;
  tag: string;
  data: NotificationTarget | null;
  // Allow and Deny on an approval (Android shows them; other systems leave them out).
  actions: { action: 'allow' | 'deny'; title: string }[];
}

export const kGenericPush: PushNotification = {
  title: 'Brinmoor',
  body: 'Something waits for you. Open Brinmoor to see it.',
  tag: 'brinmoor',
  data: null,
  actions: [],
};

function where(payload: { project: string; agentId: string }): string {
  return payload.project === '' ? `on ${payload.agentId}` : `in ${payload.project} on ${payload.agentId}`;
}

export function notificationOfPayload(payload: PushPayload): PushNotification {
  if (payload.kind === 'test') {
    const device = payload.device === '' ? 'this device' : payload.device;
    return { title: 'Test notification', body: `Notifications reach ${device}.`, tag: 'test', data: null, actions: [] };
  }
  const { agentId, projectPath, taskId } = payload;
  const card = { agentId, projectPath, taskId };
  switch (payload.kind) {
    case 'approval':
      return {
        title: 'Approval needed',
        body: `${payload.tool || 'A tool'} ${where(payload)}`,
        tag: 'approval:' + payload.requestId,
        data: { kind: 'approval', requestId: payload.requestId },
        actions: [
          { action: 'allow', title: 'Allow' },
          { action: 'deny', title: 'Deny' },
        ],
      };
    case 'proposal':
      return {
        title: 'Changes to review',
        body: `Proposed changes ${where(payload)}`,
        tag: 'proposal:' + taskId,
        data: { kind: 'proposal', ...card },
        actions: [],
      };
    case 'failed':
      return {
        title: 'Task failed',
        body: `A task failed ${where(payload)}`,
        tag: 'failed:' + taskId,
        data: { kind: 'failed', ...card },
        actions: [],
      };
    case 'answer':
      return {
        title: 'Answer ready',
        body: `An answer is ready ${where(payload)}`,
        tag: 'answer:' + taskId,
        data: { kind: 'answer', ...card },
        actions: [],
      };
  }
}

// The push's bytes as text; anything that is not JSON the relay sends shows the generic one.
export function notificationOfPush(text: string | null): PushNotification {
  if (text === null) return kGenericPush;
  let value: unknown;
  try {
    value = JSON.parse(text);
  } catch {
    return kGenericPush;
  }
  const payload = decodePushPayload(value);
  return payload ? notificationOfPayload(payload) : kGenericPush;
}
