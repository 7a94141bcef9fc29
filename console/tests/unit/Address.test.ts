import { describe, expect, it } from 'vitest';

import { brokerOf, faultOfBroker, parseFragment } from '../../src/mqtt/Address';

describe('Address', () => {
  it('takes the broker from where the page comes from', () => {
    expect(brokerOf({ protocol: 'http:', host: '127.0.0.1:9001' })).toBe('ws://127.0.0.1:9001');
    expect(brokerOf({ protocol: 'https:', host: 'example.org' })).toBe('wss://example.org');
    expect(brokerOf({ protocol: 'file:', host: '' })).toBeNull();
  });

  it('reads a fragment', () => {
    expect(parseFragment('#key=a+b%2F%3D')).toEqual({ key: 'a+b/=' });
    expect(parseFragment('#broker=ws://h:1/mqtt&user=u&key=a=b')).toEqual({
      broker: 'ws://h:1/mqtt',
      user: 'u',
      key: 'a=b',
    });
  });

  it('takes a key that is not escaped as it is', () => {
    expect(parseFragment('#key=100%')).toEqual({ key: '100%' });
  });

  it('knows a route from an address', () => {
    for (const route of ['', '#', '#/', '#/things/key=x', '#other=1', '#constructor=1'])
      expect(parseFragment(route)).toBeNull();
  });

  it('refuses what a browser cannot connect to', () => {
    expect(faultOfBroker('wss://example.org:8884/mqtt')).toBeNull();
    for (const wrong of ['', 'example.org', 'mqtt://h:1883', 'http://h', 'ws://user:key@h']) {
      expect(faultOfBroker(wrong)).toEqual(expect.any(String));
    }
  });
});
