import { clock } from '../page/Times';
import { SignIn } from '../model/Television';

// Whether a television is signed in, as far as this page can know it.
export function signInWords(signIn: SignIn): { readonly short: string; readonly long: string } {
  switch (signIn.known) {
    case 'no':
      return { short: 'unknown', long: 'Unknown: it cannot be read, and this page has seen no set of it.' };
    case 'gone':
      return {
        short: 'lost',
        long: `Lost: it was set to ${signIn.value} at ${clock(signIn.at)}, and the host has ` + 'restarted since.',
      };
    case 'assumed':
      return {
        short: signIn.value ? 'yes?' : 'no?',
        long: `Probably ${signIn.value}: a set of it was seen at ` + `${clock(signIn.at)}, and not its answer.`,
      };
    case 'set':
      return {
        short: signIn.value ? 'yes' : 'no',
        long:
          `${signIn.value ? 'Signed in' : 'Signed out'}: this page set ` +
          `it at ${clock(signIn.at)}, and the television answered.`,
      };
  }
}
