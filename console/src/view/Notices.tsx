import { kMaxTelevisions } from '../model/Fleet';
import { Console } from '../page/Console';

// What holds for the whole page, and what to do about it.
export function Notices({ page }: { readonly page: Console }) {
  const { connection, fleet } = page;
  const answersRefused = connection.refusedFilters.includes(connection.responseTopic);
  const filters = connection.refusedFilters.filter((filter) => filter !== connection.responseTopic);
  return (
    <div class="notices" role="region" aria-label="Notices">
      {connection.state === 'online' && connection.refusedPublish !== null && (
        <p class="notice warn" data-testid="read-only">
          Read-only: the broker does not let this page publish to “{connection.refusedPublish}” (not authorised).{' '}
          <button type="button" class="small" onClick={() => connection.forgetRefusal()}>
            Try requests again
          </button>
        </p>
      )}
      {answersRefused && <p class="notice warn">The broker does not let this page receive answers (not authorised).</p>}
      {filters.length > 0 && (
        <p class="notice warn">The broker does not let this page see: {filters.join(', ')} (not authorised).</p>
      )}
      {connection.isIncomplete && (
        <p class="notice warn" data-testid="incomplete">
          The broker did not send everything it keeps, because its queue for this page is too short: televisions,
          properties and values are missing. In mosquitto, set max_queued_messages 0.
        </p>
      )}
      {(connection.state === 'lost' || connection.state === 'connecting') && fleet.size > 0 && (
        <p class="notice warn" data-testid="stale-page">
          There is no connection: what is shown may be stale.
        </p>
      )}
      {fleet.refusedTelevisions > 0 && (
        <p class="notice warn">
          There are more than {kMaxTelevisions.toLocaleString('en')} televisions; the others are not shown.
        </p>
      )}
    </div>
  );
}
