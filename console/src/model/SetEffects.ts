import { kMaxInteger, kMaxPayloadBytes, kMinInteger } from './Draft';
import { membersOf } from './Members';

// Properties of the channel itself: they have no value at the broker, and a get returns an empty string.
export const kSignIn = 'signinStatus';
export const kSignUp = 'signupInfo';

export function isOwn(name: string): boolean {
  return name === kSignIn || name === kSignUp;
}

// What a set does at the television, as far as its payload tells.
export interface SetEffects {
  readonly signIn: boolean | null; // null: it is not set
  readonly signUp: string | null; // the JSON as it was sent; null: it is not set
  readonly events: readonly { readonly name: string; readonly text: string }[]; // what applications get
}

const kMaxNames = 1_000; // of one request
const kInteger = /^-?[0-9]+$/;
const kBase64 = /^(?:[A-Za-z0-9+/]{4})*(?:[A-Za-z0-9+/]{2}==|[A-Za-z0-9+/]{3}=)?$/;

// Null when the television refuses the set, which then does nothing. `typeOf` has the announced type of a property, or
// null. Names are carried out in their order, up to the first value that nobody can take.
export function effectsOf(payload: string, typeOf: (name: string) => string | null): SetEffects | null {
  if (new TextEncoder().encode(payload).length > kMaxPayloadBytes) return null;
  const members = membersOf(payload);
  if (members === null || members.size > kMaxNames) return null;
  for (const [name, json] of members) {
    if (name.includes('\0') || isRefused(json, typeOf(name))) return null;
  }
  let signIn: boolean | null = null;
  let signUp: string | null = null;
  const events: { name: string; text: string }[] = [];
  for (const [name, json] of [...members].sort(([a], [b]) => (a < b ? -1 : 1))) {
    if (name === kSignUp) signUp = json;
    else if (name === kSignIn) {
      signIn = json === 'true'; // whatever is set is stored, and only true is read as true
      if (/^["{[]/.test(json)) break;
    } else if (typeOf(name) !== null) {
      const text = eventOf(json);
      if (text === null) break;
      events.push({ name, text });
    }
  }
  return { signIn, signUp, events };
}

// Whether no property can take the value, or one that is announced with the type cannot.
function isRefused(json: string, type: string | null): boolean {
  if (json === 'null') return true;
  if (/^[-0-9]/.test(json)) {
    if (!kInteger.test(json)) return type !== null && type !== 'double';
    return Number(json) > kMaxInteger || Number(json) < kMinInteger;
  }
  if (json.startsWith('"')) return !isText(JSON.parse(json) as string);
  const base64 = bytesIn(json);
  if (base64 === undefined) return false;
  return typeof base64 !== 'string' || !kBase64.test(base64) || (type === 'string' && textOfBytes(base64) === null);
}

// What an application gets for a value that is not refused; null when it gets nothing.
export function eventOf(json: string): string | null {
  if (json === 'true' || json === 'false') return json;
  if (json.startsWith('"')) return JSON.parse(json) as string;
  if (kInteger.test(json)) return String(Number(json));
  const base64 = bytesIn(json);
  return typeof base64 === 'string' ? textOfBytes(base64) : null;
}

// The member of {"$bytes": ...}, when the object has no other.
function bytesIn(json: string): unknown {
  if (!json.startsWith('{')) return undefined;
  const object = JSON.parse(json) as Record<string, unknown>;
  return Object.keys(object).length === 1 && Object.hasOwn(object, '$bytes') ? object['$bytes'] : undefined;
}

function textOfBytes(base64: string): string | null {
  try {
    const bytes = Uint8Array.from(atob(base64), (character) => character.charCodeAt(0));
    const text = new TextDecoder('utf-8', { fatal: true, ignoreBOM: true }).decode(bytes);
    return isText(text) ? text : null;
  } catch {
    return null;
  }
}

function isText(text: string): boolean {
  return !text.includes('\0') && !/\p{Surrogate}/u.test(text);
}
