import { describe, expect, it } from 'vitest';

import { base64Of } from '../../src/model/Draft';
import { effectsOf } from '../../src/model/SetEffects';

const kTypes: Record<string, string> = {
  qz: 'string',
  qmap: 'string',
  welcome: 'string',
  signinStatus: 'bool',
  signupInfo: 'json',
};

function effects(payload: string) {
  return effectsOf(payload, (name) => kTypes[name] ?? null);
}

function events(payload: string): [string, string][] | null {
  return effects(payload)?.events.map(({ name, text }) => [name, text]) ?? null;
}

function bytes(...values: number[]): string {
  return `{"$bytes":"${base64Of(Uint8Array.from(values))}"}`;
}

describe('effectsOf', () => {
  it('has the texts that applications get, in the order of their names', () => {
    expect(events('{"welcome":true,"qz":-7,"qmap":"x"}')).toEqual([
      ['qmap', 'x'],
      ['qz', '-7'],
      ['welcome', 'true'],
    ]);
  });

  it('has the text of bytes', () => {
    expect(events(`{"qz":${bytes(0xef, 0xbb, 0xbf, 0x68, 0xc3, 0xa9)}}`)).toEqual([['qz', '\ufeffhé']]);
  });

  it('has no event of a name that is not announced', () => {
    expect(events('{"other":"x","qz":"y","unknown":1.5}')).toEqual([['qz', 'y']]);
  });

  it('has the whole range of integers, and nothing beyond it', () => {
    expect(events('{"qz":2147483647,"qmap":-2147483648}')).toEqual([
      ['qmap', '-2147483648'],
      ['qz', '2147483647'],
    ]);
    expect(events('{"qz":2147483648}')).toBeNull();
    expect(events('{"qz":-2147483649}')).toBeNull();
  });

  it('does nothing when one value is refused', () => {
    for (const refused of ['1.0', '1e3', '0.5', 'null', '"a\\u0000b"', '"\\ud800"', '{"$bytes":"a"}', '{"$bytes":7}'])
      expect(effects(`{"qmap":5,"signinStatus":true,"welcome":${refused}}`)).toBeNull();
    expect(effects(`{"qmap":5,"welcome":${bytes(0xff)}}`)).toBeNull();
    expect(effects(`{"qmap":5,"welcome":${bytes(0x61, 0)}}`)).toBeNull();
    expect(effects('{"qz":5,"qmap":null}')).toBeNull();
  });

  it('does nothing when it is no set', () => {
    for (const wrong of ['', '7', '["qz"]', '{"qz":1', `{"qz":"${'x'.repeat(256 * 1024)}"}`])
      expect(effects(wrong)).toBeNull();
    const many = Array.from({ length: 1_001 }, (_, i) => `"n${i}":1`).join(',');
    expect(effects(`{${many}}`)).toBeNull();
  });

  it('goes on up to the first value that nobody can take', () => {
    for (const value of ['{}', '[1]', '{"$bytes":"","a":1}']) {
      expect(effects(`{"signinStatus":true,"welcome":"x","qmap":"y","qz":${value}}`)).toEqual({
        signIn: null,
        signUp: null,
        events: [{ name: 'qmap', text: 'y' }],
      });
    }
    expect(effects('{"signinStatus":"yes","welcome":"x","qmap":"y"}')).toEqual({
      signIn: false,
      signUp: null,
      events: [{ name: 'qmap', text: 'y' }],
    });
  });

  it('has the sign-in state as it is read: false unless it is true', () => {
    const signIn = (json: string) => effects(`{"signinStatus":${json}}`)?.signIn;
    expect(['true', 'false', '0', '1', '"true"', '{}', '[true]'].map(signIn)).toEqual([true, ...Array(6).fill(false)]);
    expect(effects('{"qz":1}')!.signIn).toBeNull();
  });

  it('has the sign-up information as it was sent', () => {
    expect(effects('{"signupInfo": {"id": 12345678901234567890, "x": 1.0} }')!.signUp).toBe(
      '{"id": 12345678901234567890, "x": 1.0}',
    );
  });
});
