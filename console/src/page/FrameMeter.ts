const kActiveMs = 1_000; // it measures so long after the last message or draw
const kWindowMs = 10_000; // of the recent longest frame

// Measures the page's own frames: the time from one animation frame to the next while there is something to do, and
// the browser's long tasks. It is also window.frameStats.
export class FrameMeter {
  longestFrameMs = 0; // since the start or reset()
  recentLongestMs = 0; // in the last ten seconds
  longestTaskMs = 0; // as the browser reports tasks over 50 ms; 0: none
  frames = 0;
  framesOver50 = 0;
  messages = 0;
  messagesPerSecond = 0;
  firstViewMs: number | null = null; // from the start of the page until everything that the broker kept was drawn
  connectedMs: number | null = null; // from the start of the page until the broker accepted it
  usedBytes: number | null = null; // of JavaScript objects, once a second, where the browser tells
  #recent: { at: number; ms: number }[] = [];
  #lastFrame: number | null = null;
  #activeUntil = 0;
  #isRunning = false;
  #secondStart = 0;
  #secondMessages = 0;

  constructor() {
    if (typeof PerformanceObserver === 'undefined') return;
    try {
      new PerformanceObserver((list) => {
        for (const entry of list.getEntries()) this.longestTaskMs = Math.max(this.longestTaskMs, entry.duration);
      }).observe({ type: 'longtask' });
    } catch {
      // this browser has no long tasks
    }
  }

  message(): void {
    this.messages++;
    this.#secondMessages++;
    this.active();
  }

  active(): void {
    const now = performance.now();
    this.#activeUntil = now + kActiveMs;
    if (this.#isRunning || document.visibilityState === 'hidden') return;
    this.#isRunning = true;
    this.#lastFrame = null;
    requestAnimationFrame(this.#frame);
  }

  // Once a second, also when nothing happens.
  tick(): void {
    const now = performance.now();
    const seconds = (now - this.#secondStart) / 1000;
    if (seconds > 0) this.messagesPerSecond = Math.round(this.#secondMessages / seconds);
    this.#secondStart = now;
    this.usedBytes = (performance as { memory?: { usedJSHeapSize: number } }).memory?.usedJSHeapSize ?? null;
    this.#secondMessages = 0;
    this.#recent = this.#recent.filter((frame) => frame.at > now - kWindowMs);
    this.recentLongestMs = this.#recent.reduce((longest, frame) => Math.max(longest, frame.ms), 0);
  }

  reset(): void {
    this.longestFrameMs = 0;
    this.longestTaskMs = 0;
    this.recentLongestMs = 0;
    this.frames = 0;
    this.framesOver50 = 0;
    this.#recent = [];
    this.#lastFrame = null;
  }

  readonly #frame = (at: number): void => {
    if (this.#lastFrame !== null && document.visibilityState === 'visible') {
      const ms = at - this.#lastFrame;
      this.frames++;
      if (ms > 50) this.framesOver50++;
      this.longestFrameMs = Math.max(this.longestFrameMs, ms);
      const last = this.#recent.at(-1);
      if (last === undefined || at - last.at > 250) this.#recent.push({ at, ms });
      else if (ms > last.ms) this.#recent[this.#recent.length - 1] = { at: last.at, ms };
    }
    this.#lastFrame = at;
    if (at < this.#activeUntil && document.visibilityState === 'visible') {
      requestAnimationFrame(this.#frame);
    } else {
      this.#isRunning = false;
      this.#lastFrame = null;
    }
  };
}
