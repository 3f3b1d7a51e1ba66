// What the walks share: a browser, the two appliances, and how a user does things on a page.
import assert from 'node:assert/strict'
import { execFileSync } from 'node:child_process'
import { readFileSync } from 'node:fs'
import axe from 'axe-core'
import { chromium } from 'playwright-core'

export const NEAR = 'https://192.168.77.1'
export const FAR = 'https://192.168.77.2'
export const DESK = process.env.DESK
const PATIENCE = 90_000 // milliseconds; a tunnel takes its time, and the machine may be busy
export const SPEAKING = { timeout: PATIENCE }
const FLAGS = [
  '--no-sandbox',
  '--disable-gpu',
  '--disable-quic',
  '--no-first-run',
  '--disable-background-networking',
  '--disable-component-update',
  '--disable-sync',
]

export const text = path => readFileSync(path, 'utf8').trim()
export const run = (...words) => execFileSync(words[0], words.slice(1), { encoding: 'utf8' })

let browser
const trouble = [] // what the browser complains of on any page

// The browser is on an appliance itself: a tunnel that comes up changes the network of the browser, which then ends
// connections of HTTP/2 with all that is on its way. So only a walk without tunnels speaks that.
export async function start({ http2 = false } = {}) {
  const args = http2 ? FLAGS : [...FLAGS, '--disable-http2']
  browser = await chromium.launch({ executablePath: '/usr/bin/chromium', args })
}
export async function end() {
  await browser?.close()
  assert.deepEqual(trouble, [])
}

export async function open(address, options = {}) {
  const context = await browser.newContext({
    ignoreHTTPSErrors: true,
    viewport: { width: 1280, height: 860 },
    locale: 'en',
    ...options,
  })
  context.setDefaultTimeout(PATIENCE)
  const page = await context.newPage()
  page.on('pageerror', error => trouble.push(`${address}: ${error.message}`))
  page.on(
    'console',
    line =>
      line.type() === 'error' &&
      !line.text().includes('Failed to load resource') &&
      trouble.push(line.text()),
  )
  page.on('dialog', dialog => trouble.push(`a script ran: ${dialog.message()}`))
  await page.goto(`${address}/`)
  return page
}

export async function logIn(page, user, password) {
  await page.getByLabel('User').fill(user)
  await page.getByLabel('Password').fill(password)
  await page.getByRole('button', { name: 'Log in' }).click()
}
// A page of its own with an administrator logged in.
export async function administrator(options = {}) {
  const page = await open(NEAR, options)
  await logIn(page, 'admin', text(`${DESK}/appliance`))
  await page.getByRole('heading', { level: 1, name: 'Overview' }).waitFor()
  return page
}

export async function go(page, path, heading) {
  await page.goto(`${new URL(page.url()).origin}/#/${path}`)
  await page.getByRole('heading', { level: 1, name: heading }).waitFor()
}
export const said = (page, words) => page.locator('.said').getByText(words).waitFor()
export const card = (page, name) => page.getByRole('region', { name, exact: true })
export const button = (place, name) => place.getByRole('button', { name })
export const focused = (what, why) =>
  until(() => what.evaluate(one => one === document.activeElement), `${why} has the focus`, 2000)
export const badge = (place, words) =>
  place.locator('.badge', { hasText: words }).first().waitFor(SPEAKING)

// Files let fall somewhere on the page, as a mouse brings them.
export async function dropFiles(page, paths, x, y) {
  const devtools = await page.context().newCDPSession(page)
  const data = { items: [], files: paths, dragOperationsMask: 1 }
  for (const type of ['dragEnter', 'dragOver', 'drop'])
    await devtools.send('Input.dispatchDragEvent', { type, x, y, data })
  await devtools.detach()
}

// What axe finds, of any severity, in both themes. The policy of the page lets no script in, so the check runs in a
// world of its own.
export async function accessible(page, where) {
  const dark = await page.evaluate(() => matchMedia('(prefers-color-scheme: dark)').matches)
  const devtools = await page.context().newCDPSession(page)
  for (const colorScheme of dark ? ['light', 'dark'] : ['dark', 'light']) {
    await page.emulateMedia({ colorScheme })
    await page.waitForTimeout(300)
    const { frameTree } = await devtools.send('Page.getFrameTree')
    const { executionContextId } = await devtools.send('Page.createIsolatedWorld', {
      frameId: frameTree.frame.id,
    })
    const { result } = await devtools.send('Runtime.evaluate', {
      contextId: executionContextId,
      awaitPromise: true,
      expression: `${axe.source};axe.run().then((found) => JSON.stringify(found.violations
        .map((one) => [one.id, one.nodes.map((node) => node.html.slice(0, 200))])))`,
    })
    assert.equal(result.value, '[]', `${where}, ${colorScheme}`)
  }
  await devtools.detach()
}

export async function picture(page, name) {
  if (!process.env.PICTURES) return
  await page.waitForTimeout(400)
  await page.screenshot({ path: new URL(`../../doc/web-${name}.png`, import.meta.url).pathname })
}

export async function until(holds, why, patience = PATIENCE) {
  const end = Date.now() + patience
  while (!(await holds())) {
    assert.ok(Date.now() < end, why)
    await new Promise(wake => setTimeout(wake, 50))
  }
}

// Shows that something is on its way; a connection that is counted is no work of the page.
export const waiting = page => page.locator('main .spinner[role=status]')
export async function settled(page, where) {
  const there = page.locator('main .card, main .scroller')
  await until(
    async () => (await waiting(page).count()) === 0 && (await there.count()) > 0,
    `${where} is drawn`,
  )
}
export async function noWiderThanTheScreen(page, where) {
  const wider = await page.evaluate(
    () => document.documentElement.scrollWidth - document.documentElement.clientWidth,
  )
  assert.equal(wider, 0, `${where} is no wider than the screen`)
}

const hashes = links => links.evaluateAll(all => all.map(one => one.getAttribute('href')))
async function visit(page, hash) {
  await page.goto(`${new URL(page.url()).origin}/${hash}`)
  await page.getByRole('heading', { level: 1 }).waitFor()
}
// Each page and each tab that there is: `arrive` sees a page as it opens, `look` all of them once they are drawn, `click`
// changes to a tab.
export async function everywhere(page, { look, arrive, click = tab => tab.click() }) {
  for (const hash of await hashes(page.locator('#nav a'))) {
    await visit(page, hash)
    await arrive?.(page, hash)
    await settled(page, hash)
    const parts = await hashes(page.locator('main .subnav a'))
    for (const part of parts.length > 0 ? parts : [hash]) {
      await visit(page, part)
      await settled(page, part)
      for (const more of await page.locator('main summary').all()) await more.click()
      await look(page, part)
      const tabs = page.locator('main .tabs button')
      for (let at = 0; at < (await tabs.count()); ++at) {
        const name = `${part} ${await tabs.nth(at).innerText()}`
        if ((await tabs.nth(at).getAttribute('aria-pressed')) === 'true') continue
        await click(tabs.nth(at), name)
        await settled(page, name)
        await look(page, name)
      }
    }
  }
}
