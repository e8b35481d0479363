// Requests to the station. Whatever goes wrong becomes an ApiError whose text can be shown as it is.

import type {
  AuditAnswer, ConsoleList, FleetAnswer, HistoryAnswer, MarksAnswer, ReplayRecords, ReplayScreen, SessionInfo,
} from './types.ts';

export class ApiError extends Error {
  readonly status: number;  // 0: no answer came
  readonly retryAfter: number | null;  // seconds

  constructor(status: number, text: string, retryAfter: number | null = null) {
    super(text);
    this.status = status;
    this.retryAfter = retryAfter;
  }
}

export type Query = Record<string, string | string[] | number | boolean | null | undefined>;

/** "?a=1&b=2" of what is given; nothing of what is empty. */
export function queryText(query: Query): string {
  const pairs = new URLSearchParams();
  for (const [key, value] of Object.entries(query)) {
    for (const one of Array.isArray(value) ? value : [value]) {
      if (one === null || one === undefined || one === false || one === '') continue;
      pairs.append(key, one === true ? '1' : String(one));
    }
  }
  const text = pairs.toString();
  return text === '' ? '' : `?${text}`;
}

let onLoggedOut: () => void = () => {};

/** What is done when the station says that the session has ended. */
export function whenLoggedOut(action: () => void): void {
  onLoggedOut = action;
}

async function problemOf(response: Response): Promise<ApiError> {
  let text = `The station answered ${response.status}. Try again.`;
  try {
    const answer = (await response.json()) as { error?: unknown };
    if (typeof answer.error === 'string') text = answer.error;
  } catch {
    // An answer from something in between, such as a proxy: its status is all there is to tell.
  }
  const seconds = Number(response.headers.get('Retry-After'));
  return new ApiError(response.status, text, seconds > 0 ? seconds : null);
}

async function ask(path: string, request: RequestInit): Promise<Response> {
  let response: Response;
  try {
    response = await fetch(path, { ...request, credentials: 'same-origin', redirect: 'error' });
  } catch {
    throw new ApiError(0, 'The station does not answer. Look at the network, and at zevweb there.');
  }
  if (response.ok) return response;
  const problem = await problemOf(response);
  if (problem.status === 401 && path !== '/api/login') onLoggedOut();
  throw problem;
}

async function get<Answer>(path: string, query: Query = {}): Promise<Answer> {
  const response = await ask(path + queryText(query), { headers: { Accept: 'application/json' } });
  return (await response.json()) as Answer;
}

async function post(path: string, body: unknown): Promise<string> {
  const response = await ask(path, {
    method: 'POST',
    headers: { 'Content-Type': 'application/json' },
    body: JSON.stringify(body),
  });
  const text = await response.text();
  if (text === '') return '';
  const answer = JSON.parse(text) as { text?: unknown };
  return typeof answer.text === 'string' ? answer.text : '';
}

export function consolePath(name: string, what: string): string {
  return `/api/consoles/${encodeURIComponent(name)}/${what}`;
}

export const api = {
  session: () => get<SessionInfo>('/api/session'),
  login: (name: string, password: string) => post('/api/login', { name, password }),
  logout: (everywhere: boolean) => post(`/api/logout${everywhere ? '?everywhere=1' : ''}`, {}),
  consoles: () => get<ConsoleList>('/api/consoles'),
  history: (name: string, query: Query) =>
    get<HistoryAnswer>(consolePath(name, 'history'), query),
  fleet: () => get<FleetAnswer>('/api/fleet'),
  search: (query: Query) => get<HistoryAnswer>('/api/search', query),
  audit: (query: Query) => get<AuditAnswer>('/api/audit', query),
  marks: (name: string, query: Query) => get<MarksAnswer>(consolePath(name, 'marks'), query),
  screen: (name: string, query: Query) =>
    get<ReplayScreen>(consolePath(name, 'replay/screen'), query),
  records: (name: string, query: Query) =>
    get<ReplayRecords>(consolePath(name, 'replay/records'), query),
  command: (name: string, command: string, body: unknown = {}) =>
    post(consolePath(name, command), body),
};

/** Where a WebSocket of this page goes: to the machine that the page came from. */
export function socketAddress(path: string): string {
  const secure = location.protocol === 'https:';
  return `${secure ? 'wss' : 'ws'}://${location.host}${path}`;
}

export function errorText(error: unknown): string {
  return error instanceof Error ? error.message : String(error);
}
