// The page with a real host, applications by gdbus.
import { Console } from './support/console.js';
import { expect, test } from './support/browser.js';

test('a set made in the page is seen by gdbus monitor, and what the application sends by the page', async ({
  startChannel,
  browsing,
}) => {
  const channel = await startChannel();
  const monitor = await channel.monitor();
  await channel.register('qz');
  await channel.send('qz', 'volume 7');
  const page = await Console.open(browsing, channel.broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 7');
  await page.set({ qz: 'volume 9' });
  await monitor.event('qz', 'volume 9');
  await expect.poll(() => page.requestState()).toBe('answered');
  expect(await page.requestText()).toContain('volume 7');
  expect(await page.requestData()).toMatch(/nothing yet/);
  await channel.send('qz', 'volume 9');
  await expect.poll(() => page.requestData()).toContain('volume 9');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 9');
});

test('the sign-in and the sign-up information of the page reach the applications', async ({
  startChannel,
  browsing,
}) => {
  const channel = await startChannel();
  const monitor = await channel.monitor();
  const page = await Console.open(browsing, channel.broker.address);
  await page.openTelevision('tv');
  await page.signIn(true);
  await monitor.signal(/cloud_connection_changed \(true,?\)/);
  expect(await channel.call('get_cloud_connection')).toBe('(true,)');
  await page.signUp('{"country": "KR"}');
  await expect.poll(() => page.requestState()).toBe('answered');
  expect(await channel.call('get_thing_information')).toContain('KR');
});

test('what the service refuses is shown in its words', async ({ startChannel, browsing }) => {
  const channel = await startChannel();
  await channel.register('qz');
  const page = await Console.open(browsing, channel.broker.address);
  await page.openTelevision('tv');
  await page.setFile('qz', Buffer.from([0xff, 0x00, 0xfe]));
  await expect.poll(() => page.requestState()).toBe('refused');
  expect(await page.requestText()).toMatch(/qz: bytes that are no text/);
});

test('what waits for a television that is offline is carried out when it is back', async ({
  startChannel,
  browsing,
}) => {
  const channel = await startChannel();
  await channel.register('qz');
  const page = await Console.open(browsing, channel.broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.heading()).toMatch(/online/i);
  await channel.stopHost();
  await expect.poll(() => page.heading()).toMatch(/offline/i);
  await page.signIn(true);
  await expect.poll(() => page.requestState()).toBe('waiting');
  await channel.startHost();
  await expect.poll(() => page.heading()).toMatch(/online/i);
  await expect.poll(() => page.requestState()).toBe('answered');
  expect(await channel.call('get_cloud_connection')).toBe('(true,)');
});

test('a host that is killed goes offline, and is back after its restart', async ({
  startChannel,
  browsing,
}) => {
  const channel = await startChannel();
  await channel.register('qz');
  await channel.send('qz', 'volume 7');
  const page = await Console.open(browsing, channel.broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('volume 7');
  await channel.stopHost('SIGKILL');
  await expect.poll(() => page.heading()).toMatch(/offline|lost/i);
  expect(await page.propertyText('qz')).toMatch(/stale/i);
  await channel.startHost();
  await expect.poll(() => page.heading()).toMatch(/online/i);
  await expect.poll(() => page.timelineText()).toMatch(/restart/i);
});
