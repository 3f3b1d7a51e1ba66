// The form of each server, and what keeps two of them from being on together.
import type { Choice, FieldRow, Values } from '../form'
import { decodeName } from '../format'
import { OPENVPN, WIREGUARD, labelOf, type Profile, type ServerProfile } from '../model'
import { address, all, atMost, key, optional, parseAddress, pool, range, required } from '../rules'
import { t } from '../texts'

// Of PPP, for servers and clients.
export const AUTHENTICATION: readonly Choice[] = [
  ['2', 'MS-CHAPv2'],
  ['3', 'MS-CHAP'],
  ['4', 'CHAP'],
  ['1', 'PAP'],
]
export const PPTP_STRENGTH = (): readonly Choice[] => [
  ['2', t('enc.pptpHigh')],
  ['1', t('enc.pptpMedium')],
  ['0', t('enc.none')],
]
const OVPN_STRENGTH = (): readonly Choice[] => [
  ['2', 'AES-256'],
  ['1', 'AES-128'],
  ['0', t('enc.none')],
]

const ENABLE: FieldRow = { name: 'enable', label: 'server.enable', kind: 'switch', wide: true }
const POOL: FieldRow = {
  name: 'ip_pool',
  label: 'server.pool',
  rule: pool,
  help: 'server.poolHelp',
}
const most = (limit: number): FieldRow => ({
  name: 'maximum',
  label: 'server.maximum',
  kind: 'number',
  rule: range(5, limit),
  limits: [5, limit],
})
const mss = (limit: number): FieldRow => ({
  name: 'mss',
  label: 'server.mss',
  kind: 'number',
  rule: range(1000, limit),
  limits: [1000, limit],
  more: true,
})
export const PORT: FieldRow = {
  name: 'port',
  label: 'port',
  kind: 'number',
  rule: range(1, 65535),
  limits: [1, 65535],
}
const PSK: FieldRow = {
  name: 'psk',
  label: 'psk',
  kind: 'secret',
  rule: all(required, atMost(128)),
  help: 'server.pskHelp',
}
const AUTH: FieldRow = { name: 'auth', label: 'auth', choices: AUTHENTICATION }
const DNS: readonly FieldRow[] = [
  { name: 'enable_dns', label: 'server.dnsSwitch', kind: 'switch', more: true },
  {
    name: 'manual_dns',
    label: 'server.dns',
    rule: address,
    when: values => values['enable_dns'] === true,
    more: true,
  },
]

// `interfaces` are what the traffic of the clients can leave by.
export function serverRows(type: number, interfaces: readonly Choice[]): readonly FieldRow[] {
  const out: FieldRow = { name: 'out_eif', label: 'server.out', choices: interfaces, more: true }
  const rows: Record<number, readonly FieldRow[]> = {
    1: [
      ENABLE,
      POOL,
      most(100),
      AUTH,
      { name: 'enc', label: 'enc', choices: PPTP_STRENGTH },
      out,
      ...DNS,
      mss(1400),
    ],
    2: [ENABLE, POOL, PSK, most(100), AUTH, out, ...DNS, mss(1400)],
    4: [
      ENABLE,
      POOL,
      PORT,
      {
        name: 'proto',
        label: 'transport',
        choices: [
          ['UDP', 'UDP'],
          ['TCP', 'TCP'],
        ],
      },
      most(60),
      { name: 'enc', label: 'enc', choices: OVPN_STRENGTH },
      { name: 'gateway', label: 'server.redirect', kind: 'switch', help: 'server.redirectHelp' },
      { name: 'compress', label: 'compress', kind: 'switch', more: true },
      out,
      ...DNS,
      mss(1600),
      {
        name: 'sig_algo',
        label: 'server.signature',
        more: true,
        choices: [
          ['sha256WithRSAEncryption', 'SHA-256'],
          ['sha1WithRSAEncryption', 'SHA-1'],
        ],
      },
    ],
    16: [ENABLE, POOL, PORT, PSK, most(100), out, ...DNS],
    32: [
      ENABLE,
      { name: 'server_name', label: 'name', rule: all(required, atMost(600)) },
      { name: 'server_ip', label: 'server.address', rule: address },
      {
        name: 'server_mask',
        label: 'server.mask',
        kind: 'number',
        rule: range(8, 30),
        limits: [8, 30],
      },
      PORT,
      {
        name: 'server_pri_key',
        label: 'server.key',
        kind: 'secret',
        rule: optional(key),
        help: 'server.keyHelp',
      },
      out,
      ...DNS,
    ],
  }
  return rows[type] ?? []
}

const network = (text: string, mask: number): number | null => {
  const number = parseAddress(text)
  return number === null ? null : Math.floor(number / 2 ** (32 - mask))
}

export function serverValues(profile: ServerProfile): Values {
  const values: Values = {}
  for (const [name, value] of Object.entries(profile))
    if (typeof value === 'boolean') values[name] = value
    else if (typeof value === 'number' || typeof value === 'string') values[name] = String(value)
  if (typeof profile['ip_pool'] === 'string')
    values['ip_pool'] = profile.ip_pool.replace(/\.\d+$/, '.0')
  if (typeof profile['proto'] === 'string') values['proto'] = profile['proto'].toUpperCase()
  if (typeof profile['server_name'] === 'string')
    values['server_name'] = decodeName(profile['server_name'])
  return values
}

const NETWORK_BITS = 24 // of every pool

interface Range {
  label: string
  address: string
  mask: number
}
const rangeOf = (type: number, values: Readonly<Record<string, unknown>>): Range => {
  const label = labelOf(type)
  return type === WIREGUARD
    ? { label, address: String(values['server_ip']), mask: Number(values['server_mask']) }
    : { label, address: String(values['ip_pool']), mask: NETWORK_BITS }
}
const overlaps = (a: Range, b: Range): boolean => {
  const mask = Math.min(a.mask, b.mask)
  const left = network(a.address, mask)
  return left !== null && left === network(b.address, mask)
}

const networkOf = ({ address, mask }: Range): string => {
  const size = 2 ** (32 - mask)
  const first = (network(address, mask) ?? 0) * size
  return `${[24, 16, 8, 0].map(shift => Math.floor(first / 2 ** shift) % 256).join('.')}/${mask}`
}

// Transport and port that a server listens on, where one can choose.
const doorOf = (type: number, values: Readonly<Record<string, unknown>>): string | null => {
  if (values['port'] === undefined) return null
  return `${type === OPENVPN ? String(values['proto']).toUpperCase() : 'UDP'} ${String(values['port'])}`
}

// In words, what keeps a server with these values from being on beside those that are.
export function conflicts(type: number, values: Values, servers: readonly Profile[]): string[] {
  if (values['enable'] !== true) return []
  const mine = rangeOf(type, values)
  const door = doorOf(type, values)
  return servers
    .filter(one => one.type !== type && one.enable)
    .flatMap(one => {
      const theirs = rangeOf(one.type, one)
      const found: string[] = []
      if (overlaps(mine, theirs))
        found.push(t('conflict.pool', { server: theirs.label, network: networkOf(theirs) }))
      if (door !== null && door === doorOf(one.type, one))
        found.push(t('conflict.port', { server: theirs.label, port: door }))
      return found
    })
}
