import { describe, expect, it } from 'vitest';

import { Budget, kMaxPoints, kMinPointsPerProperty, kPointsPerProperty } from '../../src/model/Budget';
import { Property } from '../../src/model/Property';
import { message, value } from './messages';

function user(sequence: number, run = 'a'): Record<string, string> {
  return { sequence: String(sequence), run, time: '2026-11-22T08:03:45.123Z' };
}

describe('Property', () => {
  it('knows when its value was notified', () => {
    const property = new Property('qz');
    property.take(value('tv', 'qz', 'volume 7', { user: user(1) }));
    expect(property.value?.text).toBe('volume 7');
    expect(property.notifiedAt).toBe(Date.UTC(2026, 10, 22, 8, 3, 45, 123));
  });

  it('counts the values that a gap of the sequence replaced', () => {
    const property = new Property('qz');
    property.take(value('tv', 'qz', 'a', { user: user(3) }));
    expect(property.replaced).toBe(0);
    expect(property.take(value('tv', 'qz', 'b', { user: user(4) })).replaced).toBe(0);
    expect(property.take(value('tv', 'qz', 'c', { user: user(9) })).replaced).toBe(4);
    expect(property.replaced).toBe(4);
  });

  it('does not call replaced what came while the page was not connected', () => {
    for (const retained of [true, false]) {
      const property = new Property('qz');
      property.take(value('tv', 'qz', 'a', { user: user(3) }));
      property.isUnconfirmed = true; // the connection came back
      expect(property.take(value('tv', 'qz', 'b', { retained, user: user(9) }))).toMatchObject({
        replaced: 0,
        missed: 5,
      });
      property.take(value('tv', 'qz', 'c', { user: user(11) }));
      expect(property).toMatchObject({ replaced: 1, missed: 5 });
    }
  });

  it('sees no gap across a restart of the host', () => {
    const property = new Property('qz');
    property.take(value('tv', 'qz', 'a', { user: user(3) }));
    expect(property.take(value('tv', 'qz', 'b', { user: user(8, 'other') })).replaced).toBe(0);
  });

  it('takes the same value published again as a repetition', () => {
    const property = new Property('qz');
    property.take(value('tv', 'qz', '5', { user: user(3) }));
    expect(property.take(value('tv', 'qz', '5', { user: user(3) })).arrival).toBe('repeated');
    expect(property.points).toHaveLength(1);
  });

  it('takes an equal value with a later sequence as a new one', () => {
    const property = new Property('qz');
    property.take(value('tv', 'qz', '5', { user: user(3) }));
    expect(property.take(value('tv', 'qz', '5', { user: user(4) })).arrival).toBe('new');
    expect(property.points).toHaveLength(2);
  });

  it('takes a value again after it was removed, although the sequence is the same', () => {
    const property = new Property('qz');
    property.take(value('tv', 'qz', 'a', { user: user(3) }));
    expect(property.take(message('', '')).arrival).toBe('removed');
    expect(property.value).toBeNull();
    expect(property.take(value('tv', 'qz', 'a', { user: user(3) })).arrival).toBe('new');
  });

  it('keeps a bounded number of points', () => {
    const property = new Property('qz');
    for (let i = 1; i <= kPointsPerProperty + 10; i++) property.take(value('tv', 'qz', String(i), { user: user(i) }));
    expect(property.points).toHaveLength(kPointsPerProperty);
    expect(property.points[0]!.value).toBe(11);
  });

  it('keeps fewer points when many properties have some', () => {
    const budget = new Budget();
    const first = new Property('first', budget);
    for (let i = 1; i <= kPointsPerProperty; i++) first.take(value('tv', 'first', String(i), { user: user(i) }));
    for (let i = 0; i < (2 * kMaxPoints) / kPointsPerProperty; i++)
      new Property('qz', budget).take(value('tv', 'qz', '1'));
    first.take(value('tv', 'first', '0', { user: user(kPointsPerProperty + 1) }));
    expect(first.pointsKept).toBeLessThan(kPointsPerProperty);
    expect(first.pointsKept).toBeGreaterThanOrEqual(kMinPointsPerProperty);
    expect(first.points.at(-1)!.value).toBe(0);
  });

  it('draws booleans and strings that are numbers, and nothing else', () => {
    const numberOf = (data: unknown) => {
      const property = new Property('qz');
      property.take(value('tv', 'qz', data));
      return property.points[0]?.value;
    };
    expect([true, 'false', '7', '-1.5e3', 4].map(numberOf)).toEqual([1, 0, 7, -1500, 4]);
    expect(['', 'volume 7', '0x10', '1 2', 'Infinity', { a: 1 }, '9'.repeat(40)].map(numberOf)).toEqual(
      Array(7).fill(undefined),
    );
  });
});
