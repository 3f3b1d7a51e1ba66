// The page that the address names behind its "#/": a name and what follows it.
import { signal } from '@preact/signals'

const read = (): string[] => location.hash.replace(/^#\/?/, '').split('/').filter(Boolean)
export const place = signal(read())
window.addEventListener('hashchange', () => {
  place.value = read()
})
export const go = (path: string): void => {
  location.hash = `#/${path}`
}
