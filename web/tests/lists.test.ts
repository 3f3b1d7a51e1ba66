import { describe, expect, it } from 'vitest'
import { withAddress, worksAtHomeOnly } from '../src/address'
import { csv } from '../src/csv'
import { frameOf, pathOf, rateMarks, sampleAt, timeMarks, xOf, yOf } from '../src/graph'
import { lookOf, matches, queryFor, view, type Look } from '../src/listing'
import type { Connection, Hold } from '../src/model'
import { changeWords, changesWords, type AuditEntry } from '../src/pages/logs'
import { dayAt, dayStart } from '../src/pages/peers'
import { linkState } from '../src/pages/sdwan'
import { pointsOf } from '../src/pages/traffic'
import { obstacle, refusalWords, type Entry, type Known } from '../src/pages/user'
import { sparkPath } from '../src/spark'
import { History, Trails, trailsOf } from '../src/traffic'
import { publicHost } from '../src/rules'

const USUAL: Look = { q: '', filter: '', sort: 'name', down: false, page: 0, size: 15 }

describe('a list', () => {
  const rows = Array.from({ length: 160 }, (_, at) => ({
    name: `tunnel ${at + 1}`,
    up: at % 80 === 3,
  }))
  const columns = [
    { name: 'name', sort: (row: (typeof rows)[0]) => row.name },
    { name: 'up', sort: (row: (typeof rows)[0]) => (row.up ? 0 : 1) },
  ]
  const filters = [{ name: 'up', keeps: (row: (typeof rows)[0]) => row.up }]
  const seen = (look: Partial<Look>) =>
    view(rows, row => row.name, columns, filters, { ...USUAL, ...look })

  it('is one page of what matches, with the counts of all filters', () => {
    expect(
      seen({})
        .rows.map(row => row.name)
        .slice(0, 3),
    ).toEqual(['tunnel 1', 'tunnel 2', 'tunnel 3'])
    expect([seen({}).total, seen({}).pages, [...seen({}).counts]]).toEqual([
      160,
      11,
      [
        ['', 160],
        ['up', 2],
      ],
    ])
    expect(seen({ filter: 'up' }).rows.map(row => row.name)).toEqual(['tunnel 4', 'tunnel 84'])
    expect([...seen({ q: '84 TUN' }).counts]).toEqual([
      ['', 1],
      ['up', 1],
    ])
    expect(seen({ filter: 'gone' }).total).toBe(160)
  })
  it('sorts numbers in names as people do, and keeps the order of equals', () => {
    expect(seen({ down: true }).rows[0]?.name).toBe('tunnel 160')
    expect(
      seen({ sort: 'up' })
        .rows.slice(0, 3)
        .map(row => row.name),
    ).toEqual(['tunnel 4', 'tunnel 84', 'tunnel 1'])
  })
  it('ends with its last page, however far one goes', () => {
    const last = seen({ page: 99 })
    expect([last.page, last.rows.length]).toEqual([10, 10])
    expect(seen({ q: 'nobody' })).toMatchObject({ page: 0, pages: 1, total: 0, rows: [] })
  })
  it('has its look in the address, and nothing there that is usual', () => {
    const look = { ...USUAL, q: 'a&b=c', filter: 'up', sort: 'up', down: true, page: 2, size: 50 }
    expect(lookOf(queryFor(look, USUAL), USUAL)).toEqual(look)
    expect(Object.values(queryFor(USUAL, USUAL)).join('')).toBe('')
    expect(lookOf({ page: '-4', size: '7', sort: '' }, USUAL)).toEqual(USUAL)
    expect(lookOf({ page: 'x', size: '1e9' }, USUAL)).toEqual(USUAL)
  })
  it.each([
    ['', true],
    ['ann', true],
    ['Ann 10.8', true],
    ['ann bob', false],
  ])('finds "%s": %s', (search, found) => expect(matches('Ann wg 10.8.0.2', search)).toBe(found))
  it('goes into a file that a spreadsheet takes for text', () => {
    expect(
      csv([
        ['Name', 'In'],
        ['=1+1', -5],
        ['a "b", c', 0],
      ]),
    ).toBe('\uFEFFName,In\r\n\'=1+1,-5\r\n"a ""b"", c",0\r\n')
  })
})

describe('a user', () => {
  const entry = (action: number) => ({ action, username: 'ann' }) as Entry
  const known = (more: Partial<Known>): Known => ({
    entries: [],
    mask: 4,
    locked: false,
    hold: undefined,
    connections: [],
    ...more,
  })
  it.each([
    [{}, null],
    [{ mask: 0, locked: true, hold: {} as Hold }, 'user.isHeld'],
    [{ mask: 0, locked: true }, 'user.isLocked'],
    [{ mask: 0 }, 'user.hasNone'],
    [{ entries: [entry(2), entry(1), entry(0)] }, 'user.wasRefused'],
    [{ entries: [entry(2), entry(0), entry(1)] }, null],
    [{ entries: [entry(1)], connections: [{} as Connection] }, null],
  ] as const)('%# is kept out by the first thing that does it', (more, why) =>
    expect(obstacle(known(more as Partial<Known>))).toBe(why),
  )
  it('is refused in words that are known, or as they come', () => {
    expect([refusalWords('wrong password'), refusalWords('a new reason')]).toEqual([
      'Wrong password.',
      'a new reason',
    ])
  })
})

describe('a graph', () => {
  const points = [
    [0, 10, 20, 100],
    [0, 4096, 0, 0],
    [0, 0, 2048, 0],
  ]
  const frame = frameOf(points, [true], 100, 500, 240)
  it('has what comes in above the line and what goes out below it', () => {
    expect([frame.start, frame.end]).toEqual([0, 100])
    expect([frame.above, frame.below].map(Math.round)).toEqual([4506, 2253])
    expect(yOf(frame, 4096)).toBeLessThan(yOf(frame, 0))
    expect(yOf(frame, -2048)).toBeGreaterThan(yOf(frame, 0))
    expect([xOf(frame, 0), xOf(frame, 100)]).toEqual([84, 490])
    expect(frameOf(points, [false], 100, 500, 240)).toMatchObject({
      above: frame.below / 2,
      below: frame.below / 2,
    })
  })
  it('begins its line again after a gap, and leaves out what is too old', () => {
    expect(pathOf(frame, [0, 1, 2, 90, 91], [1, 1, 1, 1, 1], 1).match(/M/g)).toHaveLength(1)
    expect(
      pathOf(frame, [...Array(50).keys(), 99], Array(51).fill(1) as number[], 1).match(/M/g),
    ).toHaveLength(2)
    expect(pathOf(frame, [-5, 0], [1, 1], -1).match(/[ML]/g)).toHaveLength(1)
    expect(pathOf(frame, [], [], 1)).toBe('')
  })
  it('has round marks', () => {
    expect(rateMarks(frame, false)).toEqual([-2048, 0, 2048, 4096])
    expect(rateMarks(frame, true).every(one => one % 125 === 0)).toBe(true)
    expect(timeMarks(frame).every(one => one % 30 === 0)).toBe(true)
    expect(timeMarks({ ...frame, start: 0, end: 86_400, width: 1000 }).length).toBeGreaterThan(2)
  })
  it('knows the sample under the pointer', () => {
    expect([
      sampleAt(frame, points[0] ?? [], 84),
      sampleAt(frame, points[0] ?? [], 150),
      sampleAt(frame, [], 9),
    ]).toEqual([0, 2, null])
  })
  it('takes what the appliance recorded in the order of these pages', () => {
    const made = pointsOf({ step: 10, types: [32, 4], rows: [[5, 1, 2, 3, 4]] })
    expect(made.map(([one]) => one)).toEqual([5, 2, 1, 0, 0, 0, 4, 3, 0, 0, 0])
  })
  it('keeps the last samples only', () => {
    const history = new History(2)
    for (const time of [1, 2, 3]) history.add(time, [time])
    expect(history.add(4, [7])).toEqual([
      [3, 4],
      [3, 7],
    ])
    const trails = new Trails(2)
    for (const rate of [1, 2, 3]) trails.add(new Map([['a', rate]]))
    expect([trails.of('a'), trails.of('b')]).toEqual([[2, 3], []])
    trails.add(new Map())
    expect(trails.of('a')).toEqual([])
    expect(sparkPath([0, 10], 3)).toBe('30.0,17.0 60.0,1.0')
    const recorded = { step: 10, tunnels: [{ type: 1024, index: 3, rates: [5, 7] }] }
    expect(trailsOf(recorded).get('1024-3')).toEqual([5, 7])
  })
})

describe('addresses', () => {
  it.each([
    ['192.168.1.1', true],
    ['10.0.0.1', true],
    ['172.31.0.1', true],
    ['100.64.0.1', true],
    ['nas', true],
    ['nas.local', true],
    ['172.32.0.1', false],
    ['203.0.113.7', false],
    ['vpn.example.org', false],
    ['fd00::1', true],
    ['fe80::1', true],
    ['2001:db8::1', false],
  ])('%s leads here from home only: %s', (host, home) => expect(worksAtHomeOnly(host)).toBe(home))
  it.each([
    ['vpn.example.org', true],
    ['192.0.2.1', true],
    ['2001:db8::1', true],
    ['vpn.example.org:1194', false],
    ['[2001:db8::1]', false],
    ['a b', false],
    ['-x', false],
    ['', false],
  ])('that are public are without a port: %s, %s', (host, fits) =>
    expect(publicHost(host) === null).toBe(fits),
  )
  it('take the place of the own one in a profile', () => {
    const profile = 'client\nremote 192.168.77.1 1194\nremote-cert-tls server\n'
    expect(withAddress(profile, 'vpn.example.org')).toBe(
      'client\nremote vpn.example.org 1194\nremote-cert-tls server\n',
    )
    expect(withAddress(profile, 'a b\nscript x')).toBe(profile)
  })
  it('of a day begin with its first second', () => {
    expect([
      dayStart(''),
      dayAt(0),
      dayAt(dayStart('2099-12-31')),
      dayAt(dayStart('2026-03-29') + 43_200),
    ]).toEqual([0, '', '2099-12-31', '2026-03-29'])
  })
  it('of the cloud are on their way before they count as down', () => {
    expect([
      linkState(true, false)[1],
      linkState(false, false)[1],
      linkState(false, true)[1],
    ]).toEqual(['good', 'busy', 'bad'])
  })
})

describe('an entry of the audit trail', () => {
  it('says what has become of each field, and of a secret only that it is another one', () => {
    const words = [
      [{ field: 'OPENVPN/Client IP 1', from: '10.8.0.2', to: '10.9.0.2' }, '10.8.0.2 → 10.9.0.2'],
      [{ field: 'rights/bob', from: '', to: 'pptp' }, 'rights/bob: none → pptp'],
      [{ field: 'rights/bob', from: 'pptp', to: '' }, 'rights/bob: pptp → none'],
      [{ field: 'L2TP/PSK', from: '', to: 'changed' }, 'L2TP/PSK changed'],
      [{ field: '6 more', from: '', to: '' }, '6 more'],
    ] as const
    for (const [change, text] of words) expect(changeWords(change)).toContain(text)
    const row = { changes: words.map(([change]) => change) } as unknown as AuditEntry
    expect(changesWords(row).split('; ')).toHaveLength(words.length)
  })
})
