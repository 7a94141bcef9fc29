import { beginningOf } from './beginningOf';

// A message as it came from the broker, free of the client library's types.
export interface Message {
  readonly topic: string;
  readonly payload: Uint8Array;
  readonly retained: boolean;
  readonly at: number; // ms since 1970, when this page received it
  readonly responseTopic?: string | undefined;
  readonly correlation?: string | undefined; // hexadecimal
  readonly userProperties: Readonly<Record<string, string>>;
}

const kMaxLabelLength = 100; // characters that are kept of a run or version
const kDecoder = new TextDecoder('utf-8');

export function textOf(message: Message): string {
  return kDecoder.decode(message.payload);
}

// A user property that is a UTC time, as ms since 1970.
export function timeOf(message: Message): number | null {
  const text = message.userProperties['time'];
  const time = text === undefined ? NaN : Date.parse(text);
  return Number.isNaN(time) ? null : time;
}

export function sequenceOf(message: Message): number | null {
  const text = message.userProperties['sequence'];
  return text !== undefined && /^[0-9]{1,15}$/.test(text) ? Number(text) : null;
}

export function runOf(message: Message): string | null {
  return label(message.userProperties['run']);
}

export function versionOf(message: Message): string | null {
  return label(message.userProperties['version']);
}

function label(text: string | undefined): string | null {
  return text === undefined ? null : beginningOf(text, kMaxLabelLength);
}

// The payload as JSON; undefined when it is none.
export function jsonOf(message: Message): unknown {
  try {
    return JSON.parse(textOf(message));
  } catch {
    return undefined;
  }
}
