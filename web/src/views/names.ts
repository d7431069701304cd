// The last part of a folder path, as a project's name.
export function projectName(path: string): string {
  const parts = path.split('/').filter((part) => part !== '');
  return parts.length === 0 ? path || '/' : parts[parts.length - 1];
}

export function duration(ms: number): string {
  if (ms < 1000) return `${ms} ms`;
  if (ms < 60_000) return `${(ms / 1000).toFixed(1)} s`;
  const minutes = Math.floor(ms / 60_000);
  return `${minutes} min ${Math.round((ms % 60_000) / 1000)} s`;
}

export function fileCount(count: number): string {
  return count === 1 ? '1 file' : `${count} files`;
}

// Where a task waits in the relay's queue: "Queued · next in line", "Queued · 2nd in line".
export function queuedText(place: number | undefined): string {
  if (place === undefined) return 'Queued';
  if (place === 1) return 'Queued · next in line';
  const tens = place % 100;
  const suffix = tens >= 11 && tens <= 13 ? 'th' : (({ 1: 'st', 2: 'nd', 3: 'rd' } as Record<number, string>)[place % 10] ?? 'th');
  return `Queued · ${place}${suffix} in line`;
}
