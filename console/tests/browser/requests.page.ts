import { Console } from './support/console.js';
import { expect, test } from './support/browser.js';
import { Peer } from './support/peer.js';
import { until } from './support/processes.js';

test('an answered set is a row with its code in words; that the application sent its data comes apart', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  await tv.voice.value('qz', 'volume 7');
  let confirm: (() => Promise<void>) | undefined;
  tv.onRequest = async (request) => {
    await tv.answerBefore(request);
    confirm = () => tv.confirm(request);
  };
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ qz: 'volume 9' });
  await expect.poll(() => page.requestState()).toBe('answered');
  const answered = await page.requestText();
  expect(answered).toMatch(/done/i);
  expect(answered).toContain('volume 7');
  expect(await page.requestData()).toMatch(/nothing yet/);
  await (await until('the request', () => confirm))();
  await expect.poll(() => page.requestData()).toContain('volume 9');
});

test('a request goes out as the contract has it', async ({ broker, television, browsing }) => {
  const tv = await television('tv', { qz: 'string' });
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ qz: 'volume 9' }, { qos: 1, expirySeconds: 90 });
  const request = await until('the request', () => tv.requests[0]);
  expect(request).toMatchObject({ operation: 'set', payload: { qz: 'volume 9' }, qos: 1 });
  expect(request.expiry).toBeGreaterThan(85);
  expect(request.expiry).toBeLessThanOrEqual(90);
  expect(request.responseTopic).toMatch(/^[^$+#][^+#]*$/);
  expect(request.responseTopic).not.toMatch(/^things\//);
  expect(request.correlation).toMatch(/^(..){8,}$/);
});

for (const qos of [0, 2] as const) {
  test(`a request has the QoS that was chosen: ${qos}`, async ({ broker, television, browsing }) => {
    const tv = await television('tv', { qz: 'string' });
    const page = await Console.open(browsing, broker.address);
    await page.openTelevision('tv');
    await page.set({ qz: 'a' }, { qos });
    expect((await until('the request', () => tv.requests[0])).qos).toBe(qos);
    await expect.poll(() => page.requestState()).toBe('answered');
  });
}

test('several properties go in one request, each as its announced type', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', {
    text: 'string',
    flag: 'bool',
    count: 'int',
    ratio: 'double',
    tree: 'json',
  });
  tv.onRequest = (request) => tv.answerBefore(request);
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ text: '7', flag: true, count: -5, ratio: 0.25, tree: '{"a": [1, null]}' });
  const request = await until('the request', () => tv.requests[0]);
  expect(request.payload).toEqual({
    text: '7',
    flag: true,
    count: -5,
    ratio: 0.25,
    tree: { a: [1, null] },
  });
  await expect.poll(() => page.requestState()).toBe('answered');
});

test('bytes come from a file', async ({ broker, television, browsing }) => {
  const tv = await television('tv', { blob: 'bytes' });
  tv.onRequest = (request) => tv.answerBefore(request);
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.setFile('blob', Buffer.from([0, 255, 10, 60]));
  const request = await until('the request', () => tv.requests[0]);
  expect(request.payload).toEqual({ blob: { $bytes: 'AP8KPA==' } });
});

test('what a property cannot take is said before it goes, and nothing is sent', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { count: 'int', tree: 'json', text: 'string' });
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  expect(await page.refusal({ tree: '{"a": ' })).toMatch(/not valid JSON/);
  expect(await page.refusal({ count: '2147483648' })).toContain('2147483647');
  expect(await page.refusal({ count: '1.5' })).toMatch(/whole number/);
  await page.set({ text: 'the first that goes' });
  await expect.poll(() => page.requestState()).toBe('answered');
  expect(tv.requests).toHaveLength(1);
  expect(tv.requests[0]?.payload).toEqual({ text: 'the first that goes' });
});

test('a get reads the properties that were chosen', async ({ broker, television, browsing }) => {
  const tv = await television('tv', { qz: 'string', qmap: 'string' });
  await tv.voice.value('qz', 'volume 7');
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.get(['qz', 'qmap']);
  const request = await until('the request', () => tv.requests[0]);
  expect(request.operation).toBe('get');
  expect([...(request.payload as string[])].sort()).toEqual(['qmap', 'qz']);
  await expect.poll(() => page.requestState()).toBe('answered');
  expect(await page.requestText()).toContain('volume 7');
});

for (const [name, answer, state, words] of [
  ['refused, with the words of the service', { error: 'qz: null' }, 'refused', /qz: null/],
  ['busy', { error: 'busy' }, 'busy', /busy/i],
  [
    'timed out',
    { error: 'the request was not answered in time' },
    'timed out',
    /(not answered|timed out)/i,
  ],
  ['unknown in part', { result: 6, properties: {} }, 'answered', /unknown/i],
] as const) {
  test(`a request can be ${name}`, async ({ broker, television, browsing }) => {
    const tv = await television('tv', { qz: 'string' });
    tv.onRequest = (request) => tv.answer(request, answer);
    const page = await Console.open(browsing, broker.address);
    await page.openTelevision('tv');
    await page.set({ qz: 'x' });
    await expect.poll(() => page.requestState()).toBe(state);
    expect(await page.requestText()).toMatch(words);
  });
}

test('a cancel names its request, which then counts as cancelled', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  tv.onRequest = async () => {};
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ qz: 'x' });
  await expect.poll(() => page.requestState()).toBe('delivered');
  const set = await until('the request', () => tv.requests[0]);
  await page.cancel();
  const cancel = await until('the cancel', () => tv.requests[1]);
  expect(cancel).toMatchObject({ operation: 'cancel', correlation: set.correlation });
  await expect.poll(() => page.requestState()).toBe('cancelled');
});

test('answers find their requests by Correlation Data, in any order, and others are ignored', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  tv.onRequest = async () => {};
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ qz: 'first' });
  await page.set({ qz: 'second' });
  await until('both requests', () => tv.requests.length === 2);
  const [first, second] = tv.requests;
  await tv.answer({ ...first!, correlation: '0011223344556677' }, { error: 'for nobody' });
  await tv.answer({ ...first!, correlation: undefined }, { error: 'for nobody' });
  await tv.answer(second!, { error: 'second is refused' });
  await expect.poll(() => page.requestState(0)).toBe('refused');
  expect(await page.requestState(1)).toBe('delivered');
  await tv.answer(first!, { result: 0, properties: {} });
  await expect.poll(() => page.requestState(1)).toBe('answered');
  // An answer at QoS 1 may come twice.
  await tv.answer(first!, { error: 'too late' });
  await tv.voice.value('qz', 'after all that');
  await expect.poll(() => page.propertyText('qz')).toContain('after all that');
  expect(await page.requestState(1)).toBe('answered');
  expect(await page.bodyText()).not.toContain('for nobody');
});

test('a request for a television that is offline waits at the broker, with its time to live', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  await tv.kill();
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await expect.poll(() => page.heading()).toMatch(/offline|lost/i);
  await page.set({ qz: 'x' }, { qos: 2, expirySeconds: 600 });
  await expect.poll(() => page.requestState()).toBe('waiting');
  expect(await page.requestText()).toMatch(/waits/i);
  expect(await page.requestText()).toMatch(/10 min|9 min/);
});

test('sign-in and sign-up have controls of their own, with the hint that they are lost', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  tv.onRequest = (request) => tv.answerBefore(request);
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  expect(await page.bodyText()).toMatch(/restart/i);
  await page.signIn(true);
  await until('the sign-in', () => tv.requests.length === 1);
  expect(tv.requests[0]?.payload).toEqual({ signinStatus: true });
  await page.signIn(false);
  await until('the sign-out', () => tv.requests.length === 2);
  expect(tv.requests[1]?.payload).toEqual({ signinStatus: false });
  await page.signUp('{"country": "KR", "ids": [1, 2]}');
  await until('the sign-up', () => tv.requests.length === 3);
  expect(tv.requests[2]?.payload).toEqual({ signupInfo: { country: 'KR', ids: [1, 2] } });
});

test('a request that nobody answers ends when the page gives up', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  tv.onRequest = async () => {};
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ qz: 'x' }, { giveUpSeconds: 1 });
  await expect.poll(() => page.requestState()).toBe('timed out');
  // An answer that comes all the same is shown as late.
  await tv.answer(tv.requests[0]!, { result: 0, properties: { qz: '' } });
  await expect.poll(() => page.requestText()).toMatch(/late/);
});

test('what was not carried out is not confirmed by a later value', async ({
  broker,
  television,
  browsing,
}) => {
  const tv = await television('tv', { qz: 'string' });
  tv.onRequest = (request) => tv.answer(request, { error: 'busy' });
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ qz: 'x' });
  await expect.poll(() => page.requestState()).toBe('busy');
  await tv.voice.value('qz', 'of its own');
  await expect.poll(() => page.propertyText('qz')).toContain('of its own');
  expect(await page.requestData()).not.toContain('of its own');
});

test('requests that others make are in the timeline', async ({ broker, television, browsing }) => {
  const tv = await television('tv', { qz: 'string' });
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  const peer = await Peer.connect(broker);
  await peer.client.publishAsync('things/tv/appdatachannel/set', '{"qz": "by another"}', { qos: 1 });
  await until('the request', () => tv.requests[0]);
  await peer.end();
  await expect.poll(() => page.timelineText()).toContain('by another');
  expect(await page.requestCount()).toBe(0);
});

test('the timeline has the request, the event it caused, the answer and the data', async ({
  broker,
  television,
  browsing,
}) => {
  await television('tv', { qz: 'string' });
  const page = await Console.open(browsing, broker.address);
  await page.openTelevision('tv');
  await page.set({ qz: 'volume 9' });
  await expect.poll(() => page.requestData()).toContain('volume 9');
  for (const kind of ['set', 'event', 'answer', 'value']) {
    await page.filterTimelineKind(kind);
    await expect.poll(() => page.timelineText()).toMatch(new RegExp(`\\b${kind}\\b`));
    if (kind !== 'answer') expect(await page.timelineText()).toContain('volume 9');
  }
});
