// The cloud's side next to the page: sends requests and sees what the page sends.
import mqtt, { type IPublishPacket, type MqttClient } from 'mqtt';
import type { Broker } from './broker.js';
import { until } from './processes.js';

export interface Seen {
  topic: string;
  text: string;
  packet: IPublishPacket;
}

export class Peer {
  readonly seen: Seen[] = [];
  private constructor(readonly client: MqttClient) {
    client.on('message', (topic, payload, packet) =>
      this.seen.push({ topic, text: payload.toString('utf8'), packet }),
    );
  }

  static async connect(broker: Broker, ...topics: string[]): Promise<Peer> {
    const peer = new Peer(
      await mqtt.connectAsync(broker.url, { protocolVersion: 5, reconnectPeriod: 0 }),
    );
    if (topics.length > 0) await peer.client.subscribeAsync(topics, { qos: 2 });
    return peer;
  }

  /** The first message whose topic ends so. */
  message(topicEnd: string): Promise<Seen> {
    return until(`a message at …${topicEnd}`, () =>
      this.seen.find((one) => one.topic.endsWith(topicEnd)),
    );
  }

  async end(): Promise<void> {
    await this.client.endAsync(true);
  }
}
