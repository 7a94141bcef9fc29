import { MutableRef, useRef } from 'preact/hooks';

import { Selection, SortKey } from '../model/Fleet';
import { Presence, Television } from '../model/Television';
import { Console } from '../page/Console';
import { linkTo } from '../page/Route';
import { ago, clock } from '../page/Times';
import { PresenceBadge } from './PresenceBadge';
import { signInWords } from './signInWords';
import { Text } from './Text';
import { useThrottled } from './useThrottled';
import { useVirtualRows } from './useVirtualRows';

export const kAllTelevisions: Selection = { id: '', state: '', value: '', sort: 'id', descending: false };

const kRowHeight = 36; // as page.css has it
const kSelectEveryMs = 250; // the list is sorted and counted at most so often
const kSelectNewEveryMs = 100; // the same, while televisions come
const kSortByActivityEveryMs = 1_000;

interface Props {
  readonly page: Console;
  readonly selection: Selection;
  readonly onSelect: (selection: Selection) => void;
  readonly scroll: MutableRef<number>; // where the list was when it was left
}

// The value that the list shows of a television: the one that the filter found, else the first.
function previewOf(television: Television, wanted: string): { name: string; text: string } | null {
  const withValue = television.properties.filter((property) => property.value !== null);
  const found =
    wanted === ''
      ? undefined
      : withValue.find(
          (property) =>
            property.name.toLowerCase().includes(wanted) ||
            property.value!.text.slice(0, 500).toLowerCase().includes(wanted),
        );
  const property = found ?? withValue[0];
  return property === undefined ? null : { name: property.name, text: property.value!.text };
}

export function FleetView({ page, selection, onSelect, scroll }: Props) {
  const { fleet } = page;
  const total = useRef(0); // when it was selected
  const everyMs =
    total.current !== fleet.size
      ? kSelectNewEveryMs
      : selection.sort === 'activity'
        ? kSortByActivityEveryMs
        : kSelectEveryMs;
  const { televisions, counts } = useThrottled(
    JSON.stringify(selection),
    everyMs,
    () => {
      total.current = fleet.size;
      return { televisions: fleet.select(selection), counts: fleet.counts() };
    },
    () => page.changed(),
  );
  const rows = useVirtualRows(televisions.length, kRowHeight, scroll);
  const wanted = selection.value.trim().toLowerCase();
  const set = (change: Partial<Selection>) => onSelect({ ...selection, ...change });
  const time = Date.now();

  const header = (sort: SortKey, name: string, className = '') => {
    const isSorted = selection.sort === sort;
    return (
      <th
        scope="col"
        class={className}
        aria-sort={isSorted ? (selection.descending ? 'descending' : 'ascending') : undefined}
      >
        <button
          type="button"
          class="sort"
          onClick={() =>
            set({ sort, descending: isSorted ? !selection.descending : sort === 'activity' || sort === 'properties' })
          }
        >
          {name}
          <span aria-hidden="true">{isSorted ? (selection.descending ? ' ▼' : ' ▲') : ''}</span>
        </button>
      </th>
    );
  };

  return (
    <>
      <div class="title-row">
        <h1>Televisions</h1>
        <p class="counts" data-testid="counts">
          <strong>{counts.total}</strong> in all, <strong>{counts.online}</strong> online,{' '}
          <strong>{counts.offline}</strong> offline, <strong>{counts.lost}</strong> lost
          {counts.unknown > 0 && (
            <>
              , <strong>{counts.unknown}</strong> unknown
            </>
          )}
        </p>
      </div>
      <form class="filters" role="search" aria-label="Filter televisions" onSubmit={(event) => event.preventDefault()}>
        <label class="field">
          Id
          <input type="search" value={selection.id} onInput={(event) => set({ id: event.currentTarget.value })} />
        </label>
        <label class="field">
          State
          <select
            value={selection.state}
            onChange={(event) => set({ state: event.currentTarget.value as '' | Presence })}
          >
            <option value="">any</option>
            <option value="online">online</option>
            <option value="offline">offline</option>
            <option value="lost">lost</option>
            <option value="unknown">unknown</option>
          </select>
        </label>
        <label class="field">
          Value
          <input
            type="search"
            value={selection.value}
            title="In names of properties, and in the first 500 characters of values"
            onInput={(event) => set({ value: event.currentTarget.value })}
          />
        </label>
        <p class="muted" role="status" data-testid="shown">
          {televisions.length} shown
        </p>
      </form>
      <div
        class="scroll fleet-table"
        ref={rows.ref}
        onScroll={rows.onScroll}
        tabIndex={0}
        role="region"
        aria-label="List of televisions"
      >
        <table aria-label="Televisions" aria-rowcount={televisions.length + 1}>
          <thead>
            <tr aria-rowindex={1}>
              {header('id', 'Television')}
              {header('state', 'State')}
              <th scope="col" class="wide">
                Since
              </th>
              {header('signin', 'Signed in', 'medium')}
              {header('properties', 'Properties', 'medium number')}
              {header('activity', 'Last activity', 'number')}
              <th scope="col" class="wide fill">
                Value
              </th>
            </tr>
          </thead>
          <tbody>
            {rows.before > 0 && (
              <tr aria-hidden="true" class="space" style={{ height: `${rows.before}px` }}>
                <td colSpan={7} />
              </tr>
            )}
            {televisions.slice(rows.start, rows.end).map((television, i) => {
              const preview = previewOf(television, wanted);
              const isStale = television.isStale || !page.connection.isOnline;
              return (
                <tr
                  key={television.id}
                  aria-rowindex={rows.start + i + 2}
                  data-testid="television"
                  data-thing={television.id}
                >
                  <th scope="row">
                    <a href={linkTo(television.id)}>
                      <Text value={television.id} length={64} />
                    </a>
                  </th>
                  <td>
                    <PresenceBadge television={television} />
                  </td>
                  <td class="wide">{television.since === null ? '–' : clock(television.since)}</td>
                  <td class="medium" title={signInWords(television.signIn).long}>
                    {signInWords(television.signIn).short}
                  </td>
                  <td class="medium number">{television.properties.length}</td>
                  <td class="number">{television.lastActivity === null ? '–' : ago(television.lastActivity, time)}</td>
                  <td class="wide fill">
                    {preview !== null && (
                      <span class={isStale ? 'stale' : ''}>
                        <Text value={preview.name} length={40} /> <span class="muted">=</span>{' '}
                        <Text value={preview.text} length={100} />
                        {isStale && <span class="visually-hidden"> (may be stale)</span>}
                      </span>
                    )}
                  </td>
                </tr>
              );
            })}
            {rows.after > 0 && (
              <tr aria-hidden="true" class="space" style={{ height: `${rows.after}px` }}>
                <td colSpan={7} />
              </tr>
            )}
          </tbody>
        </table>
        {televisions.length === 0 && (
          <p class="empty">
            {fleet.size > 0
              ? 'No television matches the filter.'
              : page.isComplete
                ? 'The broker knows no television yet. One appears here as soon as its host connects.'
                : page.connection.state === 'online'
                  ? 'Waiting for what the broker knows…'
                  : 'There is no connection yet.'}
          </p>
        )}
      </div>
    </>
  );
}
