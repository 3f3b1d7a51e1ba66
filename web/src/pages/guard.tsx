// The guard of the default gateway: whether anything may leave without a tunnel.
import { call } from '../api'
import { Fields, useForm, type FieldRow } from '../form'
import { CarefulSwitch, withCare } from '../goback'
import { t, type TextKey } from '../texts'
import { Button, Card, Failure, Notice, SaveRow, confirm, say, useJob, type Tone } from '../ui'

export interface Guard {
  mode: 'off' | 'on' | 'strict'
  local_network: string
  ipv6: string
  dns: string
  state: 'off' | 'idle' | 'paused' | 'guarding' | 'holding' | 'failed' | 'unknown'
  stopped?: { ipv4: number; ipv6: number; dns: number }
}

// The band above the page; nothing while all is as it should be.
const BANDS: Partial<Record<Guard['state'], readonly [Tone, TextKey]>> = {
  holding: ['bad', 'guard.holding'],
  failed: ['bad', 'guard.failed'],
  unknown: ['warn', 'guard.unknown'],
  paused: ['warn', 'guard.paused'],
}
export const bandOf = (guard: Guard): readonly [Tone, TextKey] | null =>
  guard.mode === 'off' && guard.state !== 'paused' ? null : (BANDS[guard.state] ?? null)

// All packets that the guard has stopped.
export const stoppedBy = ({ stopped }: Guard): number =>
  stopped ? stopped.ipv4 + stopped.ipv6 + stopped.dns : 0

export function GuardBand({
  guard,
  admin,
  onChanged,
}: {
  guard: Guard
  admin: boolean
  onChanged: () => void
}) {
  const job = useJob()
  const band = bandOf(guard)
  if (!band) return null
  const release = async () => {
    if (
      !(await confirm({
        title: t('guard.release'),
        text: t('guard.releaseText'),
        action: t('guard.release'),
        danger: true,
      }))
    )
      return
    await job.run('release', async () => {
      await call('guard/set', { pause: '1' })
      onChanged()
    })
  }
  return (
    <Notice tone={band[0]}>
      <strong>{t(band[1])}</strong>
      {stoppedBy(guard) > 0 && <span>{t('guard.stopped', { n: stoppedBy(guard) })}</span>}
      {admin && guard.state === 'holding' && (
        <Button busy={job.busy === 'release'} onClick={() => void release()}>
          {t('guard.release')}
        </Button>
      )}
      <Failure failure={job.failure} />
    </Notice>
  )
}

const on = (values: Record<string, string | boolean>) => values['mode'] !== 'off'
const rows: readonly FieldRow[] = [
  {
    name: 'mode',
    label: 'guard.mode',
    help: 'guard.modeHelp',
    choices: () => [
      ['off', t('guard.off')],
      ['on', t('guard.on')],
      ['strict', t('guard.strict')],
    ],
  },
  { name: 'lan', label: 'guard.lan', kind: 'switch', when: on, help: 'guard.lanHelp' },
  { name: 'dns', label: 'guard.dns', kind: 'switch', when: on, help: 'guard.dnsHelp' },
  { name: 'ipv6', label: 'guard.ipv6', kind: 'switch', when: on, help: 'guard.ipv6Help' },
]

// The form on the wire: switches as the words that the program takes.
export const guardForm = (values: Record<string, string | boolean>): Record<string, string> => ({
  mode: String(values['mode']),
  lan: values['lan'] ? '1' : '0',
  dns: values['dns'] ? 'tunnel' : 'any',
  ipv6: values['ipv6'] ? 'block' : 'pass',
})

export function GuardCard({ guard, onChanged }: { guard: Guard; onChanged: () => void }) {
  const form = useForm(
    rows,
    {
      mode: guard.mode,
      lan: guard.local_network !== '0',
      dns: guard.dns !== 'any',
      ipv6: guard.ipv6 !== 'pass',
    },
    true,
  )
  const job = useJob()
  const save = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    await job.run('save', async () => {
      await withCare(() => call('guard/set', guardForm(form.values)))
      say('saved')
      onChanged()
    })
  }
  return (
    <Card title={t('guard.title')}>
      <form onSubmit={event => void save(event)} noValidate>
        <Fields rows={rows} form={form} />
        <CarefulSwitch />
        <SaveRow job={job} />
      </form>
    </Card>
  )
}
