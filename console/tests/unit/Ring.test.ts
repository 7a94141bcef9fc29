import { describe, expect, it } from 'vitest';

import { Ring } from '../../src/model/Ring';

function filled(capacity: number, count: number): Ring<number> {
  const ring = new Ring<number>(capacity);
  for (let i = 0; i < count; i++) ring.add(i);
  return ring;
}

describe('Ring', () => {
  it('keeps the last items in order', () => {
    expect(filled(3, 2).toArray()).toEqual([0, 1]);
    expect(filled(3, 8).toArray()).toEqual([5, 6, 7]);
  });

  it('has each item at its place', () => {
    const ring = filled(3, 7);
    expect([ring.at(-1), ring.at(0), ring.at(2), ring.at(3)]).toEqual([undefined, 4, 6, undefined]);
  });

  it('counts what was added', () => {
    expect(filled(3, 7).added).toBe(7);
    expect(filled(3, 7).length).toBe(3);
  });

  it('gives the oldest, and goes on', () => {
    const ring = filled(3, 5);
    expect(ring.shift()).toBe(2);
    ring.add(5);
    ring.add(6);
    expect(ring.toArray()).toEqual([4, 5, 6]);
    expect(new Ring<number>(2).shift()).toBeUndefined();
  });

  it('drops the oldest when it shrinks, and goes on', () => {
    const ring = filled(4, 6);
    ring.setCapacity(2);
    expect(ring.toArray()).toEqual([4, 5]);
    ring.add(6);
    expect(ring.toArray()).toEqual([5, 6]);
  });

  it('keeps all when it grows, and goes on', () => {
    const ring = filled(2, 5);
    ring.setCapacity(4);
    for (const item of [5, 6, 7]) ring.add(item);
    expect(ring.toArray()).toEqual([4, 5, 6, 7]);
  });
});
