// Whoever publishes at the broker chooses ids, names, values and answers. All of it is text for this page.
import type { Page } from 'playwright-core';
import { Console } from './support/console.js';
import { expect, test } from './support/browser.js';
import { Peer } from './support/peer.js';
import { until } from './support/processes.js';

const kMarkup =
  '<img src=x onerror="alert(1)"><script>alert(2)</script><b class="injected">bold</b>' +
  '<a href="javascript:alert(3)">link</a><svg onload=alert(4)>&lt;i&gt;&amp;';
const kControls = '\u0001\u0007\u0008\u001b[31m\u007f\u0085\u009f\u202e\u2066\ufeff\ufffd"\'`\\\r\n\t';

/** Elements that no text may create: the page's own have none of these. */
async function injected(page: Page): Promise<string[]> {
  return page.evaluate(() =>
    [...document.querySelectorAll('img, .injected, a[href^="javascript:"], svg[onload], [onerror], iframe, object')]
      .map((element) => element.outerHTML)
      .concat(
        [...document.scripts].map((script) => script.text).filter((text) => text.startsWith('alert')),
      ),
  );
}

test('markup in ids, names, types, values and requests is shown as text', async ({
  broker,
  fleet,
  browsing,
}) => {
  const id = '<img src=x onerror=alert(1)><b class=injected>tv';
  const name = '<b class=injected>name<img src=x onerror=alert(1)>';
  const tv = fleet.add(id);
  await tv.describe({ [name]: 'string', odd: '<b class=injected>type' });
  await tv.online();
  await tv.value(name, kMarkup);
  await tv.value('odd', kMarkup);
  const page = await Console.open(browsing, broker.address);
  await expect.poll(() => page.fleetIds()).toEqual([id]);
  await page.filterByValue('<script>');
  await expect.poll(() => page.fleetIds()).toEqual([id]);
  expect(await injected(page.page)).toEqual([]);
  await page.filterByValue('');
  await page.openTelevision(id);
  await expect.poll(() => page.propertyText(name)).toContain('<script>alert(2)</script>');
  const peer = await Peer.connect(broker);
  await peer.client.publishAsync(
    `things/${id}/appdatachannel/set`,
    JSON.stringify({ [name]: kMarkup }),
    { qos: 1 },
  );
  await peer.end();
  await expect.poll(() => page.timelineText()).toContain('onerror');
  await page.filterTimeline('<script>');
  await expect.poll(() => page.timelineText()).toContain('<script>');
  expect(await injected(page.page)).toEqual([]);
});

test('markup in answers and in the words of the broker is shown as text', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  tv.onRequest = (request) => tv.answer(request, { error: `qz: ${kMarkup}` });
  await page.set({ qz: 'x' });
  await expect.poll(() => page.requestState()).toBe('refused');
  expect(await page.requestText()).toContain('<script>alert(2)</script>');
  tv.onRequest = (request) =>
    tv.answer(request, { result: 0, properties: { [kMarkup]: kMarkup, qz: kMarkup } });
  await page.set({ qz: 'y' });
  await expect.poll(() => page.requestState()).toBe('answered');
  expect(await page.requestText()).toContain('<img');
  expect(await injected(page.page)).toEqual([]);
});

test('control characters and turned directions stay inside their own text', async ({
  broker,
  fleet,
  browsing,
}) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string', after: 'string' });
  await tv.online();
  await tv.value('qz', `begin${kControls}end`);
  await tv.value('after', 'plain');
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('begin');
  // No raw control character is in what is shown, and no direction leaves its element.
  const text = await page.propertyText('qz');
  // eslint-disable-next-line no-control-regex
  expect(text).not.toMatch(/[\u0001-\u0008\u001b\u007f-\u009f\u202e\u2066]/);
  expect(text).toContain('end');
});

test('messages that are none of the channel\'s do no harm', async ({ broker, fleet, browsing }) => {
  const tv = fleet.add('tv');
  await tv.describe({ qz: 'string' });
  await tv.online();
  await tv.value('qz', 'before');
  const base = 'things/odd/appdatachannel';
  await fleet.publish('things/odd/status', '{"not": ["a", "status"]}');
  await fleet.publish(`${base}/properties`, '["no", "object"]');
  await fleet.publish(`${base}/value/a`, 'no JSON {');
  await fleet.publish(`${base}/value/b`, Buffer.from([0xff, 0xfe, 0x00]));
  await fleet.publish(`${base}/value/c`, '[[[[1]]]]');
  await fleet.publish(`${base}/value/d`, 'null');
  await fleet.publish('things/deep/appdatachannel/properties', '['.repeat(20_000));
  await fleet.publish('things/null/appdatachannel/properties', '{"a": null, "b": 7, "c": {"type": {}}}');
  await fleet.publish('things/proto/appdatachannel/properties',
    '{"__proto__": {"type": "string"}, "constructor": {"type": "string"}}');
  await fleet.publish('things/proto/status', '"online"');
  await fleet.publish('things/times/appdatachannel/value/a', '"x"', {
    properties: { userProperties: { time: ['yesterday', '2'], sequence: '-1e999', run: '' } },
  });
  const page = await Console.open(browsing, broker.address);
  await expect.poll(() => page.fleetIds()).toContain('tv');
  await expect.poll(() => page.fleetIds()).toContain('times');
  for (const id of ['odd', 'deep', 'null', 'times']) {
    await page.openTelevision(id);
    await page.backToFleet();
  }
  await tv.value('qz', 'after');
  await page.openTelevision('tv');
  await expect.poll(() => page.propertyText('qz')).toContain('after');
});

test('a property may have the name of a thing that objects have', async ({
  broker,
  television,
  browsing,
}) => {
  const types = JSON.parse('{"__proto__": "string", "constructor": "string"}') as Record<string, string>;
  const tv = await television('tv', types);
  tv.onRequest = (request) => tv.answer(request, { result: 0, properties: {} });
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set(JSON.parse('{"__proto__": "a", "constructor": "b"}') as Record<string, string>);
  const request = await until('the request', () => tv.requests[0]);
  expect(Object.entries(request.payload as object).sort()).toEqual([
    ['__proto__', 'a'],
    ['constructor', 'b'],
  ]);
});
