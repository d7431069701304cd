import { useState } from 'preact/hooks';
import type { Task, TasksStore } from '../stores/tasks_store';
import { toClipboard } from '../lib/clipboard';
import { copied, copying, couldNot, downloaded, downloading, outputFileName } from './output_words';

function save(pages: string[][], name: string): void {
  const blob = new Blob(
    pages.map((lines) => lines.join('\n') + '\n'),
    { type: 'text/plain;charset=utf-8' },
  );
  const url = URL.createObjectURL(blob);
  const link = document.createElement('a');
  link.href = url;
  link.download = name;
  document.body.append(link);
  link.click();
  link.remove();
  setTimeout(() => URL.revokeObjectURL(url), 60_000);
}

// "Copy" and "Download" of a task's whole output, read from the computer, with how far
// they have come.
export function OutputExport({ tasks, task }: { tasks: TasksStore; task: Task }) {
  const [status, setStatus] = useState({ text: '', problem: false });
  const [busy, setBusy] = useState(false);
  const run = async (what: 'copy' | 'download') => {
    setBusy(true);
    const progress = what === 'copy' ? copying : downloading;
    setStatus({ text: progress(0, task.output?.total ?? 0), problem: false });
    try {
      const pages = await tasks.outputs.reads.readAll(task, (read, total) => setStatus({ text: progress(read, total), problem: false }));
      const count = pages.reduce((sum, lines) => sum + lines.length, 0);
      if (what === 'copy') await toClipboard(pages.map((lines) => lines.join('\n')).join('\n'));
      else save(pages, outputFileName(task));
      setStatus({ text: what === 'copy' ? copied(count) : downloaded(count), problem: false });
    } catch (error) {
      setStatus({ text: couldNot(what, error instanceof Error ? error.message : String(error)), problem: true });
    } finally {
      setBusy(false);
    }
  };
  return (
    <>
      <div class="output-export">
        <button type="button" class="secondary" disabled={busy} onClick={() => void run('copy')}>
          Copy
        </button>
        <button type="button" class="secondary" disabled={busy} onClick={() => void run('download')}>
          Download
        </button>
      </div>
      {status.text && (
        <p class={'output-note' + (status.problem ? ' error' : ' muted')} role="status">
          {status.text}
        </p>
      )}
    </>
  );
}
