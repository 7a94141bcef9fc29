import { useState } from 'preact/hooks';

import { jsonOfDraft, setPayload } from '../model/Draft';
import { kSignIn, kSignUp } from '../model/SetEffects';
import { Television } from '../model/Television';
import { Console } from '../page/Console';
import { clock } from '../page/Times';
import { Badge } from './Badge';
import { signInWords } from './signInWords';
import { Text } from './Text';
import { whyNoRequests } from './whyNoRequests';

const kOptions = { qos: 2, expiryS: null, limitS: 30 } as const;

interface Props {
  readonly page: Console;
  readonly television: Television;
}

// Sign-in status and sign-up information: what the cloud tells the television about itself.
export function SignInForm({ page, television }: Props) {
  const { signIn, signUp } = television;
  const [isSignedIn, setSignedIn] = useState(true);
  const [info, setInfo] = useState('');
  const checked = jsonOfDraft({ kind: 'json', text: info });
  const fault = info !== '' && 'fault' in checked ? checked.fault : null;
  const why = whyNoRequests(page);
  const isGone = signIn.known === 'gone' || (signUp?.isGone === true && signUp.text !== null);

  const send = (values: ReadonlyMap<string, string>) => {
    page.requests.send('set', television, [...values.keys()], setPayload(values), kOptions);
    page.changed();
  };
  const setAgain = () => {
    const values = new Map<string, string>();
    if (signIn.known === 'gone') values.set(kSignIn, String(signIn.value));
    if (signUp?.isGone && signUp.text !== null) values.set(kSignUp, signUp.text);
    send(values);
  };

  return (
    <section class="card" aria-labelledby="sign-in-title">
      <h2 id="sign-in-title">Sign-in</h2>
      <p class="help">
        Both are lost when the host restarts: set them again each time the television comes online. Nobody can read them
        back through the broker; every user of the television’s bus can read the sign-up information.
      </p>
      {isGone && (
        <p class="notice warn" data-testid="set-again">
          The host has restarted since it was set.{' '}
          <button type="button" class="small" disabled={why !== null} onClick={setAgain}>
            Set again
          </button>
        </p>
      )}
      <form
        class="inline-form"
        onSubmit={(event) => {
          event.preventDefault();
          send(new Map([[kSignIn, String(isSignedIn)]]));
        }}
      >
        <label class="switch-line">
          <input
            type="checkbox"
            role="switch"
            class="switch"
            checked={isSignedIn}
            onChange={(event) => setSignedIn(event.currentTarget.checked)}
          />
          Signed in
        </label>
        <button type="submit" disabled={why !== null}>
          Set sign-in
        </button>
      </form>
      <p class="muted" data-testid="sign-in-words">
        {signInWords(signIn).long}
      </p>
      <form
        noValidate
        onSubmit={(event) => {
          event.preventDefault();
          if ('json' in checked) send(new Map([[kSignUp, checked.json]]));
        }}
      >
        <label class="field">
          Sign-up information (JSON)
          <textarea
            rows={3}
            spellcheck={false}
            value={info}
            placeholder={'{"country": "KR"}'}
            aria-invalid={fault !== null}
            aria-describedby={fault === null ? undefined : 'sign-up-fault'}
            onInput={(event) => setInfo(event.currentTarget.value)}
          />
        </label>
        {fault !== null && (
          <p id="sign-up-fault" class="fault" role="alert">
            {fault}
          </p>
        )}
        <div class="buttons">
          <button type="submit" disabled={why !== null || !('json' in checked)}>
            Set sign-up information
          </button>
          {signUp !== null && (
            <span class="muted" data-testid="sign-up-words">
              set at {clock(signUp.at)}:{' '}
              {signUp.text === null ? 'too much to be kept' : <Text value={signUp.text} length={60} />}{' '}
              {signUp.isGone && <Badge tone="warn">lost</Badge>}
            </span>
          )}
        </div>
      </form>
    </section>
  );
}
