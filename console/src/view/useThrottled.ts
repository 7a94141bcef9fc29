import { useEffect, useRef } from 'preact/hooks';

// What `compute` returned, at most `everyMs` old, or made with another key. When it is older than what could be
// computed now, `later` is called once it may be computed again.
export function useThrottled<T>(key: string, everyMs: number, compute: () => T, later: () => void): T {
  const last = useRef<{ readonly key: string; readonly at: number; readonly result: T } | null>(null);
  const timer = useRef<ReturnType<typeof setTimeout> | null>(null);
  useEffect(
    () => () => {
      if (timer.current !== null) clearTimeout(timer.current);
    },
    [],
  );
  const now = performance.now();
  if (last.current === null || last.current.key !== key || now - last.current.at >= everyMs) {
    last.current = { key, at: now, result: compute() };
  } else {
    timer.current ??= setTimeout(
      () => {
        timer.current = null;
        later();
      },
      everyMs - (now - last.current.at) + 1,
    );
  }
  return last.current.result;
}
