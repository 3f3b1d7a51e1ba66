// Whether somebody is at the page. Polling for nobody would keep the session from running out.
import { signal } from '@preact/signals'

const PATIENCE = 15 * 60_000 // milliseconds without a hand
const LOOK = 15_000
const HANDS = ['pointerdown', 'pointermove', 'keydown', 'wheel', 'touchstart'] as const

export const idle = signal(false)
let last = Date.now()

const hand = () => {
  last = Date.now()
  idle.value = false
}
const look = () => {
  idle.value = Date.now() - last >= PATIENCE
}

export function watchHands(): () => void {
  hand()
  for (const name of HANDS) window.addEventListener(name, hand, { passive: true, capture: true })
  const timer = setInterval(look, LOOK)
  return () => {
    for (const name of HANDS) window.removeEventListener(name, hand, { capture: true })
    clearInterval(timer)
  }
}
