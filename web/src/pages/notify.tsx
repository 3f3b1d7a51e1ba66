// Who is notified of which events, the latest of them, and what the keeper keeps running.
import { useState } from 'preact/hooks'
import { call, data } from '../api'
import { Fields, useForm, type FieldRow } from '../form'
import { duration, moment } from '../format'
import { usePoll } from '../poll'
import { required } from '../rules'
import { SecretOnce } from '../secretonce'
import { t, textOr, type TextKey } from '../texts'
import {
  Badge,
  Button,
  Card,
  Dialog,
  Empty,
  Facts,
  Failure,
  Icon,
  Notice,
  SaveRow,
  Spinner,
  Table,
  confirm,
  say,
  useJob,
  type Tone,
} from '../ui'

export interface Report {
  at: number
  level: 'information' | 'warning' | 'error'
  text: string
}
interface Receiver {
  name: string
  url: string
  events: string // kinds with blanks between them, or "all"
  at?: number
  status?: number
  milliseconds?: number
  failure?: string
}
interface Kind {
  kind: string
  text: string
}
interface Kept {
  section: string
  name: string
  state: string
  since: number
  restarts: number
  restarted: number
  reason: string
  code: string
}

const PAUSE = 10_000
const TEST_PAUSE = 1000
const TEST_TRIES = 40 // the keeper tries three times, ten seconds each
const TONES: Record<Report['level'], Tone> = { information: 'off', warning: 'warn', error: 'bad' }

const rows: readonly FieldRow[] = [
  { name: 'name', label: 'name', rule: required },
  { name: 'url', label: 'notify.url', rule: required, help: 'notify.urlHelp' },
]

// The kinds as the program wants them: all of them are the word for all, those of later versions too.
export const eventsOf = (
  picked: ReadonlySet<string>,
  kinds: readonly string[],
): string | undefined =>
  kinds.every(one => picked.has(one)) ? undefined : kinds.filter(one => picked.has(one)).join(',')

function ReceiverDialog({
  receiver: old,
  kinds,
  onClose,
  onSaved,
}: {
  receiver: Receiver | null
  kinds: readonly Kind[]
  onClose: () => void
  onSaved: (secret: string) => void
}) {
  const fields = old ? rows.slice(1) : rows
  const form = useForm(fields, { name: old?.name ?? '', url: old?.url ?? '' })
  const known = kinds.map(one => one.kind)
  const [picked, setPicked] = useState<ReadonlySet<string>>(
    new Set(old && old.events !== 'all' ? old.events.split(' ') : known),
  )
  const job = useJob()
  const toggle = (kind: string, on: boolean) =>
    setPicked(new Set(on ? [...picked, kind] : [...picked].filter(one => one !== kind)))
  const save = async (event: Event) => {
    event.preventDefault()
    if (!form.check() || picked.size === 0) return
    await job.run('save', async () => {
      const { data: made } = await call<{ secret?: string } | undefined>('notify/set', {
        name: old?.name ?? String(form.values['name']).trim(),
        url: String(form.values['url']).trim(),
        events: eventsOf(picked, known),
      })
      onSaved(made?.secret ?? '')
    })
  }
  return (
    <Dialog title={t(old ? 'notify.editTitle' : 'notify.add')} onClose={onClose}>
      <form onSubmit={event => void save(event)} noValidate>
        <Fields rows={fields} form={form} />
        <fieldset class="picks">
          <legend>{t('notify.events')}</legend>
          {kinds.map(({ kind, text }) => (
            <label key={kind}>
              <input
                type="checkbox"
                checked={picked.has(kind)}
                onChange={event => toggle(kind, event.currentTarget.checked)}
              />
              <span>{textOr(`kind.${kind}`, text)}</span>
            </label>
          ))}
        </fieldset>
        {picked.size === 0 && (
          <p class="error" role="alert">
            {t('notify.none')}
          </p>
        )}
        <SaveRow job={job}>
          <Button onClick={onClose}>{t('cancel')}</Button>
        </SaveRow>
      </form>
    </Dialog>
  )
}

const deliveryOf = (one: Receiver): string => {
  if (!one.at) return t('notify.never')
  if (one.failure) return t('notify.failed', { when: moment(one.at), why: one.failure })
  return t('notify.delivered', { when: moment(one.at), ms: one.milliseconds ?? 0 })
}

// The first question begins the test; the answer comes as soon as the receiver has answered.
async function tryOut(name: string): Promise<Receiver> {
  const { test } = await data<{ test: number }>('notify/test', { name })
  for (let tries = 0; tries < TEST_TRIES; tries++) {
    const found = await data<Receiver & { done: boolean }>('notify/test', { test })
    if (found.done) return { ...found, name }
    await new Promise(go => setTimeout(go, TEST_PAUSE))
  }
  return { name, url: '', events: '', at: Date.now() / 1000, failure: t('notify.noAnswer') }
}

function Receivers({
  receivers,
  kinds,
  onChanged,
}: {
  receivers: readonly Receiver[]
  kinds: readonly Kind[]
  onChanged: () => void
}) {
  const [open, setOpen] = useState<Receiver | 'new' | null>(null)
  const [secret, setSecret] = useState('')
  const [tried, setTried] = useState<Receiver | null>(null)
  const job = useJob()
  const drop = async (one: Receiver) => {
    if (
      !(await confirm({
        title: t('remove.name', { name: one.name }),
        text: t('notify.removeText', { url: one.url }),
        action: t('remove'),
        danger: true,
      }))
    )
      return
    await job.run(`remove ${one.name}`, async () => {
      await call('notify/set', { name: one.name, remove: '1' })
      say('removed')
      onChanged()
    })
  }
  const test = (one: Receiver) =>
    job.run(`test ${one.name}`, async () => {
      setTried(null)
      setTried(await tryOut(one.name))
      onChanged()
    })
  return (
    <Card
      title={t('notify.receivers')}
      side={
        <Button icon="plus" onClick={() => setOpen('new')}>
          {t('notify.add')}
        </Button>
      }
    >
      <Failure failure={job.failure} />
      {tried && (
        <Notice tone={tried.failure ? 'bad' : 'good'}>
          <strong>{tried.name}</strong> <span>{deliveryOf(tried)}</span>
        </Notice>
      )}
      {receivers.length === 0 ? (
        <Empty>{t('notify.nobody')}</Empty>
      ) : (
        <Table
          label={t('notify.receivers')}
          heads={[t('name'), t('notify.url'), t('notify.last'), t('actions')]}
        >
          {receivers.map(one => (
            <tr key={one.name}>
              <td data-label={t('name')}>
                <bdi>{one.name}</bdi>
              </td>
              <td data-label={t('notify.url')}>
                <bdi class="wrap">{one.url}</bdi>
              </td>
              <td data-label={t('notify.last')}>{deliveryOf(one)}</td>
              <td data-label="">
                <div class="row">
                  <Button
                    busy={job.busy === `test ${one.name}`}
                    label={t('notify.testName', { name: one.name })}
                    onClick={() => void test(one)}
                  >
                    {t('notify.test')}
                  </Button>
                  <Button label={t('edit.name', { name: one.name })} onClick={() => setOpen(one)}>
                    {t('edit')}
                  </Button>
                  <Button
                    label={t('remove.name', { name: one.name })}
                    onClick={() => void drop(one)}
                  >
                    {t('remove')}
                  </Button>
                </div>
              </td>
            </tr>
          ))}
        </Table>
      )}
      {open && (
        <ReceiverDialog
          receiver={open === 'new' ? null : open}
          kinds={kinds}
          onClose={() => setOpen(null)}
          onSaved={made => {
            setOpen(null)
            setSecret(made)
            if (!made) say('saved')
            onChanged()
          }}
        />
      )}
      {secret && (
        <SecretOnce
          title={t('notify.secretTitle')}
          text={t('notify.secretText')}
          secret={secret}
          onClose={() => setSecret('')}
        />
      )}
    </Card>
  )
}

const Latest = ({ reports }: { reports: readonly Report[] }) => (
  <Card title={t('notify.latest')}>
    {reports.length === 0 ? (
      <Empty>{t('notify.quiet')}</Empty>
    ) : (
      <Table
        label={t('notify.latest')}
        heads={[t('notify.when'), t('notify.level'), t('notify.what')]}
      >
        {reports.map((one, at) => (
          <tr key={at}>
            <td data-label={t('notify.when')}>{moment(one.at)}</td>
            <td data-label={t('notify.level')}>
              <Badge tone={TONES[one.level]}>{t(`level.${one.level}`)}</Badge>
            </td>
            <td data-label={t('notify.what')}>
              <bdi>{one.text}</bdi>
            </td>
          </tr>
        ))}
      </Table>
    )}
  </Card>
)

const KeptCard = ({ kept, now }: { kept: readonly Kept[]; now: number }) => (
  <Card title={t('keeper.title')}>
    <p class="help">{t('keeper.help')}</p>
    {kept.length === 0 ? (
      <Empty>{t('keeper.nothing')}</Empty>
    ) : (
      <Facts
        rows={kept.map(
          one =>
            [
              one.name || one.section,
              [
                t('keeper.state', {
                  state: textOr(`kept.${one.state}`, one.state),
                  for: duration(Math.max(0, now - one.since)),
                }),
                one.restarts > 0
                  ? t('keeper.restarts', { n: one.restarts, when: moment(one.restarted) })
                  : '',
                one.code && textOr(`why.${one.code}`, one.reason),
              ]
                .filter(Boolean)
                .join(' · '),
            ] as const,
        )}
      />
    )}
  </Card>
)

export function NotifyPage() {
  const { value, failure, refresh } = usePoll(async () => {
    const [reports, receivers, kinds, kept] = await Promise.all([
      data<Report[]>('notify/recent'),
      data<Receiver[]>('notify/list'),
      data<Kind[]>('notify/kinds'),
      data<Kept[]>('keeper/show'),
    ])
    markSeen(reports)
    return { reports, receivers, kinds, kept, now: Date.now() / 1000 }
  }, PAUSE)
  if (!value) return failure ? <Failure failure={failure} onRetry={refresh} /> : <Spinner />
  return (
    <>
      <Failure failure={failure} onRetry={refresh} />
      <Latest reports={value.reports} />
      <Receivers receivers={value.receivers} kinds={value.kinds} onChanged={refresh} />
      <KeptCard kept={value.kept} now={value.now} />
    </>
  )
}

const PLACE = 'ormel.seen' // the time of the newest report that has been looked at here
export const unseen = (reports: readonly Report[], seen: number): number =>
  reports.filter(one => one.at > seen && one.level !== 'information').length
const seenUntil = (): number => Number(localStorage.getItem(PLACE) ?? 0) || 0
function markSeen(reports: readonly Report[]): void {
  const newest = Math.max(0, ...reports.map(one => one.at))
  if (newest > seenUntil()) localStorage.setItem(PLACE, String(newest))
}

const BELL_PAUSE = 30_000
export function Bell() {
  const { value } = usePoll(() => data<Report[]>('notify/recent'), BELL_PAUSE)
  const fresh = unseen(value ?? [], seenUntil())
  const label: TextKey = fresh === 0 ? 'bell.none' : fresh === 1 ? 'bell.one' : 'bell.some'
  return (
    <a
      class="button quiet bell"
      href="#/notify"
      aria-label={t(label, { n: fresh })}
      title={t(label, { n: fresh })}
    >
      <Icon name="bell" />
      {fresh > 0 && <span class="count">{fresh > 99 ? '99+' : fresh}</span>}
    </a>
  )
}
