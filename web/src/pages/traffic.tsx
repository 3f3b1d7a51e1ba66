// The curves of the overview, with what one can do to them.
import { useState } from 'preact/hooks'
import { data } from '../api'
import { Curves } from '../curves'
import { bits, clock, rate } from '../format'
import { PROTOCOLS } from '../model'
import { usePoll } from '../poll'
import { t, type TextKey } from '../texts'
import { columns } from '../traffic'
import { Card, Empty, Tabs } from '../ui'

const SPANS = ['300', '3600', '86400'] as const
type Span = (typeof SPANS)[number]
const NAMES: Record<Span, TextKey> = {
  300: 'traffic.minutes',
  3600: 'traffic.hour',
  86400: 'traffic.day',
}
const PAUSE = 20_000
const PLACE = 'ormel.bits'

interface Recorded {
  step: number
  types: number[] // of servers, in the order of the columns
  rows: number[][] // a time, what came in by protocol, what went out
}

// The rows that the appliance has recorded, with the columns in the order of PROTOCOLS.
export function pointsOf({ types, rows }: Recorded): number[][] {
  const at = PROTOCOLS.map(one => types.indexOf(one.server))
  const side = (row: readonly number[], first: number) =>
    at.map(column => (column < 0 ? 0 : (row[first + column] ?? 0)))
  const width = 1 + 2 * PROTOCOLS.length
  return columns(
    rows.map(row => [row[0] ?? 0, ...side(row, 1), ...side(row, 1 + types.length)]),
    width,
  )
}

function useRecorded(span: Span) {
  return usePoll(
    async () =>
      span === '300'
        ? null
        : { span, points: pointsOf(await data<Recorded>('traffic/history', { span })) },
    PAUSE,
    [span],
  )
}

export function Traffic({ points }: { points: number[][] }) {
  const [span, setSpan] = useState<Span>('300')
  const [inBits, setInBits] = useState(localStorage.getItem(PLACE) === '1')
  const [hidden, setHidden] = useState<ReadonlySet<string>>(new Set())
  const [hover, setHover] = useState<number | null>(null)
  const recorded = useRecorded(span)
  const words = inBits ? bits : rate
  const shown =
    span === '300' ? points : recorded.value?.span === span ? recorded.value.points : null
  const last = (shown?.[0]?.length ?? 0) - 1
  const at = hover !== null && hover <= last ? hover : last
  const toggle = (label: string) => {
    const next = new Set(hidden)
    if (!next.delete(label)) next.add(label)
    setHidden(next)
  }
  const useBits = (wanted: boolean) => {
    localStorage.setItem(PLACE, wanted ? '1' : '0')
    setInBits(wanted)
  }
  return (
    <Card
      title={t('traffic.title')}
      side={
        <>
          <Tabs
            label={t('traffic.unit')}
            names={[
              ['bytes', t('traffic.bytes')],
              ['bits', t('traffic.bits')],
            ]}
            current={inBits ? 'bits' : 'bytes'}
            onPick={one => useBits(one === 'bits')}
          />
          <Tabs
            label={t('traffic.span')}
            names={SPANS.map(one => [one, t(NAMES[one])] as const)}
            current={span}
            onPick={setSpan}
          />
        </>
      }
    >
      <div class="graph-box">
        {recorded.failure && span !== '300' && <Empty>{t('traffic.none')}</Empty>}
        {shown && (
          <Curves
            count={PROTOCOLS.length}
            points={shown}
            label={t('traffic.label')}
            span={Number(span)}
            shown={PROTOCOLS.map(one => !hidden.has(one.label))}
            words={words}
            inBits={inBits}
            hover={hover}
            onHover={setHover}
          />
        )}
      </div>
      <ul class="legend">
        <li class="soft">
          {shown && last >= 0 ? clock(new Date((shown[0]?.[at] ?? 0) * 1000)) : ''}
        </li>
        {PROTOCOLS.map((one, column) => (
          <li key={one.id}>
            <button
              type="button"
              aria-pressed={!hidden.has(one.label)}
              title={t('traffic.hide', { name: one.label })}
              onClick={() => toggle(one.label)}
            >
              <span class={`dot curve-${column + 1}`} aria-hidden="true" />
              {one.label}{' '}
              <b>
                ↓ {words(shown?.[column + 1]?.[at] ?? 0)} ↑{' '}
                {words(shown?.[column + 1 + PROTOCOLS.length]?.[at] ?? 0)}
              </b>
            </button>
          </li>
        ))}
      </ul>
    </Card>
  )
}
