// The tokens by which other programs use the routes of the appliance.
import { useState } from 'preact/hooks'
import { call, data } from '../api'
import { Fields, useForm, type FieldRow } from '../form'
import { moment } from '../format'
import { usePoll } from '../poll'
import { SecretOnce } from '../secretonce'
import { t } from '../texts'
import {
  Badge,
  Button,
  Card,
  Dialog,
  Empty,
  Failure,
  SaveRow,
  Spinner,
  Table,
  confirm,
  say,
  useJob,
} from '../ui'
import { DAY, daysLeft, tokenName } from '../token'

interface Token {
  id: string
  name: string
  scope: 'metrics' | 'read' | 'admin'
  by: string
  expires: number
  used: number
  from: string
  state: 'valid' | 'expired' | 'no-maker'
}

const PAUSE = 30_000
const SOON = 14 // days before its end, from which on a token is marked

const rows: readonly FieldRow[] = [
  { name: 'name', label: 'name', rule: tokenName, help: 'token.nameHelp' },
  {
    name: 'scope',
    label: 'token.scope',
    help: 'token.scopeHelp',
    choices: () => [
      ['metrics', t('token.metrics')],
      ['read', t('token.read')],
      ['admin', t('token.admin')],
    ],
  },
  {
    name: 'days',
    label: 'token.valid',
    choices: () => ['7', '30', '90', '365', '1825'].map(n => [n, t('token.days', { n })] as const),
  },
]

function MakeDialog({ onClose, onMade }: { onClose: () => void; onMade: (text: string) => void }) {
  const form = useForm(rows, { name: '', scope: 'metrics', days: '365' })
  const job = useJob()
  const make = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    await job.run('save', async () => {
      const { token } = await data<{ token: string }>('token/add', {
        name: String(form.values['name']).trim(),
        scope: String(form.values['scope']),
        seconds: Number(form.values['days']) * DAY,
      })
      onMade(token)
    })
  }
  return (
    <Dialog title={t('token.add')} onClose={onClose}>
      <form onSubmit={event => void make(event)} noValidate>
        <Fields rows={rows} form={form} />
        <SaveRow job={job}>
          <Button onClick={onClose}>{t('cancel')}</Button>
        </SaveRow>
      </form>
    </Dialog>
  )
}

function Left({ token, now }: { token: Token; now: number }) {
  const days = daysLeft(token.expires, now)
  if (days < 0) return <Badge tone="bad">{t('token.ended')}</Badge>
  if (token.state === 'no-maker') return <Badge tone="bad">{t('token.noMaker')}</Badge>
  const text = t('token.days', { n: days })
  return days < SOON ? <Badge tone="warn">{text}</Badge> : <>{text}</>
}

const Row = ({ token, now, onRemove }: { token: Token; now: number; onRemove: () => void }) => (
  <tr>
    <td data-label={t('name')}>
      <bdi>{token.name}</bdi>
    </td>
    <td data-label={t('token.scope')}>{t(`token.${token.scope}`)}</td>
    <td data-label={t('token.used')}>
      {token.used === 0
        ? t('token.never')
        : t('token.usedFrom', { when: moment(token.used), from: token.from || '–' })}
    </td>
    <td data-label={t('token.valid')}>
      <Left token={token} now={now} />
    </td>
    <td data-label={t('token.by')}>
      <bdi>{token.by || t('token.unknown')}</bdi>
    </td>
    <td data-label="">
      <Button label={t('remove.name', { name: token.name })} onClick={onRemove}>
        {t('remove')}
      </Button>
    </td>
  </tr>
)

export function TokensPage() {
  const { value, failure, refresh } = usePoll(() => data<Token[]>('token/list'), PAUSE)
  const [making, setMaking] = useState(false)
  const [made, setMade] = useState('')
  const job = useJob()
  const now = Date.now() / 1000
  const drop = async (token: Token) => {
    const sure = await confirm({
      title: t('remove.name', { name: token.name }),
      text: t('token.removeText'),
      action: t('remove'),
      danger: true,
    })
    if (!sure) return
    await job.run(`remove ${token.id}`, async () => {
      await call('token/remove', { name: token.id })
      say('removed')
      refresh()
    })
  }
  if (!value) return failure ? <Failure failure={failure} onRetry={refresh} /> : <Spinner />
  return (
    <Card
      title={t('token.title')}
      side={
        <Button icon="plus" onClick={() => setMaking(true)}>
          {t('token.add')}
        </Button>
      }
    >
      <p class="help">{t('token.help')}</p>
      <Failure failure={failure ?? job.failure} onRetry={refresh} />
      {value.length === 0 ? (
        <Empty>{t('token.none')}</Empty>
      ) : (
        <Table
          label={t('token.title')}
          heads={[
            t('name'),
            t('token.scope'),
            t('token.used'),
            t('token.valid'),
            t('token.by'),
            t('actions'),
          ]}
        >
          {value.map(token => (
            <Row key={token.id} token={token} now={now} onRemove={() => void drop(token)} />
          ))}
        </Table>
      )}
      {making && (
        <MakeDialog
          onClose={() => setMaking(false)}
          onMade={text => {
            setMaking(false)
            setMade(text)
            refresh()
          }}
        />
      )}
      {made && (
        <SecretOnce
          title={t('token.made')}
          text={t('token.madeText')}
          secret={made}
          onClose={() => setMade('')}
        />
      )}
    </Card>
  )
}
