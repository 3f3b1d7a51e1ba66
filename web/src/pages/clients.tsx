// The tunnels of the appliance to other servers.
import type { ComponentChildren } from 'preact'
import { useEffect, useRef, useState } from 'preact/hooks'
import { call, data, SLOW } from '../api'
import { Damaged } from '../damaged'
import { useFileDrop } from '../drop'
import { adviceFor } from '../errors'
import { Fields, sent, useForm } from '../form'
import { bytes, bytesOf, decodeName, duration, rate } from '../format'
import { List, usual, type ShownColumn, type ShownFilter } from '../list'
import {
  CLIENTS,
  OPENVPN_CLIENT,
  PROTOCOLS,
  WIREGUARD_CLIENT,
  handshakeWords,
  labelOf,
  type ClientProfile,
} from '../model'
import { usePoll } from '../poll'
import {
  clientState,
  cureOf,
  isSettled,
  readStatus,
  stateKey,
  stateOfStatus,
  whyOf,
  type Reason,
  type States,
  type Status,
  type TunnelState,
} from '../reasons'
import { choose, query } from '../router'
import { session } from '../session'
import { Spark } from '../spark'
import { t } from '../texts'
import { TRAIL, trailsOf, type TunnelTrails } from '../traffic'
import {
  Badge,
  Button,
  Card,
  Dialog,
  Empty,
  Facts,
  Failure,
  Icon,
  Notice,
  SaveRow,
  Spinner,
  Tabs,
  confirm,
  say,
  useJob,
} from '../ui'
import { readConfig } from '../wireguard'
import { clientRows, newValues, storedValues, wire } from './clients.rows'
import { DoctorDialog } from './doctor'
import { ImportDialog } from './import'

const NO_STATUS: Status = { states: new Map(), fault: undefined }
const PAUSE = 3_000
const STEP = 10_000 // between two rates that the appliance records
const PATIENCE = 60 // seconds after which a tunnel that is still on its way is worth a word

const OFF = 0
const MOST = 16 // profiles that the appliance takes over the web

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
// The rate of now with a curve of the last minutes; for WireGuard the last one recorded.
const RateNow = ({ row }: { row: Row }) => {
  const { profile, trail } = row
  const now = profile.type === WIREGUARD_CLIENT ? trail.at(-1) : profile.rx_rate + profile.tx_rate
  return (
    <>
      {now === undefined ? '–' : rate(now)}{' '}
      {trail.length > 1 && <Spark rates={trail} size={TRAIL} />}
    </>
  )
}
const amount = (value: number | string): string =>
  bytes(typeof value === 'number' ? value : bytesOf(value))

type EditProps = {
  type: number
  profile: ClientProfile | null
  start?: Record<string, string>
  onClose: () => void
  onDone: () => void
}
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
      await call(
        profile ? 'config/modify' : 'config/add',
        { type, index: profile?.index, ...values },
        SLOW,
      )
      say(profile ? 'saved' : 'client.added')
      onDone()
    })
  }
  const makeKey = () =>
    job.run('key', async () => {
      form.set('client_pri_key', (await data<{ pri_key: string }>('peer/keys')).pri_key)
    })

  return (
    <Dialog
      title={t(profile ? 'client.edit' : 'client.new', { protocol: labelOf(type) })}
      onClose={onClose}
    >
      <form onSubmit={event => void save(event)} noValidate>
        <Fields rows={rows} form={form} />
        {live && <Notice>{t('client.editLive')}</Notice>}
        <SaveRow job={job}>
          {type === WIREGUARD_CLIENT && (
            <Button busy={job.busy === 'key'} onClick={() => void makeKey()}>
              {t('server.newKey')}
            </Button>
          )}
          <Button onClick={onClose}>{t('cancel')}</Button>
        </SaveRow>
      </form>
    </Dialog>
  )
}

const PickDialog = ({
  onClose,
  onPick,
}: {
  onClose: () => void
  onPick: (type: number) => void
}) => (
  <Dialog title={t('client.add')} onClose={onClose}>
    <div class="choices">
      {PROTOCOLS.map((one, at) => (
        <button
          key={one.id}
          type="button"
          class="choice"
          data-first={at === 0 || undefined}
          onClick={() => onPick(one.client)}
        >
          <strong>{one.label}</strong>
          <span>{t(one.client === OPENVPN_CLIENT ? 'client.byFile' : 'client.byForm')}</span>
        </button>
      ))}
    </div>
  </Dialog>
)

// When a connect was asked for, by profile: the count goes on when one comes back to the page.
const clicked = new Map<string, number>()
// How the last attempt that was given up has ended, by profile; it is gone with the tab.
const outcomes = new Map<string, { seconds: number; why: string }>()

const sinceClick = (key: string, now: number): number =>
  Math.max(0, Math.floor((now - (clicked.get(key) ?? now)) / 1000))

// Seconds since the click, or since a profile was first seen on its way.
function useWaiting(key: string, waiting: boolean): number {
  const [now, setNow] = useState(Date.now())
  useEffect(() => {
    if (!waiting) return void clicked.delete(key)
    if (!clicked.has(key)) clicked.set(key, Date.now())
    const timer = setInterval(() => setNow(Date.now()), 1000)
    return () => clearInterval(timer)
  }, [key, waiting])
  return waiting ? sinceClick(key, now) : 0
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

interface Row {
  key: string
  name: string
  profile: ClientProfile
  truth: TunnelState | undefined
  state: string
  trail: readonly number[] // its last rates
}
const rowOf = (
  profile: ClientProfile,
  states: States,
  trails: ReadonlyMap<string, readonly number[]>,
): Row => {
  const truth = states.get(stateKey(profile))
  return {
    key: keyOf(profile),
    trail: trails.get(keyOf(profile)) ?? [],
    name: clientName(profile),
    profile,
    truth,
    state: truth?.state ?? stateOfStatus(profile.status),
  }
}

type ActionProps = {
  row: Row
  admin: boolean
  onEdit: () => void
  onChanged: () => void
  onConnecting?: (yes: boolean) => void
}
// What can be done with a tunnel, in a card or in a row of the table.
function Actions({ row, admin, onEdit, onChanged, onConnecting }: ActionProps) {
  const { key, name, profile, truth } = row
  const job = useJob()
  const [asked, setAsked] = useState(false) // what is wrong
  const up = row.state === 'up'
  const expect = useOutcome(name, truth)
  const target = { type: profile.type, index: profile.index }

  const turn = async (action: 'connect' | 'disconnect') => {
    if (action === 'connect') {
      clicked.set(key, Date.now())
      outcomes.delete(key)
      onConnecting?.(true)
    } else if (!up)
      outcomes.set(key, {
        seconds: sinceClick(key, Date.now()),
        why: truth?.reason ? whyOf(truth.reason) : '',
      })
    await job.run(action, async () => {
      await call(`config/${action}`, target, SLOW)
      if (action === 'connect') expect()
      onChanged()
    })
    onConnecting?.(false)
  }
  const remove = async () => {
    const text = t(profile.status === OFF ? 'client.removeText' : 'client.removeLive')
    if (
      !(await confirm({
        title: t('remove.name', { name }),
        text,
        action: t('remove'),
        danger: true,
      }))
    )
      return
    await job.run('remove', async () => {
      await call('config/remove', target, SLOW)
      say('removed')
      onChanged()
    })
  }
  if (!admin) return null
  return (
    <>
      <Failure failure={job.failure} />
      <footer class="row">
        {profile.status === OFF && job.busy !== 'connect' ? (
          <Button
            kind="primary"
            busy={job.busy !== ''}
            label={t('client.connectName', { name })}
            onClick={() => void turn('connect')}
          >
            {t('client.connect')}
          </Button>
        ) : (
          <Button
            busy={job.busy === 'disconnect'}
            label={t(up ? 'client.disconnectName' : 'client.giveUpName', { name })}
            onClick={() => void turn('disconnect')}
          >
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
        <Button
          label={t('remove.name', { name })}
          busy={job.busy === 'remove'}
          onClick={() => void remove()}
        >
          {t('remove')}
        </Button>
      </footer>
      {asked && <DoctorDialog {...target} name={name} onClose={() => setAsked(false)} />}
    </>
  )
}

function ClientCard(props: ActionProps) {
  const { row } = props
  const { key, name, profile, truth } = row
  const [connecting, setConnecting] = useState(false)
  const state = connecting ? 'starting' : row.state
  const waited = useWaiting(key, state === 'starting')
  const up = row.state === 'up'
  const last = profile.status === OFF && !connecting ? outcomes.get(key) : undefined

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
                  ? ([
                      [
                        t('peer.handshake'),
                        handshakeWords(String(profile['latest_handshake'] ?? '')),
                      ],
                    ] as const)
                  : []),
                [t('client.now'), <RateNow row={row} />],
              ] as const)
            : []),
        ]}
      />
      {state === 'starting' && (
        <p>
          <Spinner quiet label={t('client.waiting', { n: duration(waited) })} />
        </p>
      )}
      {state === 'starting' && waited >= PATIENCE && <Notice>{t('client.long')}</Notice>}
      {truth?.reason && !connecting && <Why reason={truth.reason} />}
      {last && (
        <p class="soft">
          {t('client.gaveUp', { time: duration(last.seconds) })} {last.why}
        </p>
      )}
      {!truth?.reason && profile.status === OFF && profile.last_error !== 0 && (
        <Notice tone="bad">
          <strong>{t('client.failed', { code: profile.last_error })}</strong>{' '}
          {adviceFor(profile.last_error)}
        </Notice>
      )}
      <Actions {...props} onConnecting={setConnecting} />
    </section>
  )
}

const columnsFor = (actions: (row: Row) => ComponentChildren): readonly ShownColumn<Row>[] => [
  {
    name: 'name',
    label: t('name'),
    sort: row => row.name,
    cell: row => <bdi class="name">{row.name}</bdi>,
  },
  {
    name: 'state',
    label: t('peer.state'),
    sort: row => ORDER.indexOf(row.state),
    cell: row => <StateBadge state={row.state} />,
  },
  {
    name: 'type',
    label: t('protocol'),
    sort: row => labelOf(row.profile.type),
    cell: row => labelOf(row.profile.type),
  },
  {
    name: 'host',
    label: t('client.host'),
    sort: row => row.profile.server_ip,
    cell: row => <bdi>{row.profile.server_ip}</bdi>,
  },
  {
    name: 'why',
    label: t('report.why'),
    cell: row =>
      row.truth?.reason
        ? whyOf(row.truth.reason)
        : row.state === 'up' && row.profile.uptime > 0
          ? duration(row.profile.uptime)
          : '',
  },
  {
    name: 'actions',
    label: t('actions'),
    head: () => <span class="unseen">{t('actions')}</span>,
    cell: actions,
  },
]
// What needs a look comes first.
const ORDER: readonly string[] = ['failed', 'no-peer', 'retrying', 'starting', 'up', 'off']
export const inOrder = (
  profiles: readonly ClientProfile[],
  stateOf: (one: ClientProfile) => string,
): ClientProfile[] =>
  [...profiles].sort((a, b) => ORDER.indexOf(stateOf(a)) - ORDER.indexOf(stateOf(b)))
const FILTERS = (): readonly ShownFilter<Row>[] => [
  { name: 'up', label: t('state.on'), keeps: row => row.state === 'up' },
  {
    name: 'trouble',
    label: t('list.trouble'),
    keeps: row => row.state !== 'up' && (row.state !== 'off' || Boolean(row.truth?.reason)),
  },
  { name: 'off', label: t('state.off'), keeps: row => row.state === 'off' },
]
const USUAL = usual('name')
const MANY = 12 // tunnels beyond which a table says more than cards

type Open =
  | { what: 'pick' }
  | { what: 'import'; files: File[] }
  | { what: 'edit'; type: number; profile: ClientProfile | null; start?: Record<string, string> }

export function ClientsPage() {
  const admin = session.login.value?.admin ?? false
  const [waiting, setWaiting] = useState<readonly Open[]>([]) // dialogs, the first of which is there
  const open = waiting[0]
  const poll = usePoll(async () => {
    const [profiles, status] = await Promise.all([
      data<ClientProfile[] | null>('config/show', { type: CLIENTS }),
      admin ? readStatus(CLIENTS) : NO_STATUS,
    ])
    return { profiles: profiles ?? [], ...status }
  }, PAUSE)
  const trails = usePoll(
    async () => (admin ? trailsOf(await data<TunnelTrails>('traffic/tunnels')) : new Map()),
    STEP,
  )
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
          what: 'edit',
          type: WIREGUARD_CLIENT,
          profile: null,
          start: { ...start, client_name: file.name.replace(/\.conf$/i, '') },
        })
    }
    setWaiting([
      ...(others.length > 0 ? [{ what: 'import', files: others } as const] : []),
      ...more,
    ])
  }
  const over = useFileDrop(admin && !open, files => void take(files))

  const rows = (list.value ?? []).map(one =>
    rowOf(one, poll.value?.states ?? new Map(), trails.value ?? new Map()),
  )
  const full = rows.filter(row => !row.profile['vendor']).length >= MOST
  const table = (query.value['view'] ?? (rows.length > MANY ? 'table' : 'cards')) === 'table'
  const propsFor = (row: Row): ActionProps => ({
    row,
    admin,
    onEdit: () => setWaiting([{ what: 'edit', type: row.profile.type, profile: row.profile }]),
    onChanged: list.refresh,
  })

  // The address of a first run: "#/clients?add=1".
  useEffect(() => {
    if (query.value['add'] !== '1') return
    choose({ add: '' })
    if (admin) setWaiting([{ what: 'pick' }])
  }, [query.value])

  if (!list.value)
    return list.failure ? <Failure failure={list.failure} onRetry={list.refresh} /> : <Spinner />
  return (
    <div class="drop">
      {poll.value?.fault && <Damaged fault={poll.value.fault} />}
      <Failure failure={list.failure} />
      {admin && (
        <div class="row">
          <Button
            kind="primary"
            icon="plus"
            disabled={full}
            onClick={() => setWaiting([{ what: 'pick' }])}
          >
            {t('client.add')}
          </Button>
          <FileButton label={t('client.import')} onFiles={files => void take(files)} />
          <span class="soft hint">
            {t(full ? 'client.full' : 'client.dropHint', { most: MOST })}
          </span>
        </div>
      )}
      {rows.length === 0 ? (
        <Card>
          <Empty>{t(admin ? 'client.none' : 'overview.noTunnels')}</Empty>
        </Card>
      ) : (
        <List
          label={t('nav.clients')}
          rows={rows}
          textOf={row =>
            `${row.name} ${labelOf(row.profile.type)} ${row.profile.server_ip} ${row.profile.local_ip}`
          }
          keyOf={row => row.key}
          columns={columnsFor(row => (
            <Actions {...propsFor(row)} />
          ))}
          filters={FILTERS()}
          usually={USUAL}
          empty={t('client.none')}
          show={
            table
              ? undefined
              : some => (
                  <div class="cards">
                    {some.map(row => (
                      <ClientCard key={row.key} {...propsFor(row)} />
                    ))}
                  </div>
                )
          }
        >
          <Tabs
            label={t('list.view')}
            names={[
              ['cards', t('list.cards')],
              ['table', t('list.table')],
            ]}
            current={table ? 'table' : 'cards'}
            onPick={wanted => choose({ view: wanted })}
          />
        </List>
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
          onPick={type =>
            setWaiting([
              type === OPENVPN_CLIENT
                ? { what: 'import', files: [] }
                : { what: 'edit', type, profile: null },
            ])
          }
        />
      )}
      {open?.what === 'import' && (
        <ImportDialog files={open.files} onClose={done} onChanged={list.refresh} />
      )}
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
export const FileButton = ({
  label,
  onFiles,
  single,
}: {
  label: string
  onFiles: (files: File[]) => void
  single?: boolean
}) => (
  <label class="button plain file">
    <Icon name="upload" />
    {label}
    <input
      type="file"
      class="unseen"
      multiple={!single}
      onChange={event => {
        onFiles([...(event.currentTarget.files ?? [])])
        event.currentTarget.value = ''
      }}
    />
  </label>
)
