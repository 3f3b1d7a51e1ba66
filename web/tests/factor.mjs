// A general user sets up a second factor, logs in with it and switches it off; then root requires one.
import assert from 'node:assert/strict'
import { createHmac } from 'node:crypto'
import { after, before, test } from 'node:test'
import jsQR from 'jsqr'
import { PNG } from 'pngjs'
import { NEAR, card, end, logIn, open, run, said, start, text } from './browser.mjs'

const PASSWORD = text('/var/lib/appliance/password.guest')
const STEP = 30_000

// RFC 6238, independent of the appliance's code.
function codeOf(secret) {
  const bits = [...secret]
    .map(c => 'ABCDEFGHIJKLMNOPQRSTUVWXYZ234567'.indexOf(c).toString(2).padStart(5, '0'))
    .join('')
  const key = Buffer.from(bits.match(/.{8}/g).map(byte => Number.parseInt(byte, 2)))
  const counter = Buffer.alloc(8)
  counter.writeBigUInt64BE(BigInt(Math.floor(Date.now() / STEP)))
  const digest = createHmac('sha1', key).update(counter).digest()
  const value = digest.readUInt32BE(digest[19] & 15) & 0x7fffffff
  return String(value % 1_000_000).padStart(6, '0')
}
const nextStep = () => new Promise(go => setTimeout(go, STEP - (Date.now() % STEP) + 100))

async function secretOnPage(page) {
  const { width, height, data } = PNG.sync.read(await page.locator('svg.qr').screenshot())
  const uri = new URL(jsQR(new Uint8ClampedArray(data), width, height).data)
  return uri.searchParams.get('secret')
}

// To the recovery codes, with the password where it is asked for.
async function setUp(page, password = '') {
  if (password) await card(page, 'Second factor').getByLabel('Your password').fill(password)
  await page.getByRole('button', { name: 'Set up a second factor' }).click()
  const secret = await secretOnPage(page)
  const typed = await page.getByLabel('The secret', { exact: true }).textContent()
  assert.equal(typed.replaceAll(' ', '').trim(), secret)
  await page.getByLabel('Code', { exact: true }).fill(codeOf(secret))
  await page.getByRole('button', { name: 'Confirm' }).click()
  const codes = (await page.locator('pre.codes').textContent()).trim().split('\n')
  assert.equal(codes.length, 8)
  return { secret, codes }
}

async function close(page) {
  await page.getByRole('button', { name: 'Done' }).click()
  await page.getByRole('button', { name: 'Close without it' }).click()
}

before(() => start())
after(end)

test('a user sets up a second factor and logs in with it', async () => {
  const page = await open(NEAR)
  await logIn(page, 'guest', PASSWORD)
  await card(page, 'Second factor').waitFor()
  const factor = card(page, 'Second factor')
  await factor.getByLabel('Your password').fill('wrong')
  await page.getByRole('button', { name: 'Set up a second factor' }).click()
  await factor.getByText('The password is wrong.').waitFor()
  const { secret, codes } = await setUp(page, PASSWORD)
  await close(page)
  await card(page, 'Second factor').getByText('The second factor is on.').waitFor()

  const again = await open(NEAR)
  await logIn(again, 'guest', PASSWORD)
  await again.getByText('User, password or code is wrong.').waitFor()
  await nextStep()
  await again.getByLabel('Second factor code').fill(codeOf(secret))
  await logIn(again, 'guest', PASSWORD)
  await again.getByRole('heading', { level: 1, name: 'My access' }).waitFor()

  const off = card(page, 'Second factor')
  await off.getByLabel('Your password').fill(PASSWORD)
  await off.getByLabel('Code').fill(codes[0].toLowerCase())
  await off.getByRole('button', { name: 'Switch off' }).click()
  await said(page, 'The second factor is off.')
  await off.getByRole('button', { name: 'Set up a second factor' }).waitFor()
})

test('a user who must have one sees only its set-up', async () => {
  run('/usr/sbin/ormelctl', 'user', 'totp', 'guest', 'require')
  const page = await open(NEAR)
  await logIn(page, 'guest', PASSWORD)
  await page.getByRole('heading', { level: 1, name: 'Second factor' }).waitFor()
  assert.equal(await page.getByRole('navigation').count(), 0)
  const { codes } = await setUp(page)
  await close(page)
  await page.getByRole('heading', { level: 1, name: 'My access' }).waitFor()
  const off = card(page, 'Second factor')
  await off.getByLabel('Your password').fill(PASSWORD)
  await off.getByLabel('Code').fill(codes[7])
  await off.getByRole('button', { name: 'Switch off' }).click()
  await page.getByRole('heading', { level: 1, name: 'Second factor' }).waitFor()
  run('/usr/sbin/ormelctl', 'user', 'totp', 'guest', 'optional')
})
