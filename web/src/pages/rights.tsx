// Who may use which server, and whom wrong passwords have locked out.
import { useState } from 'preact/hooks'
import { call, data } from '../api'
import { Fields, sent, useForm, type FieldRow } from '../form'
import { count } from '../format'
import { PROTOCOLS, type Connection } from '../model'
import { usePoll } from '../poll'
import { page } from '../rules'
import { t } from '../texts'
import { Button, Card, Empty, Failure, Pager, SaveRow, Spinner, Table, Tabs, confirm, say, useJob } from '../ui'

const SIZE = 15
const PAUSE = 10_000
const EVERYBODY = 100_000 // entries, more than there are

// A peer of WireGuard needs no right.
const GRANTED = PROTOCOLS.filter((one) => one.right)

type Source = 'local' | 'remote'
type Masks = Record<string, number>

// Whom taking rights away throws out at once.
export const thrownOut = (changes: ReadonlyMap<string, number>, connections: readonly Connection[]): number =>
  connections.filter((one) => {
    const mask = changes.get(one.name)
    return mask !== undefined && (mask & one.type) === 0
  }).length

function Grid() {
  const [source, setSource] = useState<Source>('local')
  const [typed, setTyped] = useState('')
  const [filter, setFilter] = useState('')
  const [at, setAt] = useState(0)
  const [changes, setChanges] = useState<ReadonlyMap<string, number>>(new Map())
  const job = useJob()
  const list = usePoll(
    async () => {
      const form = { lower: at * SIZE, upper: at * SIZE + SIZE - 1, type: source, filter: filter || undefined }
      const [users, masks] = await Promise.all([
        call<string[] | null>('user/query', form),
        data<Masks | null>('privilege/get', { lower: 0, upper: EVERYBODY }),
      ])
      return { source, filter, at, users: users.data ?? [], total: users.total ?? 0, masks: masks ?? {} }
    },
    PAUSE,
    [source, filter, at],
  )
  const value = list.value
  // What is still shown is of another question than the one that was asked last.
  const stale = value !== null && value !== undefined && (value.source !== source || value.filter !== filter || value.at !== at)
  const pages = page(value?.total ?? 0, at, SIZE)
  const maskOf = (user: string): number => changes.get(user) ?? value?.masks[user] ?? 0

  const toggle = (user: string, bit: number, on: boolean) => {
    const next = new Map(changes)
    const mask = on ? maskOf(user) | bit : maskOf(user) & ~bit
    if (mask === (value?.masks[user] ?? 0)) next.delete(user)
    else next.set(user, mask)
    setChanges(next)
  }
  const save = () =>
    job.run('save', async () => {
      const gone = thrownOut(changes, await data<Connection[]>('connection/list'))
      const yes =
        gone === 0 ||
        (await confirm({ title: t('rights.cut'), text: count(gone, 'rights.cutOne', 'rights.cutMany'), action: t('save'), danger: true }))
      if (!yes) return
      const set = [...changes].filter(([, mask]) => mask !== 0).map(([user, mask]) => `${user}|${mask}`)
      const unset = [...changes].filter(([, mask]) => mask === 0).map(([user]) => user)
      if (set.length > 0) await call('privilege/set', { user: set })
      if (unset.length > 0) await call('privilege/unset', { user: unset })
      setChanges(new Map())
      say('saved')
      list.refresh()
    })

  return (
    <Card title={t('rights.title')}>
      <p>{t('rights.help')}</p>
      <div class="row spread">
        <Tabs
          label={t('rights.source')}
          names={[
            ['local', t('rights.local')],
            ['remote', t('rights.remote')],
          ]}
          current={source}
          onPick={(next) => (setSource(next), setAt(0))}
        />
        <form
          class="row"
          role="search"
          onSubmit={(event) => {
            event.preventDefault()
            setFilter(typed.trim())
            setAt(0)
          }}
        >
          <input type="search" aria-label={t('rights.filter')} placeholder={t('rights.filter')} value={typed} onInput={(event) => setTyped(event.currentTarget.value)} />
          <Button submit>{t('rights.find')}</Button>
        </form>
      </div>
      <Failure failure={list.failure} onRetry={list.refresh} />
      {(!value || stale) && !list.failure && <Spinner />}
      {value && value.users.length === 0 && <Empty>{t(source === 'remote' && !filter ? 'rights.noDirectory' : 'rights.none')}</Empty>}
      {value && value.users.length > 0 && (
        <Table label={t('nav.rights')} heads={[t('logs.user'), ...GRANTED.map((one) => one.label)]}>
          {value.users.map((user) => (
            <tr key={user} class={changes.has(user) ? 'changed' : ''}>
              <th scope="row">
                <bdi class="name">{user}</bdi>
              </th>
              {GRANTED.map((one) => (
                <td key={one.id}>
                  <input
                    type="checkbox"
                    aria-label={t('rights.may', { user, server: one.label })}
                    disabled={stale}
                    checked={(maskOf(user) & one.server) !== 0}
                    onChange={(event) => toggle(user, one.server, event.currentTarget.checked)}
                  />
                </td>
              ))}
            </tr>
          ))}
        </Table>
      )}
      <Pager total={value?.total ?? 0} current={pages.current} pages={pages.pages} onGo={setAt} />
      <Failure failure={job.failure} />
      <div class={changes.size > 0 ? 'row end afloat' : 'row end'}>
        {changes.size > 0 && <span class="soft">{count(changes.size, 'rights.changedOne', 'rights.changed')}</span>}
        <Button disabled={changes.size === 0} onClick={() => setChanges(new Map())}>
          {t('rights.undo')}
        </Button>
        <Button kind="primary" disabled={changes.size === 0} busy={job.busy === 'save'} onClick={() => void save()}>
          {t('save')}
        </Button>
      </div>
    </Card>
  )
}

interface Blocks {
  enable: boolean
  limit: number
  time: number
  user: string[]
}

const POLICY: readonly FieldRow[] = [
  { name: 'enable', label: 'block.enable', kind: 'switch', wide: true },
  { name: 'limit', label: 'block.limit', choices: Array.from({ length: 9 }, (_, at) => [String(at + 2), String(at + 2)] as const) },
  {
    name: 'time', label: 'block.time',
    choices: () => [['30', t('block.half')], ['60', t('block.hour')], ['720', t('block.twelve')], ['1440', t('block.day')]],
  },
]

function Policy({ blocks, onSaved }: { blocks: Blocks; onSaved: () => void }) {
  const form = useForm(POLICY, { enable: blocks.enable, limit: String(blocks.limit), time: String(blocks.time) }, true)
  const job = useJob()
  const save = async (event: Event) => {
    event.preventDefault()
    const locked = blocks.user.length
    if (locked > 0 && !(await confirm({ title: t('block.policy'), text: t('block.lifts'), action: t('save') }))) return
    await job.run('save', async () => {
      await call('privilege/block', sent(POLICY, form.values))
      form.settle()
      say('saved')
      onSaved()
    })
  }
  return (
    <form onSubmit={(event) => void save(event)}>
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
  if (!blocks.value) return blocks.failure ? <Failure failure={blocks.failure} onRetry={blocks.refresh} /> : <Spinner />
  return (
    <div class="columns">
      <Card title={t('block.title')}>
        <Failure failure={job.failure ?? blocks.failure} />
        {blocks.value.user.length === 0 && <Empty>{t('block.none')}</Empty>}
        <ul class="rows">
          {blocks.value.user.map((user) => (
            <li key={user}>
              <bdi class="name">{user}</bdi>
              <Button busy={job.busy === user} label={t('block.liftName', { user })} onClick={() => void lift(user)}>
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
