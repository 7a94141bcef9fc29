import { Budget } from './Budget';
import { Message, runOf, sequenceOf, textOf, timeOf } from './Message';
import { Ring } from './Ring';
import { Value } from './Value';

export interface Point {
  readonly at: number; // ms since 1970
  readonly value: number;
}

export type Arrival = 'new' | 'repeated' | 'removed';

// One property of a television: what was announced, and the last value with what its message said about it.
export class Property {
  readonly name: string;
  type: string | null = null; // null: not announced
  value: Value | null = null;
  notifiedAt: number | null = null; // when the application's data was notified, by the television's clock
  arrivedAt: number | null = null;
  sequence: number | null = null;
  run: string | null = null;
  // Values that the sequence has and this page never saw: newer ones took their place, or, `missed`, they may also have
  // come while this page was not connected.
  replaced = 0;
  missed = 0;
  // What came before the connection was lost, and has not come again since.
  isUnconfirmed = false;
  #points: Ring<Point> | null = null;

  readonly #budget: Budget;

  constructor(name: string, budget: Budget = new Budget()) {
    this.name = name;
    this.#budget = budget;
  }

  // To be called when it is not kept any more.
  release(): void {
    if (this.#points !== null) this.#budget.removeSeries();
    this.#points = null;
    this.#budget.returnProperty();
  }

  get pointsKept(): number {
    return this.#points?.length ?? 0;
  }

  get points(): Point[] {
    return this.#points?.toArray() ?? [];
  }

  get pointsAdded(): number {
    return this.#points?.added ?? 0;
  }

  get isDrawable(): boolean {
    return (this.#points?.length ?? 0) > 0;
  }

  // Takes a message of the value's topic.
  take(message: Message): { arrival: Arrival; replaced: number; missed: number } {
    const wasAway = message.retained || this.isUnconfirmed;
    this.isUnconfirmed = false;
    if (message.payload.length === 0) {
      const arrival = this.value === null ? 'repeated' : 'removed';
      this.value = null;
      this.notifiedAt = null;
      this.arrivedAt = message.at;
      return { arrival, replaced: 0, missed: 0 };
    }
    const sequence = sequenceOf(message);
    const run = runOf(message);
    const isSameRun = run !== null && run === this.run;
    if (isSameRun && sequence !== null && this.sequence !== null && sequence <= this.sequence && this.value !== null) {
      return { arrival: 'repeated', replaced: 0, missed: 0 };
    }
    let missing = 0;
    if (isSameRun && sequence !== null && this.sequence !== null) {
      missing = Math.max(0, sequence - this.sequence - 1);
    }
    const [replaced, missed] = wasAway ? [0, missing] : [missing, 0];
    this.replaced += replaced;
    this.missed += missed;
    const repeated =
      run === null && message.retained && this.value !== null && Value.parse(textOf(message)).text === this.value.text;
    this.value = Value.parse(textOf(message), message.payload.length);
    this.sequence = sequence;
    this.run = run;
    this.notifiedAt = timeOf(message);
    this.arrivedAt = message.at;
    if (this.value.number !== null && !repeated) {
      if (this.#points === null) {
        this.#budget.addSeries();
        this.#points = new Ring<Point>(this.#budget.points);
      } else if (this.#points.capacity > this.#budget.points) {
        this.#points.setCapacity(this.#budget.points);
      }
      this.#points.add({ at: this.notifiedAt ?? message.at, value: this.value.number });
    }
    return { arrival: repeated ? 'repeated' : 'new', replaced, missed };
  }
}
