// The page's modules that need no browser. ZEVWEB_MODULES holds them as JavaScript.

import assert from 'node:assert/strict';
import test from 'node:test';

const load = (name) => import(`${process.env.ZEVWEB_MODULES}/${name}.mjs`);
const { choose, matches } = await load('filter');
const fleets = await load('fleet');
const { asTyped, pieces, summary, visible } = await load('paste');
const { age, clock, millis, typedTime } = await load('moments');
const { canTakeOver, refusalInWords, refusalNumber } = await load('refusals');
const { isBehind, parseMessage, parseOutput, Place } = await load('frames');
const { parseRoute, routeText } = await load('route');
const { exactMillis, otherSpeed, pause } = await load('tape');
const { queryText } = await load('api');

const kStation = '0123456789abcdef';

function box(name, values = {}) {
  return { name, address: '10.0.0.1', state: 'connected', problem: null, users: [], ...values };
}

function frame(kind, position, bytes) {
  const head = [kind, position.length, ...Buffer.from(position), 0, 0, 0, 0, 0, 0, 0, 0];
  return Uint8Array.from([...head, ...Buffer.from(bytes)]).buffer;
}

test('problems come first, and numbers in names count as numbers', () => {
  const all = [box('r10'), box('r9'), box('z', { problem: 'down' })];
  assert.deepEqual(choose(all, '').map((one) => one.name), ['z', 'r9', 'r10']);
});

test('a filter looks at name, address, state and users', () => {
  const one = box('Web1', { users: [{ name: 'anna' }] });
  for (const filter of ['web', '10.0', 'connected', 'ANNA', 'web anna', '-bob', '-', '  ']) {
    assert.ok(matches(one, filter), filter);
  }
  for (const filter of ['bob', 'web bob', '-anna', 'web -connected']) {
    assert.ok(!matches(one, filter), filter);
  }
});

function station(name, web, values = {}) {
  return { name, address: '', web, alive: true, ready: true, version: '1', ...values };
}

function far(name, at, stations = [at]) {
  return { name, station: at, stations };
}

const kFleet = {
  site: 'hall', station: 'st1', as_of: null, stale: false, connected: true, problem: null,
  stations: [station('st1', 'https://one'), station('st2', 'https://two/x/?y#z'),
    station('st3', null)],
  consoles: [far('a10', 'st1'), far('a9', 'st2'), far('b', 'st3', ['st2', 'st3']),
    far('c', null, ['st1']), far('d', 'st2', [])],
};

test('a station is ready, not ready, or away', () => {
  const words = (alive, ready) => fleets.stateInWords(station('s', null, { alive, ready }));
  assert.deepEqual([words(true, true), words(true, false), words(false, true)],
    ['ready', 'not ready', 'away']);
  assert.deepEqual([...fleets.heldBy(kFleet)], [['st1', 1], ['st2', 2], ['st3', 1]]);
});

test('consoles of the fleet: nobody has it, it is elsewhere, then by name', () => {
  const all = fleets.chooseFleet(kFleet.consoles, '', 10);
  assert.deepEqual(all.rows.map((one) => one.name), ['c', 'b', 'a9', 'a10', 'd']);
  assert.deepEqual(all.rows.map(fleets.placeProblem),
    ['no station has it', 'should be at st2', '', '', '']);
  const some = fleets.chooseFleet(kFleet.consoles, '-st3', 2);
  assert.deepEqual([some.rows.map((one) => one.name), some.count, some.problems],
    [['c', 'a9'], 4, 1]);
});

test('the first of many are those that sorting would give', () => {
  const order = (one, other) => one - other;
  for (const size of [0, 1, 5, 200]) {
    const items = Array.from({ length: size }, (_, at) => (at * 7919) % 101);
    for (const most of [1, 3, 200, 1000]) {
      assert.deepEqual(fleets.firstOf(items, most, order),
        [...items].sort(order).slice(0, most), `${size} ${most}`);
    }
  }
});

test('what a filter finds at other stations is counted', () => {
  const found = (filter) => fleets.elsewhereInWords(kFleet, filter);
  assert.equal(found(''), '');
  assert.equal(found(' '), '');
  assert.equal(found('a'), '1 at other stations');
  assert.equal(found('-a'), '2 at other stations, 1 at no station');
  assert.equal(found('a9'), '1 at other stations');
  assert.equal(found('a10'), '');
});

test('a console is opened here, at the page of its station, or not in a page', () => {
  const where = (name, at) => fleets.consoleAddress(kFleet, far(name, at));
  assert.equal(where('a b', 'st1'), '#/consoles/a%20b');
  assert.equal(where('a/b', 'st2'), 'https://two/x/?y#/consoles/a%2Fb');
  for (const at of ['st3', 'st4', null]) assert.equal(where('x', at), null);
  for (const web of ['javascript:alert(1)', 'data:,x', 'ftp://x', 'x', '', '//x', null,
    'https://me:secret@x']) assert.equal(fleets.pageAddress(web), null, web);
});

test('a paste goes in lines or in so many bytes, and no byte is lost', () => {
  const bytes = Buffer.from(asTyped('one\r\ntwo\n\nthree'));
  const joined = (pace) => [...pieces(bytes, pace)].map((piece) => Buffer.from(piece).toString());
  assert.deepEqual(joined({ bytes: 0, pause: 0 }), ['one\r', 'two\r', '\r', 'three']);
  assert.deepEqual(joined({ bytes: 6, pause: 0 }), ['one\rtw', 'o\r\rthr', 'ee']);
  const long = [...pieces(new Uint8Array(3000), { bytes: 0, pause: 0 })].map((one) => one.length);
  assert.deepEqual(long, [1024, 1024, 952]);
});

test('the look before a paste hides nothing', () => {
  assert.equal(visible('a\u0003b\u001b[A\u007f\u202ec\r\nd\t'), 'a^Cb^[[A^?\ufffdc\nd^I');
  assert.equal(summary('ls\n'), '2 lines, 3 bytes.');
  assert.equal(summary('\u0007'), '1 line, 1 bytes. It has control or invisible characters.');
});

test('times as people type them', () => {
  const now = new Date(2024, 2, 5, 7, 8, 9).getTime();
  const ago = (typed) => (now - millis(typedTime(typed, now))) / 1000;
  assert.equal(ago('90s'), 90);
  assert.equal(ago('20min'), 1200);
  assert.equal(ago('2h'), 7200);
  assert.equal(ago('07:08'), 9);
  assert.equal(clock(typedTime('23:00', now)), '2024-03-04 23:00:00');
  assert.equal(clock(typedTime('2024-03-01', now)), '2024-03-01 00:00:00');
  assert.equal(clock(typedTime('2024-03-01 03:10', now)), '2024-03-01 03:10:00');
  assert.equal(typedTime('', now), '');
  for (const wrong of ['soon', '25:00', '7', '2024-13-01', '-2h']) {
    assert.equal(typedTime(wrong, now), null, wrong);
  }
});

test('ages', () => {
  const at = (seconds) => age(new Date(1e12).toISOString(), 1e12 + 1000 * seconds);
  assert.deepEqual([0, 59, 60, 3600, 172800].map(at), ['0 s', '59 s', '1 min', '1 h', '2 d']);
  assert.equal(at(-5), '0 s');
  assert.equal(age(null, 0), '');
});

test('refusals in words', () => {
  assert.equal(refusalNumber('006 - Console is locked exclusively.'), 6);
  assert.equal(refusalNumber('hello'), null);
  assert.equal(refusalInWords(12, '012 - Console is disabled.'),
    '012 - Console is disabled. Enable it, and the daemon connects to it.');
  assert.equal(refusalInWords(99, '099 - New.'), '099 - New.');
  assert.deepEqual([6, 7, 12, null].map(canTakeOver), [true, true, false, false]);
});

test('frames of output', () => {
  const one = parseOutput(frame(1, `${kStation}:1:64`, 'hi'));
  assert.deepEqual([one.kind, one.position, Buffer.from(one.bytes).toString()],
    [1, `${kStation}:1:64`, 'hi']);
  for (const wrong of [[], [1], [9, 0, 0, 0, 0, 0, 0, 0, 0, 0, 65], [1, 255, 65],
    [1, 0, 0, 0, 0, 0, 0, 0, 0, 0]]) {
    assert.equal(parseOutput(Uint8Array.from(wrong).buffer), null, String(wrong));
  }
  for (const wrong of ['', '{', 'null', '[]', '{"what":1}']) {
    assert.equal(parseMessage(wrong), null, wrong);
  }
  assert.equal(parseMessage('{"what":"live"}').what, 'live');
});

test('a stream goes on behind what was shown', () => {
  const place = new Place();
  assert.equal(place.query(), null);
  place.shown(parseOutput(frame(2, `${kStation}:1:64`, 'past')));
  assert.deepEqual(place.query(), { from: `${kStation}:1:64` });
  place.attached(`${kStation}:1:500`);
  place.shown(parseOutput(frame(3, '', 'typed')));
  place.shown(parseOutput(frame(3, '', 'more')));
  assert.deepEqual(place.query(), { from: `${kStation}:1:500`, skip: '9' });
  place.missed(`${kStation}:2:64`);
  assert.deepEqual(place.query(), { from: `${kStation}:2:64` });
});

test('positions are compared as numbers', () => {
  assert.ok(isBehind(`${kStation}:10:5`, `${kStation}:9:99999999999999999999`));
  assert.ok(isBehind(`${kStation}:1:100`, `${kStation}:1:64`));
  assert.ok(!isBehind(`${kStation}:1:64`, `${kStation}:1:64`));
  assert.ok(isBehind('fedcba9876543210:1:1', `${kStation}:5:5`));
});

test('addresses say which view it is', () => {
  const text = routeText('history', ['a/b c'], { since: '2h', grep: '' });
  assert.equal(text, '#/history/a%2Fb%20c?since=2h');
  assert.deepEqual(parseRoute(text),
    { view: 'history', names: ['a/b c'], query: { since: '2h' } });
  for (const nothing of ['', '#/', '#/nonsense/x', '#/history', '#/consoles/']) {
    assert.equal(parseRoute(nothing).view, 'list', nothing);
  }
  assert.deepEqual(parseRoute('#/consoles/%').names, ['%']);
});

test('a replay waits as long as it took, but not for nothing', () => {
  assert.equal(pause(1000, 1500, 1, 1000), 500);
  assert.equal(pause(1000, 1500, 2, 1000), 250);
  assert.equal(pause(0, 1e9, 1, 1000), 1000);
  assert.equal(pause(2000, 1000, 1, 1000), 0);
  assert.equal(pause(NaN, 1, 1, 1000), 0);
  assert.deepEqual([otherSpeed(1, 1), otherSpeed(1, -1), otherSpeed(64, 1)], [2, 0.5, 64]);
  assert.equal(exactMillis('1970-01-01T00:00:01.000500000Z'), 1000.5);
});

test('what is empty is not asked', () => {
  assert.equal(queryText({ a: 1, b: '', c: null, d: false, e: true, f: ['x', 'y z'] }),
    '?a=1&e=1&f=x&f=y+z');
  assert.equal(queryText({}), '');
});
