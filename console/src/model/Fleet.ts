import { Budget, kMaxNameLength, kWholeValuesBytes } from './Budget';
import { Message } from './Message';
import { Property } from './Property';
import { Presence, Television } from './Television';

export const kService = 'appdatachannel';
// What to subscribe to: what the broker keeps, one kind after the other, and the requests of others.
export const kSteps: readonly (readonly string[])[] = [
  ['things/+/status', ...['set', 'get', 'cancel'].map((name) => `things/+/${kService}/${name}`)],
  [`things/+/${kService}/value/+`],
  [`things/+/${kService}/properties`],
];

// The filters of what the broker keeps of one television.
export function filtersOf(id: string): readonly string[] {
  return [`things/${id}/status`, `things/${id}/${kService}/properties`, `things/${id}/${kService}/value/+`];
}

// Bounds of memory.
export const kMaxTelevisions = 10_000;
export const kMaxEntries = 300_000; // of all timelines together, but for that of the television that is shown
export const kMaxEntriesPerTelevision = 2_000;
export const kMinEntriesPerTelevision = 20;
export const kCutLength = 1_000; // characters that are kept of a value beyond that

export type SortKey = 'id' | 'state' | 'signin' | 'properties' | 'activity';

export interface Selection {
  readonly id: string;
  readonly state: '' | Presence;
  readonly value: string;
  readonly sort: SortKey;
  readonly descending: boolean;
}

export interface Counts {
  total: number;
  online: number;
  offline: number;
  lost: number;
  unknown: number;
}

export type ValueListener = (television: Television, property: Property, message: Message) => void;

// Every television that the broker knows. Takes messages, and tells of new values.
export class Fleet {
  messages = 0;
  refusedTelevisions = 0; // beyond kMaxTelevisions
  #televisions = new Map<string, Television>();
  #sorted: Television[] | null = null;
  #longBytes = 0;
  #capacity = kMaxEntriesPerTelevision;
  #budget = new Budget();
  #shown: string | null = null;
  readonly #onValue: ValueListener;

  constructor(onValue: ValueListener = () => {}) {
    this.#onValue = onValue;
  }

  get size(): number {
    return this.#televisions.size;
  }

  find(id: string): Television | undefined {
    return this.#televisions.get(id);
  }

  // Returns whether the topic is one of a television.
  take(message: Message): boolean {
    const levels = message.topic.split('/');
    const id = levels[1];
    if (levels[0] !== 'things' || id === undefined || id === '' || id.length > kMaxNameLength) return false;
    if (levels[2] === 'status' && levels.length === 3) {
      this.messages++;
      if (message.payload.length === 0 && !this.#televisions.has(id)) return true;
      this.#televisionFor(id)?.takeStatus(message);
      return true;
    }
    if (levels[2] !== kService) return false;
    const kind = levels[3];
    if (levels.length === 4 && kind === 'properties') {
      this.messages++;
      if (message.payload.length === 0 && !this.#televisions.has(id)) return true;
      this.#televisionFor(id)?.takeProperties(message);
      return true;
    }
    if (levels.length === 4 && (kind === 'set' || kind === 'get' || kind === 'cancel')) {
      this.messages++;
      this.#televisionFor(id)?.takeRequest(kind, message);
      return true;
    }
    if (levels.length === 5 && kind === 'value') {
      this.messages++;
      this.#takeValue(id, levels[4]!, message);
      return true;
    }
    return false;
  }

  // The television that people see has a long timeline, from now until another one is.
  show(id: string | null): void {
    if (this.#shown !== null) this.#televisions.get(this.#shown)?.timeline.setCapacity(this.#capacity);
    this.#shown = id;
    if (id !== null) this.#televisions.get(id)?.timeline.setCapacity(kMaxEntriesPerTelevision);
  }

  markUnconfirmed(): void {
    for (const television of this.#televisions.values()) television.markUnconfirmed();
  }

  clear(): void {
    this.#televisions.clear();
    this.#sorted = null;
    this.#longBytes = 0;
    this.#budget = new Budget();
    this.#capacity = kMaxEntriesPerTelevision;
    this.messages = 0;
    this.refusedTelevisions = 0;
  }

  counts(): Counts {
    const counts: Counts = { total: this.size, online: 0, offline: 0, lost: 0, unknown: 0 };
    for (const television of this.#televisions.values()) counts[television.presence]++;
    return counts;
  }

  select(selection: Selection): Television[] {
    const id = selection.id.trim().toLowerCase();
    const value = selection.value.trim().toLowerCase();
    const selected = this.#byId().filter(
      (television) =>
        (selection.state === '' || television.presence === selection.state) &&
        (id === '' || television.id.toLowerCase().includes(id)) &&
        (value === '' || television.searchText.includes(value)),
    );
    const compare = kCompare[selection.sort];
    if (compare !== null) selected.sort(compare); // stable, so equal ones stay sorted by id
    return selection.descending ? selected.reverse() : selected;
  }

  #byId(): Television[] {
    this.#sorted ??= [...this.#televisions.values()].sort((a, b) => kById.compare(a.id, b.id));
    return this.#sorted;
  }

  #takeValue(id: string, name: string, message: Message): void {
    const television = this.#televisionFor(id);
    if (television === undefined) return;
    const before = longBytesOf(television.property(name));
    const room = kWholeValuesBytes - this.#longBytes + before;
    const result = television.takeValue(name, message, message.payload.length > room ? kCutLength : null);
    if (result === null) return;
    this.#longBytes += longBytesOf(result.property) - before;
    if (result.isNew) this.#onValue(television, result.property, message);
  }

  #televisionFor(id: string): Television | undefined {
    let television = this.#televisions.get(id);
    if (television !== undefined) return television;
    if (this.size >= kMaxTelevisions) {
      this.refusedTelevisions++;
      return undefined;
    }
    television = new Television(id, this.#capacity, this.#budget);
    this.#televisions.set(id, television);
    this.#sorted = null;
    this.#shareEntries();
    return television;
  }

  // The more televisions, the shorter their timelines. In steps, so that it happens seldom.
  #shareEntries(): void {
    const before = this.#capacity;
    while (this.#capacity > kMinEntriesPerTelevision && this.#capacity * this.size > kMaxEntries) {
      this.#capacity = Math.max(kMinEntriesPerTelevision, Math.floor(this.#capacity * 0.75));
    }
    if (this.#capacity === before) return;
    for (const television of this.#televisions.values()) {
      if (television.id !== this.#shown) television.timeline.setCapacity(this.#capacity);
    }
  }
}

const kById = new Intl.Collator('en', { numeric: true });

function longBytesOf(property: Property | undefined): number {
  const length = property?.value?.text.length ?? 0;
  return length > kCutLength ? length : 0;
}

const kPresenceOrder: Record<Presence, number> = { online: 0, lost: 1, offline: 2, unknown: 3 };

function signInOrder(television: Television): number {
  if (television.signIn.known === 'no' || television.signIn.known === 'gone') return 2;
  return television.signIn.value ? 0 : 1;
}

const kCompare: Record<SortKey, ((a: Television, b: Television) => number) | null> = {
  id: null,
  state: (a, b) => kPresenceOrder[a.presence] - kPresenceOrder[b.presence],
  signin: (a, b) => signInOrder(a) - signInOrder(b),
  properties: (a, b) => a.properties.length - b.properties.length,
  activity: (a, b) => (a.lastActivity ?? 0) - (b.lastActivity ?? 0),
};
