// Random bytes as hexadecimal. Not crypto.randomUUID(), which a page from plain HTTP does not have.
export function randomHexadecimal(bytes: number): string {
  return [...crypto.getRandomValues(new Uint8Array(bytes))].map((byte) => byte.toString(16).padStart(2, '0')).join('');
}
