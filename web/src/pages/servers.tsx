// The servers of the appliance, one form for each protocol.
import { PublicAddress, publicAddress, withAddress } from '../address'
import { call, data, download, saveFile, SLOW } from '../api'
import { Fields, sent, useForm, type Choice } from '../form'
import { Damaged } from '../damaged'
import { count } from '../format'
import { CarefulSwitch, withCare } from '../goback'
import {
  OPENVPN,
  PROTOCOLS,
  SERVERS,
  WIREGUARD,
  labelOf,
  liveCount,
  type Connection,
  type Nic,
  type Peer,
  type Profile,
  type Protocol,
  type ServerProfile,
} from '../model'
import { later } from '../later'
import { usePoll } from '../poll'
import { readStatus, serverState, stateKey, type States } from '../reasons'
import { place } from '../router'
import { t } from '../texts'
import { Badge, Button, Card, Failure, Notice, SaveRow, Spinner, confirm, say, useJob } from '../ui'
import { Why } from './clients'
import { Peers } from './peers'
import { conflicts, serverRows, serverValues } from './servers.rows'

const PAUSE = 5_000
const Certificates = later(() => import('./certificates').then(page => page.CertificatesCard))

const interfaceChoices = (nics: readonly Nic[]): readonly Choice[] => [
  ['all', t('server.outAll')],
  ['none', t('server.outNone')],
  ...nics
    .filter(nic => /^(eth|dvs|br|bond|docker|lxcbr|ppp|tun|dtunc|wgc)\d+$/.test(nic.ifname))
    .map(
      (nic): Choice => [
        nic.ifname,
        nic.display_name && nic.display_name !== nic.ifname
          ? `${nic.display_name} (${nic.ifname})`
          : nic.ifname,
      ],
    ),
]

const PROFILE = 'config/download'
// With the address that the users can reach in it and in its name.
export async function saveProfile(content: Blob): Promise<void> {
  const host = publicAddress.peek()
  saveFile(
    `office-${host.replace(/[^A-Za-z0-9.-]+/g, '-')}.ovpn`,
    new Blob([withAddress(await content.text(), host)]),
  )
}

function Downloads({ profile, onDone }: { profile: ServerProfile; onDone: () => void }) {
  const job = useJob()
  const get = (route: string, fallback: string) =>
    job.run(route, async () => {
      const file = await download(route, fallback)
      if (route === PROFILE) await saveProfile(file.content)
      else saveFile(file.name, file.content)
      onDone()
    })
  return (
    <Card title={t('server.files')}>
      <p>
        {t('server.filesHelp')} <a href="#/rights">{t('server.toRights')}</a>
      </p>
      {Number(profile['download']) !== 0 && <Notice>{t('server.downloadAgain')}</Notice>}
      <PublicAddress />
      <Failure failure={job.failure} />
      <div class="row">
        <Button
          icon="download"
          busy={job.busy === PROFILE}
          onClick={() => void get(PROFILE, 'client.ovpn')}
        >
          {t('server.profile')}
        </Button>
        <Button
          icon="download"
          busy={job.busy === 'config/downloadcert'}
          onClick={() => void get('config/downloadcert', 'ca.crt')}
        >
          {t('server.certificate')}
        </Button>
      </div>
    </Card>
  )
}

interface Live {
  servers: ServerProfile[]
  connections: Connection[]
}

function ServerForm({
  profile,
  live,
  nics,
  onSaved,
}: {
  profile: ServerProfile
  live: Live
  nics: readonly Nic[]
  onSaved: () => void
}) {
  const rows = serverRows(profile.type, interfaceChoices(nics))
  const form = useForm(rows, serverValues(profile), true)
  const job = useJob()
  const peers = (profile['peers'] ?? []) as Peer[]
  const dropped = liveCount(profile.type, live.connections, peers)
  const inTheWay = conflicts(profile.type, form.values, live.servers)

  const makeKey = () =>
    job.run('key', async () => {
      const keys = await data<{ pri_key: string }>('peer/keys')
      form.set('server_pri_key', keys.pri_key)
    })

  const save = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    const on = form.values['enable'] === true
    const before = String(profile['server_pri_key'] ?? '')
    if (
      profile.type === WIREGUARD &&
      peers.length > 0 &&
      before &&
      form.values['server_pri_key'] !== before
    ) {
      const yes = await confirm({
        title: t('server.otherKey'),
        text: count(peers.length, 'server.otherKeyOne', 'server.otherKeyMany'),
        action: t('server.otherKeyNow'),
        danger: true,
      })
      if (!yes) return
    }
    if (profile.enable && (dropped > 0 || !on)) {
      const yes = await confirm({
        title: t(on ? 'server.restart' : 'server.stop', { server: labelOf(profile.type) }),
        text: count(dropped, 'server.dropsOne', 'server.drops'),
        more: form.changes(),
        action: t(on ? 'server.restartNow' : 'server.stopNow'),
        danger: true,
      })
      if (!yes) return
    }
    await job.run('save', async () => {
      const values = sent(rows, form.values)
      if (profile.type === WIREGUARD) {
        values['server_name'] = encodeURIComponent(values['server_name'] ?? '')
        if (!values['server_pri_key']) {
          const keys = await data<{ pri_key: string }>('peer/keys')
          form.set('server_pri_key', keys.pri_key)
          values['server_pri_key'] = keys.pri_key
        }
      }
      await withCare(() => call('config/modify', { type: profile.type, ...values }, SLOW))
      form.settle()
      say('saved')
      onSaved()
    })
  }

  return (
    <form onSubmit={event => void save(event)} noValidate>
      <Fields rows={rows} form={form} />
      {profile.type === WIREGUARD && (
        <details>
          <summary>{t('server.replaceKey')}</summary>
          <div class="form">
            <p>{t('server.replaceKeyHelp')}</p>
            <div class="row">
              <Button kind="danger" busy={job.busy === 'key'} onClick={() => void makeKey()}>
                {t('server.newKey')}
              </Button>
            </div>
          </div>
        </details>
      )}
      {inTheWay.map(text => (
        <Notice key={text}>{text}</Notice>
      ))}
      {profile.enable && dropped > 0 && (
        <Notice>{count(dropped, 'server.willDropOne', 'server.willDrop')}</Notice>
      )}
      <CarefulSwitch />
      <SaveRow job={job}>
        {job.busy === 'save' && <span class="soft">{t('server.working')}</span>}
      </SaveRow>
    </form>
  )
}

// An appliance that tells no states has those that the settings say.
const shownState = (profile: ServerProfile | undefined, states: States) =>
  serverState(
    (profile && states.get(stateKey(profile))?.state) ?? (profile?.enable ? 'running' : 'off'),
  )

type ServerTabsProps = { servers: readonly ServerProfile[]; states: States; current: Protocol }
const ServerTabs = ({ servers, states, current }: ServerTabsProps) => (
  <nav class="subnav" aria-label={t('nav.servers')}>
    {PROTOCOLS.map(one => {
      const shown = shownState(
        servers.find(server => server.type === one.server),
        states,
      )
      return (
        <a
          key={one.id}
          href={`#/servers/${one.id}`}
          aria-current={one === current ? 'page' : undefined}
        >
          {one.label}
          <Badge tone={shown.tone}>{t(shown.text)}</Badge>
        </a>
      )
    })}
  </nav>
)

export function ServersPage() {
  const current = PROTOCOLS.find(one => one.id === place.value[1]) ?? PROTOCOLS[0]
  const live = usePoll(async () => {
    const [servers, connections, status] = await Promise.all([
      data<Profile[] | null>('config/show', { type: SERVERS }),
      data<Connection[]>('connection/list'),
      readStatus(SERVERS),
    ])
    return { servers: (servers ?? []) as ServerProfile[], connections, ...status }
  }, PAUSE)
  const nics = usePoll(() => data<Nic[] | null>('misc/nic').catch(() => []), 0)

  if (!live.value || (!nics.value && !nics.failure))
    return live.failure ? <Failure failure={live.failure} onRetry={live.refresh} /> : <Spinner />
  const profile = live.value.servers.find(one => one.type === current?.server)
  if (!profile || !current) return null
  const truth = live.value.states.get(stateKey(profile))
  const shown = shownState(profile, live.value.states)
  return (
    <>
      <ServerTabs servers={live.value.servers} states={live.value.states} current={current} />
      {live.value.fault && <Damaged fault={live.value.fault} />}
      <Failure failure={live.failure} />
      <Card
        title={current.label}
        side={
          <>
            <span class="soft">
              {t('overview.live', {
                n: liveCount(
                  profile.type,
                  live.value.connections,
                  (profile['peers'] ?? []) as Peer[],
                ),
              })}
            </span>
            <Badge tone={shown.tone}>{t(shown.text)}</Badge>
          </>
        }
      >
        {truth?.reason && <Why reason={truth.reason} />}
        <ServerForm
          key={current.id}
          profile={profile}
          live={live.value}
          nics={nics.value ?? []}
          onSaved={live.refresh}
        />
      </Card>
      {profile.type === OPENVPN && (
        <>
          <Downloads profile={profile} onDone={live.refresh} />
          <Certificates
            dropped={liveCount(profile.type, live.value.connections, [])}
            onDone={live.refresh}
          />
        </>
      )}
      {profile.type === WIREGUARD && <Peers profile={profile} onChanged={live.refresh} />}
    </>
  )
}
