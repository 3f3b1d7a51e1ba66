// A user's own access: rights, profile, second factor, devices, sessions and latest logins.
import { useState } from 'preact/hooks'
import { SLOW, call, data, download, saveFile } from '../api'
import { Fields, useForm, type FieldRow } from '../form'
import { ago, duration, moment } from '../format'
import { Handout } from '../handout'
import { labelOf, type Connection } from '../model'
import { usePoll } from '../poll'
import { all, atMost, required } from '../rules'
import { t } from '../texts'
import {
  Badge,
  Button,
  Card,
  Dialog,
  Empty,
  Facts,
  Failure,
  Notice,
  SaveRow,
  Spinner,
  Table,
  confirm,
  say,
  useJob,
} from '../ui'
import { SecondFactor, hasNoCode, type Factor } from './secondfactor'
import { refusalWords } from './user'

interface Right {
  type: number
  name: string
  until: number // seconds since 1970, 0 for no end
  on: boolean // its server is
}
export interface OwnDevice {
  name: string
  key: string
  address: string
  handshake: number // seconds since 1970, 0 for never
  kept_out_since: number // 0 for a device that may connect
}
interface Session extends Connection {
  id: string
}
interface Login {
  type: number
  time: number
  refused: boolean
  source_ip: string
  reason: string
}
export interface Mine {
  user: string
  rights: Right[]
  second_factor: Factor
  profile: boolean
  quota: number // devices that the user may have
  devices_until: number
  wireguard: boolean
  devices: OwnDevice[]
  sessions: Session[]
  logins: Login[] | null // null where the appliance cannot tell
  failed: number
  blocked_until: number
  held_until: number
}

const PAUSE = 10_000
const now = (): number => Math.floor(Date.now() / 1000)

// "OpenVPN until 31 Dec 2026, 18:00".
export const untilWords = (name: string, until: number): string =>
  until > 0 ? t('my.until', { name, time: moment(until) }) : name

export const isKeptOut = (device: OwnDevice, at: number): boolean =>
  device.kept_out_since > 0 && device.kept_out_since <= at

export const mayAdd = (mine: Mine): boolean =>
  mine.wireguard &&
  mine.devices.length < mine.quota &&
  (mine.devices_until === 0 || mine.devices_until > now())

function Access({ mine }: { mine: Mine }) {
  const job = useJob()
  const get = () =>
    job.run('profile', async () => {
      const { name, content } = await download('my/profile', 'profile.ovpn')
      saveFile(name, content)
    })
  return (
    <Card title={t('my.access')}>
      {mine.blocked_until > now() && (
        <Notice tone="bad">
          <strong>{t('my.blocked', { time: moment(mine.blocked_until) })}</strong>
          <span>{t('my.blockedHelp')}</span>
        </Notice>
      )}
      {mine.held_until > now() && (
        <Notice tone="bad">
          <strong>{t('my.held', { time: moment(mine.held_until) })}</strong>
        </Notice>
      )}
      {mine.rights.length === 0 ? (
        <Empty>{t('my.nothing')}</Empty>
      ) : (
        <ul class="rows">
          {mine.rights.map(right => (
            <li key={right.type}>
              <span>{untilWords(labelOf(right.type), right.until)}</span>
              {!right.on && <span class="soft">{t('my.off')}</span>}
            </li>
          ))}
        </ul>
      )}
      <Failure failure={job.failure} />
      {mine.profile && (
        <div class="row">
          <Button
            kind="primary"
            icon="download"
            busy={job.busy === 'profile'}
            onClick={() => void get()}
          >
            {t('my.profile')}
          </Button>
          <span class="soft">
            {t(mine.second_factor.state === 'on' ? 'my.profileCode' : 'my.profileHelp')}
          </span>
        </div>
      )}
    </Card>
  )
}

interface Made {
  name: string
  configuration: string
}

const NEW: readonly FieldRow[] = [
  { name: 'name', label: 'name', rule: all(required, atMost(60)), help: 'my.nameHelp' },
  { name: 'all', label: 'peer.everything', kind: 'switch' },
]

function AddDialog({ onClose, onMade }: { onClose: () => void; onMade: (made: Made) => void }) {
  const form = useForm(NEW, { name: '', all: true })
  const job = useJob()
  const add = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    const name = String(form.values['name'])
    await job.run('save', async () => {
      const made = await data<{ configuration: string }>('my/device_add', {
        name,
        all: form.values['all'] ? '1' : '0',
      })
      onMade({ name, configuration: made.configuration })
    })
  }
  return (
    <Dialog title={t('peer.add')} onClose={onClose}>
      <form onSubmit={event => void add(event)} noValidate>
        <Fields rows={NEW} form={form} />
        <SaveRow job={job} action={t('peer.add')}>
          <Button onClick={onClose}>{t('cancel')}</Button>
        </SaveRow>
      </form>
    </Dialog>
  )
}

function Devices({ mine, onChanged }: { mine: Mine; onChanged: () => void }) {
  const [adding, setAdding] = useState(false)
  const [made, setMade] = useState<Made | null>(null)
  const job = useJob()
  const remove = async ({ name, key }: OwnDevice) => {
    const yes = await confirm({
      title: t('peer.remove', { name }),
      text: t('peer.removeText'),
      action: t('remove'),
      danger: true,
    })
    if (!yes) return
    await job.run(key, async () => {
      await call('my/device_remove', { key })
      say('removed')
      onChanged()
    })
  }
  if (mine.quota === 0 && mine.devices.length === 0) return null
  return (
    <Card
      title={t('my.devices')}
      side={
        <Button icon="plus" disabled={!mayAdd(mine)} onClick={() => setAdding(true)}>
          {t('peer.add')}
        </Button>
      }
    >
      <p class="help">
        {untilWords(
          t('my.quota', { n: mine.devices.length, most: mine.quota }),
          mine.devices_until,
        )}
        {!mine.wireguard && ` ${t('my.off')}`}
      </p>
      <Failure failure={job.failure} />
      {mine.devices.length === 0 && <Empty>{t('my.noDevice')}</Empty>}
      <ul class="rows">
        {mine.devices.map(device => (
          <li key={device.key}>
            <span>
              <bdi class="name">{device.name}</bdi>{' '}
              <span class="soft">
                {device.address} ·{' '}
                {isKeptOut(device, now())
                  ? t('my.keptOut')
                  : device.handshake > 0
                    ? ago(now() - device.handshake)
                    : t('peer.never')}
              </span>
            </span>
            <Button
              label={t('remove.name', { name: device.name })}
              busy={job.busy === device.key}
              onClick={() => void remove(device)}
            >
              {t('remove')}
            </Button>
          </li>
        ))}
      </ul>
      {adding && (
        <AddDialog
          onClose={() => setAdding(false)}
          onMade={next => (setAdding(false), setMade(next), onChanged())}
        />
      )}
      {made && (
        <Handout
          name={made.name}
          text={made.configuration}
          unkept={t('my.unkeptText')}
          onClose={() => setMade(null)}
        />
      )}
    </Card>
  )
}

function Sessions({ mine, onChanged }: { mine: Mine; onChanged: () => void }) {
  const job = useJob()
  const stop = (id: string) =>
    job.run(id, async () => {
      await call('my/end', { id }, SLOW)
      say('my.ended')
      onChanged()
    })
  return (
    <Card title={t('my.sessions')}>
      <Failure failure={job.failure} />
      {mine.sessions.length === 0 && <Empty>{t('my.noSession')}</Empty>}
      <ul class="rows">
        {mine.sessions.map(one => (
          <li key={one.id}>
            <span>
              {t('my.from', { server: labelOf(one.type), from: one.source_ip })}{' '}
              <span class="soft">{duration(one.uptime)}</span>
            </span>
            <Button
              label={t('my.endName', { server: labelOf(one.type), from: one.source_ip })}
              busy={job.busy === one.id}
              onClick={() => void stop(one.id)}
            >
              {t('my.end')}
            </Button>
          </li>
        ))}
      </ul>
    </Card>
  )
}

function Logins({ mine }: { mine: Mine }) {
  const rows = mine.logins
  return (
    <Card title={t('my.logins')}>
      {mine.failed > 0 && <Facts rows={[[t('my.failed'), String(mine.failed)]]} />}
      {!rows && <Notice>{t('my.noLog')}</Notice>}
      {rows?.length === 0 && <Empty>{t('logs.none')}</Empty>}
      {rows && rows.length > 0 && (
        <Table
          label={t('my.logins')}
          heads={[t('logs.time'), t('protocol'), t('logs.what'), t('logs.from')]}
        >
          {rows.map((one, at) => (
            <tr key={rows.length - at}>
              <td class="nowrap">{moment(one.time)}</td>
              <td>{labelOf(one.type)}</td>
              <td>
                <Badge tone={one.refused ? 'bad' : 'good'}>
                  {t(one.refused ? 'logs.refused' : 'logs.began')}
                </Badge>
                {one.reason && <bdi class="soft block">{refusalWords(one.reason)}</bdi>}
              </td>
              <td>{one.source_ip}</td>
            </tr>
          ))}
        </Table>
      )}
    </Card>
  )
}

export function MyPage() {
  const poll = usePoll(() => data<Mine>('my/show'), PAUSE)
  const mine = poll.value
  return (
    <>
      <Failure failure={poll.failure} onRetry={poll.refresh} />
      {!mine && !poll.failure && <Spinner />}
      {mine && (
        <>
          <Access mine={mine} />
          <Devices mine={mine} onChanged={poll.refresh} />
          <SecondFactor
            factor={mine.second_factor}
            without={mine.rights.map(right => right.type).filter(hasNoCode)}
            onChanged={poll.refresh}
          />
          <Sessions mine={mine} onChanged={poll.refresh} />
          <Logins mine={mine} />
        </>
      )}
    </>
  )
}
