import { readFileSync, readdirSync } from 'node:fs'
import { describe, expect, it } from 'vitest'
import { ApiError } from '../src/api'
import { ending, type Certificate } from '../src/certificates'
import { mistakes } from '../src/form'
import {
  ago,
  base64,
  bits,
  bytes,
  bytesOf,
  clock,
  date,
  dayOf,
  decodeName,
  duration,
  logMoment,
} from '../src/format'
import {
  handshakeAge,
  isLive,
  liveCount,
  shownLines,
  type Connection,
  type Live,
  type Peer,
  type Profile,
  type Report,
} from '../src/model'
import { match, references } from '../src/ovpn'
import { changeRows, passphrase, whyNot, type Changes } from '../src/pages/backup'
import { clientRows, newValues, wire } from '../src/pages/clients.rows'
import { leastMinutes, minutesFit, rowOf } from '../src/pages/connections'
import { culprit, type Step } from '../src/pages/doctor'
import { gatewayForm } from '../src/pages/gateway'
import { isRefusal, secondsLeft } from '../src/goback'
import { bandOf, guardForm, stoppedBy, type Guard } from '../src/pages/guard'
import { daysLeft, tokenName } from '../src/token'
import { eventsOf, unseen, type Report as Event } from '../src/pages/notify'
import { dayEnd, endWords, firstEnd } from '../src/pages/grant'
import { isKeptOut, mayAdd, untilWords, type Mine } from '../src/pages/my'
import { thrownOut } from '../src/pages/rights'
import { loginResult } from '../src/pages/sdwan'
import { grouped, hasNoCode, isCode } from '../src/pages/secondfactor'
import { conflicts } from '../src/pages/servers.rows'
import { address, endpoint, freeAddress, key, page, pool, range } from '../src/rules'
import { clientState, cureOf, isSettled, serverState, whyOf } from '../src/reasons'
import { languages, speak, t, textOr } from '../src/texts'
import { certificateTexts } from '../src/texts/certificates'
import { damagedTexts, td } from '../src/texts/damaged'
import german from '../src/texts/de'
import english from '../src/texts/en'
import { protocolOfInterface, traffic } from '../src/traffic'
import { deviceConfig, fileName, readConfig } from '../src/wireguard'

const KEY = 'MTA8yr4S+RC5OCVDMUxyIXcGVfugiRRtONcRObuQeFM='

describe('a change that goes back', () => {
  it('counts down to nothing, and no further', () => {
    expect([90_000, 60_001, 60_000, 1, 0, -5].map(left => secondsLeft(left, 0))).toEqual([
      90, 61, 60, 1, 0, 0,
    ])
  })
  it('is left to its time when nobody knows whether it was made', () => {
    expect(isRefusal(new ApiError('code', 9, ''))).toBe(true)
    for (const kind of ['network', 'timeout', 'http', 'format'] as const)
      expect(isRefusal(new ApiError(kind, 0, ''))).toBe(false)
  })
})

describe('rules', () => {
  it.each([
    [
      address,
      ['0.0.0.0', '10.8.0.255', '255.255.255.255'],
      ['', '1.2.3', '1.2.3.256', '1.2.3.4.5', '1.2.3.-4', ' 1.2.3.4', 'a.b.c.d'],
    ],
    [
      pool,
      ['10.0.0.0', '172.16.0.0', '172.31.255.0', '192.168.1.0'],
      ['172.15.0.0', '172.32.0.0', '192.169.0.0', '100.64.0.0', 'x'],
    ],
    [range(5, 60), ['5', '60'], ['4', '61', '', '5.5', '0x10', '-6', '1e1']],
    [key, [KEY], ['', KEY.slice(1), `${KEY}=`, KEY.replace('M=', 'N='), KEY.replace('M', '-')]],
    [
      endpoint,
      ['a:1', 'vpn.example.org:65535', '192.0.2.1:51820'],
      ['a', ':1', 'a:', 'a:0', 'a:65536', 'a:b', '[::1]:7'],
    ],
  ])('let in what the appliance takes', (rule, good, bad) => {
    for (const value of good) expect([value, rule(value)]).toEqual([value, null])
    for (const value of bad) expect([value, rule(value)]).not.toEqual([value, null])
  })

  it('judge only the fields that are shown', () => {
    const rows = clientRows(65536, true)
    const values = {
      ...newValues(65536),
      client_name: 'x',
      peer_endpoint: 'h:7',
      peer_pub_key: KEY,
      client_pri_key: KEY,
      client_ip: '10.0.0.2',
      manual_dns: 'none',
    }
    expect(mistakes(rows, values)).toEqual({})
    expect(mistakes(rows, { ...values, enable_dns: true })).toEqual({ manual_dns: 'rule.address' })
    expect(
      mistakes(clientRows(256, true), {
        ...newValues(256),
        name: '🦔'.repeat(150),
        host: 'h',
        user: 'u',
        pass: 'p',
      }),
    ).toEqual({})
    expect(
      mistakes(clientRows(256, true), {
        ...newValues(256),
        name: '🦔'.repeat(151),
        host: 'h',
        user: 'u',
        pass: 'p',
      }),
    ).toEqual({ name: 'rule.long' })
  })

  it('find the lowest free address of a peer', () => {
    expect(freeAddress('198.18.7.1', 24, [])).toBe('198.18.7.2')
    expect(freeAddress('198.18.7.2', 24, ['198.18.7.1/32', '198.18.7.3/32'])).toBe('198.18.7.4')
    expect(freeAddress('10.0.0.1', 30, ['10.0.0.2/32'])).toBe('')
    expect(freeAddress('nowhere', 24, [])).toBe('')
  })

  it.each([
    [0, 0, 20, { current: 0, pages: 1, lower: 0, upper: 19 }],
    [20, 1, 20, { current: 0, pages: 1, lower: 0, upper: 19 }],
    [21, 1, 20, { current: 1, pages: 2, lower: 20, upper: 39 }],
    [21, -1, 20, { current: 0, pages: 2, lower: 0, upper: 19 }],
  ])('page %i rows', (total, at, size, expected) => expect(page(total, at, size)).toEqual(expected))
})

describe('formats', () => {
  it.each([
    [0, '0 B'],
    [1023, '1,023 B'],
    [1024, '1.0 KiB'],
    [1536, '1.5 KiB'],
    [102400, '100 KiB'],
    [1024 ** 5 * 5000, '5,000 PiB'],
    [Number.NaN, '0 B'],
    [-1, '0 B'],
  ])('show %f bytes', (value, text) => expect(bytes(value)).toBe(text))
  it.each([
    [0, '0 sec'],
    [59, '59 sec'],
    [60, '1 min'],
    [3661, '1 hr 1 min'],
    [3605, '1 hr'],
    [90061, '1 day 1 hr'],
    [-5, '0 sec'],
  ])('show %i seconds', (value, text) => expect(duration(value)).toBe(text))
  it('keep names and secrets of any script', () => {
    expect(decodeName('my%20phone')).toBe('my phone')
    expect(decodeName('100%')).toBe('100%')
    expect(base64('pä🦔')).toBe(Buffer.from('pä🦔').toString('base64'))
  })
  it('write times and amounts as the reader does', async () => {
    const noon = new Date(2026, 10, 25, 16, 40, 8)
    expect([ago(43), logMoment('2026-11-25 16:40:08'), logMoment('25/11/2026 16:40')]).toEqual([
      '43 seconds ago',
      `${date(noon)}, ${clock(noon)}`,
      '25/11/2026 16:40',
    ])
    await speak('de')
    expect([duration(3661), bytes(1536), ago(7300)]).toEqual([
      '1 Std., 1 Min.'.replace(',', ''),
      '1,5 KiB',
      'vor 2 Stunden',
    ])
    await speak('fr')
    expect([bytes(1536), ago(60), dayOf('2026-11-01')]).toEqual([
      '1,5 Kio',
      'il y a 1 minute',
      '1 nov. 2026',
    ])
    await speak('en')
    expect([
      bits(125),
      bits(125_000_000),
      bytesOf('71.44 KiB'),
      bytesOf('12 B'),
      bytesOf(''),
    ]).toEqual(['1.0 kbit/s', '1.0 Gbit/s', 73155, 12, 0])
  })
})

describe('texts', () => {
  const FILES = { de: () => import('../src/texts/de'), fr: () => import('../src/texts/fr') }
  it.each(['de', 'fr'] as const)(
    'are all there in %s, with the same values in them',
    async name => {
      const values = (text: string) => [...text.matchAll(/\{\w+\}/g)].map(([one]) => one).sort()
      const other = (await FILES[name]()).default
      expect(Object.keys(other).sort()).toEqual(Object.keys(english).sort())
      for (const [key, text] of Object.entries(english)) {
        const its = other[key as keyof typeof english]
        expect([key, its.trim() !== '', values(its)]).toEqual([key, true, values(text)])
      }
    },
  )
  // Keys that are used by the names of the program: phases, and reasons.
  it.each([
    ['certificates', certificateTexts, ['overlap', 'changing', 'changed']],
    ['damaged', damagedTexts, ['folder', 'no-file', 'unreadable', 'binary', 'no-section']],
  ] as const)('of %s are all there, with the same values in them', (name, all, named) => {
    const values = (text: string) => [...text.matchAll(/\{\w+\}/g)].map(([one]) => one).sort()
    const known = Object.entries(all['en'] ?? {})
    expect(Object.keys(all)).toEqual(languages.map(one => one.id))
    for (const texts of Object.values<Readonly<Record<string, string>>>(all))
      expect(Object.entries(texts).map(([key, text]) => [key, ...values(text)])).toEqual(
        known.map(([key, text]) => [key, ...values(text)]),
      )
    const page = readFileSync(`src/pages/${name}.tsx`, 'utf8')
    const used = (key: string) =>
      page.includes(`'${key}'`) || (named as readonly string[]).includes(key)
    expect(known.filter(([key]) => !used(key))).toEqual([])
  })
  it('have words for each reason why settings cannot be read', () => {
    const source = readFileSync('../src/ormel/config/pool.cpp', 'utf8')
    const codes = [...source.matchAll(/return \{"([a-z-]+)", name \+/g)].map(([, code]) => code)
    expect(codes.length).toBe(5)
    for (const code of codes) expect([code, td(code ?? '')]).not.toContain(undefined)
    expect(td('brand-new')).toBeUndefined()
  })
  it('are all used somewhere', () => {
    const folder = (path: string): string[] =>
      readdirSync(path, { withFileTypes: true }).flatMap(one =>
        one.isDirectory()
          ? one.name === 'texts'
            ? []
            : folder(`${path}/${one.name}`)
          : [readFileSync(`${path}/${one.name}`, 'utf8')],
      )
    const source = folder('src').join('\n')
    const made = [...source.matchAll(/[`](\w+)\.\$\{/g)].map(([, head]) => `${head}.`)
    const unused = Object.keys(english).filter(
      key =>
        !source.includes(`'${key}'`) &&
        !['why.', 'cure.', ...made].some(head => key.startsWith(head)),
    )
    expect(unused).toEqual([])
  })
  it('follow the language', async () => {
    await speak('fr')
    expect([t('page.total', { n: 3 }), textOr('why.brand-new', 'as told')]).toEqual([
      '3 entrées',
      'as told',
    ])
    await speak('en')
  })
})

const server = (type: number, more: object): Profile => ({ type, enable: true, ...more }) as Profile

describe('servers', () => {
  const others = [
    server(1, { ip_pool: '10.0.0.2' }),
    server(16, { ip_pool: '10.6.0.2', port: 443 }),
    server(32, { server_ip: '10.9.1.1', server_mask: 16, port: 51820, enable: false }),
  ]
  it.each([
    [4, { enable: true, ip_pool: '10.8.0.0', port: '1194', proto: 'UDP' }, 0],
    [4, { enable: true, ip_pool: '10.0.0.0', port: '1194', proto: 'UDP' }, 1],
    [4, { enable: false, ip_pool: '10.0.0.0', port: '443', proto: 'UDP' }, 0],
    [4, { enable: true, ip_pool: '10.6.0.0', port: '443', proto: 'UDP' }, 2],
    [4, { enable: true, ip_pool: '10.8.0.0', port: '443', proto: 'TCP' }, 0],
    [4, { enable: true, ip_pool: '10.9.0.0', port: '51820', proto: 'UDP' }, 0], // that one is off
    [32, { enable: true, server_ip: '10.6.9.1', server_mask: '16', port: '443' }, 2],
  ])('of type %i clash in words', (type, values, count) =>
    expect(conflicts(type, values, others)).toHaveLength(count),
  )

  it('count whom a restart drops', () => {
    const connections = [{ type: 4 }, { type: 4 }, { type: 1 }] as Connection[]
    const peers = [
      '',
      'Now',
      '2 minutes, 59 seconds ago',
      '3 minutes ago',
      '1 day, 1 second ago',
    ].map(latest_handshake => ({ latest_handshake }) as Peer)
    expect(liveCount(4, connections, peers)).toBe(2)
    expect(liveCount(32, connections, peers)).toBe(2)
    expect(peers.map(peer => handshakeAge(peer.latest_handshake))).toEqual([
      null,
      0,
      179,
      180,
      86401,
    ])
    expect(isLive({ latest_handshake: '' } as Peer)).toBe(false)
  })
})

describe('traffic', () => {
  it.each([
    ['ppp1000', 'pptp'],
    ['ppp1249', 'pptp'],
    ['ppp1250', 'l2tp'],
    ['tun2001', 'ovpn'],
    ['dtunc2501', 'drovik'],
    ['wgc3001', 'wg'],
    ['wg0', 'wg'],
    ['ppp0', null],
    ['eth0', null],
    ['tun0', null],
  ])('of %s is of %s', (name, id) => expect(protocolOfInterface(name)).toBe(id))
  it('is summed for each way', () => {
    const connections = [
      { type: 4, rx_rate: 1, tx_rate: 2 },
      { type: 2, rx_rate: 4, tx_rate: 0 },
    ] as Connection[]
    const interfaces = [
      { name_interface: 'tun2001', rx_rate: 8, tx_rate: 0 },
      { name_interface: 'eth0', rx_rate: 99, tx_rate: 99 },
    ]
    expect(traffic(connections, interfaces)).toEqual([9, 0, 4, 0, 0, 2, 0, 0, 0, 0])
  })
})

describe('files', () => {
  it('of WireGuard come back as they were written', () => {
    const text = deviceConfig({
      address: '198.18.7.2',
      privateKey: KEY,
      psk: KEY,
      keepalive: 25,
      serverKey: KEY,
      endpoint: 'h:7',
      allowed: '0.0.0.0/0',
      dns: '9.9.9.9',
    })
    expect(readConfig(text)).toEqual({
      client_pri_key: KEY,
      client_ip: '198.18.7.2',
      manual_dns: '9.9.9.9',
      peer_pub_key: KEY,
      psk: KEY,
      peer_allow_ip: '0.0.0.0/0',
      peer_endpoint: 'h:7',
      keepalive: '25',
    })
    const least = deviceConfig({
      address: '1.1.1.1',
      privateKey: '',
      psk: '',
      keepalive: 0,
      serverKey: KEY,
      endpoint: 'h:7',
      allowed: '0.0.0.0/0',
      dns: '',
    })
    expect(least).not.toMatch(/PresharedKey|Keepalive|DNS/)
    expect(least.split('\n\n')).toHaveLength(2)
    expect(readConfig('client\nremote x 1194\n')).toBeNull()
    expect(
      readConfig(
        `[Interface]\nprivatekey=${KEY}\nAddress = fd00::2/64, 10.0.0.2/32\n[Peer]\nPublicKey = ${KEY} # of us`,
      ),
    ).toMatchObject({ client_ip: '10.0.0.2', peer_pub_key: KEY })
    expect([fileName('Ann’s <phone>'), fileName('🦔'), fileName('x'.repeat(40))]).toEqual([
      'Ann-s-phone.conf',
      'wireguard.conf',
      `${'x'.repeat(15)}.conf`,
    ])
  })
  it('of OpenVPN name what belongs to them', () => {
    const text =
      'client\nca ca.crt\ncert "my certs/a b.crt"\nkey C:\\keys\\me.key\ntls-auth ta.key 1\n<crl-verify>\nca inner.crt\n</crl-verify>\ncafe x\n# ca no.crt'
    expect(references(text)).toEqual({
      ca: 'ca.crt',
      cert: 'a b.crt',
      key: 'me.key',
      tls_auth: 'ta.key',
    })
    expect(match('CA.crt', [{ name: 'ca.CRT' } as File])?.name).toBe('ca.CRT')
  })
})

describe('requests', () => {
  it('bring passwords coded, and none that stays', () => {
    expect(wire(256, { name: 'a', user: 'u', pass: 'secret' })).toEqual({
      name: 'a',
      user: 'u',
      pass: 'c2VjcmV0',
    })
    expect(wire(256, { name: 'a', user: '', pass: '' })).toEqual({ name: 'a' })
    expect(wire(65536, { client_name: 'a b' })).toEqual({ client_name: 'a%20b', client_mask: '32' })
  })
  it('tell the gateway as type and index', () => {
    expect(gatewayForm({ as_gw_en: 'false', gw1: '1024-1' })).toEqual({ as_gw_en: '0' })
    expect(gatewayForm({ as_gw_en: 'true', gw1: '1024-1', gw2: '', snat: 'true' })).toEqual({
      as_gw_en: '1',
      gw1_type: '1024',
      gw1_index: '1',
      snat: '1',
      failover_en: '0',
    })
    expect(
      gatewayForm({
        as_gw_en: 'true',
        gw1: '1024-1',
        gw2: '256-2',
        failover_interval: '5',
        snat: 'false',
      }),
    ).toMatchObject({
      gw2_type: '256',
      gw2_index: '2',
      failover_interval: '5',
      failover_en: '1',
      snat: '0',
    })
  })
  it('tell the guard in the words of the program, and its state by a band', () => {
    expect(guardForm({ mode: 'strict', lan: true, dns: true, ipv6: true })).toEqual({
      mode: 'strict',
      lan: '1',
      dns: 'tunnel',
      ipv6: 'block',
    })
    expect(guardForm({ mode: 'on', lan: false, dns: false, ipv6: false })).toEqual({
      mode: 'on',
      lan: '0',
      dns: 'any',
      ipv6: 'pass',
    })
    const guard = (mode: Guard['mode'], state: Guard['state']): Guard => ({
      mode,
      state,
      local_network: '1',
      ipv6: 'block',
      dns: 'tunnel',
    })
    expect(bandOf(guard('on', 'guarding'))).toBeNull()
    expect(bandOf(guard('off', 'unknown'))).toBeNull()
    expect(
      [guard('on', 'holding'), guard('strict', 'failed'), guard('off', 'paused')].map(
        one => bandOf(one)?.[0],
      ),
    ).toEqual(['bad', 'bad', 'warn'])
    expect(stoppedBy({ ...guard('on', 'holding'), stopped: { ipv4: 1, ipv6: 2, dns: 3 } })).toBe(6)
  })
  it('keep a device of WireGuard out for a minute at least', () => {
    const device = rowOf({
      type: 32,
      name: 'phone',
      target: KEY,
      uptime: 4,
      source_ip: '192.0.2.1:7',
      allocate_ip: '10.0.0.2/32',
      device_info: '',
      rx_total: 0,
      tx_total: 0,
      held: 0,
    } satisfies Live)
    expect(device).toMatchObject({ id: `32|${KEY}`, inside: '10.0.0.2', uptime: -4 })
    expect([leastMinutes([{ type: 4 }]), leastMinutes([{ type: 4 }, device])]).toEqual([0, 1])
    expect(['0', '10080', '10081', '', '1.5'].map(text => minutesFit(text, 0))).toEqual([
      true,
      true,
      false,
      false,
      false,
    ])
    expect(minutesFit('0', 1)).toBe(false)
  })
  it('count warnings that nobody has looked at', () => {
    const reports = [
      { at: 9, level: 'error' },
      { at: 8, level: 'information' },
      { at: 7, level: 'warning' },
      { at: 5, level: 'warning' },
    ] as Event[]
    expect([unseen(reports, 5), unseen(reports, 9), unseen(reports, 0)]).toEqual([2, 0, 3])
  })
  it('notify of later kinds as well where all are chosen', () => {
    expect(eventsOf(new Set(['lost', 'back']), ['lost', 'back'])).toBeUndefined()
    expect(eventsOf(new Set(['back', 'gone']), ['lost', 'back'])).toBe('back')
  })
  it('take names of tokens as the program does, and count their days', () => {
    const long = 'a'.repeat(40)
    expect(['', 'a b', 'é', `${long}a`].map(tokenName)).toEqual(Array(4).fill('token.nameWrong'))
    expect([long, 'a._-9'].map(tokenName)).toEqual([null, null])
    expect([0, 1, 86_399, 86_400].map(left => daysLeft(1000 + left, 1000))).toEqual([-1, 0, 0, 1])
  })
  it('name the step that fails', () => {
    const steps = (results: string) =>
      [...results].map(
        (one, at) =>
          ({
            step: String(at),
            result: { o: 'ok', f: 'fail', s: 'skip' }[one],
            text: '',
            cure: '',
          }) as Step,
      )
    expect(culprit(steps('oofss'))?.step).toBe('2')
    expect(culprit(steps('ooss'))).toBeNull()
  })
  it('show what an import does not keep', () => {
    const line = { to: 1, text: 'x', why: '' }
    const report = {
      lines: [
        { ...line, n: 1, fate: 'kept', blank: false },
        { ...line, n: 2, fate: 'dropped', blank: true },
        { ...line, n: 3, fate: 'dropped', blank: false },
      ],
    } as Report
    expect(shownLines(report, false).map(one => one.n)).toEqual([3])
    expect(shownLines(report, true)).toHaveLength(3)
  })
  it('know whom a lost right throws out', () => {
    const connections = [
      { name: 'a', type: 4 },
      { name: 'a', type: 1 },
      { name: 'b', type: 4 },
    ] as Connection[]
    expect(thrownOut(new Map([['a', 1]]), connections)).toBe(1)
    expect(loginResult('<script>tell("{\\"error\\":78,\\"reason\\":\\"no\\"}")</script>')).toEqual({
      error: 78,
      reason: 'no',
    })
    expect(loginResult('')).toBeNull()
  })
})

describe('reasons', () => {
  const reason = {
    code: 'login-refused',
    final: true,
    at: 0,
    count: 1,
    text: 'as told',
    detail: '',
    advice: 'do it',
  }

  it('come in the language of the user, and unknown ones as the appliance says them', async () => {
    await speak('de')
    expect([whyOf(reason), cureOf(reason)]).toEqual([
      german['why.login-refused'],
      german['cure.login-refused'],
    ])
    await speak('en')
    expect([
      whyOf({ ...reason, code: 'brand-new' }),
      cureOf({ ...reason, code: 'brand-new' }),
    ]).toEqual(['as told', 'do it'])
  })

  it('have words for every code of the appliance', () => {
    const table = readFileSync('../base/reason.h', 'utf8')
    const codes = [...table.matchAll(/^ {4}\{"([a-z-]+)",/gm)].map(([, code]) => code)
    expect(codes.length).toBeGreaterThan(20)
    for (const code of codes)
      expect([code, `why.${code}` in english, `cure.${code}` in english]).toEqual([
        code,
        true,
        true,
      ])
  })

  it('do not let a server count as on that does not run', () => {
    expect(serverState('failed')).toEqual({ tone: 'bad', text: 'server.notRunning' })
    expect(clientState('no-peer').tone).not.toBe('good')
    expect(['up', 'failed', 'off'].map(isSettled)).toEqual([true, true, true])
    expect(['starting', 'retrying', 'no-peer'].map(isSettled)).toEqual([false, false, false])
  })
})

describe('backups', () => {
  it('takes passphrases of 8 to 1024 bytes', () => {
    expect(passphrase('eight ok')).toBeNull()
    expect(passphrase('seven c')).toBe('backup.short')
    expect(passphrase('é'.repeat(512))).toBeNull()
    expect(passphrase('é'.repeat(513))).toBe('rule.long')
  })

  it('explains refusals in its own words, and leaves others to the common ones', () => {
    expect(whyNot(new ApiError('code', 38, ''))).toBe('backup.wrong')
    expect(whyNot(new ApiError('code', 8, ''))).toBe('backup.newer')
    expect(whyNot(new ApiError('code', 39, ''))).toBeNull()
    expect(whyNot(new ApiError('http', 38, ''))).toBeNull()
  })

  it('lists what differs', () => {
    const none: Changes = {
      changed: [],
      added: [],
      removed: [],
      interrupted: [],
      warnings: [],
      same: 3,
    }
    expect(changeRows({ ...none, changed: ['a', 'b'] })[0]?.[1]).toBe('a, b')
    expect(changeRows(none).map(([, names]) => names)).toEqual(['', '', '', ''])
  })
})

describe('access that ends', () => {
  it('lasts to the end of its last day', () => {
    const end = dayEnd('2037-12-31')
    expect(new Date(end * 1000).getHours()).toBe(23)
    expect(endWords(end)).toBe('Dec 31, 2037')
    expect(endWords(end - 1)).toMatch(/^Dec 31, 2037, 11:59/)
    expect(dayEnd('')).toBe(0)
  })
  it('ends for the list with the first of the rights', () => {
    expect(firstEnd({ user: 'a', until: { 4: 20, 16: 10 }, devices: 0, in_use: 0 })).toBe(10)
    expect(firstEnd({ user: 'a', until: {}, devices: 1, in_use: 0 })).toBe(0)
    expect(firstEnd(undefined)).toBe(0)
    expect(untilWords('OpenVPN', 0)).toBe('OpenVPN')
    expect(untilWords('OpenVPN', dayEnd('2037-12-31'))).toMatch(/^OpenVPN until Dec 31, 2037/)
  })
  it('lets a user add devices up to the quota, in time, while the server is on', () => {
    const device = { name: 'a', key: 'k', address: '', handshake: 0, kept_out_since: 0 }
    const mine = { wireguard: true, quota: 1, devices: [], devices_until: 0 } as unknown as Mine
    expect(mayAdd(mine)).toBe(true)
    for (const less of [{ wireguard: false }, { devices: [device] }, { devices_until: 1 }])
      expect(mayAdd({ ...mine, ...less })).toBe(false)
    expect(isKeptOut({ ...device, kept_out_since: 10 }, 10)).toBe(true)
    expect(isKeptOut({ ...device, kept_out_since: 11 }, 10)).toBe(false)
    expect(isKeptOut(device, 10)).toBe(false)
  })
})

describe('second factor', () => {
  it('knows a code and a recovery code, however they are typed', () => {
    for (const code of ['012345', '012 345', 'ABCD-EFGH-IJ27', 'abcd-efgh-ij27'])
      expect(isCode(code), code).toBe(true)
    for (const code of ['', '12345', '1234567', '12345a', 'ABCD-EFGH-IJ28', 'ABCDEFGHIJ27'])
      expect(isCode(code), code).toBe(false)
  })

  it('shows a secret in groups, and names what has no place for a code', () => {
    expect(grouped('ABCDEFGHIJ')).toBe('ABCD EFGH IJ')
    expect([1, 2, 4, 8, 16].filter(hasNoCode)).toEqual([1, 2])
  })
})

describe('certificates', () => {
  it('are warned of when they end soon, the nearest first', () => {
    const one = (role: string, state: Certificate['state'], not_after: number): Certificate => ({
      role,
      subject: 'vpn',
      state,
      not_before: 1,
      not_after,
      profile: '',
      index: 0,
      fault: '',
    })
    const all = [
      one('web', 'good', 9),
      one('authority', 'soon', 7),
      one('profile-ca', 'unreadable', 0),
      one('authority-old', 'over', 1),
      one('server', 'over', 2),
    ]
    expect(ending(all).map(found => found.role)).toEqual(['server', 'authority'])
  })
})
