export type RequestKind = 'set' | 'get';
export type Qos = 0 | 1 | 2;

// 'sent': on its way to the broker. 'delivered': the broker has it (at QoS 0: it was written to the connection).
// 'cancelling': the cancel is on its way. The rest are ends.
export type RequestState =
  'sent' | 'delivered' | 'cancelling' | 'answered' | 'refused' | 'busy' | 'timed out' | 'cancelled' | 'expired';

export const kAnswerLimit = 64 * 1024; // characters that are kept of an answer
export const kConfirmationLimit = 256; // characters that are kept of what the application sent

// What the application sent after a set of its property.
export interface Confirmation {
  readonly at: number;
  readonly text: string;
}

// One request that this page made.
export interface Request {
  readonly number: number; // in this page, from 1
  readonly correlation: string; // hexadecimal
  readonly thing: string;
  readonly kind: RequestKind;
  readonly names: readonly string[];
  readonly payload: string;
  readonly qos: Qos;
  readonly expiryS: number | null;
  readonly limitS: number; // after which this page does not wait any more, while the television is online
  readonly sentAt: number;
  state: RequestState;
  detail: string; // in words, for people
  endedAt: number | null;
  // Since when an answer could come: the television is online and so is this page.
  waitingSince: number | null;
  answer: string | null; // the data as JSON, cut to kAnswerLimit; an empty string when it had none
  resultCode: number | null;
  isLate: boolean; // the answer came after the request had ended here
  readonly confirmations: Map<string, Confirmation>;
}

export function isOver(request: Request): boolean {
  return request.state !== 'sent' && request.state !== 'delivered' && request.state !== 'cancelling';
}
