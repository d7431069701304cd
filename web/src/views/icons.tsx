// Line icons drawn inline, so they need no font or image request.
const paths = {
  chat: 'M4 5h16v11H8l-4 4z',
  sessions: 'M4 12a8 8 0 1 0 2.3-5.7M4 4v4h4M12 8v4l3 2',
  tasks: 'M7 4l12 8-12 8z',
  changes: 'M12 4v16M4 12h16M5 20h6',
  terminal: 'M4 5h16v14H4zM7 9l3 3-3 3M12 15h5',
  plus: 'M12 5v14M5 12h14',
  stop: 'M6 6h12v12H6z',
  send: 'M4 12l16-8-6 16-2-6z',
  back: 'M15 5l-7 7 7 7',
  inbox: 'M4 13h4l2 3h4l2-3h4M4 13l3-8h10l3 8v6H4z',
  fork: 'M7 4v4a4 4 0 0 0 4 4h2a4 4 0 0 0 4-4V4M12 12v8',
  expand: 'M4 9V4h5M20 9V4h-5M4 15v5h5M20 15v5h-5',
  shrink: 'M9 4v5H4M15 4v5h5M9 20v-5H4M15 20v-5h5',
};

export type IconName = keyof typeof paths;

export function Icon({ name }: { name: IconName }) {
  return (
    <svg class="icon-svg" viewBox="0 0 24 24" width="20" height="20" aria-hidden="true">
      <path d={paths[name]} fill="none" stroke="currentColor" stroke-width="2" stroke-linejoin="round" stroke-linecap="round" />
    </svg>
  );
}
