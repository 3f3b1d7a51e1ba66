// The picture of a graph. Its colours are those of the style sheet, in every theme.
import { useEffect, useRef, useState } from 'preact/hooks'
import { clock } from './format'
import { EDGES, frameOf, pathOf, rateMarks, sampleAt, timeMarks, xOf, yOf } from './graph'

const HEIGHT = 240
const LONG = 3600 // seconds from which on no seconds are shown

type CurvesProps = {
  count: number // of curves
  points: number[][] // times, then a column for each curve in, then one for each out
  label: string
  span: number // seconds
  shown: readonly boolean[] // by curve
  words: (rate: number) => string
  inBits: boolean
  hover: number | null // a row of the points
  onHover: (at: number | null) => void
}
export function Curves({
  count,
  points,
  label,
  span,
  shown,
  words,
  inBits,
  hover,
  onHover,
}: CurvesProps) {
  const box = useRef<HTMLDivElement>(null)
  const [width, setWidth] = useState(0)
  useEffect(() => {
    const place = box.current
    if (!place) return
    const watch = new ResizeObserver(() => setWidth(place.clientWidth))
    watch.observe(place)
    return () => watch.disconnect()
  }, [])
  const times = points[0] ?? []
  const frame = frameOf(points, shown, span, width, HEIGHT)
  // One that has carried nothing would only lie on the middle line, over the others.
  const carries = (at: number) =>
    [points[at + 1], points[at + 1 + count]].some(column => column?.some(rate => rate > 0))
  const bottom = HEIGHT - EDGES.bottom
  const pointer = useRef<number | null>(null)
  const point = (event: PointerEvent) => {
    pointer.current = event.clientX - (box.current?.getBoundingClientRect().left ?? 0)
    onHover(sampleAt(frame, times, pointer.current))
  }
  const leave = () => {
    pointer.current = null
    onHover(null)
  }
  // The curves move on below a pointer that rests.
  useEffect(() => {
    if (pointer.current !== null) onHover(sampleAt(frame, times, pointer.current))
  }, [points])
  return (
    <div ref={box} class="graph" onPointerMove={point} onPointerDown={point} onPointerLeave={leave}>
      {width > 0 && times.length > 0 && (
        <svg
          width={width}
          height={HEIGHT}
          viewBox={`0 0 ${width} ${HEIGHT}`}
          role="img"
          aria-label={label}
        >
          {rateMarks(frame, inBits).map(rate => (
            <g key={rate} class={rate === 0 ? 'middle' : ''}>
              <path d={`M${EDGES.left} ${yOf(frame, rate).toFixed(1)}H${width - EDGES.right}`} />
              <text x={EDGES.left - 8} y={yOf(frame, rate) + 4} text-anchor="end">
                {words(Math.abs(rate))}
              </text>
            </g>
          ))}
          {timeMarks(frame).map(time => (
            <text key={time} x={xOf(frame, time)} y={HEIGHT - 6} text-anchor="middle">
              {clock(new Date(time * 1000), span < LONG)}
            </text>
          ))}
          {Array.from({ length: count }, (_, at) => at)
            .filter(at => shown[at] && carries(at))
            .map(at => (
              <path
                key={at}
                class={`line curve-${at + 1}`}
                d={
                  pathOf(frame, times, points[at + 1] ?? [], 1) +
                  pathOf(frame, times, points[at + 1 + count] ?? [], -1)
                }
              />
            ))}
          {hover !== null && times[hover] !== undefined && (
            <path
              class="cursor"
              d={`M${xOf(frame, times[hover] ?? 0).toFixed(1)} ${EDGES.top}V${bottom}`}
            />
          )}
        </svg>
      )}
    </div>
  )
}
