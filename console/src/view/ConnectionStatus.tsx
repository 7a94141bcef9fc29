import { Connection } from '../mqtt/Connection';

// The state of the connection in words. A live region: it is read out when it changes, and the seconds to the next
// attempt stand outside it.
export function ConnectionStatus({ connection }: { readonly connection: Connection }) {
  const { state, reason, nextAttemptAt } = connection;
  const words =
    state === 'online'
      ? connection.isReadOnly
        ? 'Online, read-only'
        : 'Online'
      : state === 'connecting'
        ? 'Connecting…'
        : state === 'lost'
          ? `Lost: ${reason}`
          : state === 'refused'
            ? `Refused: ${reason}`
            : 'Not connected';
  return (
    <div class={`connection-status ${state}`}>
      <span class="dot" aria-hidden="true" />
      <span role="status" aria-label="Connection" data-testid="connection-state" data-state={state}>
        {words}
      </span>
      {state === 'lost' && nextAttemptAt !== null && (
        <>
          <span class="muted" data-testid="next-attempt">
            next attempt in {Math.max(0, Math.ceil((nextAttemptAt - Date.now()) / 1000))} s
          </span>
          <button type="button" class="small" onClick={() => connection.tryNow()}>
            Try now
          </button>
        </>
      )}
    </div>
  );
}
