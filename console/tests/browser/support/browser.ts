// Chromium with the page, as the installed file has it, and what every test of the page wants of it.
import { existsSync } from 'node:fs';
import { resolve } from 'node:path';
import { type Browser, type BrowserContext, chromium, type Page } from 'playwright-core';
import { test as base, expect } from 'vitest';
import { Broker, type BrokerOptions } from './broker.js';
import { Channel } from './channel.js';
import { Fleet, Television, type Types } from './televisions.js';

const kHere = new URL('.', import.meta.url).pathname;
/** The folder of the page as it was built. */
export const kPages = resolve(process.env.ADC_CONSOLE_FOLDER ?? resolve(kHere, '../../../dist'));
export const kFile = resolve(kPages, 'index.html');

export function chromiumFile(): string {
  const found = [process.env.CHROMIUM, '/usr/bin/chromium', '/usr/bin/chromium-browser'].find(
    (file) => file && existsSync(file),
  );
  if (!found) throw new Error('Chromium is missing: set CHROMIUM');
  return found;
}

export function launch(args: string[] = []): Promise<Browser> {
  return chromium.launch({
    executablePath: chromiumFile(),
    chromiumSandbox: process.getuid?.() !== 0,
    args: ['--disable-dev-shm-usage', ...args],
  });
}

/** What no page may ever do, collected while it is open. */
export class Watch {
  readonly requests: string[] = [];
  readonly sockets: string[] = [];
  readonly faults: string[] = [];

  constructor(page: Page) {
    page.on('request', (request) => this.requests.push(request.url()));
    page.on('websocket', (socket) => this.sockets.push(socket.url()));
    page.on('dialog', (dialog) => {
      this.faults.push(`dialog: ${dialog.message()}`);
      void dialog.dismiss();
    });
    page.on('pageerror', (error) => this.faults.push(`error: ${error.stack ?? error.message}`));
    page.on('console', (message) => {
      // A violation of the policy is told only here when it comes before the page's own scripts.
      if (/Content Security Policy/.test(message.text())) this.faults.push(message.text());
    });
  }
}

export const kDesktop = { width: 1280, height: 800 };

export interface OpenOptions {
  width?: number;
  height?: number;
  scheme?: 'light' | 'dark';
}

export interface Opened {
  page: Page;
  watch: Watch;
  context: BrowserContext;
}

/** Opens pages in contexts of their own; at the end holds all of them against what no page may do. */
export class Browsing {
  private readonly opened: Opened[] = [];
  constructor(readonly browser: Browser) {}

  async open(address: string, options: OpenOptions = {}): Promise<Opened> {
    const context = await this.browser.newContext({
      viewport: { width: options.width ?? kDesktop.width, height: options.height ?? kDesktop.height },
      colorScheme: options.scheme ?? 'light',
      acceptDownloads: true,
      locale: 'en-GB',
      timezoneId: 'UTC',
    });
    context.setDefaultTimeout(20_000);
    await context.addInitScript(() => {
      const seen: string[] = [];
      Object.assign(window, { seenViolations: seen });
      document.addEventListener('securitypolicyviolation', (event) => {
        seen.push(`${event.violatedDirective} ${event.blockedURI}`);
      });
    });
    const page = await context.newPage();
    const opened = { page, watch: new Watch(page), context };
    this.opened.push(opened);
    await page.goto(address);
    return opened;
  }

  async end(): Promise<void> {
    const faults: string[] = [];
    for (const { page, watch, context } of this.opened) {
      faults.push(...watch.faults);
      if (!page.isClosed()) {
        faults.push(
          ...(await page.evaluate(
            () => (window as unknown as { seenViolations: string[] }).seenViolations,
          )),
        );
      }
      await context.close();
    }
    expect(faults, 'errors, dialogs and violations of the policy').toEqual([]);
  }
}

interface Fixtures {
  browsing: Browsing;
  /** Starts brokers, which end with the test. */
  startBroker: (options?: BrokerOptions) => Promise<Broker>;
  broker: Broker;
  fleet: Fleet;
  /** Connects televisions, which end with the test. */
  television: (id: string, types: Types, now?: () => Date) => Promise<Television>;
  startChannel: (options?: BrokerOptions & { timeoutMs?: number }) => Promise<Channel>;
}

let shared: Browser | undefined;
/** One browser for all tests of a file. */
export async function endBrowser(): Promise<void> {
  await shared?.close();
  shared = undefined;
}

export const test = base.extend<Fixtures>({
  // eslint-disable-next-line no-empty-pattern
  browsing: async ({}, use) => {
    shared ??= await launch();
    const browsing = new Browsing(shared);
    await use(browsing);
    await browsing.end();
  },
  startBroker: async ({}, use) => {
    const brokers: Broker[] = [];
    await use(async (options = {}) => {
      const broker = await Broker.start({ pages: kPages, ...options });
      brokers.push(broker);
      return broker;
    });
    for (const broker of brokers) await broker.stop();
  },
  broker: async ({ startBroker }, use) => {
    await use(await startBroker());
  },
  fleet: async ({ broker }, use) => {
    const fleet = await Fleet.connect(broker);
    await use(fleet);
    await fleet.end();
  },
  television: async ({ broker }, use) => {
    const televisions: Television[] = [];
    await use(async (id, types, now) => {
      const television = await Television.connect(broker, id, types, now);
      televisions.push(television);
      return television;
    });
    for (const television of televisions) await television.end();
  },
  startChannel: async ({}, use) => {
    const channels: Channel[] = [];
    await use(async (options = {}) => {
      const channel = await Channel.start({ pages: kPages, ...options });
      channels.push(channel);
      return channel;
    });
    for (const channel of channels) await channel.stop();
  },
});

export { expect };
