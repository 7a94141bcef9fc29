import { base64Of, Draft, kMaxInteger, kMaxFileBytes, kMinInteger } from '../model/Draft';

interface Props {
  readonly label: string;
  readonly draft: Draft;
  readonly fault: string | null;
  readonly faultId: string;
  readonly onChange: (draft: Draft) => void;
}

// The control that fits the kind of a value.
export function DraftControl({ label, draft, fault, faultId, onChange }: Props) {
  const about = {
    'aria-label': label,
    'aria-invalid': fault !== null,
    'aria-describedby': fault === null ? undefined : faultId,
  };
  const change = (text: string | null) => onChange({ ...draft, text });
  switch (draft.kind) {
    case 'boolean':
      return (
        <span class="switch-line">
          <input
            type="checkbox"
            role="switch"
            class="switch"
            {...about}
            checked={draft.text === 'true'}
            onChange={(event) => change(String(event.currentTarget.checked))}
          />
          <span aria-hidden="true">{draft.text === 'true' ? 'true' : 'false'}</span>
        </span>
      );
    case 'integer':
      return (
        <input
          type="number"
          {...about}
          min={kMinInteger}
          max={kMaxInteger}
          step={1}
          value={draft.text ?? ''}
          onInput={(event) => change(event.currentTarget.value)}
        />
      );
    case 'real':
      return (
        <input
          type="number"
          {...about}
          step="any"
          value={draft.text ?? ''}
          onInput={(event) => change(event.currentTarget.value)}
        />
      );
    case 'json':
      return (
        <textarea
          {...about}
          rows={3}
          spellcheck={false}
          value={draft.text ?? ''}
          onInput={(event) => change(event.currentTarget.value)}
        />
      );
    case 'bytes':
      return (
        <span>
          <input
            type="file"
            {...about}
            onChange={(event) => {
              const file = event.currentTarget.files?.[0];
              if (file === undefined || file.size > kMaxFileBytes) {
                onChange({ kind: 'bytes', text: null, isTooLarge: file !== undefined });
                return;
              }
              void file
                .arrayBuffer()
                .then((buffer) => onChange({ kind: 'bytes', text: base64Of(new Uint8Array(buffer)) }));
            }}
          />
          {draft.text !== null && <span class="muted"> {draft.text.length} characters of Base64</span>}
        </span>
      );
    case 'text':
      return (
        <input
          type="text"
          {...about}
          spellcheck={false}
          autocomplete="off"
          value={draft.text ?? ''}
          onInput={(event) => change(event.currentTarget.value)}
        />
      );
  }
}
