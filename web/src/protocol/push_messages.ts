// The service worker's side of the relay's pushes: what a push carries (decoded member by
// member: it may come from an older or newer relay), and the decision a notification's
// Allow or Deny sends without a WebSocket. Nothing here is shared with the page, so the
// worker stays one script.

// What a push says: what waits, and which card shows it.
export type PushPayload =
  | { kind: 'approval'; agentId: string; projectPath: string; project: string; taskId: string; requestId: string; tool: string }
  | { kind: 'proposal' | 'failed' | 'answer'; agentId: string; projectPath: string; project: string; taskId: string }
  | { kind: 'test'; device: string };

function isRecord(value: unknown): value is Record<string, unknown> {
  return typeof value === 'object' && value !== null && !Array.isArray(value);
}

// A push's data as the relay sends it; null for anything else.
export function decodePushPayload(value: unknown): PushPayload | null {
  if (!isRecord(value)) return null;
  const text = (name: string) => (typeof value[name] === 'string' ? (value[name] as string) : '');
  if (value.kind === 'test') return { kind: 'test', device: text('device') };
  if (typeof value.agentId !== 'string' || typeof value.taskId !== 'string') return null;
  const where = { agentId: value.agentId, projectPath: text('projectPath'), project: text('project'), taskId: value.taskId };
  switch (value.kind) {
    case 'approval':
      if (typeof value.requestId !== 'string') return null;
      return { kind: 'approval', ...where, requestId: value.requestId, tool: text('tool') };
    case 'proposal':
    case 'failed':
    case 'answer':
      return { kind: value.kind, ...where };
    default:
      return null;
  }
}

// POST /v1/push/decision with the token; rejects with the relay's words when it refuses
// (a request it never had, one decided already answers 200 with the decision that holds).
export async function sendDecision(
  origin: string,
  token: string,
  requestId: string,
  decision: 'allow' | 'deny',
  fetchFn: (url: string, init: RequestInit) => Promise<Response> = (url, init) => fetch(url, init),
): Promise<void> {
  const response = await fetchFn(origin + '/v1/push/decision', {
    method: 'POST',
    headers: { Authorization: 'Bearer ' + token, 'Content-Type': 'application/json' },
    body: JSON.stringify({ requestId, decision }),
  });
  if (response.ok) return;
  const answer: unknown = await response.json().catch(() => null);
  const error = isRecord(answer) && typeof answer.error === 'string' ? answer.error : `The relay answered ${response.status}.`;
  throw new Error(error);
}
