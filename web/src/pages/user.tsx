// Why a user can or cannot connect, with the buttons that change it. Opened by a click on the user's name anywhere.
import { signal } from '@preact/signals'
import { SLOW, call, data } from '../api'
import { duration, logMoment, moment } from '../format'
import { PROTOCOLS, labelOf, type Connection, type Hold } from '../model'
import { usePoll } from '../poll'
import { t, textOr, type TextKey } from '../texts'
import {
  Badge,
  Button,
  Dialog,
  Empty,
  Facts,
  Failure,
  Notice,
  Spinner,
  Table,
  say,
  useJob,
  type Tone,
} from '../ui'
import { saveRights, type Blocks, type Masks } from './rights'

export interface Entry {
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
export const BEGAN = 0
export const REFUSED = 1
export const ACTIONS: readonly (readonly [TextKey, Tone])[] = [
  ['logs.began', 'good'],
  ['logs.refused', 'bad'],
  ['logs.ended', 'off'],
]
export const actionOf = (action: number): readonly [TextKey, Tone] =>
  ACTIONS[action] ?? ['logs.ended', 'off']

// The words of a refusal in the language of the user; those that these pages do not know come as they are.
export const refusalWords = (text: string): string =>
  textOr(`refused.${text.toLowerCase().replace(/[^a-z]+/g, '-')}`, text)

const asked = signal<string | null>(null)
export const UserLink = ({ name }: { name: string }) =>
  name === '' ? (
    <>–</>
  ) : (
    <button
      type="button"
      class="link name"
      aria-haspopup="dialog"
      onClick={() => (asked.value = name)}
    >
      <bdi>{name}</bdi>
    </button>
  )

export interface Known {
  entries: readonly Entry[] // of this user, the latest first
  mask: number
  locked: boolean
  hold: Hold | undefined
  connections: readonly Connection[]
}

// What keeps a user out now, the first of all that do; null where nothing is known to.
export function obstacle({ entries, mask, locked, hold, connections }: Known): TextKey | null {
  if (hold) return 'user.isHeld'
  if (locked) return 'user.isLocked'
  if (mask === 0) return 'user.hasNone'
  const latest = entries.find(one => one.action === REFUSED || one.action === BEGAN)
  if (connections.length > 0 || latest?.action !== REFUSED) return null
  return 'user.wasRefused'
}

const ROWS = 1_000 // of the log that are searched for the user
const SHOWN = 10
const EVERYBODY = 100_000
const PAUSE = 5_000

const known = async (name: string): Promise<Known> => {
  const [log, masks, blocks, holds, connections] = await Promise.all([
    data<Entry[] | null>('log/server', { lower: 0, upper: ROWS - 1 }),
    data<Masks | null>('privilege/get', { lower: 0, upper: EVERYBODY }),
    data<Blocks>('privilege/block_show'),
    data<Hold[]>('hold/list'),
    data<Connection[]>('connection/list'),
  ])
  return {
    entries: (log ?? []).filter(one => one.username === name),
    mask: masks?.[name] ?? 0,
    locked: blocks.user.includes(name),
    hold: holds.find(one => one.kind === 'user' && one.name === name),
    connections: connections.filter(one => one.name === name),
  }
}

function Login({ entry }: { entry: Entry | undefined }) {
  if (!entry) return <>–</>
  const place = {
    time: logMoment(entry.time),
    from: entry.source_ip ?? '',
    server: labelOf(entry.type),
  }
  return <bdi>{t('user.when', place)}</bdi>
}

function Rights({
  mask,
  busy,
  onSet,
}: {
  mask: number
  busy: boolean
  onSet: (mask: number) => void
}) {
  return (
    <span class="row">
      {PROTOCOLS.filter(one => one.right).map(one => (
        <label key={one.id} class="head">
          <input
            type="checkbox"
            disabled={busy}
            checked={(mask & one.server) !== 0}
            onChange={event =>
              onSet(event.currentTarget.checked ? mask | one.server : mask & ~one.server)
            }
          />{' '}
          {one.label}
        </label>
      ))}
    </span>
  )
}

function Story({ name, about, onChanged }: { name: string; about: Known; onChanged: () => void }) {
  const job = useJob()
  const { entries, mask, locked, hold, connections } = about
  const refused = entries.find(one => one.action === REFUSED)
  const why = obstacle(about)
  const act = (what: string, work: () => Promise<unknown>) =>
    void job.run(what, async () => {
      await work()
      say('saved')
      onChanged()
    })
  const button = (what: string, label: TextKey, work: () => Promise<unknown>) => (
    <Button busy={job.busy === what} onClick={() => act(what, work)}>
      {t(label)}
    </Button>
  )
  return (
    <>
      <Notice tone={why ? 'warn' : 'good'}>
        <strong>{t(why ?? (connections.length > 0 ? 'user.isOn' : 'user.free'))}</strong>
        {why === 'user.wasRefused' && refused && (
          <span>{refusalWords(refused.device_info ?? '')}</span>
        )}
      </Notice>
      <Failure failure={job.failure} />
      <Facts
        rows={[
          [t('user.login'), <Login entry={entries.find(one => one.action === BEGAN)} />],
          [
            t('user.refusal'),
            <>
              <Login entry={refused} />{' '}
              {refused?.device_info && <bdi class="block">{refusalWords(refused.device_info)}</bdi>}
            </>,
          ],
          [
            t('nav.rights'),
            <Rights
              mask={mask}
              busy={job.busy !== ''}
              onSet={next => act('rights', () => saveRights(new Map([[name, next]])))}
            />,
          ],
          [
            t('block.title'),
            <span class="row">
              {t(locked ? 'yes' : 'no')}{' '}
              {locked &&
                button('unlock', 'block.lift', () =>
                  call('privilege/remove_block_user', { user: name }),
                )}
            </span>,
          ],
          [
            t('holds'),
            <span class="row">
              {hold ? t('user.until', { time: moment(hold.until), by: hold.by }) : t('no')}
              {hold &&
                button('lift', 'holds.lift', () => call('hold/lift', { who: hold.who }, SLOW))}
            </span>,
          ],
          [
            t('overview.online'),
            <span class="row">
              {connections
                .map(one => `${labelOf(one.type)}, ${duration(one.uptime)}`)
                .join(' · ') || t('no')}
              {connections.length > 0 &&
                button('kick', 'kick.now', () =>
                  call(
                    'connection/end',
                    { conn: connections.map(one => `${one.type}|${one.target}`), minutes: 0 },
                    SLOW,
                  ),
                )}
            </span>,
          ],
        ]}
      />
      {entries.length === 0 ? (
        <Empty>{t('logs.none')}</Empty>
      ) : (
        <Table
          label={t('user.log')}
          heads={[t('logs.time'), t('protocol'), t('logs.what'), t('logs.from'), t('logs.length')]}
        >
          {entries.slice(0, SHOWN).map(one => (
            <tr key={one.id}>
              <td class="nowrap">{logMoment(one.time)}</td>
              <td>{labelOf(one.type)}</td>
              <td>
                <Badge tone={actionOf(one.action)[1]}>{t(actionOf(one.action)[0])}</Badge>
                {one.action === REFUSED && (
                  <bdi class="soft block">{refusalWords(one.device_info ?? '')}</bdi>
                )}
              </td>
              <td>{one.source_ip}</td>
              <td>{one.uptime > 0 ? duration(one.uptime) : '–'}</td>
            </tr>
          ))}
        </Table>
      )}
    </>
  )
}

function AboutUser({ name, onClose }: { name: string; onClose: () => void }) {
  const about = usePoll(() => known(name), PAUSE, [name])
  return (
    <Dialog title={t('user.about', { name })} onClose={onClose} wide>
      <div class="form">
        <Failure failure={about.failure} onRetry={about.refresh} />
        {!about.value && !about.failure && <Spinner />}
        {about.value && <Story name={name} about={about.value} onChanged={about.refresh} />}
      </div>
      <footer class="row end">
        <Button first onClick={onClose}>
          {t('close')}
        </Button>
      </footer>
    </Dialog>
  )
}

export const UserQuestions = () =>
  asked.value === null ? null : (
    <AboutUser key={asked.value} name={asked.value} onClose={() => (asked.value = null)} />
  )
