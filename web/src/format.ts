// How figures and names are shown.
import { locale, t } from './texts'

const UNITS = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB'] as const
const STEP = 1024

export function bytes(value: number): string {
  let unit = 0
  let amount = Math.max(0, Number.isFinite(value) ? value : 0)
  while (amount >= STEP && unit < UNITS.length - 1) {
    amount /= STEP
    ++unit
  }
  const digits = unit === 0 || amount >= 100 ? 0 : 1
  return `${amount.toLocaleString(locale(), { maximumFractionDigits: digits, minimumFractionDigits: digits })} ${UNITS[unit]}`
}

export const rate = (value: number): string => `${bytes(value)}/s`

const TIME_PARTS = [
  [86_400, 'd'],
  [3_600, 'h'],
  [60, 'min'],
  [1, 's'],
] as const

// The two largest parts that count: "3 h 5 min".
export function duration(seconds: number): string {
  let rest = Math.max(0, Math.floor(seconds))
  const out: string[] = []
  for (const [size, name] of TIME_PARTS) {
    const count = Math.floor(rest / size)
    rest -= count * size
    if (count > 0) out.push(`${count} ${name}`)
    if (out.length === 2 || (out.length === 1 && count === 0)) break
  }
  return out.join(' ') || '0 s'
}

// A name that WireGuard's settings keep URL-encoded. One that is not encoded well is shown as it is.
export function decodeName(text: string): string {
  try {
    return decodeURIComponent(text)
  } catch {
    return text
  }
}

// A text as what takes one character for a byte wants it.
export const binary = (text: string): string => String.fromCharCode(...new TextEncoder().encode(text))
export const base64 = (text: string): string => btoa(binary(text))

export const byteLength = (text: string): number => new TextEncoder().encode(text).length

export function clock(when: Date): string {
  return when.toLocaleTimeString(locale(), { hour: '2-digit', minute: '2-digit', second: '2-digit', hourCycle: 'h23' })
}

// A time of day or, for another day, the date with it.
export function moment(seconds: number, now = new Date()): string {
  const when = new Date(seconds * 1000)
  const day: Intl.DateTimeFormatOptions = when.toDateString() === now.toDateString() ? {} : { dateStyle: 'short' }
  return when.toLocaleString(locale(), { ...day, timeStyle: 'short' })
}

// A count with its noun in the right number.
export function count(amount: number, one: Parameters<typeof t>[0], other: Parameters<typeof t>[0]): string {
  return t(amount === 1 ? one : other, { n: amount })
}
