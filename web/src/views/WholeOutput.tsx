import { useState } from 'preact/hooks';
import { isEnded, type Task, type TasksStore } from '../stores/tasks_store';
import { OutputExport } from './OutputExport';
import { OutputLog, type LogTarget } from './OutputLog';
import { OutputSearch } from './OutputSearch';

// The output of a task the computer keeps whole: searched, copied and saved there, and
// scrolled through from its first line to its last.
export function WholeOutput({ tasks, task }: { tasks: TasksStore; task: Task }) {
  const [target, setTarget] = useState<LogTarget | null>(null);
  const output = task.output!;
  return (
    <>
      <div class="output-tools">
        <OutputSearch tasks={tasks} task={task} choose={(line) => setTarget({ line, stamp: Date.now() })} />
        <OutputExport tasks={tasks} task={task} />
      </div>
      <OutputLog
        output={output}
        version={tasks.version}
        ended={isEnded(task.status)}
        show={(first, last) => tasks.outputs.reads.show(task, first, last)}
        target={target}
      />
    </>
  );
}
