// Televisions as the broker sees them, without a host: topics, payloads and properties as contract/asyncapi.yaml has
// them. The peers use the package mqtt over TCP.
import mqtt, { type IClientOptions, type IClientPublishOptions, type MqttClient } from 'mqtt';
import type { Broker } from './broker.js';

export type Types = Record<string, string>;

export interface Request {
  operation: 'get' | 'set' | 'cancel';
  payload: unknown;
  qos: number;
  responseTopic: string | undefined;
  correlation: string | undefined;
  expiry: number | undefined;
  contentType: string | undefined;
}

const kService = 'appdatachannel';
const kThingTypes: Types = { signinStatus: 'bool', signupInfo: 'json' };
export const kVersion = '1.0.0';

function connect(broker: Broker, options: IClientOptions = {}): Promise<MqttClient> {
  return mqtt.connectAsync(broker.url, {
    protocolVersion: 5,
    reconnectPeriod: 0,
    connectTimeout: 20_000,
    ...options,
  });
}

/** What a payload of JSON is sent with. */
function json(user: Record<string, string>): IClientPublishOptions {
  return {
    qos: 1,
    retain: true,
    properties: {
      contentType: 'application/json',
      payloadFormatIndicator: true,
      userProperties: user,
    },
  };
}

/** The next run's id: fixed, so that pictures are the same each time. */
let runs = 0;
export function nextRun(): string {
  runs += 1;
  return `00000000-0000-4000-8000-${String(runs).padStart(12, '0')}`;
}

/** Begins with the first again. */
export function resetRuns(): void {
  runs = 0;
}

/** What one television says; it does not care through which connection. */
export class Voice {
  run = nextRun();
  /** Counts the notifications of each property. */
  readonly sequences = new Map<string, number>();
  /** The last value of each property. */
  readonly values = new Map<string, string>();

  constructor(
    readonly id: string,
    private readonly send: (
      topic: string,
      payload: string,
      options: IClientPublishOptions,
    ) => Promise<unknown>,
    readonly now: () => Date = () => new Date(),
  ) {}

  async online(): Promise<void> {
    await this.status('online', { time: this.time() });
  }
  /** A clean shutdown has a time, a lost connection none. */
  async offline(clean = true): Promise<void> {
    await this.status('offline', clean ? { time: this.time() } : {});
  }
  async describe(types: Types): Promise<void> {
    const all = { ...types, ...kThingTypes };
    const payload = JSON.stringify(
      Object.fromEntries(Object.entries(all).map(([name, type]) => [name, { type }])),
    );
    await this.send(
      `things/${this.id}/${kService}/properties`,
      payload,
      json({ time: this.time(), ...this.identity() }),
    );
  }
  /** One notification reaches the broker; `replaced` ones before it did not. */
  async value(name: string, value: string, replaced = 0): Promise<void> {
    const sequence = (this.sequences.get(name) ?? 0) + replaced + 1;
    this.sequences.set(name, sequence);
    this.values.set(name, value);
    await this.send(
      this.topicOf(name),
      JSON.stringify(value),
      json({ time: this.time(), sequence: String(sequence), ...this.identity() }),
    );
  }
  async remove(name: string): Promise<void> {
    this.values.delete(name);
    await this.send(this.topicOf(name), '', { qos: 1, retain: true });
  }
  /** The host starts again: another run, sequences from 1, no values. */
  async restart(types: Types): Promise<void> {
    this.run = nextRun();
    this.sequences.clear();
    for (const name of [...this.values.keys()]) await this.remove(name);
    await this.describe(types);
    await this.online();
  }

  private async status(status: string, user: Record<string, string>): Promise<void> {
    await this.send(
      `things/${this.id}/status`,
      JSON.stringify(status),
      json({ ...user, ...this.identity() }),
    );
  }
  private topicOf(name: string): string {
    return `things/${this.id}/${kService}/value/${name}`;
  }
  private identity(): Record<string, string> {
    return { run: this.run, version: kVersion };
  }
  private time(): string {
    return this.now().toISOString();
  }
}

/** Many televisions that speak through one connection; they answer nothing. */
export class Fleet {
  readonly voices: Voice[] = [];

  private constructor(private readonly client: MqttClient) {}

  static async connect(broker: Broker): Promise<Fleet> {
    return new Fleet(await connect(broker));
  }

  add(id: string, now?: () => Date): Voice {
    const voice = new Voice(
      id,
      (topic, payload, options) => this.client.publishAsync(topic, payload, options),
      now,
    );
    this.voices.push(voice);
    return voice;
  }

  /** Publishes anything, as no television would. */
  async publish(topic: string, payload: string | Buffer, options?: IClientPublishOptions) {
    await this.client.publishAsync(topic, payload, { qos: 1, retain: true, ...options });
  }

  /** Values at an even rate, of one television after the other; returns how many were sent. */
  async flood(
    perSecond: number,
    seconds: number,
    one: (number: number) => Promise<void>,
  ): Promise<number> {
    const begin = performance.now();
    const total = perSecond * seconds;
    const sent: Promise<void>[] = [];
    while (sent.length < total) {
      const due = Math.min(
        total,
        Math.floor(((performance.now() - begin) / 1000) * perSecond) + 1,
      );
      while (sent.length < due) sent.push(one(sent.length));
      await new Promise((resolve) => setTimeout(resolve, 5));
    }
    await Promise.all(sent);
    return total;
  }

  async end(): Promise<void> {
    await this.client.endAsync();
  }
}

/** One television with a connection, a will and a session of its own, which takes requests. */
export class Television {
  readonly requests: Request[] = [];
  /** What it does with a request: by default it answers, and its application confirms what was set. */
  onRequest: (request: Request) => Promise<void> = (request) => this.obey(request);

  private constructor(
    readonly voice: Voice,
    private readonly client: MqttClient,
    private types: Types,
  ) {
    client.on('message', (topic, payload, packet) => {
      const text = payload.toString('utf8');
      const operation = topic.slice(topic.lastIndexOf('/') + 1) as Request['operation'];
      const request: Request = {
        operation,
        payload: operation === 'cancel' ? text : JSON.parse(text),
        qos: packet.qos,
        responseTopic: packet.properties?.responseTopic,
        correlation: packet.properties?.correlationData?.toString('hex'),
        expiry: packet.properties?.messageExpiryInterval,
        contentType: packet.properties?.contentType,
      };
      this.requests.push(request);
      if (operation !== 'cancel') void this.onRequest(request);
    });
  }

  static async connect(
    broker: Broker,
    id: string,
    types: Types,
    now?: () => Date,
  ): Promise<Television> {
    let client: MqttClient;
    const voice = new Voice(
      id,
      (topic, payload, options) => client.publishAsync(topic, payload, options),
      now,
    );
    client = await connect(broker, {
      clientId: `${id}:${kService}`,
      clean: false,
      properties: { sessionExpiryInterval: 86_400 },
      will: {
        topic: `things/${id}/status`,
        payload: Buffer.from('"offline"'),
        qos: 1,
        retain: true,
        properties: {
          contentType: 'application/json',
          payloadFormatIndicator: true,
          userProperties: { run: voice.run, version: kVersion },
        },
      },
    });
    const television = new Television(voice, client, types);
    await client.subscribeAsync(
      ['get', 'set', 'cancel'].map((operation) => `things/${id}/${kService}/${operation}`),
      { qos: 2 },
    );
    await voice.describe(types);
    await voice.online();
    return television;
  }

  /** Answers with `answer`, and the request's Correlation Data. */
  async answer(request: Request, answer: unknown): Promise<void> {
    if (request.responseTopic === undefined) return;
    await this.client.publishAsync(request.responseTopic, JSON.stringify(answer), {
      qos: 1,
      properties: {
        contentType: 'application/json',
        payloadFormatIndicator: true,
        ...(request.correlation === undefined
          ? {}
          : { correlationData: Buffer.from(request.correlation, 'hex') }),
      },
    });
  }

  /** Result 0, or 6 when a name is unknown, with the data from before. */
  async answerBefore(request: Request): Promise<void> {
    const names =
      request.operation === 'get'
        ? (request.payload as string[])
        : Object.keys(request.payload as object);
    const known = names.filter((name) => name in this.types || name in kThingTypes);
    await this.answer(request, {
      result: known.length === names.length ? 0 : 6,
      properties: Object.fromEntries(
        known.map((name) => [name, this.voice.values.get(name) ?? '']),
      ),
    });
  }

  async confirm(request: Request): Promise<void> {
    for (const [name, value] of Object.entries(request.payload as object)) {
      if (name in this.types) await this.voice.value(name, String(value));
    }
  }

  async obey(request: Request): Promise<void> {
    await this.answerBefore(request);
    if (request.operation === 'set') await this.confirm(request);
  }

  /** The connection breaks without a DISCONNECT, so that the broker sends the will. */
  kill(): Promise<void> {
    return new Promise((resolve) => {
      this.client.once('close', resolve);
      this.client.stream.destroy();
    });
  }

  async end(): Promise<void> {
    await this.client.endAsync(true);
  }
}
