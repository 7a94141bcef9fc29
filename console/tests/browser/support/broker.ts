// A broker of the test's own: a plain listener for the peers, and one with WebSocket and a key, which serves the page.
import { mkdtemp, rm, writeFile } from 'node:fs/promises';
import { createServer } from 'node:net';
import { tmpdir, userInfo } from 'node:os';
import { join } from 'node:path';
import { Process, run } from './processes.js';

export const kUser = 'console';
/** With the same key. */
export const kOtherUser = 'guest';
export const kKey = 'k-5f2d9a';

async function freePorts(count: number): Promise<number[]> {
  const servers = await Promise.all(
    Array.from(
      { length: count },
      () =>
        new Promise<ReturnType<typeof createServer>>((resolve, reject) => {
          const server = createServer();
          server.on('error', reject);
          server.listen(0, '127.0.0.1', () => resolve(server));
        }),
    ),
  );
  const ports = servers.map((server) => (server.address() as { port: number }).port);
  await Promise.all(servers.map((server) => new Promise((resolve) => server.close(resolve))));
  return ports;
}

export interface BrokerOptions {
  /** The folder that the WebSocket listener serves. */
  pages?: string;
  /** Lines of an access list for the WebSocket listener, in mosquitto's format. */
  access?: string[];
  /** How many messages it queues for a client; without a limit when this is left out. */
  queued?: number;
}

export class Broker {
  private process: Process | undefined;

  private constructor(
    private readonly folder: string,
    private readonly options: BrokerOptions,
    private ports: number[],
  ) {}

  static async start(options: BrokerOptions = {}): Promise<Broker> {
    const folder = await mkdtemp(join(tmpdir(), 'broker-'));
    const broker = new Broker(folder, options, []);
    try {
      await run('mosquitto_passwd', ['-b', '-c', join(folder, 'keys'), kUser, kKey]);
      await run('mosquitto_passwd', ['-b', join(folder, 'keys'), kOtherUser, kKey]);
      await broker.startOnFreePorts();
    } catch (error) {
      await broker.stop();
      throw error;
    }
    return broker;
  }

  get url(): string {
    return `mqtt://127.0.0.1:${this.ports[0]}`;
  }
  get port(): number {
    return this.ports[0]!;
  }
  get origin(): string {
    return `http://127.0.0.1:${this.ports[1]}`;
  }
  get webSocket(): string {
    return `ws://127.0.0.1:${this.ports[1]}`;
  }
  /** As ./dev run prints it. */
  get address(): string {
    return `${this.origin}/#key=${kKey}`;
  }

  /** Ends the broker as a crash does; it keeps nothing. */
  async kill(): Promise<void> {
    await this.process?.stop('SIGKILL');
    this.process = undefined;
  }

  /** Starts it again, at the same ports. */
  async startAgain(): Promise<void> {
    this.process = await Process.start(
      'mosquitto',
      ['-c', join(this.folder, 'broker.conf')],
      /running$/,
      { ...process.env, PATH: `${process.env.PATH}:/usr/sbin` },
    );
  }

  async stop(): Promise<void> {
    await this.process?.stop();
    await rm(this.folder, { recursive: true, force: true });
  }

  // A port that was free a moment ago may be taken when the broker wants it.
  private async startOnFreePorts(): Promise<void> {
    for (let attempt = 0; ; attempt++) {
      this.ports = await freePorts(2);
      await this.configure();
      try {
        await this.startAgain();
        return;
      } catch (error) {
        if (attempt === 4 || !/in use/.test(String(error))) throw error;
      }
    }
  }

  private async configure(): Promise<void> {
    const lines = [
      'per_listener_settings true',
      `listener ${this.ports[0]} 127.0.0.1`,
      'allow_anonymous true',
      `listener ${this.ports[1]} 127.0.0.1`,
      'protocol websockets',
      ...(this.options.pages ? [`http_dir ${this.options.pages}`] : []),
      'allow_anonymous false',
      `password_file ${join(this.folder, 'keys')}`,
      ...(this.options.access ? [`acl_file ${join(this.folder, 'access')}`] : []),
      // Without this it sends a browser a thousand of the messages that it kept, and drops the rest.
      `max_queued_messages ${this.options.queued ?? 0}`,
      'persistence false',
      'set_tcp_nodelay true',
      `user ${userInfo().username}`,
      'log_dest stderr',
      'log_type error',
      'log_type warning',
      'log_type information',
      'connection_messages false',
    ];
    await writeFile(join(this.folder, 'broker.conf'), lines.map((line) => `${line}\n`).join(''));
    if (this.options.access) {
      await writeFile(
        join(this.folder, 'access'),
        this.options.access.map((line) => `${line}\n`).join(''),
      );
    }
  }
}
