// The last `capacity` items, oldest first. Adding is O(1); nothing grows beyond the capacity.
export class Ring<T> {
  #items: T[] = [];
  #first = 0;
  #capacity: number;
  #added = 0;

  constructor(capacity: number) {
    this.#capacity = Math.max(1, capacity);
  }

  get length(): number {
    return this.#items.length;
  }

  get capacity(): number {
    return this.#capacity;
  }

  // How many were ever added, so how many were dropped is `added - length`.
  get added(): number {
    return this.#added;
  }

  add(item: T): void {
    this.#added++;
    if (this.#items.length < this.#capacity) {
      this.#items.push(item);
      return;
    }
    this.#items[this.#first] = item;
    this.#first = (this.#first + 1) % this.#capacity;
  }

  at(index: number): T | undefined {
    if (index < 0 || index >= this.#items.length) return undefined;
    return this.#items[(this.#first + index) % this.#items.length];
  }

  toArray(): T[] {
    return this.#items.slice(this.#first).concat(this.#items.slice(0, this.#first));
  }

  // Drops the oldest item, and returns it.
  shift(): T | undefined {
    const [oldest, ...kept] = this.toArray();
    this.#items = kept;
    this.#first = 0;
    return oldest;
  }

  // Drops the oldest items when the new capacity is smaller.
  setCapacity(capacity: number): void {
    const kept = this.toArray();
    this.#capacity = Math.max(1, capacity);
    this.#items = kept.slice(Math.max(0, kept.length - this.#capacity));
    this.#first = 0;
  }

  clear(): void {
    this.#items = [];
    this.#first = 0;
  }
}
