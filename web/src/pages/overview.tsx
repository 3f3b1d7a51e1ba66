// Everything at a glance: what runs, who is on, what flows, what has happened.
import { useState } from 'preact/hooks'
import { call, data } from '../api'
import { ending, type Certificates } from '../certificates'
import { Damaged } from '../damaged'
import { ago, date, decodeName, duration, number, rate } from '../format'
import {
  CLIENTS,
  PROTOCOLS,
  SERVERS,
  WIREGUARD,
  handshakeAge,
  isLive,
  labelOf,
  liveCount,
  protocolOf,
  type ClientProfile,
  type Connection,
  type Peer,
  type Profile,
  type ServerProfile,
} from '../model'
import { usePoll } from '../poll'
import { readStatus, serverState, stateKey, stateOfStatus, whyOf, type Reason } from '../reasons'
import { t, type TextKey } from '../texts'
import { History, traffic, type InterfaceRate } from '../traffic'
import { Badge, Card, Empty, Failure, Notice, Spinner } from '../ui'
import { StateBadge, clientName, inOrder } from './clients'
import { type LogEvent, eventTime, eventWords } from './logs'
import { Roads } from './roads'
import { Traffic } from './traffic'
import { UserLink } from './user'

const LIVE = 2_000 // milliseconds between two looks at what moves fast
const SLOW = 5_000
const RARE = 15_000
const HARDLY_EVER = 600_000 // certificates end by the day
const SAMPLES = 150 // five minutes of them
const EVENTS = 6
const UNKNOWN = '–'
const MOST = 8 // lines of a card; the page of each has them all

const history = new History(SAMPLES) // goes on where it was when one comes back to the page

export interface Gateway {
  type: number
  index: number
}

export const gatewayName = (gateway: Gateway | undefined, profiles: readonly Profile[]): string => {
  if (!gateway?.type) return t('gateway.own')
  const found = profiles.find(
    one => one.type === gateway.type && (one as ClientProfile).index === gateway.index,
  )
  return found ? clientName(found as ClientProfile) : `${labelOf(gateway.type)} ${gateway.index}`
}

const Tile = ({
  label,
  value,
  note,
  to,
}: {
  label: string
  value: string | number
  note?: string
  to: string
}) => (
  <a class="tile" href={`#/${to}`}>
    <span>{label}</span>
    <strong>{value}</strong>
    <small>{note ?? ' '}</small>
  </a>
)

const Because = ({ reason }: { reason: Reason | null | undefined }) =>
  reason ? (
    <small class="soft">{reason.code === 'port-taken' ? reason.text : whyOf(reason)}</small>
  ) : null

// The end of a card that shows the first lines only.
const More = ({ hidden, to }: { hidden: number; to: string }) =>
  hidden > 0 ? <a href={`#/${to}`}>{t('overview.more', { n: number(hidden) })}</a> : null

// An appliance that lists no certificates has no warning.
function Ending() {
  const list = usePoll(() => data<Certificates>('cert/list').catch(() => null), HARDLY_EVER)
  const all = ending(list.value?.certificates ?? [])
  const first = all[0]
  if (!first) return null
  return (
    <Notice tone={first.state === 'over' ? 'bad' : 'warn'}>
      <span>
        {t(all.length === 1 ? 'cert.warnOne' : 'cert.warn', {
          n: number(all.length),
          what: t(`certRole.${first.role}` as TextKey, { profile: decodeName(first.profile) }),
          date: date(new Date(first.not_after * 1000)),
        })}
      </span>{' '}
      <a href="#/servers/openvpn">{t('cert.warnGo')}</a>
    </Notice>
  )
}

export function OverviewPage() {
  const [leading, setLeading] = useState(false) // a first run has begun
  const live = usePoll(async () => {
    const [connections, interfaces] = await Promise.all([
      data<Connection[]>('connection/list'),
      data<InterfaceRate[]>('misc/interface_rate').catch(() => [] as InterfaceRate[]),
    ])
    return { connections, points: history.add(Date.now() / 1000, traffic(connections, interfaces)) }
  }, LIVE)
  const slow = usePoll(async () => {
    const [profiles, gateway, status] = await Promise.all([
      data<Profile[] | null>('config/show', { type: SERVERS | CLIENTS }),
      data<Gateway>('gateway/get_vpn_gw'),
      readStatus(SERVERS | CLIENTS),
    ])
    return { profiles: profiles ?? [], gateway, ...status }
  }, SLOW)
  const events = usePoll(() => call<LogEvent[]>('log/event', { lower: 0, upper: EVENTS - 1 }), RARE)

  const failure = live.failure ?? slow.failure
  if (!slow.value || !live.value)
    return failure ? (
      <Failure failure={failure} onRetry={() => (live.refresh(), slow.refresh())} />
    ) : (
      <Spinner />
    )

  const { profiles, gateway, states, fault } = slow.value
  const { connections, points } = live.value
  const servers = PROTOCOLS.map(one =>
    profiles.find(profile => profile.type === one.server),
  ).filter((one): one is ServerProfile => Boolean(one))
  const clients = profiles.filter(one => (one.type & CLIENTS) !== 0) as ClientProfile[]
  const peers = (profiles.find(one => Array.isArray(one['peers']))?.['peers'] ?? []) as Peer[]
  const serverTruth = (one: ServerProfile) =>
    states.get(stateKey(one))?.state ?? (one.enable ? 'running' : 'off')
  const lead = leading || (!fault && clients.length === 0 && servers.every(one => !one.enable))
  const clientTruth = (one: ClientProfile) =>
    states.get(stateKey(one))?.state ?? stateOfStatus(one.status)
  const on = servers.filter(one => serverTruth(one) === 'running').length
  const up = clients.filter(one => clientTruth(one) === 'up').length
  const devices = peers.filter(isLive)

  return (
    <>
      <Failure failure={failure} />
      {fault && <Damaged fault={fault} />}
      <Ending />
      {lead && <Roads open={leading} onOpen={open => (setLeading(open), slow.refresh())} />}
      <div class="tiles">
        <Tile
          label={t('overview.serversOn')}
          value={fault ? UNKNOWN : `${on} / ${servers.length}`}
          to="servers"
        />
        <Tile
          label={t('overview.online')}
          value={connections.length + devices.length}
          to="connections"
        />
        <Tile
          label={t('overview.tunnels')}
          value={fault ? UNKNOWN : `${up} / ${clients.length}`}
          to="clients"
        />
        <Tile label={t('overview.gateway')} value={gatewayName(gateway, profiles)} to="gateway" />
      </div>
      {!lead && <Traffic points={points} />}
      <div class="columns">
        <Card title={t('nav.servers')}>
          <ul class="rows">
            {servers.map(one => (
              <li key={one.type}>
                <a href={`#/servers/${protocolOf(one.type)?.id ?? ''}`}>{labelOf(one.type)}</a>
                <span class="soft">
                  {t('overview.live', { n: liveCount(one.type, connections, peers) })}
                </span>
                <Badge tone={serverState(serverTruth(one)).tone}>
                  {t(serverState(serverTruth(one)).text)}
                </Badge>
                <Because reason={states.get(stateKey(one))?.reason} />
              </li>
            ))}
          </ul>
        </Card>
        <Card title={t('overview.clients')}>
          {clients.length === 0 && <Empty>{t('overview.noTunnels')}</Empty>}
          <ul class="rows">
            {inOrder(clients, clientTruth)
              .slice(0, MOST)
              .map(one => (
                <li key={`${one.type}-${one.index}`}>
                  <bdi class="name">{clientName(one)}</bdi>
                  <span class="soft">{labelOf(one.type)}</span>
                  <StateBadge state={clientTruth(one)} />
                  <Because reason={states.get(stateKey(one))?.reason} />
                </li>
              ))}
          </ul>
          <More hidden={clients.length - MOST} to="clients" />
        </Card>
        <Card title={t('overview.who')}>
          {connections.length + devices.length === 0 && <Empty>{t('connections.none')}</Empty>}
          <ul class="rows">
            {connections.slice(0, MOST).map(one => (
              <li key={one.target}>
                <UserLink name={one.name} />
                <span class="soft">
                  {labelOf(one.type)} · {duration(one.uptime)}
                </span>
                <span class="figure">{rate(one.rx_rate + one.tx_rate)}</span>
              </li>
            ))}
            {devices.slice(0, Math.max(0, MOST - connections.length)).map(one => (
              <li key={one.peer_pub_key}>
                <bdi class="name">{decodeName(one.peer_name)}</bdi>
                <span class="soft">
                  {labelOf(WIREGUARD)} ·{' '}
                  {t('connections.handshake', {
                    ago: ago(handshakeAge(one.latest_handshake) ?? 0),
                  })}
                </span>
              </li>
            ))}
          </ul>
          <More hidden={connections.length + devices.length - MOST} to="connections" />
        </Card>
        <Card title={t('overview.events')}>
          {events.value?.data.length === 0 && <Empty>{t('logs.none')}</Empty>}
          <ul class="rows events">
            {events.value?.data.map(one => (
              <li key={one.id}>
                <span class="soft">{eventTime(one)}</span>
                <bdi>{eventWords(one)}</bdi>
              </li>
            ))}
          </ul>
        </Card>
      </div>
    </>
  )
}
