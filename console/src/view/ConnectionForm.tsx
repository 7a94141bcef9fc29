import { useState } from 'preact/hooks';

import { brokerOf, faultOfBroker, kDefaultUser } from '../mqtt/Address';
import { Console } from '../page/Console';

// Asks for broker, user and key. The key that is in use is not shown.
export function ConnectionForm({ page }: { readonly page: Console }) {
  const { connection } = page;
  const [broker, setBroker] = useState(connection.broker || brokerOf(location) || 'ws://127.0.0.1:9001');
  const [user, setUser] = useState(connection.user || kDefaultUser);
  const [key, setKey] = useState('');
  const [fault, setFault] = useState<string | null>(null);
  const submit = (event: Event) => {
    event.preventDefault();
    const wrong = faultOfBroker(broker.trim());
    setFault(wrong);
    if (wrong !== null) return;
    page.open({ broker: broker.trim(), user: user.trim(), key });
    setKey('');
    location.hash = '#/';
  };
  return (
    <section class="card form-card" aria-labelledby="connection-title">
      <h1 id="connection-title">Connection</h1>
      {connection.state === 'refused' && (
        <p class="notice bad" role="alert">
          The broker refused the connection: {connection.reason}. Check broker, user and key.
        </p>
      )}
      {connection.state === 'online' && <p>Connected to {connection.broker}.</p>}
      <form onSubmit={submit} noValidate>
        <label class="field">
          Broker
          <input
            type="text"
            inputMode="url"
            autocomplete="off"
            spellcheck={false}
            value={broker}
            aria-invalid={fault !== null}
            aria-describedby="broker-help"
            onInput={(event) => setBroker(event.currentTarget.value)}
          />
        </label>
        <p id="broker-help" class={fault === null ? 'help' : 'help fault'} role={fault === null ? undefined : 'alert'}>
          {fault ?? 'The broker’s WebSocket address, ws:// or wss://. ./dev run prints one.'}
        </p>
        <label class="field">
          User
          <input
            type="text"
            autocomplete="off"
            spellcheck={false}
            value={user}
            onInput={(event) => setUser(event.currentTarget.value)}
          />
        </label>
        <label class="field">
          Key
          <input
            type="password"
            autocomplete="off"
            value={key}
            onInput={(event) => setKey(event.currentTarget.value)}
          />
        </label>
        <p class="help">Leave user and key empty for a broker that asks for none. They stay in this tab.</p>
        <div class="buttons">
          <button type="submit" class="primary">
            Connect
          </button>
          {connection.state !== 'none' && connection.state !== 'refused' && (
            <button type="button" onClick={() => connection.close()}>
              Disconnect
            </button>
          )}
        </div>
      </form>
    </section>
  );
}
