// The limits that the appliance itself has, told before it has to refuse. What a rule says is a text of the catalogue.
import { byteLength } from './format'
import type { TextKey } from './texts'

export type Rule = (value: string) => TextKey | null

export function parseAddress(text: string): number | null {
  const parts = text.split('.')
  if (parts.length !== 4) return null
  let out = 0
  for (const part of parts) {
    if (!/^\d{1,3}$/.test(part) || Number(part) > 255) return null
    out = out * 256 + Number(part)
  }
  return out
}

export const required: Rule = value => (value.trim() === '' ? 'rule.required' : null)
export const address: Rule = value => (parseAddress(value) === null ? 'rule.address' : null)
export const optional =
  (rule: Rule): Rule =>
  value =>
    value === '' ? null : rule(value)

export const range =
  (least: number, most: number): Rule =>
  value =>
    /^\d+$/.test(value) && Number(value) >= least && Number(value) <= most ? null : 'rule.range'

export const atMost =
  (limit: number): Rule =>
  value =>
    byteLength(value) > limit ? 'rule.long' : null

// One of the private networks that a server may give addresses of.
export const pool: Rule = value => {
  const number = parseAddress(value)
  if (number === null) return 'rule.address'
  const [first, second] = [Math.floor(number / 2 ** 24), Math.floor(number / 2 ** 16) % 256]
  const isPrivate =
    first === 10 ||
    (first === 172 && second >= 16 && second <= 31) ||
    (first === 192 && second === 168)
  return isPrivate ? null : 'rule.private'
}

// 32 bytes in base64, as WireGuard writes its keys.
export const key: Rule = value =>
  /^[A-Za-z0-9+/]{42}[AEIMQUYcgkosw048]=$/.test(value) ? null : 'rule.key'

export const endpoint: Rule = value => {
  const colon = value.lastIndexOf(':')
  if (colon <= 0 || value.indexOf(':') !== colon) return 'rule.endpoint'
  return range(1, 65535)(value.slice(colon + 1)) ? 'rule.endpoint' : null
}

export const host: Rule = value => (/^[A-Za-z0-9._:-]{1,255}$/.test(value) ? null : 'rule.host')

// The same without a port: a name, an IPv4 or an IPv6 address.
export const publicHost: Rule = value =>
  /^[A-Za-z0-9._][A-Za-z0-9._-]{0,252}$/.test(value) ||
  /^[0-9A-Fa-f.]*:[0-9A-Fa-f.:]*:[0-9A-Fa-f.:]*$/.test(value)
    ? null
    : 'rule.publicHost'

export const all =
  (...rules: Rule[]): Rule =>
  value => {
    for (const rule of rules) {
      const found = rule(value)
      if (found) return found
    }
    return null
  }

// The lowest free address for one more peer in the server's network, or "" when all are taken.
export function freeAddress(serverAddress: string, mask: number, taken: readonly string[]): string {
  const server = parseAddress(serverAddress)
  if (server === null || mask < 8 || mask > 30) return ''
  const size = 2 ** (32 - mask)
  const network = Math.floor(server / size) * size
  const used = new Set([...taken.map(one => parseAddress(one.split('/')[0] ?? '')), server])
  for (let one = network + 1; one < network + size - 1; ++one) {
    if (used.has(one)) continue
    return [24, 16, 8, 0].map(shift => Math.floor(one / 2 ** shift) % 256).join('.')
  }
  return ''
}

// Rows of one page, both ends included as the log routes want them, and what there is to step to.
export function page(total: number, at: number, size: number) {
  const pages = Math.max(1, Math.ceil(total / size))
  const current = Math.min(Math.max(0, at), pages - 1)
  return { current, pages, lower: current * size, upper: current * size + size - 1 }
}
