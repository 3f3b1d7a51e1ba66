// The same pages for people and hosts that are not like most: on a telephone, by keyboard alone, with few colours, with
// much of everything, with slow answers. On the two appliances as walk.mjs has left them.
import assert from 'node:assert/strict'
import { after, before, test } from 'node:test'
import {
  DESK,
  NEAR,
  SPEAKING,
  accessible,
  administrator,
  button,
  end,
  everywhere,
  focused,
  go,
  noWiderThanTheScreen,
  open,
  picture,
  run,
  settled,
  start,
  text,
  until,
  waiting,
} from './browser.mjs'

before(() => start({ http2: true }))
after(end)

test('each page and tab works on a telephone, in the dark and in German', async () => {
  const small = await open(NEAR, {
    viewport: { width: 390, height: 844 },
    colorScheme: 'dark',
    locale: 'de-DE',
  })
  await small.keyboard.press('Tab')
  await small.getByLabel('Benutzer').focus()
  await small.keyboard.type('admin')
  await small.keyboard.press('Tab')
  await small.keyboard.type(text(`${DESK}/appliance`))
  await small.keyboard.press('Enter')
  await small.getByRole('heading', { level: 1, name: 'Übersicht' }).waitFor()
  await small.getByRole('link', { name: 'OpenVPN' }).waitFor()
  await accessible(small, 'small and dark')
  await picture(small, 'telephone')
  await everywhere(small, {
    look: async (page, where) => {
      await noWiderThanTheScreen(page, where)
      await accessible(page, `small and dark: ${where}`)
    },
  })
  await small.getByRole('button', { name: 'Menü' }).click()
  await small.getByRole('link', { name: 'VPN-Clients' }).click()
  await small.getByRole('heading', { level: 1, name: 'VPN-Clients' }).waitFor()
  await small.getByRole('button', { name: 'admin', exact: true }).click()
  await accessible(small, 'small and dark: account')
  await small.getByRole('button', { name: 'Hell' }).click()
  assert.equal(await small.evaluate(() => document.documentElement.dataset.theme), 'light')
  await accessible(small, 'small and light: account')
  await small.getByLabel('Sprache').selectOption('fr')
  await small.getByRole('heading', { level: 1, name: 'Clients VPN' }).waitFor()
  await small.keyboard.press('Escape')
  await focused(
    small.getByRole('button', { name: 'admin', exact: true }),
    'what opened the account',
  )
  await small.getByRole('button', { name: 'admin', exact: true }).click()
  await small.getByRole('button', { name: 'Se déconnecter' }).click()
  await small.getByLabel('Utilisateur').waitFor()
  await small.context().close()
})

// An office with much of everything, as answers in the place of the appliance's.
const HUGE = {
  'config/show': () => [
    {
      type: 32,
      enable: true,
      server_pub_key: 'x',
      server_ip: '198.18.0.1',
      server_mask: 16,
      port: 51820,
      peers: Array.from({ length: 200 }, (_, at) => ({
        index: at + 1,
        peer_name: `device%20${at + 1}`,
        peer_pub_key: `key ${at}`,
        peer_allow_ip: `198.18.0.${at + 2}/32`,
        psk: '',
        peer_endpoint: '',
        keepalive: '25',
        latest_handshake: at < 3 ? 'Now' : '',
        rx_total: '',
        tx_total: '',
      })),
    },
    ...Array.from({ length: 160 }, (_, at) => ({
      type: 1024,
      index: at + 1,
      profile: `tunnel ${at + 1}`,
      status: at === 83 ? 1 : 0,
      enable: true,
      last_error: 0,
      server_ip: '192.0.2.1',
      local_ip: '',
      uptime: 60,
      rx_total: 5,
      tx_total: 5,
      rx_rate: 0,
      tx_rate: 0,
      vendor: 'x',
    })),
  ],
  'status/list': () => [],
  'user/query': () => Array.from({ length: 1000 }, (_, at) => `user${at + 1}`),
  'privilege/get': () => ({ user7: 4 }),
}
async function huge(page) {
  for (const [route, answer] of Object.entries(HUGE))
    await page.route(`**/ormel/${route}`, async one => {
      const mask = Number(new URLSearchParams(one.request().postData()).get('type')) // of those records that have a type
      const more = answer()
      if (route !== 'config/show')
        return one.fulfill({ json: { error: 0, data: more, total: more.length } })
      const { data: stored } = await (await one.fetch()).json()
      const others = (stored ?? []).filter(record => record.type < 32) // servers but that of WireGuard
      return one.fulfill({
        json: { error: 0, data: [...others, ...more.filter(record => record.type & mask)] },
      })
    })
}

test('one thing is found among many, on a telephone as well', async () => {
  const page = await administrator({ viewport: { width: 390, height: 844 } })
  await huge(page)
  await go(page, 'clients', 'VPN clients')
  await button(page, 'All').getByText('160').waitFor()
  await page.getByText('160 entries').waitFor()
  await button(page, 'Connected').first().click()
  await page.getByRole('row', { name: /tunnel 84/ }).waitFor()
  await page.getByText('1 entry').waitFor()
  assert.match(page.url(), /show=up/)
  await page.reload()
  await huge(page)
  await page.getByRole('row', { name: /tunnel 84/ }).waitFor()
  const action = button(page.getByRole('row', { name: /tunnel 84/ }), 'Disconnect tunnel 84')
  const { x, width } = await action.boundingBox()
  assert.ok(x >= 0 && x + width <= 390, 'the action is in sight')
  await button(page, 'All').click()
  await page.getByRole('spinbutton', { name: 'Page' }).fill('11')
  await page.keyboard.press('Enter')
  await page.getByRole('row', { name: /tunnel 160/ }).waitFor()
  await accessible(page, 'many tunnels')
  await go(page, 'servers/wg', 'VPN servers')
  await button(page, 'Never seen').getByText('197').waitFor()
  await page.getByRole('searchbox').fill('198.18.0.118')
  await page.getByRole('row', { name: /device 117/ }).waitFor()
  await page.getByText('1 entry').waitFor()
  await go(page, 'rights', 'Rights')
  await page.getByText('1,000 entries').waitFor()
  await button(page, 'With a right').click()
  await page.getByRole('row', { name: /user7/ }).waitFor()
  await page.getByText('1 entry').waitFor()
  await go(page, 'overview', 'Overview')
  await page.getByRole('link', { name: '152 more' }).waitFor()
  await page.setViewportSize({ width: 320, height: 700 })
  for (const [path, heading] of [
    ['overview', 'Overview'],
    ['clients', 'VPN clients'],
    ['rights', 'Rights'],
    ['servers/wg', 'VPN servers'],
  ]) {
    await go(page, path, heading)
    await page.locator('.card, .scroller').first().waitFor()
    await noWiderThanTheScreen(page, path)
  }
  await page.context().close()
})

test('each page and tab works with much of everything', async () => {
  const page = await administrator()
  await huge(page)
  await page.reload()
  await everywhere(page, { look: accessible })
  await page.context().close()
})

test('with few colours of the system, what is on can be recognised on each page', async () => {
  const page = await administrator({ forcedColors: 'active' })
  const looks = what =>
    what.evaluate(one => [
      getComputedStyle(one).borderTopWidth,
      getComputedStyle(one).backgroundColor,
    ])
  await go(page, 'servers/ovpn', 'VPN servers')
  const [border, on] = await looks(page.getByLabel('Server is on'))
  assert.equal(border, '1px')
  await page.getByLabel('Server is on').click()
  assert.notEqual((await looks(page.getByLabel('Server is on')))[1], on)
  await page.getByLabel('Server is on').click()
  // Of tabs, filters and links: those that are chosen and look like one that is not. Of badges: those without an edge.
  const alike = () => {
    const look = one => {
      const style = getComputedStyle(one)
      return [style.backgroundColor, style.borderTopColor, style.borderTopWidth].join()
    }
    const chosen = one =>
      one.getAttribute('aria-pressed') === 'true' || one.hasAttribute('aria-current')
    const groups = [...document.querySelectorAll('.tabs, .chips, .legend, #nav, .subnav')]
    const pairs = groups.flatMap(group => {
      const all = [...group.querySelectorAll('a, button')]
      return all.filter(
        one => chosen(one) && all.some(two => !chosen(two) && look(one) === look(two)),
      )
    })
    const flat = [...document.querySelectorAll('.badge, .notice')].filter(
      one => getComputedStyle(one).borderTopWidth === '0px',
    )
    return [...pairs, ...flat].map(one => one.outerHTML.slice(0, 100))
  }
  await everywhere(page, {
    look: async (_, where) => assert.deepEqual(await page.evaluate(alike), [], where),
  })
  await page.context().close()
})

// Tab is pressed until `what` has the focus.
async function tabTo(page, what, most = 150) {
  for (let presses = 0; presses < most; ++presses) {
    if (await what.evaluate(one => one === document.activeElement)) return
    await page.keyboard.press('Tab')
  }
  assert.fail(`Tab does not lead to ${what}`)
}
async function press(page, what, key = 'Enter') {
  await tabTo(page, what)
  await page.keyboard.press(key)
}

// What has the focus: "" where it is seen and has a ring, else what is wrong with it; null once it has been here before.
const judge = () => {
  const one = document.activeElement
  if (!one || one === document.body || one.hasAttribute('data-walked')) return null
  one.setAttribute('data-walked', '')
  const shown = one.closest('label.button') ?? one // the field of a file has its button's place
  const { left, right, top, bottom } = shown.getBoundingClientRect()
  const style = getComputedStyle(shown)
  const at = document.elementFromPoint(
    (left + right) / 2,
    Math.min((top + bottom) / 2, innerHeight - 2),
  )
  const name = shown.outerHTML.slice(0, 120)
  if (bottom <= 0 || top >= innerHeight || right <= 0 || left >= innerWidth)
    return `outside: ${name}`
  if (!at || !(shown.contains(at) || at.contains(shown))) return `covered: ${name}`
  return style.outlineStyle === 'none' || style.outlineWidth === '0px' ? `no ring: ${name}` : ''
}
const missed = () => {
  const ALL =
    'a[href], button:not(:disabled), input:not(:disabled):not([type=radio]), select:not(:disabled), textarea, summary'
  return [...document.querySelectorAll(`main :is(${ALL})`)]
    .filter(one => one.checkVisibility() && !one.hasAttribute('data-walked'))
    .map(one => one.outerHTML.slice(0, 120))
}

test('each page is used by keyboard alone', async () => {
  const page = await open(NEAR)
  assert.equal(
    await page.evaluate(() => performance.getEntriesByType('navigation')[0].nextHopProtocol),
    'h2',
  )
  await focused(page.getByLabel('User'), 'where one begins')
  await page.keyboard.type('admin')
  await page.keyboard.press('Tab')
  await page.keyboard.type(text(`${DESK}/appliance`))
  await page.keyboard.press('Enter')
  const heading = page.getByRole('heading', { level: 1 })
  await heading.waitFor()
  await focused(heading, 'a page that has just opened')
  const links = page.locator('#nav a')
  for (let at = 0; at < (await links.count()); ++at) {
    const name = await links.nth(at).innerText()
    await press(page, links.nth(at))
    await page.getByRole('heading', { level: 1, name }).waitFor()
    await settled(page, name)
    if (at > 0) await focused(heading, `the page ${name}`)
    await heading.focus()
    for (let verdict = ''; verdict !== null; verdict = await page.evaluate(judge)) {
      assert.equal(verdict, '', name)
      await page.keyboard.press('Tab')
    }
    // A long list polls meanwhile: what has come since is not counted.
    const rest = await page.evaluate(missed)
    assert.deepEqual(rest, [], name)
  }
  await page.context().close()
})

test('a tunnel and a device are added, changed and removed by keyboard alone', async () => {
  const page = await administrator()
  const dialog = page.getByRole('dialog')
  await press(page, page.locator('#nav').getByRole('link', { name: 'VPN clients' }))
  await press(page, button(page, 'Add a tunnel'))
  await focused(dialog.locator('.choice').first(), 'the first choice')
  await press(page, button(dialog, 'PPTP'))
  await focused(dialog.getByLabel('Name', { exact: true }), 'the first field')
  await page.keyboard.type('by hand')
  for (const [label, value] of [
    ['Server', '192.0.2.9'],
    ['User', 'bob'],
    ['Password', 'secret'],
  ]) {
    await tabTo(page, dialog.getByLabel(label, { exact: true }))
    await page.keyboard.type(value)
  }
  await page.keyboard.press('Enter')
  await dialog.waitFor({ state: 'detached', ...SPEAKING })
  await focused(button(page, 'Add a tunnel'), 'what had it before')
  const remove = button(page, 'Remove by hand')
  await remove.waitFor()
  await press(page, remove)
  await focused(button(dialog, 'Cancel'), 'what does no harm')
  await page.keyboard.press('Escape')
  await focused(remove, 'what had it before')
  await page.keyboard.press('Enter')
  await press(page, button(dialog, 'Remove'))
  await remove.waitFor({ state: 'detached', ...SPEAKING })
  assert.notEqual(await page.evaluate(() => document.activeElement?.tagName), 'BODY')

  await press(page, page.locator('#nav').getByRole('link', { name: 'VPN servers' }))
  await press(page, page.locator('.subnav').getByRole('link', { name: /WireGuard/ }))
  await press(page, button(page, 'Add a device'))
  await focused(dialog.getByLabel('Name', { exact: true }), 'the first field')
  await page.keyboard.type('by hand')
  await page.keyboard.press('Enter')
  await page.getByRole('img', { name: 'QR code of the configuration' }).waitFor()
  await press(page, button(dialog, 'Done'))
  await focused(button(page, 'Add a device'), 'what had it before')
  await press(page, button(page, 'Remove by hand'))
  await press(page, button(dialog, 'Remove'))
  await button(page, 'Remove by hand').waitFor({ state: 'detached', ...SPEAKING })
  assert.notEqual(await page.evaluate(() => document.activeElement?.tagName), 'BODY')

  await page.keyboard.press('Control+Home')
  await press(page, button(page.getByRole('banner'), 'admin'))
  await press(page, button(page, 'Log out'))
  await page.getByLabel('User').waitFor()
  await focused(page.getByLabel('User'), 'where one begins')
  await page.context().close()
})

test('with answers that take two seconds, each page says that it waits, and shows no rows of another tab', async () => {
  const page = await administrator()
  await page.route('**/ormel/**', async route => {
    await new Promise(wake => setTimeout(wake, 2000))
    await route.continue().catch(() => undefined) // of a page that has been left
  })
  const rows = () => page.locator('main tbody tr').allInnerTexts()
  const waits = where =>
    until(async () => (await waiting(page).count()) > 0, `${where} says that it waits`, 1000)
  await everywhere(page, {
    // The overview is there already, and the page of backups asks for nothing.
    arrive: async (_, where) => !/^#\/(overview|backup)$/.test(where) && waits(where),
    look: async (_, where) =>
      assert.equal(await page.locator('main [role=alert]').count(), 0, where),
    click: async (tab, name) => {
      const before = await rows()
      const data = new Promise(asked => page.once('request', asked))
      await tab.click()
      assert.equal(await tab.getAttribute('aria-pressed'), 'true', name)
      if (!/^#\/(logs|rights)/.test(name)) return
      await data
      await waits(name)
      const now = await rows()
      assert.ok(
        before.length === 0 || !now.some(row => before.includes(row)),
        `${name} has rows of its own`,
      )
    },
  })
  await page.context().close()
})

test('settings that cannot be read are no settings that are off', async () => {
  const page = await administrator()
  const file = '/etc/config/vpn.conf'
  const notice = page.getByRole('alert').filter({ hasText: `${file} is a folder.` })
  const tile = page.locator('.tile', { hasText: 'Servers on' })
  // A folder, which a program that stores something in the file meanwhile cannot replace.
  run('sh', '-c', `mv ${file} ${file}.aside && mkdir ${file}`)
  try {
    await notice.waitFor()
    assert.match(await tile.innerText(), /\u2013/)
    await accessible(page, 'damaged settings')
    for (const [path, heading] of [
      ['servers', 'VPN servers'],
      ['clients', 'VPN clients'],
    ]) {
      await go(page, path, heading)
      await notice.waitFor()
    }
    await notice.getByRole('link', { name: 'Restore a backup' }).click()
    await page.getByRole('heading', { level: 1, name: 'Backup' }).waitFor()
  } finally {
    run('sh', '-c', `rmdir ${file} && mv ${file}.aside ${file}`)
  }
  await go(page, 'overview', 'Overview')
  await tile.getByText('/').waitFor()
  assert.equal(await notice.count(), 0)
  await page.context().close()
})
