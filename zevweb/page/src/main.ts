// The page: who is logged in, which view is shown, and the keys that count everywhere.

import { api, ApiError, errorText, whenLoggedOut } from './api.ts';
import { AuditView } from './audit.ts';
import { ConsolesView } from './consoles_view.ts';
import { askWith } from './dialog.ts';
import { announce, button, byId, element, fill } from './dom.ts';
import { fleetStore } from './fleet_store.ts';
import { FleetView } from './fleet_view.ts';
import { HistoryView } from './history.ts';
import { isForField, showHelp } from './keys.ts';
import { ListView } from './list.ts';
import { loginForm } from './login.ts';
import { ReplayView } from './replay.ts';
import { go, parseRoute, routeText, type Route } from './route.ts';
import { SearchView } from './search.ts';
import { store } from './store.ts';
import { permitTerminalStyles } from './terminal_styles.ts';
import { settings } from './theme.ts';
import type { View } from './view.ts';

const kAgain = 2000;  // milliseconds until a station that does not answer is asked again

const kParts = [['list', 'Consoles', 'consoles'], ['search', 'Search', 'search'],
  ['audit', 'Audit', 'audit'], ['fleet', 'Fleet', 'fleet']] as const;

let view: View | null = null;
let loggedIn = false;
let hasFleetPart = false;

function makeView(route: Route): View {
  const name = route.names[0] ?? '';
  switch (route.view) {
    case 'consoles': return new ConsolesView(route.names);
    case 'history': return new HistoryView(name, route.query);
    case 'replay': return new ReplayView(name, route.query);
    case 'search': return new SearchView(route.query);
    case 'audit': return new AuditView();
    case 'fleet': return new FleetView(route.query);
    case 'list': return new ListView();
  }
}

function showTop(): void {
  document.title = view === null ? 'Consoles' : view.title;
  const parts = kParts.filter(([to]) => to !== 'fleet' || fleetStore.exists);
  fill(byId('nav'), ...parts.map(([to, label, part]) => element('a', {
    href: routeText(to), 'aria-current': view?.part === part ? 'page' : false,
  }, label)));
  hasFleetPart = fleetStore.exists;
}

function whenFleetAnswered(): void {
  if (loggedIn && fleetStore.exists !== hasFleetPart) showTop();
}

function showView(): void {
  if (!loggedIn) return;
  const route = parseRoute(location.hash);
  if (route.view === 'consoles' && view instanceof ConsolesView) {
    view.show(route.names);
  } else {
    view?.close();
    view = makeView(route);
    fill(byId('main'), view.node);
    view.focus();
  }
  showTop();
}

/** What stands in the way of all consoles at once; empty if nothing does. */
function problemText(): string {
  if (store.problem !== null) return store.problem;
  const list = store.list;
  if (list === null) return '';
  if (!list.daemon.answers) {
    return list.daemon.problem ?? 'The daemon does not answer. What is shown is from the journal.';
  }
  if (list.journal.problem !== null) return list.journal.problem;
  if (list.journal.state !== 'on' || !list.journal.readable) {
    return 'The station keeps no journal, so nothing earlier can be shown, and no replay: watching '
      + 'attaches as a read-only user. ZEVD_JOURNAL= in qor.conf switches it on.';
  }
  return '';
}

function showProblem(): void {
  const banner = byId('banner');
  const text = problemText();
  if (banner.textContent !== text) banner.textContent = text;
  banner.hidden = text === '';
}

function makeTools(): void {
  const themeButton = button('', () => nextTheme(), { title: 'Light or dark (t)', id: 'theme' });
  const showTheme = () => { themeButton.textContent = `Theme: ${settings.theme()}`; };
  const reader = button('Screen reader', () => {
    settings.setScreenReader(!settings.screenReader());
    reader.setAttribute('aria-pressed', String(settings.screenReader()));
  }, { 'aria-pressed': String(settings.screenReader()), id: 'screen-reader',
    title: 'Terminals tell their text to a screen reader' });
  settings.onChange(showTheme);
  showTheme();
  fill(byId('tools'), themeButton, reader,
    button('Keys ?', () => void showHelp(), { id: 'help' }),
    button('Log out', () => void logOut(), { id: 'logout' }));
}

function nextTheme(): void {
  announce(`Theme: ${settings.nextTheme()}`);
}

async function logOut(): Promise<void> {
  const everywhere = await askWith('Log out',
    [element('p', {}, '"Everywhere" also ends your sessions in other browsers.')],
    [{ label: 'Here', value: false }, { label: 'Everywhere', value: true }]);
  if (everywhere === null) return;
  try {
    await api.logout(everywhere);
    showLogin('');
  } catch (error) {
    announce(errorText(error));
  }
}

function showLogin(reason: string): void {
  loggedIn = false;
  store.stop();
  fleetStore.stop();
  view?.close();
  view = null;
  byId('top').hidden = true;
  byId('banner').hidden = true;
  document.title = 'Consoles';
  for (const dialog of document.querySelectorAll('dialog')) dialog.close();
  const form = loginForm(reason, () => void begin());
  fill(byId('main'), form);
  form.querySelector('input')?.focus();
}

async function begin(): Promise<void> {
  try {
    const session = await api.session();
    loggedIn = true;
    byId('who').textContent = `${session.name} from ${session.address}`;
    byId('top').hidden = false;
    store.start();
    fleetStore.start();
    showView();
  } catch (error) {
    if (error instanceof ApiError && error.status === 401) return;
    fill(byId('main'), element('p', { class: 'login problem', role: 'alert' }, errorText(error)));
    window.setTimeout(() => void begin(), kAgain);
  }
}

function commonKey(event: KeyboardEvent): boolean {
  switch (event.key) {
    case '?': void showHelp(); return true;
    case 'g': go('list'); return true;
    case 's': go('search'); return true;
    case 'a': go('audit'); return true;
    case 'f':
      if (fleetStore.exists) go('fleet');
      return fleetStore.exists;
    case 't': nextTheme(); return true;
    case 'Escape': go('list'); return true;
    default: return false;
  }
}

function whenKey(event: KeyboardEvent): void {
  if (!loggedIn || event.defaultPrevented || isForField(event)) return;
  if (event.ctrlKey || event.altKey || event.metaKey || event.key === 'Tab') return;
  if (event.key === 'Enter' && event.target instanceof HTMLButtonElement) return;
  if (view?.key?.(event) === true || commonKey(event)) event.preventDefault();
}

whenLoggedOut(() => {
  // Requests that were on their way are refused, too: the form and its reason stay.
  const isAsked = byId('main').querySelector('form.login') !== null;
  if (loggedIn) showLogin('Your session has ended. Log in again.');
  else if (!isAsked) showLogin('');
});
byId('skip').addEventListener('click', (event) => {
  event.preventDefault();
  if (view !== null) view.focus();
  else byId('main').focus();
});
store.onChange(showProblem);
fleetStore.onChange(whenFleetAnswered);
window.addEventListener('hashchange', showView);
document.addEventListener('keydown', whenKey);
permitTerminalStyles();
makeTools();
void begin();
