import { describe, expect, it } from 'vitest';

import { kMaxProperties, kMaxPropertiesInAll, kSignUpCharacters, kWholeValuesBytes } from '../../src/model/Budget';
import {
  Fleet,
  kCutLength,
  kMaxEntries,
  kMaxEntriesPerTelevision,
  kMinEntriesPerTelevision,
  Selection,
} from '../../src/model/Fleet';
import { description, message, status, value } from './messages';

const kAll: Selection = { id: '', state: '', value: '', sort: 'id', descending: false };

function fleet(): Fleet {
  const made = new Fleet();
  made.take(status('tv-10', 'online', { at: 3 }));
  made.take(status('tv-2', 'offline', { at: 1, user: { run: 'a' } }));
  made.take(status('bedroom', 'online', { at: 2 }));
  made.take(value('tv-2', 'qz', 'Volume 7', { at: 1 }));
  made.take(value('tv-10', 'qmap', 'north', { at: 3 }));
  return made;
}

function ids(made: Fleet, change: Partial<Selection>): string[] {
  return made.select({ ...kAll, ...change }).map(({ id }) => id);
}

describe('Fleet', () => {
  it('sorts ids as people do', () => {
    expect(ids(fleet(), {})).toEqual(['bedroom', 'tv-2', 'tv-10']);
    expect(ids(fleet(), { descending: true })).toEqual(['tv-10', 'tv-2', 'bedroom']);
  });

  it('filters by id, state and value', () => {
    expect(ids(fleet(), { id: 'TV' })).toEqual(['tv-2', 'tv-10']);
    expect(ids(fleet(), { state: 'lost' })).toEqual(['tv-2']);
    expect(ids(fleet(), { value: 'volume' })).toEqual(['tv-2']);
    expect(ids(fleet(), { value: 'qmap' })).toEqual(['tv-10']);
    expect(ids(fleet(), { id: 'tv', state: 'online' })).toEqual(['tv-10']);
  });

  it('finds a value by its new text only', () => {
    const made = fleet();
    expect(ids(made, { value: 'volume' })).toEqual(['tv-2']);
    made.take(value('tv-2', 'qz', 'mute', { at: 4 }));
    expect(ids(made, { value: 'volume' })).toEqual([]);
    expect(ids(made, { value: 'mute' })).toEqual(['tv-2']);
  });

  it('sorts by activity', () => {
    expect(ids(fleet(), { sort: 'activity', descending: true })).toEqual(['tv-10', 'bedroom', 'tv-2']);
  });

  it('counts by state', () => {
    expect(fleet().counts()).toEqual({ total: 3, online: 2, offline: 0, lost: 1, unknown: 0 });
  });

  it('knows its topics from others', () => {
    const made = new Fleet();
    for (const topic of [
      'other/tv/status',
      'things',
      'things//status',
      'things/tv',
      'things/tv/status/x',
      'things/tv/otherservice/set',
      'things/tv/appdatachannel/value',
      'things/tv/appdatachannel/value/a/b',
    ]) {
      expect(made.take(message(topic, 'online'))).toBe(false);
    }
    expect(made.size).toBe(0);
  });

  it('makes no television of an empty message', () => {
    const made = new Fleet();
    made.take(message('things/tv/status', ''));
    made.take(message('things/tv/appdatachannel/properties', ''));
    expect(made.size).toBe(0);
  });

  it('tells of new values, not of repeated and removed ones', () => {
    const seen: string[] = [];
    const made = new Fleet((television, property) =>
      seen.push(`${television.id} ${property.name} ${property.value?.text}`),
    );
    const user = { run: 'a', sequence: '1' };
    made.take(value('tv', 'qz', 'a', { user }));
    made.take(value('tv', 'qz', 'a', { user }));
    made.take(message('things/tv/appdatachannel/value/qz', ''));
    expect(seen).toEqual(['tv qz a']);
  });

  it('keeps fewer entries of each television when there are many', () => {
    const made = new Fleet();
    for (let i = 0; i < 1000; i++) made.take(status(`tv-${i}`, 'online'));
    const { capacity } = made.find('tv-0')!.timeline;
    expect(capacity).toBeLessThan(kMaxEntriesPerTelevision);
    expect(capacity).toBeGreaterThanOrEqual(kMinEntriesPerTelevision);
    expect(capacity * made.size).toBeLessThanOrEqual(kMaxEntries);
    expect(made.find('tv-999')!.timeline.capacity).toBe(capacity);
  });

  it('keeps a long timeline of the television that is shown', () => {
    const made = new Fleet();
    made.take(status('tv-0', 'online'));
    made.show('tv-0');
    for (let i = 1; i < 1000; i++) made.take(status(`tv-${i}`, 'online'));
    expect(made.find('tv-0')!.timeline.capacity).toBe(kMaxEntriesPerTelevision);
    made.show('tv-1');
    expect(made.find('tv-0')!.timeline.capacity).toBe(made.find('tv-2')!.timeline.capacity);
    expect(made.find('tv-1')!.timeline.capacity).toBe(kMaxEntriesPerTelevision);
  });

  it('cuts long values when those that it has whole take all the room', () => {
    const made = new Fleet();
    const long = 'x'.repeat(4 * 1024 * 1024);
    const fitting = Math.floor(kWholeValuesBytes / long.length);
    for (let i = 0; i < fitting; i++) made.take(value('tv', `p${i}`, long));
    expect(made.find('tv')!.property('p0')!.value!.isCut).toBe(false);
    const last = () => made.find('tv')!.property(`p${fitting - 1}`)!.value!;
    expect(last().isCut).toBe(true);
    expect(last().text).toHaveLength(kCutLength);
    expect(last().lengthBytes).toBe(long.length + 2);
    made.take(message('things/tv/appdatachannel/value/p0', ''));
    made.take(value('tv', `p${fitting - 1}`, long));
    expect(last().isCut).toBe(false);
  });

  it('keeps a bounded amount of sign-up information, and has room again when some is replaced', () => {
    const made = new Fleet();
    const set = (id: string, length: number) =>
      made.take(message(`things/${id}/appdatachannel/set`, { signupInfo: 'x'.repeat(length - 2) }));
    const length = 200_000;
    const fitting = Math.floor(kSignUpCharacters / length);
    for (let i = 0; i <= fitting; i++) set(`tv-${i}`, length);
    const lengthOf = (id: string) => made.find(id)!.signUp!.text?.length ?? null;
    expect(lengthOf('tv-0')).toBe(length);
    expect(lengthOf(`tv-${fitting - 1}`)).toBe(length);
    expect(lengthOf(`tv-${fitting}`)).toBeNull();
    set('tv-0', 10);
    set(`tv-${fitting}`, length);
    expect(lengthOf('tv-0')).toBe(10);
    expect(lengthOf(`tv-${fitting}`)).toBe(length);
  });

  it('keeps a bounded number of properties, and takes new ones when old ones are gone', () => {
    const made = new Fleet();
    const announce = (id: string, count: number) =>
      made.take(description(id, Object.fromEntries(Array.from({ length: count }, (_, i) => [`p${i}`, 'string']))));
    for (let i = 0; i < kMaxPropertiesInAll / kMaxProperties; i++) announce(`tv-${i}`, kMaxProperties + 1);
    expect(made.find('tv-0')!.properties).toHaveLength(kMaxProperties);
    announce('late', 2);
    expect(made.find('late')!.properties).toHaveLength(0);
    announce('tv-0', 1);
    announce('late', 2);
    expect(made.find('late')!.properties).toHaveLength(2);
  });

  it('ignores names that are longer than any can be', () => {
    const made = new Fleet();
    expect(made.take(status('x'.repeat(1000), 'online'))).toBe(false);
    made.take(value('tv', 'x'.repeat(1000), 'a'));
    expect(made.find('tv')!.properties).toHaveLength(0);
  });

  it('keeps what is announced under names that objects have, too', () => {
    const made = new Fleet();
    made.take(description('tv', { constructor: 'string', toString: 'string' }));
    made.take(value('__proto__', 'constructor', 'x'));
    expect(made.find('tv')!.properties.map(({ name }) => name)).toEqual(['constructor', 'toString']);
    expect(made.find('__proto__')!.property('constructor')!.value!.text).toBe('x');
  });
});
