import { useState } from 'preact/hooks';

import { Entry, EntryKind, kEntryKinds } from '../model/Entry';
import { Television } from '../model/Television';
import { Timeline } from '../model/Timeline';
import { clock } from '../page/Times';
import { Text } from './Text';
import { useThrottled } from './useThrottled';

const kShownEntries = 100;
const kDrawEveryMs = 200;

interface Props {
  readonly television: Television;
  readonly onChange: () => void;
}

function save(television: Television, entries: readonly Entry[]): void {
  const url = URL.createObjectURL(
    new Blob([Timeline.toNdjson(television.id, entries)], { type: 'application/x-ndjson' }),
  );
  const link = document.createElement('a');
  link.href = url;
  link.download = `${television.id.replace(/[^A-Za-z0-9._-]/g, '_')}.ndjson`;
  link.click();
  setTimeout(() => URL.revokeObjectURL(url), 10_000);
}

function rowOf(entry: Entry, key: number) {
  return (
    <tr key={key} data-testid="entry" data-kind={entry.kind}>
      <td class="nowrap">{clock(entry.at, true)}</td>
      <td>
        <span class={`kind ${entry.kind}`}>{entry.kind}</span>
      </td>
      <td class="fill">
        {entry.property !== undefined && (
          <>
            <Text value={entry.property} length={40} />
            <span class="muted">: </span>
          </>
        )}
        <Text value={entry.text} length={240} />
        {entry.sequence != null && <span class="muted"> #{entry.sequence}</span>}
        {entry.replaced !== undefined && <span class="muted"> after {entry.replaced} replaced</span>}
        {entry.missed !== undefined && <span class="muted"> after {entry.missed} missed</span>}
        {entry.retained && <span class="muted"> kept by the broker</span>}
      </td>
    </tr>
  );
}

// Everything seen of a television, newest first.
export function TimelineView({ television, onChange }: Props) {
  const { timeline } = television;
  const [text, setText] = useState('');
  const [kind, setKind] = useState<EntryKind | ''>('');
  const { entries, rows } = useThrottled(
    `${text}\n${kind}\n${timeline.isPaused}`,
    kDrawEveryMs,
    () => {
      const selected = timeline.select(text, kind);
      return {
        entries: selected,
        rows: selected.slice(0, kShownEntries).map((entry, i) => rowOf(entry, selected.length - i)),
      };
    },
    onChange,
  );
  return (
    <section class="card" aria-labelledby="timeline-title">
      <h2 id="timeline-title">Timeline</h2>
      <div class="filters">
        <label class="field">
          Filter timeline
          <input type="search" value={text} onInput={(event) => setText(event.currentTarget.value)} />
        </label>
        <label class="field">
          Kind
          <select value={kind} onChange={(event) => setKind(event.currentTarget.value as EntryKind | '')}>
            <option value="">any</option>
            {kEntryKinds.map((name) => (
              <option key={name} value={name}>
                {name}
              </option>
            ))}
          </select>
        </label>
        <button
          type="button"
          aria-pressed={timeline.isPaused}
          onClick={() => {
            if (timeline.isPaused) timeline.resume();
            else timeline.pause();
            onChange();
          }}
        >
          {timeline.isPaused ? 'Resume' : 'Pause'}
        </button>
        <button
          type="button"
          disabled={timeline.length === 0}
          onClick={() => save(television, timeline.select(text, kind))}
        >
          Export NDJSON
        </button>
        <p class="muted" data-testid="timeline-count">
          {entries.length.toLocaleString('en')} entries{timeline.isPaused && ', paused'}
          {timeline.dropped > 0 && `; the last ${timeline.capacity.toLocaleString('en')} are kept`}
          {entries.length > kShownEntries && `; ${kShownEntries} are shown, the export has all`}
        </p>
      </div>
      <div class="scroll timeline" tabIndex={0} role="region" aria-label="List of the timeline">
        <table aria-label="Timeline">
          <thead>
            <tr>
              <th scope="col">Seen</th>
              <th scope="col">Kind</th>
              <th scope="col" class="fill">
                What
              </th>
            </tr>
          </thead>
          <tbody>{rows}</tbody>
        </table>
        {entries.length === 0 && (
          <p class="empty">Nothing{text !== '' || kind !== '' ? ' matches the filter' : ' yet'}.</p>
        )}
      </div>
    </section>
  );
}
