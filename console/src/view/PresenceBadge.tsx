import { Television } from '../model/Television';
import { Badge } from './Badge';

const kTones = { online: 'good', offline: 'plain', lost: 'bad', unknown: 'warn' } as const;
const kTitles = {
  online: 'connected to the broker',
  offline: 'it was shut down',
  lost: 'offline: its connection ended without a shutdown',
  unknown: 'the broker has no status of it',
} as const;

export function PresenceBadge({ television }: { readonly television: Television }) {
  return (
    <>
      <Badge tone={kTones[television.presence]} title={kTitles[television.presence]}>
        {television.presence}
      </Badge>
      {television.isUnconfirmed && (
        <>
          {' '}
          <Badge tone="warn" title="not seen since the connection came back">
            stale
          </Badge>
        </>
      )}
    </>
  );
}
