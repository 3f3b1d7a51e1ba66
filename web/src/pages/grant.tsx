// Until when a user may use the servers, and how many WireGuard devices of their own they may have.
import { call } from '../api'
import { Fields, useForm, type FieldRow } from '../form'
import { date, moment } from '../format'
import { WIREGUARD } from '../model'
import { all, range, required, type Rule } from '../rules'
import { t } from '../texts'
import { Button, Dialog, SaveRow, say, useJob } from '../ui'
import { dayAt } from './peers'

export interface Grant {
  user: string
  until: Record<string, number> // seconds since 1970, by server
  devices: number
  in_use: number
}

// The last second of a day of the form "2026-12-31" in the clock of the reader, 0 for no day.
export const dayEnd = (day: string): number =>
  day ? new Date(`${day}T23:59:59`).getTime() / 1000 : 0

// The earliest end; 0 without any.
export const firstEnd = (grant: Grant | undefined): number => {
  const ends = Object.values(grant?.until ?? {})
  return ends.length > 0 ? Math.min(...ends) : 0
}

// A date, and its time unless that is the last second of the day.
export const endWords = (end: number): string =>
  end === dayEnd(dayAt(end)) ? date(new Date(end * 1000)) : moment(end)

const ahead: Rule = text => (text !== '' && dayEnd(text) <= Date.now() / 1000 ? 'rule.past' : null)
const MOST = 100
const ROWS: readonly FieldRow[] = [
  { name: 'until', label: 'grant.until', kind: 'date', rule: ahead, help: 'grant.untilHelp' },
  {
    name: 'devices',
    label: 'grant.devices',
    kind: 'number',
    rule: all(required, range(0, MOST)),
    limits: [0, MOST],
    help: 'grant.devicesHelp',
  },
]

export function GrantDialog({
  user,
  mask,
  grant,
  onClose,
  onSaved,
}: {
  user: string
  mask: number // the rights that the end is for
  grant: Grant | undefined
  onClose: () => void
  onSaved: () => void
}) {
  const stored = firstEnd(grant)
  const form = useForm(ROWS, {
    until: dayAt(stored),
    devices: String(grant?.devices ?? 0),
  })
  const job = useJob()
  const save = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    const day = String(form.values['until'])
    await job.run('save', async () => {
      await call('grant/set', {
        user,
        type: mask | WIREGUARD,
        until: day === dayAt(stored) ? stored : dayEnd(day), // a time that was set elsewhere stays
        devices: form.values['devices'],
      })
      say('saved')
      onSaved()
    })
  }
  return (
    <Dialog title={t('grant.title', { user })} onClose={onClose}>
      <form onSubmit={event => void save(event)} noValidate>
        <Fields rows={ROWS} form={form} />
        <SaveRow job={job}>
          <Button onClick={onClose}>{t('cancel')}</Button>
        </SaveRow>
      </form>
    </Dialog>
  )
}
