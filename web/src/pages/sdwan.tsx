// The SD-WAN membership: the steps of joining, what a member sees, and how to leave.
import { useEffect, useState } from 'preact/hooks'
import { asset, call, data, pageOf, SLOW, ApiError } from '../api'
import { bytes, dayOf, logMoment } from '../format'
import { usePoll } from '../poll'
import { address } from '../rules'
import { t, type TextKey } from '../texts'
import {
  Badge,
  Button,
  Card,
  Empty,
  Facts,
  Failure,
  Field,
  Notice,
  Spinner,
  Table,
  confirm,
  say,
  useJob,
  type Tone,
} from '../ui'

const PAUSE = 5_000
const RARE = 60_000
const EVENTS = 6
const NO_APPLICATION = 60

interface Precheck {
  tamid_exist: boolean
  ncsi: boolean
  region: string
  l2tp_status: string
  compatible: boolean
}
interface Organization {
  name: string
  organization_id: string
  is_default: boolean
}
interface Region {
  groupId: string
  name?: string
  hubs: unknown[]
}
interface Status {
  region_type: string
  vpn_status: number
  hub: { name: string; public_ip: string; topology_status: number } | null
  supernode: {
    enable: boolean
    remaining_usage: number
    total_usage: number
    public_ip: string
  } | null
  orchestrator: {
    connection_status: number
    organization: string
    region: string
    is_mqtt_timeout: boolean
  }
  local: {
    virtual_ip: string
    device_name: string
    network_interface: string
    serial_number: number
    is_ipsec_timeout: boolean
  }
}

type StepState = 'done' | 'now' | 'later'
const Step = ({
  at,
  title,
  state,
  children,
}: {
  at: number
  title: string
  state: StepState
  children?: preact.ComponentChildren
}) => (
  <li class={`step ${state}`} aria-current={state === 'now' ? 'step' : undefined}>
    <span class="mark" aria-hidden="true">
      {state === 'done' ? '✓' : at}
    </span>
    <div>
      <h3>{title}</h3>
      {state !== 'later' && children}
    </div>
  </li>
)

// What the page that ends a login at the provider tells; null for one that tells nothing.
export function loginResult(page: string): { error: number; reason: string } | null {
  const found = /\{\\?"error\\?":(-?\d+),\\?"reason\\?":\\?"([^"\\]*)\\?"\}/.exec(page)
  return found ? { error: Number(found[1]), reason: found[2] ?? '' } : null
}

function Join({ onJoined }: { onJoined: () => void }) {
  const [precheck, setPrecheck] = useState<Precheck | null>(null)
  const [pages, setPages] = useState<Partial<Record<string, string>>>({}) // of the provider's login, by its clouds
  const [code, setCode] = useState('')
  const [account, setAccount] = useState('')
  const [organizations, setOrganizations] = useState<Organization[]>([])
  const [organization, setOrganization] = useState('')
  const [regions, setRegions] = useState<Region[] | null>(null)
  const [region, setRegion] = useState('auto')
  const job = useJob()
  const failed = (step: string) => job.last === step && <Failure failure={job.failure} />
  useEffect(
    () => void asset<typeof pages>('provider.json').then(found => found && setPages(found)),
    [],
  )

  const look = () =>
    job.run('look', async () => {
      const [found, kernel] = await Promise.all([
        data<Omit<Precheck, 'compatible'>>('pelmar/join_pelmar_precheck', {}, SLOW),
        data<{ is_compatible_version: boolean }>('pelmar/compatible_version'),
      ])
      setPrecheck({ ...found, compatible: kernel.is_compatible_version })
      if (found.ncsi && found.tamid_exist) await enter()
    })
  const enter = async () => {
    const { tamid } = await data<{ tamid: string }>('pelmar/get_tamid', {}, SLOW)
    const list = await data<Organization[]>('pelmar/organization_list', {}, SLOW)
    setOrganizations(list)
    setOrganization((list.find(one => one.is_default) ?? list[0])?.organization_id ?? '')
    setAccount(tamid)
  }
  const logIn = () =>
    job.run('login', async () => {
      const result = loginResult(await pageOf('oauth_login', { result: code.trim() }))
      if (result && result.error !== 0) throw new ApiError('code', result.error, result.reason)
      await enter()
      setCode('')
    })
  const choose = () =>
    job.run('regions', async () => {
      setRegions(await data<Region[]>('pelmar/region_list', { orgID: organization }, SLOW))
    })
  const join = () =>
    job.run('join', async () => {
      const chosen = regions?.find(one => one.groupId === region)
      await call(
        'pelmar/device_register',
        {
          org_ID: organization,
          org_name: organizations.find(one => one.organization_id === organization)?.name ?? '',
          region_ID: region,
          region_name: region === 'auto' ? t('sdwan.auto') : (chosen?.name ?? region),
        },
        SLOW,
      )
      say('sdwan.joined')
      onJoined()
    })

  const login = precheck && pages[precheck.region]
  const checked = precheck !== null && precheck.ncsi
  const state = (done: boolean, reached: boolean): StepState =>
    done ? 'done' : reached ? 'now' : 'later'
  return (
    <Card title={t('sdwan.join')}>
      <p>{t('sdwan.about')}</p>
      <ol class="steps">
        <Step at={1} title={t('sdwan.check')} state={state(checked, true)}>
          {precheck && (
            <Facts
              rows={[
                [
                  t('sdwan.internet'),
                  <Badge tone={precheck.ncsi ? 'good' : 'bad'}>
                    {t(precheck.ncsi ? 'yes' : 'no')}
                  </Badge>,
                ],
                [t('sdwan.cloudRegion'), precheck.region],
                [
                  t('sdwan.kernel'),
                  <Badge tone={precheck.compatible ? 'good' : 'warn'}>
                    {t(precheck.compatible ? 'yes' : 'no')}
                  </Badge>,
                ],
              ]}
            />
          )}
          {precheck && !precheck.ncsi && <Notice tone="bad">{t('sdwan.noInternet')}</Notice>}
          {precheck && !precheck.compatible && <Notice>{t('sdwan.noKernel')}</Notice>}
          {precheck?.l2tp_status === 'enabled' && <Notice>{t('sdwan.l2tp')}</Notice>}
          {failed('look')}
          {!checked && (
            <Button kind="primary" busy={job.busy === 'look'} onClick={() => void look()}>
              {t(precheck ? 'retry' : 'sdwan.begin')}
            </Button>
          )}
        </Step>
        <Step at={2} title={t('sdwan.account')} state={state(account !== '', checked)}>
          {account ? (
            <p>
              <bdi>{account}</bdi>
            </p>
          ) : (
            <>
              {login && (
                <a class="button primary" href={login} target="_blank" rel="noreferrer">
                  {t('sdwan.loginPage')}
                </a>
              )}
              <Field label={t('sdwan.code')} help={t('sdwan.codeHelp')}>
                {ids => (
                  <input
                    {...ids}
                    class="mono"
                    autocomplete="off"
                    value={code}
                    onInput={event => setCode(event.currentTarget.value)}
                  />
                )}
              </Field>
              {failed('login')}
              <Button
                kind="primary"
                disabled={code.trim() === ''}
                busy={job.busy === 'login'}
                onClick={() => void logIn()}
              >
                {t('sdwan.logIn')}
              </Button>
            </>
          )}
        </Step>
        <Step
          at={3}
          title={t('sdwan.organization')}
          state={state(regions !== null, account !== '')}
        >
          <Field label={t('sdwan.organization')}>
            {ids => (
              <select
                {...ids}
                value={organization}
                disabled={regions !== null}
                onChange={event => setOrganization(event.currentTarget.value)}
              >
                {organizations.map(one => (
                  <option key={one.organization_id} value={one.organization_id}>
                    {one.name}
                  </option>
                ))}
              </select>
            )}
          </Field>
          {failed('regions')}
          {regions === null ? (
            <Button
              kind="primary"
              disabled={organization === ''}
              busy={job.busy === 'regions'}
              onClick={() => void choose()}
            >
              {t('sdwan.next')}
            </Button>
          ) : (
            <Button onClick={() => setRegions(null)}>{t('sdwan.change')}</Button>
          )}
        </Step>
        <Step at={4} title={t('sdwan.region')} state={state(false, regions !== null)}>
          <Field label={t('sdwan.region')} help={t('sdwan.regionHelp')}>
            {ids => (
              <select
                {...ids}
                value={region}
                onChange={event => setRegion(event.currentTarget.value)}
              >
                <option value="auto">{t('sdwan.auto')}</option>
                {regions?.map(one => (
                  <option key={one.groupId} value={one.groupId}>
                    {t('sdwan.hubs', { name: one.name ?? one.groupId, n: one.hubs.length })}
                  </option>
                ))}
              </select>
            )}
          </Field>
          {failed('join')}
          <div class="row">
            <Button kind="primary" busy={job.busy === 'join'} onClick={() => void join()}>
              {t('sdwan.joinNow')}
            </Button>
            {job.busy === 'join' && <span class="soft">{t('sdwan.joining')}</span>}
          </div>
        </Step>
      </ol>
    </Card>
  )
}

function VirtualAddress({ current, onChanged }: { current: string; onChanged: () => void }) {
  const [ip, setIp] = useState(current)
  const [verdict, setVerdict] = useState<{ ip: string; valid: boolean; suggested: string } | null>(
    null,
  )
  const job = useJob()
  const wrong = ip === '' ? null : address(ip)
  const check = () =>
    job.run('check', async () => {
      const found = await data<{ valid: boolean; suggested_ip: string }>(
        'pelmar/check_virtual_ip',
        { ip },
        SLOW,
      )
      setVerdict({ ip, valid: found.valid, suggested: found.suggested_ip })
    })
  const change = () =>
    job.run('change', async () => {
      await call('pelmar/modify_virtual_ip', { ip }, SLOW)
      setVerdict(null)
      say('saved')
      onChanged()
    })
  const judged = verdict?.ip === ip ? verdict : null
  return (
    <Card title={t('sdwan.virtual')}>
      <p>{t('sdwan.virtualHelp')}</p>
      <Field label={t('sdwan.virtual')} error={wrong && t(wrong)}>
        {ids => (
          <input
            {...ids}
            inputMode="decimal"
            value={ip}
            onInput={event => setIp(event.currentTarget.value.trim())}
          />
        )}
      </Field>
      {judged?.valid && <Notice tone="good">{t('sdwan.free')}</Notice>}
      {judged && !judged.valid && (
        <Notice tone="bad">
          {t('sdwan.taken')}
          {judged.suggested !== ip && (
            <Button onClick={() => setIp(judged.suggested)}>
              {t('sdwan.suggested', { ip: judged.suggested })}
            </Button>
          )}
        </Notice>
      )}
      <Failure failure={job.failure} />
      <div class="row end">
        <Button
          disabled={ip === '' || wrong !== null || ip === current}
          busy={job.busy === 'check'}
          onClick={() => void check()}
        >
          {t('sdwan.checkIp')}
        </Button>
        <Button
          kind="primary"
          disabled={!judged?.valid}
          busy={job.busy === 'change'}
          onClick={() => void change()}
        >
          {t('sdwan.useIp')}
        </Button>
      </div>
    </Card>
  )
}

interface Day {
  date: string
  bytes: number
}
interface MemberEvent {
  id?: string
  date: string
  time: string
  description: string
}

function Quota({ supernode }: { supernode: NonNullable<Status['supernode']> }) {
  const { remaining_usage: left, total_usage: whole } = supernode
  return (
    <Card title={t('sdwan.quota')}>
      <Facts
        rows={[
          [t('sdwan.remaining'), t('sdwan.ofTotal', { left: bytes(left), total: bytes(whole) })],
          [t('client.host'), supernode.public_ip],
        ]}
      />
      <meter min={0} max={whole} low={whole / 10} value={left} aria-label={t('sdwan.remaining')} />
    </Card>
  )
}

function Days() {
  const days = usePoll(
    () => data<Day[] | null>('pelmar/supernode_recent_billing_daily_traffic', {}, SLOW),
    RARE,
  )
  const rows = (days.value ?? []).filter(one => typeof one.date === 'string')
  if (rows.length === 0 && !days.failure) return null
  return (
    <Card title={t('sdwan.daily')}>
      <Failure failure={days.failure} />
      <Table label={t('sdwan.daily')} heads={[t('logs.time'), t('sdwan.amount')]}>
        {rows.map(one => (
          <tr key={one.date}>
            <td>{dayOf(one.date)}</td>
            <td class="figure">{bytes(Number(one.bytes))}</td>
          </tr>
        ))}
      </Table>
    </Card>
  )
}

function MemberLog() {
  const log = usePoll(() => data<MemberEvent[] | null>('pelmar/logs', { limit: EVENTS }), RARE)
  const rows = log.value ?? []
  return (
    <Card title={t('sdwan.log')}>
      <Failure failure={log.failure} />
      {log.value !== undefined && rows.length === 0 && <Empty>{t('logs.none')}</Empty>}
      <ul class="rows events">
        {rows.map((one, at) => (
          <li key={one.id ?? at}>
            <span class="soft">{logMoment(`${one.date} ${one.time}`)}</span>
            <bdi>{one.description.replace(/^\[[^\]]*\]\s*/, '')}</bdi>
          </li>
        ))}
      </ul>
    </Card>
  )
}

// A link that is down counts as on its way until the appliance says that it has been so for too long.
export const linkState = (up: boolean, tooLong: boolean): readonly [TextKey, Tone] =>
  up ? ['sdwan.up', 'good'] : tooLong ? ['sdwan.down', 'bad'] : ['state.connecting', 'busy']
const Link = ({ up, tooLong }: { up: boolean; tooLong: boolean }) => {
  const [word, tone] = linkState(up, tooLong)
  return <Badge tone={tone}>{t(word)}</Badge>
}

const TOPOLOGY: readonly (readonly [TextKey, Tone])[] = [
  ['sdwan.down', 'bad'],
  ['sdwan.up', 'good'],
  ['sdwan.partly', 'warn'],
]

function Member({ onLeft }: { onLeft: () => void }) {
  const status = usePoll(() => data<Status>('pelmar/get_pelmar_status', {}, SLOW), PAUSE)
  const job = useJob()
  const leave = async () => {
    if (
      !(await confirm({
        title: t('sdwan.leave'),
        text: t('sdwan.leaveText'),
        action: t('sdwan.leave'),
        danger: true,
      }))
    )
      return
    await job.run('leave', async () => {
      await call('pelmar/device_unregister', {}, SLOW)
      say('sdwan.left')
      onLeft()
    })
  }
  const leaving = (
    <Card title={t('sdwan.leave')}>
      <p>{t('sdwan.leaveHelp')}</p>
      <Failure failure={job.failure} />
      <div class="row">
        <Button kind="danger" busy={job.busy === 'leave'} onClick={() => void leave()}>
          {t('sdwan.leave')}
        </Button>
      </div>
    </Card>
  )
  const value = status.value
  if (!value)
    return (
      <>
        {status.failure ? (
          <Failure failure={status.failure} onRetry={status.refresh} />
        ) : (
          <Spinner />
        )}
        {status.failure && leaving}
      </>
    )
  const topology = value.hub?.topology_status ?? 0
  const [word, tone] =
    topology === 0
      ? linkState(false, value.local.is_ipsec_timeout)
      : (TOPOLOGY[topology] ?? linkState(false, true))
  const linked = value.orchestrator.connection_status !== 0
  return (
    <>
      <Failure failure={status.failure} />
      <div class="columns">
        <Card title={t('sdwan.status')}>
          <Facts
            rows={[
              [t('sdwan.organization'), <bdi>{value.orchestrator.organization}</bdi>],
              [t('sdwan.region'), <bdi>{value.orchestrator.region}</bdi>],
              [
                t('sdwan.orchestrator'),
                <Link up={linked} tooLong={value.orchestrator.is_mqtt_timeout} />,
              ],
              [
                t('sdwan.tunnel'),
                <Link up={value.vpn_status !== 0} tooLong={value.local.is_ipsec_timeout} />,
              ],
            ]}
          />
          {(value.orchestrator.is_mqtt_timeout || value.local.is_ipsec_timeout) && (
            <Notice tone="bad">{t('sdwan.tooLong')}</Notice>
          )}
        </Card>
        <Card title={t('sdwan.here')}>
          <Facts
            rows={[
              [t('name'), <bdi>{value.local.device_name}</bdi>],
              [t('sdwan.virtual'), value.local.virtual_ip],
              [t('sdwan.by'), value.local.network_interface],
              [t('sdwan.serial'), value.local.serial_number],
            ]}
          />
        </Card>
        {value.hub && (
          <Card title={t('sdwan.hub')}>
            <Facts
              rows={[
                [t('name'), <bdi>{value.hub.name}</bdi>],
                [t('client.host'), value.hub.public_ip],
                [t('sdwan.tunnel'), <Badge tone={tone}>{t(word)}</Badge>],
              ]}
            />
          </Card>
        )}
        {value.supernode && value.supernode.total_usage > 0 && (
          <>
            <Quota supernode={value.supernode} />
            <Days />
          </>
        )}
        <MemberLog key={`log ${value.local.virtual_ip}`} />
        <VirtualAddress
          key={value.local.virtual_ip}
          current={value.local.virtual_ip}
          onChanged={status.refresh}
        />
        {leaving}
      </div>
    </>
  )
}

export function SdwanPage() {
  const device = usePoll(() => data<{ is_on_pelmar: boolean }>('pelmar/check_device'), 0)
  if (device.failure instanceof ApiError && device.failure.code === NO_APPLICATION)
    return (
      <Card>
        <Empty>{t('sdwan.notHere')}</Empty>
      </Card>
    )
  if (!device.value)
    return device.failure ? (
      <Failure failure={device.failure} onRetry={device.refresh} />
    ) : (
      <Spinner />
    )
  return device.value.is_on_pelmar ? (
    <Member onLeft={device.refresh} />
  ) : (
    <Join onJoined={device.refresh} />
  )
}
