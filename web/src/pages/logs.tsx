// What has happened: events, and the connections of servers and clients that are over.
import { useState } from 'preact/hooks'
import { call, download, saveFile } from '../api'
import { bytes, duration } from '../format'
import { CLIENTS, SERVERS, labelOf } from '../model'
import { usePoll } from '../poll'
import { page } from '../rules'
import { t, type TextKey } from '../texts'
import { Badge, Button, Card, Empty, Failure, Pager, SortHead, Spinner, Table, Tabs, confirm, say, useJob } from '../ui'

export interface LogEvent {
  id: string
  type: string
  date: string
  time: string
  user: string
  ip: string
  description: string
}
interface Session {
  id: number
  type: number
  time: string
  uptime: number
  action: number
  username: string
  tx_total: number
  rx_total: number
  real_ip?: string
  local_ip?: string
  remote_ip?: string
  source_ip?: string
  device_info?: string
}

type Kind = 'event' | 'server' | 'client'
const SIZE = 20
const PAUSE = 15_000

// Without the tag that all of them begin with.
export const eventWords = (one: LogEvent): string => one.description.replace(/^\[[^\]]*\]\s*/, '')

const LEVELS: Record<string, [TextKey, 'off' | 'warn' | 'bad']> = {
  '0': ['logs.info', 'off'],
  '1': ['logs.warning', 'warn'],
  '2': ['logs.error', 'bad'],
}

function Events({ rows, down, onSort }: { rows: LogEvent[]; down: boolean; onSort: () => void }) {
  return (
    <Table
      label={t('logs.event')}
      heads={[
        <SortHead active down={down} onClick={onSort}>
          {t('logs.time')}
        </SortHead>,
        t('logs.level'), t('logs.user'), t('logs.text'),
      ]}
    >
      {rows.map((one) => {
        const [label, tone] = LEVELS[one.type] ?? ['logs.info', 'off']
        return (
          <tr key={one.id}>
            <td class="nowrap">
              {one.date} {one.time}
            </td>
            <td>
              <Badge tone={tone}>{t(label)}</Badge>
            </td>
            <td>
              <bdi>{one.user}</bdi>
            </td>
            <td>
              <bdi>{eventWords(one)}</bdi>
            </td>
          </tr>
        )
      })}
    </Table>
  )
}

// The columns that both logs have, by their number in the log database, where 0 is the order of arrival.
const sortable = (kind: Kind): readonly (readonly [number, TextKey])[] => [
  [0, 'logs.time'],
  [2, 'protocol'],
  [1, kind === 'server' ? 'logs.user' : 'logs.profile'],
  [3, 'logs.length'],
]
const EVENTS: readonly TextKey[] = ['logs.began', 'logs.refused', 'logs.ended']

type SessionsProps = { rows: Session[]; field: number; down: boolean; onSort: (field: number) => void; kind: Kind }
function Sessions({ rows, field, down, onSort, kind }: SessionsProps) {
  return (
    <Table
      label={t(kind === 'server' ? 'logs.server' : 'logs.client')}
      heads={[
        ...sortable(kind).map(([number, label]) => (
          <SortHead key={number} active={field === number} down={down} onClick={() => onSort(number)}>
            {t(label)}
          </SortHead>
        )),
        t('logs.what'), t('logs.from'), t('logs.inside'), t('logs.in'), t('logs.out'),
      ]}
    >
      {rows.map((one) => (
        <tr key={one.id}>
          <td class="nowrap">{one.time}</td>
          <td>{labelOf(one.type)}</td>
          <td>
            <bdi class="name">{one.username}</bdi>
          </td>
          <td class="nowrap">{one.uptime > 0 ? duration(one.uptime) : ''}</td>
          <td>
            <Badge tone={one.action === 1 ? 'bad' : one.action === 0 ? 'good' : 'off'}>
              {t(EVENTS[one.action] ?? 'logs.ended')}
            </Badge>
          </td>
          <td>{one.source_ip ?? one.real_ip}</td>
          <td>{one.remote_ip ?? one.local_ip}</td>
          <td class="figure">{bytes(one.rx_total)}</td>
          <td class="figure">{bytes(one.tx_total)}</td>
        </tr>
      ))}
    </Table>
  )
}

export function LogsPage() {
  const [kind, setKind] = useState<Kind>('event')
  const [at, setAt] = useState(0)
  const [field, setField] = useState(0)
  const [down, setDown] = useState(true)
  const job = useJob()
  const log = usePoll(
    async () => {
      const form = { lower: at * SIZE, upper: at * SIZE + SIZE - 1 }
      const order = kind === 'event' ? { sort: down ? 0 : 1 } : { field, order: down ? 'desc' : 'asc' }
      const answer = await call<(LogEvent | Session)[] | null>(`log/${kind}`, { ...form, ...order })
      return { kind, rows: answer.data ?? [], total: answer.total ?? 0 }
    },
    PAUSE,
    [kind, at, field, down],
  )
  const value = log.value?.kind === kind ? log.value : undefined
  const pages = page(value?.total ?? 0, at, SIZE)
  const pick = (next: Kind) => {
    setKind(next)
    setAt(0)
    setDown(true)
    setField(0)
  }
  const sort = (next: number) => {
    setDown(next === field ? !down : true)
    setField(next)
    setAt(0)
  }

  const clean = async () => {
    const server = kind === 'server'
    const yes = await confirm({
      title: t('logs.clean'),
      text: t(server ? 'logs.cleanServer' : 'logs.cleanClient'),
      action: t('logs.cleanNow'),
      danger: true,
    })
    if (!yes) return
    await job.run('clean', async () => {
      await call('log/cleanup', { type: server ? SERVERS : CLIENTS })
      say('logs.cleaned')
      setAt(0)
      log.refresh()
    })
  }
  const archive = () =>
    job.run('dump', async () => {
      const file = await download('log/dump', 'ormel_dump_log.tar.gz')
      saveFile(file.name, file.content)
    })

  return (
    <>
      <div class="row spread">
        <Tabs
          label={t('nav.logs')}
          names={[
            ['event', t('logs.event')],
            ['server', t('logs.server')],
            ['client', t('logs.client')],
          ]}
          current={kind}
          onPick={pick}
        />
        <div class="row">
          {kind !== 'event' && (
            <Button onClick={() => void clean()} busy={job.busy === 'clean'} disabled={!value?.total}>
              {t('logs.clean')}
            </Button>
          )}
          <Button icon="download" onClick={() => void archive()} busy={job.busy === 'dump'}>
            {t('logs.archive')}
          </Button>
        </div>
      </div>
      <Failure failure={job.failure ?? log.failure} onRetry={log.refresh} />
      {!value && !log.failure && <Spinner />}
      {value && (
        <Card>
          {value.rows.length === 0 ? (
            <Empty>{t('logs.none')}</Empty>
          ) : kind === 'event' ? (
            <Events rows={value.rows as LogEvent[]} down={down} onSort={() => sort(field)} />
          ) : (
            <Sessions rows={value.rows as Session[]} field={field} down={down} onSort={sort} kind={kind} />
          )}
          <Pager total={value.total} current={pages.current} pages={pages.pages} onGo={setAt} />
        </Card>
      )}
    </>
  )
}
