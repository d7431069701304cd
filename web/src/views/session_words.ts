// What the Sessions view says of the assistants' own sessions.
import type { DeskSession, SessionLive } from '../protocol/desk_sessions';

export const kNoSessions = 'No claude or codex sessions in this folder yet.';
export const kPhoneResumeNote = "claude's own /resume list may not show sessions started from the phone; this command continues it.";

const kMonths = ['Jan', 'Feb', 'Mar', 'Apr', 'May', 'Jun', 'Jul', 'Aug', 'Sep', 'Oct', 'Nov', 'Dec'];

// When a session was last written: "just now", "5 min ago", "3 h ago", "yesterday", or
// its day ("Nov 24", and the year when it is not this one).
export function whenText(iso: string, now: number): string {
  const at = Date.parse(iso);
  if (Number.isNaN(at)) return '';
  const minutes = Math.floor((now - at) / 60_000);
  if (minutes < 1) return 'just now';
  if (minutes < 60) return `${minutes} min ago`;
  if (minutes < 24 * 60) return `${Math.floor(minutes / 60)} h ago`;
  const day = new Date(at);
  const today = new Date(now);
  const yesterday = new Date(today.getFullYear(), today.getMonth(), today.getDate() - 1);
  if (day.getFullYear() === yesterday.getFullYear() && day.getMonth() === yesterday.getMonth() && day.getDate() === yesterday.getDate())
    return 'yesterday';
  const date = `${kMonths[day.getMonth()]} ${day.getDate()}`;
  return day.getFullYear() === today.getFullYear() ? date : `${date}, ${day.getFullYear()}`;
}

export function messagesText(count: number): string {
  return count === 1 ? '1 message' : `${count} messages`;
}

export function startedByText(session: DeskSession): string {
  return session.startedBy === 'phone' ? 'from the phone' : 'from the desk';
}

// A process at the desk holds the session: what it does there.
export function liveText(live: SessionLive): string {
  return live === null ? '' : `${live} at the desk`;
}

export function liveNote(live: SessionLive): string {
  return `Open at the desk (${live ?? 'busy'}): continuing here is refused while it is open there.`;
}

// A session this page follows as the desk writes it.
export const kWatching = 'Watching';
export const kForkPlaceholder = 'Message for a copy of this session';
export const kForkNote = 'A copy of this session goes on in Chat; the session itself stays as it is.';
