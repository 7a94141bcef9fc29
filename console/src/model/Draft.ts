export type DraftKind = 'text' | 'integer' | 'boolean' | 'real' | 'json' | 'bytes';

export const kMaxPayloadBytes = 256 * 1024;
export const kMaxFileBytes = 190 * 1024; // Base64 makes a third more of it
export const kMaxInteger = 2 ** 31 - 1;
export const kMinInteger = -(2 ** 31);

// The kinds of values that a property of an announced type takes. What applications get is always a string, so an
// integer or a boolean becomes its text; a real number is refused.
export function kindsOf(type: string | null): readonly DraftKind[] {
  switch (type) {
    case 'bool':
      return ['boolean'];
    case 'int':
      return ['integer'];
    case 'double':
      return ['real'];
    case 'json':
      return ['json'];
    case 'bytes':
      return ['bytes'];
    default:
      return ['text', 'integer', 'boolean', 'bytes'];
  }
}

// A value as it is entered. `text` is what the control has; for bytes it is Base64, and null before a file was read.
export interface Draft {
  readonly kind: DraftKind;
  readonly text: string | null;
  readonly isTooLarge?: boolean; // the file
}

export function emptyDraft(kind: DraftKind): Draft {
  return { kind, text: kind === 'boolean' ? 'false' : kind === 'bytes' ? null : '' };
}

// The draft as JSON, or what is wrong with it in words.
export function jsonOfDraft(draft: Draft): { readonly json: string } | { readonly fault: string } {
  const text = draft.text ?? '';
  switch (draft.kind) {
    case 'text':
      return text.includes('\0') ? { fault: 'a string cannot have U+0000' } : { json: JSON.stringify(text) };
    case 'boolean':
      return { json: text === 'true' ? 'true' : 'false' };
    case 'integer': {
      const number = Number(text);
      if (!/^[+-]?[0-9]+$/.test(text.trim())) return { fault: 'not a whole number' };
      if (number > kMaxInteger || number < kMinInteger) {
        return { fault: `must be from ${kMinInteger} to ${kMaxInteger}` };
      }
      return { json: String(number) };
    }
    case 'real': {
      const number = Number(text);
      return text.trim() === '' || !Number.isFinite(number)
        ? { fault: 'not a number' }
        : { json: JSON.stringify(number) };
    }
    case 'json':
      if (text.trim() === '') return { fault: 'no JSON yet' };
      try {
        JSON.parse(text);
      } catch (error) {
        return { fault: `not valid JSON: ${error instanceof Error ? error.message : String(error)}` };
      }
      return { json: text.trim() }; // as entered, so that large numbers stay exact
    case 'bytes':
      if (draft.isTooLarge) return { fault: `the file has more than ${kMaxFileBytes / 1024} KiB` };
      return draft.text === null ? { fault: 'no file was chosen' } : { json: `{"$bytes":${JSON.stringify(text)}}` };
  }
}

// A set of these values, each as JSON.
export function setPayload(values: ReadonlyMap<string, string>): string {
  return `{${[...values].map(([name, json]) => `${JSON.stringify(name)}:${json}`).join(',')}}`;
}

export function base64Of(bytes: Uint8Array): string {
  let binary = '';
  for (let i = 0; i < bytes.length; i += 0x8000) binary += String.fromCharCode(...bytes.subarray(i, i + 0x8000));
  return btoa(binary);
}
