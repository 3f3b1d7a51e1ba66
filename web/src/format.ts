// How figures, times and names are shown, in the language of the user.
import { locale, t } from './texts'

// A formatter for each language and kind, made once.
const kept = new Map<string, unknown>()
function formatter<T>(name: string, make: (locale: string) => T): T {
  const key = `${locale()} ${name}`
  if (!kept.has(key)) kept.set(key, make(locale()))
  return kept.get(key) as T
}

export const number = (value: number, digits = 0): string =>
  formatter(
    `number ${digits}`,
    at =>
      new Intl.NumberFormat(at, { minimumFractionDigits: digits, maximumFractionDigits: digits }),
  ).format(value)

// An amount with the largest of the units of which there is at least one.
function scaled(value: number, step: number, units: readonly string[]): string {
  let unit = 0
  let amount = Math.max(0, Number.isFinite(value) ? value : 0)
  while (amount >= step && unit < units.length - 1) {
    amount /= step
    ++unit
  }
  return `${number(amount, unit === 0 || amount >= 100 ? 0 : 1)} ${units[unit] ?? ''}`
}

export const bytes = (value: number): string => scaled(value, 1024, t('unit.bytes').split(' '))
export const rate = (value: number): string => `${bytes(value)}/s`
export const bits = (value: number): string =>
  scaled(value * 8, 1000, ['bit/s', 'kbit/s', 'Mbit/s', 'Gbit/s', 'Tbit/s'])

const UNIT = 1024
const SIZES: readonly string[] = ['B', 'KiB', 'MiB', 'GiB', 'TiB', 'PiB']
// From what WireGuard's tool writes, such as "71.44 KiB".
export function bytesOf(text: string): number {
  const [, amount = '', unit = ''] = /^([\d.]+) ?([KMGTP]?i?B)$/.exec(text.trim()) ?? []
  return Math.round(Number(amount) * UNIT ** Math.max(0, SIZES.indexOf(unit))) || 0
}

const TIME_PARTS = [
  [86_400, 'day'],
  [3_600, 'hour'],
  [60, 'minute'],
  [1, 'second'],
] as const
type TimePart = (typeof TIME_PARTS)[number][1]

const part = (amount: number, unit: TimePart): string =>
  formatter(
    unit,
    at => new Intl.NumberFormat(at, { style: 'unit', unit, unitDisplay: 'short' }),
  ).format(amount)

// The two largest parts that count: "3 hr 5 min".
export function duration(seconds: number): string {
  let rest = Math.max(0, Math.floor(seconds))
  const out: string[] = []
  for (const [size, name] of TIME_PARTS) {
    const amount = Math.floor(rest / size)
    rest -= amount * size
    if (amount > 0) out.push(part(amount, name))
    if (out.length === 2 || (out.length === 1 && amount === 0)) break
  }
  return out.join(' ') || part(0, 'second')
}

// "43 seconds ago", in the largest unit of which there is one.
export function ago(seconds: number): string {
  const age = Math.max(0, Math.floor(seconds))
  const [size, unit] = TIME_PARTS.find(([one]) => age >= one) ?? TIME_PARTS[3]
  return formatter('ago', at => new Intl.RelativeTimeFormat(at, { numeric: 'always' })).format(
    -Math.floor(age / size),
    unit,
  )
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
export const binary = (text: string): string =>
  String.fromCharCode(...new TextEncoder().encode(text))
export const base64 = (text: string): string => btoa(binary(text))

export const byteLength = (text: string): number => new TextEncoder().encode(text).length

export const clock = (when: Date, seconds = true): string =>
  formatter(
    `clock ${seconds}`,
    at => new Intl.DateTimeFormat(at, { timeStyle: seconds ? 'medium' : 'short' }),
  ).format(when)
export const date = (when: Date): string =>
  formatter('date', at => new Intl.DateTimeFormat(at, { dateStyle: 'medium' })).format(when)

// Of a text such as "2025-11-01".
export function dayOf(text: string): string {
  const found = /^(\d{4})-(\d\d)-(\d\d)/.exec(text)
  return found ? date(new Date(Number(found[1]), Number(found[2]) - 1, Number(found[3]))) : text
}

// A time of day or, for another day, the date with it.
export function moment(seconds: number, now = new Date()): string {
  const when = new Date(seconds * 1000)
  return when.toDateString() === now.toDateString()
    ? clock(when, false)
    : `${date(when)}, ${clock(when, false)}`
}

// The time of a log, which the appliance writes in its own clock and one of its own formats. Null where it is another one.
export function logTime(text: string): Date | null {
  const found = /^(\d{4})[-/](\d\d)[-/](\d\d) (\d\d):(\d\d)(?::(\d\d))?$/.exec(text.trim())
  if (!found) return null
  const [year = 0, month = 1, day = 1, hour = 0, minute = 0, second = 0] = found
    .slice(1)
    .map(one => Number(one ?? 0))
  return new Date(year, month - 1, day, hour, minute, second)
}
export function logMoment(text: string): string {
  const when = logTime(text)
  return when ? `${date(when)}, ${clock(when)}` : text
}

// A count with its noun in the right number.
export function count(
  amount: number,
  one: Parameters<typeof t>[0],
  other: Parameters<typeof t>[0],
): string {
  return t(amount === 1 ? one : other, { n: number(amount) })
}
