// The part of the address behind "#": which view, of which consoles, with what settings. A link that
// is kept or passed on shows the same again.

export interface Route {
  view: 'list' | 'consoles' | 'history' | 'replay' | 'search' | 'audit' | 'fleet';
  names: string[];
  query: Record<string, string>;
}

const kViews = ['consoles', 'history', 'replay', 'search', 'audit', 'fleet'] as const;

function decoded(text: string): string {
  try {
    return decodeURIComponent(text);
  } catch {
    return text;
  }
}

export function parseRoute(hash: string): Route {
  const [path = '', query = ''] = hash.replace(/^#\/?/, '').split(/\?(.*)/s);
  const [word, ...names] = path.split('/').filter((part) => part !== '').map(decoded);
  const view = kViews.find((one) => one === word);
  const needsName = view === 'consoles' || view === 'history' || view === 'replay';
  if (view === undefined || (needsName && names.length === 0)) {
    return { view: 'list', names: [], query: {} };
  }
  return { view, names, query: Object.fromEntries(new URLSearchParams(query)) };
}

export function routeText(view: Route['view'], names: readonly string[] = [],
  query: Record<string, string> = {}): string {
  if (view === 'list') return '#/';
  const path = [view, ...names].map(encodeURIComponent).join('/');
  const pairs = new URLSearchParams(Object.entries(query).filter(([, value]) => value !== ''));
  const text = pairs.toString();
  return `#/${path}${text === '' ? '' : `?${text}`}`;
}

export function go(view: Route['view'], names: readonly string[] = [],
  query: Record<string, string> = {}): void {
  location.hash = routeText(view, names, query);
}
