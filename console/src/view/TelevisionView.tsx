import { useEffect, useState } from 'preact/hooks';

import { filtersOf } from '../model/Fleet';
import { Property } from '../model/Property';
import { Television } from '../model/Television';
import { Console } from '../page/Console';
import { Theme } from '../page/Theme';
import { ago, clock } from '../page/Times';
import { visibleText } from '../page/VisibleText';
import { Picture } from './Picture';
import { PresenceBadge } from './PresenceBadge';
import { PropertyTable } from './PropertyTable';
import { RequestForm } from './RequestForm';
import { RequestList } from './RequestList';
import { SignInForm } from './SignInForm';
import { signInWords } from './signInWords';
import { Text } from './Text';
import { TextDialog } from './TextDialog';
import { TimelineView } from './TimelineView';

interface Props {
  readonly page: Console;
  readonly theme: Theme;
  readonly id: string;
}

// The property to draw: the chosen one, else the first that can be drawn.
function drawn(television: Television, chosen: string | null): Property | undefined {
  const drawable = television.properties.filter((property) => property.isDrawable);
  return drawable.find((property) => property.name === chosen) ?? drawable[0];
}

export function TelevisionView({ page, theme, id }: Props) {
  const [chosen, choose] = useState<string | null>(null);
  const [whole, setWhole] = useState<string | null>(null);
  const television = page.fleet.find(id);
  useEffect(() => {
    if (page.isComplete && !/[+#]/.test(id)) page.connection.refresh(filtersOf(id));
  }, [page, page.isComplete, id]);
  useEffect(() => {
    page.fleet.show(id);
    return () => page.fleet.show(null);
  }, [page, id, television]);
  if (television === undefined) {
    return (
      <>
        <h1>
          <Text value={id} />
        </h1>
        <p class="empty">
          {page.isComplete ? 'The broker knows nothing of this television.' : 'Waiting for what the broker knows…'}{' '}
          <a href="#/">All televisions</a>
        </p>
      </>
    );
  }
  const picture = drawn(television, chosen);
  const drawable = television.properties.filter((property) => property.isDrawable);
  const wholeValue = whole === null ? null : television.property(whole)?.value;
  return (
    <>
      <div class="title-row">
        <h1>
          <Text value={id} />
        </h1>
        <span data-testid="presence">
          <PresenceBadge television={television} />
        </span>
      </div>
      <dl class="facts">
        <div>
          <dt>{television.isOnline ? 'Online since' : 'Since'}</dt>
          <dd data-testid="since">
            {television.since === null ? 'before this page, unknown' : clock(television.since)}
          </dd>
        </div>
        <div>
          <dt>Last activity</dt>
          <dd>{television.lastActivity === null ? 'unknown' : ago(television.lastActivity)}</dd>
        </div>
        <div>
          <dt>Signed in</dt>
          <dd data-testid="signed-in">{signInWords(television.signIn).short}</dd>
        </div>
        <div>
          <dt>Version</dt>
          <dd>{television.version === null ? 'unknown' : <Text value={television.version} length={40} />}</dd>
        </div>
        <div>
          <dt>Run of the host</dt>
          <dd data-testid="run">
            {television.run === null ? 'unknown' : <Text value={television.run} length={8} />}
            {television.restarts > 0 && `, ${television.restarts} restart${television.restarts > 1 ? 's' : ''} seen`}
          </dd>
        </div>
      </dl>
      {television.isStale && (
        <p class="notice warn" data-testid="stale">
          {television.isUnconfirmed
            ? 'Nothing came of this television since the connection came back: its values may be stale.'
            : television.presence === 'unknown'
              ? 'The broker has no status of this television: its values may be stale.'
              : 'This television is offline: its values may be stale. Requests at QoS 1 and 2 wait for it at the broker.'}
        </p>
      )}
      <div class="columns">
        <div class="stack">
          <section class="card" aria-labelledby="properties-title">
            <h2 id="properties-title">Properties</h2>
            <PropertyTable
              television={television}
              isStale={television.isStale || !page.connection.isOnline}
              drawn={picture?.name ?? null}
              onDraw={choose}
              onWhole={setWhole}
            />
            {picture !== undefined && (
              <div class="picture-box">
                <label class="field inline">
                  Picture of
                  <select value={picture.name} onChange={(event) => choose(event.currentTarget.value)}>
                    {drawable.map((property) => (
                      <option key={property.name} value={property.name}>
                        {visibleText(property.name)}
                      </option>
                    ))}
                  </select>
                </label>
                <Picture key={picture.name} property={picture} isDark={theme.isDark} />
              </div>
            )}
          </section>
          <section class="card" aria-labelledby="requests-title">
            <h2 id="requests-title">Requests</h2>
            <RequestList page={page} thing={id} />
          </section>
        </div>
        <div class="stack">
          <RequestForm page={page} television={television} />
          <SignInForm page={page} television={television} />
        </div>
      </div>
      <TimelineView television={television} onChange={() => page.changed()} />
      {wholeValue != null && whole !== null && (
        <TextDialog
          title="Value of"
          name={whole}
          text={wholeValue.text}
          onClose={() => setWhole(null)}
          note={
            `${wholeValue.lengthBytes.toLocaleString('en')} bytes as JSON, ${wholeValue.text.length.toLocaleString('en')} characters` +
            (wholeValue.isCut ? '; the rest was not kept, for lack of room' : '')
          }
        />
      )}
    </>
  );
}
