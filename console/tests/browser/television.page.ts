import { Console } from './support/console.js';
import { expect, test } from './support/browser.js';

test('a property has its type, its value and when it was notified', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('tv', () => new Date('2026-11-22T08:03:45.123Z'));
  await tv.describe({ qz: 'string', count: 'int' });
  await tv.online();
  await tv.value('qz', 'volume 7');
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 7');
  const text = await page.propertyText('qz');
  expect(text).toContain('string');
  expect(text).toMatch(/0?8:03:45/);
  expect(await page.propertyText('count')).toContain('int');
  expect(await page.propertyText('signinStatus')).toContain('bool');
});

test('a long value is cut, and whole on demand', async ({ broker, fleet, browsing }) => {
  const long = `begin ${'x'.repeat(50_000)} end of it`;
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  await tv.value('qz', long);
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('begin');
  expect(await page.propertyText('qz')).not.toContain('end of it');
  expect((await page.propertyText('qz')).length).toBeLessThan(2_000);
  expect(await page.wholeValue('qz')).toContain(long);
});

test('values that were replaced before they could be sent are shown as a gap', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  await tv.value('qz', 'one');
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('one');
  expect(await page.propertyText('qz')).not.toMatch(/replaced|missed|gap/i);
  await tv.value('qz', 'five', 3);
  await expect.poll(() => page.propertyText('qz')).toContain('five');
  expect(await page.propertyText('qz')).toMatch(/\b3\b/);
  await expect.poll(() => page.timelineText()).toMatch(/\b3\b.*(replaced|missed|missing|gap)/i);
});

test('a number and a boolean are drawn over time, a text is not', async ({
  broker,
  fleet,
  browsing,
}) => {
  let seconds = 0;
  const tv = fleet.add('tv', () => new Date(Date.UTC(2026, 10, 22, 8, 0, seconds++)));
  await tv.describe({ qz: 'string', flag: 'string', words: 'string' });
  await tv.online();
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  for (let i = 0; i < 20; i++) await tv.value('qz', String(i % 5));
  await tv.value('flag', 'true');
  await tv.value('flag', 'false');
  await tv.value('words', 'volume seven');
  await expect.poll(() => page.propertyText('words')).toContain('volume seven');
  await expect.poll(() => page.plotInk('qz')).toBeGreaterThan(20);
  await expect.poll(() => page.plotInk('flag')).toBeGreaterThan(20);
  expect(await page.plotInk('words')).toBe(0);
});

test('a value that is removed is gone, and the timeline says so', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  await tv.value('qz', 'volume 7');
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 7');
  await tv.remove('qz');
  await expect.poll(() => page.propertyText('qz')).not.toContain('volume 7');
  await expect.poll(() => page.timelineText()).toMatch(/removed/i);
});

test('the timeline stands still while it is paused, and has all when it goes on', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await tv.value('qz', 'before');
  await expect.poll(() => page.timelineText()).toContain('before');
  await page.pauseTimeline();
  await tv.value('qz', 'meanwhile');
  await expect.poll(() => page.propertyText('qz')).toContain('meanwhile');
  expect(await page.timelineText()).not.toContain('meanwhile');
  await page.resumeTimeline();
  await expect.poll(() => page.timelineText()).toContain('meanwhile');
});

test('the timeline is filtered by text and kind', async ({ broker, fleet, browsing }) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string', qmap: 'string' });
  await tv.online();
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await tv.value('qz', 'apple');
  await tv.value('qmap', 'pear');
  await expect.poll(() => page.timelineText()).toContain('pear');
  await page.filterTimeline('apple');
  await expect.poll(() => page.timelineText()).not.toContain('pear');
  expect(await page.timelineText()).toContain('apple');
  await page.filterTimeline('');
  await page.filterTimelineKind('status');
  await expect.poll(() => page.timelineText()).not.toContain('apple');
  expect(await page.timelineText()).toMatch(/online/);
});

test('the export is NDJSON with every entry, oldest first', async ({ broker, fleet, browsing }) => {
  const tv = fleet.add('tv', () => new Date('2026-11-22T08:03:45.123Z'));
  await tv.describe({ qz: 'string' });
  await tv.online();
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  const odd = 'line\nbreak "quoted" \u2028 \u0007 <b>';
  await tv.value('qz', 'first');
  await tv.value('qz', odd);
  await expect.poll(() => page.propertyText('qz')).toContain('quoted');
  const text = await page.exportTimeline();
  expect(text.endsWith('\n')).toBe(true);
  const entries = text
    .trimEnd()
    .split('\n')
    .map((line) => JSON.parse(line) as Record<string, unknown>);
  const values = entries.filter((entry) => entry.kind === 'value');
  expect(values.map((entry) => entry.text)).toEqual(['first', odd]);
  expect(values[0]).toMatchObject({
    thing: 'tv',
    property: 'qz',
    sequence: 1,
    notifiedAt: '2026-11-22T08:03:45.123Z',
  });
  expect(values[1]).toMatchObject({ sequence: 2 });
  const times = entries.map((entry) => Date.parse(String(entry.at)));
  expect(times).toEqual([...times].sort((a, b) => a - b));
});

test('values of a television that is offline are marked stale, until it is back', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  await tv.voice.value('qz', 'volume 7');
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 7');
  expect(await page.propertyText('qz')).not.toMatch(/stale/i);
  await tv.kill();
  await expect.poll(() => page.heading()).toMatch(/offline|lost/i);
  await expect.poll(() => page.propertyText('qz')).toMatch(/stale/i);
  expect(await page.propertyText('qz')).toContain('volume 7');
  await television('tv', { qz: 'string' });
  await expect.poll(() => page.heading()).toMatch(/online/i);
  expect(await page.propertyText('qz')).not.toMatch(/stale/i);
});

test('a restart of the host is told by its run', async ({ broker, fleet, browsing }) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  await tv.value('qz', 'volume 7');
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 7');
  expect(await page.timelineText()).not.toMatch(/restart/i);
  await tv.offline(false);
  await tv.online();
  await expect.poll(() => page.heading()).toMatch(/online/i);
  expect(await page.timelineText()).not.toMatch(/restart/i);
  await tv.restart({ qz: 'string' });
  await expect.poll(() => page.timelineText()).toMatch(/restart/i);
});
