import { describe, expect, it } from 'vitest';

import {
  base64Of,
  Draft,
  jsonOfDraft,
  kindsOf,
  kMaxFileBytes,
  kMaxPayloadBytes,
  setPayload,
} from '../../src/model/Draft';

function json(draft: Draft): string {
  const result = jsonOfDraft(draft);
  return 'json' in result ? result.json : `fault: ${result.fault}`;
}

describe('Draft', () => {
  it('offers what a type takes', () => {
    expect(kindsOf('bool')).toEqual(['boolean']);
    expect(kindsOf('json')).toEqual(['json']);
    expect(kindsOf('string')).toEqual(['text', 'integer', 'boolean', 'bytes']);
    expect(kindsOf(null)).toContain('text');
  });

  it('becomes JSON', () => {
    expect(json({ kind: 'text', text: 'a "b"\n' })).toBe('"a \\"b\\"\\n"');
    expect(json({ kind: 'text', text: '' })).toBe('""');
    expect(json({ kind: 'boolean', text: 'true' })).toBe('true');
    expect(json({ kind: 'integer', text: '-2147483648' })).toBe('-2147483648');
    expect(json({ kind: 'integer', text: '+7' })).toBe('7');
    expect(json({ kind: 'real', text: '1.5' })).toBe('1.5');
    expect(json({ kind: 'bytes', text: 'aGVsbG8=' })).toBe('{"$bytes":"aGVsbG8="}');
  });

  it('says what is wrong', () => {
    for (const wrong of [
      { kind: 'integer', text: '' },
      { kind: 'integer', text: '1.5' },
      { kind: 'integer', text: '2147483648' },
      { kind: 'real', text: 'x' },
      { kind: 'json', text: '{' },
      { kind: 'json', text: ' ' },
      { kind: 'bytes', text: null },
      { kind: 'text', text: 'a\0' },
    ] as Draft[]) {
      expect(json(wrong)).toMatch(/^fault: /);
    }
  });

  it('refuses a file that no request has room for', () => {
    expect(json({ kind: 'bytes', text: null, isTooLarge: true })).toMatch(/KiB/);
    expect(
      setPayload(new Map([['y', json({ kind: 'bytes', text: base64Of(new Uint8Array(kMaxFileBytes)) })]])).length,
    ).toBeLessThan(kMaxPayloadBytes);
  });

  it('sends JSON as it was entered', () => {
    expect(json({ kind: 'json', text: ' {"n": 12345678901234567890} ' })).toBe('{"n": 12345678901234567890}');
  });

  it('makes a set of any names', () => {
    const payload = setPayload(
      new Map([
        ['qz', '"a"'],
        ['__proto__', '1'],
        ['a"b', 'true'],
      ]),
    );
    expect(payload).toBe('{"qz":"a","__proto__":1,"a\\"b":true}');
  });

  it('makes Base64 of any bytes, also of many', () => {
    expect(base64Of(new Uint8Array([0, 255, 128]))).toBe('AP+A');
    const many = new Uint8Array(100_000).map((_, i) => i % 256);
    expect(base64Of(many)).toBe(Buffer.from(many).toString('base64'));
  });
});
