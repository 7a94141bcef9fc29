// Remakes the pictures of docs/console: `npm run screenshots`. With ADC_ALL_SCREENSHOTS it makes many more into that
// folder, for eyes: widths, empty, one television, a thousand.
import { mkdir, writeFile } from 'node:fs/promises';
import { join, resolve } from 'node:path';
import { Console } from './support/console.js';
import { expect, kFile, type OpenOptions, test } from './support/browser.js';
import { fillFleet, kFleetTypes } from './support/fill.js';
import { withPalette } from './support/png.js';
import type { Voice } from './support/televisions.js';
import { resetRuns } from './support/televisions.js';

const kNow = new Date('2026-11-22T08:03:45.123Z');
const kPictures = resolve(process.env.ADC_SCREENSHOTS ?? resolve(kFile, '../../../docs/console'));
const kAll = process.env.ADC_ALL_SCREENSHOTS;

/** A clock that goes on by the milliseconds that are asked for, and not by itself. */
function clockFrom(begin: Date): { now: () => Date; pass: (ms: number) => void } {
  let ms = begin.getTime();
  return { now: () => new Date(ms), pass: (more) => (ms += more) };
}

/** Opens the page with a clock that stands still. */
async function open(
  browsing: Parameters<typeof Console.open>[0],
  address: string,
  options: OpenOptions,
): Promise<Console> {
  const page = await Console.openUnwaited(browsing, 'about:blank', options);
  await page.page.clock.setFixedTime(kNow);
  await page.page.goto(address);
  await page.ready();
  return page;
}

/** The television of the pictures: numbers that can be drawn, a gap, a text. */
async function speak(tv: Voice, pass: (ms: number) => void): Promise<void> {
  for (let i = 0; i < 60; i++) {
    await tv.value('qz', String(Math.round(20 + 12 * Math.sin(i / 6) + (i % 7))));
    pass(500);
  }
  await tv.value('qmap', '{"lat":52.52,"lon":13.4,"zoom":12}');
  pass(200);
  await tv.value('vexBrowser', 'https://www.example.org/news');
  pass(200);
  await tv.value('qz', '31', 2);
}

async function picture(page: Console, file: string): Promise<void> {
  await page.settle();
  await page.withoutMeter();
  await page.page.mouse.move(0, 0);
  const png = await page.page.screenshot({ animations: 'disabled', caret: 'hide' });
  await writeFile(file, withPalette(png));
}

for (const scheme of ['light', 'dark'] as const) {
  test(`fleet and television, ${scheme}`, async ({ broker, fleet, television, browsing }) => {
    await mkdir(kPictures, { recursive: true });
    resetRuns();
    const clock = clockFrom(new Date(kNow.getTime() - 60_000));
    await fillFleet(fleet, 40, () => {
      clock.pass(130); // so that they do not all have one time
      return clock.now();
    });
    const tv = await television('tv', kFleetTypes, clock.now);
    const page = await open(browsing, broker.address, { scheme, width: 1200, height: 720 });
    await expect.poll(() => page.counts()).toMatchObject({ all: 41 });
    await picture(page, join(kPictures, `fleet-${scheme}.png`));
    await page.openTelevision('tv');
    await speak(tv.voice, clock.pass);
    await expect.poll(() => page.propertyText('qz')).toContain('31');
    tv.onRequest = (request) => tv.obey(request);
    await page.set({ qmap: 'Berlin' });
    await expect.poll(() => page.requestData()).toContain('Berlin');
    await page.top();
    await picture(page, join(kPictures, `television-${scheme}.png`));
  });
}

if (kAll) {
  for (const scheme of ['light', 'dark'] as const) {
    for (const width of [360, 1280, 1920]) {
      test(`all views, ${scheme}, ${width}`, async ({ startBroker, browsing }) => {
        const { Fleet, Television } = await import('./support/televisions.js');
        const options = { scheme, width, height: width === 360 ? 740 : width === 1920 ? 1080 : 800 };
        const shot = async (page: Console, name: string) => {
          await page.settle();
          await page.page.screenshot({ path: join(kAll, `${name}-${scheme}-${width}.png`) });
          await page.page.screenshot({
            path: join(kAll, `${name}-${scheme}-${width}-whole.png`),
            fullPage: true,
          });
        };
        await mkdir(kAll, { recursive: true });
        const broker = await startBroker();
        const form = await Console.openUnwaited(browsing, `${broker.origin}/#key=wrong`, options);
        await form.form();
        await shot(form, 'form');
        const page = await Console.open(browsing, broker.address, options);
        await page.ready();
        await shot(page, 'empty');
        const tv = await Television.connect(broker, 'tv', {
          ...kFleetTypes, flag: 'bool', count: 'int', ratio: 'double', tree: 'json', blob: 'bytes',
        });
        await expect.poll(() => page.fleetIds()).toEqual(['tv']);
        await shot(page, 'one');
        await page.openTelevision('tv');
        const clock = clockFrom(new Date(Date.now() - 32_000));
        await speak(tv.voice, clock.pass);
        await page.set({ qmap: 'Berlin' });
        await expect.poll(() => page.requestData()).toContain('Berlin');
        tv.onRequest = (request) => tv.answer(request, { error: 'qz: a text with U+0000' });
        await page.set({ qz: 'x' });
        await expect.poll(() => page.requestState()).toBe('refused');
        await page.top();
        await shot(page, 'television');
        await tv.kill();
        await expect.poll(() => page.heading()).toMatch(/offline|lost/i);
        await page.top();
        await shot(page, 'television-lost');
        await page.backToFleet();
        const fleet = await Fleet.connect(broker);
        await fillFleet(fleet, 1_000);
        await expect.poll(() => page.counts()).toMatchObject({ all: 1_001 });
        await shot(page, 'thousand');
        await fleet.end();
        await tv.end();
        await broker.kill();
        await expect.poll(() => page.connectionText()).toMatch(/lost/i);
        await shot(page, 'lost');
      });
    }
  }
}
