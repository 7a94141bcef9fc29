import { beginningOf } from './beginningOf';
import { Entry, EntryKind, kEntryTextLimit } from './Entry';
import { Ring } from './Ring';

// Everything seen of one television, as a ring. A paused timeline goes on recording, and shows what it had.
export class Timeline {
  readonly #entries: Ring<Entry>;
  #shown: Entry[] | null = null; // while paused

  constructor(capacity: number) {
    this.#entries = new Ring<Entry>(capacity);
  }

  get length(): number {
    return this.#entries.length;
  }

  get capacity(): number {
    return this.#entries.capacity;
  }

  get added(): number {
    return this.#entries.added;
  }

  get dropped(): number {
    return this.#entries.added - this.#entries.length;
  }

  get isPaused(): boolean {
    return this.#shown !== null;
  }

  add(entry: Entry): void {
    const isLong = entry.text.length > kEntryTextLimit;
    this.#entries.add(isLong ? { ...entry, text: `${beginningOf(entry.text, kEntryTextLimit)}…` } : entry);
  }

  setCapacity(capacity: number): void {
    if (capacity !== this.#entries.capacity) this.#entries.setCapacity(capacity);
  }

  pause(): void {
    this.#shown = this.#entries.toArray();
  }

  resume(): void {
    this.#shown = null;
  }

  // Newest first, those that match.
  select(text: string, kind: EntryKind | '' = ''): Entry[] {
    const wanted = text.trim().toLowerCase();
    const entries = this.#shown ?? this.#entries.toArray();
    const selected: Entry[] = [];
    for (let i = entries.length - 1; i >= 0; i--) {
      const entry = entries[i]!;
      if (kind !== '' && entry.kind !== kind) continue;
      if (wanted !== '' && !`${entry.kind} ${entry.property ?? ''} ${entry.text}`.toLowerCase().includes(wanted)) {
        continue;
      }
      selected.push(entry);
    }
    return selected;
  }

  // One JSON object per line, oldest first.
  static toNdjson(thing: string, newestFirst: readonly Entry[]): string {
    return [...newestFirst]
      .reverse()
      .map(
        (entry) =>
          `${JSON.stringify({
            ...entry,
            at: new Date(entry.at).toISOString(),
            notifiedAt: entry.notifiedAt == null ? undefined : new Date(entry.notifiedAt).toISOString(),
            thing,
          })}\n`,
      )
      .join('');
  }
}
