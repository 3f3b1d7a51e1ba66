// What the program tells of its profiles and connections, and what differs from protocol to protocol.
import type { TextKey } from './texts'

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

export interface Protocol {
  id: string
  label: string
  server: number
  client: number
  colour: string // of its curve, a property of the style sheet
}

export const PROTOCOLS: readonly Protocol[] = [
  { id: 'ovpn', label: 'OpenVPN', server: 4, client: 1024, colour: '--curve-1' },
  { id: 'wg', label: 'WireGuard', server: 32, client: 65536, colour: '--curve-2' },
  { id: 'l2tp', label: 'L2TP/IPsec', server: 2, client: 512, colour: '--curve-3' },
  { id: 'pptp', label: 'PPTP', server: 1, client: 256, colour: '--curve-4' },
  { id: 'drovik', label: 'Drovik', server: 16, client: 4096, colour: '--curve-5' },
]

export const WIREGUARD = 32
export const WIREGUARD_CLIENT = 65536
export const OPENVPN = 4
export const OPENVPN_CLIENT = 1024
const sum = (side: 'server' | 'client') => PROTOCOLS.reduce((mask, one) => mask | one[side], 0)
export const SERVERS = sum('server')
export const CLIENTS = sum('client')

export const protocolOf = (type: number): Protocol | undefined =>
  PROTOCOLS.find((one) => one.server === type || one.client === type)
export const labelOf = (type: number): string => protocolOf(type)?.label ?? String(type)

export const STATES: readonly TextKey[] = ['state.off', 'state.on', 'state.connecting']

const FRESH = 180 // seconds after which a WireGuard peer that has not spoken counts as gone

// Seconds since a handshake from the tool's own words: "1 minute, 3 seconds ago", "Now", or nothing at all.
export function handshakeAge(text: string): number | null {
  if (text === '') return null
  const sizes: Record<string, number> = { second: 1, minute: 60, hour: 3600, day: 86_400, year: 31_536_000 }
  let age = 0
  for (const [, amount, unit] of text.matchAll(/(\d+) (second|minute|hour|day|year)/g))
    age += Number(amount) * (sizes[unit ?? ''] ?? 0)
  return age
}

export const isLive = (peer: Peer): boolean => {
  const age = handshakeAge(peer.latest_handshake)
  return age !== null && age < FRESH
}

// Whom the restart of a server throws out.
export const liveCount = (type: number, connections: readonly Connection[], peers: readonly Peer[]): number =>
  type === WIREGUARD ? peers.filter(isLive).length : connections.filter((one) => one.type === type).length
