// Who is connected to the servers now, how to disconnect them, and who is kept out.
import { useMemo, useState } from 'preact/hooks'
import { SLOW, call, data } from '../api'
import { bytes, count, duration, moment, rate } from '../format'
import { WIREGUARD, labelOf, type Hold, type Live } from '../model'
import { usePoll } from '../poll'
import { range } from '../rules'
import { t, type TextKey } from '../texts'
import { Button, Card, Dialog, Empty, Failure, Field, SortHead, Spinner, Table, say, useJob } from '../ui'

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
    uptimeWords: device ? t('connections.handshake', { ago: duration(one.uptime) }) : duration(one.uptime),
    down: one.rx_rate ?? 0,
    up: one.tx_rate ?? 0,
    total: [bytes(one.rx_total), bytes(one.tx_total)],
    device: one.device_info,
  }
}

const MOST_MINUTES = 10_080
// A device comes back at once unless it is kept out.
export const leastMinutes = (rows: readonly Pick<Row, 'type'>[]): number => (rows.some((one) => one.type === WIREGUARD) ? 1 : 0)
export const minutesFit = (text: string, least: number): boolean => range(least, MOST_MINUTES)(text) === null

function KickDialog({ rows, onClose, onKick }: { rows: readonly Row[]; onClose: () => void; onKick: (minutes: number) => void }) {
  const least = leastMinutes(rows)
  const [minutes, setMinutes] = useState(String(least * USUAL_MINUTES))
  const [tried, setTried] = useState(false)
  const fits = minutesFit(minutes, least)
  return (
    <Dialog title={count(rows.length, 'kick.one', 'kick.many')} onClose={onClose}>
      <p>{t('kick.text', { names: rows.map((one) => one.name).slice(0, 5).join(', ') + (rows.length > 5 ? ' …' : '') })}</p>
      <Field
        label={t('kick.minutes', { least, most: MOST_MINUTES })}
        help={t(least ? 'kick.device' : 'kick.minutesHelp')}
        error={tried && !fits ? t('rule.range', { least, most: MOST_MINUTES }) : undefined}
      >
        {(ids) => <input {...ids} type="number" min={least} max={MOST_MINUTES} value={minutes} onInput={(event) => setMinutes(event.currentTarget.value)} />}
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
      <Table label={t('holds')} heads={[t('logs.user'), t('holds.until'), t('holds.by'), <span class="unseen">{t('actions')}</span>]}>
        {holds.map((one) => (
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
              <Button label={t('holds.liftName', { name: one.name })} onClick={() => onLift(one.who)}>
                {t('holds.lift')}
              </Button>
            </td>
          </tr>
        ))}
      </Table>
    </Card>
  )
}

type Column = 'name' | 'type' | 'source' | 'inside' | 'uptime' | 'down' | 'up'
const HEADS: readonly (readonly [Column, TextKey])[] = [
  ['name', 'logs.user'],
  ['type', 'protocol'],
  ['source', 'logs.from'],
  ['inside', 'logs.inside'],
  ['uptime', 'connections.since'],
  ['down', 'logs.in'],
  ['up', 'logs.out'],
]

export function sorted<T>(rows: readonly T[], field: keyof T, down: boolean): T[] {
  const sign = down ? -1 : 1
  return [...rows].sort((a, b) => {
    const [left, right] = [a[field], b[field]]
    return sign * (typeof left === 'number' && typeof right === 'number' ? left - right : String(left).localeCompare(String(right)))
  })
}

export function ConnectionsPage() {
  const [field, setField] = useState<Column>('name')
  const [down, setDown] = useState(false)
  const [picked, setPicked] = useState<ReadonlySet<string>>(new Set())
  const [asked, setAsked] = useState<readonly Row[] | null>(null)
  const job = useJob()
  const live = usePoll(async () => {
    const [connections, holds] = await Promise.all([data<Live[]>('connection/all'), data<Hold[]>('hold/list')])
    return { rows: connections.map(rowOf), holds }
  }, PAUSE)
  const rows = useMemo(() => sorted(live.value?.rows ?? [], field, down), [live.value, field, down])
  const chosen = rows.filter((row) => picked.has(row.id))

  const kick = (some: readonly Row[], minutes: number) => {
    setAsked(null)
    void job.run('kick', async () => {
      try {
        await call('connection/end', { conn: some.map((one) => one.id), minutes }, SLOW)
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
  const toggle = (id: string, on: boolean) => {
    const next = new Set(picked)
    if (on) next.add(id)
    else next.delete(id)
    setPicked(next)
  }

  if (!live.value) return live.failure ? <Failure failure={live.failure} onRetry={live.refresh} /> : <Spinner />
  return (
    <>
      <Failure failure={job.failure ?? live.failure} />
      <Card
        title={count(rows.length, 'connections.one', 'connections.many')}
        side={
          <Button kind="danger" disabled={chosen.length === 0} busy={job.busy === 'kick'} onClick={() => setAsked(chosen)}>
            {t('kick.chosen', { n: chosen.length })}
          </Button>
        }
      >
        {rows.length === 0 ? (
          <Empty>{t('connections.none')}</Empty>
        ) : (
          <Table
            label={t('nav.connections')}
            heads={[
              <input
                type="checkbox"
                aria-label={t('connections.all')}
                checked={rows.length > 0 && chosen.length === rows.length}
                disabled={rows.length === 0}
                onChange={(event) => setPicked(new Set(event.currentTarget.checked ? rows.map((row) => row.id) : []))}
              />,
              ...HEADS.map(([name, label]) => (
                <SortHead
                  key={name}
                  active={field === name}
                  down={down}
                  onClick={() => {
                    setDown(field === name ? !down : false)
                    setField(name)
                  }}
                >
                  {t(label)}
                </SortHead>
              )),
              t('connections.total'),
              <span class="unseen">{t('actions')}</span>,
            ]}
          >
            {rows.map((row) => (
              <tr key={row.id}>
                <td>
                  <input
                    type="checkbox"
                    aria-label={t('connections.pick', { name: row.name })}
                    checked={picked.has(row.id)}
                    onChange={(event) => toggle(row.id, event.currentTarget.checked)}
                  />
                </td>
                <td>
                  <bdi class="name">{row.name}</bdi>
                  {row.device && <bdi class="soft block">{row.device}</bdi>}
                </td>
                <td>{labelOf(row.type)}</td>
                <td>{row.source}</td>
                <td>{row.inside}</td>
                <td>{row.uptimeWords}</td>
                <td class="figure">{row.type === WIREGUARD ? '' : rate(row.down)}</td>
                <td class="figure">{row.type === WIREGUARD ? '' : rate(row.up)}</td>
                <td class="figure">
                  {row.total[0]} /<span class="block">{row.total[1]}</span>
                </td>
                <td>
                  <Button label={t('kick.name', { name: row.name })} onClick={() => setAsked([row])}>
                    {t('kick.now')}
                  </Button>
                </td>
              </tr>
            ))}
          </Table>
        )}
      </Card>
      <Holds holds={live.value.holds} onLift={lift} />
      {asked && <KickDialog rows={asked} onClose={() => setAsked(null)} onKick={(minutes) => kick(asked, minutes)} />}
    </>
  )
}
