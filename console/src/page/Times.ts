function two(number: number): string {
  return String(number).padStart(2, '0');
}

// Local date.
export function dayOf(date: Date): string {
  return `${date.getFullYear()}-${two(date.getMonth() + 1)}-${two(date.getDate())}`;
}

// Local time of day, up to this unit.
export function timeOfDay(date: Date, upTo: 'minutes' | 'seconds' | 'milliseconds'): string {
  const minutes = `${two(date.getHours())}:${two(date.getMinutes())}`;
  if (upTo === 'minutes') return minutes;
  const seconds = `${minutes}:${two(date.getSeconds())}`;
  return upTo === 'seconds' ? seconds : `${seconds}.${String(date.getMilliseconds()).padStart(3, '0')}`;
}

// Local time of day, with the date when it is not today.
export function clock(ms: number, withMilliseconds = false): string {
  const date = new Date(ms);
  const time = timeOfDay(date, withMilliseconds ? 'milliseconds' : 'seconds');
  return new Date().toDateString() === date.toDateString() ? time : `${dayOf(date)} ${time}`;
}

// How long ago, in words that do not change more than needed.
export function ago(ms: number, now = Date.now()): string {
  const seconds = Math.round((now - ms) / 1000);
  if (seconds < 2) return 'now';
  return `${span(seconds)} ago`;
}

export function span(seconds: number): string {
  if (seconds < 60) return `${Math.max(0, Math.round(seconds))} s`;
  if (seconds < 3600) return `${Math.floor(seconds / 60)} min`;
  if (seconds < 86400) return `${Math.floor(seconds / 3600)} h`;
  return `${Math.floor(seconds / 86400)} d`;
}
