// Everybody can use the page: axe-core finds nothing, the keyboard is enough, and it fits from 360 pixels on.
import { readFile } from 'node:fs/promises';
import { createRequire } from 'node:module';
import type { AxeResults } from 'axe-core';
import { Console } from './support/console.js';
import { expect, type OpenOptions, test } from './support/browser.js';
import { until } from './support/processes.js';

const kAxe = createRequire(import.meta.url).resolve('axe-core/axe.min.js');

async function violations(page: Console): Promise<string[]> {
  // As a debugger would: the page's policy forbids foreign scripts.
  await page.page.evaluate(await readFile(kAxe, 'utf8'));
  const results = await page.page.evaluate(() =>
    (window as unknown as { axe: { run: () => Promise<unknown> } }).axe.run(),
  );
  return (results as AxeResults).violations.flatMap((violation) =>
    violation.nodes.map(
      (node) => `${violation.id}: ${node.html.slice(0, 200)} ${node.failureSummary ?? ''}`,
    ),
  );
}

/** How far the content is wider than the window. */
function overflow(page: Console): Promise<number> {
  return page.page.evaluate(
    () => document.documentElement.scrollWidth - document.documentElement.clientWidth,
  );
}

/** Cells whose content reaches beyond them, or to the next one, and choices that are cut. */
function cut(page: Console): Promise<string[]> {
  return page.page.evaluate(() => {
    const found: string[] = [];
    for (const cell of document.querySelectorAll('td, th')) {
      const content = document.createRange();
      content.selectNodeContents(cell);
      const hides = getComputedStyle(cell).overflowX !== 'visible';
      const excess = content.getBoundingClientRect().right - cell.getBoundingClientRect().right;
      const isSeen = cell.getClientRects().length > 0 && cell.textContent !== '';
      if (isSeen && !hides && excess > -1) found.push(`${cell.textContent} reaches its end (${excess})`);
    }
    for (const select of document.querySelectorAll('select')) {
      const whole = select.cloneNode(true) as HTMLSelectElement;
      whole.style.cssText = 'position: absolute; width: max-content; max-width: none; min-width: 0';
      select.parentElement!.append(whole);
      const excess = whole.offsetWidth - select.offsetWidth;
      whole.remove();
      if (excess > 0) found.push(`${select.options[0]!.text}: ${excess} pixels too narrow`);
    }
    return found;
  });
}

for (const scheme of ['light', 'dark'] as const) {
  for (const width of [360, 1280]) {
    const options: OpenOptions = { scheme, width };
    test(`no view has a fault that axe-core finds: ${scheme}, ${width} pixels`, async ({
      broker,
      fleet,
      television,
      browsing,
    }) => {
      const found: Record<string, string[]> = {};
      const check = async (view: string, page: Console) => {
        const faults = await violations(page);
        const wide = await overflow(page);
        if (wide > 0) faults.push(`${wide} pixels wider than the window`);
        faults.push(...(await cut(page)));
        if (faults.length > 0) found[view] = faults;
      };
      const form = await Console.open(browsing, `${broker.origin}/`, options);
      await form.form();
      await check('connection form', form);

      const page = await Console.open(browsing, broker.address, options);
      await page.ready();
      await check('empty fleet', page);
      const tv = await television('tv', {
        text: 'string', flag: 'bool', count: 'int', ratio: 'double', tree: 'json', blob: 'bytes',
      });
      await tv.voice.value('text', 'volume 7');
      await tv.voice.value('count', '7');
      await tv.voice.value('count', '8', 2);
      const off = fleet.add(`offline-${'with-a-long-name-'.repeat(3)}`);
      await off.describe({ qz: 'string' });
      await off.value('qz', 'x'.repeat(5_000));
      await off.offline(false);
      await expect.poll(() => page.fleetIds()).toHaveLength(2);
      await check('fleet', page);
      await page.openTelevision(off.id);
      await expect.poll(() => page.propertyText('qz')).toContain('xxx');
      await check('television that is offline', page);
      await page.openWholeValue('qz');
      await check('whole value', page);
      await page.page.keyboard.press('Escape');
      await page.backToFleet();
      await page.openTelevision('tv');
      await expect.poll(() => page.propertyText('text')).toContain('volume 7');
      await page.set({ text: 'one' });
      await expect.poll(() => page.requestState()).toBe('answered');
      tv.onRequest = (request) => tv.answer(request, { error: 'busy' });
      await page.set({ text: 'two' });
      await expect.poll(() => page.requestState()).toBe('busy');
      await tv.voice.remove('text');
      await expect.poll(() => page.timelineText()).toMatch(/removed/);
      await check('television', page);
      await page.page.getByRole('link', { name: 'Requests', exact: true }).click();
      await expect.poll(() => page.requestCount()).toBe(2);
      await check('requests', page);
      expect(found).toEqual({});
    });
  }
}

test('the keyboard alone finds a television, sets a property and reads the answer', async ({
  broker,
  fleet,
  television,
  browsing,
}) => {
  for (const id of ['a-1', 'a-2', 'b-1']) await fleet.add(id).online();
  const tv = await television('b-2', { qz: 'string' });
  const page = await Console.open(browsing, broker.address);
  await expect.poll(() => page.fleetIds()).toHaveLength(4);
  await page.tabTo(page.idFilter);
  await page.page.keyboard.type('b-2');
  await expect.poll(() => page.fleetIds()).toEqual(['b-2']);
  await page.tabTo(page.televisionLink('b-2'));
  await page.page.keyboard.press('Enter');
  await expect.poll(() => page.heading()).toContain('b-2');
  await page.setByKeyboard('qz', 'by hand');
  const request = await until('the request', () => tv.requests[0]);
  expect(request.payload).toEqual({ qz: 'by hand' });
  await expect.poll(() => page.requestState()).toBe('answered');
  await page.page.goBack();
  await expect.poll(() => page.fleetIds()).toContain('b-2');
});
