// Who may use which server, and whom wrong passwords have locked out.
import { useEffect, useState } from 'preact/hooks'
import { call, data } from '../api'
import { Fields, sent, useForm, type FieldRow } from '../form'
import { count } from '../format'
import { List, usual, type ShownColumn, type ShownFilter } from '../list'
import { lookOf } from '../listing'
import { PROTOCOLS, type Connection } from '../model'
import { usePoll } from '../poll'
import { choose, query } from '../router'
import { t } from '../texts'
import {
  Button,
  Card,
  Empty,
  Failure,
  SaveRow,
  Spinner,
  Tabs,
  confirm,
  say,
  useJob,
  useTouched,
} from '../ui'
import { GrantDialog, endWords, firstEnd, type Grant } from './grant'
import { UserLink } from './user'

const PAUSE = 10_000
const RARE = 60_000 // the names change seldom
const EVERYBODY = 100_000 // entries, more than there are
const MOST = 5_000 // names that are asked for at once; of more users than that a search asks the appliance

// A peer of WireGuard needs no right.
const GRANTED = PROTOCOLS.filter(one => one.right)

type Source = 'local' | 'remote'
export type Masks = Record<string, number>

// Those with a right and those without any are two requests.
export async function saveRights(masks: ReadonlyMap<string, number>): Promise<void> {
  const set = [...masks].filter(([, mask]) => mask !== 0).map(([user, mask]) => `${user}|${mask}`)
  const unset = [...masks].filter(([, mask]) => mask === 0).map(([user]) => user)
  if (set.length > 0) await call('privilege/set', { user: set })
  if (unset.length > 0) await call('privilege/unset', { user: unset })
}

// Whom taking rights away throws out at once.
export const thrownOut = (
  changes: ReadonlyMap<string, number>,
  connections: readonly Connection[],
): number =>
  connections.filter(one => {
    const mask = changes.get(one.name)
    return mask !== undefined && (mask & one.type) === 0
  }).length

interface Row {
  user: string
  mask: number
  changed: boolean
  grant: Grant | undefined
}
const USUAL = usual('user')
const SERVERS = GRANTED.reduce((mask, one) => mask | one.server, 0)
const filters = (): readonly ShownFilter<Row>[] => [
  { name: 'some', label: t('rights.some'), keeps: row => (row.mask & SERVERS) !== 0 },
  { name: 'no', label: t('rights.without'), keeps: row => (row.mask & SERVERS) === 0 },
  ...GRANTED.map(one => ({
    name: one.id,
    label: one.label,
    keeps: (row: Row) => (row.mask & one.server) !== 0,
  })),
]
type Setter = (users: readonly string[], bit: number, on: boolean) => void
const grantWords = ({ grant }: Row): string =>
  [
    firstEnd(grant) > 0 ? endWords(firstEnd(grant)) : '',
    grant && grant.devices > 0 ? count(grant.devices, 'grant.oneDevice', 'grant.someDevices') : '',
  ]
    .filter(Boolean)
    .join(' · ')
const columnsFor = (set: Setter, edit: (row: Row) => void): readonly ShownColumn<Row>[] => [
  {
    name: 'user',
    label: t('logs.user'),
    rowHead: true,
    sort: row => row.user,
    cell: row => <UserLink name={row.user} />,
  },
  ...GRANTED.map(
    (one): ShownColumn<Row> => ({
      name: one.id,
      label: one.label,
      head: rows => (
        <label class="head">
          <input
            type="checkbox"
            aria-label={t('rights.all', { server: one.label })}
            checked={rows.length > 0 && rows.every(row => (row.mask & one.server) !== 0)}
            onChange={event =>
              set(
                rows.map(row => row.user),
                one.server,
                event.currentTarget.checked,
              )
            }
          />{' '}
          {one.label}
        </label>
      ),
      cell: row => (
        <label class="head">
          <input
            type="checkbox"
            aria-label={t('rights.may', { user: row.user, server: one.label })}
            checked={(row.mask & one.server) !== 0}
            onChange={event => set([row.user], one.server, event.currentTarget.checked)}
          />
          <span class="cell-label">{one.label}</span>
        </label>
      ),
    }),
  ),
  {
    name: 'until',
    label: t('grant.until'),
    sort: row => firstEnd(row.grant) || Infinity,
    cell: row => (
      <button
        type="button"
        class="link"
        aria-haspopup="dialog"
        aria-label={t('grant.edit', { user: row.user, value: grantWords(row) || t('grant.noEnd') })}
        onClick={() => edit(row)}
      >
        {grantWords(row) || t('grant.noEnd')}
      </button>
    ),
  },
]

function Grid() {
  const [source, setSource] = useState<Source>('local')
  const [changes, setChanges] = useState<ReadonlyMap<string, number>>(new Map())
  const job = useJob()
  useTouched(changes.size > 0)
  const search = lookOf(query.value, USUAL).q
  const [asks, setAsks] = useState('') // what the appliance has to search for, where there are too many users
  const names = usePoll(
    async () => {
      const form = { lower: 0, upper: MOST - 1, type: source, filter: asks || undefined }
      const answer = await call<string[] | null>('user/query', form)
      return { source, users: answer.data ?? [], total: answer.total ?? 0 }
    },
    RARE,
    [source, asks],
  )
  const masks = usePoll(
    () => data<Masks | null>('privilege/get', { lower: 0, upper: EVERYBODY }),
    PAUSE,
  )
  const grants = usePoll(() => data<Grant[]>('grant/list'), PAUSE)
  const [edited, setEdited] = useState<Row | null>(null)
  // What is still shown is of another question than the one that was asked last.
  const value = names.value?.source === source ? names.value : undefined
  useEffect(() => {
    if (asks !== '' || (value && value.total > MOST)) setAsks(search)
  }, [search, value?.total])
  const stored = (user: string): number => masks.value?.[user] ?? 0
  const maskOf = (user: string): number => changes.get(user) ?? stored(user)
  const rows = (value?.users ?? []).map(
    (user): Row => ({
      user,
      mask: maskOf(user),
      changed: changes.has(user),
      grant: grants.value?.find(one => one.user === user),
    }),
  )

  const put = (wanted: readonly (readonly [user: string, mask: number])[]) => {
    const next = new Map(changes)
    for (const [user, mask] of wanted) {
      if (mask === stored(user)) next.delete(user)
      else next.set(user, mask)
    }
    setChanges(next)
  }
  const set: Setter = (users, bit, on) =>
    put(users.map(user => [user, on ? maskOf(user) | bit : maskOf(user) & ~bit] as const))
  const save = () =>
    job.run('save', async () => {
      const gone = thrownOut(changes, await data<Connection[]>('connection/list'))
      const yes =
        gone === 0 ||
        (await confirm({
          title: t('rights.cut'),
          text: count(gone, 'rights.cutOne', 'rights.cutMany'),
          action: t('save'),
          danger: true,
        }))
      if (!yes) return
      await saveRights(changes)
      setChanges(new Map())
      say('saved')
      masks.refresh()
      grants.refresh()
    })

  return (
    <Card title={t('rights.title')}>
      <p>{t('rights.help')}</p>
      <Failure
        failure={names.failure ?? masks.failure ?? grants.failure}
        onRetry={() => (names.refresh(), masks.refresh())}
      />
      <Tabs
        label={t('rights.source')}
        names={[
          ['local', t('rights.local')],
          ['remote', t('rights.remote')],
        ]}
        current={source}
        onPick={next => (setSource(next), setAsks(''), choose({ page: '' }))}
      />
      {(!value || !masks.value) && !names.failure && <Spinner />}
      {value && masks.value && (
        <List
          label={t('nav.rights')}
          rows={rows}
          textOf={row => row.user}
          keyOf={row => row.user}
          columns={columnsFor(set, setEdited)}
          filters={filters()}
          usually={USUAL}
          marked={row => row.changed}
          empty={t(source === 'remote' ? 'rights.noDirectory' : 'rights.none')}
        />
      )}
      {edited && (
        <GrantDialog
          user={edited.user}
          mask={edited.mask & SERVERS}
          grant={edited.grant}
          onClose={() => setEdited(null)}
          onSaved={() => (setEdited(null), grants.refresh())}
        />
      )}
      <Failure failure={job.failure} />
      <div class={changes.size > 0 ? 'row end afloat' : 'row end'}>
        {changes.size > 0 && (
          <span class="soft">{count(changes.size, 'rights.changedOne', 'rights.changed')}</span>
        )}
        <Button disabled={changes.size === 0} onClick={() => setChanges(new Map())}>
          {t('rights.undo')}
        </Button>
        <Button
          kind="primary"
          disabled={changes.size === 0}
          busy={job.busy === 'save'}
          onClick={() => void save()}
        >
          {t('save')}
        </Button>
      </div>
    </Card>
  )
}

export interface Blocks {
  enable: boolean
  limit: number
  time: number
  user: string[]
}

const POLICY: readonly FieldRow[] = [
  { name: 'enable', label: 'block.enable', kind: 'switch', wide: true },
  {
    name: 'limit',
    label: 'block.limit',
    choices: Array.from({ length: 9 }, (_, at) => [String(at + 2), String(at + 2)] as const),
  },
  {
    name: 'time',
    label: 'block.time',
    choices: () => [
      ['30', t('block.half')],
      ['60', t('block.hour')],
      ['720', t('block.twelve')],
      ['1440', t('block.day')],
    ],
  },
]

function Policy({ blocks, onSaved }: { blocks: Blocks; onSaved: () => void }) {
  const form = useForm(
    POLICY,
    { enable: blocks.enable, limit: String(blocks.limit), time: String(blocks.time) },
    true,
  )
  const job = useJob()
  const save = async (event: Event) => {
    event.preventDefault()
    const locked = blocks.user.length
    if (
      locked > 0 &&
      !(await confirm({ title: t('block.policy'), text: t('block.lifts'), action: t('save') }))
    )
      return
    await job.run('save', async () => {
      await call('privilege/block', sent(POLICY, form.values))
      form.settle()
      say('saved')
      onSaved()
    })
  }
  return (
    <form onSubmit={event => void save(event)}>
      <Fields rows={POLICY} form={form} />
      <p class="help">{t('block.lifts')}</p>
      <SaveRow job={job} />
    </form>
  )
}

function Blocked() {
  const blocks = usePoll(() => data<Blocks>('privilege/block_show'), PAUSE)
  const job = useJob()
  const lift = (user: string) =>
    job.run(user, async () => {
      await call('privilege/remove_block_user', { user })
      say('block.lifted')
      blocks.refresh()
    })
  if (!blocks.value)
    return blocks.failure ? (
      <Failure failure={blocks.failure} onRetry={blocks.refresh} />
    ) : (
      <Spinner />
    )
  return (
    <div class="columns">
      <Card title={t('block.title')}>
        <Failure failure={job.failure ?? blocks.failure} />
        {blocks.value.user.length === 0 && <Empty>{t('block.none')}</Empty>}
        <ul class="rows">
          {blocks.value.user.map(user => (
            <li key={user}>
              <bdi class="name">{user}</bdi>
              <Button
                busy={job.busy === user}
                label={t('block.liftName', { user })}
                onClick={() => void lift(user)}
              >
                {t('block.lift')}
              </Button>
            </li>
          ))}
        </ul>
      </Card>
      <Card title={t('block.policy')}>
        <Policy blocks={blocks.value} onSaved={blocks.refresh} />
      </Card>
    </div>
  )
}

export const RightsPage = () => (
  <>
    <Grid />
    <Blocked />
  </>
)
