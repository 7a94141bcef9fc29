import { beginningOf, ownCopy } from './beginningOf';
import { Budget, kMaxNameLength, kMaxProperties } from './Budget';
import { Entry } from './Entry';
import { jsonOf, Message, runOf, textOf, timeOf, versionOf } from './Message';
import { Property } from './Property';
import { effectsOf, isOwn } from './SetEffects';
import { Timeline } from './Timeline';

const kMaxTypeLength = 40; // characters that are kept of a type
const kKeptDescription = 4_096; // characters; a longer one is not recognised when it comes again

// Whether it is connected. 'lost': the will says so, so it ended without a shutdown. 'unknown': no status was seen.
export type Presence = 'online' | 'offline' | 'lost' | 'unknown';

// Whether the television is signed in, as far as this page can know. Nobody can read it, so only a set that was seen
// says something. 'assumed': somebody's set was seen, and not its answer. 'gone': the host restarted since.
export type SignIn =
  | { readonly known: 'no' }
  | { readonly known: 'set' | 'assumed' | 'gone'; readonly value: boolean; readonly at: number };

// What the broker knows of one television, and what this page saw of it.
export class Television {
  readonly id: string;
  readonly timeline: Timeline;
  presence: Presence = 'unknown';
  since: number | null = null; // of the presence; null: before this page was there, and nothing says when
  run: string | null = null;
  version: string | null = null;
  restarts = 0; // that this page saw
  lastActivity: number | null = null;
  messages = 0;
  signIn: SignIn = { known: 'no' };
  // The text is null when there was no room for it.
  signUp: { readonly text: string | null; readonly at: number; isGone: boolean } | null = null;
  // Nothing came of it since the connection came back: the broker may not know it any more.
  isUnconfirmed = false;
  readonly #properties = new Map<string, Property>();
  #sorted: Property[] | null = null;
  #searchText: string | null = null;
  #hasStatus = false;
  #description: string | null = null; // the last one, as JSON
  #isRunGuessed = false; // from a message that the broker kept, other than the status

  readonly #budget: Budget;

  constructor(id: string, timelineCapacity: number, budget: Budget = new Budget()) {
    this.id = id;
    this.#budget = budget;
    this.timeline = new Timeline(timelineCapacity);
  }

  get isOnline(): boolean {
    return this.presence === 'online';
  }

  // Its values may be older than what the application has.
  get isStale(): boolean {
    return !this.isOnline || this.isUnconfirmed;
  }

  property(name: string): Property | undefined {
    return this.#properties.get(name);
  }

  // By name; the channel's own properties last.
  get properties(): readonly Property[] {
    this.#sorted ??= [...this.#properties.values()].sort(
      (a, b) => Number(isOwn(a.name)) - Number(isOwn(b.name)) || (a.name < b.name ? -1 : a.name > b.name ? 1 : 0),
    );
    return this.#sorted;
  }

  // Names and the beginnings of values, in lower case, for the filter.
  get searchText(): string {
    this.#searchText ??= this.properties
      .map((property) => `${property.name}\n${property.value?.text.slice(0, 500) ?? ''}`)
      .join('\n')
      .toLowerCase();
    return this.#searchText;
  }

  // A change of the connection: what is not seen again is not known to hold.
  markUnconfirmed(): void {
    this.isUnconfirmed = true;
    for (const property of this.#properties.values()) property.isUnconfirmed = property.value !== null;
  }

  takeStatus(message: Message): void {
    this.#count(message);
    this.isUnconfirmed = false;
    const status = jsonOf(message);
    const time = timeOf(message);
    const before = this.presence;
    const wasSeen = this.#hasStatus;
    this.#hasStatus = true;
    if (status === 'online') this.presence = 'online';
    else if (status === 'offline') this.presence = time === null && runOf(message) !== null ? 'lost' : 'offline';
    else this.presence = 'unknown';
    // Another time in what the broker kept: it changed, and changed back, while this page was not connected.
    const isNew = this.presence !== before || !message.retained || (time !== null && time !== this.since);
    if (isNew) this.since = time ?? (message.retained ? null : message.at);
    this.#takeRun(message, true);
    if (wasSeen && !isNew) return; // the broker said it once more
    this.#add(message, {
      kind: 'status',
      text: this.presence === 'lost' ? 'offline: the connection was lost (last will)' : String(status ?? 'no status'),
    });
  }

  takeProperties(message: Message): void {
    this.#count(message);
    this.#takeRun(message);
    const text = textOf(message);
    if (message.retained && text === this.#description) return; // the broker said it once more
    this.#description = text.length <= kKeptDescription ? text : null;
    const description = message.payload.length === 0 ? {} : jsonOf(message);
    if (typeof description !== 'object' || description === null || Array.isArray(description)) {
      this.#add(message, { kind: 'properties', text: `not a description: ${text}` });
      return;
    }
    const announced = Object.entries(description).slice(0, kMaxProperties);
    const names = new Set(announced.map(([name]) => name));
    for (const property of this.#properties.values()) {
      if (names.has(property.name)) continue;
      property.type = null;
      if (property.value === null) this.#drop(property);
    }
    for (const [name, about] of announced) {
      const type: unknown =
        typeof about === 'object' && about !== null ? (about as { type?: unknown }).type : undefined;
      const property = this.#propertyFor(name);
      if (property === undefined) continue;
      property.type = typeof type === 'string' ? beginningOf(type, kMaxTypeLength) : 'unknown';
    }
    this.#sorted = null;
    this.#searchText = null;
    this.#add(message, { kind: 'properties', text: [...names].join(', ') });
  }

  // `limit` cuts what is kept of the value to so many characters. Null when there is nothing to keep.
  takeValue(name: string, message: Message, limit: number | null): { property: Property; isNew: boolean } | null {
    this.#count(message);
    if (message.payload.length === 0 && !this.#properties.has(name)) return null;
    this.#takeRun(message);
    const property = this.#propertyFor(name);
    if (property === undefined) return null;
    const { arrival, replaced, missed } = property.take(message);
    if (limit !== null && property.value !== null) property.value = property.value.cut(limit);
    this.#searchText = null;
    if (arrival === 'removed' && property.type === null) {
      this.#drop(property);
    }
    if (arrival !== 'repeated') {
      this.#add(message, {
        kind: arrival === 'removed' ? 'removed' : 'value',
        property: name,
        text: arrival === 'removed' ? 'the value was removed' : (property.value?.text ?? ''),
        notifiedAt: property.notifiedAt,
        sequence: arrival === 'removed' ? undefined : property.sequence, // of a value
        replaced: replaced || undefined,
        missed: missed || undefined,
      });
    }
    return { property, isNew: arrival === 'new' };
  }

  // A request that somebody else made.
  takeRequest(kind: 'set' | 'get' | 'cancel', message: Message): void {
    this.messages++;
    if (!message.retained) this.lastActivity = message.at;
    this.#add(message, {
      kind,
      text: kind === 'cancel' ? '' : textOf(message),
      correlation: message.correlation,
    });
    if (kind !== 'set' || message.retained) return; // a retained request is ignored
    this.noteSet(textOf(message), message.at, 'assumed', this.isOnline);
  }

  // A set with this payload was seen ('assumed'), or answered ('set').
  noteSet(payload: string, at: number, known: 'assumed' | 'set', withEvents: boolean): void {
    const effects = effectsOf(payload, (name) => this.#properties.get(name)?.type ?? null);
    if (effects === null) return;
    if (effects.signIn !== null) this.signIn = { known, value: effects.signIn, at };
    if (effects.signUp !== null) {
      const isKept = this.#budget.replaceSignUp(this.signUp?.text?.length ?? 0, effects.signUp.length);
      this.signUp = { text: isKept ? ownCopy(effects.signUp) : null, at, isGone: false };
    }
    if (!withEvents) return;
    for (const { name, text } of effects.events) this.timeline.add({ at, kind: 'event', property: name, text });
  }

  note(entry: Entry): void {
    this.timeline.add(entry);
  }

  // Undefined when there are too many.
  #propertyFor(name: string): Property | undefined {
    let property = this.#properties.get(name);
    if (property !== undefined) return property;
    if (name.length > kMaxNameLength || this.#properties.size >= kMaxProperties || !this.#budget.takeProperty()) {
      return undefined;
    }
    property = new Property(name, this.#budget);
    this.#properties.set(name, property);
    this.#sorted = null;
    return property;
  }

  #drop(property: Property): void {
    this.#properties.delete(property.name);
    property.release();
    this.#sorted = null;
  }

  #count(message: Message): void {
    this.messages++;
    const time = message.retained ? timeOf(message) : message.at;
    if (time !== null && (this.lastActivity === null || time > this.lastActivity)) this.lastActivity = time;
  }

  #takeRun(message: Message, isStatus = false): void {
    const run = runOf(message);
    this.version = versionOf(message) ?? this.version;
    if (run === null) return;
    // The broker keeps values and descriptions of different runs at times; the status is of the last one.
    if (message.retained && !isStatus) {
      this.#isRunGuessed ||= this.run === null;
      this.run ??= run;
      return;
    }
    if (this.run !== null && run !== this.run && !this.#isRunGuessed) {
      this.restarts++;
      this.timeline.add({ at: message.at, kind: 'restart', text: 'the host restarted', run });
      if (this.signIn.known !== 'no') this.signIn = { ...this.signIn, known: 'gone' };
      if (this.signUp !== null) this.signUp.isGone = true;
    }
    this.run = run;
    this.#isRunGuessed = false;
  }

  #add(message: Message, entry: Omit<Entry, 'at' | 'retained'>): void {
    this.timeline.add({ ...entry, at: message.at, retained: message.retained || undefined });
  }
}
