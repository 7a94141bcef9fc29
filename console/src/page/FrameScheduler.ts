// Draws at most once per animation frame, and takes at most a third of the time for it: after a slow draw it waits
// for twice as long.
export class FrameScheduler {
  readonly #draw: () => void;
  readonly #request: (callback: () => void) => void;
  readonly #now: () => number;
  #isRequested = false;
  #notBefore = 0;
  lastDrawMs = 0;

  constructor(
    draw: () => void,
    request: (callback: () => void) => void = (callback) => requestAnimationFrame(callback),
    now: () => number = () => performance.now(),
  ) {
    this.#draw = draw;
    this.#request = request;
    this.#now = now;
  }

  // Something has changed.
  request(): void {
    if (this.#isRequested) return;
    this.#isRequested = true;
    this.#request(this.#frame);
  }

  readonly #frame = (): void => {
    const start = this.#now();
    if (start < this.#notBefore) {
      this.#request(this.#frame);
      return;
    }
    this.#isRequested = false;
    this.#draw();
    const end = this.#now();
    this.lastDrawMs = end - start;
    this.#notBefore = end + 2 * this.lastDrawMs;
  };
}
