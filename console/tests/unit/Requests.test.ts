import { beforeEach, describe, expect, it } from 'vitest';

import { kRequestCharacters } from '../../src/model/Budget';
import { Fleet } from '../../src/model/Fleet';
import { Qos } from '../../src/model/Request';
import { kMaxRequests, livesUntil, Publisher, PublishOptions, PublishResult, Requests } from '../../src/model/Requests';
import { Television } from '../../src/model/Television';
import { description, message, status, value } from './messages';

const kDone: PublishResult = { error: null, notAuthorised: false, noListener: false };

// A broker's side that acknowledges when the test says so.
class FakePublisher implements Publisher {
  readonly responseTopic = 'console/me/answers';
  readonly published: {
    topic: string;
    payload: string;
    options: PublishOptions;
    done: (result: PublishResult) => void;
  }[] = [];

  publish(topic: string, payload: string, options: PublishOptions, done: (result: PublishResult) => void): void {
    this.published.push({ topic, payload, options, done });
  }

  acknowledge(index: number, result: Partial<PublishResult> = {}): void {
    this.published[index]!.done({ ...kDone, ...result });
  }
}

let now: number;
let publisher: FakePublisher;
let requests: Requests;
let fleet: Fleet;

beforeEach(() => {
  now = 1_000_000;
  let number = 0;
  publisher = new FakePublisher();
  requests = new Requests(
    publisher,
    () => (++number).toString(16).padStart(8, '0'),
    () => now,
  );
  fleet = new Fleet((television, property, from) => requests.takeValue(television, property, from));
  fleet.take(status('tv', 'online', { user: { run: 'a' } }));
  fleet.take(description('tv', { qz: 'string', qmap: 'string', signinStatus: 'bool' }));
});

function tv(): Television {
  return fleet.find('tv')!;
}

function find(id: string): Television | undefined {
  return fleet.find(id);
}

function set(
  values: Record<string, unknown> = { qz: 'volume 9' },
  options: { qos?: Qos; expiryS?: number | null } = {},
) {
  return requests.send('set', tv(), Object.keys(values), JSON.stringify(values), {
    qos: options.qos ?? 2,
    expiryS: options.expiryS ?? null,
    limitS: 30,
  });
}

function answer(correlation: string, payload: unknown): boolean {
  return requests.takeAnswer(message(publisher.responseTopic, payload, { correlation, at: now }), find);
}

describe('Requests', () => {
  it('publishes to the television with its own Response Topic, Correlation Data, QoS and expiry', () => {
    const request = set({ qz: 'x' }, { qos: 1, expiryS: 60 });
    expect(publisher.published[0]).toMatchObject({
      topic: 'things/tv/appdatachannel/set',
      payload: '{"qz":"x"}',
      options: { qos: 1, expiryS: 60, responseTopic: 'console/me/answers', correlation: request.correlation },
    });
  });

  it('is sent, delivered, answered', () => {
    const request = set();
    expect(request.state).toBe('sent');
    publisher.acknowledge(0);
    expect(request.state).toBe('delivered');
    expect(answer(request.correlation, { result: 0, properties: { qz: 'volume 7' } })).toBe(true);
    expect(request).toMatchObject({ state: 'answered', resultCode: 0, detail: 'done' });
  });

  it('gives each answer to its own request', () => {
    const [first, second] = [set(), set()];
    answer(second!.correlation, { result: 6, properties: {} });
    expect(first!.state).toBe('sent');
    expect(second).toMatchObject({ state: 'answered', resultCode: 6 });
    expect(second!.detail).toContain('unknown');
  });

  it('stays answered when the acknowledgement is slower than the answer', () => {
    const request = set();
    answer(request.correlation, { result: 0, properties: {} });
    publisher.acknowledge(0);
    expect(request.state).toBe('answered');
  });

  it('ignores answers to nobody, and the second of two', () => {
    const request = set();
    expect(answer('ffff', { result: 0, properties: {} })).toBe(false);
    answer(request.correlation, { result: 0, properties: { qz: 'first' } });
    answer(request.correlation, { result: 6, properties: {} });
    expect(request.resultCode).toBe(0);
  });

  it('tells busy, the time-out and other errors apart', () => {
    const states = ['busy', 'the request was not answered in time', 'qz: null'].map((error) => {
      const request = set();
      answer(request.correlation, { error });
      return request.state;
    });
    expect(states).toEqual(['busy', 'timed out', 'refused']);
  });

  it('is refused in the words of the broker', () => {
    const request = set();
    publisher.acknowledge(0, { error: 'the broker refused it: not authorised', notAuthorised: true });
    expect(request).toMatchObject({ state: 'refused', detail: 'the broker refused it: not authorised' });
  });

  it('is refused when the broker knows nobody who would get it', () => {
    const request = set();
    publisher.acknowledge(0, { noListener: true });
    expect(request.state).toBe('refused');
  });

  it('is refused when the answer is not of this channel', () => {
    const request = set();
    answer(request.correlation, 7);
    expect(request.state).toBe('refused');
  });

  it('keeps "the application sent its data" apart from the answer', () => {
    const request = set();
    answer(request.correlation, { result: 0, properties: { qz: 'volume 7' } });
    expect(request.confirmations.size).toBe(0);
    fleet.take(value('tv', 'qz', 'volume 9', { at: now + 12 }));
    expect(request.confirmations.get('qz')).toEqual({ at: now + 12, text: 'volume 9' });
    fleet.take(value('tv', 'qz', 'volume 10', { at: now + 50 }));
    expect(request.confirmations.get('qz')!.text).toBe('volume 9');
  });

  it("does not take a kept or a repeated value, or another property, for the application's data", () => {
    fleet.take(value('tv', 'qz', 'volume 7', { user: { run: 'a', sequence: '1' } }));
    const request = set();
    fleet.take(value('tv', 'qz', 'volume 7', { user: { run: 'a', sequence: '1' } }));
    fleet.take(value('tv', 'qz', 'volume 8', { retained: true, user: { run: 'a', sequence: '2' } }));
    fleet.take(value('tv', 'qmap', 'north'));
    expect(request.confirmations.size).toBe(0);
  });

  it('takes no value for the data of a set that was not carried out', () => {
    const request = set();
    answer(request.correlation, { error: 'busy' });
    fleet.take(value('tv', 'qz', 'volume 9'));
    expect(request.confirmations.size).toBe(0);
  });

  it('knows the sign-in state once a set of it was answered', () => {
    const request = set({ signinStatus: true });
    expect(tv().signIn.known).toBe('no');
    answer(request.correlation, { result: 0, properties: { signinStatus: '' } });
    expect(tv().signIn).toMatchObject({ known: 'set', value: true });
  });

  it('assumes the sign-in state when a set of it times out, because it may have been carried out', () => {
    fleet.take(description('tv', { qz: 'string', welcome: 'string', signinStatus: 'bool' }));
    const before = set({ qz: {}, signinStatus: true });
    answer(before.correlation, { error: 'the request was not answered in time' });
    expect(tv().signIn.known).toBe('no');
    const behind = set({ welcome: {}, signinStatus: true });
    answer(behind.correlation, { error: 'the request was not answered in time' });
    expect(tv().signIn).toMatchObject({ known: 'assumed', value: true });
  });

  it('cancels with the same Correlation Data', () => {
    const request = set();
    publisher.acknowledge(0);
    requests.cancel(request, tv());
    expect(publisher.published[1]).toMatchObject({
      topic: 'things/tv/appdatachannel/cancel',
      payload: '',
      options: { correlation: request.correlation, responseTopic: 'console/me/answers', qos: 2 },
    });
    expect(request.state).toBe('cancelling');
    publisher.acknowledge(1);
    expect(request.state).toBe('cancelled');
  });

  it('is answered when the cancel comes too late', () => {
    const request = set();
    publisher.acknowledge(0);
    requests.cancel(request, tv());
    publisher.acknowledge(1);
    answer(request.correlation, { result: 0, properties: {} });
    expect(request).toMatchObject({ state: 'answered', isLate: true });
  });

  it('goes on waiting when the cancel is refused', () => {
    const request = set();
    publisher.acknowledge(0);
    requests.cancel(request, tv());
    publisher.acknowledge(1, { error: 'the broker refused it: not authorised' });
    expect(request.state).toBe('delivered');
    expect(request.detail).toContain('not authorised');
  });

  it('gives up after its own limit, and takes a late answer all the same', () => {
    const request = set();
    publisher.acknowledge(0);
    requests.tick(true, find);
    now += 29_000;
    requests.tick(true, find);
    expect(request.state).toBe('delivered');
    now += 1_000;
    requests.tick(true, find);
    expect(request.state).toBe('timed out');
    answer(request.correlation, { result: 0, properties: {} });
    expect(request).toMatchObject({ state: 'answered', isLate: true });
  });

  it('does not give up while the television is offline or the connection is lost', () => {
    const request = set();
    publisher.acknowledge(0);
    fleet.take(status('tv', 'offline', { user: { run: 'a' } }));
    now += 3_600_000;
    requests.tick(true, find);
    expect(request.state).toBe('delivered');
    fleet.take(status('tv', 'online', { user: { run: 'a' } }));
    requests.tick(false, find);
    now += 3_600_000;
    requests.tick(false, find);
    expect(request.state).toBe('delivered');
    requests.tick(true, find);
    now += 30_000;
    requests.tick(true, find);
    expect(request.state).toBe('timed out');
  });

  it('expires at the broker while the television is offline', () => {
    fleet.take(status('tv', 'offline', { user: { run: 'a' } }));
    const [short, long] = [set({ qz: 'a' }, { expiryS: 60 }), set()];
    publisher.acknowledge(0);
    publisher.acknowledge(1);
    now += 60_000;
    requests.tick(true, find);
    expect(short!.state).toBe('expired');
    expect(long!.state).toBe('delivered');
    now += 24 * 3_600_000;
    requests.tick(true, find);
    expect(long!.state).toBe('expired');
  });

  it('waits no longer than a day after the television left, however late it was sent', () => {
    const left = now;
    const day = 24 * 3_600_000;
    fleet.take(status('tv', 'offline', { user: { run: 'a' }, at: left }));
    now += 23 * 3_600_000;
    const [request, short] = [set(), set({ qz: 'a' }, { expiryS: 60 })];
    const late = set({ qz: 'b' }, { expiryS: 2 * 86_400 });
    for (let i = 0; i < 3; i++) publisher.acknowledge(i);
    expect(livesUntil(request, tv())).toEqual({ at: left + day, by: 'session', isAtMost: false });
    expect(livesUntil(late, tv())).toEqual({ at: left + day, by: 'session', isAtMost: false });
    expect(livesUntil(short, tv())).toEqual({ at: now + 60_000, by: 'expiry', isAtMost: false });
    now = left + day - 1;
    requests.tick(true, find);
    expect(request.state).toBe('delivered');
    now = left + day;
    requests.tick(true, find);
    expect(request.state).toBe('expired');
  });

  it('waits at most a day when nothing says when the television left', () => {
    fleet = new Fleet();
    fleet.take(status('tv', 'offline', { retained: true, user: { run: 'a' } }));
    const request = set();
    expect(livesUntil(request, tv())).toEqual({ at: now + 24 * 3_600_000, by: 'session', isAtMost: true });
  });

  it('does not wait at QoS 0 for an offline television', () => {
    fleet.take(status('tv', 'offline', { user: { run: 'a' } }));
    const request = set({ qz: 'a' }, { qos: 0 });
    publisher.acknowledge(0);
    expect(request.state).toBe('expired');
  });

  it('keeps a bounded number of rows, and forgets the oldest', () => {
    const first = set();
    for (let i = 0; i < kMaxRequests; i++) set();
    expect(requests.count).toBe(kMaxRequests);
    expect(requests.dropped).toBe(1);
    expect(answer(first.correlation, { result: 0, properties: {} })).toBe(false);
  });

  it('keeps fewer rows when they are long, with their answers and what the application sent', () => {
    const long = 'x'.repeat(250 * 1024);
    const sizeOf = () =>
      requests
        .select()
        .map(({ payload, answer: text, confirmations }) => payload.length + text!.length + confirmations.size * 256)
        .reduce((sum, size) => sum + size, 0);
    for (let i = 0; i < 50; i++) {
      const request = set({ qz: long });
      fleet.take(value('tv', 'qz', long, { user: { run: 'a', sequence: String(i + 1) } }));
      answer(request.correlation, { result: 0, properties: { qz: long } });
    }
    expect(sizeOf()).toBeLessThanOrEqual(kRequestCharacters);
    expect(sizeOf()).toBeGreaterThan(kRequestCharacters - 400 * 1024);
    expect(requests.select()[0]!.number).toBe(50);
    expect(requests.count + requests.dropped).toBe(50);
    for (let i = 0; i < 20; i++) set();
    expect(requests.select()[0]!.number).toBe(70);
  });

  it('lists the newest first, of one television or of all', () => {
    fleet.take(status('other', 'online'));
    set();
    requests.send('get', fleet.find('other')!, ['qz'], '["qz"]', { qos: 1, expiryS: null, limitS: 30 });
    expect(requests.select().map(({ thing, number }) => [thing, number])).toEqual([
      ['other', 2],
      ['tv', 1],
    ]);
    expect(requests.select('tv').map(({ number }) => number)).toEqual([1]);
  });
});
