import { useState } from 'preact/hooks';
import type { Match } from '../stores/output_reads';
import type { Task, TasksStore } from '../stores/tasks_store';
import { couldNot, kMoreMatches, kNoMatches, kSearchLabel, kSearching, matchLine } from './output_words';

interface Found {
  text: string;
  matches: Match[];
  next: number | null;
}

// The search of a task's output: the agent looks through all of it, and each line found
// takes the log there when chosen.
export function OutputSearch({ tasks, task, choose }: { tasks: TasksStore; task: Task; choose: (line: number) => void }) {
  const [query, setQuery] = useState('');
  const [found, setFound] = useState<Found | null>(null);
  const [busy, setBusy] = useState(false);
  const [problem, setProblem] = useState('');
  const search = async (text: string, from: number, before: Match[]) => {
    setBusy(true);
    setProblem('');
    try {
      const { matches, next } = await tasks.outputs.reads.search(task, text, from);
      setFound({ text, matches: [...before, ...matches], next });
    } catch (error) {
      setProblem(couldNot('search', error instanceof Error ? error.message : String(error)));
    } finally {
      setBusy(false);
    }
  };
  return (
    <>
      <form
        class="output-search"
        role="search"
        onSubmit={(event) => {
          event.preventDefault();
          if (query !== '') void search(query, 1, []);
          else setFound(null);
        }}
      >
        <input
          type="search"
          name="output-search"
          aria-label={kSearchLabel}
          placeholder={kSearchLabel}
          enterkeyhint="search"
          autocapitalize="off"
          spellcheck={false}
          value={query}
          onInput={(event) => {
            setQuery(event.currentTarget.value);
            if (event.currentTarget.value === '') setFound(null);
          }}
        />
      </form>
      {(busy || problem || found?.matches.length === 0) && (
        <p class={'output-note' + (problem ? ' error' : ' muted')} role="status">
          {busy ? kSearching : problem || kNoMatches}
        </p>
      )}
      {found && found.matches.length > 0 && (
        <div class="output-matches">
          <ol aria-label="Matches">
            {found.matches.map((match) => (
              <li key={match.number}>
                <button type="button" class="output-match" onClick={() => choose(match.number)}>
                  <span class="match-line">{matchLine(match.number)}</span>
                  <span class="match-text mono">{match.text}</span>
                </button>
              </li>
            ))}
          </ol>
          {found.next !== null && (
            <button type="button" class="link" disabled={busy} onClick={() => void search(found.text, found.next!, found.matches)}>
              {kMoreMatches}
            </button>
          )}
        </div>
      )}
    </>
  );
}
