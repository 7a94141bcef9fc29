// run_channel.py BUILD_FOLDER foreign_codec_test.js MODULES BUILD_FOLDER
//
// Every packet that the device service sends, read and written again by a foreign codec of MQTT 5 (npm's mqtt-packet):
// it must take each, and make the same bytes of what it has read. A second host, behind a proxy, with no applications.
'use strict'
const assert = require('node:assert')
const { spawn } = require('node:child_process')
const { once } = require('node:events')
const net = require('node:net')
const path = require('node:path')

const [modules, build] = process.argv.slice(2)
const codec = require(path.join(modules, 'mqtt-packet'))
const { connectAsync } = require(path.join(modules, 'mqtt'))

const kOptions = { protocolVersion: 5 }
const kThing = 'foreign'
const kService = `things/${kThing}/appdatachannel`
const kWanted = ['connect', 'subscribe', 'publish', 'puback', 'pubrec', 'pubcomp', 'disconnect']
const seen = new Map()
const faults = []

// The parser gives no bytes, so the packets are cut apart here.
function cutPackets (buffer, onPacket) {
  while (buffer.length >= 2) {
    let length = 0
    let at = 1
    for (let shift = 0; ; shift += 7, ++at) {
      if (at >= buffer.length) return buffer
      length += (buffer[at] & 0x7F) << shift
      if (buffer[at] < 0x80) break
    }
    const end = at + 1 + length
    if (buffer.length < end) return buffer
    onPacket(buffer.subarray(0, end))
    buffer = buffer.subarray(end)
  }
  return buffer
}

function check (bytes) {
  const parser = codec.parser(kOptions)
  let packet
  parser.on('packet', one => { packet = one })
  parser.on('error', error => { faults.push(`${error.message}: ${bytes.toString('hex')}`) })
  parser.parse(bytes)
  if (!packet) return faults.push(`no packet: ${bytes.toString('hex')}`)
  seen.set(packet.cmd, (seen.get(packet.cmd) ?? 0) + 1)
  const again = codec.generate(packet, kOptions)
  if (Buffer.compare(bytes, again) !== 0) {
    // A success may be left out at the end of an acknowledgement and of a DISCONNECT, or be written.
    const length = bytes.length - 2
    const isShort = bytes[0] === again[0] && !['publish', 'subscribe', 'connect'].includes(packet.cmd) &&
      again.subarray(2, 2 + length).equals(bytes.subarray(2)) && again.subarray(2 + length).every(byte => byte === 0)
    if (!isShort) faults.push(`${packet.cmd}: ${bytes.toString('hex')} is written as ${again.toString('hex')}`)
  }
}

async function main () {
  const broker = new URL(process.env.LUMO_BROKER)
  const proxy = net.createServer(near => {
    const far = net.connect(Number(broker.port), broker.hostname)
    let rest = Buffer.alloc(0)
    near.on('data', data => { rest = cutPackets(Buffer.concat([rest, data]), check) })
    near.pipe(far).pipe(near)
    for (const socket of [near, far]) socket.on('error', () => {})
  })
  proxy.listen(0, '127.0.0.1')
  await once(proxy, 'listening')

  const cloud = await connectAsync(process.env.LUMO_BROKER, kOptions)
  const answers = []
  let wake = () => {}
  cloud.on('message', (topic, payload) => {
    answers.push(`${topic} ${payload}`)
    wake()
  })
  const until = async condition => {
    const end = Date.now() + 60000
    while (!condition()) {
      assert(Date.now() < end, `not in a minute; ${answers}`)
      await new Promise(resolve => { wake = resolve; setTimeout(resolve, 100) })
    }
  }
  await cloud.subscribeAsync([`things/${kThing}/#`, 'answers/foreign'], { qos: 2 })

  const host = spawn(path.join(build, 'host/qivo-thing'),
    [path.join(build, 'src/app-data-channel-plugin/libappdatachannel.so')], {
      stdio: 'ignore',
      env: { ...process.env, LUMO_BROKER: `mqtt://127.0.0.1:${proxy.address().port}`, LUMO_THING_ID: kThing }
    })
  try {
    await until(() => answers.includes(`things/${kThing}/status "online"`))
    let count = 0
    const requests = [['get', '[]'], ['get', '["signupInfo","nobody"]'], ['set', '{"signinStatus": true}'],
      ['set', 'no JSON'], ['set', '{"nobody": "x"}']]
    for (const qos of [0, 1, 2]) {
      for (const [operation, payload] of requests) {
        const correlationData = Buffer.from([0, 0xFF, ++count])
        await cloud.publishAsync(`${kService}/${operation}`, payload,
          { qos, properties: { responseTopic: 'answers/foreign', correlationData } })
      }
    }
    await until(() => answers.filter(line => line.startsWith('answers/')).length >= count)
    host.kill('SIGTERM')
    await until(() => answers.includes(`things/${kThing}/status "offline"`))
    if (host.exitCode === null) await once(host, 'exit')
  } finally {
    host.kill('SIGKILL')
    await cloud.endAsync(true)
    proxy.close()
  }
  assert.deepStrictEqual(faults, [])
  for (const kind of kWanted) assert(seen.has(kind), `no ${kind}`)
  console.log([...seen].map(([kind, times]) => `${times} ${kind}`).join(', '))
}

main().then(() => process.exit(0), error => {
  console.error(error)
  process.exit(1)
})
