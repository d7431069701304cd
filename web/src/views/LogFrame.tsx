import type { ComponentChildren, RefObject } from 'preact';

export const kRowHeight = 18; // px; the same as .task-log's line-height

interface Props {
  scroller: RefObject<HTMLDivElement>;
  // Whether the view is at the bottom, following new lines; kept up to date on scroll.
  pinned: { current: boolean };
  // Where the log is scrolled to and how tall it is, on every scroll.
  scrolled: (view: { top: number; height: number }) => void;
  space: number; // the height of all the rows, px
  empty: string | null; // what the log says when it has no rows
  children: ComponentChildren;
}

// The scrolling frame of a log whose rows are placed absolutely (only those in view are
// in the page): the same for a task's kept output and for the lines a page holds.
export function LogFrame({ scroller, pinned, scrolled, space, empty, children }: Props) {
  return (
    <div
      class="task-log"
      ref={scroller}
      role="log"
      aria-label="Output"
      // Scrolled by the keyboard too (arrows, Page Up and Down) once focused.
      tabIndex={0}
      onScroll={(event) => {
        const element = event.currentTarget;
        pinned.current = element.scrollHeight - element.scrollTop - element.clientHeight < kRowHeight * 2;
        scrolled({ top: element.scrollTop, height: element.clientHeight });
      }}
    >
      <div class="log-space" style={{ height: space }}>
        {children}
      </div>
      {empty !== null && <div class="muted log-empty">{empty}</div>}
    </div>
  );
}
