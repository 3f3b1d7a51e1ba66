// The tunnels of the appliance to other servers.
import { useEffect, useRef, useState } from 'preact/hooks'
import { call, data, SLOW } from '../api'
import { useFileDrop } from '../drop'
import { adviceFor } from '../errors'
import { Fields, sent, useForm } from '../form'
import { bytes, decodeName, duration, rate } from '../format'
import {
  CLIENTS, OPENVPN_CLIENT, PROTOCOLS, WIREGUARD_CLIENT, labelOf, type ClientProfile,
} from '../model'
import { usePoll } from '../poll'
import {
  clientState, cureOf, isSettled, readStates, stateKey, stateOfStatus, whyOf, type Reason, type States, type TunnelState,
} from '../reasons'
import { session } from '../session'
import { t } from '../texts'
import { Badge, Button, Card, Dialog, Empty, Facts, Failure, Icon, Notice, Spinner, confirm, say, useJob } from '../ui'
import { readConfig } from '../wireguard'
import { clientRows, newValues, storedValues, wire } from './clients.rows'
import { DoctorDialog } from './doctor'
import { ImportDialog } from './import'

const PAUSE = 3_000
const PATIENCE = 60 // seconds after which a tunnel that is still on its way is worth a word

const OFF = 0
const CONNECTING = 2

export const clientName = (one: ClientProfile): string =>
  one.type === WIREGUARD_CLIENT ? decodeName(one.profile) : one.profile
const keyOf = (one: ClientProfile): string => `${one.type}-${one.index}`

export const StateBadge = ({ state }: { state: string }) => (
  <Badge tone={clientState(state).tone}>{t(clientState(state).text)}</Badge>
)
// Why a tunnel or a server does not work, and what to do about it.
export const Why = ({ reason }: { reason: Reason }) => (
  <Notice tone={reason.final ? 'bad' : 'warn'}>
    <strong>{whyOf(reason)}</strong> {cureOf(reason)}
    {reason.detail !== '' && (
      <>
        <br />
        <small>
          <bdi>{reason.detail}</bdi>
        </small>
      </>
    )}
  </Notice>
)
const amount = (value: number | string): string => (typeof value === 'number' ? bytes(value) : value || bytes(0))

type EditProps = { type: number; profile: ClientProfile | null; start?: Record<string, string>; onClose: () => void; onDone: () => void }
function EditDialog({ type, profile, start, onClose, onDone }: EditProps) {
  const rows = clientRows(type, !profile)
  const form = useForm(rows, profile ? storedValues(profile) : { ...newValues(type), ...start })
  const job = useJob()
  const live = profile !== null && profile.status !== OFF

  const save = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    await job.run('save', async () => {
      const values = wire(type, sent(rows, form.values))
      await call(profile ? 'config/modify' : 'config/add', { type, index: profile?.index, ...values }, SLOW)
      say(profile ? 'saved' : 'client.added')
      onDone()
    })
  }
  const makeKey = () =>
    job.run('key', async () => {
      form.set('client_pri_key', (await data<{ pri_key: string }>('peer/keys')).pri_key)
    })

  return (
    <Dialog title={t(profile ? 'client.edit' : 'client.new', { protocol: labelOf(type) })} onClose={onClose}>
      <form onSubmit={(event) => void save(event)} noValidate>
        <Fields rows={rows} form={form} />
        {live && <Notice>{t('client.editLive')}</Notice>}
        <Failure failure={job.failure} />
        <footer class="row end">
          {type === WIREGUARD_CLIENT && (
            <Button busy={job.busy === 'key'} onClick={() => void makeKey()}>
              {t('server.newKey')}
            </Button>
          )}
          <Button onClick={onClose}>{t('cancel')}</Button>
          <Button kind="primary" submit busy={job.busy === 'save'}>
            {t('save')}
          </Button>
        </footer>
      </form>
    </Dialog>
  )
}

const PickDialog = ({ onClose, onPick }: { onClose: () => void; onPick: (type: number) => void }) => (
  <Dialog title={t('client.add')} onClose={onClose}>
    <div class="choices">
      {PROTOCOLS.map((one) => (
        <button key={one.id} type="button" class="choice" onClick={() => onPick(one.client)}>
          <strong>{one.label}</strong>
          <span>{t(one.client === OPENVPN_CLIENT ? 'client.byFile' : 'client.byForm')}</span>
        </button>
      ))}
    </div>
  </Dialog>
)

// Seconds since the first time that a profile was seen on its way.
function useWaiting(profile: ClientProfile): number {
  const [since, setSince] = useState<number | null>(null)
  const [now, setNow] = useState(Date.now())
  const waiting = profile.status === CONNECTING
  useEffect(() => {
    setSince(waiting ? Date.now() : null)
    if (!waiting) return
    const timer = setInterval(() => setNow(Date.now()), 1000)
    return () => clearInterval(timer)
  }, [waiting])
  return since === null ? 0 : Math.max(0, Math.floor((now - since) / 1000))
}

// After a click on Connect: says how it ended, as soon as waiting longer changes nothing.
function useOutcome(name: string, truth: TunnelState | undefined): () => void {
  const [asked, setAsked] = useState(0) // when, 0 for not at all
  const looks = useRef(0)
  useEffect(() => {
    if (asked === 0) looks.current = 0
    // What was known before the click does not count, nor what was being asked meanwhile.
    else if (looks.current++ < 2) return
    if (asked === 0 || !truth || !isSettled(truth.state)) return
    if (truth.state === 'up') say('client.isUp', { name })
    else if (truth.reason) say('client.isNotUp', { name, why: whyOf(truth.reason) })
    setAsked(0)
  }, [asked, truth])
  return () => setAsked(Date.now())
}

type ClientCardProps = {
  profile: ClientProfile
  truth: TunnelState | undefined
  admin: boolean
  onEdit: () => void
  onChanged: () => void
}
function ClientCard({ profile, truth, admin, onEdit, onChanged }: ClientCardProps) {
  const job = useJob()
  const [asked, setAsked] = useState(false) // what is wrong
  const name = clientName(profile)
  const waited = useWaiting(profile)
  const told = truth?.state ?? stateOfStatus(profile.status)
  const up = told === 'up'
  const state = job.busy === 'connect' ? 'starting' : told
  const expect = useOutcome(name, truth)
  const target = { type: profile.type, index: profile.index }

  const turn = (action: 'connect' | 'disconnect') =>
    job.run(action, async () => {
      await call(`config/${action}`, target, SLOW)
      if (action === 'connect') expect()
      onChanged()
    })
  const remove = async () => {
    const text = t(profile.status === OFF ? 'client.removeText' : 'client.removeLive')
    if (!(await confirm({ title: t('remove.name', { name }), text, action: t('remove'), danger: true }))) return
    await job.run('remove', async () => {
      await call('config/remove', target, SLOW)
      say('removed')
      onChanged()
    })
  }

  return (
    <section class="card client" aria-label={name}>
      <header>
        <h2>
          <bdi>{name}</bdi>
        </h2>
        <StateBadge state={state} />
      </header>
      <Facts
        rows={[
          [t('protocol'), labelOf(profile.type)],
          [t('client.host'), profile.server_ip],
          ...(up
            ? ([
                [t('client.local'), profile.local_ip],
                [t('connections.since'), profile.uptime > 0 ? duration(profile.uptime) : ''],
                [t('client.received'), amount(profile.rx_total)],
                [t('client.sentBytes'), amount(profile.tx_total)],
                ...(profile.type === WIREGUARD_CLIENT
                  ? ([[t('peer.handshake'), String(profile['latest_handshake'] ?? '')]] as const)
                  : ([[t('client.now'), rate(profile.rx_rate + profile.tx_rate)]] as const)),
              ] as const)
            : []),
        ]}
      />
      {state === 'starting' && (
        <p>
          <Spinner label={t('client.waiting', { n: waited })} />
        </p>
      )}
      {state === 'starting' && waited >= PATIENCE && <Notice>{t('client.long')}</Notice>}
      {truth?.reason && job.busy !== 'connect' && <Why reason={truth.reason} />}
      {!truth?.reason && profile.status === OFF && profile.last_error !== 0 && !job.failure && (
        <Notice tone="bad">
          <strong>{t('client.failed', { code: profile.last_error })}</strong> {adviceFor(profile.last_error)}
        </Notice>
      )}
      <Failure failure={job.failure} />
      {admin && (
        <footer class="row">
          {profile.status === OFF && job.busy !== 'connect' ? (
            <Button kind="primary" busy={job.busy !== ''} label={t('client.connectName', { name })} onClick={() => void turn('connect')}>
              {t('client.connect')}
            </Button>
          ) : (
            <Button busy={job.busy === 'disconnect'} label={t(up ? 'client.disconnectName' : 'client.giveUpName', { name })} onClick={() => void turn('disconnect')}>
              {t(up ? 'client.disconnect' : 'client.giveUp')}
            </Button>
          )}
          {!up && (
            <Button label={t('doctor.askName', { name })} onClick={() => setAsked(true)}>
              {t('doctor.ask')}
            </Button>
          )}
          <Button label={t('edit.name', { name })} onClick={onEdit}>
            {t('edit')}
          </Button>
          <Button label={t('remove.name', { name })} busy={job.busy === 'remove'} onClick={() => void remove()}>
            {t('remove')}
          </Button>
        </footer>
      )}
      {asked && <DoctorDialog {...target} name={name} onClose={() => setAsked(false)} />}
    </section>
  )
}

type Open =
  | { what: 'pick' }
  | { what: 'import'; files: File[] }
  | { what: 'edit'; type: number; profile: ClientProfile | null; start?: Record<string, string> }

export function ClientsPage() {
  const admin = session.login.value?.admin ?? false
  const [waiting, setWaiting] = useState<readonly Open[]>([]) // dialogs, the first of which is there
  const open = waiting[0]
  const poll = usePoll(async () => {
    const [profiles, states] = await Promise.all([
      data<ClientProfile[] | null>('config/show', { type: CLIENTS }),
      admin ? readStates(CLIENTS) : (new Map() as States),
    ])
    return { profiles: profiles ?? [], states }
  }, PAUSE)
  const list = { ...poll, value: poll.value?.profiles }
  const close = () => setWaiting(waiting.slice(1))
  const done = () => {
    close()
    list.refresh()
  }

  // OpenVPN's files with what belongs to them, and WireGuard's one by one.
  const take = async (files: File[]) => {
    const more: Open[] = []
    const others: File[] = []
    for (const file of files) {
      const start = file.name.toLowerCase().endsWith('.conf') && readConfig(await file.text())
      if (!start) others.push(file)
      else
        more.push({
          what: 'edit', type: WIREGUARD_CLIENT, profile: null,
          start: { ...start, client_name: file.name.replace(/\.conf$/i, '') },
        })
    }
    setWaiting([...(others.length > 0 ? [{ what: 'import', files: others } as const] : []), ...more])
  }
  const over = useFileDrop(admin && !open, (files) => void take(files))

  if (!list.value) return list.failure ? <Failure failure={list.failure} onRetry={list.refresh} /> : <Spinner />
  return (
    <div class="drop">
      <Failure failure={list.failure} />
      {admin && (
        <div class="row">
          <Button kind="primary" icon="plus" onClick={() => setWaiting([{ what: 'pick' }])}>
            {t('client.add')}
          </Button>
          <FileButton label={t('client.import')} onFiles={(files) => void take(files)} />
          <span class="soft hint">{t('client.dropHint')}</span>
        </div>
      )}
      {list.value.length === 0 ? (
        <Card>
          <Empty>{t('client.none')}</Empty>
        </Card>
      ) : (
        <div class="cards">
          {list.value.map((one) => (
            <ClientCard
              key={keyOf(one)}
              profile={one}
              truth={poll.value?.states.get(stateKey(one))}
              admin={admin}
              onEdit={() => setWaiting([{ what: 'edit', type: one.type, profile: one }])}
              onChanged={list.refresh}
            />
          ))}
        </div>
      )}
      {over && (
        <div class="curtain" aria-hidden="true">
          <Icon name="download" />
          {t('client.drop')}
        </div>
      )}
      {open?.what === 'pick' && (
        <PickDialog
          onClose={close}
          onPick={(type) =>
            setWaiting([type === OPENVPN_CLIENT ? { what: 'import', files: [] } : { what: 'edit', type, profile: null }])
          }
        />
      )}
      {open?.what === 'import' && <ImportDialog files={open.files} onClose={done} onChanged={list.refresh} />}
      {open?.what === 'edit' && (
        <EditDialog
          key={waiting.length}
          type={open.type}
          profile={open.profile}
          {...(open.start ? { start: open.start } : {})}
          onClose={close}
          onDone={done}
        />
      )}
    </div>
  )
}

// A button that opens the browser's own choice of files.
export const FileButton = ({ label, onFiles, single }: { label: string; onFiles: (files: File[]) => void; single?: boolean }) => (
  <label class="button plain file">
    <Icon name="upload" />
    {label}
    <input
      type="file"
      class="unseen"
      multiple={!single}
      onChange={(event) => {
        onFiles([...(event.currentTarget.files ?? [])])
        event.currentTarget.value = ''
      }}
    />
  </label>
)
