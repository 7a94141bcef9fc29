export type Route =
  { readonly view: 'fleet' | 'requests' | 'connection' } | { readonly view: 'television'; readonly id: string };

// The view that a fragment names.
export function routeOf(fragment: string): Route {
  const path = fragment.replace(/^#\/?/, '');
  if (path === 'requests' || path === 'connection') return { view: path };
  const thing = /^things\/(.+)$/.exec(path)?.[1];
  if (thing === undefined) return { view: 'fleet' };
  try {
    return { view: 'television', id: decodeURIComponent(thing) };
  } catch {
    return { view: 'fleet' };
  }
}

export function linkTo(id: string): string {
  return `#/things/${encodeURIComponent(id)}`;
}
