import { describe, expect, it } from 'vitest';

import { Television } from '../../src/model/Television';
import { Entry } from '../../src/model/Entry';
import { description, message, rawMessage, status, value } from './messages';

const kTime = '2026-11-22T08:03:45.123Z';
const kTypes = { qz: 'string', signinStatus: 'bool', signupInfo: 'json' };

function kindsOf(television: Television): string[] {
  return television.timeline
    .select('')
    .map((entry: Entry) => entry.kind)
    .reverse();
}

function online(run = 'a'): Television {
  const television = new Television('tv', 100);
  television.takeStatus(status('tv', 'online', { user: { run, time: kTime } }));
  television.takeProperties(description('tv', kTypes, { user: { run, time: kTime } }));
  return television;
}

describe('Television', () => {
  it('is online since the time that its status names', () => {
    expect(online().presence).toBe('online');
    expect(online().since).toBe(Date.parse(kTime));
  });

  it('was lost when the last will says offline, and was shut down when a time comes with it', () => {
    const television = online();
    television.takeStatus(status('tv', 'offline', { user: { run: 'a' }, at: 5_000 }));
    expect(television.presence).toBe('lost');
    expect(television.since).toBe(5_000);
    television.takeStatus(status('tv', 'offline', { user: { run: 'a', time: kTime } }));
    expect(television.presence).toBe('offline');
  });

  it('is online since the last time that it came, also when this page missed that', () => {
    const television = online();
    const later = '2026-11-22T09:00:00.000Z';
    television.markUnconfirmed();
    television.takeStatus(status('tv', 'online', { retained: true, user: { run: 'a', time: later } }));
    expect(television.since).toBe(Date.parse(later));
    expect(kindsOf(television)).toEqual(['status', 'properties', 'status']);
    television.takeStatus(status('tv', 'online', { retained: true, user: { run: 'a', time: later } }));
    expect(kindsOf(television)).toEqual(['status', 'properties', 'status']);
  });

  it('does not say since when, when only a kept last will is known', () => {
    const television = new Television('tv', 10);
    television.takeStatus(status('tv', 'offline', { retained: true, user: { run: 'a' } }));
    expect(television.presence).toBe('lost');
    expect(television.since).toBeNull();
  });

  it('does not call a status without properties lost', () => {
    const television = new Television('tv', 10);
    television.takeStatus(status('tv', 'offline', { retained: true }));
    expect(television.presence).toBe('offline');
  });

  it('counts another run as a restart, which loses the sign-in', () => {
    const television = online();
    television.noteSet('{"signinStatus":true,"signupInfo":{"country":"KR"}}', 1, 'set', true);
    expect(television.signIn).toMatchObject({ known: 'set', value: true });
    television.takeStatus(status('tv', 'online', { user: { run: 'b' } }));
    expect(television.restarts).toBe(1);
    expect(television.signIn).toMatchObject({ known: 'gone', value: true });
    expect(television.signUp).toMatchObject({ text: '{"country":"KR"}', isGone: true });
  });

  it('counts a restart once', () => {
    const television = online();
    television.takeProperties(description('tv', kTypes, { user: { run: 'b' } }));
    television.takeStatus(status('tv', 'online', { user: { run: 'b' } }));
    television.takeValue('qz', value('tv', 'qz', 'x', { user: { run: 'b', sequence: '1' } }), null);
    expect(television.restarts).toBe(1);
  });

  it('counts a restart that happened while the connection was lost', () => {
    const television = online();
    television.noteSet('{"signinStatus":true}', 1, 'set', true);
    television.markUnconfirmed();
    television.takeStatus(status('tv', 'online', { retained: true, user: { run: 'b' } }));
    expect(television.restarts).toBe(1);
    expect(television.signIn.known).toBe('gone');
  });

  it('takes no kept value of an earlier run for a restart', () => {
    const television = new Television('tv', 10);
    television.takeValue('qz', value('tv', 'qz', 'x', { retained: true, user: { run: 'old', sequence: '9' } }), null);
    television.takeStatus(status('tv', 'online', { retained: true, user: { run: 'a' } }));
    television.takeValue(
      'qmap',
      value('tv', 'qmap', 'x', { retained: true, user: { run: 'old', sequence: '9' } }),
      null,
    );
    expect(television.run).toBe('a');
    expect(television.restarts).toBe(0);
  });

  it('lists announced properties by name, its own ones last', () => {
    const television = online();
    television.takeProperties(description('tv', { signinStatus: 'bool', qz: 'string', qmap: 'string' }));
    expect(television.properties.map(({ name }) => name)).toEqual(['qmap', 'qz', 'signinStatus']);
  });

  it('drops a property that is not announced any more, once it has no value', () => {
    const television = online();
    television.takeValue('qz', value('tv', 'qz', 'x'), null);
    television.takeProperties(description('tv', { signinStatus: 'bool' }));
    expect(television.property('qz')?.type).toBeNull();
    television.takeValue('qz', message('things/tv/appdatachannel/value/qz', ''), null);
    expect(television.property('qz')).toBeUndefined();
  });

  it('gives a removal no number', () => {
    const television = online();
    television.takeValue('qz', value('tv', 'qz', 'x', { user: { run: 'a', sequence: '2' } }), null);
    television.takeValue('qz', message('things/tv/appdatachannel/value/qz', ''), null);
    const [removal, before] = television.timeline.select('');
    expect(removal).toMatchObject({ kind: 'removed', property: 'qz' });
    expect(removal!.sequence).toBeUndefined();
    expect(before).toMatchObject({ kind: 'value', sequence: 2 });
  });

  it('marks what it had as unconfirmed until it comes again', () => {
    const television = online();
    television.takeValue('qz', value('tv', 'qz', 'x', { user: { run: 'a', sequence: '1' } }), null);
    television.markUnconfirmed();
    expect(television.isStale).toBe(true);
    expect(television.property('qz')?.isUnconfirmed).toBe(true);
    television.takeStatus(status('tv', 'online', { retained: true, user: { run: 'a' } }));
    television.takeValue('qz', value('tv', 'qz', 'x', { retained: true, user: { run: 'a', sequence: '1' } }), null);
    expect(television.isStale).toBe(false);
    expect(television.property('qz')?.isUnconfirmed).toBe(false);
  });

  it('assumes the sign-in state of a set that another client made', () => {
    const television = online();
    television.takeRequest('set', message('things/tv/appdatachannel/set', { signinStatus: true, qz: 7 }));
    expect(television.signIn).toMatchObject({ known: 'assumed', value: true });
    expect(kindsOf(television)).toEqual(['status', 'properties', 'set', 'event']);
  });

  it('takes a sign-in state that is no boolean for false, as it is read', () => {
    for (const wrong of [0, 1, 'true', {}, [true]]) {
      const television = online();
      television.noteSet('{"signinStatus":true}', 1, 'set', true);
      television.takeRequest('set', message('things/tv/appdatachannel/set', { signinStatus: wrong }));
      expect(television.signIn).toMatchObject({ known: 'assumed', value: false });
    }
  });

  it('remembers the sign-up information as it was sent, so that it can be set again', () => {
    const television = online();
    const text = '{"id": 12345678901234567890}';
    television.takeRequest('set', rawMessage('things/tv/appdatachannel/set', `{"signupInfo": ${text}}`));
    expect(television.signUp).toMatchObject({ text, isGone: false });
  });

  it('takes nothing from a set that is refused', () => {
    const television = online();
    for (const refused of ['{"qz": 1.0}', '{"qz":5,"signinStatus":null}', '{"qz":2147483648,"signinStatus":true}'])
      television.takeRequest('set', rawMessage('things/tv/appdatachannel/set', refused));
    expect(television.signIn.known).toBe('no');
    expect(kindsOf(television)).toEqual(['status', 'properties', 'set', 'set', 'set']);
  });

  it('ignores a set that is kept by the broker, as the service does', () => {
    const television = online();
    television.takeRequest('set', message('things/tv/appdatachannel/set', { signinStatus: true }, { retained: true }));
    expect(television.signIn.known).toBe('no');
  });

  it('does not record what the broker says once more', () => {
    const television = online();
    television.takeStatus(status('tv', 'online', { retained: true, user: { run: 'a', time: kTime } }));
    television.takeProperties(description('tv', kTypes, { retained: true, user: { run: 'a', time: kTime } }));
    expect(kindsOf(television)).toEqual(['status', 'properties']);
  });

  it('survives descriptions that are none', () => {
    for (const wrong of [null, 7, 'x', ['qz']]) {
      const television = online();
      television.takeProperties(message('things/tv/appdatachannel/properties', wrong));
      expect(television.properties).toHaveLength(3);
    }
    const television = online();
    television.takeProperties(
      message('things/tv/appdatachannel/properties', { __proto__: null, a: 7, b: { type: 1 } }),
    );
    expect(television.property('a')?.type).toBe('unknown');
  });
});
