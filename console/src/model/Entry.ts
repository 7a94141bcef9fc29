export type EntryKind =
  'value' | 'removed' | 'status' | 'properties' | 'restart' | 'set' | 'get' | 'cancel' | 'event' | 'answer' | 'request';

export const kEntryKinds: readonly EntryKind[] = [
  'value',
  'removed',
  'status',
  'properties',
  'restart',
  'set',
  'get',
  'cancel',
  'event',
  'answer',
  'request',
];

// One line of a television's timeline.
export interface Entry {
  readonly at: number; // ms since 1970, when this page saw it
  readonly kind: EntryKind;
  readonly text: string; // cut to kEntryTextLimit
  readonly property?: string | undefined;
  readonly notifiedAt?: number | null | undefined;
  readonly sequence?: number | null | undefined;
  readonly run?: string | null | undefined;
  readonly replaced?: number | undefined; // values before it, as Property has them
  readonly missed?: number | undefined;
  readonly retained?: boolean | undefined;
  readonly correlation?: string | undefined;
}

export const kEntryTextLimit = 240; // characters
