// The page that the address names behind its "#/": a name and what follows it.
import { signal } from '@preact/signals'

const read = (): string[] => location.hash.replace(/^#\/?/, '').split('/').filter(Boolean)
export const place = signal(read())
let shown = location.hash
let mayLeave: () => Promise<boolean> = () => Promise.resolve(true)

// Is asked before another page takes the place of this one.
export const guard = (ask: () => Promise<boolean>): void => {
  mayLeave = ask
}

window.addEventListener('hashchange', () => {
  const wanted = location.hash
  if (wanted === shown) return
  const now = mayLeave()
  // The address stays that of the page until there is an answer.
  history.replaceState(null, '', shown || '#/')
  void now.then((yes) => {
    if (!yes) return
    shown = wanted
    history.replaceState(null, '', wanted)
    place.value = read()
  })
})
export const go = (path: string): void => {
  location.hash = `#/${path}`
}
