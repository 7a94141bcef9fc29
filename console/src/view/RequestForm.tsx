import { useState } from 'preact/hooks';

import { Draft, DraftKind, emptyDraft, jsonOfDraft, kindsOf, kMaxPayloadBytes, setPayload } from '../model/Draft';
import { Qos, RequestKind } from '../model/Request';
import { isOwn } from '../model/SetEffects';
import { Television } from '../model/Television';
import { Console } from '../page/Console';
import { whyNoRequests } from './whyNoRequests';
import { DraftControl } from './DraftControl';
import { Text } from './Text';

const kKindNames: Record<DraftKind, string> = {
  text: 'text',
  integer: 'whole number',
  boolean: 'true or false',
  real: 'number',
  json: 'JSON',
  bytes: 'bytes of a file',
};
const kDefaultLimitS = 30;

interface Props {
  readonly page: Console;
  readonly television: Television;
}

// Sets and gets, of one or several properties.
export function RequestForm({ page, television }: Props) {
  const [drafts, setDrafts] = useState<ReadonlyMap<string, Draft>>(new Map());
  const [included, setIncluded] = useState<ReadonlySet<string>>(new Set());
  const [faults, setFaults] = useState<ReadonlyMap<string, string>>(new Map());
  const [formFault, setFormFault] = useState<string | null>(null);
  const [other, setOther] = useState('');
  const [qos, setQos] = useState<Qos>(2);
  const [expiry, setExpiry] = useState('');
  const [limit, setLimit] = useState(String(kDefaultLimitS));

  const announced = television.properties.filter((property) => property.type !== null);
  const why = whyNoRequests(page);
  const draftOf = (name: string, type: string | null): Draft => {
    const draft = drafts.get(name);
    return draft !== undefined && kindsOf(type).includes(draft.kind) ? draft : emptyDraft(kindsOf(type)[0]!);
  };
  const include = (name: string, isIncluded: boolean) => {
    const names = new Set(included);
    if (isIncluded) names.add(name);
    else names.delete(name);
    setIncluded(names);
  };
  const change = (name: string, draft: Draft) => {
    setDrafts(new Map(drafts).set(name, draft));
    include(name, true);
    const left = new Map(faults);
    left.delete(name);
    // JSON and files are checked while they are entered, the rest when it goes.
    const result = jsonOfDraft(draft);
    if ((draft.kind === 'json' || draft.isTooLarge) && 'fault' in result) left.set(name, result.fault);
    setFaults(left);
  };
  const chosen = [
    ...announced.filter((property) => included.has(property.name)),
    ...(other !== '' ? [{ name: other, type: null }] : []),
  ];

  const send = (kind: RequestKind) => {
    const wrong = new Map<string, string>();
    const values = new Map<string, string>();
    let fault: string | null = null;
    if (chosen.length === 0) fault = 'Include at least one property, or name another one.';
    if (kind === 'set') {
      for (const { name, type } of chosen) {
        if (isOwn(name) && type !== null) {
          fault = `${name} has its own form below; leave it out of a set here.`;
          continue;
        }
        const result = jsonOfDraft(draftOf(type === null ? '' : name, type));
        if ('fault' in result) wrong.set(type === null ? '' : name, result.fault);
        else values.set(name, result.json);
      }
    }
    const expiryS = expiry.trim() === '' ? null : Number(expiry);
    const limitS = Number(limit);
    if (expiryS !== null && !(Number.isInteger(expiryS) && expiryS >= 1 && expiryS <= 4294967295)) {
      fault = 'The expiry is a whole number of seconds, from 1 on, or empty.';
    }
    if (!(limitS >= 1 && limitS <= 86400)) fault = 'Give up after 1 to 86400 seconds.';
    const names = [...new Set(chosen.map(({ name }) => name))];
    const payload = kind === 'get' ? JSON.stringify(names) : setPayload(values);
    if (new TextEncoder().encode(payload).length > kMaxPayloadBytes) fault = 'A request has at most 256 KiB.';
    setFaults(wrong);
    setFormFault(fault);
    if (fault !== null || wrong.size > 0) return;
    page.requests.send(kind, television, names, payload, { qos, expiryS, limitS });
    page.changed();
  };

  const valueCells = (name: string, type: string | null, key: string) => {
    const draft = draftOf(key, type);
    const kinds = kindsOf(type);
    const fault = faults.get(key) ?? null;
    const faultId = `fault-of-${announced.findIndex((property) => property.name === name)}`;
    return (
      <div class={kinds.length > 1 ? 'draft' : 'draft single'}>
        {kinds.length > 1 && (
          <select
            aria-label={`Send ${name} as`}
            value={draft.kind}
            onChange={(event) => change(key, emptyDraft(event.currentTarget.value as DraftKind))}
          >
            {kinds.map((kind) => (
              <option key={kind} value={kind}>
                {kKindNames[kind]}
              </option>
            ))}
          </select>
        )}
        <DraftControl
          key={draft.kind}
          label={`Value of ${name}`}
          draft={draft}
          fault={fault}
          faultId={faultId}
          onChange={(next) => change(key, next)}
        />
        {fault !== null && (
          <span id={faultId} class="fault" role="alert">
            {fault}
          </span>
        )}
      </div>
    );
  };

  return (
    <section class="card" aria-labelledby="request-title">
      <h2 id="request-title">Set and get</h2>
      <form
        noValidate
        onSubmit={(event) => {
          event.preventDefault();
          send('set');
        }}
      >
        <div class="drafts">
          {announced.map(({ name, type }) => (
            <div key={name} class="draft-row">
              <label class="check">
                <input
                  type="checkbox"
                  aria-label={`Include ${name}`}
                  checked={included.has(name)}
                  onChange={(event) => include(name, event.currentTarget.checked)}
                />
                <Text value={name} length={40} /> <span class="muted">{type}</span>
              </label>
              {isOwn(name) ? (
                <span class="muted help">set below; a get returns an empty string</span>
              ) : (
                valueCells(name, type, name)
              )}
            </div>
          ))}
          <div class="draft-row">
            <label class="field">
              Another name
              <input
                type="text"
                spellcheck={false}
                autocomplete="off"
                value={other}
                placeholder="not announced"
                onInput={(event) => setOther(event.currentTarget.value)}
              />
            </label>
            {other !== '' && valueCells(other, null, '')}
          </div>
        </div>
        <p class="help">Applications get text: a whole number, true and false are converted to it.</p>
        <div class="options">
          <label class="field">
            QoS
            <select value={qos} onChange={(event) => setQos(Number(event.currentTarget.value) as Qos)}>
              <option value={0}>0, at most once</option>
              <option value={1}>1, at least once</option>
              <option value={2}>2, exactly once</option>
            </select>
          </label>
          <label class="field">
            Expiry in seconds
            <input
              type="number"
              min={1}
              step={1}
              value={expiry}
              placeholder="none"
              onInput={(event) => setExpiry(event.currentTarget.value)}
            />
          </label>
          <label class="field">
            Give up after seconds
            <input
              type="number"
              min={1}
              max={86400}
              step={1}
              value={limit}
              onInput={(event) => setLimit(event.currentTarget.value)}
            />
          </label>
        </div>
        {formFault !== null && (
          <p class="fault" role="alert">
            {formFault}
          </p>
        )}
        <div class="buttons">
          <button type="submit" class="primary" disabled={why !== null}>
            Set
          </button>
          <button type="button" disabled={why !== null} onClick={() => send('get')}>
            Get
          </button>
          {why !== null && (
            <span class="muted" data-testid="why-no-requests">
              {why}
            </span>
          )}
        </div>
      </form>
    </section>
  );
}
