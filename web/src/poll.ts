// Asking again and again, for as long as somebody can see the answer.
import { useEffect, useRef, useState } from 'preact/hooks'
import type { ApiError } from './api'
import { idle } from './idle'
import { session } from './session'

const SLOWEST = 30_000 // milliseconds between two tries when nothing answers

export interface Polled<T> {
  value: T | undefined // the last good answer, kept while later ones fail
  failure: ApiError | null // of the last try
  refresh: () => void
}

// Calls `ask` at once and then every `interval` milliseconds after an answer. A hidden tab, a session that has run out
// and a page at which nobody is stop it; what fails is asked less and less often.
export function usePoll<T>(
  ask: () => Promise<T>,
  interval: number,
  keys: readonly unknown[] = [],
): Polled<T> {
  const [state, setState] = useState<{ value: T | undefined; failure: ApiError | null }>({
    value: undefined,
    failure: null,
  })
  const again = useRef<() => void>(() => undefined)

  useEffect(() => {
    let alive = true
    let running = false
    let wanted = false // somebody asked for fresh figures while an answer was on its way
    let pause = interval
    let timer: ReturnType<typeof setTimeout> | undefined

    const run = async (): Promise<void> => {
      clearTimeout(timer)
      if (document.hidden || idle.peek() || running) {
        wanted = running
        return
      }
      running = true
      try {
        const value = await ask()
        pause = interval
        if (alive) setState({ value, failure: null })
      } catch (failure) {
        pause = Math.min(pause * 2, SLOWEST)
        if (alive) setState(old => ({ value: old.value, failure: failure as ApiError }))
      }
      running = false
      if (!alive) return
      if (wanted) {
        wanted = false
        void run()
      } else if (interval > 0) timer = setTimeout(() => void run(), pause)
    }
    const seen = () => {
      if (!document.hidden && !idle.peek() && !session.expired.peek()) void run()
    }
    let away = idle.peek()
    const unwatch = idle.subscribe(now => {
      if (away && !now) seen()
      away = now
    })
    again.current = () => void run()
    document.addEventListener('visibilitychange', seen)
    void run()
    return () => {
      alive = false
      clearTimeout(timer)
      unwatch()
      document.removeEventListener('visibilitychange', seen)
    }
  }, keys)

  return { ...state, refresh: () => again.current() }
}
