import { useEffect, useRef, useState } from 'preact/hooks';

import { Value } from '../model/Value';
import { visibleLines } from '../page/VisibleText';
import { Text } from './Text';

const kShownCharacters = 1_000_000;

interface Props {
  readonly name: string;
  readonly value: Value;
  readonly onClose: () => void;
}

// The whole value, as it was when this was opened.
export function ValueDialog({ name, value, onClose }: Props) {
  const dialog = useRef<HTMLDialogElement>(null);
  const [shown] = useState(() => visibleLines(value.text.slice(0, kShownCharacters)));
  useEffect(() => {
    dialog.current!.showModal();
  }, []);
  return (
    <dialog ref={dialog} aria-labelledby="value-title" onClose={onClose}>
      <div class="title-row">
        <h2 id="value-title">Value of <Text value={name} /></h2>
        <button type="button" onClick={() => dialog.current!.close()}>Close</button>
      </div>
      <p class="muted">
        {value.lengthBytes.toLocaleString('en')} bytes as JSON, {value.text.length.toLocaleString('en')} characters
        {value.isCut && '; the rest was not kept, for lack of room'}
        {value.text.length > kShownCharacters && `; the first ${kShownCharacters.toLocaleString('en')} are shown`}
      </p>
      <pre tabIndex={0} data-testid="whole-value">{shown}</pre>
    </dialog>
  );
}
