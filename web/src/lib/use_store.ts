import { useEffect, useState } from 'preact/hooks';
import type { Observable } from '../stores/observable';

// Renders the component again when any of the stores changed, at most once a frame: a
// task printing thousands of lines a second costs one render per frame, not per line.
export function useStores(...stores: Observable[]): void {
  const [, setTick] = useState(0);
  useEffect(() => {
    let frame = 0;
    const schedule = () => {
      if (frame !== 0) return;
      frame = requestAnimationFrame(() => {
        frame = 0;
        setTick((tick) => tick + 1);
      });
    };
    const unsubscribe = stores.map((store) => store.subscribe(schedule));
    return () => {
      unsubscribe.forEach((stop) => stop());
      if (frame !== 0) cancelAnimationFrame(frame);
    };
  }, stores);
}
