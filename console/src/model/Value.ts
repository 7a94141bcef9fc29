import { beginningOf } from './beginningOf';

// The value of a property at one time. Immutable.
export class Value {
  readonly text: string; // a string as it is; anything else as JSON
  readonly kind: 'string' | 'number' | 'boolean' | 'json' | 'invalid';
  readonly number: number | null; // what a picture shows of it
  readonly lengthBytes: number;
  readonly isCut: boolean; // the rest was not kept

  private constructor(text: string, kind: Value['kind'], lengthBytes: number, isCut: boolean) {
    this.text = text;
    this.kind = kind;
    this.lengthBytes = lengthBytes;
    this.isCut = isCut;
    this.number = kind === 'json' || kind === 'invalid' ? null : numberIn(text);
  }

  static parse(payload: string, lengthBytes = payload.length): Value {
    let json: unknown;
    try {
      json = JSON.parse(payload);
    } catch {
      return new Value(payload, 'invalid', lengthBytes, false);
    }
    switch (typeof json) {
      case 'string':
        return new Value(json, 'string', lengthBytes, false);
      case 'number':
        return new Value(payload, 'number', lengthBytes, false);
      case 'boolean':
        return new Value(payload, 'boolean', lengthBytes, false);
      default:
        return new Value(payload, 'json', lengthBytes, false);
    }
  }

  // The same value without its end.
  cut(length: number): Value {
    if (this.text.length <= length) return this;
    return new Value(beginningOf(this.text, length), this.kind, this.lengthBytes, true);
  }
}

const kNumber = /^[+-]?(?:[0-9]+\.?[0-9]*|\.[0-9]+)(?:[eE][+-]?[0-9]+)?$/;

// Applications send strings; those that are a number or a boolean can be drawn all the same.
function numberIn(text: string): number | null {
  if (text.length > 32) return null;
  if (text === 'true') return 1;
  if (text === 'false') return 0;
  if (!kNumber.test(text)) return null;
  const number = Number(text);
  return Number.isFinite(number) ? number : null;
}
