import { setFlagsFromString } from 'node:v8';
import { runInNewContext } from 'node:vm';
import { describe, expect, it } from 'vitest';

import { beginningOf } from '../../src/model/beginningOf';
import { Fleet, kCutLength } from '../../src/model/Fleet';
import { Value } from '../../src/model/Value';
import { rawMessage } from './messages';

const kTexts = 50;
const kLength = 200_000;

setFlagsFromString('--expose-gc');
const collect = runInNewContext('gc') as () => void;

// Bytes that are in use more after making these than before.
function cost<T>(make: (long: string) => T): number {
  collect();
  const before = process.memoryUsage().heapUsed;
  const made = Array.from({ length: kTexts }, (_, i) => make(String(i).padEnd(kLength, '.')));
  collect();
  const after = process.memoryUsage().heapUsed;
  expect(made).toHaveLength(kTexts);
  return after - before;
}

describe('beginningOf', () => {
  it('has the first characters', () => {
    expect(beginningOf('abc', 2)).toBe('ab');
    expect(beginningOf('abc', 3)).toBe('abc');
    expect(beginningOf('a\ud83d\ude00', 2)).toBe('a\ud83d');
  });

  it('does not keep the rest', () => {
    expect(cost((long) => beginningOf(long, 100))).toBeLessThan((kTexts * kLength) / 4);
  });
});

describe('what is cut does not keep the rest', () => {
  it('of a value', () => {
    expect(cost((long) => Value.parse(JSON.stringify(long)).cut(kCutLength))).toBeLessThan((kTexts * kLength) / 4);
  });

  it('of a timeline, a run and a sign-up information', () => {
    const fleet = new Fleet();
    const used = cost((long) => {
      const set = `{"signupInfo":"twenty characters ..","qz":"${long}"}`;
      fleet.take(rawMessage('things/tv/appdatachannel/set', set));
      fleet.take(rawMessage(`things/tv-${long.slice(0, 2)}/appdatachannel/set`, set));
      fleet.take(rawMessage('things/tv/status', '"online"', { user: { run: long } }));
      fleet.take(rawMessage('things/tv/appdatachannel/properties', `${long} no description`));
    });
    expect(used).toBeLessThan((kTexts * kLength) / 4);
  });
});
