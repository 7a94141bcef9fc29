import mqtt, { IClientOptions, IPublishPacket, MqttClient } from 'mqtt';

import { Message } from '../model/Message';
import { randomHexadecimal } from '../model/randomHexadecimal';
import { Publisher, PublishOptions, PublishResult } from '../model/Requests';
import { Address } from './Address';
import { isNotAuthorised, reasonWords } from './ReasonWords';

export type ConnectionState = 'none' | 'connecting' | 'online' | 'lost' | 'refused';

export interface ConnectionListener {
  changed(): void;
  message(message: Message): void;
  // A new connection, before anything of it comes.
  connected(): void;
  // The broker has sent everything that it kept.
  complete(): void;
}

const kFirstDelayMs = 1_000;
const kLongestDelayMs = 30_000;
const kConnectLimitMs = 10_000;
const kKeepAliveS = 120; // in a hidden tab, timers fire once a minute
const kAcknowledgementLimitMs = 2_000; // of a subscription to everything
const kStepLimitMs = 5_000; // of one step
const kClosedAfterRefusalMs = 1_000;
const kQuietAtEndMs = 150;
const kQuietLimitMs = 5_000;
const kSessionExpiryS = 300; // answers wait so long at the broker while the connection is lost

// The page's connection to a broker. Tries again for ever when it is lost, and not when the broker refuses it.
export class Connection implements Publisher {
  readonly clientId = `console-${randomHexadecimal(12)}`;
  readonly responseTopic = `answers/${this.clientId}`;
  state: ConnectionState = 'none';
  reason = ''; // in words, of 'lost' and 'refused'
  nextAttemptAt: number | null = null; // ms since 1970, while 'lost'
  // What the broker does not let this page do. Kept over new connections of the same user, because mosquitto closes a
  // connection after it has refused a publication.
  refusedPublish: string | null = null;
  refusedFilters: string[] = [];
  isIncomplete = false; // the broker did not send everything that it keeps
  broker = '';
  user = '';
  readonly #listener: ConnectionListener;
  readonly #steps: readonly (readonly string[])[];
  #client: MqttClient | null = null;
  #lastRetainedAt = 0; // ms, as performance.now() has it
  #refusedAt = -Infinity; // when a publication was refused; ms, as performance.now() has it
  #retained = 0; // messages that the broker had kept

  // `steps` are filters to subscribe to, one step after the other.
  constructor(steps: readonly (readonly string[])[], listener: ConnectionListener) {
    this.#steps = steps;
    this.#listener = listener;
  }

  get isOnline(): boolean {
    return this.state === 'online';
  }

  get isReadOnly(): boolean {
    return this.refusedPublish !== null;
  }

  open(address: Address): void {
    this.close();
    this.broker = address.broker;
    this.user = address.user;
    this.refusedPublish = null;
    this.refusedFilters = [];
    this.isIncomplete = false;
    this.#set('connecting');
    const options: IClientOptions = {
      clientId: this.clientId,
      protocolVersion: 5,
      clean: true,
      keepalive: kKeepAliveS,
      reschedulePings: true,
      connectTimeout: kConnectLimitMs,
      reconnectPeriod: kFirstDelayMs,
      resubscribe: false,
      queueQoSZero: false,
      timerVariant: 'native', // the other one needs a worker from a blob, which the policy forbids
      properties: { sessionExpiryInterval: kSessionExpiryS, receiveMaximum: 65_535, topicAliasMaximum: 1_000 },
    };
    if (address.user !== '') options.username = address.user;
    if (address.key !== '') options.password = address.key;
    let client: MqttClient;
    try {
      client = mqtt.connect(address.broker, options);
    } catch (error) {
      this.#set('refused', error instanceof Error ? error.message : String(error));
      return;
    }
    this.#client = client;
    this.#watch(client);
  }

  close(): void {
    const client = this.#client;
    this.#client = null;
    this.nextAttemptAt = null;
    if (client !== null) {
      client.removeAllListeners('message');
      client.on('error', () => {});
      client.end(!client.connected, { properties: { sessionExpiryInterval: 0 } });
    }
    if (this.state !== 'none') this.#set('none');
  }

  // Tries now instead of at the next attempt.
  tryNow(): void {
    if (this.#client === null || this.state !== 'lost') return;
    this.#client.options.reconnectPeriod = kFirstDelayMs;
    this.#set('connecting');
    const { incomingStore, outgoingStore } = this.#client as unknown as {
      incomingStore: NonNullable<IClientOptions['incomingStore']>;
      outgoingStore: NonNullable<IClientOptions['outgoingStore']>;
    };
    this.#client.reconnect({ incomingStore, outgoingStore });
  }

  // Has the broker send once more what it keeps below these filters, in case some of it was dropped.
  refresh(filters: readonly string[]): void {
    const client = this.#client;
    if (client === null || !client.connected) return;
    client.subscribe(Object.fromEntries(filters.map((filter) => [filter, { qos: 0 as const }])), () => {
      if (client.connected) client.unsubscribe([...filters]);
    });
  }

  // Forgets that a publication was refused, so that the next one is tried.
  forgetRefusal(): void {
    this.refusedPublish = null;
    this.#listener.changed();
  }

  publish(topic: string, payload: string, options: PublishOptions, done: (result: PublishResult) => void): void {
    const client = this.#client;
    if (client === null || !client.connected) {
      done({ error: 'there is no connection', notAuthorised: false, noListener: false });
      return;
    }
    const bytes = new TextEncoder().encode(payload);
    client.publish(
      topic,
      bytes as Parameters<MqttClient['publish']>[1],
      {
        qos: options.qos,
        properties: {
          responseTopic: options.responseTopic,
          correlationData: bytesOf(options.correlation),
          ...(payload === '' ? {} : { contentType: 'application/json', payloadFormatIndicator: true }),
          ...(options.expiryS === null ? {} : { messageExpiryInterval: options.expiryS }),
        },
      },
      (error, packet) => {
        const code = (error as { code?: number } | null | undefined)?.code;
        const notAuthorised = isNotAuthorised(code);
        if (notAuthorised) {
          this.refusedPublish = topic.replace(/^.*\//, '');
          this.#refusedAt = performance.now();
        }
        done({
          error: error ? (code === undefined ? error.message : `the broker refused it: ${reasonWords(code)}`) : null,
          notAuthorised,
          noListener: (packet as { reasonCode?: number } | undefined)?.reasonCode === 16,
        });
        this.#listener.changed();
      },
    );
  }

  #watch(client: MqttClient): void {
    let delayMs = kFirstDelayMs;
    let reason = '';
    let isRefused = false;
    const isCurrent = () => this.#client === client;

    client.on('connect', () => {
      if (!isCurrent()) return;
      delayMs = kFirstDelayMs;
      client.options.reconnectPeriod = delayMs;
      client.options.clean = false; // keep the session: answers come later, and no request is carried out twice
      reason = '';
      this.refusedFilters = [];
      this.isIncomplete = false;
      this.nextAttemptAt = null;
      this.#listener.connected();
      this.#set('online');
      this.#subscribe(client);
    });
    client.on('message', (topic, payload, packet) => {
      if (!isCurrent()) return;
      if (packet.retain) {
        this.#lastRetainedAt = performance.now();
        this.#retained++;
      }
      this.#listener.message(messageOf(topic, payload, packet));
    });
    client.on('disconnect', (packet) => {
      reason = reasonWords(packet.reasonCode);
    });
    client.on('error', (error) => {
      if (!isCurrent()) return;
      const code = (error as { code?: unknown }).code;
      if (typeof code === 'number' && error.message.startsWith('Connection refused')) {
        reason = reasonWords(code);
        isRefused = ![136, 137, 139, 151, 159].includes(code);
        if (isRefused) {
          this.nextAttemptAt = null;
          this.#set('refused', reason);
          client.end(true);
          return;
        }
        client.options.reconnectPeriod = delayMs;
        setTimeout(() => isCurrent() && this.tryNow(), delayMs);
      } else if (error.message === 'Keepalive timeout') {
        reason = 'the broker did not answer for too long';
      }
    });
    client.on('close', () => {
      if (!isCurrent() || isRefused) return;
      // The library has just set its timer with the period of before.
      const periodMs = client.options.reconnectPeriod ?? delayMs;
      this.nextAttemptAt = Date.now() + periodMs;
      delayMs = Math.min(delayMs * 2, kLongestDelayMs);
      client.options.reconnectPeriod = delayMs;
      const wasOnline = this.state === 'online';
      if (reason === '') {
        reason = !wasOnline
          ? 'the broker cannot be reached'
          : performance.now() - this.#refusedAt < kClosedAfterRefusalMs
            ? 'the broker closed it after it had refused to publish'
            : 'the connection broke off';
      }
      this.#set('lost', reason);
      reason = '';
    });
    client.on('reconnect', () => {
      if (!isCurrent()) return;
      this.nextAttemptAt = null;
      this.#set('connecting', this.reason);
    });
  }

  // At QoS 0, so that values do not take the places of answers in the broker's queue; answers come at QoS 1. Everything
  // at once, which is quickest. But brokers drop what goes beyond a client's queue, acknowledgements alike, and
  // mosquitto's has 1,000 places: then once more, in steps.
  #subscribe(client: MqttClient): void {
    const all = this.#steps.flat();
    const before = this.#retained;
    this.#subscribeTo(client, all, 0, () => {});
    this.#subscribeTo(client, [this.responseTopic], kAcknowledgementLimitMs, (isAcknowledged) => {
      if (!isAcknowledged) {
        this.#subscribeInSteps(client);
        return;
      }
      this.#whenQuiet(client, kQuietAtEndMs, () => {
        if (mayBeCut(this.#retained - before)) this.#subscribeInSteps(client);
        else this.#listener.complete();
      });
    });
  }

  #subscribeInSteps(client: MqttClient): void {
    const steps = [[this.responseTopic], ...this.#steps];
    const next = () => {
      const filters = steps.shift();
      if (filters === undefined) {
        this.#whenQuiet(client, kQuietAtEndMs, () => this.#listener.complete());
        return;
      }
      const before = this.#retained;
      this.#subscribeTo(client, filters, kStepLimitMs, (isAcknowledged) => {
        this.#whenQuiet(client, kQuietAtEndMs, () => {
          if (!isAcknowledged || mayBeCut(this.#retained - before)) {
            this.isIncomplete = true;
            this.#listener.changed();
          }
          next();
        });
      });
    };
    next();
  }

  // Tells once whether the broker has acknowledged it within the limit; 0: no limit.
  #subscribeTo(
    client: MqttClient,
    filters: readonly string[],
    limitMs: number,
    then: (isAcknowledged: boolean) => void,
  ): void {
    if (this.#client !== client || !client.connected) return;
    const qos = filters[0] === this.responseTopic ? 1 : 0;
    let isOver = false;
    const limit =
      limitMs === 0
        ? undefined
        : setTimeout(() => {
            isOver = true;
            if (this.#client === client && client.connected) then(false);
          }, limitMs);
    client.subscribe(
      Object.fromEntries(filters.map((filter) => [filter, { qos, nl: qos === 0 } as const])),
      (_error, _grants, packet) => {
        clearTimeout(limit);
        const granted = (packet as { granted?: number[] } | undefined)?.granted;
        if (isOver || granted === undefined) return; // without a packet the connection was lost
        isOver = true;
        filters.forEach((filter, i) => {
          if ((granted[i] ?? 0) >= 128 && !this.refusedFilters.includes(filter)) this.refusedFilters.push(filter);
        });
        this.#listener.changed();
        then(true);
      },
    );
  }

  // An acknowledgement may overtake retained messages, so no more come when there were none for a while.
  #whenQuiet(client: MqttClient, quietMs: number, then: () => void): void {
    const start = performance.now();
    const check = () => {
      if (this.#client !== client || !client.connected) return;
      const now = performance.now();
      if (now - Math.max(start, this.#lastRetainedAt) >= quietMs || now - start > kQuietLimitMs) then();
      else setTimeout(check, quietMs / 2);
    };
    setTimeout(check, quietMs);
  }

  #set(state: ConnectionState, reason = ''): void {
    this.state = state;
    this.reason = reason;
    this.#listener.changed();
  }
}

// Whether so many messages look like what fits into a queue of 1,000 places, some of them taken.
function mayBeCut(count: number): boolean {
  return count >= 980 && count <= 1_000;
}

function bytesOf(hexadecimal: string): Parameters<typeof Buffer.from>[0] & Buffer {
  const bytes = new Uint8Array(hexadecimal.match(/../g)?.map((pair) => parseInt(pair, 16)) ?? []);
  return bytes as unknown as Buffer; // the library asks for no more than a Uint8Array here
}

function hexadecimalOf(bytes: Uint8Array): string {
  let text = '';
  for (const byte of bytes.subarray(0, 64)) text += byte.toString(16).padStart(2, '0');
  return text;
}

function messageOf(topic: string, payload: Uint8Array, packet: IPublishPacket): Message {
  const userProperties = Object.create(null) as Record<string, string>; // a name may be "__proto__"
  for (const [name, value] of Object.entries(packet.properties?.userProperties ?? {})) {
    userProperties[name] = Array.isArray(value) ? (value[0] ?? '') : value;
  }
  const correlation = packet.properties?.correlationData;
  return {
    topic,
    payload,
    retained: packet.retain,
    at: Date.now(),
    responseTopic: packet.properties?.responseTopic,
    correlation: correlation === undefined ? undefined : hexadecimalOf(correlation),
    userProperties,
  };
}
