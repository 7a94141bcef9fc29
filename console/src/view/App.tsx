import { useEffect, useRef, useState } from 'preact/hooks';

import { Console } from '../page/Console';
import { routeOf } from '../page/Route';
import { Theme } from '../page/Theme';
import { visibleText } from '../page/VisibleText';
import { ConnectionForm } from './ConnectionForm';
import { ConnectionStatus } from './ConnectionStatus';
import { FleetView, kAllTelevisions } from './FleetView';
import { Footer } from './Footer';
import { Notices } from './Notices';
import { RequestList } from './RequestList';
import { TelevisionView } from './TelevisionView';
import { ThemeSwitch } from './ThemeSwitch';

interface Props {
  readonly page: Console;
  readonly theme: Theme;
}

// The whole page: header, notices, one view, footer.
export function App({ page, theme }: Props) {
  const [selection, select] = useState(kAllTelevisions);
  const route = routeOf(location.hash);
  const view = page.connection.state === 'none' || page.connection.state === 'refused' ? 'connection' : route.view;
  const main = useRef<HTMLElement>(null);
  const fleetScroll = useRef(0);
  const title =
    view === 'television' && route.view === 'television'
      ? route.id
      : view === 'requests'
        ? 'Requests'
        : view === 'connection'
          ? 'Connection'
          : 'Televisions';
  const shown = `${view}/${route.view === 'television' ? route.id : ''}`;
  const wasShown = useRef(shown);
  useEffect(() => {
    document.title = `${visibleText(title)} – channel`;
    if (wasShown.current !== shown) {
      main.current?.focus({ preventScroll: true });
      window.scrollTo(0, 0);
    }
    wasShown.current = shown;
  }, [shown, title]);

  const link = (href: string, name: string, isCurrent: boolean) => (
    <a href={href} aria-current={isCurrent ? 'page' : undefined}>
      {name}
    </a>
  );
  return (
    <>
      <a
        class="skip"
        href="#main"
        onClick={(event) => {
          event.preventDefault();
          main.current?.focus();
        }}
      >
        Skip to the content
      </a>
      <header class="top">
        <nav aria-label="Views">
          {link('#/', 'Televisions', view === 'fleet' || view === 'television')}
          {link('#/requests', 'Requests', view === 'requests')}
          {link('#/connection', 'Connection', view === 'connection')}
        </nav>
        <ConnectionStatus connection={page.connection} />
        <ThemeSwitch theme={theme} />
      </header>
      <Notices page={page} />
      <main id="main" tabIndex={-1} ref={main} class={view}>
        {view === 'fleet' && <FleetView page={page} selection={selection} onSelect={select} scroll={fleetScroll} />}
        {view === 'television' && route.view === 'television' && (
          <TelevisionView key={route.id} page={page} theme={theme} id={route.id} />
        )}
        {view === 'requests' && (
          <>
            <h1>Requests</h1>
            <RequestList page={page} thing={null} />
          </>
        )}
        {view === 'connection' && <ConnectionForm page={page} />}
      </main>
      <Footer page={page} />
    </>
  );
}
