// Where the broker is, and as whom the page connects. The key is never shown.
export interface Address {
  readonly broker: string; // ws:// or wss://
  readonly user: string;
  readonly key: string;
}

export const kDefaultUser = 'console';

// What is wrong with a broker's URL, in words; null when nothing is.
export function faultOfBroker(broker: string): string | null {
  let url: URL;
  try {
    url = new URL(broker);
  } catch {
    return 'not a URL; for example ws://127.0.0.1:9001';
  }
  if (url.protocol !== 'ws:' && url.protocol !== 'wss:') return 'a browser reaches a broker at ws:// or wss:// only';
  if (url.username !== '' || url.password !== '') return 'user and key have their own fields';
  return null;
}

// The broker that serves this page, if one does: mosquitto answers both on one port.
export function brokerOf(location: { readonly protocol: string; readonly host: string }): string | null {
  if (location.host === '') return null;
  if (location.protocol === 'http:') return `ws://${location.host}`;
  if (location.protocol === 'https:') return `wss://${location.host}`;
  return null;
}

// What a fragment says, such as "#key=…" or "#broker=ws://…&user=…&key=…"; null when it is not about an address.
// A route ("#/things/tv") is none.
export function parseFragment(fragment: string): Partial<Address> | null {
  const text = fragment.replace(/^#/, '');
  if (text === '' || text.startsWith('/')) return null;
  const address: { -readonly [K in keyof Address]?: Address[K] } = {};
  for (const part of text.split('&')) {
    const equals = part.indexOf('=');
    if (equals < 0) continue;
    const name = part.slice(0, equals);
    let value = part.slice(equals + 1);
    try {
      value = decodeURIComponent(value); // "+" stays, since keys may have it
    } catch {
      // not escaped
    }
    if (name === 'broker' || name === 'user' || name === 'key') address[name] = value;
  }
  return Object.keys(address).length > 0 ? address : null;
}
