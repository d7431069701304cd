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
