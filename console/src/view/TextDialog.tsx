import { useEffect, useRef, useState } from 'preact/hooks';

import { visibleLines } from '../page/VisibleText';
import { Text } from './Text';

const kShownCharacters = 1_000_000;

interface Props {
  readonly title: string;
  readonly name: string; // comes after the title, from outside
  readonly text: string;
  readonly note: string;
  readonly onClose: () => void;
}

// A long text from outside as a whole, as it was when this was opened.
export function TextDialog({ title, name, text, note, onClose }: Props) {
  const dialog = useRef<HTMLDialogElement>(null);
  const [shown] = useState(() => visibleLines(text.slice(0, kShownCharacters)));
  const [about] = useState(
    () =>
      note +
      (text.length > kShownCharacters
        ? `; the first ${kShownCharacters.toLocaleString('en')} characters are shown`
        : ''),
  );
  useEffect(() => {
    dialog.current!.showModal();
  }, []);
  return (
    <dialog ref={dialog} aria-labelledby="text-title" onClose={onClose}>
      <div class="title-row">
        <h2 id="text-title">
          {title} <Text value={name} />
        </h2>
        <button type="button" onClick={() => dialog.current!.close()}>
          Close
        </button>
      </div>
      <p class="muted">{about}</p>
      <pre tabIndex={0} data-testid="whole-value">
        {shown}
      </pre>
    </dialog>
  );
}
