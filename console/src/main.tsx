import 'uplot/dist/uPlot.min.css';
import './page/page.css';

import { render } from 'preact';

import { Console } from './page/Console';
import { FrameScheduler } from './page/FrameScheduler';
import { Theme } from './page/Theme';
import { App } from './view/App';

declare global {
  interface Window {
    frameStats?: Console['meter'];
  }
}

const root = document.getElementById('page')!;
const theme = new Theme();
const address = Console.takeAddress();
const page = new Console();
const scheduler = new FrameScheduler(() => {
  render(<App page={page} theme={theme} />, root);
  page.drawn();
});
window.frameStats = page.meter;
page.changed = () => scheduler.request();
theme.changed = () => scheduler.request();
window.addEventListener('hashchange', () => {
  const given = location.hash.startsWith('#/') ? null : Console.takeAddress();
  if (given !== null && location.hash === '#/') page.open(given);
  scheduler.request();
});
if (address !== null) page.open(address);
scheduler.request();
