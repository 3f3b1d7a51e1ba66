// Where the focus goes when what had it disappears, such as a row that is removed: to the list, the card or the page
// around it, so that the keyboard goes on from there and not from the beginning.
const AROUND = '.scroller, section, dialog[open], main'

export function watchFocus(): () => void {
  let last: Element | null = null
  let around: HTMLElement[] = []
  const remember = ({ target }: FocusEvent) => {
    last = target instanceof Element ? target : null
    around = []
    for (let one = last?.parentElement?.closest<HTMLElement>(AROUND); one; )
      one = (around.push(one), one.parentElement?.closest<HTMLElement>(AROUND))
  }
  const restore = () => {
    if (!last || last.isConnected || document.activeElement !== document.body) return
    last = null
    const place = around.find(one => one.isConnected)
    if (!place) return
    if (!place.hasAttribute('tabindex')) place.tabIndex = -1
    place.focus({ preventScroll: true })
  }
  const watch = new MutationObserver(restore)
  document.addEventListener('focusin', remember)
  watch.observe(document.body, { childList: true, subtree: true })
  return () => {
    document.removeEventListener('focusin', remember)
    watch.disconnect()
  }
}
