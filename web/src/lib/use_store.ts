import { useEffect, useState } from 'preact/hooks';
import type { Observable } from '../stores/observable';

// Renders the component again when any of the stores changed, at most once a frame: a
// task printing thousands of lines a second costs one render per frame, not per line. A
// page whose frames are held back (hidden, or in the background) still renders within
// 100 ms, so what it shows is never stale for long.
export function useStores(...stores: Observable[]): void {
  const [, setTick] = useState(0);
  const rendered = stores.map((store) => store.version);
  useEffect(() => {
    let frame = 0;
    let timer: ReturnType<typeof setTimeout> | undefined;
    const render = () => {
      cancelAnimationFrame(frame);
      clearTimeout(timer);
      frame = 0;
      timer = undefined;
      setTick((tick) => tick + 1);
    };
    const schedule = () => {
      if (timer !== undefined) return;
      frame = requestAnimationFrame(render);
      timer = setTimeout(render, 100);
    };
    const unsubscribe = stores.map((store) => store.subscribe(schedule));
    // Effects run after the frame is drawn: a change made before this subscription (a
    // socket that opened meanwhile) would otherwise never be rendered.
    if (stores.some((store, i) => store.version !== rendered[i])) schedule();
    return () => {
      unsubscribe.forEach((stop) => stop());
      cancelAnimationFrame(frame);
      clearTimeout(timer);
    };
  }, stores);
}
