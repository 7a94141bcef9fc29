const kHidden =
  /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u180e\u200b-\u200f\u2028-\u202f\u2060-\u206f\ufeff\ufff9-\ufffb]|[\ud800-\udbff](?![\udc00-\udfff])|(?<![\ud800-\udbff])[\udc00-\udfff]/g;

const kNames = [
  'NUL',
  'SOH',
  'STX',
  'ETX',
  'EOT',
  'ENQ',
  'ACK',
  'BEL',
  'BS',
  'TAB',
  'LF',
  'VT',
  'FF',
  'CR',
  'SO',
  'SI',
  'DLE',
  'DC1',
  'DC2',
  'DC3',
  'DC4',
  'NAK',
  'SYN',
  'ETB',
  'CAN',
  'EM',
  'SUB',
  'ESC',
  'FS',
  'GS',
  'RS',
  'US',
];

function signOf(code: number): string {
  const name = code === 0x7f ? 'DEL' : (kNames[code] ?? `U+${code.toString(16).toUpperCase().padStart(4, '0')}`);
  return `\u2039${name}\u203a`;
}

// The text with a sign for each character that is not seen or that changes how others are seen: control characters,
// marks of direction, and halves of pairs.
export function visibleText(text: string): string {
  return text.replace(kHidden, (character) => signOf(character.charCodeAt(0)));
}

// The same, and line ends also break the line.
export function visibleLines(text: string): string {
  return text
    .split('\n')
    .map(visibleText)
    .join(`${signOf(10)}\n`);
}

// At most `length` characters, without half of a pair at the end.
export function cut(text: string, length: number): string {
  if (text.length <= length) return text;
  const end = text.charCodeAt(length - 1);
  return `${text.slice(0, end >= 0xd800 && end <= 0xdbff ? length - 1 : length)}…`;
}
