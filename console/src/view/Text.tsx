import { cut, visibleText } from '../page/VisibleText';

interface Props {
  readonly value: string;
  readonly length?: number;
}

// Text from outside, in one line: cut, and with signs for what is not seen. Isolated, so that text that runs from
// right to left does not change what stands beside it.
export function Text({ value, length = 120 }: Props) {
  return <bdi class="text">{visibleText(cut(value, length))}</bdi>;
}
