// The peers of the WireGuard server: a record for each device, and what that device has to be told.
import { useEffect, useState } from 'preact/hooks'
import { call, data, saveFile } from '../api'
import { Fields, sent, useForm, type FieldRow, type Values } from '../form'
import { decodeName } from '../format'
import { isLive, type Nic, type Peer, type ServerProfile } from '../model'
import { QrCode } from '../qr'
import { address, all, atMost, endpoint, freeAddress, key, optional, range, required } from '../rules'
import { t } from '../texts'
import { Badge, Button, Card, Dialog, Empty, Failure, Field, Notice, Switch, Table, confirm, say, useJob } from '../ui'
import { deviceConfig, fileName } from '../wireguard'

const OWN_KEY = (values: Values) => values['own_key'] === true

const rowsFor = (isNew: boolean): readonly FieldRow[] => [
  { name: 'peer_name', label: 'name', rule: all(required, atMost(600)) },
  { name: 'address', label: 'peer.address', rule: address },
  { name: 'own_key', label: 'peer.ownKey', kind: 'switch', when: () => isNew, help: 'peer.ownKeyHelp' },
  { name: 'peer_pub_key', label: 'peer.publicKey', kind: 'key', rule: key, when: (values) => !isNew || OWN_KEY(values) },
  {
    name: 'keepalive', label: 'peer.keepalive', kind: 'number', rule: range(0, 65535), limits: [0, 65535],
    help: 'peer.keepaliveHelp', more: true,
  },
  { name: 'peer_endpoint', label: 'peer.endpoint', rule: optional(endpoint), help: 'peer.endpointHelp', more: true },
  { name: 'psk', label: 'peer.psk', kind: 'secret', rule: optional(key), help: 'peer.pskHelp', more: true },
]

// 32 bytes by chance, which is all that a pre-shared key is.
const newSecret = (): string => btoa(String.fromCharCode(...crypto.getRandomValues(new Uint8Array(32))))

interface Device {
  name: string
  address: string
  privateKey: string // "" where the device has its own
  psk: string
  keepalive: number
}

function DeviceDialog({ device, profile, onClose }: { device: Device; profile: ServerProfile; onClose: () => void }) {
  const [host, setHost] = useState(location.hostname)
  const [everything, setEverything] = useState(true)
  // Whoever came by a port of their own machine: no other device reaches the appliance by that.
  useEffect(() => {
    if (!/^(localhost|127\..*|\[::1\])$/.test(location.hostname)) return
    void data<Nic[] | null>('misc/nic').then(
      (nics) => setHost(nics?.find((nic) => nic.ip)?.ip ?? location.hostname),
      () => undefined,
    )
  }, [])
  const text = deviceConfig({
    ...device,
    serverKey: String(profile['server_pub_key']),
    endpoint: `${host}:${String(profile['port'])}`,
    allowed: everything ? '0.0.0.0/0' : `${String(profile['server_ip'])}/${String(profile['server_mask'])}`,
    dns: profile['enable_dns'] ? String(profile['manual_dns']) : '',
  })
  const [kept, setKept] = useState(!device.privateKey)
  const close = async () => {
    const yes = kept || (await confirm({ title: t('peer.unkept'), text: t('peer.unkeptText'), action: t('peer.close'), danger: true }))
    if (yes) onClose()
  }
  const copy = async () => {
    await navigator.clipboard.writeText(text)
    setKept(true)
    say('peer.copied')
  }
  return (
    <Dialog title={t('peer.device', { name: device.name })} onClose={() => void close()} wide>
      <Notice>{t('peer.once')}</Notice>
      <div class="device">
        <QrCode text={text} label={t('peer.qr')} />
        <div>
          <Field label={t('peer.host')} help={t('peer.hostHelp')}>
            {(ids) => <input {...ids} value={host} onInput={(event) => setHost(event.currentTarget.value.trim())} />}
          </Field>
          <Switch label={t('peer.everything')} on={everything} onChange={setEverything} />
          <pre tabIndex={0} aria-label={t('peer.file')}>
            {text}
          </pre>
          <div class="row">
            <Button
              kind="primary"
              icon="download"
              onClick={() => {
                saveFile(fileName(device.name), new Blob([text]))
                setKept(true)
              }}
            >
              {t('peer.file')}
            </Button>
            <Button onClick={() => void copy()}>{t('peer.copy')}</Button>
            <Button onClick={onClose}>{t('peer.done')}</Button>
          </div>
        </div>
      </div>
    </Dialog>
  )
}

type PeerDialogProps = {
  profile: ServerProfile
  peers: readonly Peer[]
  peer: Peer | null
  onClose: () => void
  onDone: (device: Device | null) => void
}
function PeerDialog({ profile, peers, peer, onClose, onDone }: PeerDialogProps) {
  const rows = rowsFor(!peer)
  const job = useJob()
  const form = useForm(rows, {
    peer_name: peer ? decodeName(peer.peer_name) : '',
    address: peer
      ? (peer.peer_allow_ip.split('/')[0] ?? '')
      : freeAddress(String(profile['server_ip']), Number(profile['server_mask']), peers.map((one) => one.peer_allow_ip)),
    own_key: false,
    peer_pub_key: peer?.peer_pub_key ?? '',
    keepalive: peer?.keepalive ?? '25',
    peer_endpoint: peer?.peer_endpoint ?? '',
    psk: peer ? peer.psk : newSecret(),
  })

  const save = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    await job.run('save', async () => {
      const { address: inside, own_key, ...values } = sent(rows, form.values)
      const name = values['peer_name'] ?? ''
      let privateKey = ''
      if (!peer && own_key !== 'true') {
        const keys = await data<{ pri_key: string; pub_key: string }>('peer/keys')
        privateKey = keys.pri_key
        values['peer_pub_key'] = keys.pub_key
      }
      await call(peer ? 'peer/modify' : 'peer/add', {
        ...values,
        peer_name: encodeURIComponent(name),
        peer_allow_ip: `${inside ?? ''}/32`,
        index: peer?.index,
      })
      say(peer ? 'saved' : 'peer.added')
      onDone(
        peer
          ? null
          : { name, address: inside ?? '', privateKey, psk: values['psk'] ?? '', keepalive: Number(values['keepalive']) },
      )
    })
  }

  return (
    <Dialog title={t(peer ? 'peer.edit' : 'peer.add')} onClose={onClose}>
      <form onSubmit={(event) => void save(event)} noValidate>
        <Fields rows={rows} form={form} />
        <Failure failure={job.failure} />
        <footer class="row end">
          <Button onClick={onClose}>{t('cancel')}</Button>
          <Button kind="primary" submit busy={job.busy === 'save'}>
            {t(peer ? 'save' : 'peer.add')}
          </Button>
        </footer>
      </form>
    </Dialog>
  )
}

export function Peers({ profile, onChanged }: { profile: ServerProfile; onChanged: () => void }) {
  const peers = (profile['peers'] ?? []) as Peer[]
  const [edited, setEdited] = useState<{ peer: Peer | null } | null>(null)
  const [device, setDevice] = useState<Device | null>(null)
  const job = useJob()
  const usable = profile['server_pub_key'] !== ''

  // The private key is nowhere but on the device, so another one has to take its place.
  const renew = async (peer: Peer) => {
    const name = decodeName(peer.peer_name)
    const yes = await confirm({ title: t('peer.renew', { name }), text: t('peer.renewText'), action: t('peer.renewNow'), danger: true })
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
    const yes = await confirm({ title: t('peer.remove', { name }), text: t('peer.removeText'), action: t('remove'), danger: true })
    if (!yes) return
    await job.run('remove', async () => {
      await call('peer/remove', { index: peer.index })
      say('removed')
      onChanged()
    })
  }

  return (
    <Card
      title={t('peer.title')}
      side={
        <Button kind="primary" icon="plus" disabled={!usable} onClick={() => setEdited({ peer: null })}>
          {t('peer.add')}
        </Button>
      }
    >
      {!usable && <Notice>{t('peer.noKey')}</Notice>}
      <Failure failure={job.failure} />
      {peers.length === 0 ? (
        <Empty>{t('peer.none')}</Empty>
      ) : (
        <Table
          label={t('peer.title')}
          heads={[
            t('name'), t('peer.address'), t('peer.state'), t('peer.handshake'), t('connections.total'),
            <span class="unseen">{t('actions')}</span>,
          ]}
        >
          {peers.map((peer) => {
            const name = decodeName(peer.peer_name)
            return (
              <tr key={peer.index}>
                <td>
                  <bdi class="name">{name}</bdi>
                </td>
                <td>{peer.peer_allow_ip.replace('/32', '')}</td>
                <td>
                  <Badge tone={isLive(peer) ? 'good' : 'off'}>{t(isLive(peer) ? 'state.on' : 'state.off')}</Badge>
                </td>
                <td>{peer.latest_handshake || '–'}</td>
                <td class="figure">{peer.rx_total ? `${peer.rx_total} / ${peer.tx_total}` : '–'}</td>
                <td>
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
                    <Button label={t('remove.name', { name })} busy={job.busy === 'remove'} onClick={() => void remove(peer)}>
                      {t('remove')}
                    </Button>
                  </span>
                </td>
              </tr>
            )
          })}
        </Table>
      )}
      {edited && (
        <PeerDialog
          profile={profile}
          peers={peers}
          peer={edited.peer}
          onClose={() => setEdited(null)}
          onDone={(made) => {
            setEdited(null)
            setDevice(made)
            onChanged()
          }}
        />
      )}
      {device && <DeviceDialog device={device} profile={profile} onClose={() => setDevice(null)} />}
    </Card>
  )
}
