// Who is connected to the servers now, how to disconnect them, and who is kept out.
import { useState } from 'preact/hooks'
import { SLOW, call, data } from '../api'
import { ago, bytes, count, duration, moment, rate } from '../format'
import { List, usual, type ShownColumn, type ShownFilter } from '../list'
import { PROTOCOLS, WIREGUARD, labelOf, type Hold, type Live } from '../model'
import { usePoll } from '../poll'
import { range } from '../rules'
import { t } from '../texts'
import { Button, Card, Dialog, Failure, Field, Spinner, Table, say, useJob } from '../ui'
import { Spark } from '../spark'
import { Trails } from '../traffic'
import { UserLink } from './user'

const PAUSE = 2_000
const USUAL_MINUTES = 30

interface Row {
  id: string // as a request names it
  name: string
  type: number
  source: string
  inside: string
  uptime: number
  uptimeWords: string
  began: string // in the clock of the reader
  down: number
  up: number
  total: readonly [received: string, sent: string]
  device: string
}

// A device of WireGuard has no session: its time is that of its latest handshake, and nothing counts its rate.
export const rowOf = (one: Live): Row => {
  const id = `${one.type}|${one.target}`
  const device = one.type === WIREGUARD
  return {
    id,
    name: one.name,
    type: one.type,
    source: one.source_ip,
    inside: one.allocate_ip.replace('/32', ''),
    uptime: device ? -one.uptime : one.uptime,
    uptimeWords: device
      ? t('connections.handshake', { ago: ago(one.uptime) })
      : duration(one.uptime),
    began: moment(Date.now() / 1000 - one.uptime),
    down: one.rx_rate ?? 0,
    up: one.tx_rate ?? 0,
    total: [bytes(one.rx_total), bytes(one.tx_total)],
    device: one.device_info,
  }
}

const MOST_MINUTES = 10_080
// A device comes back at once unless it is kept out.
export const leastMinutes = (rows: readonly Pick<Row, 'type'>[]): number =>
  rows.some(one => one.type === WIREGUARD) ? 1 : 0
export const minutesFit = (text: string, least: number): boolean =>
  range(least, MOST_MINUTES)(text) === null

function KickDialog({
  rows,
  onClose,
  onKick,
}: {
  rows: readonly Row[]
  onClose: () => void
  onKick: (minutes: number) => void
}) {
  const least = leastMinutes(rows)
  const [minutes, setMinutes] = useState(String(least * USUAL_MINUTES))
  const [tried, setTried] = useState(false)
  const fits = minutesFit(minutes, least)
  return (
    <Dialog title={count(rows.length, 'kick.one', 'kick.many')} onClose={onClose}>
      <p>
        {t('kick.text', {
          names:
            rows
              .map(one => one.name)
              .slice(0, 5)
              .join(', ') + (rows.length > 5 ? ' …' : ''),
        })}
      </p>
      <Field
        label={t('kick.minutes', { least, most: MOST_MINUTES })}
        help={t(least ? 'kick.device' : 'kick.minutesHelp')}
        error={tried && !fits ? t('rule.range', { least, most: MOST_MINUTES }) : undefined}
      >
        {ids => (
          <input
            {...ids}
            type="number"
            min={least}
            max={MOST_MINUTES}
            value={minutes}
            onInput={event => setMinutes(event.currentTarget.value)}
          />
        )}
      </Field>
      <footer class="row end">
        <Button onClick={onClose}>{t('cancel')}</Button>
        <Button kind="danger" onClick={() => (fits ? onKick(Number(minutes)) : setTried(true))}>
          {t('kick.now')}
        </Button>
      </footer>
    </Dialog>
  )
}

function Holds({ holds, onLift }: { holds: readonly Hold[]; onLift: (who: string) => void }) {
  if (holds.length === 0) return null
  return (
    <Card title={t('holds')}>
      <Table
        label={t('holds')}
        heads={[
          t('logs.user'),
          t('holds.until'),
          t('holds.by'),
          <span class="unseen">{t('actions')}</span>,
        ]}
      >
        {holds.map(one => (
          <tr key={`${one.kind}|${one.who}`}>
            <td>
              <bdi class="name">{one.name}</bdi>
              {one.kind === 'peer' && <span class="soft block">{labelOf(WIREGUARD)}</span>}
            </td>
            <td>{moment(one.until)}</td>
            <td>
              <bdi>{one.by}</bdi>
            </td>
            <td>
              <Button
                label={t('holds.liftName', { name: one.name })}
                onClick={() => onLift(one.who)}
              >
                {t('holds.lift')}
              </Button>
            </td>
          </tr>
        ))}
      </Table>
    </Card>
  )
}

const TRAIL = 60 // samples
const trails = new Trails(TRAIL)
const USUAL = usual('name', false, 50)
const textOf = (row: Row): string =>
  `${row.name} ${labelOf(row.type)} ${row.source} ${row.inside} ${row.device}`
const filters = (rows: readonly Row[]): readonly ShownFilter<Row>[] =>
  PROTOCOLS.filter(one => rows.some(row => row.type === one.server)).map(one => ({
    name: one.id,
    label: one.label,
    keeps: row => row.type === one.server,
  }))

type Picking = {
  picked: ReadonlySet<string>
  pick: (ids: string[], on: boolean) => void
  kick: (row: Row) => void
}
const columnsFor = ({ picked, pick, kick }: Picking): readonly ShownColumn<Row>[] => [
  {
    name: 'pick',
    label: '',
    head: rows => (
      <input
        type="checkbox"
        aria-label={t('list.page')}
        checked={rows.length > 0 && rows.every(row => picked.has(row.id))}
        onChange={event =>
          pick(
            rows.map(row => row.id),
            event.currentTarget.checked,
          )
        }
      />
    ),
    cell: row => (
      <input
        type="checkbox"
        aria-label={t('connections.pick', { name: row.name })}
        checked={picked.has(row.id)}
        onChange={event => pick([row.id], event.currentTarget.checked)}
      />
    ),
  },
  {
    name: 'name',
    label: t('logs.user'),
    sort: row => row.name,
    cell: row => (
      <>
        {row.type === WIREGUARD ? <bdi class="name">{row.name}</bdi> : <UserLink name={row.name} />}
        {row.device && <bdi class="soft block">{row.device}</bdi>}
      </>
    ),
  },
  {
    name: 'type',
    label: t('protocol'),
    sort: row => labelOf(row.type),
    cell: row => labelOf(row.type),
  },
  { name: 'source', label: t('logs.from'), sort: row => row.source, cell: row => row.source },
  { name: 'inside', label: t('logs.inside'), sort: row => row.inside, cell: row => row.inside },
  {
    name: 'uptime',
    label: t('connections.since'),
    sort: row => row.uptime,
    cell: row => <span title={row.began}>{row.uptimeWords}</span>,
  },
  {
    name: 'rate',
    label: t('client.now'),
    figure: true,
    sort: row => row.down + row.up,
    cell: row =>
      row.type === WIREGUARD ? (
        '–'
      ) : (
        <>
          <Spark rates={trails.of(row.id)} size={TRAIL} />
          <span class="block">↓ {rate(row.down)}</span>
          <span class="block">↑ {rate(row.up)}</span>
        </>
      ),
  },
  {
    name: 'total',
    label: t('connections.total'),
    figure: true,
    cell: row => (
      <>
        {row.total[0]} /<span class="block">{row.total[1]}</span>
      </>
    ),
  },
  {
    name: 'actions',
    label: '',
    head: () => <span class="unseen">{t('actions')}</span>,
    cell: row => (
      <Button label={t('kick.name', { name: row.name })} onClick={() => kick(row)}>
        {t('kick.now')}
      </Button>
    ),
  },
]

export function ConnectionsPage() {
  const [picked, setPicked] = useState<ReadonlySet<string>>(new Set())
  const [asked, setAsked] = useState<readonly Row[] | null>(null)
  const job = useJob()
  const live = usePoll(async () => {
    const [connections, holds] = await Promise.all([
      data<Live[]>('connection/all'),
      data<Hold[]>('hold/list'),
    ])
    const rows = connections.map(rowOf)
    trails.add(new Map(rows.map(row => [row.id, row.down + row.up])))
    return { rows, holds }
  }, PAUSE)

  const kick = (some: readonly Row[], minutes: number) => {
    setAsked(null)
    void job.run('kick', async () => {
      try {
        await call('connection/end', { conn: some.map(one => one.id), minutes }, SLOW)
        setPicked(new Set())
        say(minutes > 0 ? 'kick.held' : 'kick.done')
      } finally {
        live.refresh()
      }
    })
  }
  const lift = (who: string) =>
    void job.run('lift', async () => {
      await call('hold/lift', { who }, SLOW)
      live.refresh()
    })
  const pick = (ids: string[], on: boolean) => {
    const next = new Set(picked)
    for (const id of ids) {
      if (on) next.add(id)
      else next.delete(id)
    }
    setPicked(next)
  }

  if (!live.value)
    return live.failure ? <Failure failure={live.failure} onRetry={live.refresh} /> : <Spinner />
  const { rows, holds } = live.value
  const chosen = rows.filter(row => picked.has(row.id))
  return (
    <>
      <Failure failure={job.failure ?? live.failure} />
      <Card
        title={count(rows.length, 'connections.one', 'connections.many')}
        side={
          <Button
            kind="danger"
            disabled={chosen.length === 0}
            busy={job.busy === 'kick'}
            onClick={() => setAsked(chosen)}
          >
            {t('kick.chosen', { n: chosen.length })}
          </Button>
        }
      >
        <List
          label={t('nav.connections')}
          rows={rows}
          textOf={textOf}
          keyOf={row => row.id}
          columns={columnsFor({ picked, pick, kick: row => setAsked([row]) })}
          filters={filters(rows)}
          usually={USUAL}
          empty={t('connections.none')}
        />
      </Card>
      <Holds holds={holds} onLift={lift} />
      {asked && (
        <KickDialog
          rows={asked}
          onClose={() => setAsked(null)}
          onKick={minutes => kick(asked, minutes)}
        />
      )}
    </>
  )
}
