import { useEffect, useRef } from 'preact/hooks';
import uPlot from 'uplot';

import { Property } from '../model/Property';
import { dayOf, timeOfDay } from '../page/Times';
import { visibleText } from '../page/VisibleText';

const kHeight = 160;
const kDrawEveryMs = 250;
const kShortestS = 10; // of the time axis

interface Props {
  readonly property: Property;
  readonly isDark: boolean;
}

function colour(name: string): string {
  return getComputedStyle(document.documentElement).getPropertyValue(name).trim();
}

function columns(property: Property): uPlot.AlignedData {
  const points = property.points;
  // With one point alone the library would choose a time axis of years.
  if (points.length === 1) {
    const at = points[0]!.at / 1000;
    return [
      [at - kShortestS, at],
      [null, points[0]!.value],
    ];
  }
  return [points.map((point) => point.at / 1000), points.map((point) => point.value)];
}

// The times of an axis: 24 hours, and the date where the day changes.
function timesOf(splits: readonly number[], stepS: number): string[] {
  let day = '';
  return splits.map((seconds) => {
    const date = new Date(seconds * 1000);
    const today = dayOf(date);
    if (stepS >= 86_400) return today;
    const time = timeOfDay(date, stepS >= 60 ? 'minutes' : stepS >= 1 ? 'seconds' : 'milliseconds');
    const text = day !== '' && day !== today ? `${time}\n${today}` : time;
    day = today;
    return text;
  });
}

function make(property: Property, target: HTMLElement): uPlot {
  const axis: uPlot.Axis = {
    stroke: colour('--muted'),
    grid: { stroke: colour('--line'), width: 1 },
    ticks: { stroke: colour('--line'), width: 1 },
  };
  return new uPlot(
    {
      width: Math.max(200, target.clientWidth),
      height: kHeight,
      legend: { show: false },
      cursor: { y: false },
      scales: {
        x: { range: (_, min, max) => (max - min < kShortestS ? [max - kShortestS, max] : [min, max]) },
        y: { range: (_, min, max) => uPlot.rangeNum(min, max, 0.1, true) },
      },
      axes: [
        { ...axis, space: 76, values: (_, splits, _axis, _space, stepS) => timesOf(splits, stepS) },
        { ...axis, size: 56 },
      ],
      series: [
        {},
        {
          stroke: colour('--accent'),
          width: 1.5,
          points: { show: true, size: 4 },
          ...(uPlot.paths.stepped ? { paths: uPlot.paths.stepped({ align: 1 }) } : {}),
        },
      ],
    },
    columns(property),
    target,
  );
}

// A property over time. A value holds until the next one, so the line has steps.
export function Picture({ property, isDark }: Props) {
  const target = useRef<HTMLDivElement>(null);
  const plot = useRef<uPlot | null>(null);
  const drawnAt = useRef({ added: -1, at: 0 });
  useEffect(() => {
    const element = target.current!;
    plot.current = make(property, element);
    const observer = new ResizeObserver(() =>
      plot.current?.setSize({ width: Math.max(200, element.clientWidth), height: kHeight }),
    );
    observer.observe(element);
    return () => {
      observer.disconnect();
      plot.current?.destroy();
      plot.current = null;
    };
  }, [property, isDark]);
  useEffect(() => {
    const now = performance.now();
    if (
      plot.current === null ||
      drawnAt.current.added === property.pointsAdded ||
      now - drawnAt.current.at < kDrawEveryMs
    )
      return;
    drawnAt.current = { added: property.pointsAdded, at: now };
    plot.current.setData(columns(property));
  });
  const last = property.value?.text ?? 'none';
  return (
    <figure class="picture">
      <div
        ref={target}
        role="img"
        data-testid="picture"
        aria-label={`${visibleText(property.name)} over time, ${property.pointsKept} values; the last one is ${visibleText(last.slice(0, 32))}`}
      />
      <figcaption class="muted">
        {property.pointsAdded > property.pointsKept
          ? `The last ${property.pointsKept} of ${property.pointsAdded} values`
          : property.pointsAdded === 1
            ? 'One value'
            : `${property.pointsAdded} values`}{' '}
        seen here; true is 1, false is 0.
      </figcaption>
    </figure>
  );
}
