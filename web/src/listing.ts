// What a list shows of its rows: those that match a search and a filter, in an order, one page of them.
import type { Query } from './router'

export interface Column<T> {
  name: string
  sort?: (row: T) => string | number // rows can be sorted by it
}
export interface Filter<T> {
  name: string
  keeps: (row: T) => boolean
}
export interface Look {
  q: string
  filter: string // the name of a filter, "" for all rows
  sort: string // the name of a column
  down: boolean
  page: number // from 0
  size: number
}
export const SIZES = [15, 50, 200] as const

const number = (text: string | undefined, fallback: number): number =>
  /^\d{1,6}$/.test(text ?? '') ? Number(text) : fallback

// What the address says, or else the usual look of the list.
export function lookOf(query: Query, usual: Look): Look {
  const sort = query['sort'] ?? ''
  const size = number(query['size'], usual.size)
  return {
    q: query['q'] ?? '',
    filter: query['show'] ?? '',
    sort: sort.replace(/^-/, '') || usual.sort,
    down: sort ? sort.startsWith('-') : usual.down,
    page: Math.max(0, number(query['page'], 1) - 1),
    size: SIZES.some(one => one === size) ? size : usual.size,
  }
}

// The address of a look. What is usual is left out.
export function queryFor(look: Look, usual: Look): Query {
  const sorted = look.sort !== usual.sort || look.down !== usual.down
  return {
    q: look.q,
    show: look.filter,
    sort: sorted ? `${look.down ? '-' : ''}${look.sort}` : '',
    page: look.page > 0 ? String(look.page + 1) : '',
    size: look.size === usual.size ? '' : String(look.size),
  }
}

export interface View<T> {
  rows: T[] // of the page
  all: T[] // of all pages
  total: number
  page: number
  pages: number
  counts: ReadonlyMap<string, number> // of the rows that match the search, by filter; "" for all of them
}

const byText = new Intl.Collator(undefined, { numeric: true, sensitivity: 'base' })
const compare = (a: string | number, b: string | number): number =>
  typeof a === 'number' && typeof b === 'number' ? a - b : byText.compare(String(a), String(b))

// Every word of a search has to be somewhere in the text of a row.
export function matches(text: string, search: string): boolean {
  const where = text.toLowerCase()
  return search
    .toLowerCase()
    .split(/\s+/)
    .every(word => where.includes(word))
}

export function view<T>(
  rows: readonly T[],
  textOf: (row: T) => string,
  columns: readonly Column<T>[],
  filters: readonly Filter<T>[],
  look: Look,
): View<T> {
  const found = rows.filter(row => matches(textOf(row), look.q))
  const counts = new Map([
    ['', found.length],
    ...filters.map((one): [string, number] => [one.name, found.filter(one.keeps).length]),
  ])
  const filter = filters.find(one => one.name === look.filter)
  const all = filter ? found.filter(filter.keeps) : found
  const key = columns.find(one => one.name === look.sort)?.sort
  if (key) {
    const sign = look.down ? -1 : 1
    const order = all.map((row, at) => ({ row, at, key: key(row) }))
    order.sort((a, b) => sign * compare(a.key, b.key) || a.at - b.at)
    all.splice(0, all.length, ...order.map(({ row }) => row))
  }
  const pages = Math.max(1, Math.ceil(all.length / look.size))
  const page = Math.min(look.page, pages - 1)
  return {
    rows: all.slice(page * look.size, (page + 1) * look.size),
    all,
    total: all.length,
    page,
    pages,
    counts,
  }
}
