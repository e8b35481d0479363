// Times as people read them.

const kSecond = 1000;
const kMinute = 60 * kSecond;
const kHour = 60 * kMinute;
const kDay = 24 * kHour;

/** Milliseconds since 1970; NaN when there is no such time. */
export function millis(time: string | null): number {
  return time === null ? NaN : Date.parse(time.replace(/(\.\d{3})\d+/, '$1'));
}

/** "3 s", "12 min", "5 h", "8 d" between the two; "" without a time. */
export function age(time: string | null, now: number): string {
  const passed = now - millis(time);
  if (Number.isNaN(passed)) return '';
  if (passed < kMinute) return `${Math.max(0, Math.floor(passed / kSecond))} s`;
  if (passed < kHour) return `${Math.floor(passed / kMinute)} min`;
  if (passed < 2 * kDay) return `${Math.floor(passed / kHour)} h`;
  return `${Math.floor(passed / kDay)} d`;
}

function two(number: number): string {
  return String(number).padStart(2, '0');
}

/** "2024-03-05 07:08:09" in the browser's time zone. */
export function clock(time: string | number | null, withMillis = false): string {
  const at = new Date(typeof time === 'number' ? time : millis(time));
  if (Number.isNaN(at.getTime())) return '';
  const day = `${at.getFullYear()}-${two(at.getMonth() + 1)}-${two(at.getDate())}`;
  const hour = `${two(at.getHours())}:${two(at.getMinutes())}:${two(at.getSeconds())}`;
  const rest = withMillis ? `.${String(at.getMilliseconds()).padStart(3, '0')}` : '';
  return `${day} ${hour}${rest}`;
}

const kUnits: Record<string, number> = { s: kSecond, min: kMinute, m: kMinute, h: kHour, d: kDay };

/**
 * What a person typed for a time, as the station reads it: "90s", "20min", "2h", "7d" ago, "03:10"
 * of today (of yesterday when that is still to come), "2024-03-05" with or without a time. "" for
 * nothing; null for what is no time.
 */
export function typedTime(typed: string, now: number): string | null {
  const text = typed.trim();
  if (text === '') return '';
  const ago = /^(\d+)\s*(s|min|m|h|d)$/.exec(text);
  if (ago) return new Date(now - Number(ago[1]) * (kUnits[ago[2] ?? ''] ?? 0)).toISOString();
  const ofDay = /^(\d{1,2}):(\d{2})(?::(\d{2}))?$/.exec(text);
  if (ofDay) return timeOfDay(ofDay, now);
  const full = /^\d{4}-\d{2}-\d{2}(?:[T ]\d{2}:\d{2}(?::\d{2}(?:\.\d+)?)?(?:Z|[+-]\d{2}:\d{2})?)?$/;
  if (!full.test(text)) return null;
  // Without a time of day the language would take the day as one of UTC.
  const at = new Date(text.length === 10 ? `${text}T00:00` : text.replace(' ', 'T'));
  return Number.isNaN(at.getTime()) ? null : at.toISOString();
}

function timeOfDay(parts: RegExpExecArray, now: number): string | null {
  const [hours, minutes, seconds] = [Number(parts[1]), Number(parts[2]), Number(parts[3] ?? 0)];
  if (hours > 23 || minutes > 59 || seconds > 59) return null;
  const at = new Date(now);
  at.setHours(hours, minutes, seconds, 0);
  if (at.getTime() > now) at.setDate(at.getDate() - 1);
  return at.toISOString();
}
