#!/usr/bin/env node
// Holds the contract, as JSON in the file that the variable CONTRACT names, against the official schema of AsyncAPI 3.0,
// and shows that each kind of mistake in it would be noticed.
import { readFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import { test } from 'node:test';
import assert from 'node:assert/strict';

const require = createRequire(import.meta.url);
const Ajv = require('ajv');
const addFormats = require('ajv-formats');

const text = readFileSync(process.env.CONTRACT, 'utf8');
const schema = require('@asyncapi/specs/schemas/3.0.0.json');

// The schema has JSON Schema's own, draft 7, among its definitions, in the place of Ajv's. Its patterns are no Unicode
// ones.
const ajv = new Ajv({ allErrors: true, meta: false, validateSchema: false, strict: false, unicodeRegExp: false });
addFormats(ajv);
const validate = ajv.compile(schema);

function faultsOf(document) {
  return validate(document) ? [] : validate.errors.map((error) => `${error.instancePath} ${error.message}`);
}

// A copy of the contract, changed.
function changed(change) {
  const document = JSON.parse(text);
  change(document);
  return document;
}

test('the contract is an AsyncAPI 3.0 document', () => {
  assert.deepEqual(faultsOf(JSON.parse(text)), []);
});

const mistakes = {
  'another version': (document) => { document.asyncapi = '9.9.9'; },
  'no title': (document) => { delete document.info.title; },
  'an unknown field': (document) => { document.chanels = {}; },
  'a channel whose address is a number': (document) => { document.channels.get.address = 1; },
  'an unknown field of a channel': (document) => { document.channels.get.topic = 'a'; },
  'an operation without a channel': (document) => { delete document.operations.sendValue.channel; },
  'an unknown action': (document) => { document.operations.sendValue.action = 'publish'; },
  'QoS 3': (document) => { document.operations.sendValue.bindings.mqtt.qos = 3; },
  'retain as a text': (document) => { document.operations.sendValue.bindings.mqtt.retain = 'yes'; },
  'an unknown field of a message': (document) => { document.components.messages.value.body = {}; },
  'a payload of an unknown type': (document) => { document.components.messages.value.payload = { type: 'text' }; },
  'a limit that is no number': (document) => { document.components.schemas.names.maxItems = 'many'; },
  'a reply without a location': (document) => { delete document.operations.receiveGet.reply.address.location; },
  'a location outside the message': (document) => {
    document.components.correlationIds.request.location = 'header';
  },
  'a server without a protocol': (document) => { delete document.servers.broker.protocol; },
};

for (const [name, change] of Object.entries(mistakes)) {
  test(`it would be noticed: ${name}`, () => {
    assert.notDeepEqual(faultsOf(changed(change)), []);
  });
}

// The schema does not follow references.
test('every reference names something of the contract', () => {
  const unknown = (document) => {
    const references = JSON.stringify(document).matchAll(/"\$ref":"#\/([^"]*)"/g);
    return [...references].map((match) => match[1])
      .filter((path) => path.split('/').reduce((place, key) => place?.[key], document) === undefined);
  };
  assert.deepEqual(unknown(JSON.parse(text)), []);
  const broken = changed((document) => { delete document.components.messages.value; });
  assert.notDeepEqual(unknown(broken), []);
});
