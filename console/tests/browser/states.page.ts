import { Console } from './support/console.js';
import { expect, kFile, test } from './support/browser.js';
import { kKey, kOtherUser, kUser } from './support/broker.js';
import { fillFleet } from './support/fill.js';
import { Fleet, Television } from './support/televisions.js';
import { pathToFileURL } from 'node:url';

test('with a wrong key nothing is shown, and the page says so', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('secret-tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  const page = await Console.open(browsing, `${broker.origin}/#key=wrong`);
  await expect.poll(() => page.connectionText()).toMatch(/key|password|not authori[sz]ed|refuse/i);
  expect(await page.bodyText()).not.toContain('secret-tv');
});

test('without a key nothing is shown, and the page asks for one', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('secret-tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  const page = await Console.open(browsing, `${broker.origin}/`);
  await page.form();
  expect(await page.bodyText()).not.toContain('secret-tv');
});

test('the key is in no request, and no request leaves the page\'s origin', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  const { requests, sockets } = page.opened.watch;
  const outside = requests.filter(
    (url) => !url.startsWith(`${broker.origin}/`) && !/^(data|blob):/.test(url),
  );
  expect(outside).toEqual([]);
  expect(requests.filter((url) => url.startsWith(broker.origin))).toHaveLength(1);
  expect(sockets.map((url) => new URL(url).host)).toEqual([new URL(broker.origin).host]);
  expect([...requests.map((url) => url.split('#')[0]), ...sockets].join(' ')).not.toContain(kKey);
});

test('the connection form connects, from the disk, to the broker that is given', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  const page = await Console.open(browsing, pathToFileURL(kFile).href);
  await page.form();
  await page.connect(broker.webSocket, kUser, kKey);
  await expect.poll(() => page.fleetIds()).toEqual(['tv']);
  const outside = page.opened.watch.requests.filter((url) => !/^(file|data|blob):/.test(url));
  expect(outside).toEqual([]);
});

test('nothing of another user stays when the user changes', async ({ startBroker, browsing }) => {
  const broker = await startBroker({
    access: [
      `user ${kUser}`,
      'topic read things/#',
      'topic read console/#',
      `user ${kOtherUser}`,
      'topic read console/#',
    ],
  });
  const tv = await Television.connect(broker, 'tv', { qz: 'string' });
  try {
    const page = await Console.open(browsing, broker.address);
    await expect.poll(() => page.fleetIds()).toEqual(['tv']);
    await page.page.getByRole('link', { name: 'Connection', exact: true }).click();
    await page.connect(broker.webSocket, kOtherUser, kKey);
    await page.backToFleet();
    await expect.poll(() => page.bodyText()).toContain(`${kOtherUser} at`);
    await expect.poll(() => page.connectionState()).toBe('online');
    expect(await page.fleetIds()).toEqual([]);
  } finally {
    await tv.end();
  }
});

test('the fragment names the broker, from the disk', async ({ broker, fleet, browsing }) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  const fragment = new URLSearchParams({ broker: broker.webSocket, user: kUser, key: kKey });
  const page = await Console.open(browsing, `${pathToFileURL(kFile).href}#${fragment}`);
  await expect.poll(() => page.fleetIds()).toEqual(['tv']);
});

test('the page is read-only, and says so, when the broker refuses to publish', async ({
  startBroker,
  browsing,
}) => {
  const broker = await startBroker({
    access: [`user ${kUser}`, 'topic read things/#', 'topic read console/#'],
  });
  const tv = await Television.connect(broker, 'tv', { qz: 'string' });
  try {
    const page = await Console.open(browsing, broker.address);
    await page.openTelevision('tv');
    await page.set({ qz: 'x' });
    await expect.poll(() => page.requestState()).toBe('refused');
    expect(await page.requestText()).toMatch(/not authori[sz]ed/i);
    expect(tv.requests).toEqual([]);
    // It stays so when the connection comes back: some brokers close it after such a refusal.
    await broker.kill();
    await expect.poll(() => page.connectionState()).not.toBe('online');
    await broker.startAgain();
    await expect.poll(() => page.connectionState()).toBe('online');
    await expect.poll(() => page.bodyText()).toMatch(/read-only/i);
  } finally {
    await tv.end().catch(() => {});
  }
});

test('a lost broker is told with the reason and the next attempt; then all is right again', async ({
  startBroker,
  browsing,
}) => {
  const broker = await startBroker();
  const before = await Fleet.connect(broker);
  const old = before.add('tv');
  await old.describe({ qz: 'string' });
  await old.online();
  await old.value('qz', 'volume 7');
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.connectionState()).toBe('online');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 7');
  await broker.kill();
  await before.end().catch(() => {});
  await expect.poll(() => page.connectionText()).toMatch(/lost/i);
  await expect.poll(() => page.connectionText()).toMatch(/(in|again).*\d+ ?s|attempt|now/i);
  await expect.poll(() => page.bodyText()).toMatch(/may be stale/i);
  await broker.startAgain();
  // The broker kept nothing; the television says again what it has.
  const after = await Fleet.connect(broker);
  const tv = after.add('tv');
  tv.run = old.run;
  await tv.describe({ qz: 'string' });
  await tv.online();
  tv.sequences.set('qz', 1);
  await tv.value('qz', 'volume 7', 2);
  await expect.poll(() => page.connectionText(), { timeout: 60_000 }).not.toMatch(/lost/i);
  await expect.poll(() => page.propertyText('qz')).not.toMatch(/stale/i);
  expect(await page.propertyText('qz')).toMatch(/2 missed/);
  expect(await page.propertyText('qz')).not.toMatch(/replaced/);
  await tv.value('qz', 'volume 8');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 8');
  await after.end();
});

test('a request that a lost connection leaves open does not count as answered', async ({
  startBroker,
  browsing,
}) => {
  const broker = await startBroker();
  const tv = await Television.connect(broker, 'tv', { qz: 'string' });
  tv.onRequest = async () => {};
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ qz: 'x' });
  await expect.poll(() => page.requestState()).toBe('delivered');
  await broker.kill();
  await expect.poll(() => page.connectionText()).toMatch(/lost/i);
  expect(await page.requestState()).not.toBe('answered');
  await tv.end().catch(() => {});
});

test('a broker that drops some of what it kept is told', async ({ startBroker, browsing }) => {
  // The default of mosquitto. It drops what goes beyond, the acknowledgements of subscriptions alike.
  const broker = await startBroker({ queued: 1_000 });
  const fleet = await Fleet.connect(broker);
  await fillFleet(fleet, 1_200);
  await fleet.end();
  const page = await Console.open(browsing, broker.address);
  await expect.poll(() => page.bodyText(), { timeout: 40_000 }).toContain('max_queued_messages');
});

test('the next attempt is made at once when asked for', async ({ startBroker, browsing }) => {
  const broker = await startBroker();
  const page = await Console.open(browsing, broker.address);
  await expect.poll(() => page.connectionState()).toBe('online');
  await broker.kill();
  // After some attempts the next one is far away.
  await expect
    .poll(() => page.connectionText(), { timeout: 60_000 })
    .toMatch(/next attempt in ([5-9]|\d\d) s/);
  await broker.startAgain();
  await page.page.getByRole('button', { name: 'Try now' }).click();
  await expect.poll(() => page.connectionState(), { timeout: 3_000 }).toBe('online');
});
