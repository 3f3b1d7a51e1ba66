// Who is connected to the servers now, and how to throw somebody out.
import { useMemo, useState } from 'preact/hooks'
import { call, data } from '../api'
import { bytes, count, decodeName, duration, rate } from '../format'
import { WIREGUARD, handshakeAge, isLive, labelOf, type Connection, type Peer } from '../model'
import { usePoll } from '../poll'
import { t, type TextKey } from '../texts'
import { Button, Card, Empty, Failure, SortHead, Spinner, Table, confirm, say, useJob } from '../ui'

const PAUSE = 2_000

interface Row {
  id: string // as the kick names it, "" for one that cannot be kicked
  key: string
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

const fromConnection = (one: Connection): Row => ({
  id: `${one.type}|${one.target}`,
  key: `${one.type}|${one.target}`,
  name: one.name,
  type: one.type,
  source: one.source_ip,
  inside: one.allocate_ip,
  uptime: one.uptime,
  uptimeWords: duration(one.uptime),
  down: one.rx_rate,
  up: one.tx_rate,
  total: [bytes(one.rx_total), bytes(one.tx_total)],
  device: one.device_info,
})

const fromPeer = (one: Peer): Row => ({
  id: '',
  key: `${WIREGUARD}|${one.peer_pub_key}`,
  name: decodeName(one.peer_name),
  type: WIREGUARD,
  source: one.peer_endpoint,
  inside: one.peer_allow_ip.replace('/32', ''),
  uptime: -(handshakeAge(one.latest_handshake) ?? 0),
  uptimeWords: t('connections.handshake', { ago: duration(handshakeAge(one.latest_handshake) ?? 0) }),
  down: 0,
  up: 0,
  total: [one.rx_total, one.tx_total],
  device: '',
})

type Field = 'name' | 'type' | 'source' | 'inside' | 'uptime' | 'down' | 'up'
const HEADS: readonly (readonly [Field, TextKey])[] = [
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
  const [field, setField] = useState<Field>('name')
  const [down, setDown] = useState(false)
  const [picked, setPicked] = useState<ReadonlySet<string>>(new Set())
  const job = useJob()
  const live = usePoll(async () => {
    const [connections, peers] = await Promise.all([data<Connection[]>('connection/list'), data<Peer[]>('peer/list')])
    return [...connections.map(fromConnection), ...peers.filter(isLive).map(fromPeer)]
  }, PAUSE)
  const rows = useMemo(() => sorted(live.value ?? [], field, down), [live.value, field, down])
  const chosen = rows.filter((row) => row.id && picked.has(row.id))
  const kickable = rows.filter((row) => row.id)

  const kick = async (some: readonly Row[]) => {
    const yes = await confirm({
      title: count(some.length, 'kick.one', 'kick.many'),
      text: t('kick.text', { names: some.map((one) => one.name).slice(0, 5).join(', ') + (some.length > 5 ? ' …' : '') }),
      action: t('kick.now'),
      danger: true,
    })
    if (!yes) return
    await job.run('kick', async () => {
      await call('connection/kick', { conn: some.map((one) => one.id) })
      setPicked(new Set())
      say('kick.done')
      live.refresh()
    })
  }
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
          <Button kind="danger" disabled={chosen.length === 0} busy={job.busy === 'kick'} onClick={() => void kick(chosen)}>
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
                checked={kickable.length > 0 && chosen.length === kickable.length}
                disabled={kickable.length === 0}
                onChange={(event) => setPicked(new Set(event.currentTarget.checked ? kickable.map((row) => row.id) : []))}
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
              <tr key={row.key}>
                <td>
                  {row.id && (
                    <input
                      type="checkbox"
                      aria-label={t('connections.pick', { name: row.name })}
                      checked={picked.has(row.id)}
                      onChange={(event) => toggle(row.id, event.currentTarget.checked)}
                    />
                  )}
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
                  {row.id && (
                    <Button label={t('kick.name', { name: row.name })} onClick={() => void kick([row])}>
                      {t('kick.now')}
                    </Button>
                  )}
                </td>
              </tr>
            ))}
          </Table>
        )}
      </Card>
    </>
  )
}
