// Which tunnel carries what leaves the appliance.
import { call, data } from '../api'
import { Fields, sent, useForm, type Choice, type FieldRow, type Values } from '../form'
import { CarefulSwitch, withCare } from '../goback'
import { CLIENTS, labelOf, type ClientProfile } from '../model'
import { usePoll } from '../poll'
import { session } from '../session'
import { t } from '../texts'
import { Badge, Card, Failure, Notice, SaveRow, Spinner, say, useJob } from '../ui'
import { clientName } from './clients'
import { GuardBand, GuardCard, type Guard } from './guard'
import { gatewayName, type Gateway } from './overview'

const PAUSE = 3_000

interface Tunnel {
  type: number
  index: number
}
interface Setting {
  as_gw_en: number
  gw1?: Tunnel
  snat?: number
  failover_en?: number
  failover_interval?: number
  gw2?: Tunnel
}

const idOf = (tunnel: Tunnel | undefined): string =>
  tunnel ? `${tunnel.type}-${tunnel.index}` : ''
const on = (values: Values) => values['as_gw_en'] === true
const second = (values: Values) => on(values) && values['gw2'] !== ''

const rowsFor = (tunnels: readonly Choice[]): readonly FieldRow[] => [
  { name: 'as_gw_en', label: 'gateway.use', kind: 'switch', wide: true },
  {
    name: 'gw1',
    label: 'gateway.first',
    when: on,
    rule: value => (value === '' ? 'rule.required' : null),
    choices: [['', t('gateway.choose')], ...tunnels],
  },
  {
    name: 'gw2',
    label: 'gateway.second',
    when: on,
    help: 'gateway.secondHelp',
    choices: values => [
      ['', t('gateway.noSecond')],
      ...tunnels.filter(([id]) => id !== values['gw1']),
    ],
  },
  {
    name: 'failover_interval',
    label: 'gateway.back',
    when: second,
    choices: () => [
      ['0', t('gateway.atOnce')],
      ['1', t('gateway.minutes', { n: 1 })],
      ['5', t('gateway.minutes', { n: 5 })],
      ['10', t('gateway.minutes', { n: 10 })],
      ['-1', t('gateway.never')],
    ],
  },
  { name: 'snat', label: 'gateway.snat', kind: 'switch', when: on, help: 'gateway.snatHelp' },
]

// The form on the wire: tunnels as type and index.
export function gatewayForm(values: Record<string, string>): Record<string, string> {
  if (values['as_gw_en'] !== 'true') return { as_gw_en: '0' }
  const [type1 = '', index1 = ''] = (values['gw1'] ?? '').split('-')
  const [type2 = '', index2 = ''] = (values['gw2'] ?? '').split('-')
  const out: Record<string, string> = {
    as_gw_en: '1',
    gw1_type: type1,
    gw1_index: index1,
    snat: values['snat'] === 'true' ? '1' : '0',
    failover_en: type2 ? '1' : '0',
  }
  return type2
    ? {
        ...out,
        gw2_type: type2,
        gw2_index: index2,
        failover_interval: values['failover_interval'] ?? '-1',
      }
    : out
}

function Policy({
  setting,
  clients,
  onSaved,
}: {
  setting: Setting
  clients: readonly ClientProfile[]
  onSaved: () => void
}) {
  const tunnels = clients.map(
    (one): Choice => [idOf(one), `${clientName(one)} (${labelOf(one.type)})`],
  )
  const rows = rowsFor(tunnels)
  const form = useForm(
    rows,
    {
      as_gw_en: setting.as_gw_en === 1,
      gw1: idOf(setting.gw1),
      gw2: setting.failover_en ? idOf(setting.gw2) : '',
      failover_interval: String(setting.failover_interval ?? 0),
      snat: setting.snat !== 0,
    },
    true,
  )
  const job = useJob()
  const save = async (event: Event) => {
    event.preventDefault()
    if (!form.check()) return
    await job.run('save', async () => {
      await withCare(() => call('gateway/set', gatewayForm(sent(rows, form.values))))
      form.settle()
      say('saved')
      onSaved()
    })
  }
  return (
    <form onSubmit={event => void save(event)} noValidate>
      <Fields rows={rows} form={form} />
      {clients.length === 0 && <Notice>{t('gateway.noTunnels')}</Notice>}
      <CarefulSwitch />
      <SaveRow job={job} />
    </form>
  )
}

export function GatewayPage() {
  const admin = session.login.value?.admin ?? false
  const now = usePoll(async () => {
    const [gateway, guard, clients] = await Promise.all([
      data<Gateway>('gateway/get_vpn_gw'),
      data<Guard>('guard/get'),
      data<ClientProfile[] | null>('config/show', { type: CLIENTS }),
    ])
    return { gateway, guard, clients: clients ?? [] }
  }, PAUSE)
  const policy = usePoll(() => data<{ gw_setting: Setting }>('gateway/get'), 0)
  if (!now.value || !policy.value) {
    const failure = now.failure ?? policy.failure
    return failure ? (
      <Failure failure={failure} onRetry={() => (now.refresh(), policy.refresh())} />
    ) : (
      <Spinner />
    )
  }
  const { gateway, guard, clients } = now.value
  const setting = policy.value.gw_setting
  const carries = (tunnel: Tunnel | undefined) =>
    tunnel !== undefined && idOf(tunnel) === idOf(gateway)
  return (
    <>
      <Failure failure={now.failure} />
      <GuardBand guard={guard} admin={admin} onChanged={now.refresh} />
      <Card title={t('gateway.now')}>
        <p class="big">
          <bdi>{gatewayName(gateway, clients)}</bdi>{' '}
          <Badge tone={gateway.type ? 'good' : 'off'}>
            {t(gateway.type ? 'gateway.byTunnel' : 'gateway.byLan')}
          </Badge>
        </p>
        {setting.as_gw_en === 1 && !gateway.type && <Notice>{t('gateway.notYet')}</Notice>}
        {carries(setting.gw2) && <Notice>{t('gateway.onSecond')}</Notice>}
      </Card>
      {admin && (
        <Card title={t('gateway.policy')}>
          <Policy
            setting={setting}
            clients={clients}
            onSaved={() => (policy.refresh(), now.refresh())}
          />
        </Card>
      )}
      {admin && <GuardCard guard={guard} onChanged={now.refresh} />}
    </>
  )
}
