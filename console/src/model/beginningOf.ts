// The first `length` characters as a text of their own: of a slice, engines keep the whole text that it was cut from.
export function beginningOf(text: string, length: number): string {
  return text.length <= length ? text : ownCopy(text.slice(0, length));
}

export function ownCopy(text: string): string {
  return JSON.parse(JSON.stringify(text)) as string;
}
