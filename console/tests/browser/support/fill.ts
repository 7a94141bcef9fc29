// A fleet of simulated televisions, the same each time.
import type { Fleet, Types } from './televisions.js';

export const kFleetTypes: Types = { qz: 'string', qmap: 'string', vexBrowser: 'string' };

/** tv-0001 …: of twenty one was shut down and one is lost. Each has three applications, two of them with a value. */
export async function fillFleet(fleet: Fleet, count: number, now?: () => Date): Promise<void> {
  let sent: Promise<void>[] = [];
  for (let i = 1; i <= count; i++) {
    const tv = fleet.add(`tv-${String(i).padStart(4, '0')}`, now);
    sent.push(
      tv.describe(kFleetTypes),
      tv.value('qz', `volume ${i % 40}`),
      tv.value('qmap', JSON.stringify({ lat: 52.5 + i / 1_000, zoom: i % 18 })),
      i % 20 === 7 ? tv.offline() : i % 20 === 13 ? tv.offline(false) : tv.online(),
    );
    if (i % 50 !== 0 && i !== count) continue;
    await Promise.all(sent);
    sent = [];
  }
}
