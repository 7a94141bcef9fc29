// The page as people use it: by roles, names and what they read. Where a role does not single something out, by
// data-testid.
import { readFile } from 'node:fs/promises';
import type { Locator, Page } from 'playwright-core';
import type { Browsing, Opened, OpenOptions } from './browser.js';
import { until } from './processes.js';

export interface RequestSettings {
  qos?: 0 | 1 | 2;
  expirySeconds?: number;
  giveUpSeconds?: number;
}

export class Console {
  readonly page: Page;

  private constructor(readonly opened: Opened) {
    this.page = opened.page;
  }

  /** Opens the page, and waits until it is drawn. */
  static async open(browsing: Browsing, address: string, options?: OpenOptions): Promise<Console> {
    const page = await Console.openUnwaited(browsing, address, options);
    await page.page.getByRole('main').waitFor();
    return page;
  }

  static async openUnwaited(
    browsing: Browsing,
    address: string,
    options?: OpenOptions,
  ): Promise<Console> {
    return new Console(await browsing.open(address, options));
  }

  /** Everything that the broker kept has come. */
  async ready(): Promise<void> {
    await until('the page to be online', async () => (await this.connectionState()) === 'online');
    await until('all that the broker kept', async () =>
      /first view after/.test(await this.page.getByTestId('meter').innerText()),
    );
  }

  // The connection

  connectionState(): Promise<string | null> {
    return this.page.getByTestId('connection-state').getAttribute('data-state');
  }
  /** Its state and reason, and when it tries again. */
  async connectionText(): Promise<string> {
    return this.page.locator('.connection-status').innerText();
  }
  async form(): Promise<void> {
    await this.page.getByRole('heading', { name: 'Connection', exact: true }).waitFor();
  }
  async connect(broker: string, user: string, key: string): Promise<void> {
    await this.page.getByLabel('Broker', { exact: true }).fill(broker);
    await this.page.getByLabel('User', { exact: true }).fill(user);
    await this.page.getByLabel('Key', { exact: true }).fill(key);
    await this.page.getByRole('button', { name: 'Connect', exact: true }).click();
  }

  // The fleet

  private get rows(): Locator {
    return this.page.getByTestId('television');
  }
  get idFilter(): Locator {
    return this.page.getByLabel('Id', { exact: true });
  }
  televisionLink(id: string): Locator {
    return this.page.getByRole('link', { name: id, exact: true });
  }
  /** Those in the document: it has only rows that are seen, and some more. */
  fleetIds(): Promise<string[]> {
    return this.rows.getByRole('rowheader').allInnerTexts();
  }
  fleetText(id: string): Promise<string> {
    return this.rows.filter({ has: this.televisionLink(id) }).innerText();
  }
  async counts(): Promise<Record<'all' | 'online' | 'offline' | 'lost', number>> {
    const numbers = (await this.page.getByTestId('counts').locator('strong').allInnerTexts()).map(
      (text) => Number(text.replace(/\D/g, '')),
    );
    return { all: numbers[0]!, online: numbers[1]!, offline: numbers[2]!, lost: numbers[3]! };
  }
  async shown(): Promise<number> {
    return Number((await this.page.getByTestId('shown').innerText()).replace(/\D/g, ''));
  }
  async filterById(text: string): Promise<void> {
    await this.idFilter.fill(text);
  }
  async filterByState(state: string): Promise<void> {
    await this.page.getByRole('combobox', { name: 'State' }).selectOption({ label: state });
  }
  async filterByValue(text: string): Promise<void> {
    await this.page.getByRole('searchbox', { name: 'Value', exact: true }).fill(text);
  }
  async sortBy(heading: string): Promise<void> {
    await this.page.getByRole('columnheader').getByRole('button', { name: heading }).click();
  }
  async scrollFleetToEnd(): Promise<void> {
    await this.page
      .getByRole('region', { name: 'List of televisions' })
      .evaluate((region) => region.scrollTo(0, region.scrollHeight));
  }
  async backToFleet(): Promise<void> {
    await this.page.getByRole('link', { name: 'Televisions', exact: true }).click();
    await this.page.getByTestId('counts').waitFor();
  }

  // One television

  async openTelevision(id: string): Promise<void> {
    await this.televisionLink(id).click();
    await this.page.getByRole('heading', { level: 2, name: 'Properties' }).waitFor();
  }
  /** Its id and whether it is there. */
  async heading(): Promise<string> {
    return this.page.locator('main .title-row').first().innerText();
  }
  private property(name: string): Locator {
    return this.page
      .getByTestId('property')
      .filter({ has: this.page.getByRole('rowheader').getByText(name, { exact: true }) });
  }
  async propertyText(name: string): Promise<string> {
    return this.property(name).innerText();
  }
  async openWholeValue(name: string): Promise<void> {
    await this.property(name).getByRole('button', { name: /whole/i }).click();
    await this.page.getByRole('dialog').waitFor();
  }
  async wholeValue(name: string): Promise<string> {
    await this.openWholeValue(name);
    const dialog = this.page.getByRole('dialog');
    const text = await dialog.getByTestId('whole-value').innerText();
    await dialog.getByRole('button', { name: 'Close' }).click();
    await dialog.waitFor({ state: 'hidden' });
    return text;
  }
  /** How many columns of the property's picture have its line; 0 when it has none. */
  async plotInk(name: string): Promise<number> {
    const button = this.property(name).getByRole('button', { name: /picture/i });
    if ((await button.count()) === 0) return 0;
    if ((await button.getAttribute('aria-pressed')) !== 'true') await button.click();
    const picture = this.page.getByRole('img', { name: new RegExp(`^${name} over time`) });
    await picture.waitFor();
    return picture.locator('canvas').evaluate((element) => {
      const canvas = element as HTMLCanvasElement;
      const colour = getComputedStyle(document.documentElement).getPropertyValue('--accent').trim();
      const wanted = [1, 3, 5].map((at) => parseInt(colour.slice(at, at + 2), 16));
      const { data } = canvas.getContext('2d')!.getImageData(0, 0, canvas.width, canvas.height);
      const columns = new Set<number>();
      for (let i = 0; i < data.length; i += 4) {
        if (wanted.every((part, at) => Math.abs(data[i + at]! - part) < 24)) {
          columns.add((i / 4) % canvas.width);
        }
      }
      return columns.size;
    });
  }

  // The timeline

  async timelineText(): Promise<string> {
    return (await this.page.getByRole('table', { name: 'Timeline' }).innerText());
  }
  async pauseTimeline(): Promise<void> {
    await this.page.getByRole('button', { name: 'Pause' }).click();
  }
  async resumeTimeline(): Promise<void> {
    await this.page.getByRole('button', { name: 'Resume' }).click();
  }
  async filterTimeline(text: string): Promise<void> {
    await this.page.getByLabel('Filter timeline').fill(text);
  }
  async filterTimelineKind(kind: string): Promise<void> {
    await this.page.getByRole('combobox', { name: 'Kind' }).selectOption(kind);
  }
  async exportTimeline(): Promise<string> {
    const [download] = await Promise.all([
      this.page.waitForEvent('download'),
      this.page.getByRole('button', { name: 'Export NDJSON' }).click(),
    ]);
    return readFile(await download.path(), 'utf8');
  }

  // Requests

  private control(name: string): Locator {
    return this.page.getByLabel(`Value of ${name}`, { exact: true });
  }
  /** Includes these properties in the next request, and no other. */
  private async include(names: string[]): Promise<void> {
    const wanted = new Set(names.map((name) => `Include ${name}`));
    for (const box of await this.page.getByRole('checkbox', { name: /^Include / }).all()) {
      await box.setChecked(wanted.has((await box.getAttribute('aria-label')) ?? ''));
    }
  }
  private async enter(values: Record<string, string | number | boolean>): Promise<void> {
    for (const [name, value] of Object.entries(values)) {
      const control = this.control(name);
      if (typeof value === 'boolean') await control.setChecked(value);
      else await control.fill(String(value));
    }
    await this.include(Object.keys(values));
  }
  private async choose(settings: RequestSettings): Promise<void> {
    const { qos, expirySeconds, giveUpSeconds } = settings;
    if (qos !== undefined) await this.page.getByRole('combobox', { name: 'QoS' }).selectOption(String(qos));
    await this.page
      .getByLabel('Expiry in seconds')
      .fill(expirySeconds === undefined ? '' : String(expirySeconds));
    if (giveUpSeconds !== undefined) {
      await this.page.getByLabel('Give up after seconds').fill(String(giveUpSeconds));
    }
  }
  private get requests(): Locator {
    return this.page.getByTestId('request');
  }
  /** Presses the button, and waits for the request's row. */
  private async sendBy(button: string): Promise<void> {
    const before = await this.requests.count();
    await this.page.getByRole('button', { name: button, exact: true }).click();
    await until('the row of the request', async () => (await this.requests.count()) > before);
  }
  async set(
    values: Record<string, string | number | boolean>,
    settings: RequestSettings = {},
  ): Promise<void> {
    await this.enter(values);
    await this.choose(settings);
    await this.sendBy('Set');
  }
  async setFile(name: string, content: Buffer): Promise<void> {
    const kind = this.page.getByLabel(`Send ${name} as`, { exact: true });
    if ((await kind.count()) > 0) await kind.selectOption('bytes');
    await this.control(name).setInputFiles({
      name: 'file.bin',
      mimeType: 'application/octet-stream',
      buffer: content,
    });
    await this.page.getByText(/characters of Base64/).waitFor();
    await this.include([name]);
    await this.sendBy('Set');
  }
  /** Enters a value that is refused; the words of the refusal. */
  async refusal(values: Record<string, string>): Promise<string> {
    const before = await this.requests.count();
    await this.enter(values);
    await this.page.getByRole('button', { name: 'Set', exact: true }).click();
    const alert = this.page.getByRole('main').getByRole('alert');
    await alert.first().waitFor();
    const words = (await alert.allInnerTexts()).join(' ');
    if ((await this.requests.count()) > before) throw new Error('the request was made');
    return words;
  }
  async get(names: string[]): Promise<void> {
    await this.include(names);
    await this.sendBy('Get');
  }
  async cancel(): Promise<void> {
    await this.requests.first().getByRole('button', { name: /^Cancel/ }).click();
  }
  /** Of the last request, or the one that many before it. */
  async requestState(before = 0): Promise<string | null> {
    return this.requests.nth(before).getAttribute('data-state');
  }
  async requestText(before = 0): Promise<string> {
    return this.requests.nth(before).innerText();
  }
  /** What the application sent since. */
  async requestData(before = 0): Promise<string> {
    return this.requests.nth(before).getByTestId('request-data').innerText();
  }
  requestCount(): Promise<number> {
    return this.requests.count();
  }
  async setByKeyboard(name: string, value: string): Promise<void> {
    await this.tabTo(this.control(name));
    await this.page.keyboard.type(value);
    await this.tabTo(this.page.getByRole('button', { name: 'Set', exact: true }));
    await this.page.keyboard.press('Space');
  }

  // Sign-in

  async signIn(isSignedIn: boolean): Promise<void> {
    await this.page.getByRole('switch', { name: 'Signed in' }).setChecked(isSignedIn);
    await this.sendBy('Set sign-in');
  }
  async signUp(json: string): Promise<void> {
    await this.page.getByLabel(/^Sign-up information/).fill(json);
    await this.sendBy('Set sign-up information');
  }

  // The rest

  bodyText(): Promise<string> {
    return this.page.locator('body').innerText();
  }
  /** Presses Tab until the element has the focus. */
  async tabTo(target: Locator): Promise<void> {
    for (let i = 0; i < 200; i++) {
      if (await target.evaluate((element) => element === document.activeElement)) return;
      await this.page.keyboard.press('Tab');
    }
    throw new Error(`Tab does not reach ${target}`);
  }
  /** Bytes that objects of the page use, after what nobody uses was collected. */
  async usedBytes(): Promise<number> {
    const session = await this.page.context().newCDPSession(this.page);
    await session.send('HeapProfiler.collectGarbage');
    const { usedSize } = await session.send('Runtime.getHeapUsage');
    await session.detach();
    return usedSize;
  }
  /** How many messages it has taken. */
  messages(): Promise<number> {
    return this.page.evaluate(() => (window as unknown as { frameStats: { messages: number } }).frameStats.messages);
  }
  /** Two frames have been drawn. */
  async settle(): Promise<void> {
    await this.page.evaluate(
      () =>
        new Promise((resolve) => requestAnimationFrame(() => requestAnimationFrame(resolve))),
    );
  }
  /** Hides what differs from picture to picture: the page's own measurements. */
  async withoutMeter(): Promise<void> {
    await this.page.getByTestId('meter').evaluate((meter) => (meter.style.visibility = 'hidden'));
  }
  async top(): Promise<void> {
    await this.page.evaluate(() => scrollTo(0, 0));
  }
}
