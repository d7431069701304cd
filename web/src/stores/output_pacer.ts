// Paces the output of running tasks: the page tells the relay the newest numbered line it
// has taken of each ("task.ack"), so the agent reads a task's output no faster than the
// page takes it and the relay never has to drop a slow page. Acknowledgements go out from
// the message handler itself, not from a frame callback: a hidden page takes output, and
// paces it, as a visible one does.

// The first line taken of a task on a connection is acknowledged at once: the relay paces
// the task for this page from then on. After it, a burst is acknowledged at least every
// so many lines or characters taken...
export const kAckLines = 1000;
export const kAckCharacters = 64 * 1024;
// ...and once more this long after its last line.
export const kTrailingAckMs = 50;

export interface PaceTimers {
  set(callback: () => void, ms: number): unknown;
  clear(handle: unknown): void;
  now(): number;
}

export const kRealTimers: PaceTimers = {
  set: (callback, ms) => setTimeout(callback, ms),
  clear: (handle) => clearTimeout(handle as ReturnType<typeof setTimeout>),
  now: () => Date.now(),
};

export type AckSender = (agentId: string, taskId: string, line: number) => boolean;

interface Pace {
  agentId: string;
  taken: number; // the newest line taken
  acked: number; // the line last acknowledged on this connection (0: none)
  lines: number; // lines taken since that acknowledgement
  characters: number; // and their characters, a newline each
  lastAt: number; // when the newest line was taken
  timer: unknown; // the trailing acknowledgement, when one is waiting
}

export class OutputPacer {
  private readonly paces = new Map<string, Pace>();

  constructor(
    private readonly send: AckSender,
    private readonly timers: PaceTimers = kRealTimers,
  ) {}

  // A task this page started: paced from its first line, before any comes, so that the
  // agent does not pour out its output until the page's first acknowledgement.
  started(agentId: string, taskId: string): void {
    this.paceOf(agentId, taskId);
    this.send(agentId, taskId, 0);
  }

  // The page took line `line` (of `characters` characters) of a running task.
  took(agentId: string, taskId: string, line: number, characters: number): void {
    const pace = this.paceOf(agentId, taskId);
    pace.taken = Math.max(pace.taken, line);
    pace.lines++;
    pace.characters += characters + 1;
    pace.lastAt = this.timers.now();
    if (pace.acked === 0 || pace.lines >= kAckLines || pace.characters >= kAckCharacters) this.ack(taskId, pace);
    else if (pace.timer === null) this.trail(taskId, pace, kTrailingAckMs);
  }

  private paceOf(agentId: string, taskId: string): Pace {
    let pace = this.paces.get(taskId);
    if (!pace) {
      pace = { agentId, taken: 0, acked: 0, lines: 0, characters: 0, lastAt: 0, timer: null };
      this.paces.set(taskId, pace);
    }
    return pace;
  }

  // The task ended: nothing more is acknowledged for it.
  ended(taskId: string): void {
    const pace = this.paces.get(taskId);
    if (!pace) return;
    if (pace.timer !== null) this.timers.clear(pace.timer);
    this.paces.delete(taskId);
  }

  // A new connection: the relay paces nothing for it until told again.
  reconnected(): void {
    for (const pace of this.paces.values()) pace.acked = 0;
  }

  private trail(taskId: string, pace: Pace, ms: number): void {
    pace.timer = this.timers.set(() => {
      pace.timer = null;
      if (this.paces.get(taskId) !== pace) return;
      // Lines came meanwhile: wait until the burst has been quiet for the whole delay.
      const quiet = this.timers.now() - pace.lastAt;
      if (quiet < kTrailingAckMs) this.trail(taskId, pace, kTrailingAckMs - quiet);
      else this.ack(taskId, pace);
    }, ms);
  }

  private ack(taskId: string, pace: Pace): void {
    if (pace.taken <= pace.acked) return;
    if (!this.send(pace.agentId, taskId, pace.taken)) return;
    pace.acked = pace.taken;
    pace.lines = 0;
    pace.characters = 0;
  }
}
