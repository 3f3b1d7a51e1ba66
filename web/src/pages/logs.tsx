// What has happened: events, the connections of servers and clients that are over, and who changed what.
import { useState } from 'preact/hooks'
import { call, download, saveFile } from '../api'
import { csv } from '../csv'
import { bytes, clock, date, duration, logMoment } from '../format'
import { Pages, Rows, Tools, usual, type ShownColumn, type ShownFilter } from '../list'
import { lookOf, view, type Look } from '../listing'
import { CLIENTS, SERVERS, labelOf } from '../model'
import { usePoll } from '../poll'
import { choose, query } from '../router'
import { page } from '../rules'
import { t, type TextKey } from '../texts'
import {
  Badge,
  Button,
  Card,
  Empty,
  Failure,
  Notice,
  Spinner,
  Tabs,
  confirm,
  say,
  useJob,
  type Tone,
} from '../ui'
import { ACTIONS, REFUSED, UserLink, actionOf, refusalWords, type Entry } from './user'

export interface LogEvent {
  id: string
  type: string
  date: string
  time: string
  user: string
  ip: string
  description: string
}

export interface Change {
  field: string
  from: string
  to: string
}
export interface AuditEntry {
  id: number
  time: number
  user: string
  via: string
  ip: string
  action: string
  subject: string
  changes: readonly Change[]
  error: number
}

type Kind = 'event' | 'server' | 'client' | 'audit'
const KINDS: readonly Kind[] = ['event', 'server', 'client', 'audit']
const CLEANED: readonly Kind[] = ['server', 'client']
const PAUSE = 15_000
const MOST = 5_000 // rows that are searched
const USUAL = usual('time', true)

// Without the tag that all of them begin with.
export const eventWords = (one: LogEvent): string => one.description.replace(/^\[[^\]]*\]\s*/, '')
export const eventTime = (one: LogEvent): string => logMoment(`${one.date} ${one.time}`)

const LEVELS: readonly (readonly [TextKey, Tone])[] = [
  ['logs.info', 'off'],
  ['logs.warning', 'warn'],
  ['logs.error', 'bad'],
]
const levelOf = (one: LogEvent): readonly [TextKey, Tone] =>
  LEVELS[Number(one.type)] ?? ['logs.info', 'off']

type Row = LogEvent | Entry | AuditEntry
interface Shape<T extends Row> {
  route: string
  columns: () => readonly ShownColumn<T>[]
  filters: () => readonly ShownFilter<T>[]
  textOf: (row: T) => string
  order: (look: Look) => Record<string, string | number> // as the route wants it
  cells: (row: T) => readonly (string | number)[] // of a line of a file
  heads: () => readonly string[]
}

const EVENTS: Shape<LogEvent> = {
  route: 'log/event',
  columns: () => [
    {
      name: 'time',
      label: t('logs.time'),
      nowrap: true,
      sort: row => Number(row.id),
      cell: eventTime,
    },
    {
      name: 'level',
      label: t('logs.level'),
      cell: row => <Badge tone={levelOf(row)[1]}>{t(levelOf(row)[0])}</Badge>,
    },
    { name: 'user', label: t('logs.user'), cell: row => <bdi>{row.user}</bdi> },
    { name: 'text', label: t('logs.text'), cell: row => <bdi>{eventWords(row)}</bdi> },
  ],
  filters: () =>
    LEVELS.map(([label], at) => ({
      name: String(at),
      label: t(label),
      keeps: row => Number(row.type) === at,
    })),
  textOf: row => `${row.user} ${row.ip} ${row.date} ${row.time} ${eventWords(row)}`,
  order: look => ({ sort: look.down ? 0 : 1 }),
  cells: row => [`${row.date} ${row.time}`, t(levelOf(row)[0]), row.user, row.ip, eventWords(row)],
  heads: () => [t('logs.time'), t('logs.level'), t('logs.user'), t('logs.from'), t('logs.text')],
}

// The columns that both logs have, by their number in the log database, where 0 is the order of arrival.
const FIELDS: Record<string, number> = { time: 0, name: 1, type: 2, length: 3 }
const source = (row: Entry): string => row.source_ip ?? row.real_ip ?? ''
const inside = (row: Entry): string => row.remote_ip ?? row.local_ip ?? ''
const entries = (kind: 'server' | 'client'): Shape<Entry> => ({
  route: `log/${kind}`,
  columns: () => [
    {
      name: 'time',
      label: t('logs.time'),
      nowrap: true,
      sort: row => row.id,
      cell: row => logMoment(row.time),
    },
    { name: 'type', label: t('protocol'), sort: row => row.type, cell: row => labelOf(row.type) },
    {
      name: 'name',
      label: t(kind === 'server' ? 'logs.user' : 'logs.profile'),
      sort: row => row.username,
      cell: row =>
        kind === 'server' ? (
          <UserLink name={row.username} />
        ) : (
          <bdi class="name">{row.username}</bdi>
        ),
    },
    {
      name: 'what',
      label: t('logs.what'),
      cell: row => (
        <>
          <Badge tone={actionOf(row.action)[1]}>{t(actionOf(row.action)[0])}</Badge>
          {row.device_info && (
            <bdi class="soft block">
              {row.action === REFUSED ? refusalWords(row.device_info) : row.device_info}
            </bdi>
          )}
        </>
      ),
    },
    {
      name: 'length',
      label: t('logs.length'),
      nowrap: true,
      sort: row => row.uptime,
      cell: row => (row.uptime > 0 ? duration(row.uptime) : '–'),
    },
    { name: 'from', label: t('logs.from'), cell: source },
    { name: 'inside', label: t('logs.inside'), cell: inside },
    { name: 'in', label: t('logs.in'), figure: true, cell: row => bytes(row.rx_total) },
    { name: 'out', label: t('logs.out'), figure: true, cell: row => bytes(row.tx_total) },
  ],
  filters: () =>
    ACTIONS.map(([label], at) => ({
      name: String(at),
      label: t(label),
      keeps: row => row.action === at,
    })),
  textOf: row =>
    `${row.username} ${labelOf(row.type)} ${source(row)} ${inside(row)} ${row.time} ${row.device_info ?? ''}`,
  order: look => ({ field: FIELDS[look.sort] ?? 0, order: look.down ? 'desc' : 'asc' }),
  cells: row => [
    row.time,
    labelOf(row.type),
    row.username,
    t(actionOf(row.action)[0]),
    row.uptime,
    source(row),
    inside(row),
    row.rx_total,
    row.tx_total,
    row.device_info ?? '',
  ],
  heads: () => [
    t('logs.time'),
    t('protocol'),
    t('logs.user'),
    t('logs.what'),
    t('logs.length'),
    t('logs.from'),
    t('logs.inside'),
    t('logs.in'),
    t('logs.out'),
    t('logs.text'),
  ],
})

const UNFINISHED = -1
const WEB = 'web'
// A field and what became of it; a secret is only said to have changed.
export function changeWords({ field, from, to }: Change): string {
  if (from === '' && to === '') return field
  if (from === '' && to === 'changed') return t('audit.secret', { field })
  return `${field}: ${from || t('audit.none')} → ${to || t('audit.none')}`
}
export const changesWords = (row: AuditEntry): string => row.changes.map(changeWords).join('; ')
const resultOf = (row: AuditEntry): readonly [string, Tone] =>
  row.error === 0
    ? [t('audit.ok'), 'good']
    : row.error === UNFINISHED
      ? [t('audit.interrupted'), 'warn']
      : [t('audit.error', { code: row.error }), 'bad']
const origin = (row: AuditEntry): string => `${row.via} ${row.ip}`.trim()
const auditTime = (row: AuditEntry): string => {
  const when = new Date(row.time * 1000)
  return `${date(when)}, ${clock(when)}`
}
const SHOWN_CHANGES = 3

const AUDIT: Shape<AuditEntry> = {
  route: 'audit/list',
  columns: () => [
    { name: 'time', label: t('logs.time'), nowrap: true, sort: row => row.id, cell: auditTime },
    { name: 'user', label: t('logs.user'), cell: row => <bdi>{row.user || '–'}</bdi> },
    { name: 'from', label: t('logs.from'), cell: row => <bdi>{origin(row)}</bdi> },
    { name: 'what', label: t('logs.what'), cell: row => <bdi>{row.action}</bdi> },
    { name: 'subject', label: t('audit.subject'), cell: row => <bdi>{row.subject}</bdi> },
    {
      name: 'changes',
      label: t('audit.changes'),
      cell: row => (
        <>
          {row.changes.slice(0, SHOWN_CHANGES).map(one => (
            <bdi key={one.field} class="block">
              {changeWords(one)}
            </bdi>
          ))}
          {row.changes.length > SHOWN_CHANGES && (
            <details>
              <summary>{t('audit.more', { n: row.changes.length - SHOWN_CHANGES })}</summary>
              {row.changes.slice(SHOWN_CHANGES).map(one => (
                <bdi key={one.field} class="block">
                  {changeWords(one)}
                </bdi>
              ))}
            </details>
          )}
        </>
      ),
    },
    {
      name: 'result',
      label: t('audit.result'),
      cell: row => <Badge tone={resultOf(row)[1]}>{resultOf(row)[0]}</Badge>,
    },
  ],
  filters: () => [
    { name: 'web', label: t('audit.web'), keeps: row => row.via === WEB },
    { name: 'host', label: t('audit.host'), keeps: row => row.via !== WEB },
    { name: 'failed', label: t('audit.failed'), keeps: row => row.error !== 0 },
  ],
  textOf: row =>
    `${row.user} ${origin(row)} ${row.action} ${row.subject} ${changesWords(row)} ${auditTime(row)}`,
  order: look => ({ order: look.down ? 'desc' : 'asc' }),
  cells: row => [
    new Date(row.time * 1000).toISOString(),
    row.user,
    row.via,
    row.ip,
    row.action,
    row.subject,
    changesWords(row),
    row.error,
  ],
  heads: () => [
    t('logs.time'),
    t('logs.user'),
    t('audit.via'),
    t('logs.from'),
    t('logs.what'),
    t('audit.subject'),
    t('audit.changes'),
    t('audit.result'),
  ],
}
const SHAPES = {
  event: EVENTS,
  audit: AUDIT,
  server: entries('server'),
  client: entries('client'),
} as unknown as Record<Kind, Shape<Row>>

const ask = (shape: Shape<Row>, look: Look, lower: number, upper: number) =>
  call<Row[] | null>(shape.route, { lower, upper, ...shape.order(look) }).then(answer => ({
    rows: answer.data ?? [],
    total: answer.total ?? 0,
  }))

// A page of a log as the appliance cuts it or, once something is searched for, of the latest rows that match.
function Log({ kind }: { kind: Kind }) {
  const shape = SHAPES[kind]
  const look = lookOf(query.value, USUAL)
  const searches = look.q !== '' || look.filter !== ''
  const job = useJob()
  const log = usePoll(
    async () => {
      const [lower, upper] = searches
        ? [0, MOST - 1]
        : [look.page * look.size, (look.page + 1) * look.size - 1]
      return { kind, searches, ...(await ask(shape, look, lower, upper)) }
    },
    PAUSE,
    [kind, searches, ...(searches ? [] : [look.page, look.size, look.sort, look.down])],
  )
  const value = log.value?.kind === kind && log.value.searches === searches ? log.value : undefined
  const found =
    value && searches
      ? view(value.rows, shape.textOf, shape.columns(), shape.filters(), look)
      : null
  const whole = page(value?.total ?? 0, look.page, look.size)
  const seen = found ?? {
    rows: value?.rows ?? [],
    total: value?.total ?? 0,
    page: whole.current,
    pages: whole.pages,
    counts: null,
  }
  const server = kind === 'server'

  const clean = async () => {
    const text = t(server ? 'logs.cleanServer' : 'logs.cleanClient')
    if (
      !(await confirm({ title: t('logs.clean'), text, action: t('logs.cleanNow'), danger: true }))
    )
      return
    await job.run('clean', async () => {
      await call('log/cleanup', { type: server ? SERVERS : CLIENTS })
      say('logs.cleaned')
      choose({ page: '' })
      log.refresh()
    })
  }
  const toFile = () =>
    job.run('csv', async () => {
      const rows = found?.all ?? (await ask(shape, look, 0, MOST - 1)).rows
      saveFile(
        `ormel-${kind}.csv`,
        new Blob([csv([shape.heads(), ...rows.map(shape.cells)])], { type: 'text/csv' }),
      )
    })
  return (
    <Card>
      <Failure failure={job.failure ?? log.failure} onRetry={log.refresh} />
      <Tools look={look} usually={USUAL} filters={shape.filters()} counts={seen.counts}>
        <Button
          icon="download"
          busy={job.busy === 'csv'}
          disabled={!value?.total}
          onClick={() => void toFile()}
        >
          {t('logs.csv')}
        </Button>
        {CLEANED.includes(kind) && (
          <Button onClick={() => void clean()} busy={job.busy === 'clean'} disabled={!value?.total}>
            {t('logs.clean')}
          </Button>
        )}
      </Tools>
      {!value && !log.failure && <Spinner />}
      {value && searches && value.total > MOST && <Notice>{t('logs.most', { most: MOST })}</Notice>}
      {value && seen.rows.length === 0 && (
        <Empty>{t(searches ? 'list.nothing' : 'logs.none')}</Empty>
      )}
      {value && seen.rows.length > 0 && (
        <Rows
          label={t(`logs.${kind}`)}
          rows={seen.rows}
          keyOf={row => row.id}
          columns={shape.columns()}
          look={look}
          usually={USUAL}
        />
      )}
      {value && (
        <Pages total={seen.total} page={seen.page} pages={seen.pages} look={look} usually={USUAL} />
      )}
    </Card>
  )
}

export function LogsPage() {
  const job = useJob()
  const [kind, setKind] = useState<Kind>(KINDS.find(one => one === query.peek()['log']) ?? 'event')
  const archive = () =>
    job.run('dump', async () => {
      const file = await download('log/dump', 'ormel_dump_log.tar.gz')
      saveFile(file.name, file.content)
    })
  const pick = (next: Kind) => {
    setKind(next)
    choose({ log: next === 'event' ? '' : next, show: '', sort: '', page: '' })
  }
  return (
    <>
      <div class="row spread">
        <Tabs
          label={t('nav.logs')}
          names={KINDS.map(one => [one, t(`logs.${one}`)] as const)}
          current={kind}
          onPick={pick}
        />
        <Button icon="download" onClick={() => void archive()} busy={job.busy === 'dump'}>
          {t('logs.archive')}
        </Button>
      </div>
      <Failure failure={job.failure} />
      <Log key={kind} kind={kind} />
    </>
  )
}
