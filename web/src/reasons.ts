// The true state of tunnels and servers, and in words why one of them does not work.
import { call, type Envelope } from './api'
import { textOr, type TextKey } from './texts'
import type { Tone } from './ui'

export interface Reason {
  code: string
  final: boolean
  at: number
  count: number
  text: string
  detail: string
  advice: string
}
export interface TunnelState {
  type: number
  index: number
  name: string
  state: string
  since: number
  reason: Reason | null
}

interface Shown {
  tone: Tone
  text: TextKey
}
const CLIENT: Record<string, Shown> = {
  off: { tone: 'off', text: 'state.off' },
  starting: { tone: 'busy', text: 'state.connecting' },
  up: { tone: 'good', text: 'state.on' },
  retrying: { tone: 'warn', text: 'state.retrying' },
  failed: { tone: 'bad', text: 'state.failed' },
  'no-peer': { tone: 'warn', text: 'state.noPeer' },
}
const SERVER: Record<string, Shown> = {
  off: { tone: 'off', text: 'server.off' },
  starting: { tone: 'busy', text: 'server.starting' },
  running: { tone: 'good', text: 'server.on' },
  failed: { tone: 'bad', text: 'server.notRunning' },
  unreachable: { tone: 'warn', text: 'server.unreachable' },
}
const UNKNOWN: Shown = { tone: 'off', text: 'state.off' }
export const clientState = (state: string): Shown => CLIENT[state] ?? UNKNOWN
export const serverState = (state: string): Shown => SERVER[state] ?? UNKNOWN

// Without administrator's rights there is only what the profile itself tells.
const OF_STATUS = ['off', 'up', 'starting']
export const stateOfStatus = (status: number): string => OF_STATUS[status] ?? 'off'

// Nothing changes any more until somebody does something.
export const isSettled = (state: string): boolean =>
  state === 'up' || state === 'failed' || state === 'off'

// In the language of the user; a code that these pages do not know comes as the appliance says it.
const words = (kind: 'why' | 'cure', reason: Reason, otherwise: string): string =>
  textOr(`${kind}.${reason.code}`, otherwise)
export const whyOf = (reason: Reason): string => words('why', reason, reason.text)
export const cureOf = (reason: Reason): string => words('cure', reason, reason.advice)

export type States = ReadonlyMap<string, TunnelState>
export const stateKey = (one: { type: number; index?: unknown }): string =>
  `${one.type}-${Number(one.index ?? 0)}`
// Why the settings cannot be read: then what they seem to say, everything being off, is not so.
export interface SettingsFault {
  code: string
  text: string
}
export interface Status {
  states: States
  fault: SettingsFault | undefined
}
// An appliance without this route has no states to tell.
export async function readStatus(type: number): Promise<Status> {
  type Answer = Partial<Envelope<TunnelState[] | null>> & { settings?: SettingsFault }
  const { data, settings }: Answer = await call<TunnelState[] | null>('status/list', {
    type,
  }).catch(() => ({}))
  return { states: new Map((data ?? []).map(row => [stateKey(row), row])), fault: settings }
}
