import { ComponentChildren } from 'preact';

interface Props {
  readonly tone: 'good' | 'bad' | 'warn' | 'plain' | 'busy';
  readonly children: ComponentChildren;
  readonly title?: string;
}

// A state in a word. The word says it all; the colour only helps.
export function Badge({ tone, children, title }: Props) {
  return (
    <span class={`badge ${tone}`} title={title}>
      {children}
    </span>
  );
}
