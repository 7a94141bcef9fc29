// The members of a JSON object, each as the text that it has there, so that large numbers stay exact and 1.0 is not 1.
// Of a name that occurs twice the last one counts. Null when the text is no JSON object.
export function membersOf(json: string): Map<string, string> | null {
  try {
    const value: unknown = JSON.parse(json);
    if (typeof value !== 'object' || value === null || Array.isArray(value)) return null;
  } catch {
    return null;
  }
  const members = new Map<string, string>();
  let depth = 0;
  let name = '';
  let start = 0; // of the member's name, then of its value
  const end = (at: number) => members.set(name, json.slice(start, at).trim());
  for (const { 0: token, index } of json.matchAll(kToken)) {
    if (token === '{' || token === '[') {
      if (++depth === 1) start = index + 1;
    } else if (token === '}' || token === ']') {
      if (--depth === 0 && json.slice(start, index).trim() !== '') end(index);
    } else if (depth === 1 && token === ':') {
      name = JSON.parse(json.slice(start, index)) as string;
      start = index + 1;
    } else if (depth === 1 && token === ',') {
      end(index);
      start = index + 1;
    }
  }
  return members;
}

const kToken = /"[^"\\]*(?:\\.[^"\\]*)*"|[{}[\]:,]/g;
