// The address after its "#/": the path of a page, and what is chosen on it ("#/rights?q=anna&page=3").
import { signal } from '@preact/signals'

export type Query = Readonly<Record<string, string>>

const pathOf = (hash: string): string => hash.replace(/^#\/?/, '').split('?', 1)[0] ?? ''
const partsOf = (hash: string): string[] => pathOf(hash).split('/').filter(Boolean)
const queryOf = (hash: string): Query => {
  const at = hash.indexOf('?')
  return Object.fromEntries(new URLSearchParams(at < 0 ? '' : hash.slice(at + 1)))
}

const hash = (): string => (typeof location === 'undefined' ? '' : location.hash)
export const place = signal(partsOf(hash()))
export const query = signal<Query>(queryOf(hash()))
let shown = hash()
let mayLeave: () => Promise<boolean> = () => Promise.resolve(true)

// Is asked before another page takes the place of this one.
export const guard = (ask: () => Promise<boolean>): void => {
  mayLeave = ask
}

function show(wanted: string): void {
  shown = wanted
  history.replaceState(null, '', wanted || '#/')
  const parts = partsOf(wanted)
  if (parts.join('/') !== place.peek().join('/')) place.value = parts
  query.value = queryOf(wanted)
}

if (typeof window !== 'undefined')
  window.addEventListener('hashchange', () => {
    const wanted = location.hash
    if (wanted === shown) return
    if (pathOf(wanted) === pathOf(shown)) return show(wanted)
    const now = mayLeave()
    // The address stays that of the page until there is an answer.
    history.replaceState(null, '', shown || '#/')
    void now.then(yes => yes && show(wanted))
  })
export const go = (path: string): void => {
  location.hash = `#/${path}`
}

// Changes what is chosen on this page. An empty value is left out of the address.
export function choose(changes: Query): void {
  const left = Object.entries({ ...query.peek(), ...changes }).filter(([, value]) => value !== '')
  const text = new URLSearchParams(left).toString()
  show(`#/${place.peek().join('/')}${text && `?${text}`}`)
}
