const kHidden = /[\u0000-\u001f\u007f-\u009f\u00ad\u061c\u180e\u200b-\u200f\u2028-\u202f\u2060-\u206f\ufeff\ufff9-\ufffb]|[\ud800-\udbff](?![\udc00-\udfff])|(?<![\ud800-\udbff])[\udc00-\udfff]/g;

// The text with a sign for each character that is not seen or that changes how others are seen: control characters,
// marks of direction, and halves of pairs.
export function visibleText(text: string): string {
  return text.replace(kHidden, (character) => {
    const code = character.charCodeAt(0);
    if (code < 0x20) return String.fromCharCode(0x2400 + code);
    if (code === 0x7f) return '\u2421';
    return `\u2039U+${code.toString(16).toUpperCase().padStart(4, '0')}\u203a`;
  });
}

// The same, and line ends also break the line.
export function visibleLines(text: string): string {
  return text.split('\n').map(visibleText).join('\u240a\n');
}

// At most `length` characters, without half of a pair at the end.
export function cut(text: string, length: number): string {
  if (text.length <= length) return text;
  const end = text.charCodeAt(length - 1);
  return `${text.slice(0, end >= 0xd800 && end <= 0xdbff ? length - 1 : length)}…`;
}
