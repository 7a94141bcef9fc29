import { describe, expect, it } from 'vitest';

import { membersOf } from '../../src/model/Members';

function listed(json: string): [string, string][] | null {
  const members = membersOf(json);
  return members === null ? null : [...members];
}

describe('membersOf', () => {
  it('has each member as it was written', () => {
    expect(listed(' { "a" : 1.0, "b":12345678901234567890 , "c": {"x": [1, {"y": 2}], "z": ","} } ')).toEqual([
      ['a', '1.0'],
      ['b', '12345678901234567890'],
      ['c', '{"x": [1, {"y": 2}], "z": ","}'],
    ]);
  });

  it('is not misled by what strings have in them', () => {
    expect(listed('{"a\\":{,": "}\\\\", "\\u0062": ["\\"]", "{"]}')).toEqual([
      ['a":{,', '"}\\\\"'],
      ['b', '["\\"]", "{"]'],
    ]);
  });

  it('has the last one of a name that occurs twice, and names that objects have', () => {
    expect(listed('{"a":1,"__proto__":2,"a":3}')).toEqual([
      ['a', '3'],
      ['__proto__', '2'],
    ]);
  });

  it('is empty for an empty object, and nothing for what is no object', () => {
    expect(listed('{ }')).toEqual([]);
    for (const wrong of ['', 'null', '7', '"{}"', '[{"a":1}]', '{"a":1', '{"a":01}']) expect(listed(wrong)).toBeNull();
  });

  it('takes as long as the text is', () => {
    const count = 30_000;
    const json = `{${Array.from({ length: count }, (_, i) => `"n${i}":"\\"x${i}"`).join(',')}}`;
    expect(membersOf(json)!.size).toBe(count);
  });
});
