// The certificates of this appliance: how long they last, renewing the OpenVPN server's, and replacing
// its authority step by step.
import { useState } from 'preact/hooks'
import { ApiError, call, data, SLOW } from '../api'
import type { Certificate, Certificates, Rotation } from '../certificates'
import { count, date, decodeName, moment, number } from '../format'
import { usePoll } from '../poll'
import { t, textOr, type TextKey } from '../texts'
import { tc, type CertificateKey } from '../texts/certificates'
import {
  Badge,
  Button,
  Card,
  Empty,
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

const PAUSE = 60_000
const DAY = 86_400
const OVERLAPS = [30, 60, 90, 180] // days
const TONES: Record<Certificate['state'], Tone> = {
  good: 'good',
  soon: 'warn',
  over: 'bad',
  early: 'bad',
  unreadable: 'bad',
}

const day = (seconds: number): string => date(new Date(seconds * 1000))
export const roleText = (one: Certificate): string =>
  t(`certRole.${one.role}` as TextKey, { profile: decodeName(one.profile) })

function stateText(one: Certificate): string {
  if (one.state === 'unreadable') return tc('unreadable')
  if (one.state === 'over') return tc('over')
  if (one.state === 'early') return tc('early', { date: day(one.not_before) })
  return one.days === undefined
    ? tc('endless')
    : one.days === 1
      ? tc('day')
      : tc('days', { n: number(one.days) })
}

function noteOf(one: Certificate, all: Certificates): string {
  if (one.state === 'unreadable') return one.fault
  if (one.role === 'authority-next') return tc('signsFrom', { date: day(all.rotation.change) })
  if (one.role === 'authority-old') return tc('trustedUntil', { date: day(all.rotation.end) })
  if (one.role === 'server') return tc('renewedFrom', { date: day(all.renewal) })
  return one.not_after ? tc('until', { date: day(one.not_after) }) : ''
}

function Holders({ rotation }: { rotation: Rotation }) {
  if (rotation.holders.length === 0) return <p>{tc('noHolders')}</p>
  return (
    <>
      <p>{tc('holders')}</p>
      <ul>
        {rotation.holders.map(one => (
          <li key={one.user}>
            <bdi class="name">{one.user}</bdi>{' '}
            <span class="soft">
              {one.last_login ? tc('lastLogin', { when: moment(one.last_login) }) : tc('noLogin')}
            </span>
          </li>
        ))}
      </ul>
    </>
  )
}

// The program's reason says what is wrong.
const Refusal = ({ failure }: { failure: unknown }) =>
  failure instanceof ApiError && failure.kind === 'code' && failure.reason ? (
    <Notice tone="bad">{failure.reason}</Notice>
  ) : (
    <Failure failure={failure} />
  )

// `dropped` connections end when the server restarts.
export function CertificatesCard({ dropped, onDone }: { dropped: number; onDone: () => void }) {
  const list = usePoll(() => data<Certificates>('cert/list'), PAUSE)
  const job = useJob()
  const [days, setDays] = useState(60)
  const all = list.value
  if (!all) return list.failure ? <Failure failure={list.failure} /> : <Spinner />
  const { phase } = all.rotation
  const drops = count(dropped, 'server.dropsOne', 'server.drops')

  // Each change is confirmed first, with its effect and the users whom it disconnects.
  const ask = async (
    name: string,
    question: { title: CertificateKey; text: string; action: CertificateKey; more?: string[] },
    work: () => Promise<unknown>,
  ) => {
    const yes = await confirm({
      title: tc(question.title),
      text: question.text,
      action: tc(question.action),
      more: question.more ?? [],
      danger: true,
    })
    if (!yes) return
    await job.run(name, async () => {
      await work()
      say('saved')
      onDone()
    })
    list.refresh()
  }
  const step = (name: string, form = {}) => call('cert/rotate', { step: name, ...form }, SLOW)

  const renew = () =>
    ask(
      'renew',
      { title: 'renewTitle', text: tc('renewText'), action: 'renew', more: [drops] },
      () => call('cert/renew', {}, SLOW),
    )
  const begin = () =>
    ask(
      'begin',
      {
        title: 'rotateTitle',
        text: tc('rotateText', { date: day(Date.now() / 1000 + days * DAY) }),
        action: 'rotate',
      },
      () => step('begin', { overlap: days * DAY }),
    )
  const change = () =>
    ask(
      'advance',
      {
        title: 'changeTitle',
        text: tc('changeText'),
        action: 'change',
        more: [drops, ...all.rotation.holders.map(one => one.user)],
      },
      () => step('advance'),
    )
  const end = () =>
    ask('advance', { title: 'endTitle', text: tc('endText'), action: 'end' }, () => step('advance'))
  const cancel = () =>
    ask('cancel', { title: 'cancelTitle', text: tc('cancelText'), action: 'cancel' }, () =>
      step('cancel'),
    )

  const hasServer = all.certificates.some(one => one.role === 'authority')
  return (
    <Card title={tc('title')}>
      <p>{tc('help')}</p>
      <Failure failure={list.failure} />
      <Refusal failure={job.failure} />
      {all.certificates.length === 0 && <Empty>{tc('none')}</Empty>}
      {all.certificates.length > 0 && (
        <Table label={tc('title')} heads={[tc('what'), tc('subject'), tc('left'), tc('note')]}>
          {all.certificates.map((one, at) => (
            <tr key={at}>
              <td>{textOr(`certRole.${one.role}`, '') ? roleText(one) : one.role}</td>
              <td>
                <bdi class="name">{one.subject}</bdi>
              </td>
              <td>
                <Badge tone={TONES[one.state]}>{stateText(one)}</Badge>
              </td>
              <td>{noteOf(one, all)}</td>
            </tr>
          ))}
        </Table>
      )}
      {phase !== 'none' && (
        <Notice>
          <strong>
            {tc(phase, {
              date: day(phase === 'changed' ? all.rotation.end : all.rotation.change),
            })}
          </strong>
          <Holders rotation={all.rotation} />
        </Notice>
      )}
      {hasServer && phase === 'none' && (
        <Field label={tc('time')} help={tc('timeHelp')}>
          {ids => (
            <select
              {...ids}
              value={days}
              onChange={event => setDays(Number(event.currentTarget.value))}
            >
              {OVERLAPS.map(one => (
                <option key={one} value={one}>
                  {tc('days', { n: number(one) })}
                </option>
              ))}
            </select>
          )}
        </Field>
      )}
      {hasServer && (
        <div class="row">
          <Button busy={job.busy === 'renew'} onClick={() => void renew()}>
            {tc('renew')}
          </Button>
          {phase === 'none' && (
            <Button busy={job.busy === 'begin'} onClick={() => void begin()}>
              {tc('rotate')}
            </Button>
          )}
          {(phase === 'overlap' || phase === 'changing') && (
            <Button kind="danger" busy={job.busy === 'advance'} onClick={() => void change()}>
              {tc('change')}
            </Button>
          )}
          {phase === 'overlap' && (
            <Button busy={job.busy === 'cancel'} onClick={() => void cancel()}>
              {tc('cancel')}
            </Button>
          )}
          {phase === 'changed' && (
            <Button busy={job.busy === 'advance'} onClick={() => void end()}>
              {tc('end')}
            </Button>
          )}
        </div>
      )}
    </Card>
  )
}
