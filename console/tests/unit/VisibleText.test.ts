import { describe, expect, it } from 'vitest';

import { cut, visibleLines, visibleText } from '../../src/page/VisibleText';

describe('VisibleText', () => {
  it('leaves text as it is', () => {
    for (const text of ['volume 7', 'é ü 한국어 😀', '<b>&amp;</b>', 'שלום']) expect(visibleText(text)).toBe(text);
  });

  it('shows control characters', () => {
    expect(visibleText('a\0b\tc\nd\u001b[0m\u007f')).toBe('a‹NUL›b‹TAB›c‹LF›d‹ESC›[0m‹DEL›');
    expect(visibleText('\u0085')).toBe('‹U+0085›');
  });

  it('shows marks that change the order or are not seen', () => {
    expect(visibleText('a\u202egnp.exe')).toBe('a‹U+202E›gnp.exe');
    expect(visibleText('a\u200bb\ufeff\u2066')).toBe('a‹U+200B›b‹U+FEFF›‹U+2066›');
  });

  it('shows halves of pairs', () => {
    expect(visibleText('a\ud83d')).toBe('a‹U+D83D›');
    expect(visibleText('\ude00b')).toBe('‹U+DE00›b');
  });

  it('breaks lines where they end', () => {
    expect(visibleLines('a\nb\r\n')).toBe('a‹LF›\nb‹CR›‹LF›\n');
  });

  it('cuts between characters', () => {
    expect(cut('abc', 3)).toBe('abc');
    expect(cut('abcd', 3)).toBe('abc…');
    expect(cut('ab😀d', 3)).toBe('ab…');
  });
});
