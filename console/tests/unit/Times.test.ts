import { describe, expect, it } from 'vitest';

import { clock, dayOf, timeOfDay } from '../../src/page/Times';

const kDate = new Date(2026, 2, 4, 5, 6, 7, 89); // local

describe('Times', () => {
  it('are of 24 hours, up to the unit that is asked for', () => {
    expect(timeOfDay(kDate, 'minutes')).toBe('05:06');
    expect(timeOfDay(kDate, 'seconds')).toBe('05:06:07');
    expect(timeOfDay(kDate, 'milliseconds')).toBe('05:06:07.089');
    expect(dayOf(kDate)).toBe('2026-03-04');
  });

  it('have the date when it is not today', () => {
    expect(clock(kDate.getTime(), true)).toBe('2026-03-04 05:06:07.089');
    const today = new Date();
    expect(clock(today.getTime())).toBe(timeOfDay(today, 'seconds'));
  });
});
