// The page as ./dev run serves it, at the address that it prints.
import mqtt from 'mqtt';
import { Console } from './support/console.js';
import { expect, test } from './support/browser.js';
import { kBuild, kRunChannel, Monitor } from './support/channel.js';
import { Process, run, until } from './support/processes.js';

const kPage = /(http:\/\/127\.0\.0\.1:\d+\/)#key=(\S+)/;
const kName = 'org.tizen.qivo_thing';

/** Runs the channel until the end of `use`, and gives it the page's address and the bus's. */
async function withChannel(
  use: (address: RegExpExecArray, bus: string, channel: Process) => Promise<void>,
): Promise<void> {
  const channel = await Process.start(kRunChannel, [kBuild], /^qivo-thing: ready/);
  try {
    const text = channel.lines.join('\n');
    const address = kPage.exec(text);
    const bus = /unix:path=[^\s'",]+/.exec(text);
    if (!address || !bus) throw new Error(`no addresses in:\n${text}`);
    await use(address, bus[0], channel);
  } finally {
    await channel.stop('SIGINT');
  }
}

test('the printed address shows the television; a set made there is seen by gdbus monitor', async ({
  browsing,
}) => {
  await withChannel(async ([address], bus) => {
    const call = (method: string, ...args: string[]) =>
      run('gdbus', ['call', '-a', bus, '-d', kName, '-o', '/org/tizen/qivo_thing', '-m',
        `${kName}.service.${method}`, ...args]);
    const listener = await Process.start('gdbus', ['monitor', '-a', bus, '-d', kName], /is owned by/);
    try {
      await call('register_app', 'qz');
      await call('send_data', 'qz', '"volume 7"');
      const page = await Console.open(browsing, address);
      await page.openTelevision('tv');
      await expect.poll(() => page.propertyText('qz')).toContain('volume 7');
      await page.set({ qz: 'volume 9' });
      await new Monitor(listener).event('qz', 'volume 9');
      await expect.poll(() => page.requestState()).toBe('answered');
    } finally {
      await listener.stop();
    }
  });
});

test('a connection without the key gets nothing', async ({ browsing }) => {
  await withChannel(async ([, origin, key]) => {
    const socket = origin!.replace('http', 'ws');
    for (const wrong of [{}, { username: 'console' }, { username: 'console', password: 'guess' },
      { username: '', password: key! }]) {
      await expect(
        mqtt.connectAsync(socket, { protocolVersion: 5, reconnectPeriod: 0, ...wrong }),
      ).rejects.toThrow(/not authori[sz]ed|bad user|refused/i);
    }
    const right = await mqtt.connectAsync(socket, {
      protocolVersion: 5, reconnectPeriod: 0, username: 'console', password: key!,
    });
    await right.endAsync();
    const page = await Console.open(browsing, origin!);
    await page.form();
    expect(await page.bodyText()).not.toMatch(/qivo|signinStatus/);
  });
});

test('after a restart of the broker, and of the host, all is right again', async ({ browsing }) => {
  await withChannel(async ([address], bus, channel) => {
    const folder = bus.replace('unix:path=', '').replace(/\/bus$/, '');
    const restart = (part: string) =>
      run(kRunChannel, ['--restart', part, '--kill'], {
        env: { ...process.env, ADC_RUN_FOLDER: folder },
      });
    const page = await Console.open(browsing, address);
    await page.openTelevision('tv');
    await page.signIn(true);
    await expect.poll(() => page.requestState()).toBe('answered');
    await restart('broker');
    await until('the page to be online again', async () => (await page.connectionState()) === 'online', 60_000);
    await expect.poll(() => page.heading()).toMatch(/online/);
    await restart('host');
    await expect.poll(() => page.timelineText()).toMatch(/restart/i);
    // What was set is lost with the host, and the page says so.
    await expect.poll(() => page.bodyText()).toMatch(/The host has restarted since it was set/);
    await expect.poll(() => page.heading()).toMatch(/online/);
    await page.page.getByRole('button', { name: 'Set again' }).click();
    await expect.poll(() => page.requestState()).toBe('answered');
    expect(channel.lines.length).toBeGreaterThan(0);
  });
});
