import { Fleet, kSteps } from '../model/Fleet';
import { Message } from '../model/Message';
import { Requests } from '../model/Requests';
import { Address, brokerOf, kDefaultUser, parseFragment } from '../mqtt/Address';
import { Connection } from '../mqtt/Connection';
import { FrameMeter } from './FrameMeter';

const kStoredAddress = 'appdatachannel-console';

// Everything behind the views: the connection, what came over it, and the requests made. Views read it, and are told
// through `changed` that there is something new.
export class Console {
  readonly meter = new FrameMeter();
  readonly fleet: Fleet;
  readonly requests: Requests;
  readonly connection: Connection;
  isComplete = false; // everything that the broker kept has come
  changed: () => void = () => {};
  #firstComplete = true;
  #hasNew = false; // since the last draw
  #drawnAt = 0; // when what had come by then was drawn; ms since the page's start

  constructor() {
    this.fleet = new Fleet((television, property, message) => this.requests.takeValue(television, property, message));
    this.connection = new Connection(kSteps, {
      changed: () => this.changed(),
      message: (message) => this.#take(message),
      connected: () => {
        this.meter.connectedMs ??= performance.now();
        this.isComplete = false;
        this.fleet.markUnconfirmed();
      },
      complete: () => {
        this.isComplete = true;
        this.#drawnAt ||= performance.now();
        this.changed();
        if (!this.#firstComplete) return;
        this.#firstComplete = false;
        this.meter.firstViewMs = this.#drawnAt;
      },
    });
    this.requests = new Requests(this.connection);
    setInterval(() => this.#tick(), 1_000);
  }

  // Everything that had changed is drawn now.
  drawn(): void {
    if (!this.#hasNew) return;
    this.#hasNew = false;
    this.#drawnAt = performance.now();
  }

  // The address for this page: from the fragment, else what this tab had, else the broker that serves the page. The
  // credentials are taken out of the address bar at once, so that they are in no screenshot or bookmark.
  static takeAddress(): Address | null {
    const broker = brokerOf(location);
    const given = parseFragment(location.hash);
    if (given !== null) {
      history.replaceState(null, '', '#/');
      const address = complete({ broker: broker ?? '', ...given });
      if (address !== null) return Console.#store(address);
    }
    try {
      const stored = JSON.parse(sessionStorage.getItem(kStoredAddress) ?? 'null') as Partial<Address> | null;
      if (stored !== null) return complete(stored);
    } catch {
      // no storage
    }
    return null;
  }

  static #store(address: Address): Address {
    try {
      sessionStorage.setItem(kStoredAddress, JSON.stringify(address)); // of this tab only, so that a reload works
    } catch {
      // no storage: a reload shows the form
    }
    return address;
  }

  open(address: Address): void {
    // Another user may be allowed to see less, or more.
    if (address.broker !== this.connection.broker || address.user !== this.connection.user) {
      this.fleet.clear();
      this.requests.clear();
    }
    this.connection.open(Console.#store(address));
  }

  #take(message: Message): void {
    this.meter.message();
    const isKnown =
      message.topic === this.connection.responseTopic
        ? this.requests.takeAnswer(message, (id) => this.fleet.find(id))
        : this.fleet.take(message);
    if (!isKnown) return;
    this.#hasNew = true;
    this.changed();
  }

  #tick(): void {
    this.meter.tick();
    this.requests.tick(this.connection.isOnline, (id) => this.fleet.find(id));
    if (document.visibilityState === 'visible') this.changed(); // ages of things are shown
  }
}

function complete(address: Partial<Address>): Address | null {
  return address.broker
    ? { broker: address.broker, user: address.user ?? (address.key ? kDefaultUser : ''), key: address.key ?? '' }
    : null;
}
