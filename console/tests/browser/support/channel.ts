// The whole channel: a message bus with the shipped policy, a broker, and the host with the plug-in. Applications are
// gdbus, as a stranger's would be.
import { mkdtemp, readFile, rm, writeFile } from 'node:fs/promises';
import { tmpdir, userInfo } from 'node:os';
import { join, resolve } from 'node:path';
import { Broker, type BrokerOptions } from './broker.js';
import { Process, run } from './processes.js';

const kRoot = resolve(new URL('.', import.meta.url).pathname, '../../../..');
export const kBuild = resolve(process.env.ADC_BUILD_FOLDER ?? join(kRoot, 'build/release'));
export const kRunChannel = join(kRoot, 'tools/run_channel.py');

const kName = 'org.tizen.qivo_thing';
const kPath = '/org/tizen/qivo_thing';

// What a system bus allows before any service's own policy.
const kBus = (address: string, policy: string) => `<!DOCTYPE busconfig PUBLIC
 "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>${address}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <deny own="*"/>
    <deny send_type="method_call"/>
    <allow send_type="signal"/>
    <allow send_requested_reply="true" send_type="method_return"/>
    <allow send_requested_reply="true" send_type="error"/>
    <allow receive_type="method_call"/>
    <allow receive_type="method_return"/>
    <allow receive_type="error"/>
    <allow receive_type="signal"/>
    <allow send_destination="org.freedesktop.DBus" send_interface="org.freedesktop.DBus"/>
  </policy>
  <include>${policy}</include>
</busconfig>
`;

/** An application's listener: gdbus monitor. */
export class Monitor {
  constructor(private readonly process: Process) {}
  /** The first event of the name with these data, in gdbus's notation. */
  async event(name: string, data: string): Promise<void> {
    await this.process.line(
      new RegExp(`send_event \\('${name}', ['"]${data.replace(/[$()*+.?[\\\]^{|}]/g, '\\$&')}['"]\\)`),
    );
  }
  async signal(pattern: RegExp): Promise<void> {
    await this.process.line(pattern);
  }
  get lines(): string[] {
    return this.process.lines;
  }
  async stop(): Promise<void> {
    await this.process.stop();
  }
}

export class Channel {
  readonly thing = 'tv';
  private bus: Process | undefined;
  private host: Process | undefined;
  private readonly monitors: Monitor[] = [];

  private constructor(
    readonly broker: Broker,
    private readonly folder: string,
    private readonly timeoutMs: number,
  ) {}

  static async start(options: BrokerOptions & { timeoutMs?: number } = {}): Promise<Channel> {
    const folder = await mkdtemp(join(tmpdir(), 'channel-'));
    const broker = await Broker.start(options);
    const channel = new Channel(broker, folder, options.timeoutMs ?? 10_000);
    try {
      await channel.startBus();
      await channel.startHost();
    } catch (error) {
      await channel.stop();
      throw error;
    }
    return channel;
  }

  async startHost(): Promise<void> {
    this.host = await Process.start(
      `${kBuild}/host/qivo-thing`,
      [`${kBuild}/src/app-data-channel-plugin/libappdatachannel.so`],
      /^qivo-thing: ready/,
      {
        ...process.env,
        DBUS_SYSTEM_BUS_ADDRESS: this.address,
        LUMO_BROKER: this.broker.url,
        LUMO_THING_ID: this.thing,
        LUMO_REQUEST_TIMEOUT_MS: String(this.timeoutMs),
        VCONF_DIR: join(this.folder, 'vconf'),
      },
    );
  }
  /** A clean shutdown, or a kill. */
  async stopHost(signal: NodeJS.Signals = 'SIGTERM'): Promise<void> {
    await this.host?.stop(signal);
    this.host = undefined;
  }

  /** Calls a method of the channel as an application; returns what gdbus prints. */
  async call(method: string, ...args: string[]): Promise<string> {
    const { stdout } = await run(
      'gdbus',
      // A value that starts with '-' or holds quotes is a text in GVariant's notation.
      ['call', '-a', this.address, '-d', kName, '-o', kPath, '-m', `${kName}.service.${method}`, ...args],
      { timeout: 20_000 },
    );
    return stdout.trim();
  }
  async register(name: string): Promise<void> {
    await this.call('register_app', name);
  }
  async send(name: string, data: string): Promise<void> {
    await this.call('send_data', name, JSON.stringify(data));
  }
  async monitor(): Promise<Monitor> {
    const monitor = new Monitor(
      await Process.start(
        'gdbus',
        ['monitor', '-a', this.address, '-d', kName, '-o', kPath],
        /is owned by/,
      ),
    );
    this.monitors.push(monitor);
    return monitor;
  }

  async stop(): Promise<void> {
    for (const monitor of this.monitors) await monitor.stop();
    await this.host?.stop();
    await this.bus?.stop();
    await this.broker.stop();
    await rm(this.folder, { recursive: true, force: true });
  }

  private get address(): string {
    return `unix:path=${this.folder}/bus`;
  }

  private async startBus(): Promise<void> {
    const shipped = await readFile(join(kRoot, `packaging/dbus/${kName}.conf`), 'utf8');
    const policy = join(this.folder, 'policy.conf');
    const configuration = join(this.folder, 'bus.conf');
    await writeFile(
      policy,
      shipped.replaceAll('user="qivo-thing"', `user="${userInfo().username}"`),
    );
    await writeFile(configuration, kBus(this.address, policy));
    this.bus = await Process.start(
      'dbus-daemon',
      [`--config-file=${configuration}`, '--nofork', '--nopidfile', '--nosyslog', '--print-address=1'],
      /^unix:path=/,
    );
  }
}
