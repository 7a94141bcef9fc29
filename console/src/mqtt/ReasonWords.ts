const kWords: Readonly<Record<number, string>> = {
  4: 'user or key are wrong',
  5: 'not authorised',
  128: 'the broker gave no reason',
  129: 'the broker could not read the packet',
  130: 'a protocol error',
  131: 'the broker does not accept this',
  132: 'the broker does not speak MQTT 5',
  133: 'the broker does not accept the client id',
  134: 'user or key are wrong',
  135: 'not authorised',
  136: 'the broker is unavailable',
  137: 'the broker is busy',
  138: 'the broker has banned this client',
  139: 'the broker shuts down',
  141: 'the broker heard nothing of this page for too long',
  142: 'another client took over this client id',
  143: 'the topic filter is not valid',
  144: 'the topic is not valid',
  145: 'the packet identifier is in use',
  147: 'more than the broker takes at a time',
  149: 'the packet is larger than the broker takes',
  150: 'too many messages',
  151: 'a quota is used up',
  152: 'an administrator ended the connection',
  153: 'the payload is not what it claims to be',
  154: 'the broker keeps no retained messages',
  155: 'the broker does not support this QoS',
  156: 'use another server',
  157: 'the server has moved',
  159: 'too many connections in a short time',
  160: 'the connection has lasted as long as it may',
};

export function isNotAuthorised(code: number | undefined): boolean {
  return code === 5 || code === 135;
}

// An MQTT 5 reason code in words.
export function reasonWords(code: number | undefined): string {
  if (code === undefined) return 'for no known reason';
  return kWords[code] ?? `reason code ${code}`;
}
