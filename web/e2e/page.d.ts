// What the browser suites and the benchmark read or keep in the page besides its own
// names: the state of the client built with the taps (window.brinmoor), the taps it calls
// when they are there (brinmoorTerminalTap, brinmoorMarkdownTimings), what the harness
// reports through, and what a test keeps there from one of its steps to the next.
import type { Terminal } from '@xterm/xterm';
import type axe from 'axe-core';
import type { AppState } from '../src/app_state';
import type { Task } from '../src/stores/tasks_store';

declare global {
  interface Window {
    brinmoor: AppState;
    // Called with what each terminal is given to draw; reset when it starts again.
    brinmoorTerminalTap?: (sessionId: string, data: string, reset: boolean) => void;
    // Given an array, the markdown view adds how long each render of an answer took.
    brinmoorMarkdownTimings?: { chunks: number; ms: number }[];
    // The harness's: the page's policy refused something.
    brinmoorPolicyViolation: (text: string) => void;
    axe: typeof axe;
    // Set only by hostile text that ran.
    __pwned?: number;
    // The tests' own.
    brinmoorHeld: (task: Task | undefined) => (string | undefined)[];
    brinmoorTapped: string[];
    brinmoorTappedLength: number;
    brinmoorSeen: Set<string>;
    brinmoorStates: string[];
    brinmoorSetTimer: (callback: () => void, ms: number) => unknown;
    brinmoorResets: number;
    brinmoorNotes: string[];
    brinmoorPermissionAsks: number;
    brinmoorGrew: string[];
    brinmoorCatDone?: boolean;
    brinmoorFinishedAt?: number;
    echoTap: { key?: number; arrived?: number };
    // WeTTY's terminal, in the benchmark's page of it.
    wetty_term?: Terminal;
  }
}
