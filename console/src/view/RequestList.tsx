import { useState } from 'preact/hooks';

import { isOver, kAnswerLimit, Request } from '../model/Request';
import { kNotCarriedOut, livesUntil } from '../model/Requests';
import { isOwn } from '../model/SetEffects';
import { Television } from '../model/Television';
import { Console } from '../page/Console';
import { linkTo } from '../page/Route';
import { clock, span } from '../page/Times';
import { Badge } from './Badge';
import { Text } from './Text';
import { TextDialog } from './TextDialog';

const kShownRows = 100;
const kShownCharacters = 240; // of an answer

interface Props {
  readonly page: Console;
  readonly thing: string | null; // null: of all televisions
}

interface Words {
  readonly tone: 'good' | 'bad' | 'warn' | 'plain' | 'busy';
  readonly state: string;
  readonly detail: string;
}

// The state of a request for people. Whether it waits for an offline television follows from the television's state.
function wordsOf(request: Request, television: Television | undefined, isConnected: boolean): Words {
  const { state, detail } = request;
  switch (state) {
    case 'sent':
      return {
        tone: 'busy',
        state: 'sent',
        detail: isConnected
          ? 'the broker has not acknowledged it yet'
          : request.qos === 0
            ? 'the connection was lost; at QoS 0 it may be lost, too'
            : 'the connection was lost; it goes again when it is back',
      };
    case 'delivered': {
      if (television !== undefined && !television.isOnline && request.qos > 0) {
        const { at, by, isAtMost } = livesUntil(request, television);
        return {
          tone: 'warn',
          state: 'waiting',
          detail:
            'waits at the broker for the offline television, ' +
            `${isAtMost ? 'at most ' : ''}until ${clock(at)} (${span((at - Date.now()) / 1000)}), ` +
            (by === 'expiry' ? 'its expiry' : 'the end of the television’s session'),
        };
      }
      return {
        tone: 'busy',
        state: 'delivered',
        detail:
          detail !== ''
            ? detail
            : request.qos === 0
              ? 'written to the connection; QoS 0 is not acknowledged'
              : 'the broker has it; no answer yet',
      };
    }
    case 'cancelling':
      return { tone: 'busy', state: 'cancelling', detail };
    case 'answered':
      return {
        tone: request.resultCode === 0 ? 'good' : 'warn',
        state: 'answered',
        detail: `${request.resultCode ?? '?'}: ${detail}`,
      };
    case 'cancelled':
    case 'expired':
      return { tone: 'plain', state, detail };
    case 'busy':
    case 'timed out':
      return { tone: 'warn', state, detail };
    case 'refused':
      return { tone: 'bad', state, detail };
  }
}

function answerOf(request: Request, onWhole: (request: Request) => void) {
  const { answer } = request;
  if (answer === null) return <span class="muted">–</span>;
  return (
    <>
      {request.isLate && (
        <>
          <Badge tone="warn">late</Badge>{' '}
        </>
      )}
      {answer === '' ? <span class="muted">no data</span> : <Text value={answer} length={kShownCharacters} />}
      {answer !== '' && request.kind === 'set' && <span class="muted"> the data from before</span>}
      {answer.length > kShownCharacters && (
        <>
          {' '}
          <button
            type="button"
            class="small"
            onClick={() => onWhole(request)}
            aria-label={`whole answer of request ${request.number}`}
          >
            whole
          </button>
        </>
      )}
    </>
  );
}

function confirmationsOf(request: Request) {
  const wasNotDone = kNotCarriedOut.has(request.state) && request.confirmations.size === 0;
  if (request.kind === 'get' || wasNotDone) return <span class="muted">–</span>;
  const names = request.names.filter((name) => !isOwn(name));
  if (names.length === 0) return <span class="muted">sends none for this</span>;
  return names.slice(0, 20).map((name) => {
    const confirmation = request.confirmations.get(name);
    return (
      <span key={name} class="line">
        <Text value={name} length={40} />:{' '}
        {confirmation === undefined ? (
          <span class="muted">nothing yet</span>
        ) : (
          <>
            <Text value={confirmation.text} length={120} />{' '}
            <span class="muted">after {confirmation.at - request.sentAt} ms</span>
          </>
        )}
      </span>
    );
  });
}

// The requests made here, newest first.
export function RequestList({ page, thing }: Props) {
  const [whole, setWhole] = useState<Request | null>(null);
  const rows = page.requests.select(thing);
  const lastEnded = rows
    .filter(isOver)
    .reduce<Request | null>(
      (last, row) => (last === null || (row.endedAt ?? 0) > (last.endedAt ?? 0) ? row : last),
      null,
    );
  const isConnected = page.connection.isOnline;
  return (
    <>
      <p class="visually-hidden" role="status" aria-label="Last request">
        {lastEnded !== null && `Request ${lastEnded.number} ${lastEnded.state}: ${lastEnded.detail}`}
      </p>
      {rows.length === 0 && <p class="empty">No request was made here yet.</p>}
      <ul class="requests" aria-label="Requests">
        {rows.slice(0, kShownRows).map((request) => {
          const television = page.fleet.find(request.thing);
          const words = wordsOf(request, television, isConnected);
          return (
            <li key={request.number} data-testid="request" data-state={words.state} data-number={request.number}>
              <div class="request-head">
                <strong>{request.number}</strong> <span class="kind">{request.kind}</span>{' '}
                {thing === null && (
                  <a href={linkTo(request.thing)}>
                    <Text value={request.thing} length={64} />
                  </a>
                )}{' '}
                <span class="muted">
                  {clock(request.sentAt)}, QoS {request.qos}
                  {request.expiryS !== null && `, expiry ${request.expiryS} s`}
                </span>
                {!isOver(request) && television !== undefined && (
                  <button
                    type="button"
                    class="small"
                    disabled={request.state === 'cancelling' || !isConnected}
                    aria-label={`Cancel request ${request.number}`}
                    onClick={() => {
                      page.requests.cancel(request, television);
                      page.changed();
                    }}
                  >
                    Cancel
                  </button>
                )}
              </div>
              <div class="request-payload">
                <Text value={request.payload} length={240} />
              </div>
              <dl>
                <div>
                  <dt>Request</dt>
                  <dd>
                    <span data-testid="request-state">
                      <Badge tone={words.tone}>{words.state}</Badge>
                    </span>{' '}
                    <span data-testid="request-detail">
                      <Text value={words.detail} length={300} />
                    </span>
                  </dd>
                </div>
                <div>
                  <dt>Answer</dt>
                  <dd data-testid="request-answer">{answerOf(request, setWhole)}</dd>
                </div>
                <div>
                  <dt>The application sent</dt>
                  <dd data-testid="request-data">{confirmationsOf(request)}</dd>
                </div>
              </dl>
            </li>
          );
        })}
      </ul>
      {rows.length > kShownRows && (
        <p class="muted">
          The last {kShownRows} of {rows.length} are shown.
        </p>
      )}
      {whole?.answer != null && (
        <TextDialog
          title="Answer of request"
          name={String(whole.number)}
          text={whole.answer}
          onClose={() => setWhole(null)}
          note={
            whole.answer.length < kAnswerLimit
              ? `${whole.answer.length.toLocaleString('en')} characters`
              : `The first ${kAnswerLimit.toLocaleString('en')} characters are kept`
          }
        />
      )}
      {page.requests.dropped > 0 && <p class="muted">{page.requests.dropped} older requests are not kept.</p>}
    </>
  );
}
