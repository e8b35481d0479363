// The daemon's numbered refusals: what they mean, and what can be done in this page.

const kAdvice: Record<number, string> = {
  1: 'Log in again with the name and password that you have on the station.',
  2: 'Look for odd characters in the name of the console.',
  3: 'Nothing was heard in time. Try again.',
  4: 'No console has that name any more. Look at the list.',
  5: 'The daemon has no connection to the console, and tries again every minute. '
    + 'Reconnect tries at once.',
  6: 'Somebody holds the console exclusively. Watch it, wait, or take it over.',
  7: 'Others are typing at it. Ask for the shared mode, wait, or take it over.',
  8: 'The connection failed. Try again.',
  9: 'The connection failed. Try again.',
  10: 'The connection failed. Try again.',
  11: 'It was taken out of the configuration. Look at the list.',
  12: 'Enable it, and the daemon connects to it.',
  13: 'The station has no memory, thread or descriptor left. Look at the machine.',
  14: 'Ask to be added to the group qoruser on the station.',
  15: 'The configuration gives this port to no console.',
  16: 'Others are waiting to be attached. Try again.',
};

/** Refusals that taking the console over mends. */
export function canTakeOver(number: number | null): boolean {
  return number === 6 || number === 7;
}

/** The number of "006 - Console is locked exclusively."; null if it has none. */
export function refusalNumber(text: string): number | null {
  const found = /^(\d{3}) - /.exec(text);
  return found ? Number(found[1]) : null;
}

/** The daemon's words, and what can be done. */
export function refusalInWords(number: number | null, text: string): string {
  const advice = number === null ? undefined : kAdvice[number];
  return advice === undefined ? text : `${text} ${advice}`;
}
