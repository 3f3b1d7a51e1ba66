// Changes that go back by themselves unless somebody confirms them: the switch beside a form, and the band that counts
// down. The code stays with the tab, so that a new login does not lose it.
import { signal } from '@preact/signals'
import { useEffect, useState } from 'preact/hooks'
import { ApiError, call, data, SLOW } from './api'
import { usePoll } from './poll'
import { session } from './session'
import { t } from './texts'
import { Button, Failure, Field, Notice, Switch, say, useJob } from './ui'

export interface PendingChange {
  pending: boolean
  user?: string
  seconds?: number
  mine?: boolean
}

const SECONDS = 90
const PAUSE = 10_000
const PLACE = 'ormel.code'

function stored(): string {
  try {
    return sessionStorage.getItem(PLACE) ?? ''
  } catch {
    return ''
  }
}

const careful = signal(false)
const code = signal(stored())
const begun = signal(0) // counts, so that the band looks at once

// A browser that stores nothing has the code until the page is loaded again.
function keep(text: string): void {
  code.value = text
  try {
    if (text) sessionStorage.setItem(PLACE, text)
    else sessionStorage.removeItem(PLACE)
  } catch {
    // the code is in memory
  }
  begun.value++
}

export const CarefulSwitch = () => (
  <Switch
    label={t('goback.switch')}
    help={t('goback.switchHelp', { n: SECONDS })}
    on={careful.value}
    onChange={on => (careful.value = on)}
    wide
  />
)

// What a failure leaves open. A refusal of the program is its last word; without an answer, the work may have been done.
export const isRefusal = (failure: unknown): boolean =>
  failure instanceof ApiError && failure.kind === 'code'

// Runs a change. With the switch on it goes back unless it is confirmed, and does not begin where that cannot be had.
export async function withCare(work: () => Promise<unknown>): Promise<void> {
  if (!careful.peek()) {
    await work()
    return
  }
  const waits = await data<PendingChange>('change/pending')
  const first = code.peek() === '' || !waits.pending || !waits.mine
  if (first) keep((await data<{ code: string }>('change/begin', { seconds: String(SECONDS) })).code)
  try {
    await work()
  } catch (failure) {
    // Where this fails as well, the band goes on counting; what is shown is the first failure.
    if (first && isRefusal(failure))
      await call('change/revert', {}, SLOW).then(
        () => keep(''),
        () => undefined,
      )
    throw failure
  }
}

// Whole seconds until `end`, a time of this browser's clock in milliseconds.
export const secondsLeft = (end: number, now: number): number =>
  Math.max(0, Math.ceil((end - now) / 1000))

function useCountdown(seconds: number | undefined): number {
  const [end, setEnd] = useState(() => performance.now() + (seconds ?? 0) * 1000)
  const [now, setNow] = useState(() => performance.now())
  useEffect(() => {
    const time = performance.now()
    setNow(time)
    setEnd(time + (seconds ?? 0) * 1000)
    const timer = setInterval(() => setNow(performance.now()), 1000)
    return () => clearInterval(timer)
  }, [seconds])
  return secondsLeft(end, now)
}

function Band({ change, onEnd }: { change: PendingChange; onEnd: () => void }) {
  const left = useCountdown(change.seconds)
  const [typed, setTyped] = useState('')
  const job = useJob()
  const end = (route: string, said: 'goback.kept' | 'goback.reverted', form: { code?: string }) =>
    job.run(route, async () => {
      await call(route, form, SLOW)
      keep('')
      say(said)
      onEnd()
    })
  if (!change.mine)
    return <Notice>{t('goback.other', { user: change.user ?? '', n: left })}</Notice>
  // No alert: one whose words change every second would be read out every second.
  return (
    <Notice>
      <strong>{t('goback.mine', { n: left })}</strong>
      {code.value === '' && (
        <Field label={t('goback.code')}>
          {control => (
            <input {...control} value={typed} onInput={e => setTyped(e.currentTarget.value)} />
          )}
        </Field>
      )}
      <div class="row">
        <Button
          kind="primary"
          busy={job.busy === 'change/confirm'}
          onClick={() =>
            void end('change/confirm', 'goback.kept', { code: code.value || typed.trim() })
          }
        >
          {t('goback.keep')}
        </Button>
        <Button
          busy={job.busy === 'change/revert'}
          onClick={() => void end('change/revert', 'goback.reverted', {})}
        >
          {t('goback.now')}
        </Button>
      </div>
      <Failure failure={job.failure} />
    </Notice>
  )
}

// For administrators, on every page.
export function PendingBand() {
  const asked = usePoll(() => data<PendingChange>('change/pending'), PAUSE, [
    begun.value,
    session.sid.value,
  ])
  const change = asked.value
  const over = change !== undefined && !change.pending
  useEffect(() => {
    if (over && code.peek() !== '') keep('')
  }, [over])
  return change?.pending ? <Band change={change} onEnd={asked.refresh} /> : null
}
