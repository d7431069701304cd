import 'diff2html/bundles/css/diff2html.min.css';
import { html, parse } from 'diff2html';
import { ColorSchemeType } from 'diff2html/lib-esm/types';
import { useEffect, useMemo, useState } from 'preact/hooks';
import { sanitizeDiff } from '../lib/sanitize';
import { fileCount } from './names';

const kWide = '(min-width: 900px)';

function useWide(): boolean {
  const [wide, setWide] = useState(() => matchMedia(kWide).matches);
  useEffect(() => {
    const query = matchMedia(kWide);
    const change = () => setWide(query.matches);
    query.addEventListener('change', change);
    return () => query.removeEventListener('change', change);
  }, []);
  return wide;
}

// A proposal's unified diff as a review: the files, each of them foldable, side by side
// on wide screens and unified on phones, where long lines wrap. The diff comes from the agent and may name files
// anything: diff2html escapes what it prints, and the sanitiser checks the result.
export default function ProposalReview({ diff }: { diff: string }) {
  const wide = useWide();
  const files = useMemo(() => parse(diff), [diff]);
  const rendered = useMemo(
    () =>
      files.map((file) =>
        sanitizeDiff(
          html([file], {
            outputFormat: wide ? 'side-by-side' : 'line-by-line',
            drawFileList: false,
            matching: 'lines',
            // Its own dark colours follow the system's, as the page's do.
            colorScheme: ColorSchemeType.AUTO,
          }),
        ),
      ),
    [files, wide],
  );
  if (files.length === 0) return <p class="muted">The proposal changes no file.</p>;
  return (
    <div class="proposal-review">
      <p class="file-count">{fileCount(files.length)} changed</p>
      {files.map((file, index) => {
        // git ends a name that holds a space with a tab.
        const name = (file.isDeleted ? file.oldName : file.newName).replace(/\t$/, '');
        return (
          <details class="diff-file" open key={index}>
            <summary>
              <span class="diff-file-name mono">{name}</span>
              <span class="diff-stat">
                <span class="added">+{file.addedLines}</span> <span class="deleted">−{file.deletedLines}</span>
              </span>
            </summary>
            <div
              class="diff-body"
              role="region"
              aria-label={`Changes to ${name}`}
              // Scrolled by the keyboard too once focused.
              tabIndex={0}
              dangerouslySetInnerHTML={{ __html: rendered[index] }}
            />
          </details>
        );
      })}
    </div>
  );
}
