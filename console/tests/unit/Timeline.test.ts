import { describe, expect, it } from 'vitest';

import { kEntryTextLimit } from '../../src/model/Entry';
import { Timeline } from '../../src/model/Timeline';

function filled(count: number, capacity = 10): Timeline {
  const timeline = new Timeline(capacity);
  for (let i = 0; i < count; i++) {
    timeline.add({
      at: i,
      kind: i % 2 === 0 ? 'value' : 'set',
      property: i % 2 === 0 ? 'qz' : undefined,
      text: `n${i}`,
    });
  }
  return timeline;
}

describe('Timeline', () => {
  it('has the newest first, and drops the oldest', () => {
    expect(
      filled(12, 3)
        .select('')
        .map(({ text }) => text),
    ).toEqual(['n11', 'n10', 'n9']);
    expect(filled(12, 3).dropped).toBe(9);
  });

  it('filters by kind and text', () => {
    expect(
      filled(5)
        .select('', 'set')
        .map(({ text }) => text),
    ).toEqual(['n3', 'n1']);
    expect(
      filled(5)
        .select('QZ')
        .map(({ text }) => text),
    ).toEqual(['n4', 'n2', 'n0']);
    expect(
      filled(5)
        .select('n3')
        .map(({ text }) => text),
    ).toEqual(['n3']);
  });

  it('shows what it had when it was paused, and records on', () => {
    const timeline = filled(2);
    timeline.pause();
    timeline.add({ at: 9, kind: 'status', text: 'online' });
    expect(timeline.select('')).toHaveLength(2);
    timeline.resume();
    expect(timeline.select('')).toHaveLength(3);
  });

  it('cuts long texts', () => {
    const timeline = new Timeline(2);
    timeline.add({ at: 0, kind: 'value', text: 'x'.repeat(1000) });
    expect(timeline.select('')[0]!.text).toHaveLength(kEntryTextLimit + 1);
  });

  it('exports one JSON object per line, oldest first', () => {
    const timeline = filled(2);
    timeline.add({ at: 2, kind: 'value', property: 'qz', text: 'two\nlines <b>', sequence: 4, notifiedAt: 1 });
    const lines = Timeline.toNdjson('tv', timeline.select(''))
      .trimEnd()
      .split('\n')
      .map((line) => JSON.parse(line) as object);
    expect(lines).toHaveLength(3);
    expect(lines[2]).toEqual({
      at: '1970-01-01T00:00:00.002Z',
      notifiedAt: '1970-01-01T00:00:00.001Z',
      kind: 'value',
      property: 'qz',
      text: 'two\nlines <b>',
      sequence: 4,
      thing: 'tv',
    });
  });
});
