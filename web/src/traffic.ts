// What each protocol carries, from the rates of the servers' connections and of the tunnels' interfaces.
import { PROTOCOLS, protocolOf, type Connection } from './model'

export interface InterfaceRate {
  name_interface: string
  rx_rate: number
  tx_rate: number
}

// A client's interface is its prefix and a number that begins at a base of its protocol's own.
const INTERFACES: readonly (readonly [pattern: RegExp, least: number, most: number, id: string])[] =
  [
    [/^ppp(\d+)$/, 1000, 1249, 'pptp'],
    [/^ppp(\d+)$/, 1250, 1999, 'l2tp'],
    [/^tun(\d+)$/, 2000, 2499, 'ovpn'],
    [/^dtunc(\d+)$/, 2500, 2999, 'drovik'],
    [/^wgc(\d+)$/, 3000, 3999, 'wg'],
    [/^wg(\d+)$/, 0, 0, 'wg'], // the server, whose peers have no rates
  ]

export function protocolOfInterface(name: string): string | null {
  for (const [pattern, least, most, id] of INTERFACES) {
    const number = Number(pattern.exec(name)?.[1] ?? -1)
    if (number >= least && number <= most) return id
  }
  return null
}

// Bytes a second, what comes in and then what goes out, each in the order of PROTOCOLS.
export function traffic(
  connections: readonly Connection[],
  interfaces: readonly InterfaceRate[],
): number[] {
  const received = new Map<string, number>()
  const sent = new Map<string, number>()
  const add = (
    id: string | null | undefined,
    { rx_rate, tx_rate }: { rx_rate: number; tx_rate: number },
  ) => {
    if (!id) return
    received.set(id, (received.get(id) ?? 0) + rx_rate)
    sent.set(id, (sent.get(id) ?? 0) + tx_rate)
  }
  for (const one of connections) add(protocolOf(one.type)?.id, one)
  for (const one of interfaces) add(protocolOfInterface(one.name_interface), one)
  return [received, sent].flatMap(sums => PROTOCOLS.map(one => sums.get(one.id) ?? 0))
}

// Columns of the last samples: times first, then those of each row.
export class History {
  private rows: number[][] = []
  constructor(private readonly size: number) {}
  add(time: number, values: readonly number[]): number[][] {
    this.rows = [...this.rows.slice(-(this.size - 1)), [time, ...values]]
    return columns(this.rows, values.length + 1)
  }
}
export const columns = (rows: readonly (readonly number[])[], width: number): number[][] =>
  Array.from({ length: width }, (_, column) => rows.map(row => row[column] ?? 0))

// The last rates of each of many things, by a key; what is asked for no more is forgotten.
export class Trails {
  private trails = new Map<string, number[]>()
  constructor(private readonly size: number) {}
  add(rates: ReadonlyMap<string, number>): void {
    this.trails = new Map(
      [...rates].map(([key, rate]) => [
        key,
        [...(this.trails.get(key) ?? []).slice(1 - this.size), rate],
      ]),
    )
  }
  of(key: string): readonly number[] {
    return this.trails.get(key) ?? []
  }
}

// The last rates of the client tunnels that are up, as the appliance has recorded them, by type and index.
export const TRAIL = 60 // rates at most
export interface TunnelTrails {
  tunnels: { type: number; index: number; rates: number[] }[]
}
export const trailsOf = ({ tunnels }: TunnelTrails): ReadonlyMap<string, readonly number[]> =>
  new Map(tunnels.map(one => [`${one.type}-${one.index}`, one.rates]))
