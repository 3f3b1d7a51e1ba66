// What a fresh appliance offers in place of an empty overview: three ways to begin, each up to the first connection.
import { useState } from 'preact/hooks'
import { PublicAddress } from '../address'
import { SLOW, call, data, download } from '../api'
import { sent, type Values } from '../form'
import { OPENVPN, WIREGUARD, labelOf, type Peer, type Profile, type ServerProfile } from '../model'
import { t } from '../texts'
import { Button, Card, Dialog, Failure, Field, Notice, Spinner, useJob } from '../ui'
import { DeviceDialog, addDevice, newSecret, nextAddress, type Device } from './peers'
import { saveRights, type Masks } from './rights'
import { saveProfile } from './servers'
import { serverRows, serverValues } from './servers.rows'

const MOST = 200 // users to choose from here; more are under Rights

// The server of that type, on: with the settings that are stored, and a key where it lacks one.
async function switchOn(type: number): Promise<ServerProfile> {
  const stored = async () => {
    const found = (await data<Profile[] | null>('config/show', { type }))?.find(
      one => one.type === type,
    )
    return found as ServerProfile
  }
  const server = await stored()
  const values: Values = { ...serverValues(server), enable: true }
  if (type === WIREGUARD) {
    values['server_pri_key'] ||= (await data<{ pri_key: string }>('peer/keys')).pri_key
    values['server_name'] ||= 'office'
  }
  const fields = sent(serverRows(type, []), values)
  if (fields['server_name']) fields['server_name'] = encodeURIComponent(fields['server_name'])
  await call('config/modify', { type, ...fields }, SLOW)
  return stored()
}

function Choice({ busy, onPick }: { busy: string; onPick: (type: number) => void }) {
  return (
    <div class="choices">
      {([WIREGUARD, OPENVPN] as const).map(type => (
        <button
          key={type}
          type="button"
          class="choice"
          data-first={type === WIREGUARD}
          disabled={busy !== ''}
          onClick={() => onPick(type)}
        >
          <strong>
            {t(type === WIREGUARD ? 'road.phones' : 'road.accounts')}{' '}
            {busy === String(type) && <Spinner label={t('server.working')} />}
          </strong>
          <span>{t(type === WIREGUARD ? 'road.phonesHelp' : 'road.accountsHelp')}</span>
        </button>
      ))}
    </div>
  )
}

function FirstDevice({
  profile,
  onMade,
}: {
  profile: ServerProfile
  onMade: (device: Device) => void
}) {
  const [name, setName] = useState('')
  const job = useJob()
  const add = (event: Event) => {
    event.preventDefault()
    if (name.trim() === '') return
    void job.run('add', async () => {
      const address = nextAddress(profile, (profile['peers'] ?? []) as Peer[])
      onMade(
        await addDevice({ peer_name: name.trim(), address, keepalive: '25', psk: newSecret() }),
      )
    })
  }
  return (
    <form onSubmit={add}>
      <Notice tone="good">{t('road.isOn', { server: labelOf(profile.type) })}</Notice>
      <Field label={t('road.device')} help={t('road.deviceHelp')}>
        {ids => (
          <input
            {...ids}
            data-first
            value={name}
            onInput={event => setName(event.currentTarget.value)}
          />
        )}
      </Field>
      <PublicAddress />
      <Failure failure={job.failure} />
      <div class="row end">
        <Button kind="primary" submit disabled={name.trim() === ''} busy={job.busy === 'add'}>
          {t('peer.add')}
        </Button>
      </div>
    </form>
  )
}

function FirstUsers({ users, onDone }: { users: readonly string[]; onDone: () => void }) {
  const [picked, setPicked] = useState<ReadonlySet<string>>(new Set())
  const job = useJob()
  const toggle = (user: string) => {
    const next = new Set(picked)
    if (!next.delete(user)) next.add(user)
    setPicked(next)
  }
  const handOver = () =>
    job.run('hand', async () => {
      const masks = (await data<Masks | null>('privilege/get', { lower: 0, upper: 100_000 })) ?? {}
      await saveRights(new Map([...picked].map(user => [user, (masks[user] ?? 0) | OPENVPN])))
      await saveProfile((await download('config/download', 'client.ovpn')).content)
      onDone()
    })
  return (
    <div class="form">
      <Notice tone="good">{t('road.isOn', { server: labelOf(OPENVPN) })}</Notice>
      <fieldset>
        <legend>{t('road.who')}</legend>
        <div class="picks">
          {users.map(user => (
            <label key={user} class="head">
              <input type="checkbox" checked={picked.has(user)} onChange={() => toggle(user)} />{' '}
              <bdi>{user}</bdi>
            </label>
          ))}
        </div>
      </fieldset>
      <PublicAddress />
      <Failure failure={job.failure} />
      <div class="row end">
        <Button
          kind="primary"
          disabled={picked.size === 0}
          busy={job.busy === 'hand'}
          onClick={() => void handOver()}
        >
          {t('road.handOver')}
        </Button>
      </div>
    </div>
  )
}

type Step =
  | { at: 'choice' }
  | { at: 'device'; profile: ServerProfile }
  | { at: 'made'; profile: ServerProfile; device: Device }
  | { at: 'users'; users: string[] }
  | { at: 'handed' }

function LetIn({ onClose }: { onClose: () => void }) {
  const [step, setStep] = useState<Step>({ at: 'choice' })
  const job = useJob()
  const pick = (type: number) =>
    void job.run(String(type), async () => {
      const profile = await switchOn(type)
      if (type === WIREGUARD) return setStep({ at: 'device', profile })
      setStep({
        at: 'users',
        users: (await data<string[] | null>('user/query', { lower: 0, upper: MOST - 1 })) ?? [],
      })
    })
  if (step.at === 'made')
    return <DeviceDialog device={step.device} profile={step.profile} onClose={onClose} />
  return (
    <Dialog title={t('road.letIn')} onClose={onClose}>
      <div class="form">
        {step.at === 'choice' && <Choice busy={job.busy} onPick={pick} />}
        {step.at === 'device' && (
          <FirstDevice
            profile={step.profile}
            onMade={device => setStep({ at: 'made', profile: step.profile, device })}
          />
        )}
        {step.at === 'users' && (
          <FirstUsers users={step.users} onDone={() => setStep({ at: 'handed' })} />
        )}
        {step.at === 'handed' && (
          <>
            <Notice tone="good">{t('road.handed')}</Notice>
            <div class="row end">
              <Button kind="primary" onClick={onClose}>
                {t('peer.done')}
              </Button>
            </div>
          </>
        )}
        <Failure failure={job.failure} />
      </div>
    </Dialog>
  )
}

export function Roads({ open, onOpen }: { open: boolean; onOpen: (open: boolean) => void }) {
  return (
    <div class="columns roads">
      <Card title={t('road.letIn')}>
        <p>{t('road.letInHelp')}</p>
        <div class="row">
          <Button kind="primary" onClick={() => onOpen(true)}>
            {t('road.begin')}
          </Button>
        </div>
      </Card>
      <Card title={t('road.connect')}>
        <p>{t('road.connectHelp')}</p>
        <div class="row">
          <a class="button primary" href="#/clients?add=1">
            {t('client.add')}
          </a>
        </div>
      </Card>
      <Card title={t('sdwan.join')}>
        <p>{t('road.sdwanHelp')}</p>
        <div class="row">
          <a class="button primary" href="#/sdwan">
            {t('road.begin')}
          </a>
        </div>
      </Card>
      {open && <LetIn onClose={() => onOpen(false)} />}
    </div>
  )
}
