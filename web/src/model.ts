// What the program reports about its profiles and connections, and what differs from protocol to protocol.
import { ago } from './format'
import { PROTOCOL, PROTOCOLS, type Protocol } from './protocols'

export interface Profile {
  enable: boolean
  type: number
  [key: string]: unknown
}
export interface ServerProfile extends Profile {
  ip_pool: string
  maximum: number
  out_eif: string
}
export interface ClientProfile extends Profile {
  index: number
  profile: string
  status: number // 0 off, 1 connected, 2 on the way
  last_error: number
  server_ip: string
  local_ip: string
  remote_ip: string
  real_ip: string
  uptime: number
  tx_total: number | string
  rx_total: number | string
  tx_rate: number
  rx_rate: number
  reconnect: boolean
}
export interface Connection {
  type: number
  name: string
  login: string
  target: string
  uptime: number
  source_ip: string
  allocate_ip: string
  device_info: string
  rx_total: number
  tx_total: number
  rx_rate: number
  tx_rate: number
}
// A connection or a device of WireGuard, whose rates no one counts.
export interface Live
  extends Omit<Connection, 'login' | 'rx_rate' | 'tx_rate'>,
    Partial<Pick<Connection, 'rx_rate' | 'tx_rate'>> {
  held: number // until when its user is kept out, 0 for one who is not
}
// Who is kept out of the servers.
export interface Hold {
  kind: 'user' | 'peer'
  who: string
  name: string
  by: string
  until: number // seconds since the epoch
}
export interface Peer {
  peer_name: string
  psk: string
  peer_pub_key: string
  peer_allow_ip: string
  peer_endpoint: string
  keepalive: string
  index: number
  latest_handshake: string
  tx_total: string
  rx_total: string
}

// A network interface of the appliance.
export interface Nic {
  ifname: string
  display_name?: string
  ip?: string | null
}

export * from './protocols'

export const WIREGUARD: number = PROTOCOL.wg.server
export const WIREGUARD_CLIENT: number = PROTOCOL.wg.client
export const OPENVPN: number = PROTOCOL.ovpn.server
export const OPENVPN_CLIENT: number = PROTOCOL.ovpn.client
const sum = (side: 'server' | 'client') => PROTOCOLS.reduce((mask, one) => mask | one[side], 0)
export const SERVERS = sum('server')
export const CLIENTS = sum('client')

export const protocolOf = (type: number): Protocol | undefined =>
  PROTOCOLS.find(one => one.server === type || one.client === type)
export const labelOf = (type: number): string => protocolOf(type)?.label ?? String(type)

const FRESH = 180 // seconds after which a WireGuard peer that has not spoken counts as gone

// Seconds since a handshake from the tool's own words: "1 minute, 3 seconds ago", "Now", or nothing at all.
export function handshakeAge(text: string): number | null {
  if (text === '') return null
  const sizes: Record<string, number> = {
    second: 1,
    minute: 60,
    hour: 3600,
    day: 86_400,
    year: 31_536_000,
  }
  let age = 0
  for (const [, amount, unit] of text.matchAll(/(\d+) (second|minute|hour|day|year)/g))
    age += Number(amount) * (sizes[unit ?? ''] ?? 0)
  return age
}

export function handshakeWords(text: string): string {
  const age = handshakeAge(text)
  return age === null ? '' : ago(age)
}

export const isLive = (peer: Peer): boolean => {
  const age = handshakeAge(peer.latest_handshake)
  return age !== null && age < FRESH
}

// Whom the restart of a server throws out.
export const liveCount = (
  type: number,
  connections: readonly Connection[],
  peers: readonly Peer[],
): number =>
  type === WIREGUARD
    ? peers.filter(isLive).length
    : connections.filter(one => one.type === type).length

// What an import would make of a file, line by line.
export interface ReportLine {
  n: number
  to: number // the last line of a block
  text: string
  fate: 'kept' | 'changed' | 'dropped' | 'refused' | 'needs'
  why: string
  blank: boolean
}
export interface Report {
  lines: ReportLine[]
  added: string[]
  needs: string[]
  certificates: { role: string; subject: string; days: number }[]
  importable: boolean
  reason: string
}

// The lines that a user has to know of: all but those that are kept and the blank ones, unless `all` are wanted.
export const shownLines = (report: Report, all: boolean): ReportLine[] =>
  report.lines.filter(line => all || (line.fate !== 'kept' && !line.blank))
