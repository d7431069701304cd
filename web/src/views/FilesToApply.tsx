// The files of a proposal, each ticked to be applied (all of them at first); the ones
// unticked are left as they are in the project.
export function FilesToApply({ names, left, onChange }: { names: string[]; left: string[]; onChange: (left: string[]) => void }) {
  return (
    <fieldset class="files-to-apply">
      <legend>Files to apply</legend>
      {names.map((name) => (
        <label key={name} class="file-to-apply">
          <input
            type="checkbox"
            checked={!left.includes(name)}
            onChange={(event) => onChange(event.currentTarget.checked ? left.filter((other) => other !== name) : [...left, name])}
          />
          <span class="mono">{name}</span>
        </label>
      ))}
    </fieldset>
  );
}

// What the Approve button says: how many of the files it applies when not all of them.
export function approveLabel(chosen: number, total: number): string {
  return chosen === total ? 'Approve' : `Approve ${chosen} of ${total} files`;
}
