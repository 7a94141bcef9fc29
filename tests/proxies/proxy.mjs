// With a proxy that dbus-next makes of the interface file: see proxies_test.py.
//
//     proxy.mjs EXAMPLES_FOLDER INTERFACE_FILE NAME
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';

const [examples, interfaceFile, name] = process.argv.slice(2);
const dbus = createRequire(`${examples}/`)('dbus-next');

const bus = dbus.systemBus();
const object = await bus.getProxyObject('org.tizen.qivo_thing', '/org/tizen/qivo_thing',
  readFileSync(interfaceFile, 'utf8'));
const proxy = object.getInterface('org.tizen.qivo_thing.service');

// dbus-next drops signals of any sender but the owner that it knows, and does not notice a new one: tell it.
const daemon = await bus.getProxyObject('org.freedesktop.DBus', '/org/freedesktop/DBus',
  `<node><interface name="org.freedesktop.DBus">
     <signal name="NameOwnerChanged"><arg type="s"/><arg type="s"/><arg type="s"/></signal>
   </interface></node>`);
daemon.getInterface('org.freedesktop.DBus').on('NameOwnerChanged', (changed, before, owner) => {
  if (changed === 'org.tizen.qivo_thing') bus._nameOwners[changed] = owner;
});

const register = async () => console.log('register_app', await proxy.register_app(name));
const ended = new Promise((resolve, reject) => {
  proxy.on('send_event', async (application, data) => {
    if (application !== name) return;
    console.log('send_event', data);
    if (data === 'end') return resolve();
    proxy.send_data(name, data).then((result) => console.log('send_data', result), reject);
  });
  proxy.on('cloud_connection_changed', async (connected) => {
    console.log('cloud_connection_changed', connected);
    try {
      console.log('get_cloud_connection', await proxy.get_cloud_connection());
      console.log('get_thing_information', (await proxy.get_thing_information()).trim());
    } catch (error) {
      reject(error);
    }
  });
  proxy.on('dbus_server_ready', () => {
    console.log('dbus_server_ready');
    register().catch(reject);
  });
});
await register();
await ended;
console.log('unregister_app', await proxy.unregister_app(name));
bus.disconnect();
