// Measures the page with a thousand televisions: `npm run bench` prints the figures, and writes them to
// build/bench/page.json. Frames are those of the page itself: the time from one animation frame to the next.
import { mkdir, readFile, writeFile } from 'node:fs/promises';
import { loadavg } from 'node:os';
import { dirname, resolve } from 'node:path';
import { gzipSync } from 'node:zlib';
import type { Page } from 'playwright-core';
import { afterAll } from 'vitest';
import { Console } from './support/console.js';
import { expect, kFile, test } from './support/browser.js';
import { fillFleet } from './support/fill.js';
import { until } from './support/processes.js';
import { measureTasks } from './support/tasks.js';

const kTelevisions = 1_000;
const kPerSecond = 1_000;
const kSeconds = 10;
const kRepetitions = 5;
const kResults = resolve(kFile, '../../../build/bench/page.json');

const results: Record<string, unknown> = {};

afterAll(async () => {
  results['load average'] = loadavg()[0]!.toFixed(2);
  console.table(results);
  await mkdir(dirname(kResults), { recursive: true });
  await writeFile(kResults, `${JSON.stringify(results, null, 2)}\n`);
});

interface Frames {
  longest: number;
  over50: number;
  p99: number;
  count: number;
  longestTask: number;
}

/** Begins to measure frames in the page; `end` gives them. */
async function measureFrames(page: Page): Promise<{ end: () => Promise<Frames> }> {
  await page.evaluate(() => {
    const frames: number[] = [];
    const tasks: number[] = [];
    let last: number | undefined;
    let goesOn = true;
    const frame = (at: number) => {
      if (last !== undefined) frames.push(at - last);
      last = at;
      if (goesOn) requestAnimationFrame(frame);
    };
    requestAnimationFrame(frame);
    const observer = new PerformanceObserver((list) => {
      tasks.push(...list.getEntries().map((entry) => entry.duration));
    });
    observer.observe({ type: 'longtask' });
    Object.assign(window, {
      endFrames: () => {
        goesOn = false;
        observer.disconnect();
        return { frames, tasks };
      },
    });
  });
  return {
    end: async () => {
      const { frames, tasks } = await page.evaluate(() =>
        (window as unknown as { endFrames: () => { frames: number[]; tasks: number[] } }).endFrames(),
      );
      const sorted = frames.sort((a, b) => a - b);
      const round = (ms: number) => Math.round(ms * 10) / 10;
      return {
        longest: round(sorted.at(-1) ?? 0),
        over50: sorted.filter((ms) => ms > 50).length,
        p99: round(sorted[Math.floor(sorted.length * 0.99)] ?? 0),
        count: sorted.length,
        longestTask: round(Math.max(0, ...tasks)),
      };
    },
  };
}

test('size of the page', async () => {
  const page = await readFile(kFile);
  results['size, KiB'] = (page.length / 1024).toFixed(1);
  results['size compressed, KiB'] = (gzipSync(page, { level: 9 }).length / 1024).toFixed(1);
});

test('first view of a thousand televisions', async ({ broker, fleet, browsing }) => {
  await fillFleet(fleet, kTelevisions);
  const times: Record<'counted' | 'drawn' | 'all' | 'connected', number[]> = {
    connected: [],
    counted: [],
    drawn: [],
    all: [],
  };
  for (let i = 0; i < kRepetitions; i++) {
    const page = await Console.openUnwaited(browsing, 'about:blank');
    // From the start of the navigation until a frame has been drawn in which all are counted, and one in which the
    // rows that are seen have a value, too.
    await page.page.addInitScript((count) => {
      const seen: Record<string, number> = {};
      Object.assign(window, { seen });
      const poll = () => {
        const text = document.querySelector('[data-testid=counts] strong')?.textContent;
        if (text?.replace(/\D/g, '') === String(count)) {
          const rows = [...document.querySelectorAll('[data-testid=television]')];
          const isDrawn = rows.length > 10 && rows.every((row) => row.lastElementChild?.textContent);
          requestAnimationFrame(() => {
            seen['counted'] ??= performance.now();
            if (isDrawn) seen['drawn'] ??= performance.now();
          });
        }
        if (seen['drawn'] === undefined) requestAnimationFrame(poll);
      };
      requestAnimationFrame(poll);
    }, kTelevisions);
    await page.page.goto(broker.address);
    const measured = await until('the first view', () =>
      page.page.evaluate(() => {
        const { seen, frameStats } = window as unknown as {
          seen: { counted?: number; drawn?: number };
          frameStats?: { connectedMs: number; firstViewMs: number | null };
        };
        return seen.drawn && frameStats?.firstViewMs
          ? {
              connected: frameStats.connectedMs,
              counted: seen.counted!,
              drawn: seen.drawn,
              all: frameStats.firstViewMs,
            }
          : null;
      }),
    );
    for (const [name, ms] of Object.entries(measured)) times[name as keyof typeof times].push(ms);
    await page.opened.context.close();
  }
  for (const [name, words] of [
    ['connected', 'connected to the broker'],
    ['counted', 'all 1,000 are counted'],
    ['drawn', 'the rows that are seen have a value'],
    ['all', 'everything that the broker kept is drawn'],
  ] as const) {
    const sorted = times[name].sort((a, b) => a - b);
    results[`first view: ${words}, ms (best, median)`] =
      `${Math.round(sorted[0]!)}, ${Math.round(sorted[kRepetitions >> 1]!)}`;
  }
});

for (const view of ['fleet', 'television'] as const) {
  test(`a thousand values a second: ${view}`, async ({ broker, fleet, browsing }) => {
    await fillFleet(fleet, kTelevisions);
    const page = await Console.open(browsing, broker.address);
    await expect.poll(() => page.counts()).toMatchObject({ all: kTelevisions });
    if (view === 'television') await page.openTelevision('tv-0001');
    // What the machine does to frames without any value.
    await page.settle();
    const idle = await measureFrames(page.page);
    await page.page.waitForTimeout(3_000);
    const quiet = await idle.end();
    const before = await page.usedBytes();
    const measured = await measureFrames(page.page);
    const tasks = await measureTasks(browsing);
    // In the view of one television, each tenth value is its own: a number, which is drawn.
    await fleet.flood(kPerSecond, kSeconds, (number) =>
      view === 'television' && number % 10 === 0
        ? fleet.voices[0]!.value('qz', String(number % 97))
        : fleet.voices[number % kTelevisions]!.value('qmap', `value ${number}`),
    );
    const frames = await measured.end();
    const { longestMs } = await tasks.end();
    const after = await page.usedBytes();
    results[`${view}: longest frame, ms`] = frames.longest;
    results[`${view}: frames over 50 ms of ${frames.count}`] = frames.over50;
    results[`${view}: 99 % of frames below, ms`] = frames.p99;
    results[`${view}: longest task, ms (0: none over 50)`] = frames.longestTask;
    results[`${view}: longest task, ms of the processor`] = Math.round(longestMs * 10) / 10;
    results[`${view}: longest frame without values, ms`] = quiet.longest;
    results[`${view}: memory before, MiB`] = (before / 1048576).toFixed(1);
    results[`${view}: memory after 10,000 values, MiB`] = (after / 1048576).toFixed(1);
  });
}
