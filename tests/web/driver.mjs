// Drives a browser for the system tests: one command as a line of JSON, one answer. The tests say
// what a person does, since they also play the consoles and the station.
//
// Arguments: the directory of the page's packages, and one for the browser's profile.

import { createRequire } from 'node:module';
import { readFileSync } from 'node:fs';
import { createInterface } from 'node:readline';

const [packages, profile] = process.argv.slice(2);
const require = createRequire(`${packages}/package.json`);
const { default: puppeteer } = await import(require.resolve('puppeteer-core'));

const browser = await puppeteer.launch({
  executablePath: '/usr/bin/chromium',
  headless: true,
  acceptInsecureCerts: true,  // the station's certificate signs itself
  userDataDir: profile,
  args: ['--no-sandbox', '--disable-gpu', '--disable-quic', '--no-first-run',
    '--disable-background-networking', '--disable-component-update', '--disable-sync',
    '--disable-dev-shm-usage', '--no-proxy-server'],
});
const [page] = await browser.pages();
await page.setViewport({ width: 1600, height: 900 });
const axe = readFileSync(require.resolve('axe-core'), 'utf8');
const findings = [];  // what must not happen in any test
let origin = null;

page.on('pageerror', (error) => findings.push(`error: ${error.message}`));
page.on('console', (message) => {
  if (/Content Security Policy|Trusted/i.test(message.text())) findings.push(message.text());
});
page.on('request', (request) => {
  const asked = new URL(request.url());
  if (asked.protocol !== 'data:' && origin !== null && asked.host !== origin) {
    findings.push(`request to ${request.url()}`);
  }
});

/** Keys as "Control+]", or a name of one key. */
async function press(keys) {
  const parts = keys.length > 1 ? keys.split('+') : [keys];
  const last = parts.pop();
  for (const part of parts) await page.keyboard.down(part);
  await page.keyboard.press(last);
  for (const part of parts.reverse()) await page.keyboard.up(part);
}

const commands = {
  async open({ address, guarded }) {
    origin = guarded ? new URL(address).host : null;
    await page.goto(address);
  },
  go: ({ hash }) => page.evaluate((to) => { location.hash = to; }, hash),
  press: ({ keys }) => press(keys),
  type: ({ text }) => page.keyboard.type(text),
  click: async ({ selector }) => {
    await page.waitForSelector(selector, { visible: true });
    await page.click(selector);
  },
  clickText: ({ selector, text }) => page.evaluate((where, label) => {
    const all = [...document.querySelectorAll(where)];
    const found = all.find((one) => one.textContent.trim() === label && one.offsetParent !== null);
    if (found === undefined) throw new Error(`no ${where} says "${label}"`);
    found.click();
  }, selector, text),
  tap: async ({ selector }) => {
    await page.waitForSelector(selector, { visible: true });
    await page.tap(selector);
  },
  select: async ({ selector, value }) => void await page.select(selector, value),
  // The text of all such elements that can be seen, a line for each.
  text: ({ selector }) => page.evaluate((where) =>
    [...document.querySelectorAll(where)].filter((one) => one.getClientRects().length > 0)
      .map((one) => one.innerText).join('\n').replaceAll('\u00a0', ' '), selector),
  count: ({ selector }) => page.evaluate((where) =>
    document.querySelectorAll(where).length, selector),
  evaluate: ({ script }) => page.evaluate(script),
  viewport: ({ width, height, mobile }) =>
    page.setViewport({ width, height, isMobile: mobile, hasTouch: mobile }),
  dark: ({ on }) => page.emulateMediaFeatures([
    { name: 'prefers-color-scheme', value: on ? 'dark' : 'light' }]),
  screenshot: ({ path }) => page.screenshot({ path, optimizeForSpeed: false }),
  // What keeps a person with a screen reader, or with weak eyes, from using what is shown.
  axe: async () => {
    await page.evaluate(axe);
    return page.evaluate(async () => (await window.axe.run()).violations.flatMap((one) =>
      one.nodes.map((node) => `${one.id}: ${node.target.join(' ')}: ${node.failureSummary}`)));
  },
  findings: () => findings,
};

for await (const line of createInterface({ input: process.stdin })) {
  const { what, ...values } = JSON.parse(line);
  let answer;
  try {
    answer = { value: (await commands[what](values)) ?? null };
  } catch (error) {
    answer = { error: String(error.message) };
  }
  process.stdout.write(`${JSON.stringify(answer)}\n`);
}
await browser.close();
