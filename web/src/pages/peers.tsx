// The peers of the WireGuard server: a record for each device, and what that device needs to know.
import type { ComponentChildren } from 'preact'
import { useState } from 'preact/hooks'
import { PublicAddress, publicAddress } from '../address'
import { call, data } from '../api'
import { Fields, sent, useForm, type FieldRow, type Values } from '../form'
import { bytes, bytesOf, date, decodeName } from '../format'
import { Handout } from '../handout'
import { List, usual, type ShownColumn, type ShownFilter } from '../list'
import { handshakeAge, handshakeWords, isLive, type Peer, type ServerProfile } from '../model'
import { usePoll } from '../poll'
import {
  address,
  all,
  atMost,
  endpoint,
  freeAddress,
  key,
  optional,
  range,
  required,
} from '../rules'
import { t } from '../texts'
import {
  Badge,
  Button,
  Card,
  Dialog,
  Failure,
  Notice,
  SaveRow,
  Switch,
  confirm,
  say,
  useJob,
} from '../ui'
import { deviceConfig } from '../wireguard'

const PAUSE = 10_000
const OWN_KEY = (values: Values) => values['own_key'] === true

const rowsFor = (isNew: boolean): readonly FieldRow[] => [
  { name: 'peer_name', label: 'name', rule: all(required, atMost(600)) },
  { name: 'address', label: 'peer.address', rule: address },
  {
    name: 'own_key',
    label: 'peer.ownKey',
    kind: 'switch',
    when: () => isNew,
    help: 'peer.ownKeyHelp',
  },
  {
    name: 'peer_pub_key',
    label: 'peer.publicKey',
    kind: 'key',
    rule: key,
    when: values => !isNew || OWN_KEY(values),
  },
  {
    name: 'keepalive',
    label: 'peer.keepalive',
    kind: 'number',
    rule: range(0, 65535),
    limits: [0, 65535],
    help: 'peer.keepaliveHelp',
    more: true,
  },
  { name: 'expires', label: 'peer.expires', kind: 'date', help: 'peer.expiresHelp', more: true },
  {
    name: 'peer_endpoint',
    label: 'peer.endpoint',
    rule: optional(endpoint),
    help: 'peer.endpointHelp',
    more: true,
  },
  {
    name: 'psk',
    label: 'peer.psk',
    kind: 'secret',
    rule: optional(key),
    help: 'peer.pskHelp',
    more: true,
  },
]

// From when on a device is kept out: by its public key, in seconds since 1970.
export type Limits = ReadonlyMap<string, number>
const readLimits = async (): Promise<Limits> => {
  const rows = await data<{ who: string; since: number }[]>('peer/limits').catch(() => [])
  return new Map(rows.map(row => [row.who, row.since]))
}
// The first second of a day of the form "2026-11-26" in the clock of the reader, 0 for no day; and back.
export const dayStart = (day: string): number =>
  day ? new Date(`${day}T00:00:00`).getTime() / 1000 : 0
export function dayAt(seconds: number): string {
  const when = new Date(seconds * 1000)
  const two = (value: number) => String(value).padStart(2, '0')
  return seconds > 0
    ? `${when.getFullYear()}-${two(when.getMonth() + 1)}-${two(when.getDate())}`
    : ''
}
const seconds = (): number => Math.floor(Date.now() / 1000)

// 32 bytes by chance, which is all that a pre-shared key is.
export const newSecret = (): string =>
  btoa(String.fromCharCode(...crypto.getRandomValues(new Uint8Array(32))))

export interface Device {
  name: string
  address: string
  privateKey: string // "" where the device has its own
  psk: string
  keepalive: number
}

export function DeviceDialog({
  device,
  profile,
  onClose,
}: {
  device: Device
  profile: ServerProfile
  onClose: () => void
}) {
  const host = publicAddress.value
  const [everything, setEverything] = useState(true)
  const text = deviceConfig({
    ...device,
    serverKey: String(profile['server_pub_key']),
    endpoint: `${host.includes(':') ? `[${host}]` : host}:${String(profile['port'])}`,
    allowed: everything
      ? '0.0.0.0/0'
      : `${String(profile['server_ip'])}/${String(profile['server_mask'])}`,
    dns: profile['enable_dns'] ? String(profile['manual_dns']) : '',
  })
  return (
    <Handout
      name={device.name}
      text={text}
      once={device.privateKey !== ''}
      unkept={t('peer.unkeptText')}
      copies
      onClose={onClose}
    >
      <PublicAddress />
      <Switch label={t('peer.everything')} on={everything} onChange={setEverything} />
    </Handout>
  )
}

// Adds a device, with a key pair that is made here unless it has its own.
export async function addDevice(fields: Record<string, string>, ownKey = false): Promise<Device> {
  const { address: inside = '', expires = '', ...values } = fields
  const keys = ownKey ? null : await data<{ pri_key: string; pub_key: string }>('peer/keys')
  if (keys) values['peer_pub_key'] = keys.pub_key
  const name = values['peer_name'] ?? ''
  const peers = await data<Peer[]>('peer/add', {
    ...values,
    peer_name: encodeURIComponent(name),
    peer_allow_ip: `${inside}/32`,
  })
  const index = peers.find(one => one.peer_pub_key === values['peer_pub_key'])?.index
  if (expires) await call('peer/limit', { index, since: dayStart(expires) })
  say('peer.added')
  return {
    name,
    address: inside,
    privateKey: keys?.pri_key ?? '',
    psk: values['psk'] ?? '',
    keepalive: Number(values['keepalive']),
  }
}
export const nextAddress = (profile: ServerProfile, peers: readonly Peer[]): string =>
  freeAddress(
    String(profile['server_ip']),
    Number(profile['server_mask']),
    peers.map(one => one.peer_allow_ip),
  )

type PeerDialogProps = {
  profile: ServerProfile
  peers: readonly Peer[]
  peer: Peer | null
  since: number // of its limit, 0 without one
  onClose: () => void
  onDone: (device: Device | null) => void
}
function PeerDialog({ profile, peers, peer, since, onClose, onDone }: PeerDialogProps) {
  const expires = since > seconds() ? dayAt(since) : ''
  const rows = rowsFor(!peer)
  const job = useJob()
  const form = useForm(rows, {
    peer_name: peer ? decodeName(peer.peer_name) : '',
    address: peer ? (peer.peer_allow_ip.split('/')[0] ?? '') : nextAddress(profile, peers),
    own_key: false,
    expires,
    peer_pub_key: peer?.peer_pub_key ?? '',
    keepalive: peer?.keepalive ?? '25',
    peer_endpoint: peer?.peer_endpoint ?? '',
    psk: peer ? peer.psk : newSecret(),
  })

  const save = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    await job.run('save', async () => {
      const { own_key, ...values } = sent(rows, form.values)
      if (!peer) return onDone(await addDevice(values, own_key === 'true'))
      const { address: inside, expires: day = '', ...rest } = values
      await call('peer/modify', {
        ...rest,
        peer_name: encodeURIComponent(values['peer_name'] ?? ''),
        peer_allow_ip: `${inside ?? ''}/32`,
        index: peer.index,
      })
      if (day !== expires) await call('peer/limit', { index: peer.index, since: dayStart(day) })
      say('saved')
      onDone(null)
    })
  }

  return (
    <Dialog title={t(peer ? 'peer.edit' : 'peer.add')} onClose={onClose}>
      <form onSubmit={event => void save(event)} noValidate>
        <Fields rows={rows} form={form} />
        <SaveRow job={job} action={t(peer ? 'save' : 'peer.add')}>
          <Button onClick={onClose}>{t('cancel')}</Button>
        </SaveRow>
      </form>
    </Dialog>
  )
}

interface Row {
  peer: Peer
  name: string
  live: boolean
  age: number // seconds since its handshake, Infinity for never
  total: number
  since: number // of its limit, 0 without one
  disabled: boolean
}
const rowOf = (peer: Peer, limits: Limits): Row => ({
  since: limits.get(peer.peer_pub_key) ?? 0,
  disabled: (limits.get(peer.peer_pub_key) ?? Infinity) <= seconds(),
  peer,
  name: decodeName(peer.peer_name),
  live: isLive(peer),
  age: handshakeAge(peer.latest_handshake) ?? Infinity,
  total: bytesOf(peer.rx_total) + bytesOf(peer.tx_total),
})
const addressOf = (peer: Peer): string => peer.peer_allow_ip.replace('/32', '')
const USUAL = usual('name', false, 50)
const filters = (): readonly ShownFilter<Row>[] => [
  { name: 'on', label: t('state.on'), keeps: row => row.live },
  { name: 'off', label: t('state.off'), keeps: row => !row.live && row.age < Infinity },
  { name: 'disabled', label: t('peer.disabled'), keeps: row => row.disabled },
  { name: 'never', label: t('peer.never'), keeps: row => row.age === Infinity },
]
const columnsFor = (actions: (row: Row) => ComponentChildren): readonly ShownColumn<Row>[] => [
  {
    name: 'name',
    label: t('name'),
    sort: row => row.name,
    cell: row => <bdi class="name">{row.name}</bdi>,
  },
  {
    name: 'address',
    label: t('peer.address'),
    sort: row => addressOf(row.peer),
    cell: row => addressOf(row.peer),
  },
  {
    name: 'state',
    label: t('peer.state'),
    sort: row => (row.disabled ? 2 : row.live ? 0 : 1),
    cell: row => (
      <>
        <Badge tone={row.disabled ? 'warn' : row.live ? 'good' : 'off'}>
          {t(row.disabled ? 'peer.disabled' : row.live ? 'state.on' : 'state.off')}
        </Badge>
        {row.since > 0 && !row.disabled && (
          <span class="soft block">
            {t('peer.expiresOn', { date: date(new Date(row.since * 1000)) })}
          </span>
        )}
      </>
    ),
  },
  {
    name: 'seen',
    label: t('peer.handshake'),
    sort: row => row.age,
    cell: row => handshakeWords(row.peer.latest_handshake) || '–',
  },
  {
    name: 'total',
    label: t('connections.total'),
    figure: true,
    sort: row => row.total,
    cell: row =>
      row.peer.rx_total
        ? `${bytes(bytesOf(row.peer.rx_total))} / ${bytes(bytesOf(row.peer.tx_total))}`
        : '–',
  },
  {
    name: 'actions',
    label: '',
    head: () => <span class="unseen">{t('actions')}</span>,
    cell: actions,
  },
]

export function Peers({ profile, onChanged }: { profile: ServerProfile; onChanged: () => void }) {
  const peers = (profile['peers'] ?? []) as Peer[]
  const [edited, setEdited] = useState<{ peer: Peer | null } | null>(null)
  const [device, setDevice] = useState<Device | null>(null)
  const job = useJob()
  const usable = profile['server_pub_key'] !== ''
  const poll = usePoll(readLimits, PAUSE)
  const limits: Limits = poll.value ?? new Map()

  const limit = (peer: Peer, since: number) =>
    job.run(`limit ${peer.index}`, async () => {
      await call('peer/limit', { index: peer.index, since })
      say('saved')
      poll.refresh()
      onChanged()
    })

  // The private key is nowhere but on the device, so another one has to take its place.
  const renew = async (peer: Peer) => {
    const name = decodeName(peer.peer_name)
    const yes = await confirm({
      title: t('peer.renew', { name }),
      text: t('peer.renewText'),
      action: t('peer.renewNow'),
      danger: true,
    })
    if (!yes) return
    await job.run(`renew ${peer.index}`, async () => {
      const keys = await data<{ pri_key: string; pub_key: string }>('peer/keys')
      await call('peer/modify', {
        index: peer.index,
        peer_name: peer.peer_name,
        peer_pub_key: keys.pub_key,
        peer_allow_ip: peer.peer_allow_ip,
        peer_endpoint: peer.peer_endpoint,
        psk: peer.psk,
        keepalive: peer.keepalive,
      })
      setDevice({
        name,
        address: peer.peer_allow_ip.split('/')[0] ?? '',
        privateKey: keys.pri_key,
        psk: peer.psk,
        keepalive: Number(peer.keepalive),
      })
      onChanged()
    })
  }

  const remove = async (peer: Peer) => {
    const name = decodeName(peer.peer_name)
    const yes = await confirm({
      title: t('peer.remove', { name }),
      text: t('peer.removeText'),
      action: t('remove'),
      danger: true,
    })
    if (!yes) return
    await job.run('remove', async () => {
      await call('peer/remove', { index: peer.index })
      say('removed')
      onChanged()
    })
  }

  const rows = peers.map(peer => rowOf(peer, limits))
  const actions = ({ peer, name, disabled }: Row) => (
    <span class="row end">
      <Button label={t('edit.name', { name })} onClick={() => setEdited({ peer })}>
        {t('edit')}
      </Button>
      <Button
        label={t('peer.renewName', { name })}
        disabled={!usable}
        busy={job.busy === `renew ${peer.index}`}
        onClick={() => void renew(peer)}
      >
        {t('peer.new')}
      </Button>
      <Button
        label={t(disabled ? 'peer.enableName' : 'peer.disableName', { name })}
        busy={job.busy === `limit ${peer.index}`}
        onClick={() => void limit(peer, disabled ? 0 : seconds())}
      >
        {t(disabled ? 'peer.enable' : 'peer.disable')}
      </Button>
      <Button
        label={t('remove.name', { name })}
        busy={job.busy === 'remove'}
        onClick={() => void remove(peer)}
      >
        {t('remove')}
      </Button>
    </span>
  )

  return (
    <Card
      title={t('peer.title')}
      side={
        <Button
          kind="primary"
          icon="plus"
          disabled={!usable}
          onClick={() => setEdited({ peer: null })}
        >
          {t('peer.add')}
        </Button>
      }
    >
      {!usable && <Notice>{t('peer.noKey')}</Notice>}
      <Failure failure={job.failure} />
      <List
        label={t('peer.title')}
        rows={rows}
        textOf={row => `${row.name} ${addressOf(row.peer)} ${row.peer.peer_pub_key}`}
        keyOf={row => row.peer.index}
        columns={columnsFor(actions)}
        filters={filters()}
        usually={USUAL}
        empty={t('peer.none')}
      />
      {edited && (
        <PeerDialog
          profile={profile}
          peers={peers}
          peer={edited.peer}
          since={limits.get(edited.peer?.peer_pub_key ?? '') ?? 0}
          onClose={() => setEdited(null)}
          onDone={made => {
            setEdited(null)
            setDevice(made)
            poll.refresh()
            onChanged()
          }}
        />
      )}
      {device && <DeviceDialog device={device} profile={profile} onClose={() => setDevice(null)} />}
    </Card>
  )
}
