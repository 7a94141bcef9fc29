import { beginningOf } from './beginningOf';
import { kRequestCharacters } from './Budget';
import { kService } from './Fleet';
import { jsonOf, Message, textOf } from './Message';
import { Property } from './Property';
import { isOver, kAnswerLimit, kConfirmationLimit, Qos, Request, RequestKind, RequestState } from './Request';
import { randomHexadecimal } from './randomHexadecimal';
import { Ring } from './Ring';
import { isOwn } from './SetEffects';
import { Television } from './Television';

export const kMaxRequests = 500; // rows that are kept, fewer when they are long
export const kSessionOfThingS = 24 * 3600; // how long a broker keeps a television's session after it has left
export const kNotCarriedOut: ReadonlySet<RequestState> = new Set(['refused', 'busy', 'expired']);
const kAnswerTimedOut = 'the request was not answered in time';

export interface PublishOptions {
  readonly qos: Qos;
  readonly correlation: string; // hexadecimal
  readonly responseTopic: string;
  readonly expiryS: number | null;
}

export interface PublishResult {
  readonly error: string | null; // in words; null: the broker has it
  readonly notAuthorised: boolean;
  readonly noListener: boolean; // the broker knows nobody who would get it
}

// How requests reach the broker.
export interface Publisher {
  readonly responseTopic: string;
  publish(topic: string, payload: string, options: PublishOptions, done: (result: PublishResult) => void): void;
}

export interface RequestOptions {
  readonly qos: Qos;
  readonly expiryS: number | null;
  readonly limitS: number;
}

// The requests that this page made. Matches answers by Correlation Data, and values to the sets before them.
export class Requests {
  readonly #publisher: Publisher;
  readonly #now: () => number;
  readonly #random: () => string;
  readonly #rows = new Ring<Request>(kMaxRequests);
  readonly #byCorrelation = new Map<string, Request>();
  #number = 0;
  #characters = 0; // of all rows, as charactersOf() has them

  // `random` makes Correlation Data, in hexadecimal.
  constructor(publisher: Publisher, random: () => string = () => randomHexadecimal(8), now: () => number = Date.now) {
    this.#publisher = publisher;
    this.#random = random;
    this.#now = now;
  }

  get count(): number {
    return this.#rows.length;
  }

  get dropped(): number {
    return this.#rows.added - this.#rows.length;
  }

  // Newest first; of one television, or all.
  select(thing: string | null = null): Request[] {
    const rows = this.#rows.toArray().reverse();
    return thing === null ? rows : rows.filter((row) => row.thing === thing);
  }

  get open(): Request[] {
    return [...this.#byCorrelation.values()].filter((row) => !isOver(row));
  }

  // `payload` is the request's JSON; `names` are the properties in it.
  send(
    kind: RequestKind,
    television: Television,
    names: readonly string[],
    payload: string,
    options: RequestOptions,
  ): Request {
    const request: Request = {
      number: ++this.#number,
      correlation: this.#random(),
      thing: television.id,
      kind,
      names,
      payload,
      qos: options.qos,
      expiryS: options.expiryS,
      limitS: options.limitS,
      sentAt: this.#now(),
      state: 'sent',
      detail: '',
      endedAt: null,
      waitingSince: null,
      answer: null,
      resultCode: null,
      isLate: false,
      confirmations: new Map(),
    };
    this.#remember(request);
    television.note({
      at: request.sentAt,
      kind,
      text: `request ${request.number}: ${payload}`,
      correlation: request.correlation,
    });
    this.#publisher.publish(
      `things/${television.id}/${kService}/${kind}`,
      payload,
      {
        qos: options.qos,
        correlation: request.correlation,
        responseTopic: this.#publisher.responseTopic,
        expiryS: options.expiryS,
      },
      (result) => this.#published(request, television, result),
    );
    return request;
  }

  // Asks the service to end the request. It may be answered all the same, when the cancel comes too late.
  cancel(request: Request, television: Television): void {
    if (isOver(request) || request.state === 'cancelling') return;
    const before = request.state;
    request.state = 'cancelling';
    request.detail = 'the cancel is on its way';
    television.note({
      at: this.#now(),
      kind: 'cancel',
      text: `request ${request.number}`,
      correlation: request.correlation,
    });
    this.#publisher.publish(
      `things/${request.thing}/${kService}/cancel`,
      '',
      {
        qos: request.qos === 0 ? 1 : request.qos,
        correlation: request.correlation,
        responseTopic: this.#publisher.responseTopic,
        expiryS: request.expiryS,
      },
      (result) => {
        if (request.state !== 'cancelling') return;
        if (result.error !== null) {
          request.state = before === 'sent' ? 'sent' : 'delivered';
          request.detail = `the cancel failed: ${result.error}`;
          return;
        }
        this.#end(
          request,
          'cancelled',
          television.isOnline
            ? 'the broker has the cancel; what was carried out before it stays'
            : 'the cancel waits at the broker behind the request',
        );
      },
    );
  }

  // Takes an answer; false when it is to none of the requests. An answer may come twice.
  takeAnswer(message: Message, find: (id: string) => Television | undefined): boolean {
    const request = this.#byCorrelation.get(message.correlation ?? '');
    if (request === undefined) return false;
    if (request.answer !== null || request.state === 'answered') return true;
    const answer = jsonOf(message);
    const television = find(request.thing);
    request.isLate = isOver(request);
    if (typeof answer !== 'object' || answer === null) {
      this.#end(request, 'refused', 'an answer that is not JSON of this channel');
      return true;
    }
    const { result, error, properties } = answer as { result?: unknown; error?: unknown; properties?: unknown };
    const hasData = typeof properties === 'object' && properties !== null && Object.keys(properties).length > 0;
    request.answer = hasData ? beginningOf(JSON.stringify(properties), kAnswerLimit) : '';
    this.#characters += request.answer.length;
    if (typeof error === 'string') {
      this.#end(
        request,
        error === 'busy' ? 'busy' : error === kAnswerTimedOut ? 'timed out' : 'refused',
        error === 'busy'
          ? 'too much waits already: try again later'
          : error === kAnswerTimedOut
            ? `${error}; it may have been carried out`
            : error,
      );
    } else {
      request.resultCode = typeof result === 'number' ? result : null;
      this.#end(request, 'answered', wordsOf(result));
    }
    if (request.resultCode !== null) this.#noteSet(request, television, 'set');
    else if (error === kAnswerTimedOut) this.#noteSet(request, television, 'assumed');
    television?.note({
      at: message.at,
      kind: 'answer',
      text: `request ${request.number}: ${textOf(message)}`,
      correlation: request.correlation,
    });
    this.#makeRoom();
    return true;
  }

  // The application sent a value: newer than a set that waits for it, when it was not at the broker before.
  takeValue(television: Television, property: Property, message: Message): void {
    if (message.retained || property.value === null || isOwn(property.name)) return;
    for (const request of this.#byCorrelation.values()) {
      if (
        request.kind !== 'set' ||
        request.thing !== television.id ||
        !request.names.includes(property.name) ||
        request.confirmations.has(property.name) ||
        kNotCarriedOut.has(request.state)
      ) {
        continue;
      }
      const text = beginningOf(property.value.text, kConfirmationLimit);
      request.confirmations.set(property.name, { at: message.at, text });
      this.#characters += text.length;
    }
    this.#makeRoom();
  }

  // Ends what nobody will answer. To be called about once a second.
  tick(isConnected: boolean, find: (id: string) => Television | undefined): boolean {
    const now = this.#now();
    let changed = false;
    for (const request of this.open) {
      const isWaiting = isConnected && (find(request.thing)?.isOnline ?? false);
      if (!isWaiting) request.waitingSince = null;
      else request.waitingSince ??= now;
      if (request.waitingSince !== null && now - request.waitingSince >= request.limitS * 1000) {
        this.#end(
          request,
          'timed out',
          `no answer within ${request.limitS} s, this page's own limit; it may have been carried out`,
        );
        this.#noteSet(request, find(request.thing), 'assumed');
        changed = true;
      } else if (
        !isWaiting &&
        request.state === 'delivered' &&
        request.qos > 0 &&
        now >= livesUntil(request, find(request.thing)).at
      ) {
        this.#end(request, 'expired', 'the broker has dropped it: the television was offline until it expired');
        changed = true;
      }
    }
    return changed;
  }

  clear(): void {
    this.#rows.clear();
    this.#byCorrelation.clear();
    this.#characters = 0;
  }

  // Signing in is stored before the rest of a set is answered, so it is assumed of a set that was not answered.
  #noteSet(request: Request, television: Television | undefined, known: 'set' | 'assumed'): void {
    if (request.kind !== 'set' || television === undefined) return;
    television.noteSet(request.payload, this.#now(), known, known === 'set');
  }

  #remember(request: Request): void {
    if (this.#rows.length === kMaxRequests) this.#forgetOldest();
    this.#rows.add(request);
    this.#byCorrelation.set(request.correlation, request);
    this.#characters += charactersOf(request);
    this.#makeRoom();
  }

  #makeRoom(): void {
    while (this.#characters > kRequestCharacters && this.#rows.length > 1) this.#forgetOldest();
  }

  #forgetOldest(): void {
    const oldest = this.#rows.shift()!;
    this.#byCorrelation.delete(oldest.correlation);
    this.#characters -= charactersOf(oldest);
  }

  #published(request: Request, television: Television, result: PublishResult): void {
    if (request.state !== 'sent' && request.state !== 'cancelling') return; // the answer was quicker
    if (result.error !== null) {
      this.#end(request, 'refused', result.error);
      television.note({ at: this.#now(), kind: 'request', text: `request ${request.number}: ${result.error}` });
      return;
    }
    if (request.state === 'cancelling') return;
    if (result.noListener) {
      this.#end(request, 'refused', 'the broker knows nobody who takes requests for this television');
      return;
    }
    if (request.qos === 0 && !television.isOnline) {
      this.#end(request, 'expired', 'QoS 0 does not wait for a television that is offline');
      return;
    }
    request.state = 'delivered';
    if (television.isOnline) request.waitingSince ??= this.#now();
  }

  #end(request: Request, state: Request['state'], detail: string): void {
    request.state = state;
    request.detail = detail;
    request.endedAt = this.#now();
  }
}

function charactersOf(request: Request): number {
  let characters = request.payload.length + (request.answer?.length ?? 0);
  for (const { text } of request.confirmations.values()) characters += text.length;
  return characters;
}

export interface Lifetime {
  readonly at: number; // ms since 1970
  readonly by: 'expiry' | 'session'; // what ends then: the request's expiry, or the television's session
  readonly isAtMost: boolean; // it may end before: nothing says since when the television is offline
}

// When the broker drops a request that waits there for a television that is not online.
export function livesUntil(request: Request, television: Television | undefined): Lifetime {
  const since = television?.since ?? null;
  const expiry = request.expiryS === null ? Infinity : request.sentAt + request.expiryS * 1000;
  const session = (since ?? request.sentAt) + kSessionOfThingS * 1000;
  return { at: Math.min(expiry, session), by: expiry <= session ? 'expiry' : 'session', isAtMost: since === null };
}

export function wordsOf(result: unknown): string {
  if (result === 0) return 'done';
  if (result === 6) return 'a name is unknown; the others were handled';
  return 'a result that this page does not know';
}
