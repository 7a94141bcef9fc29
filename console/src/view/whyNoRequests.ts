import { Console } from '../page/Console';

// Why no request can be made now, in words; null when one can.
export function whyNoRequests(page: Console): string | null {
  if (!page.connection.isOnline) return 'There is no connection to the broker.';
  if (page.connection.isReadOnly) return 'Read-only: the broker refused to publish.';
  return null;
}
