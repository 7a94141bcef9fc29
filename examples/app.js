#!/usr/bin/env node
// An application in JavaScript: registers, prints what the cloud sends it, and confirms it by
// sending it back.
//
//     app.js NAME
//
// NAME is one of the names on the channel's list, "qz" for example. SIGINT or SIGTERM unregisters
// and ends it. Needs Node.js 18, and once, in this folder: npm ci --ignore-scripts
import dbus from 'dbus-next';

const BUS_NAME = 'org.tizen.qivo_thing';
const OBJECT_PATH = '/org/tizen/qivo_thing';
const INTERFACE = 'org.tizen.qivo_thing.service';
const NOT_REGISTERED = -20;

// What is used of the channel and of the bus. With it dbus-next does not ask them, and the channel
// need not be up yet.
const CHANNEL = `<node><interface name="${INTERFACE}">
  <method name="register_app"><arg type="s" direction="in"/><arg type="i" direction="out"/></method>
  <method name="unregister_app"><arg type="s" direction="in"/><arg type="i" direction="out"/></method>
  <method name="send_data">
    <arg type="s" direction="in"/><arg type="s" direction="in"/><arg type="i" direction="out"/>
  </method>
  <signal name="send_event"><arg type="s"/><arg type="s"/></signal>
  <signal name="dbus_server_ready"/>
</interface></node>`;
const BUS = `<node><interface name="org.freedesktop.DBus">
  <method name="NameHasOwner"><arg type="s" direction="in"/><arg type="b" direction="out"/></method>
  <signal name="NameOwnerChanged"><arg type="s"/><arg type="s"/><arg type="s"/></signal>
</interface></node>`;

class App {
  #name;
  #channel;
  #life = 0; // of the channel: its process is another one in the next
  #registeredIn = -1;
  #work = Promise.resolve(); // one registration after the other

  constructor(name) {
    this.#name = name;
  }

  async start() {
    const connection = dbus.systemBus();
    connection.on('error', (error) =>
      fail(`${connection.name ? 'the message bus is gone' : 'no message bus'}: ${error.message}`),
    );
    const bus = (
      await connection.getProxyObject('org.freedesktop.DBus', '/org/freedesktop/DBus', BUS)
    ).getInterface('org.freedesktop.DBus');
    bus.on('NameOwnerChanged', (name, before, owner) => {
      if (name !== BUS_NAME) return;
      // Registrations end with the channel's process, the owner of the name.
      ++this.#life;
      // dbus-next drops signals of any other sender than the owner that it knows, and it learns of
      // a new one from replies only. So it would drop the dbus_server_ready of a channel that has
      // started again: tell it.
      connection._nameOwners[BUS_NAME] = owner;
    });
    this.#channel = (
      await connection.getProxyObject(BUS_NAME, OBJECT_PATH, CHANNEL)
    ).getInterface(INTERFACE);
    // Every listener gets every event: check the name.
    this.#channel.on('send_event', (name, data) => {
      if (name === this.#name) this.#confirm(data);
    });
    this.#channel.on('dbus_server_ready', () => this.#registerNext());
    if (await bus.NameHasOwner(BUS_NAME)) this.#registerNext();
  }

  async end() {
    await this.#work;
    if (this.#registeredIn === this.#life) await this.#call('unregister_app', this.#name);
  }

  // The result of the call; nothing when it failed, which is printed.
  async #call(method, ...texts) {
    try {
      return await this.#channel[method](...texts);
    } catch (error) {
      console.error(`app: ${method}: ${error.message}`);
    }
  }

  #registerNext() {
    this.#work = this.#work.then(() => this.#register());
  }

  // Registrations are counted, and outlive an application that crashes. While some are left, the
  // cloud does not get the property. So this takes away all that are left of earlier runs, and then
  // registers once.
  async #register() {
    const life = this.#life;
    if (this.#registeredIn === life) return;
    let result;
    do {
      result = await this.#call('unregister_app', this.#name);
    } while (result === 0);
    if (result === NOT_REGISTERED) result = await this.#call('register_app', this.#name);
    if (result === undefined) return; // the channel has just gone: it says when it is back
    if (result !== 0) fail(`cannot register '${this.#name}': ${result}`);
    this.#registeredIn = life;
    console.log('registered');
  }

  #confirm(data) {
    console.log(`event: ${data}`);
    this.#call('send_data', this.#name, data);
  }
}

function fail(message) {
  console.error(`app: ${message}`);
  process.exit(1);
}

if (process.argv.length !== 3) {
  console.error('usage: app.js NAME');
  process.exit(2);
}
const app = new App(process.argv[2]);
for (const signal of ['SIGINT', 'SIGTERM']) {
  process.on(signal, () => app.end().then(() => process.exit(0)));
}
// Nothing is left to wait for.
process.on('beforeExit', () => fail('the message bus is gone'));
app.start().catch((error) => fail(error.message));
