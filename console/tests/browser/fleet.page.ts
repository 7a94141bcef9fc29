import { Console } from './support/console.js';
import { expect, test } from './support/browser.js';

test('the fleet has every television that the broker knows, with its state', async ({
  broker,
  fleet,
  browsing,
}) => {
  const on = fleet.add('kitchen-on');
  await on.describe({ qz: 'string', qmap: 'string' });
  await on.online();
  await on.value('qz', 'volume 7');
  const off = fleet.add('hall-off');
  await off.describe({ qz: 'string' });
  await off.offline();
  const lost = fleet.add('attic-lost');
  await lost.offline(false);

  const page = await Console.open(browsing, broker.address);
  await expect.poll(() => page.fleetIds()).toEqual(['attic-lost', 'hall-off', 'kitchen-on']);
  expect(await page.fleetText('kitchen-on')).toMatch(/online/i);
  expect(await page.fleetText('hall-off')).toMatch(/offline/i);
  expect(await page.fleetText('hall-off')).not.toMatch(/lost/i);
  expect(await page.fleetText('attic-lost')).toMatch(/lost/i);
  expect(await page.counts()).toEqual({ all: 3, online: 1, offline: 1, lost: 1 });
});

test('a television that comes later appears, and its changes are seen at once', async ({
  broker,
  fleet,
  browsing,
}) => {
  const page = await Console.open(browsing, broker.address);
  await page.ready();
  const tv = fleet.add('late');
  await tv.describe({ qz: 'string' });
  await tv.online();
  await expect.poll(() => page.fleetIds()).toEqual(['late']);
  await expect.poll(() => page.fleetText('late')).toMatch(/online/i);
  await tv.offline(false);
  await expect.poll(() => page.fleetText('late')).toMatch(/offline|lost/i);
  await tv.online();
  await expect.poll(() => page.counts()).toEqual({ all: 1, online: 1, offline: 0, lost: 0 });
});

test('the fleet is filtered by id, state and value, and the counts follow', async ({
  broker,
  fleet,
  browsing,
}) => {
  for (const [id, online, value] of [
    ['north-1', true, 'volume 7'],
    ['north-2', false, 'volume 8'],
    ['south-1', true, 'channel 4'],
  ] as const) {
    const tv = fleet.add(id);
    await tv.describe({ qz: 'string' });
    await tv.value('qz', value);
    await (online ? tv.online() : tv.offline());
  }
  const page = await Console.open(browsing, broker.address);
  await expect.poll(() => page.fleetIds()).toHaveLength(3);
  await page.filterById('north');
  await expect.poll(() => page.fleetIds()).toEqual(['north-1', 'north-2']);
  await page.filterByState('online');
  await expect.poll(() => page.fleetIds()).toEqual(['north-1']);
  await page.filterById('');
  await expect.poll(() => page.fleetIds()).toEqual(['north-1', 'south-1']);
  await page.filterByState('offline');
  await expect.poll(() => page.fleetIds()).toEqual(['north-2']);
  await page.filterByState('any');
  await page.filterByValue('channel');
  await expect.poll(() => page.fleetIds()).toEqual(['south-1']);
  await page.filterByValue('nothing has this');
  await expect.poll(() => page.fleetIds()).toEqual([]);
  expect(await page.counts()).toMatchObject({ all: 3 });
  await page.filterByValue('');
  await expect.poll(() => page.fleetIds()).toHaveLength(3);
});

test('a click on a heading sorts by it, and a second one the other way', async ({
  broker,
  fleet,
  browsing,
}) => {
  // Ids with numbers in them are in the order of people.
  for (const [id, online, names] of [
    ['tv-10', false, ['qz']],
    ['tv-9', true, ['qz', 'qmap', 'vexBrowser']],
    ['tv-1', true, ['qz', 'qmap']],
  ] as const) {
    const tv = fleet.add(id);
    await tv.describe(Object.fromEntries(names.map((name) => [name, 'string'])));
    await (online ? tv.online() : tv.offline());
  }
  const page = await Console.open(browsing, broker.address);
  await expect.poll(() => page.fleetIds()).toEqual(['tv-1', 'tv-9', 'tv-10']);
  await page.sortBy('Television');
  await expect.poll(() => page.fleetIds()).toEqual(['tv-10', 'tv-9', 'tv-1']);
  await page.sortBy('Properties');
  await expect.poll(() => page.fleetIds()).toEqual(['tv-9', 'tv-1', 'tv-10']);
  await page.sortBy('Properties');
  await expect.poll(() => page.fleetIds()).toEqual(['tv-10', 'tv-1', 'tv-9']);
  await page.sortBy('State');
  await expect.poll(() => page.fleetIds()).toEqual(['tv-1', 'tv-9', 'tv-10']);
});
