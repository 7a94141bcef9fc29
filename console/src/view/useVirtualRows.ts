import { RefObject } from 'preact';
import { MutableRef, useCallback, useLayoutEffect, useRef, useState } from 'preact/hooks';

const kMore = 8; // rows beyond what is seen, on both sides

interface VirtualRows {
  readonly ref: RefObject<HTMLDivElement>;
  readonly onScroll: () => void;
  readonly start: number;
  readonly end: number;
  readonly before: number; // px above the first row, and below the last one
  readonly after: number;
}

// Which of `count` rows of one height a scrolling element shows. `scroll` outlives the element: it opens where it was.
export function useVirtualRows(count: number, rowHeight: number, scroll: MutableRef<number>): VirtualRows {
  const ref = useRef<HTMLDivElement>(null);
  const [view, setView] = useState({ top: scroll.current, height: 800 });
  const measure = useCallback(() => {
    const element = ref.current;
    if (element === null) return;
    // In whole rows, so that it is drawn anew only when a row comes or goes.
    scroll.current = element.scrollTop;
    const top = Math.floor(element.scrollTop / rowHeight) * rowHeight;
    setView((last) =>
      last.top === top && last.height === element.clientHeight ? last : { top, height: element.clientHeight },
    );
  }, [rowHeight, scroll]);
  useLayoutEffect(() => {
    ref.current!.scrollTop = scroll.current;
    measure();
    const observer = new ResizeObserver(measure);
    observer.observe(ref.current!);
    return () => observer.disconnect();
  }, [measure, scroll]);
  const most = Math.ceil(view.height / rowHeight) + 2 * kMore;
  const start = Math.max(0, Math.min(Math.floor(view.top / rowHeight) - kMore, count - most));
  const end = Math.min(count, start + most);
  return { ref, onScroll: measure, start, end, before: start * rowHeight, after: (count - end) * rowHeight };
}
