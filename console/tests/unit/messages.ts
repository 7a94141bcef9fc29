import { Message } from '../../src/model/Message';

interface Options {
  retained?: boolean;
  at?: number;
  user?: Record<string, string>;
  correlation?: string;
}

// A message as the connection hands it over.
export function message(topic: string, payload: unknown, options: Options = {}): Message {
  return rawMessage(topic, payload === '' ? '' : JSON.stringify(payload), options);
}

export function rawMessage(topic: string, text: string, options: Options = {}): Message {
  return {
    topic,
    payload: new TextEncoder().encode(text),
    retained: options.retained ?? false,
    at: options.at ?? 1_000,
    correlation: options.correlation,
    userProperties: options.user ?? {},
  };
}

export function status(id: string, word: string, options: Options = {}): Message {
  return message(`things/${id}/status`, word, options);
}

export function description(id: string, types: Record<string, string>, options: Options = {}): Message {
  return message(
    `things/${id}/appdatachannel/properties`,
    Object.fromEntries(Object.entries(types).map(([name, type]) => [name, { type }])),
    options,
  );
}

export function value(id: string, name: string, data: unknown, options: Options = {}): Message {
  return message(`things/${id}/appdatachannel/value/${name}`, data, options);
}
