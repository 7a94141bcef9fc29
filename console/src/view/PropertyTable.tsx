import { Property } from '../model/Property';
import { isOwn } from '../model/SetEffects';
import { Television } from '../model/Television';
import { clock } from '../page/Times';
import { Badge } from './Badge';
import { Text } from './Text';

const kShownCharacters = 120;

interface Props {
  readonly television: Television;
  readonly isStale: boolean;
  readonly drawn: string | null;
  readonly onDraw: (name: string) => void;
  readonly onWhole: (name: string) => void;
}

function sizeWords(bytes: number): string {
  return bytes < 1024 ? `${bytes} bytes` : `${(bytes / 1024).toFixed(1)} KiB`;
}

function valueOf(property: Property, isStale: boolean, onWhole: (name: string) => void) {
  if (property.value === null) {
    return <span class="muted">{isOwn(property.name) ? 'cannot be read' : 'no value'}</span>;
  }
  const { text, kind, lengthBytes } = property.value;
  const isLong = text.length > kShownCharacters || text.includes('\n');
  return (
    <>
      <span class={isStale ? 'stale' : ''} data-testid={`value-${property.name}`}>
        {text === '' ? <span class="muted">empty string</span> : <Text value={text} length={kShownCharacters} />}
      </span>
      {kind === 'invalid' && (
        <>
          {' '}
          <Badge tone="bad">not JSON</Badge>
        </>
      )}
      {isStale && (
        <>
          {' '}
          <Badge tone="warn" title="it may be older than what the application has">
            may be stale
          </Badge>
        </>
      )}
      {isLong && (
        <>
          {' '}
          <button
            type="button"
            class="small"
            onClick={() => onWhole(property.name)}
            aria-label={`whole, ${sizeWords(lengthBytes)}: value of ${property.name}`}
          >
            whole, {sizeWords(lengthBytes)}
          </button>
        </>
      )}
    </>
  );
}

// What was announced and the last values.
export function PropertyTable({ television, isStale, drawn, onDraw, onWhole }: Props) {
  if (television.properties.length === 0) return <p class="empty">No property is announced.</p>;
  return (
    <div class="scroll" tabIndex={0} role="region" aria-label="List of properties">
      <table aria-label="Properties">
        <thead>
          <tr>
            <th scope="col">Property</th>
            <th scope="col">Type</th>
            <th scope="col" class="fill">
              Value
            </th>
            <th scope="col">Notified</th>
            <th scope="col">Sequence</th>
          </tr>
        </thead>
        <tbody>
          {television.properties.slice(0, 1000).map((property) => (
            <tr key={property.name} data-testid="property" data-property={property.name}>
              <th scope="row">
                <Text value={property.name} length={64} />
                {property.isDrawable && (
                  <>
                    {' '}
                    <button
                      type="button"
                      class="small"
                      aria-pressed={property.name === drawn}
                      aria-label={`Picture of ${property.name}`}
                      onClick={() => onDraw(property.name)}
                    >
                      <span aria-hidden="true">∿</span>
                    </button>
                  </>
                )}
              </th>
              <td>{property.type ?? <span class="muted">not announced</span>}</td>
              <td class="fill">{valueOf(property, isStale || property.isUnconfirmed, onWhole)}</td>
              <td
                class="nowrap"
                title={property.notifiedAt === null ? undefined : new Date(property.notifiedAt).toISOString()}
              >
                {property.notifiedAt === null ? (
                  property.arrivedAt === null || property.value === null ? (
                    '–'
                  ) : (
                    <span class="muted">unknown</span>
                  )
                ) : (
                  clock(property.notifiedAt, true)
                )}
              </td>
              <td class="nowrap">
                {(property.value === null ? null : property.sequence) ?? '–'}
                {property.replaced > 0 && (
                  <>
                    {' '}
                    <Badge tone="warn" title="not seen: newer ones took their place">
                      {property.replaced} replaced
                    </Badge>
                  </>
                )}
                {property.missed > 0 && (
                  <>
                    {' '}
                    <Badge tone="plain" title="not seen: replaced by newer ones, or the page was not connected">
                      {property.missed} missed
                    </Badge>
                  </>
                )}
              </td>
            </tr>
          ))}
        </tbody>
      </table>
    </div>
  );
}
