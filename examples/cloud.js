#!/usr/bin/env node
// A small back end in JavaScript: follows televisions, and reads and sets their properties over MQTT 5.
//
//     cloud.js [OPTION...] watch                  prints the televisions and what happens to them
//     cloud.js [OPTION...] get TV NAME...         prints the answer
//     cloud.js [OPTION...] set TV NAME VALUE...   sets the strings, one after the other, each until it is confirmed
//     cloud.js [OPTION...] sign-in TV [JSON]      signs in, with this sign-up information, whenever TV comes online
//
// Options: --broker URL; --id ID, the client's id: the broker then keeps its session when it ends;
// --limit SECONDS for an answer. docs/cloud.md says how it works. Needs `npm ci` in this folder.
import { randomUUID } from 'node:crypto'
import { parseArgs } from 'node:util'
import mqtt from 'mqtt'

const SESSION_S = 3600 // for how long the broker keeps what comes while this client is away
const PAUSE_MS = 500 // before a request is sent again
const NOT_CARRIED_OUT = ['busy', 'the service was destroyed']
const PERHAPS_CARRIED_OUT = 'the request was not answered in time'
// The answer did not fit, and it would have had the result 0.
const CARRIED_OUT = ['the answer is larger than the broker takes', 'too many answers wait for the broker']

const pause = () => new Promise((resolve) => setTimeout(resolve, PAUSE_MS))

class Cloud {
  #televisions = new Map()
  #answers = new Map() // by Correlation Data; null until one has come
  #isSubscribed = false
  #waiting = new Set() // what checks, after each message, whether it has what it waits for

  constructor(options, command, thing = '+') {
    this.options = options
    this.command = command
    const clientId = options.id ?? `cloud-${randomUUID()}`
    this.topic = `answers/${clientId}`
    // With a session that lasts, this client and the broker complete what the loss of a connection has interrupted:
    // at QoS 2 nothing is lost and nothing doubled.
    this.client = mqtt.connect(options.broker, {
      clientId, protocolVersion: 5, clean: false, resubscribe: false, reconnectOnConnackError: true,
      properties: { sessionExpiryInterval: SESSION_S }
    })
    this.client.on('error', (error) => console.error(`cloud: ${error.message}`))
    this.client.on('connect', () => {
      // Each time: the broker may have lost the session. What is retained comes again.
      const things = ['status', 'appdatachannel/properties', 'appdatachannel/value/+']
      this.client.subscribe([this.topic, ...things.map((topic) => `things/${thing}/${topic}`)], { qos: 1 }, () => {
        this.#isSubscribed = true
        this.#check()
      })
    })
    this.client.on('close', () => {
      for (const tv of this.#televisions.values()) tv.online = false // as far as is known
    })
    this.client.on('message', (topic, payload, packet) => {
      this.#onMessage(topic, payload.length ? JSON.parse(payload) : null, packet)
      this.#check()
    })
  }

  close() {
    const sessionExpiryInterval = this.options.id ? SESSION_S : 0 // nobody comes back with a random id
    return this.client.endAsync(false, { properties: { sessionExpiryInterval } })
  }

  television(name) {
    if (!this.#televisions.has(name)) {
      const known = { former: new Set(), names: {}, values: {}, stamps: {}, news: {} }
      this.#televisions.set(name, { name, online: false, since: 0, onlines: 0, ...known })
    }
    return this.#televisions.get(name)
  }

  #check() {
    for (const check of this.#waiting) check()
  }

  async wait(condition, limitMs) {
    if (condition()) return
    let check, timer
    await new Promise((resolve) => {
      check = () => condition() && resolve()
      this.#waiting.add(check)
      if (limitMs !== undefined) timer = setTimeout(resolve, limitMs)
    })
    clearTimeout(timer)
    this.#waiting.delete(check)
  }

  // With a limit, to which no time counts in which the television is away.
  async #waitFor(tv, condition) {
    const start = Date.now()
    const isLate = () => tv.online && Date.now() - Math.max(start, tv.since) > this.options.limit * 1000
    while (!condition() && !isLate()) await this.wait(condition, PAUSE_MS)
  }

  // The answer; null when none came, and then it is not carried out later, either.
  async request(tv, operation, payload) {
    await this.wait(() => this.#isSubscribed) // else the answer may come before
    const correlation = randomUUID()
    this.#answers.set(correlation, null)
    this.#publish(tv, operation, JSON.stringify(payload), correlation)
    await this.#waitFor(tv, () => this.#answers.get(correlation))
    const answer = this.#answers.get(correlation)
    this.#answers.delete(correlation)
    if (!answer) this.#publish(tv, 'cancel', '', correlation)
    return answer
  }

  // Whether the application has confirmed the value, by sending it.
  async set(tv, name, value) {
    for (;;) {
      // A set that waits for the television at the broker comes before the application: the result is 6.
      // So do properties of an earlier run, which the broker may still have.
      await this.wait(() => tv.online && name in tv.names && [undefined, tv.run].includes(tv.namesRun))
      const run = tv.run
      const before = tv.news[name]
      const isConfirmed = () => tv.values[name] === value && tv.news[name] !== before
      let { result, error } = await this.request(tv, 'set', { [name]: value }) ?? { error: PERHAPS_CARRIED_OUT }
      if (CARRIED_OUT.includes(error)) error = undefined
      if (result === 6 || NOT_CARRIED_OUT.includes(error)) {
        await pause()
        continue
      }
      if (error && error !== PERHAPS_CARRIED_OUT) throw new Error(error)
      await this.#waitFor(tv, () => isConfirmed() || tv.run !== run)
      if (isConfirmed() || (!error && tv.run === run)) return isConfirmed()
      // Nobody knows whether the application got it before the host ended. So it may get it twice.
    }
  }

  #publish(tv, operation, payload, correlation) {
    this.client.publish(`things/${tv.name}/appdatachannel/${operation}`, payload, {
      qos: 2, properties: { responseTopic: this.topic, correlationData: Buffer.from(correlation) }
    })
  }

  #onMessage(topic, content, packet) {
    const user = packet.properties?.userProperties ?? {} // empty, if the television sends none
    if (topic === this.topic) {
      const correlation = packet.properties?.correlationData?.toString()
      if (this.#answers.has(correlation)) this.#answers.set(correlation, content)
      return
    }
    const [, name, ...rest] = topic.split('/')
    const tv = this.television(name)
    if (tv.former.has(user.run)) return // a broker that was killed has brought it back
    if (rest[0] === 'status') {
      this.#onStatus(tv, content, user)
    } else if (rest[1] === 'properties') {
      tv.names = content ?? {}
      tv.namesRun = user.run
      this.#tell(name, 'has', ...Object.keys(tv.names).sort())
    } else {
      this.#onValue(tv, rest[2], content, packet.retain, user)
    }
  }

  #onStatus(tv, status, user) {
    tv.online = status === 'online'
    tv.since = Date.now()
    if (status === null) { // larger than the broker takes
      this.#tell(tv.name, 'has no status')
      return
    }
    if (tv.online) tv.onlines += 1
    const run = user.run ?? tv.onlines // without runs, each "online" may be a new one
    if (tv.run !== undefined && tv.run !== run) {
      tv.former.add(tv.run)
      this.#tell(tv.name, 'has restarted')
    }
    tv.run = run
    // The will, by which the broker tells of a loss, has no time.
    this.#tell(tv.name, !tv.online && user.run && !user.time ? 'lost' : status)
  }

  #onValue(tv, name, value, isRetained, user) {
    if (value === null) {
      if (name in tv.values) this.#tell(tv.name, name, 'is removed')
      delete tv.values[name]
      return
    }
    const { run, last } = tv.stamps[name] ?? { last: 0 }
    const isSame = isRetained && tv.values[name] === value
    const number = Number(user.sequence ?? (isSame ? last : last + 1))
    if (run === user.run && (number < last || (number === last && name in tv.values))) return // it came before
    const replaced = last && run === user.run ? number - last - 1 : 0
    tv.values[name] = value
    tv.stamps[name] = { run: user.run, last: number }
    if (last || !isRetained) tv.news[name] = (tv.news[name] ?? 0) + 1 // else it may be older than this client
    const gap = replaced > 0 ? [`(${replaced} values before it were replaced)`] : []
    this.#tell(tv.name, name, JSON.stringify(value), ...gap)
  }

  #tell(...words) {
    if (this.command === 'watch') console.log(...words)
  }
}

async function runCommand(cloud, command, thing, args) {
  if (command === 'watch') await cloud.wait(() => false)
  const tv = cloud.television(thing)
  if (command === 'get') {
    const answer = await cloud.request(tv, 'get', args)
    console.log(JSON.stringify(answer))
    return answer?.result === 0 ? 0 : 1
  }
  if (command === 'set') {
    const [name, ...values] = args
    for (const value of values) console.log(value, await cloud.set(tv, name, value) ? 'is confirmed' : 'is answered')
    return 0
  }
  const signupInfo = JSON.parse(args[0] ?? '{}')
  for (let onlines = 0; ;) { // both are lost when the television restarts
    await cloud.wait(() => tv.online && tv.onlines !== onlines)
    const now = tv.onlines
    const answer = await cloud.request(tv, 'set', { signinStatus: true, signupInfo })
    if (answer?.result === 0) {
      onlines = now
      console.log(tv.name, 'is signed in')
    } else {
      await pause()
    }
  }
}

const { values: options, positionals: [command, thing, ...args] } = parseArgs({
  allowPositionals: true,
  options: {
    broker: { type: 'string', default: process.env.LUMO_BROKER ?? 'mqtt://127.0.0.1' },
    id: { type: 'string' },
    limit: { type: 'string', default: '15' }
  }
})
const fewest = { watch: 0, get: 1, set: 2, 'sign-in': 0 }[command]
if (fewest === undefined || args.length < fewest || (command !== 'watch' && !thing)) {
  console.error('usage: cloud.js [OPTION...] watch|get|set|sign-in ...')
  process.exit(2)
}
const cloud = new Cloud(options, command, thing)
const ends = ['SIGINT', 'SIGTERM'].map((signal) => new Promise((resolve) => process.once(signal, () => resolve(130))))
try {
  process.exitCode = await Promise.race([runCommand(cloud, command, thing, args), ...ends])
} catch (error) {
  console.error(`cloud: ${error.message}`)
  process.exitCode = 1
}
await cloud.close()
process.exit()
