import { describe, expect, it } from 'vitest';

import { FrameScheduler } from '../../src/page/FrameScheduler';

// A browser whose frames come when the test says so.
class FakeFrames {
  now = 0;
  draws = 0;
  costMs = 0;
  #callbacks: (() => void)[] = [];
  readonly scheduler = new FrameScheduler(
    () => {
      this.draws++;
      this.now += this.costMs;
    },
    (callback) => this.#callbacks.push(callback),
    () => this.now,
  );

  frame(): void {
    this.now += 16;
    for (const callback of this.#callbacks.splice(0)) callback();
  }
}

describe('FrameScheduler', () => {
  it('draws once per frame, however often it is asked', () => {
    const frames = new FakeFrames();
    for (let i = 0; i < 100; i++) frames.scheduler.request();
    frames.frame();
    frames.frame();
    expect(frames.draws).toBe(1);
  });

  it('draws again for what changed after the last draw', () => {
    const frames = new FakeFrames();
    frames.scheduler.request();
    frames.frame();
    frames.scheduler.request();
    frames.frame();
    expect(frames.draws).toBe(2);
  });

  it('waits for twice as long as a slow draw took', () => {
    const frames = new FakeFrames();
    frames.costMs = 40;
    frames.scheduler.request();
    frames.frame();
    frames.scheduler.request();
    for (let i = 0; i < 4; i++) frames.frame();
    expect(frames.draws).toBe(1);
    frames.frame();
    expect(frames.draws).toBe(2);
  });
});
